#include "app/app_delegate.h"

#include "app/key_event_filter.h"
#include "app/key_focus_watch.h"
#include "app/single_instance.h"
#include "app/termination_signals.h"
#include "benders/bender_controller.h"
#include "common/settings_store.h"
#include "input/keyboard_monitor.h"
#include "midi/connection_keeper.h"
#include "midi/midi_manager.h"
#include "midi/recording_backend.h"
#include "support/fake_patchbay.h"
#include "support/fakes.h"
#include "support/key_delivery.h"
#include "support/observed_backend.h"
#include "ui/connections_view.h"
#include "ui/keyboard_view.h"
#include "ui/main_window.h"
#include "ui/preferences_window.h"

#include <QAction>
#include <QDeadlineTimer>
#include <QLabel>
#include <QListWidget>
#include <QMenu>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

using Bytes = std::vector<std::uint8_t>;

/// Runs the event loop until `condition` holds or `timeoutMs` have passed.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

bool hasCall(const RecordingBackend& backend, RecordingBackend::Op op)
{
    const auto& calls = backend.calls();
    return std::any_of(calls.begin(), calls.end(), [op](const auto& call) { return call.op == op; });
}

class AppDelegateTest : public ::testing::Test
{
protected:
    AppServices services()
    {
        AppServices s;
        s.makeMIDIBackend = [this] {
            backendThread = std::this_thread::get_id();
            if (failClient)
                recording.failWith(RecordingBackend::Op::CreateClient, kStatusServiceUnavailable);
            log.push_back("midi back end");
            auto backend = std::make_unique<ObservedBackend>(recording);
            observed = backend.get();
            return backend;
        };
        s.makeSoundPlayer = [this] {
            log.push_back(
                std::string("sound player")
                + (hasCall(recording, RecordingBackend::Op::CreateSource) ? ", port published" : ", no port"));
            auto player = std::make_unique<RecordingSoundPlayer>();
            sounds = player.get();
            return player;
        };
        s.makeAnnouncer = [this] {
            log.push_back(std::string("announcer") + (delegate->window ? ", window exists" : ", no window"));
            auto voice = std::make_unique<RecordingAnnouncer>();
            announcer = voice.get();
            return voice;
        };
        s.attachAnnouncementLabel = [this](Announcer& to, AnnouncementLabel* label) {
            const bool filterInstalled = delegate->keyEventFilter() && delegate->keyEventFilter()->isInstalled()
                && delegate->keyboardMonitor->localMonitor == delegate->keyEventFilter();
            log.push_back(std::string("label") + (filterInstalled ? ", filter installed" : ", no filter")
                          + (delegate->window && delegate->window->isVisible() ? ", window shown" : ", no window"));
            EXPECT_EQ(&to, announcer);
            EXPECT_NE(label, nullptr);
            EXPECT_EQ(label, delegate->window->announcementLabel());
        };
        s.makePatchbay = [this](MIDIBackend&) -> std::unique_ptr<MIDIPatchbay> {
            if (!withPatchbay)
                return nullptr;
            auto fake = std::make_unique<FakePatchbay>();
            fake->present = inputs;
            patchbay = fake.get();
            return fake;
        };
        s.synthControl = [this]() -> SynthControl* { return withSynth ? &synth : nullptr; };
        s.quitEventLoop = [this] { ++quits; };
        return s;
    }

    void launch()
    {
        delegate = std::make_unique<AppDelegate>(settings, services());
        delegate->applicationDidFinishLaunching();
        ASSERT_TRUE(delegate->window);
        ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->window.get()));
        QCoreApplication::processEvents(); // the view takes focus one turn later
    }

    std::vector<Bytes> sent() const { return recording.sentMessages(); }

    QTemporaryDir dir;
    QSettings qsettings{dir.filePath("plinkora.conf"), QSettings::IniFormat};
    SettingsStore settings{qsettings};
    RecordingBackend recording;
    ObservedBackend* observed = nullptr;
    RecordingSoundPlayer* sounds = nullptr;
    RecordingAnnouncer* announcer = nullptr;
    bool failClient = false;
    std::thread::id backendThread;       // where makeMIDIBackend ran
    std::vector<MIDIDestination> inputs; // the MIDI inputs of the system at launch
    bool withPatchbay = false;           // else the connections cannot be seen (a null patchbay)
    FakePatchbay* patchbay = nullptr;
    StubSynthControl synth;
    bool withSynth = false;
    int quits = 0;
    std::vector<std::string> log;
    std::unique_ptr<AppDelegate> delegate;
};

} // namespace

