// announcement_bench: the announcement of a property change, from PropertyManager::increaseValue
// (or decreaseValue) until its deferred job has run: the status bar's AnnouncementLabel shows the
// text (and posts it to screen readers) and the voice has been handed the text. Built as the
// program builds it: MIDIManager (null back end), KeyboardMonitor with its PropertyManager, the
// real DesktopAnnouncer with the real ScreenReaderMonitor, and the real MainWindow (shown, on a
// real QApplication, offscreen unless QT_QPA_PLATFORM says otherwise) whose status bar holds the
// label. Voices: one that only counts what it is asked to say, and the real
// SpeechDispatcherVoice with no speech-dispatcher to reach (a private socket path that nobody
// serves, no autospawn): it must not block. Also the screen-reader check on its own.
//
// Every property change also prints its "Announcing: " line; those lines go to /dev/null unless
// --diagnostics=file|pipe|pty says otherwise (see diagnostics_sink.h).
//
// Usage: announcement_bench [--diagnostics=null|file|pipe|pty] [Google Benchmark options]
// The Time column is per property change: the manual time of the measured part (see each
// benchmark; the CPU column also holds the untimed work between two changes); max_us is the
// slowest single change.

#include "benders/sound_player.h"
#include "common/settings_store.h"
#include "diagnostics_sink.h"
#include "input/keyboard_monitor.h"
#include "midi/midi_manager.h"
#include "midi/null_backend.h"
#include "platform/announcement_label.h"
#include "platform/desktop_announcer.h"
#include "platform/screen_reader_monitor.h"
#include "platform/speech_dispatcher_voice.h"
#include "platform/voice.h"
#include "properties/property_manager.h"
#include "ui/main_window.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace plinkora;
using namespace plinkora::bench;
using Clock = std::chrono::steady_clock;

namespace {

/// A voice that only counts what it is asked.
class CountingVoice final : public Voice
{
public:
    bool isSpeaking() const override { return false; }
    void stop() override { ++stops; }
    void speak(const QString& text) override
    {
        ++requests;
        last = text;
    }

