// Renders the main window and the preferences window as the user sees them and saves them as
// PNG files: main-window.png and preferences-window.png in the folder given as argument.
// Run it on a real X server (make_screenshots.sh starts a private Xvfb) so that the fonts are
// the desktop's.
#include "common/settings_store.h"
#include "input/keyboard_monitor.h"
#include "midi/connection_keeper.h"
#include "midi/midi_manager.h"
#include "midi/null_backend.h"
#include "platform/user_language.h"
#include "support/fake_patchbay.h"
#include "support/fakes.h"
#include "ui/keyboard_view.h"
#include "ui/main_window.h"
#include "ui/preferences_window.h"

#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QPixmap>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <memory>

using namespace plinkora;

namespace {

bool save(QWidget& window, const QString& path)
{
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        std::fprintf(stderr, "window not shown: %s\n", qPrintable(window.windowTitle()));
        return false;
    }
    QTest::qWait(400); // at least one refresh of the live values
    const QPixmap image = window.grab();
    if (!image.save(path, "PNG")) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return false;
    }
    std::printf("wrote %s (%dx%d)\n", qPrintable(path), image.width(), image.height());
    return true;
}

/// True when every line of the instructions lies inside the view.
bool instructionsFit(const KeyboardView& view)
{
    const QRect instructions = view.instructionsLabel()->geometry();
    std::printf("instructions: top %d, height %d, bottom %d of %d\n", instructions.y(), instructions.height(),
                instructions.y() + instructions.height(), view.height());
    return instructions.y() + instructions.height() <= view.height();
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    // In the desktop's language, as the program shows them (LANGUAGE=de: the German windows).
    installTranslations();
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_FOLDER\n", argv[0]);
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));

    QTemporaryDir settingsDir;
    QSettings qsettings(settingsDir.filePath(QStringLiteral("plinkora.conf")), QSettings::IniFormat);
    SettingsStore settings(qsettings);
    MIDIManager midi(std::make_unique<NullBackend>());
    KeyboardMonitor monitor(midi, settings, std::make_unique<testing::RecordingSoundPlayer>(),
                            std::make_unique<testing::RecordingAnnouncer>());
    monitor.currentOctave = 4;
    monitor.currentVelocity = 100;

    // A desktop with a synthesizer and a sampler as MIDI inputs, PLK connected to the first.
    testing::FakePatchbay patchbay;
    patchbay.add({"fluidsynth", "midi_00"});
    patchbay.add({"sampler", "in_1"});
    patchbay.connectFromOutside({"fluidsynth", "midi_00"});
    testing::StubSynthControl synth;
    ConnectionKeeper connections(
        patchbay, settings, [](const UserText&) {}, &synth, QStringLiteral("jack"), true);
    connections.start({});

    MainWindow mainWindow(monitor);
    mainWindow.showConnectionStatus(connections.statusText());
    mainWindow.move(40, 40);
    bool ok = save(mainWindow, folder.filePath(QStringLiteral("main-window.png")));
    ok = instructionsFit(*mainWindow.keyboardView()) && ok;

    PreferencesWindow preferences(*monitor.benderController, settings, &connections);
    ok = save(preferences, folder.filePath(QStringLiteral("preferences-window.png"))) && ok;
    return ok ? 0 : 1;
}