TEST_F(AppDelegateTest, BeforeLaunchEveryFieldIsEmpty)
{
    AppDelegate fresh(settings, services());
    EXPECT_FALSE(fresh.midiManager);
    EXPECT_FALSE(fresh.keyboardMonitor);
    EXPECT_FALSE(fresh.window);
    EXPECT_FALSE(fresh.preferencesWindow);
    EXPECT_TRUE(log.empty());
}

TEST_F(AppDelegateTest, LaunchPublishesThePortThenMakesTheMonitorThenTheFilterThenShowsTheWindow)
{
    launch();
    EXPECT_EQ(log,
              (std::vector<std::string>{"midi back end", "sound player, port published", "announcer, no window",
                                        "label, filter installed, window shown"}));
    EXPECT_EQ(recording.clientName, "PLK");
    EXPECT_EQ(recording.sourceName, "PLK");
    EXPECT_EQ(delegate->keyboardMonitor->keyboardWindow, delegate->window.get());
    EXPECT_EQ(delegate->window->windowTitle(), QStringLiteral("Plinkora"));
    // The keyboard view has the focus, and the main window is the key window.
    EXPECT_EQ(QApplication::focusWidget(), delegate->window->keyboardView());
    EXPECT_EQ(delegate->keyboardMonitor->keyWindow(), delegate->window.get());
}

TEST_F(AppDelegateTest, ThePortPublishedBeforeTheLaunchIsTheOneTheLaunchUses)
{
    delegate = std::make_unique<AppDelegate>(settings, services());
    delegate->publishMIDIPort();
    ASSERT_TRUE(delegate->midiManager);
    EXPECT_TRUE(hasCall(recording, RecordingBackend::Op::CreateSource));
    EXPECT_FALSE(delegate->keyboardMonitor);
    MIDIManager* published = delegate->midiManager.get();

    delegate->applicationDidFinishLaunching();
    EXPECT_EQ(delegate->midiManager.get(), published);
    EXPECT_EQ(log,
              (std::vector<std::string>{"midi back end", "sound player, port published", "announcer, no window",
                                        "label, filter installed, window shown"}));
}

TEST_F(AppDelegateTest, ThePortPublishedOnAWorkerBeforeTheToolkitIsTheOneTheLaunchUses)
{
    delegate = std::make_unique<AppDelegate>(settings, services());
    delegate->startPublishingMIDIPort();
    delegate->publishMIDIPort(); // waits for the worker
    EXPECT_NE(backendThread, std::this_thread::get_id());
    ASSERT_TRUE(delegate->midiManager);
    EXPECT_NE(delegate->midiManager->virtualSource, 0u);
    EXPECT_EQ(recording.sourceName, "PLK");

    delegate->applicationDidFinishLaunching();
    const auto made = [this](RecordingBackend::Op op) {
        return std::count_if(recording.calls().begin(), recording.calls().end(),
                             [op](const auto& call) { return call.op == op; });
    };
    EXPECT_EQ(made(RecordingBackend::Op::CreateClient), 1);
    EXPECT_EQ(made(RecordingBackend::Op::CreateSource), 1);
    recording.clear();
    sendPress(*delegate->window, kLinuxA);
    ASSERT_EQ(recording.calls().size(), 1u);
    EXPECT_EQ(recording.calls().front().op, RecordingBackend::Op::Send);
}

