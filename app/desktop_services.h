#pragma once

#include "app/app_delegate.h"

#include <QObject>

#include <memory>
#include <optional>
#include <string>

namespace plinkora {

class SettingsStore;
class SpeechDispatcherVoice;

/// The real desktop behind the application: the MIDI back end chosen by --midi-api, else by the
/// setting "MidiApi", else automatically; the Qt Multimedia sound player; the announcer that
/// posts to the status bar's label and speaks with speech-dispatcher when no screen reader
/// runs. Owns the screen-reader monitor (made one event-loop turn after the start-up) and the
/// voice, which must outlive the application delegate: make this first, destroy it last.
class DesktopServices
{
public:
    /// `midiApi`: the name given with --midi-api, if any.
    DesktopServices(std::optional<std::string> midiApi, SettingsStore& settings);
    ~DesktopServices();
    DesktopServices(const DesktopServices&) = delete;
    DesktopServices& operator=(const DesktopServices&) = delete;

    /// The services for AppDelegate; they refer to this object.
    AppServices services();

    static constexpr const char* kMidiApiKey = "MidiApi";

private:
    std::unique_ptr<MidiBackend> makeMidiBackend();
    /// The connections of PLK on the MIDI system of `backend`.
    std::unique_ptr<MidiPatchbay> makePatchbay(MidiBackend& backend);
    /// The built-in synthesizer's control; null while there is no built-in synthesizer.
    SynthControl* synthControl();
    std::unique_ptr<Announcer> makeAnnouncer();

    std::optional<std::string> midiApi_;
    SettingsStore& settings_;
    class LateScreenReaderDetector;

    std::unique_ptr<LateScreenReaderDetector> screenReader_;
    std::unique_ptr<SpeechDispatcherVoice> voice_;
    // Context of the deferred work: it dies with this object.
    QObject context_;
};

} // namespace plinkora