    long long requests = 0;
    long long stops = 0;
    QString last;
};

class SilentSoundPlayer final : public SoundPlayer
{
public:
    std::optional<std::string> resourcePath() const override { return std::nullopt; }
    bool play(const std::string&, std::string&) override { return true; }
};

/// The objects of the running program that an announcement goes through.
class Desktop
{
public:
    Desktop(const ScreenReaderDetector& screenReader, Voice& voice)
        : settings_(qsettings_)
        , midi_(std::make_unique<NullBackend>())
    {
        auto announcer = std::make_unique<DesktopAnnouncer>(screenReader, voice);
        announcer_ = announcer.get();
        monitor_ = std::make_unique<KeyboardMonitor>(midi_, settings_, std::make_unique<SilentSoundPlayer>(),
                                                     std::move(announcer));
        window_ = std::make_unique<MainWindow>(*monitor_);
        window_->show();
        announcer_->setLabel(window_->announcementLabel());
        // Volume: every change is sent and announced ("100", "101", ...).
        monitor_->propertyManager->currentIndex = 3;
        QElapsedTimer waited;
        waited.start();
        while (!window_->isVisible() && waited.elapsed() < 5000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::processEvents();
    }
    ~Desktop()
    {
        window_.reset(); // the window shows the monitor
        monitor_.reset();
    }
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    PropertyManager& properties() { return *monitor_->propertyManager; }
    DesktopAnnouncer& announcer() { return *announcer_; }
    AnnouncementLabel& label() { return *window_->announcementLabel(); }

private:
    QTemporaryDir dir_;
    QSettings qsettings_{dir_.filePath(QStringLiteral("Plinkora.conf")), QSettings::IniFormat};
    SettingsStore settings_;
    MIDIManager midi_;
    DesktopAnnouncer* announcer_ = nullptr;
    std::unique_ptr<KeyboardMonitor> monitor_;
    std::unique_ptr<MainWindow> window_;
};

// Made on first use, destroyed in main() before the application object.
std::unique_ptr<ScreenReaderMonitor> g_screenReader;
std::unique_ptr<CountingVoice> g_countingVoice;
std::unique_ptr<SpeechDispatcherVoice> g_speechDispatcherVoice;
std::unique_ptr<Desktop> g_countingDesktop;
std::unique_ptr<Desktop> g_speechDispatcherDesktop;
std::unique_ptr<QTemporaryDir> g_noSpeechDir;

ScreenReaderMonitor& screenReader()
{
    if (!g_screenReader) {
        g_screenReader = std::make_unique<ScreenReaderMonitor>();
        // Its D-Bus answers (or failures) arrive asynchronously.
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 200)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return *g_screenReader;
}

Desktop& countingDesktop()
{
    if (!g_countingDesktop) {
        g_countingVoice = std::make_unique<CountingVoice>();
        g_countingDesktop = std::make_unique<Desktop>(screenReader(), *g_countingVoice);
    }
    return *g_countingDesktop;
}

Desktop& speechDispatcherDesktop()
{
    if (!g_speechDispatcherDesktop) {
        g_noSpeechDir = std::make_unique<QTemporaryDir>();
        SpeechDispatcherVoice::Options options;
        options.address = "unix_socket:" + g_noSpeechDir->filePath(QStringLiteral("no-speech.sock")).toStdString();
        options.autospawn = false;
        options.language = "en";
        g_speechDispatcherVoice = std::make_unique<SpeechDispatcherVoice>(options);
        g_speechDispatcherDesktop = std::make_unique<Desktop>(screenReader(), *g_speechDispatcherVoice);
    }
    return *g_speechDispatcherDesktop;
}

enum class Extent
{
    ChangeAndJob, // increaseValue/decreaseValue and its deferred job (the queued call)
    ChangeOnly,   // increaseValue/decreaseValue alone: the value sent, the "Announcing: " line,
                  // the job queued
};

/// What the program's event loop does between two key presses: the waiting events, then the
/// objects whose deletion was deferred. processEvents() outside a running event loop leaves
/// deferred deletions waiting, and each announcement leaves one (a QPropertyAnimation of the
/// main window's layout): a growing queue of posted events would slow every later post down.
void eventLoopTurn()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

/// One property change per iteration, alternately up and down; the manual time is that of
/// `extent`. The rest of the event loop's work (the deferred job with ChangeOnly, the label's
/// layout and repaint) follows untimed. Checks afterwards that the label shows the last text and
/// that the voice got it.
void measureAnnouncements(benchmark::State& state, Desktop& desktop, Extent extent, const CountingVoice* counter)
{
    PropertyManager& properties = desktop.properties();
    eventLoopTurn();
    const long long requestsBefore = counter ? counter->requests : 0;
    double slowest = 0;
    bool up = true;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        if (up)
            properties.increaseValue(false);
        else
            properties.decreaseValue(false);
        if (extent == Extent::ChangeAndJob)
            QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        slowest = std::max(slowest, seconds);
        up = !up;
        QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
        eventLoopTurn();
    }
    eventLoopTurn();
    state.counters["max_us"] = benchmark::Counter(slowest * 1e6);

    const AnnouncementLabel& label = desktop.label();
    const QString& last = desktop.announcer().lastAnnouncement();
    // The text stays on the label; the name is on whichever notification carried it (the label
    // and its twin take turns).
    if (!label.isVisible() || label.text() != last || label.lastCarrier()->accessibleName() != last)
        state.SkipWithError("the label does not show the last announcement");
    if (counter && counter->requests - requestsBefore != static_cast<long long>(state.iterations()))
        state.SkipWithError("the voice was not handed every announcement");
    if (counter && counter->last != last)
        state.SkipWithError("the voice was not handed the last announcement");
}

void BM_PropertyChangeToAnnouncement_CountingVoice(benchmark::State& state)
{
    measureAnnouncements(state, countingDesktop(), Extent::ChangeAndJob, g_countingVoice.get());
}
BENCHMARK(BM_PropertyChangeToAnnouncement_CountingVoice)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_PropertyChangeToAnnouncement_SpeechDispatcherVoice_NoService(benchmark::State& state)
{
    Desktop& desktop = speechDispatcherDesktop();
    measureAnnouncements(state, desktop, Extent::ChangeAndJob, nullptr);
    state.counters["connected"] = g_speechDispatcherVoice->isConnected() ? 1 : 0;
}
BENCHMARK(BM_PropertyChangeToAnnouncement_SpeechDispatcherVoice_NoService)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// The two halves of the first figure: the change itself, and the label's part of the job.
void BM_PropertyChangeOnly_CountingVoice(benchmark::State& state)
{
    measureAnnouncements(state, countingDesktop(), Extent::ChangeOnly, g_countingVoice.get());
}
BENCHMARK(BM_PropertyChangeOnly_CountingVoice)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The label's announce, timed alone or with the repaint that follows it (in the program the
// repaint comes on the event loop, after the job); layout and repaint otherwise untimed.
void measureAnnouncementLabel(benchmark::State& state, bool repaintAtOnce)
{
    AnnouncementLabel& label = countingDesktop().label();
    const QString texts[2] = {QStringLiteral("100"), QStringLiteral("101")};
    eventLoopTurn();
    double slowest = 0;
    std::size_t i = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        label.announce(texts[i++ & 1]);
        if (repaintAtOnce)
            label.repaint();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        slowest = std::max(slowest, seconds);
        eventLoopTurn();
    }
    state.counters["max_us"] = benchmark::Counter(slowest * 1e6);
}