TEST_F(AppDelegateTest, APortThatFailedOnTheWorkerLeavesTheWindowAndTheKeysWorking)
{
    failClient = true;
    delegate = std::make_unique<AppDelegate>(settings, services());
    delegate->startPublishingMIDIPort();
    delegate->applicationDidFinishLaunching();
    EXPECT_NE(backendThread, std::this_thread::get_id());
    EXPECT_TRUE(delegate->window->isVisible());
    EXPECT_EQ(delegate->midiManager->virtualSource, 0u);
    sendPress(*delegate->window, kLinux5);
    EXPECT_EQ(delegate->keyboardMonitor->currentOctave, 5);
}

TEST_F(AppDelegateTest, WhenTheMIDISetUpFailsTheWindowStillAppearsAndTheKeysStillWork)
{
    failClient = true;
    launch();
    EXPECT_TRUE(delegate->window->isVisible());
    EXPECT_EQ(delegate->midiManager->virtualSource, 0u);
    sendPress(*delegate->window, kLinux5);
    EXPECT_EQ(delegate->keyboardMonitor->currentOctave, 5);
}

TEST_F(AppDelegateTest, AKeyTypedInTheMainWindowPlaysItsNote)
{
    launch();
    recording.clear();
    sendPress(*delegate->window, kLinuxA);
    sendRelease(*delegate->window, kLinuxA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 48, 0}}));
}

TEST_F(AppDelegateTest, TheMenuHasTheFiveEntriesAndAboutIsDisabled)
{
    launch();
    QMenu* menu = delegate->window->applicationMenu();
    ASSERT_NE(menu, nullptr);
    const QList<QAction*> actions = menu->actions();
    ASSERT_EQ(actions.size(), 5);
    EXPECT_EQ(actions[0]->text(), QStringLiteral("About Plinkora"));
    EXPECT_FALSE(actions[0]->isEnabled());
    EXPECT_TRUE(actions[1]->isSeparator());
    EXPECT_EQ(actions[2]->text(), QStringLiteral("Preferences..."));
    EXPECT_TRUE(actions[3]->isSeparator());
    EXPECT_EQ(actions[4]->text(), QStringLiteral("Quit Plinkora"));
}

TEST_F(AppDelegateTest, ControlCommaOpensThePreferences)
{
    launch();
    QTest::keyClick(delegate->window.get(), Qt::Key_Comma, Qt::ControlModifier);
    ASSERT_TRUE(delegate->preferencesWindow);
    EXPECT_TRUE(delegate->preferencesWindow->isVisible());
    EXPECT_FALSE(delegate->hasTerminated());
}

TEST_F(AppDelegateTest, ControlQQuitsThroughTheTermination)
{
    launch();
    QTest::keyClick(delegate->window.get(), Qt::Key_Q, Qt::ControlModifier);
    EXPECT_EQ(quits, 1);
    EXPECT_TRUE(delegate->hasTerminated());
    EXPECT_TRUE(hasCall(recording, RecordingBackend::Op::DisposeClient));
}

TEST_F(AppDelegateTest, ControlQQuitsFromThePreferencesWindowToo)
{
    launch();
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));
    QTest::keyClick(delegate->preferencesWindow.get(), Qt::Key_Q, Qt::ControlModifier);
    EXPECT_EQ(quits, 1);
    EXPECT_TRUE(delegate->hasTerminated());
}

TEST_F(AppDelegateTest, OpeningThePreferencesTwiceShowsTheSameWindowAndAfterClosingANewOne)
{
    launch();
    delegate->window->preferencesAction()->trigger();
    ASSERT_TRUE(delegate->preferencesWindow);
    QPointer<PreferencesWindow> first = delegate->preferencesWindow.get();
    delegate->window->preferencesAction()->trigger();
    EXPECT_EQ(delegate->preferencesWindow.get(), first.data());
    EXPECT_TRUE(first->isVisible());

    first->close();
    EXPECT_FALSE(delegate->preferencesWindow);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(first.isNull());

    delegate->showPreferences();
    ASSERT_TRUE(delegate->preferencesWindow);
    EXPECT_TRUE(delegate->preferencesWindow->isVisible());
}

TEST_F(AppDelegateTest, KeysTypedInThePreferencesWindowPlayNothing)
{
    launch();
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));
    recording.clear();
    sendPress(*delegate->preferencesWindow, kLinuxA);
    sendRelease(*delegate->preferencesWindow, kLinuxA);
    EXPECT_TRUE(sent().empty());
}

