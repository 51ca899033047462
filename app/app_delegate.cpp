#include "app/app_delegate.h"

#include "app/key_event_filter.h"
#include "app/key_focus_watch.h"
#include "app/x11_key_reader.h"
#include "app/x11_keys_down.h"
#include "benders/bender_controller.h"
#include "benders/sound_player.h"
#include "common/diagnostics.h"
#include "common/user_text.h"
#include "input/keyboard_monitor.h"
#include "midi/backend_factory.h"
#include "midi/connection_keeper.h"
#include "midi/midi_manager.h"
#include "midi/opened_backend.h"
#include "midi/port_name.h"
#include "midi/recovering_backend.h"
#include "properties/announcer.h"
#include "properties/property_manager.h"
#include "ui/keyboard_view.h"
#include "ui/main_window.h"
#include "ui/preferences_window.h"

#include <QApplication>
#include <QKeyEvent>
#include <QScreen>
#include <QThread>
#include <QTimer>

#include <cstdlib>

namespace plinkora {

namespace {

// The window that receives keyboard input: an open popup (a menu) takes it from its window.
QObject* applicationKeyWindow()
{
    if (QWidget* popup = QApplication::activePopupWidget())
        return popup;
    return QApplication::activeWindow();
}

// The delegate of this process, for the exit handler.
AppDelegate* runningDelegate = nullptr;

// Qt ends the process with exit() when the display connection breaks (the X server or the
// Wayland compositor went away, as at the end of a session): the termination runs then too.
void terminateAtExit()
{
    if (runningDelegate && QCoreApplication::instance()
        && QThread::currentThread() == QCoreApplication::instance()->thread())
        runningDelegate->applicationWillTerminate();
}

void bringForward(QWidget& window)
{
    if (window.isMinimized())
        window.setWindowState(window.windowState() & ~Qt::WindowMinimized);
    window.show();
    window.raise();
    window.activateWindow();
}

} // namespace

AppDelegate::AppDelegate(SettingsStore& settings, AppServices services)
    : QObject(nullptr)
    , settings_(settings)
    , services_(std::move(services))
{
    static const bool exitHandlerInstalled = std::atexit(&terminateAtExit) == 0;
    (void)exitHandlerInstalled;
    if (!runningDelegate)
        runningDelegate = this;
}

AppDelegate::~AppDelegate()
{
    applicationWillTerminate();
    if (runningDelegate == this)
        runningDelegate = nullptr;
    // The windows show the monitor and its bender controller: they go first.
    for (const QPointer<PreferencesWindow>& closed : closedPreferences_)
        delete closed.data();
    preferencesWindow.reset();
    keyFocusWatch_.reset();
    keyReader_.reset();
    window.reset();
    // The keeper announces through the property manager and reads the patchbay; the
    // synthesizer lets go of its view of the patchbay before the MIDI output goes.
    connectionKeeper.reset();
    if (synthReaders_ && services_.followReaders)
        services_.followReaders(nullptr);
    synthReaders_.reset();
    keyEventFilter_.reset();
    keyboardMonitor.reset();
    midiManager.reset();
}

void AppDelegate::startPublishingMIDIPort()
{
    if (midiManager || publishing_.valid())
        return;
    publishing_ = std::async(std::launch::async, [make = services_.makeMIDIBackend]() -> std::unique_ptr<MIDIBackend> {
        return std::make_unique<OpenedBackend>(make(), kPortName);
    });
}

void AppDelegate::publishMIDIPort()
{
    // The MIDI output first: the port "PLK" is published before anything can play. A failure
    // is reported by the MIDI output itself and does not stop the start-up.
    if (midiManager)
        return;
    // The port's back end is kept through a service that dies and returns; the built-in
    // synthesizer hears what it sends beside it, and goes on sounding while the port is lost.
    std::unique_ptr<MIDIBackend> backend = publishing_.valid() ? publishing_.get() : services_.makeMIDIBackend();
    std::unique_ptr<RecoveringBackend> port;
    if (services_.makePatchbay) {
        std::unique_ptr<MIDIPatchbay> patchbay = services_.makePatchbay(*backend);
        port = std::make_unique<RecoveringBackend>(std::move(backend), std::move(patchbay));
    } else {
        port = makeRecoveringBackend(std::move(backend));
    }
    midiService_ = port.get();
    std::unique_ptr<MIDIBackend> output = std::move(port);
    if (services_.addBuiltInSynth)
        output = services_.addBuiltInSynth(std::move(output));
    midiManager = std::make_unique<MIDIManager>(std::move(output));
}

void AppDelegate::applicationDidFinishLaunching()
{
    if (launched_)
        return;
    launched_ = true;

    // The event loop ends: by quit(), or by the session manager's "die" at the end of the
    // session. commitDataRequest is not a reason to stop: the session manager sends it before
    // the session ends and for mere checkpoints alike, and Plinkora has nothing to save. The end
    // of the session arrives as "die" (here), SIGTERM or SIGHUP, or the display going away
    // (the exit handler).
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);

