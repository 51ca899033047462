#pragma once

#include "synth/audio_driver.h"
#include "synth/sound_font_presets.h"
#include "synth/synth_target.h"

#include <QObject>
#include <QTimer>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace plinkora {

/// FluidSynth with a General MIDI sound font, heard through the first audio output that opens:
/// a running JACK server (its outputs connected to the system's playback ports), else PipeWire,
/// else PulseAudio, else ALSA.
///
/// The sound font is loaded and the audio output opened on a worker thread: nothing of that is
/// on the start-up path. Until that is done notes are dropped; controllers, programs and bends
/// are kept and given to the synthesizer when it is there (the same happens when another sound
/// font is loaded). The font is loaded cut down to the presets the channels' programs choose
/// (see SoundFontPresets); a program change to a preset not loaded yet loads a font with it on
/// the worker, and the channel keeps its preset until that is there. After `idleTime` without
/// a sound the audio output is closed, so that an idle synthesizer costs no processor time; the
/// next note opens it again. A muted synthesizer (setPlaying(false)) closes it as soon as its
/// voices have ended.
///
/// Lines on standard output: "Built-in synthesizer: FONT on DRIVER" when it is ready, "Sound font
/// not found: PATH", "Sound font could not be read: PATH", "Audio output failed: ..." (each of the
/// last three is also handed to the problem callback, for an announcement), "Built-in
/// synthesizer: audio suspended" and "... resumed". Main thread only, except the worker.
class FluidEngine final : public SynthTarget
{
public:
    struct Options
    {
        std::chrono::milliseconds idleTime{10000};
        /// The audio outputs to try, in order. Of several, "jack" is tried only while a JACK
        /// server runs and those this FluidSynth lacks are passed over.
        std::vector<std::string> drivers = automaticAudioDrivers();
        /// Where FluidSynth's "file" output writes (tests); empty: its default.
        std::string audioFile;
    };

    FluidEngine();
    explicit FluidEngine(Options options);
    ~FluidEngine() override;
    FluidEngine(const FluidEngine&) = delete;
    FluidEngine& operator=(const FluidEngine&) = delete;

    /// Loads `soundFont` into a new synthesizer and opens the audio output for it, on the worker;
    /// the one in use plays until the new one is ready. A load still under way finishes first.
    void load(const std::string& soundFont);
    /// Opens the audio output again after it failed (another device may be there now). A note
    /// does this too, at most every 5 s, while no output is open.
    void retryAudio();
    /// Changes the audio outputs to try and opens the output again with them: the one open now
    /// is closed first. A failure gives the "Audio output failed: ..." line (and the problem
    /// callback). Before a sound font is loaded it only changes what the load will try.
    void setDrivers(std::vector<std::string> drivers);
    const std::vector<std::string>& drivers() const { return options_.drivers; }
    /// The audio outputs this FluidSynth has ("alsa", "jack", "pulseaudio", ...).
    static std::vector<std::string> availableDrivers();

    /// While false, notes are released at once and new ones are dropped, and the audio output
    /// closes once the voices have ended ("audio suspended"); true opens it again at once.
    void setPlaying(bool playing);
    bool isPlaying() const { return playing_; }
    /// A sound font is loaded and an audio output opened (it may be suspended now, while idle).
    bool isReady() const { return instance_ != nullptr && !driverName_.empty(); }
    bool isSuspended() const { return suspended_; }
    bool isLoading() const { return worker_.joinable() && !instance_; }
    /// The loaded font's path and the audio output's name ("jack", "pulseaudio", ...).
    const std::string& soundFont() const { return soundFontPath_; }
    const std::string& driverName() const { return driverName_; }

    /// Called on the main thread when isReady() or isSuspended() changes.
    void setChangedCallback(std::function<void()> changed) { changed_ = std::move(changed); }
    /// Called on the main thread with each error line (for an announcement).
    void setProblemCallback(std::function<void(const std::string&)> problem) { problem_ = std::move(problem); }

    // What the synthesizer is told: MIDI channel messages. Never allocate, except a program
    // change whose preset is not loaded yet (it starts the load).
    void noteOn(int channel, int key, int velocity) override;
    void noteOff(int channel, int key) override;
    void controlChange(int channel, int controller, int value) override;
    void programChange(int channel, int program) override;
    void pitchBend(int channel, int value) override;
    void channelPressure(int channel, int value) override;
    void keyPressure(int channel, int key, int value) override;

    /// Changes the idle time before the audio output is closed.
    void setIdleTime(std::chrono::milliseconds idleTime) { options_.idleTime = idleTime; }
    /// Waits for the worker; for tests and benchmarks.
    void waitForWorker();
    /// The voices sounding now (0 without a synthesizer).
    int activeVoices() const;
    /// The voices the synthesizer has: 64, or 128 once more than 48 have sounded at once.
    int voices() const;
    /// The program of `channel` in the synthesizer (-1 without one).
    int program(int channel) const;
    /// The presets of the cut-down font in use; empty when the font is loaded whole, or none is.
    std::set<PresetNumber> presetsLoaded() const;

private:
    struct CutDownFont;
    struct Instance;
    struct Outcome;

    static std::string openFirstDriver(Instance& instance, const std::vector<std::string>& drivers,
                                       std::string& problem);
    void openAudio(bool sayWhyNot);
    void startWorker(std::function<void(Outcome&)> job, void (FluidEngine::*done)(const std::shared_ptr<Outcome>&));
    void finish(const std::shared_ptr<Outcome>& outcome);
    void ensurePresets();
    void finishExtension(const std::shared_ptr<Outcome>& outcome);
    void adopt(std::unique_ptr<Instance> instance);
    void restoreChannels();
    void selectPrograms();
    bool wake();
    void touch();
    void suspend();
    void idleCheck();
    void report(const std::string& line);

    Options options_;
    std::unique_ptr<Instance> instance_;
    std::uint64_t generation_ = 0; // counts the synthesizers adopted
    std::string soundFontPath_;
    std::string driverName_;
    bool playing_ = true;
    bool suspended_ = false;
    std::chrono::steady_clock::time_point lastSound_;
    std::chrono::steady_clock::time_point lastRetry_;
    std::array<std::uint16_t, 16> heldNotes_{};
    // What has been said to each channel, for a synthesizer that arrives later: -1 for nothing.
    std::array<std::array<std::int16_t, 128>, 16> controllers_;
    std::array<std::int16_t, 16> programs_;
    std::array<std::int16_t, 16> bends_;
    std::thread worker_;
    std::function<void()> changed_;
    std::function<void(const std::string&)> problem_;
    QTimer idleTimer_;
    // Context of the worker's queued results: they die with the engine.
    QObject context_;
};

} // namespace plinkora