TEST_F(AppDelegateTest, ClosingTheMainWindowRunsTheTerminationOnLinux)
{
#ifdef Q_OS_MACOS
    GTEST_SKIP() << "on macOS closing the main window leaves Plinkora running";
#endif
    launch();
    delegate->window->close();
    EXPECT_TRUE(delegate->hasTerminated());
    EXPECT_EQ(quits, 1);
    EXPECT_TRUE(hasCall(recording, RecordingBackend::Op::DisposeSource));
}

TEST_F(AppDelegateTest, QuittingWithNotesHeldSilencesThemAfterTheKeyFilterIsGoneAndWithdrawsThePort)
{
    launch();
    sendPress(*delegate->window, kLinuxA);
    sendPress(*delegate->window, kLinuxK);
    recording.clear();
    std::vector<bool> filterInstalledAtSend;
    observed->onSend = [&] { filterInstalledAtSend.push_back(delegate->keyEventFilter()->isInstalled()); };

    delegate->window->quitAction()->trigger();

    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x80, 48, 0}, {0x80, 60, 0}, {0xE0, 0x00, 0x40}, {0xB0, 0x01, 0x00}}));
    EXPECT_EQ(filterInstalledAtSend, std::vector<bool>(4, false));
    const auto& calls = recording.calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[calls.size() - 2].op, RecordingBackend::Op::DisposeSource);
    EXPECT_EQ(calls.back().op, RecordingBackend::Op::DisposeClient);
    EXPECT_EQ(quits, 1);

    // Key events after the termination reach nothing.
    recording.clear();
    sendRelease(*delegate->window, kLinuxA);
    sendPress(*delegate->window, kLinuxB);
    EXPECT_TRUE(recording.calls().empty());
}

TEST_F(AppDelegateTest, TheTerminationRunsOnceWhicheverWaysOfEndingFollow)
{
    launch();
    delegate->requestQuit();
    const std::size_t calls = recording.calls().size();
    delegate->window->close();
    delegate->applicationWillTerminate();
    QMetaObject::invokeMethod(qApp, "aboutToQuit", Qt::DirectConnection);
    delegate.reset();
    EXPECT_EQ(recording.calls().size(), calls);
}

TEST_F(AppDelegateTest, TheEndOfTheEventLoopRunsTheTermination)
{
    launch();
    QMetaObject::invokeMethod(qApp, "aboutToQuit", Qt::DirectConnection);
    EXPECT_TRUE(delegate->hasTerminated());
    EXPECT_TRUE(hasCall(recording, RecordingBackend::Op::DisposeClient));
}

TEST_F(AppDelegateTest, ADelegateDestroyedWithoutQuittingStillSilencesTheOutput)
{
    launch();
    sendPress(*delegate->window, kLinuxA);
    delegate.reset();
    EXPECT_TRUE(hasCall(recording, RecordingBackend::Op::DisposeClient));
    const auto messages = sent();
    EXPECT_NE(std::find(messages.begin(), messages.end(), Bytes{0x80, 48, 0}), messages.end());
}

TEST_F(AppDelegateTest, ShowKeyboardBringsTheSameMainWindowForward)
{
    launch();
    MainWindow* first = delegate->window.get();
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));
    delegate->showKeyboard();
    EXPECT_EQ(delegate->window.get(), first);
    EXPECT_TRUE(QTest::qWaitForWindowActive(first));
}

