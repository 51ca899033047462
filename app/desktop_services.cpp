#include "app/desktop_services.h"

#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "midi/backend_factory.h"
#include "midi/null_patchbay.h"
#include "platform/desktop_announcer.h"
#include "platform/qt_sound_player.h"
#include "platform/screen_reader_monitor.h"
#include "platform/speech_dispatcher_voice.h"

#include <QTimer>

namespace plinkora {

/// Answers "no screen reader" until the screen-reader monitor exists. The monitor opens D-Bus
/// connections (tens of milliseconds on a busy machine), so it is made one turn of the event
/// loop after the start-up, off the path to the port and the window; its own answers arrive
/// asynchronously anyway.
class DesktopServices::LateScreenReaderDetector final : public ScreenReaderDetector
{
public:
    bool isRunning() const override { return monitor_ && monitor_->isRunning(); }
    void make()
    {
        if (!monitor_)
            monitor_ = std::make_unique<ScreenReaderMonitor>();
    }

private:
    std::unique_ptr<ScreenReaderMonitor> monitor_;
};

DesktopServices::DesktopServices(std::optional<std::string> midiApi, SettingsStore& settings)
    : midiApi_(std::move(midiApi))
    , settings_(settings)
{
}

DesktopServices::~DesktopServices() = default;

AppServices DesktopServices::services()
{
    AppServices services;
    services.makeMidiBackend = [this] { return makeMidiBackend(); };
    services.makeSoundPlayer = [] { return std::make_unique<QtSoundPlayer>(); };
    services.makeAnnouncer = [this] { return makeAnnouncer(); };
    services.makePatchbay = [this](MidiBackend& backend) { return makePatchbay(backend); };
    services.synthControl = [this] { return synthControl(); };
    services.attachAnnouncementLabel = [](Announcer& announcer, AnnouncementLabel* label) {
        if (auto* desktop = dynamic_cast<DesktopAnnouncer*>(&announcer))
            desktop->setLabel(label);
    };
    return services;
}

std::unique_ptr<MidiBackend> DesktopServices::makeMidiBackend()
{
    std::string requested;
    if (midiApi_) {
        requested = *midiApi_;
    } else {
        requested = settings_.stringForKey(QString::fromLatin1(kMidiApiKey)).trimmed().toStdString();
    }
    std::string error;
    std::unique_ptr<MidiBackend> backend = chooseBackend(requested, error);
    if (!backend) {
        // Only the setting can name an unknown system here: the command line was checked.
        printLine("Ignoring the setting \"" + std::string(kMidiApiKey) + "\" in "
                  + settings_.fileName().toStdString() + ": " + error);
        backend = chooseBackend({}, error);
    }
    return backend;
}

std::unique_ptr<MidiPatchbay> DesktopServices::makePatchbay(MidiBackend& backend)
{
    // The patchbays of the ALSA sequencer and of JACK plug in here, chosen by backend.apiName()
    // (parseMidiApi gives its MidiApiKind). Until then PLK's connections are made elsewhere.
    (void)backend;
    return std::make_unique<NullPatchbay>();
}

SynthControl* DesktopServices::synthControl()
{
    // The built-in synthesizer's control plugs in here; without it the list has no entry for it.
    return nullptr;
}

std::unique_ptr<Announcer> DesktopServices::makeAnnouncer()
{
    if (!screenReader_) {
        screenReader_ = std::make_unique<LateScreenReaderDetector>();
        QTimer::singleShot(0, &context_, [detector = screenReader_.get()] { detector->make(); });
    }
    if (!voice_)
        voice_ = std::make_unique<SpeechDispatcherVoice>();
    return std::make_unique<DesktopAnnouncer>(*screenReader_, *voice_);
}

} // namespace plinkora