    // The menu bar belongs to the main window on Linux and Windows; it is made with it below.
    publishMIDIPort();

    std::unique_ptr<SoundPlayer> soundPlayer = services_.makeSoundPlayer();
    std::unique_ptr<Announcer> announcer = services_.makeAnnouncer();
    keyboardMonitor = std::make_unique<KeyboardMonitor>(*midiManager, settings_, std::move(soundPlayer),
                                                        std::move(announcer));
    // The window a key event was sent to has the keys, even before Qt says it is active.
    keyboardMonitor->keyWindow = [this]() -> QObject* {
        if (keyEventFilter_ && !QApplication::activePopupWidget())
            if (QWidget* sentTo = keyEventFilter_->keyEventWindow())
                return sentTo;
        return applicationKeyWindow();
    };
    keyboardMonitor->keysDownNow = &x11KeysDown;
    // Before the key-event filter, which must stay in front of every application filter.
    keyFocusWatch_ = std::make_unique<KeyFocusWatch>(*keyboardMonitor, &applicationKeyWindow);
    midiService_->watch([manager = keyboardMonitor->propertyManager.get()](std::string_view text) {
        manager->announce(UserText::announcement(std::string(text).c_str()));
    });

    keyEventFilter_ = std::make_unique<KeyEventFilter>(*keyboardMonitor);
    connect(keyFocusWatch_.get(), &KeyFocusWatch::keysLost, keyEventFilter_.get(),
            &KeyEventFilter::forgetHeldModifiers);
    keyEventFilter_->install();
    keyboardMonitor->localMonitor = keyEventFilter_.get();

    showKeyboard();

    if (services_.attachAnnouncementLabel && keyboardMonitor->propertyManager->speechSynthesizer)
        services_.attachAnnouncementLabel(*keyboardMonitor->propertyManager->speechSynthesizer,
                                          window->announcementLabel());

    makeConnections();
}

void AppDelegate::makeConnections()
{
    MIDIBackend& backend = *midiService_;
    // Without a patchbay on a real MIDI system, connections made by other programs cannot be
    // seen: whether anything will sound is not known.
    const bool connectionsUnknown = !midiService_->hasPatchbay() && backend.apiName() != "null";
    if (connectionsUnknown)
        printLine("MIDI connections: none can be made on " + std::string(backend.apiName()));
    SynthControl* synth = services_.synthControl ? services_.synthControl() : nullptr;

    PropertyManager* properties = keyboardMonitor->propertyManager.get();
    connectionKeeper = std::make_unique<ConnectionKeeper>(
        midiService_->patchbay(), settings_, [properties](const UserText& text) { properties->announce(text); }, synth,
        QString::fromUtf8(backend.apiName()), midiManager->virtualSource != 0);
    connectionKeeper->connectionsVisible = !connectionsUnknown;
    connect(connectionKeeper.get(), &ConnectionKeeper::changed, this, &AppDelegate::showConnectionStatus);
    // The patchbay's first use opens a client of the MIDI service (with JACK 8 to 10 ms): the
    // connections are restored and followed on the first turn of the event loop, after the
    // window's map request has gone out, and before the built-in synthesizer starts.
    QTimer::singleShot(0, this, &AppDelegate::startConnections);
}

void AppDelegate::startConnections()
{
    // Runs once, posted by makeConnections() after it made the keeper.
    if (terminated_)
        return;
    if (services_.followReaders) {
        synthReaders_ = midiService_->patchbayView();
        services_.followReaders(synthReaders_.get());
    }
    connectionKeeper->start(connectThisRun);
    showConnectionStatus();
}

