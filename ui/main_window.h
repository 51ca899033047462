#pragma once

#include <QMainWindow>

#include <memory>

class QAction;
class QLabel;
class QMenu;
class QMenuBar;

namespace plinkora {

class AnnouncementLabel;
class KeyboardMonitor;
class KeyboardView;

/// The main window, titled "Plinkora": the keyboard view as its 600 by 400 content (taller only
/// if the desktop's fonts need it for the instructions to show whole), the menu bar above it (on Linux and Windows one
/// menu "Plinkora": About, Preferences..., Quit) and a status bar below it that shows the last announcement. The menu
/// commands and the closing of the window are reported by signals; the application decides what they do. Main thread
/// only.
class MainWindow final : public QMainWindow
{
    Q_OBJECT

public:
    /// Builds the window around a new KeyboardView of `keyboardMonitor`; not shown yet.
    explicit MainWindow(KeyboardMonitor& keyboardMonitor);
    ~MainWindow() override;

    MainWindow() = delete;
    explicit MainWindow(QWidget* parent) = delete;
    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    KeyboardView* keyboardView() const { return keyboardView_; }
    /// The status bar's label that screen readers speak (accessible role Notification).
    AnnouncementLabel* announcementLabel() const { return announcementLabel_; }
    /// The menu "Plinkora" (on macOS its entries go to the application menu).
    /// The status bar's line about the MIDI system, the port and its connections (a screen
    /// reader's "read the status bar" says it).
    QLabel* connectionStatusLabel() const { return connectionStatusLabel_; }
    /// Shows `text` in that line, e.g. "MIDI: jack, port PLK:PLK, connected to fluidsynth:midi_00".
    void showConnectionStatus(const QString& text);
    QMenu* applicationMenu() const { return applicationMenu_; }
    QAction* aboutAction() const { return aboutAction_; }
    QAction* preferencesAction() const { return preferencesAction_; }
    QAction* quitAction() const { return quitAction_; }

signals:
    /// "Preferences..." was chosen (or Ctrl+, pressed).
    void preferencesRequested();
    /// "Quit Plinkora" was chosen (or Ctrl+Q pressed).
    void quitRequested();
    /// The user closed the window (Linux and Windows: the application then quits).
    void closeRequested();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenu();
    /// Sizes the window so that the content area between the bars is the keyboard view's size
    /// (600 by 400, unless the desktop's fonts need more height for the instructions).
    void fitContentArea();

    KeyboardView* keyboardView_ = nullptr;
    AnnouncementLabel* announcementLabel_ = nullptr;
    QLabel* connectionStatusLabel_ = nullptr;
    QMenu* applicationMenu_ = nullptr;
    QAction* aboutAction_ = nullptr;
    QAction* preferencesAction_ = nullptr;
    QAction* quitAction_ = nullptr;
#ifdef Q_OS_MACOS
    std::unique_ptr<QMenuBar> sharedMenuBar_;
#endif
};

} // namespace plinkora
