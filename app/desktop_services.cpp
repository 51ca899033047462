#include "app/desktop_services.h"

#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "midi/backend_factory.h"
#include "midi/fan_out_backend.h"
#include "midi/midi_service_probe.h"
#include "platform/desktop_announcer.h"
#include "platform/lazy_sound_player.h"
#include "platform/screen_reader_monitor.h"
#if defined(PLINKORA_HAVE_SPEECHD)
#include "platform/speech_dispatcher_voice.h"
#elif defined(PLINKORA_HAVE_QT_SPEECH)
#include "platform/qt_speech_voice.h"
#endif

#include <QPointer>
#include <QTimer>

#include <functional>
#include <utility>

namespace plinkora {

/// Answers "no screen reader" until the screen-reader monitor exists. The monitor opens D-Bus
/// connections (tens of milliseconds on a busy machine), so it is made one turn of the event
/// loop after the start-up, off the path to the port and the window; its own answers arrive
/// asynchronously anyway.
class DesktopServices::LateScreenReaderDetector final : public ScreenReaderDetector
{
public:
    bool isRunning() const override { return monitor_ && monitor_->isRunning(); }
    bool hasAnswered() const override { return monitor_ && monitor_->hasAnswered(); }
    /// Called once, when the monitor's first answers are in.
    void setFirstAnswerCallback(std::function<void()> answered) { firstAnswer_ = std::move(answered); }
    void make()
    {
        if (monitor_)
            return;
        monitor_ = std::make_unique<ScreenReaderMonitor>();
        QObject::connect(monitor_.get(), &ScreenReaderMonitor::refreshed, monitor_.get(), [this] {
            if (firstAnswer_)
                std::exchange(firstAnswer_, {})();
        });
    }

private:
    std::unique_ptr<ScreenReaderMonitor> monitor_;
    std::function<void()> firstAnswer_;
};

DesktopServices::DesktopServices(std::optional<std::string> midiApi, SettingsStore& settings,
                                 BuiltInSynth::Options synth)
    : midiApiRequest_(midiApi ? *midiApi
                              : settings.stringForKey(QString::fromLatin1(kMIDIApiKey)).trimmed().toStdString())
    , settingsFile_(settings.fileName().toStdString())
    , settings_(settings)
    , synthOptions_(std::move(synth))
{
    // Before any worker thread runs: the MIDI back ends set JACK's environment only once.
    forbidJackServerStart();
}

DesktopServices::~DesktopServices() = default;

AppServices DesktopServices::services()
{
    AppServices services;
    services.makeMIDIBackend = [this] { return makeMIDIBackend(); };
    services.makeSoundPlayer = [] { return std::make_unique<LazySoundPlayer>(); };
    services.makeAnnouncer = [this] { return makeAnnouncer(); };
    services.chooseSoundFont = [this](const QString& path) {
        if (synth_)
            synth_->setSoundFont(path.toStdString());
    };
    services.chooseAudioDriver = [this](const QString& name) {
        if (synth_)
            synth_->setAudioDriver(name.toStdString());
    };
    services.addBuiltInSynth = [this](std::unique_ptr<MIDIBackend> port) { return addBuiltInSynth(std::move(port)); };
    services.followReaders = [this](MIDIPatchbay* readers) {
        if (synth_)
            synth_->setPatchbay(readers);
    };
    services.synthControl = [this]() -> SynthControl* { return synth_.get(); };
    services.attachAnnouncementLabel = [](Announcer& announcer, AnnouncementLabel* label) {
        if (auto* desktop = dynamic_cast<DesktopAnnouncer*>(&announcer))
            desktop->setLabel(label);
    };
    return services;
}

std::unique_ptr<MIDIBackend> DesktopServices::makeMIDIBackend()
{
    // Touches no Qt object: it may run on a worker while the toolkit starts.
    std::string error;
    std::unique_ptr<MIDIBackend> backend = chooseBackend(midiApiRequest_, error);
    if (!backend) {
        // Only the setting can name an unknown system here: the command line was checked.
        printLine("Ignoring the setting \"" + std::string(kMIDIApiKey) + "\" in " + settingsFile_ + ": " + error);
        backend = chooseBackend({}, error);
    }
    return backend;
}

std::unique_ptr<MIDIBackend> DesktopServices::addBuiltInSynth(std::unique_ptr<MIDIBackend> port)
{
#if defined(PLINKORA_HAVE_FLUIDSYNTH)
    // The built-in synthesizer hears what the port sends; its sound font loads on a worker.
    synth_ = std::make_unique<BuiltInSynth>(settings_, std::move(synthOptions_));
    return std::make_unique<FanOutBackend>(std::move(port), synth_.get());
#else
    return port; // built without FluidSynth: no built-in synthesizer
#endif
}

void DesktopServices::startBuiltInSynth()
{
    if (synth_)
        synth_->start();
}

std::unique_ptr<Announcer> DesktopServices::makeAnnouncer()
{
    if (!screenReader_) {
        screenReader_ = std::make_unique<LateScreenReaderDetector>();
        QTimer::singleShot(0, &context_, [detector = screenReader_.get()] { detector->make(); });
    }
    if (!voice_) {
#if defined(PLINKORA_HAVE_SPEECHD)
        voice_ = std::make_unique<SpeechDispatcherVoice>();
#elif defined(PLINKORA_HAVE_QT_SPEECH)
        voice_ = std::make_unique<QtSpeechVoice>();
#else
        voice_ = std::make_unique<SilentVoice>();
#endif
    }
    auto announcer = std::make_unique<DesktopAnnouncer>(*screenReader_, *voice_);
    // What was to be spoken before the screen-reader question had its answer is spoken then.
    screenReader_->setFirstAnswerCallback(
        [announcer = announcer.get(), alive = QPointer<QObject>(announcer->context())] {
            if (alive)
                announcer->speakHeld();
        });
    return announcer;
}

} // namespace plinkora
