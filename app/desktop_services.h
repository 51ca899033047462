#pragma once

#include "app/app_delegate.h"
#include "synth/built_in_synth.h"

#include <QObject>

#include <memory>
#include <optional>
#include <string>

namespace plinkora {

class SettingsStore;
class Voice;

/// The real desktop behind the application: the MIDI back end chosen by --midi-api, else by the
/// setting "MidiApi", else automatically; the Qt Multimedia sound player; the announcer that
/// posts to the status bar's label and speaks with speech-dispatcher when no screen reader
/// runs. Owns the screen-reader monitor (made one event-loop turn after the start-up) and the
/// voice, which must outlive the application delegate: make this first, destroy it last.
class DesktopServices
{
public:
    /// `midiApi`: the name given with --midi-api, if any; `synth`: --synth and --soundfont.
    DesktopServices(std::optional<std::string> midiApi, SettingsStore& settings, BuiltInSynth::Options synth = {});
    ~DesktopServices();
    DesktopServices(const DesktopServices&) = delete;
    DesktopServices& operator=(const DesktopServices&) = delete;

    /// The services for AppDelegate; they refer to this object.
    AppServices services();

    /// The built-in synthesizer, made with the MIDI back end (null before); it hears every
    /// message through the back end's fan-out.
    BuiltInSynth* synth() { return synth_.get(); }
    /// Starts the built-in synthesizer, if there is one: its sound font loads and its audio
    /// output opens on a worker. The program calls it once the main window is up: a worker
    /// started with the port competed with the start-up for the processor and for the JACK
    /// server, which opens one client at a time (50 ms later to the port, 60 to the window).
    void startBuiltInSynth();

    static constexpr const char* kMIDIApiKey = "MidiApi";

private:
    std::unique_ptr<MIDIBackend> makeMIDIBackend();
    /// Makes the built-in synthesizer (not started yet) and a fan-out that hands every message to
    /// `port` and to it.
    std::unique_ptr<MIDIBackend> addBuiltInSynth(std::unique_ptr<MIDIBackend> port);
    std::unique_ptr<Announcer> makeAnnouncer();

    std::string midiApiRequest_; // --midi-api, else the setting (read here, on the main thread)
    std::string settingsFile_;
    SettingsStore& settings_;
    class LateScreenReaderDetector;

    BuiltInSynth::Options synthOptions_;
    std::unique_ptr<BuiltInSynth> synth_;
    std::unique_ptr<LateScreenReaderDetector> screenReader_;
    std::unique_ptr<Voice> voice_; // speech-dispatcher's where the build has it
    // Context of the deferred work: it dies with this object.
    QObject context_;
};

} // namespace plinkora