void AppDelegate::showConnectionStatus()
{
    if (window && connectionKeeper)
        window->showConnectionStatus(connectionKeeper->statusText());
}

void AppDelegate::showKeyboard()
{
    if (window) {
        bringForward(*window);
        return;
    }
    if (!keyboardMonitor)
        fatal("AppDelegate::showKeyboard: the main window needs the keyboard monitor, and there is none");

    window = std::make_unique<MainWindow>(*keyboardMonitor);
    if (const QScreen* screen = window->screen())
        window->move(screen->availableGeometry().center() - window->rect().center());
    connect(window.get(), &MainWindow::preferencesRequested, this, &AppDelegate::showPreferences);
    connect(window.get(), &MainWindow::quitRequested, this, &AppDelegate::requestQuit);
    connect(window.get(), &MainWindow::closeRequested, this, &AppDelegate::requestQuit);
    bringForward(*window);
    keyboardMonitor->keyboardWindow = window.get();

    // One turn of the event loop later, when the window is on screen, the view takes focus and
    // the key events start to be read ahead of Qt (not on the way to the window's first frame).
    QTimer::singleShot(0, window.get(), [this, view = QPointer<KeyboardView>(window->keyboardView())] {
        if (view)
            view->setFocus(Qt::ActiveWindowFocusReason);
        openKeyReader();
    });
}

void AppDelegate::openKeyReader()
{
    if (keyReader_ || !window || !keyEventFilter_ || !keyEventFilter_->isInstalled() || terminated_)
        return;
    // Qt's delivery must repeat held keys as the reader's does, without releases.
    if (!keyEventFilter_->repeatsWithoutReleases() || !window->windowHandle())
        return;
    keyReader_ = X11KeyReader::open(*window->windowHandle(), [this](const QKeyEvent& event) {
        if (keyEventFilter_ && window)
            keyEventFilter_->actBeforeDelivery(window.get(), event);
    });
}

void AppDelegate::showPreferences()
{
    if (!keyboardMonitor)
        return;
    if (!preferencesWindow) {
        preferencesWindow = std::make_unique<PreferencesWindow>(*keyboardMonitor->benderController, settings_,
                                                                connectionKeeper.get());
        connect(preferencesWindow.get(), &PreferencesWindow::closed, this, &AppDelegate::preferencesClosed);
        if (services_.chooseSoundFont)
            connect(preferencesWindow.get(), &PreferencesWindow::soundFontChosen, this, services_.chooseSoundFont);
        if (services_.chooseAudioDriver)
            connect(preferencesWindow.get(), &PreferencesWindow::audioDriverChosen, this, services_.chooseAudioDriver);
    }
    bringForward(*preferencesWindow);
}

void AppDelegate::preferencesClosed()
{
    // The window is inside its own close handling: it is deleted on the next turn.
    if (!preferencesWindow || sender() != preferencesWindow.get())
        return;
    PreferencesWindow* closed = preferencesWindow.release();
    closed->disconnect(this);
    std::erase_if(closedPreferences_, [](const QPointer<PreferencesWindow>& gone) { return gone.isNull(); });
    closedPreferences_.emplace_back(closed);
    closed->deleteLater();
}

void AppDelegate::applicationWillTerminate()
{
    if (terminated_)
        return;
    terminated_ = true;
    // Windows closing at the end say nothing.
    keyFocusWatch_.reset();
    keyReader_.reset();
    // Key events can no longer start notes while the last MIDI messages go out.
    if (keyboardMonitor && keyboardMonitor->localMonitor) {
        if (auto* filter = qobject_cast<KeyEventFilter*>(keyboardMonitor->localMonitor.data()))
            filter->remove();
    }
    // The keys still held are released as usual (sustain and function-key controllers too).
    if (keyboardMonitor)
        keyboardMonitor->releaseHeldKeys();
    if (midiManager)
        midiManager->cleanup();
    emit terminated();
}

void AppDelegate::requestQuit()
{
    applicationWillTerminate();
    if (services_.quitEventLoop)
        services_.quitEventLoop();
    else
        QCoreApplication::quit();
}

} // namespace plinkora
