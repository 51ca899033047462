#pragma once

#include <QObject>
#include <QPointer>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace plinkora {

class AnnouncementLabel;
class ConnectionKeeper;
class Announcer;
class KeyEventFilter;
class KeyFocusWatch;
class KeyboardMonitor;
class MainWindow;
class MIDIBackend;
class MIDIPatchbay;
class MIDIManager;
class PreferencesWindow;
class RecoveringBackend;
class SettingsStore;
class SoundPlayer;
class SynthControl;
class X11KeyReader;

/// What the application takes from the desktop, each made when the start-up needs it. The
/// program passes the real ones (desktopServices() in app/desktop_services.h); tests pass fakes.
struct AppServices
{
    /// The MIDI back end; made first at launch, and the port is published at once. May run on
    /// a worker thread (startPublishingMIDIPort), while the main thread starts the toolkit.
    std::function<std::unique_ptr<MIDIBackend>()> makeMIDIBackend;
    /// The player of the feedback sounds, for the bender controller.
    std::function<std::unique_ptr<SoundPlayer>()> makeSoundPlayer;
    /// The announcer (speech and screen readers), for the property manager.
    std::function<std::unique_ptr<Announcer>()> makeAnnouncer;
    /// Hands the announcer made above the status bar's label, once the main window exists.
    std::function<void(Announcer&, AnnouncementLabel*)> attachAnnouncementLabel;
    /// A sound font chosen in the preferences, for the built-in synthesizer; ignored when empty.
    std::function<void(const QString&)> chooseSoundFont;
    /// An audio device chosen in the preferences ("auto" or a driver's name), for the built-in
    /// synthesizer.
    std::function<void(const QString&)> chooseAudioDriver;
    /// The connections of the port PLK on the MIDI system of `backend`; when empty, the
    /// patchbay of that system (none for the null output).
    std::function<std::unique_ptr<MIDIPatchbay>(MIDIBackend& backend)> makePatchbay;
    /// Puts the built-in synthesizer beside the port: the back end returned hands every message
    /// to `port` and to the synthesizer. The port alone when empty.
    std::function<std::unique_ptr<MIDIBackend>(std::unique_ptr<MIDIBackend> port)> addBuiltInSynth;
    /// Hands the built-in synthesizer the view of PLK's readers it follows in the auto mode
    /// (null: stop following, before the view goes). Ignored when empty.
    std::function<void(MIDIPatchbay* readers)> followReaders;
    /// The built-in synthesizer's control, owned by the services; none when empty or null.
    std::function<SynthControl*()> synthControl;
    /// Ends the event loop after the termination; QCoreApplication::quit() when empty.
    std::function<void()> quitEventLoop;
};

/// The application delegate: creates the long-lived objects in their order (MIDI output,
/// keyboard monitor, key-event filter, main window), shows the main window and the
/// preferences window on request, and at the end removes the key-event filter and silences the
/// MIDI output, once, whichever way the application ends. Main thread only.
class AppDelegate final : public QObject
{
    Q_OBJECT

public:
    /// Empties the fields; nothing else happens before launch. May be made before the
    /// QApplication.
    AppDelegate(SettingsStore& settings, AppServices services);
    /// Runs the termination if it has not run (so it is never skipped), then destroys the
    /// windows before the objects they show.
    ~AppDelegate() override;

    AppDelegate() = delete;
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    /// The MIDI output; made at launch, lives until the delegate goes.
    std::unique_ptr<MIDIManager> midiManager;
    /// The key handling; made at launch right after the MIDI output.
    std::unique_ptr<KeyboardMonitor> keyboardMonitor;
    /// The main window; made by the first showKeyboard() and never cleared.
    std::unique_ptr<MainWindow> window;
    /// PLK's connections (on midiService()'s patchbay): made at launch after the main window,
    /// lives until the windows are gone.
    std::unique_ptr<ConnectionKeeper> connectionKeeper;
    /// The MIDI inputs given with --connect, connected at launch for this run; set before it.
    std::vector<std::string> connectThisRun;
    /// The preferences window while it is open; cleared when it closes.
    std::unique_ptr<PreferencesWindow> preferencesWindow;

