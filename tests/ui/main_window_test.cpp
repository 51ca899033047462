#include "platform/announcement_label.h"
#include "support/engine_fixture.h"
#include "ui/keyboard_view.h"
#include "ui/main_window.h"

#include <QAccessible>
#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <QSignalSpy>
#include <QStatusBar>
#include <QTest>

#include <memory>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

class MainWindowTest : public EngineFixture
{
protected:
    MainWindow& window()
    {
        if (!window_)
            window_ = std::make_unique<MainWindow>(monitor());
        return *window_;
    }

    void showActive()
    {
        window().show();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&window()));
    }

    std::unique_ptr<MainWindow> window_;
};

} // namespace

TEST_F(MainWindowTest, TheWindowIsTitledPlinkoraAroundAKeyboardView)
{
    EXPECT_EQ(window().windowTitle(), "Plinkora");
    const QPoint centre = window().screen()->availableGeometry().center();
    EXPECT_LE((window().geometry().center() - centre).manhattanLength(), 2);
    EXPECT_NE(window().keyboardView(), nullptr);
    EXPECT_EQ(window().centralWidget(), window().keyboardView());
}

#ifndef Q_OS_MACOS
TEST_F(MainWindowTest, TheMenuBarHoldsOneMenuPlinkoraWithExactlyFiveEntries)
{
    // GIVEN the main window; THEN its menu bar holds exactly one menu, "Plinkora"
    const QList<QAction*> menus = window().menuBar()->actions();
    ASSERT_EQ(menus.size(), 1);
    EXPECT_EQ(menus[0]->text(), "Plinkora");
    QMenu* menu = menus[0]->menu();
    ASSERT_NE(menu, nullptr);
    EXPECT_EQ(menu, window().applicationMenu());

    // with the five entries in order
    const QList<QAction*> entries = menu->actions();
    ASSERT_EQ(entries.size(), 5);
    EXPECT_EQ(entries[0]->text(), "About Plinkora");
    EXPECT_FALSE(entries[0]->isEnabled());
    EXPECT_TRUE(entries[0]->shortcut().isEmpty());
    EXPECT_TRUE(entries[1]->isSeparator());
    EXPECT_EQ(entries[2]->text(), "Preferences...");
    EXPECT_TRUE(entries[2]->isEnabled());
    EXPECT_EQ(entries[2]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Comma));
    EXPECT_EQ(entries[2]->shortcut().toString(), "Ctrl+,");
    EXPECT_TRUE(entries[3]->isSeparator());
    EXPECT_EQ(entries[4]->text(), "Quit Plinkora");
    EXPECT_EQ(entries[4]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
    EXPECT_EQ(entries[4]->shortcut().toString(), "Ctrl+Q");

    EXPECT_EQ(entries[0], window().aboutAction());
    EXPECT_EQ(entries[2], window().preferencesAction());
    EXPECT_EQ(entries[4], window().quitAction());
}

TEST_F(MainWindowTest, TheMenuIsNamedByItsTitleForScreenReaders)
{
    QAccessibleInterface* bar = QAccessible::queryAccessibleInterface(window().menuBar());
    ASSERT_NE(bar, nullptr);
    ASSERT_EQ(bar->childCount(), 1);
    EXPECT_EQ(bar->child(0)->text(QAccessible::Name), "Plinkora");
}
#endif

TEST_F(MainWindowTest, TheMenuEntriesReportTheirCommands)
{
    QSignalSpy preferences(&window(), &MainWindow::preferencesRequested);
    QSignalSpy quit(&window(), &MainWindow::quitRequested);

    // WHEN About is triggered THEN nothing happens (it is disabled and has no action)
    window().aboutAction()->trigger();
    EXPECT_EQ(preferences.count() + quit.count(), 0);

    window().preferencesAction()->trigger();
    EXPECT_EQ(preferences.count(), 1);
    window().quitAction()->trigger();
    EXPECT_EQ(quit.count(), 1);
}

TEST_F(MainWindowTest, CtrlCommaAndCtrlQReachTheMenuFromTheKeyboard)
{
    // GIVEN the window in front with the keyboard view focused
    showActive();
    QSignalSpy preferences(&window(), &MainWindow::preferencesRequested);
    QSignalSpy quit(&window(), &MainWindow::quitRequested);

    // WHEN Ctrl+, and then Ctrl+Q are pressed
    QTest::keyClick(window().keyboardView(), Qt::Key_Comma, Qt::ControlModifier);
    QTest::keyClick(window().keyboardView(), Qt::Key_Q, Qt::ControlModifier);

    // THEN each command was asked for once
    EXPECT_EQ(preferences.count(), 1);
    EXPECT_EQ(quit.count(), 1);
}

TEST_F(MainWindowTest, TheContentAreaIs600By400BetweenTheMenuBarAndTheStatusBar)
{
    // GIVEN the window shown
    showActive();

    // THEN the keyboard view is 600 by 400 (taller only where the fonts need it for the
    // instructions), with the menu bar above and the status bar below
    const KeyboardView* view = window().keyboardView();
    EXPECT_EQ(view->width(), 600);
    EXPECT_EQ(view->height(), std::max(400, view->contentHeight(600)));
    EXPECT_EQ(view->size(), view->sizeHint());
#ifndef Q_OS_MACOS
    EXPECT_LE(window().menuBar()->geometry().bottom(), view->geometry().top());
#endif
    EXPECT_GE(window().statusBar()->geometry().top(), view->geometry().bottom());
    EXPECT_TRUE(window().statusBar()->isVisible());
    // and the view has the keyboard focus
    EXPECT_EQ(QApplication::focusWidget(), view);
}

TEST_F(MainWindowTest, TheStatusBarHoldsTheAnnouncementLabel)
{
    // GIVEN the window shown
    showActive();
    AnnouncementLabel* label = window().announcementLabel();

    // THEN the announcement label sits in the status bar, as a notification for screen readers
    ASSERT_NE(label, nullptr);
    EXPECT_TRUE(window().statusBar()->isAncestorOf(label));
    EXPECT_TRUE(label->isVisible());
    EXPECT_EQ(QAccessible::queryAccessibleInterface(label)->role(), QAccessible::Notification);

    const QSize contentBefore = window().keyboardView()->size();

    // WHEN something is announced
    label->announce("Channel 3");

    // THEN the status bar shows it, while the content keeps its size and the focus stays put
    EXPECT_EQ(label->text(), "Channel 3");
    EXPECT_TRUE(label->isVisible());
    EXPECT_EQ(QAccessible::queryAccessibleInterface(label)->text(QAccessible::Name), "Channel 3");
    QTest::qWait(20);
    EXPECT_EQ(window().keyboardView()->size(), contentBefore);
    EXPECT_EQ(QApplication::focusWidget(), window().keyboardView());
}

#ifndef Q_OS_MACOS
TEST_F(MainWindowTest, ClosingTheWindowAsksTheApplicationToQuit)
{
    showActive();
    QSignalSpy closing(&window(), &MainWindow::closeRequested);
    window().close();
    EXPECT_EQ(closing.count(), 1);
    EXPECT_FALSE(window().isVisible());
}
#endif

TEST_F(MainWindowTest, OtherConstructorsDoNotExist)
{
    static_assert(!std::is_default_constructible_v<MainWindow>);
    static_assert(!std::is_constructible_v<MainWindow, QWidget*>);
    static_assert(!std::is_copy_constructible_v<MainWindow>);
    SUCCEED();
}