TEST_F(AppDelegateTest, ASecondLaunchAsksTheRunningOneToShowItsWindow)
{
    launch();
    QTemporaryDir runtime;
    SingleInstance running(runtime.path());
    ASSERT_TRUE(running.claim());
    ASSERT_TRUE(running.listen());
    QObject::connect(&running, &SingleInstance::showRequested, delegate.get(), &AppDelegate::showKeyboard);
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));

    // WHEN a second launch (here a thread; the check blocks) finds the instance running
    SingleInstance second(runtime.path());
    ASSERT_FALSE(second.claim());
    bool answered = false;
    std::thread launch2([&] { answered = second.askRunningInstanceToShow(5000); });
    const bool shown = waitUntil([&] { return QApplication::activeWindow() == delegate->window.get(); }, 5000);
    launch2.join();
    EXPECT_TRUE(shown);
    EXPECT_TRUE(answered);
    // THEN no second port was made
    EXPECT_EQ(std::count_if(recording.calls().begin(), recording.calls().end(),
                            [](const auto& call) { return call.op == RecordingBackend::Op::CreateSource; }),
              1);
}

TEST_F(AppDelegateTest, SigintSigtermAndSighupQuitThroughTheSameTermination)
{
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        quits = 0;
        launch();
        sendPress(*delegate->window, kLinuxA);
        TerminationSignals watcher;
        ASSERT_TRUE(watcher.isActive());
        QObject::connect(&watcher, &TerminationSignals::terminationRequested, delegate.get(),
                         &AppDelegate::requestQuit);
        recording.clear();
        ::raise(signalNumber);
        EXPECT_TRUE(waitUntil([&] { return delegate->hasTerminated(); }, 5000)) << signalNumber;
        EXPECT_EQ(quits, 1);
        EXPECT_EQ(sent().front(), (Bytes{0x80, 48, 0}));
        EXPECT_EQ(recording.calls().back().op, RecordingBackend::Op::DisposeClient);
        delegate.reset();
    }
}

TEST_F(AppDelegateTest, OpeningThePreferencesWithAKeyHeldSendsItsNoteOffAndSaysPausedThenPlaying)
{
    // GIVEN A and Shift held in the main window
    launch();
    ASSERT_TRUE(delegate->keyFocusWatch());
    EXPECT_TRUE(delegate->keyFocusWatch()->mainWindowHasKeys());
    sendPress(*delegate->window, kLinuxLeftShift);
    sendPress(*delegate->window, kLinuxA, Qt::ShiftModifier);
    recording.clear();
    // WHEN the preferences window takes the keys
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));
    // THEN A's note-off and sustain 0, once
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x80, 48, 0}, {0xB0, 64, 0}}));
    EXPECT_FALSE(delegate->keyFocusWatch()->mainWindowHasKeys());
    // AND, the keys staying away, the voice says Paused, and back in the main window Playing
    EXPECT_TRUE(waitUntil([&] { return announcer->spoken == QStringList{"Paused"}; }, 5000));
    delegate->showKeyboard();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->window.get()));
    QCoreApplication::processEvents();
    EXPECT_TRUE(delegate->keyFocusWatch()->mainWindowHasKeys());
    EXPECT_EQ(announcer->spoken, (QStringList{"Paused", "Playing"}));
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(AppDelegateTest, AMenuOpeningTakesTheKeysAndClosingGivesThemBack)
{
    launch();
    sendPress(*delegate->window, kLinuxK);
    recording.clear();
    QMenu* menu = delegate->window->applicationMenu();
    menu->popup(delegate->window->mapToGlobal(QPoint(10, 10)));
    EXPECT_TRUE(waitUntil([&] { return !delegate->keyFocusWatch()->mainWindowHasKeys(); }, 5000));
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x80, 60, 0}}));
    menu->close();
    EXPECT_TRUE(waitUntil([&] { return delegate->keyFocusWatch()->mainWindowHasKeys(); }, 5000));
    EXPECT_FALSE(delegate->keyboardMonitor->focusAway);
}

TEST_F(AppDelegateTest, EscapeInTheMainWindowSilencesEverything)
{
    launch();
    sendPress(*delegate->window, kLinuxA);
    recording.clear();
    sendPress(*delegate->window, kLinuxEscape);
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 1u + 16u * 3u + 2u);
    EXPECT_EQ(messages.front(), (Bytes{0x80, 48, 0}));
    EXPECT_EQ(messages[1], (Bytes{0xB0, 64, 0}));
    EXPECT_EQ(messages.back(), (Bytes{0xB0, 0x01, 0x00}));
}

