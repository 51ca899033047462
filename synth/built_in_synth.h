#pragma once

#include "common/user_text.h"
#include "midi/fan_out_backend.h"
#include "synth/fluid_engine.h"
#include "synth/synth_control.h"
#include "synth/synth_policy.h"

#include <QString>

#include <functional>
#include <optional>
#include <string>

namespace plinkora {

class MIDIPatchbay;
class SettingsStore;

/// The built-in synthesizer: hears every message PLK sends (as the fan-out's listener) and plays
/// it with FluidSynth while its policy lets it (`--synth`, the setting "Synth"; auto: while no
/// other program reads PLK). The sound font is the one given with `--soundfont` (then
/// remembered), else the setting "SoundFont", else FluidR3_GM when installed, else TimGM6mb.
/// The audio output likewise: `--audio-driver` (then remembered), else the setting
/// "AudioDriver", else automatic. Main thread only.
class BuiltInSynth final : public SynthControl, public MIDIListener
{
public:
    static constexpr const char* kModeKey = "Synth";
    static constexpr const char* kSoundFontKey = "SoundFont";
    static constexpr const char* kAudioDriverKey = "AudioDriver";

    struct Options
    {
        std::optional<SynthMode> mode;          // --synth: for this run, not remembered
        std::optional<std::string> soundFont;   // --soundfont: remembered
        std::optional<std::string> audioDriver; // --audio-driver: remembered
        FluidEngine::Options engine;
    };

    BuiltInSynth(SettingsStore& settings, Options options);
    ~BuiltInSynth() override;
    BuiltInSynth(const BuiltInSynth&) = delete;
    BuiltInSynth& operator=(const BuiltInSynth&) = delete;

    /// Loads the sound font on the worker, unless the mode is "off" (then the first change to
    /// another mode loads it). Nothing here blocks.
    void start();

    /// The sound font in use or being loaded.
    const std::string& soundFont() const { return soundFont_; }
    /// Chooses another sound font (.sf2 or .sf3), remembers it and loads it; also tries the audio
    /// output again. A font that cannot be loaded leaves the one in use playing.
    void setSoundFont(const std::string& path);
    /// The font used when none is chosen: FluidR3_GM when installed, else TimGM6mb.
    static std::string defaultSoundFont();

    /// The chosen audio output: "auto" or a FluidSynth audio driver's name.
    const std::string& audioDriver() const { return audioDriver_; }
    /// Chooses the audio output, remembers it and opens it (again, when it is the one in use or
    /// the one that failed). A failure gives one line and an announcement.
    void setAudioDriver(const std::string& choice);
    /// The stored choice of `settings`, "auto" when none or not one of `available`.
    static std::string storedAudioDriver(const SettingsStore& settings, const std::vector<std::string>& available);

    /// Follows PLK's readers on `patchbay` for the auto mode (null: nobody reads PLK).
    void setPatchbay(MIDIPatchbay* patchbay);
    /// Where problems are announced (the property manager's announce); empty: printed only.
    void setAnnounce(std::function<void(const UserText&)> announce) { announce_ = std::move(announce); }

    // SynthControl
    SynthMode mode() const override { return policy_.mode(); }
    void setMode(SynthMode mode) override;
    bool isAudible() const override;
    void setChangeCallback(std::function<void()> changed) override { changed_ = std::move(changed); }

    // MIDIListener: every message PLK sends.
    void midiSent(MIDIBytes message) override;

    FluidEngine& engine() { return engine_; }
    SynthPolicy& policy() { return policy_; }

private:
    void playingChanged(bool playing);
    void notify();

    SettingsStore& settings_;
    FluidEngine engine_;
    SynthPolicy policy_;
    std::string soundFont_;
    std::string audioDriver_;
    bool started_ = false;
    bool loadRequested_ = false;
    std::function<void(const UserText&)> announce_;
    std::function<void()> changed_;
};

} // namespace plinkora