void BM_AnnouncementLabel_announce(benchmark::State& state)
{
    measureAnnouncementLabel(state, false);
}
BENCHMARK(BM_AnnouncementLabel_announce)->UseManualTime()->Unit(benchmark::kMicrosecond);

// What showing the text costs on screen: the label repainted at once.
void BM_AnnouncementLabel_announceAndRepaint(benchmark::State& state)
{
    measureAnnouncementLabel(state, true);
}
BENCHMARK(BM_AnnouncementLabel_announceAndRepaint)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_ScreenReaderMonitor_isRunning(benchmark::State& state)
{
    const ScreenReaderMonitor& monitor = screenReader();
    for (auto _ : state)
        benchmark::DoNotOptimize(monitor.isRunning());
    state.counters["running"] = monitor.isRunning() ? 1 : 0;
}
BENCHMARK(BM_ScreenReaderMonitor_isRunning);

void BM_DesktopAnnouncer_isScreenReaderRunning(benchmark::State& state)
{
    // The question as the deferred job asks it: through the Announcer interface.
    Announcer& announcer = countingDesktop().announcer();
    for (auto _ : state)
        benchmark::DoNotOptimize(announcer.isScreenReaderRunning());
}
BENCHMARK(BM_DesktopAnnouncer_isScreenReaderRunning);

} // namespace

int main(int argc, char** argv)
{
    DiagnosticsTarget target = DiagnosticsTarget::Null;
    std::vector<char*> arguments;
    for (int i = 0; i < argc; ++i) {
        const char* argument = argv[i];
        constexpr const char kOption[] = "--diagnostics=";
        if (i > 0 && std::strncmp(argument, kOption, sizeof kOption - 1) == 0) {
            const std::string value = argument + sizeof kOption - 1;
            bool known = false;
            for (DiagnosticsTarget t :
                 {DiagnosticsTarget::Null, DiagnosticsTarget::File, DiagnosticsTarget::Pipe, DiagnosticsTarget::Pty}) {
                if (value == nameOf(t)) {
                    target = t;
                    known = true;
                }
            }
            if (!known) {
                std::fprintf(stderr, "announcement_bench: --diagnostics takes null, file, pipe or pty\n");
                return 2;
            }
            continue;
        }
        arguments.push_back(argv[i]);
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);

    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;

    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    DiagnosticsSink sink;
    sink.redirect(target);
    QApplication::setOrganizationName(QStringLiteral("Plinkora"));
    QApplication::setApplicationName(QStringLiteral("Plinkora"));
    QApplication application(count, arguments.data());

    benchmark::ConsoleReporter::OutputOptions options = benchmark::ConsoleReporter::OO_Tabular;
    if (sink.reportIsTerminal())
        options = benchmark::ConsoleReporter::OO_ColorTabular;
    benchmark::ConsoleReporter reporter(options);
    reporter.SetOutputStream(&sink.report());
    reporter.SetErrorStream(&sink.report());
    sink.report() << "Plinkora's \"Announcing: \" lines go to " << describe(target) << "; Qt " << qVersion() << ", "
                  << qPrintable(QGuiApplication::platformName()) << "\n";
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    g_countingDesktop.reset();
    g_speechDispatcherDesktop.reset();
    g_countingVoice.reset();
    g_speechDispatcherVoice.reset();
    g_screenReader.reset();
    g_noSpeechDir.reset();
    sink.restore();
    return 0;
}