TEST_F(AppDelegateTest, EscapeInThePreferencesWindowSendsNothing)
{
    launch();
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));
    recording.clear();
    sendPress(*delegate->preferencesWindow, kLinuxEscape);
    sendRelease(*delegate->preferencesWindow, kLinuxEscape);
    EXPECT_TRUE(sent().empty());
}

TEST_F(AppDelegateTest, QuittingWithShiftAndF1HeldLiftsThemBeforeTheCleanUp)
{
    launch();
    sendPress(*delegate->window, kLinuxLeftShift);
    sendPress(*delegate->window, kLinuxF1, Qt::ShiftModifier);
    recording.clear();
    delegate->requestQuit();
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 64, 0}, {0xB0, 115, 0}, {0xE0, 0x00, 0x40}, {0xB0, 0x01, 0x00}}));
    // nothing is said at the end
    QCoreApplication::processEvents();
    EXPECT_TRUE(announcer->spoken.isEmpty());
}

TEST_F(AppDelegateTest, ShiftLetGoInAnotherProgramDoesNotSustainAtTheNextModifierAfterTheReturn)
{
    // GIVEN Shift held in the main window when the preferences take the keys
    launch();
    sendPress(*delegate->window, kLinuxLeftShift);
    delegate->showPreferences();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->preferencesWindow.get()));
    // WHEN Shift is let go where Plinkora does not see it, and Control is pressed back in the
    // main window
    delegate->showKeyboard();
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate->window.get()));
    recording.clear();
    sendPress(*delegate->window, kLinuxLeftCtrl, Qt::ControlModifier);
    sendRelease(*delegate->window, kLinuxLeftCtrl);
    // THEN no sustain
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(delegate->keyEventFilter()->heldModifierFlags(), 0u);
}

TEST_F(AppDelegateTest, TheLaunchRestoresTheRememberedConnectionsAndShowsThemInTheStatusBar)
{
    withPatchbay = true;
    inputs = {{"fluidsynth", "midi_00"}, {"sampler", "in_1"}};
    settings.setStringList({"fluidsynth:midi_00"}, QString::fromLatin1(ConnectionKeeper::kConnectionsKey));
    launch();
    ASSERT_NE(patchbay, nullptr);
    EXPECT_TRUE(patchbay->isConnected({"fluidsynth", "midi_00"}));
    EXPECT_EQ(delegate->window->connectionStatusLabel()->text(),
              "MIDI: recording, port PLK:PLK, connected to fluidsynth:midi_00");
    ASSERT_TRUE(waitUntil([this] { return !announcer->posted.isEmpty(); }, 5000));
    EXPECT_EQ(announcer->posted, QStringList{"Connected to fluidsynth:midi_00"});

    // The status follows connections made elsewhere.
    // (the change reaches the keeper through the MIDI output's queued hop to the main thread)
    patchbay->connectFromOutside({"sampler", "in_1"});
    const QString both = "MIDI: recording, port PLK:PLK, connected to fluidsynth:midi_00, sampler:in_1";
    EXPECT_TRUE(waitUntil([&] { return delegate->window->connectionStatusLabel()->text() == both; }, 5000));
    EXPECT_EQ(delegate->window->connectionStatusLabel()->text(), both);
}