    /// What keeps the port through a MIDI service that dies and returns (inside the MIDI output),
    /// with the patchbay of PLK's connections; null before the port is published.
    RecoveringBackend* midiService() const { return midiService_; }

    /// The key-event filter (the keyboard monitor's localMonitor), null before launch.
    KeyEventFilter* keyEventFilter() const { return keyEventFilter_.get(); }
    /// What tells the keyboard monitor that the main window lost or regained the keys, null
    /// before launch and after the termination.
    KeyFocusWatch* keyFocusWatch() const { return keyFocusWatch_.get(); }
    /// Whether the main window's key events are also read ahead of Qt's delivery (under X11,
    /// from the first turn of the event loop after the window was shown; x11_key_reader.h).
    bool readsKeysAhead() const { return keyReader_ != nullptr; }
    /// True once the termination has run.
    bool hasTerminated() const { return terminated_; }

    /// Starts making the MIDI back end and publishing the port "PLK" on a worker thread (the
    /// back end's client and source, see OpenedBackend), so that the program connects to the
    /// window system meanwhile: both wait mostly for their servers. publishMIDIPort() takes the
    /// result. Needs no application object. The services' makeMIDIBackend runs on that worker.
    void startPublishingMIDIPort();

public slots:
    /// The first step of the start-up on its own: makes the MIDI output, which publishes the
    /// port "PLK" (or takes the one startPublishingMIDIPort() published, waiting for it).
    /// Needs no application object; applicationDidFinishLaunching() runs it when it has not
    /// run. Runs once.
    void publishMIDIPort();
    /// Start-up, in order: MIDI output (the port "PLK" is published, unless publishMIDIPort()
    /// did it already), keyboard monitor, the watch of the key focus, key-event filter (stored in the monitor's
    /// localMonitor), main window with its menu bar (showKeyboard), the announcer's status-bar
    /// label, PLK's connections (restored, and shown in the main window). Needs the
    /// QApplication. Runs once.
    void applicationDidFinishLaunching();
    /// Shows the main window, making it on first use, brings it to the front and activates it.
    void showKeyboard();
    /// Shows the preferences window: the one that is open, or a new one.
    void showPreferences();
    /// Termination: stops watching the focus, removes the key-event filter, releases the held
    /// keys (note-offs computed as their releases, sustain and function-key controllers back
    /// to 0), then cleans up the MIDI output (note-offs
    /// for the sounding notes, pitch bend centred, modulation 0, the port withdrawn). Runs once;
    /// later calls do nothing.
    void applicationWillTerminate();
    /// Every way of quitting ends here: the termination, then the event loop is told to end.
    void requestQuit();

signals:
    /// The termination has run.
    void terminated();

private:
    void preferencesClosed();
    /// Makes the keeper of PLK's connections; startConnections() runs it.
    void makeConnections();
    /// Lets the built-in synthesizer follow who reads PLK, and restores PLK's connections.
    void startConnections();
    void showConnectionStatus();
    /// Starts reading the main window's key events ahead of Qt's delivery, where it can.
    void openKeyReader();

    SettingsStore& settings_;
    AppServices services_;
    std::unique_ptr<KeyEventFilter> keyEventFilter_;
    std::unique_ptr<KeyFocusWatch> keyFocusWatch_;
    std::unique_ptr<X11KeyReader> keyReader_;              // hands key events to keyEventFilter_
    std::future<std::unique_ptr<MIDIBackend>> publishing_; // startPublishingMIDIPort()'s worker
    RecoveringBackend* midiService_ = nullptr;             // owned by midiManager
    std::unique_ptr<MIDIPatchbay> synthReaders_;           // a view of midiService_'s patchbay
    // Closed preferences windows waiting for their deferred deletion.
    std::vector<QPointer<PreferencesWindow>> closedPreferences_;
    bool launched_ = false;
    bool terminated_ = false;
};

} // namespace plinkora
