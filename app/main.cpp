// The process entry of plinkora: the command line, the display check, the check for a running
// instance, the MIDI port, the application object, then the rest of the start-up and the event
// loop.

#include "app/app_delegate.h"
#include "app/command_line.h"
#include "app/desktop_services.h"
#include "app/single_instance.h"
#include "app/termination_signals.h"
#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "input/keyboard_monitor.h"
#include "platform/announcement_label.h"
#include "platform/user_language.h"
#include "properties/property_manager.h"
#include "ui/design_fonts.h"

#include <QApplication>
#include <QSettings>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace plinkora;

namespace {

// A later launch: asks the running instance to show its window and ends, without a port.
int bringRunningInstanceForward(SingleInstance& instance, int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    if (instance.askRunningInstanceToShow()) {
        printLine("Plinkora is already running; its window was brought forward.");
        return 0;
    }
    std::fprintf(stderr, "plinkora: Plinkora is already running but does not answer (lock file %s)\n",
                 qPrintable(instance.lockPath()));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    // Nothing is made before the command line and the display are known to be usable.
    const CommandLine commandLine = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    switch (commandLine.action) {
    case CommandLine::Action::ShowHelp:
    case CommandLine::Action::ShowVersion:
        std::fputs(commandLine.text.c_str(), stdout);
        return 0;
    case CommandLine::Action::Fail:
        std::fprintf(stderr, "%s\n", commandLine.text.c_str());
        return commandLine.exitCode;
    case CommandLine::Action::Run:
        break;
    }
    if (const std::optional<std::string> message = missingDisplayMessage(commandLine.platformOption)) {
        std::fprintf(stderr, "%s\n", message->c_str());
        return kExitNoDisplay;
    }
    // Native Wayland in a Wayland session, X11 otherwise, unless Qt's platform is chosen.
    if (const std::optional<std::string> platform = sessionQtPlatform(commandLine.platformOption))
        qputenv("QT_QPA_PLATFORM", QByteArray::fromStdString(*platform));

    // Qt reads the accessibility bus's state only when the application object is made.
    switchOnAccessibilityBridge();
    QApplication::setOrganizationName(QStringLiteral("Plinkora"));
    QApplication::setApplicationName(QStringLiteral("Plinkora"));
    QApplication::setApplicationVersion(QStringLiteral(PLINKORA_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("plinkora"));

    // A later launch brings the running instance's window forward, before any MIDI port exists.
    SingleInstance instance(SingleInstance::defaultDirectory());
    if (!instance.claim())
        return bringRunningInstanceForward(instance, argc, argv);

    QSettings qsettings(QStringLiteral("Plinkora"), QStringLiteral("Plinkora")); // ~/.config/Plinkora/Plinkora.conf
    SettingsStore settings(qsettings);
    auto desktop = std::make_unique<DesktopServices>(
        commandLine.midiApi, settings,
        BuiltInSynth::Options{commandLine.synthMode, commandLine.soundFont, commandLine.audioDriver, {}});
    auto delegate = std::make_unique<AppDelegate>(settings, desktop->services());
    delegate->connectThisRun = commandLine.connect;
    // From here on SIGINT, SIGTERM and SIGHUP end Plinkora through the orderly shut-down (once
    // the event loop runs).
    TerminationSignals terminationSignals;

    // The port is published first, on a worker, while the toolkit connects to the window
    // system: each waits mostly for its server (the JACK server opens one client at a time and
    // answers at its cycles; the X server and the font configuration take tens of
    // milliseconds), so the window is up sooner and the port no later.
    delegate->startPublishingMIDIPort();

    int status = 0;
    {
        QApplication application(argc, argv);
        // Meanwhile the fonts of the window: reading the font configuration takes milliseconds.
        designfonts::loadFonts();
        delegate->publishMIDIPort();
        // Every window and announcement is made after this: all of them in the user's language.
        installTranslations();
        printLine("Window system: " + windowSystemName(QGuiApplication::platformName().toStdString()));
        // Closing the main window quits through the application delegate, not by Qt's own rule.
        QApplication::setQuitOnLastWindowClosed(false);
        instance.listen();
        terminationSignals.startWatching();
        QObject::connect(&terminationSignals, &TerminationSignals::terminationRequested, delegate.get(),
                         &AppDelegate::requestQuit);
        QObject::connect(&instance, &SingleInstance::showRequested, delegate.get(), &AppDelegate::showKeyboard);

        delegate->applicationDidFinishLaunching();
        // The built-in synthesizer's problems (a missing sound font, no audio output) are
        // announced like property changes.
        if (BuiltInSynth* synth = desktop->synth(); synth && delegate->keyboardMonitor)
            synth->setAnnounce([monitor = delegate->keyboardMonitor.get()](const UserText& text) {
                monitor->propertyManager->announce(text);
            });
        // The synthesizer starts on the first turn of the event loop, after the port and the
        // window: its worker would otherwise hold both up.
        QTimer::singleShot(0, delegate.get(), [services = desktop.get()] { services->startBuiltInSynth(); });
        status = QApplication::exec();
        // Already done on every way out; never skipped. Then the windows and the desktop
        // services go while the application object still exists.
        delegate->applicationWillTerminate();
        delegate.reset();
        desktop.reset();
        instance.stopListening();
        terminationSignals.stopWatching();
    }
    return status;
}