TEST_F(AppDelegateTest, ConnectionsAreRestoredAndFollowedFromTheFirstTurnOfTheEventLoopUntilTheEnd)
{
    withPatchbay = true;
    inputs = {{"fluidsynth", "midi_00"}};
    settings.setStringList({"fluidsynth:midi_00"}, QString::fromLatin1(ConnectionKeeper::kConnectionsKey));
    AppServices s = services();
    std::vector<MIDIPatchbay*> followed;
    s.followReaders = [&followed](MIDIPatchbay* readers) { followed.push_back(readers); };
    delegate = std::make_unique<AppDelegate>(settings, std::move(s));
    delegate->applicationDidFinishLaunching();
    // Nothing on the way to the window's map request opens the patchbay.
    ASSERT_NE(patchbay, nullptr);
    ASSERT_TRUE(delegate->connectionKeeper);
    EXPECT_FALSE(patchbay->isConnected({"fluidsynth", "midi_00"}));
    EXPECT_TRUE(followed.empty());
    EXPECT_EQ(delegate->window->connectionStatusLabel()->text(), "");

    QCoreApplication::processEvents();
    EXPECT_TRUE(patchbay->isConnected({"fluidsynth", "midi_00"}));
    EXPECT_EQ(delegate->window->connectionStatusLabel()->text(),
              "MIDI: recording, port PLK:PLK, connected to fluidsynth:midi_00");
    ASSERT_EQ(followed.size(), 1U);
    ASSERT_NE(followed[0], nullptr);
    EXPECT_EQ(followed[0]->connections(), (std::vector<MIDIDestination>{{"fluidsynth", "midi_00"}}));
    QCoreApplication::processEvents();
    EXPECT_EQ(followed.size(), 1U);

    delegate.reset();
    ASSERT_EQ(followed.size(), 2U);
    EXPECT_EQ(followed[1], nullptr);
}

TEST_F(AppDelegateTest, ADelegateThatEndsBeforeTheEventLoopTurnsNeitherRestoresNorFollowsConnections)
{
    AppServices s = services();
    int calls = 0;
    s.followReaders = [&calls](MIDIPatchbay*) { ++calls; };
    withPatchbay = true;
    inputs = {{"fluidsynth", "midi_00"}};
    settings.setStringList({"fluidsynth:midi_00"}, QString::fromLatin1(ConnectionKeeper::kConnectionsKey));
    delegate = std::make_unique<AppDelegate>(settings, std::move(s));
    delegate->applicationDidFinishLaunching();
    delegate->applicationWillTerminate();
    QCoreApplication::processEvents();
    ASSERT_NE(patchbay, nullptr);
    EXPECT_FALSE(patchbay->isConnected({"fluidsynth", "midi_00"}));
    delegate.reset();
    EXPECT_EQ(calls, 0);
}

TEST_F(AppDelegateTest, WhenNothingWillSoundTheLaunchSaysSoOnce)
{
    withPatchbay = true;
    withSynth = true;
    synth.setMode(SynthMode::Off);
    launch();
    ASSERT_TRUE(waitUntil([this] { return !announcer->posted.isEmpty(); }, 5000));
    EXPECT_EQ(announcer->posted, QStringList{"Nothing is connected to PLK"});
    EXPECT_EQ(delegate->window->connectionStatusLabel()->text(), "MIDI: recording, port PLK:PLK, not connected");
}

TEST_F(AppDelegateTest, ConnectFromTheCommandLineAndThePreferencesListTheInputs)
{
    withPatchbay = true;
    inputs = {{"fluidsynth", "midi_00"}};
    delegate = std::make_unique<AppDelegate>(settings, services());
    delegate->connectThisRun = {"fluidsynth"};
    delegate->applicationDidFinishLaunching();
    QCoreApplication::processEvents(); // the connections are made on the first turn of the event loop
    ASSERT_NE(patchbay, nullptr);
    EXPECT_TRUE(patchbay->isConnected({"fluidsynth", "midi_00"}));
    EXPECT_TRUE(settings.stringListForKey(QString::fromLatin1(ConnectionKeeper::kConnectionsKey)).isEmpty());

    delegate->showPreferences();
    ASSERT_TRUE(delegate->preferencesWindow);
    ConnectionsView* view = delegate->preferencesWindow->connectionsView();
    ASSERT_NE(view, nullptr);
    ASSERT_EQ(view->list()->count(), 1);
    EXPECT_EQ(view->list()->item(0)->checkState(), Qt::Checked);
}

TEST_F(AppDelegateTest, WithoutAPatchbayNoConnectionIsClaimedEitherWay)
{
    launch();
    EXPECT_EQ(patchbay, nullptr);
    ASSERT_TRUE(delegate->connectionKeeper);
    EXPECT_FALSE(delegate->connectionKeeper->connectionsVisible);
    EXPECT_EQ(delegate->window->connectionStatusLabel()->text(), "MIDI: recording, port PLK:PLK");
}
