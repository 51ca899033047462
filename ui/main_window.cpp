#include "ui/main_window.h"

#include "platform/announcement_label.h"
#include "ui/keyboard_view.h"

#include <QAction>
#include <QCloseEvent>
#include <QLabel>
#include <QLayout>
#include <QMenu>
#include <QMenuBar>
#include <QPainter>
#include <QScreen>
#include <QStatusBar>
#include <QStyle>

namespace plinkora {

namespace {
/// Shows as much of its text as fits, ending in "…", where a long list of connections would be
/// cut at its start; its text, tooltip and accessible name stay whole.
class ElidedLabel final : public QLabel
{
public:
    using QLabel::QLabel;

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        const QRect area = contentsRect();
        const QString shown = fontMetrics().elidedText(text(), Qt::ElideRight, area.width());
        style()->drawItemText(&painter, area, static_cast<int>(alignment()), palette(), isEnabled(), shown,
                              foregroundRole());
    }
};
} // namespace

MainWindow::MainWindow(KeyboardMonitor& keyboardMonitor)
    : QMainWindow(nullptr)
{
    setWindowTitle(tr("Plinkora"));
    buildMenu();

    keyboardView_ = new KeyboardView(keyboardMonitor);
    setCentralWidget(keyboardView_);

    // The status bar shows the last announcement; its label is what screen readers speak.
    QStatusBar* bar = statusBar();
    bar->setSizeGripEnabled(true);
    announcementLabel_ = new AnnouncementLabel(bar);
    bar->addWidget(announcementLabel_, 1);
    // On the right, where the announcements leave it room; it never widens the window.
    connectionStatusLabel_ = new ElidedLabel(bar);
    connectionStatusLabel_->setTextFormat(Qt::PlainText);
    connectionStatusLabel_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    connectionStatusLabel_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    bar->addPermanentWidget(connectionStatusLabel_, 1);

    fitContentArea();
    // Centred on the screen.
    if (const QScreen* where = screen())
        move(where->availableGeometry().center() - rect().center());
}

MainWindow::~MainWindow() = default;

void MainWindow::showConnectionStatus(const QString& text)
{
    connectionStatusLabel_->setText(text);
    connectionStatusLabel_->setToolTip(text);
}

void MainWindow::buildMenu()
{
#ifdef Q_OS_MACOS
    // One menu bar for the whole application, shown whichever window is in front; Qt moves
    // the three entries into the application menu by their roles.
    sharedMenuBar_ = std::make_unique<QMenuBar>(nullptr);
    QMenuBar* bar = sharedMenuBar_.get();
#else
    QMenuBar* bar = menuBar();
#endif
    applicationMenu_ = bar->addMenu(tr("Plinkora"));

    // Deliberately without action: shown greyed out, choosing it does nothing.
    aboutAction_ = applicationMenu_->addAction(tr("About Plinkora"));
    aboutAction_->setEnabled(false);
    applicationMenu_->addSeparator();
    preferencesAction_ = applicationMenu_->addAction(tr("Preferences..."));
    preferencesAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    applicationMenu_->addSeparator();
    quitAction_ = applicationMenu_->addAction(tr("Quit Plinkora"));
    quitAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));

    // The menu is the application's: its shortcuts work in the preferences window as well.
    preferencesAction_->setShortcutContext(Qt::ApplicationShortcut);
    quitAction_->setShortcutContext(Qt::ApplicationShortcut);

#ifdef Q_OS_MACOS
    aboutAction_->setMenuRole(QAction::AboutRole);
    preferencesAction_->setMenuRole(QAction::PreferencesRole);
    quitAction_->setMenuRole(QAction::QuitRole);
#else
    for (QAction* action : {aboutAction_, preferencesAction_, quitAction_})
        action->setMenuRole(QAction::NoRole);
#endif

    connect(preferencesAction_, &QAction::triggered, this, &MainWindow::preferencesRequested);
    connect(quitAction_, &QAction::triggered, this, &MainWindow::quitRequested);
}

void MainWindow::fitContentArea()
{
    layout()->activate();
    const QSize content = centralWidget()->size();
    resize(size() + keyboardView_->sizeHint() - content);
    layout()->activate();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
#ifdef Q_OS_MACOS
    // On macOS the application keeps running with its menu bar when its main window closes,
    // and clicking its Dock icon shows the same window again: closing only hides it.
    event->accept();
#else
    // Linux and Windows have no application menu and no Dock: closing the main window quits,
    // through the application's orderly shut-down.
    event->accept();
    emit closeRequested();
#endif
}

} // namespace plinkora
