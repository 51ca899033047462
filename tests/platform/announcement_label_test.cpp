#include "platform/announcement_label.h"

#include <QAccessible>
#include <QLabel>
#include <QMainWindow>
#include <QEvent>
#include <QStatusBar>
#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace plinkora {
namespace {

// Records the label's hide and show events with the accessible name it has at that moment.
class VisibilityRecorder final : public QObject
{
public:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Hide)
            events << QStringLiteral("hide");
        else if (event->type() == QEvent::Show)
            events << QStringLiteral("show:") + static_cast<QWidget*>(watched)->accessibleName();
        return false;
    }
    QStringList events;
};

// Saves an environment variable and puts it back afterwards.
class SavedVariable
{
public:
    explicit SavedVariable(const char* name)
        : name_(name)
    {
        if (const char* value = std::getenv(name))
            value_ = value;
    }
    ~SavedVariable()
    {
        if (value_)
            qputenv(name_, QByteArray::fromStdString(*value_));
        else
            qunsetenv(name_);
    }
    SavedVariable(const SavedVariable&) = delete;
    SavedVariable& operator=(const SavedVariable&) = delete;

private:
    const char* name_;
    std::optional<std::string> value_;
};

TEST(AnnouncementLabelTest, IsANotificationForAssistiveTechnology)
{
    AnnouncementLabel label;
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&label);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->role(), QAccessible::Notification);
    EXPECT_EQ(accessible->object(), &label);
}

TEST(AnnouncementLabelTest, AnOrdinaryLabelKeepsItsOwnRole)
{
    AnnouncementLabel announcement; // installs the factory
    QLabel label;
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&label);
    ASSERT_NE(accessible, nullptr);
    EXPECT_NE(accessible->role(), QAccessible::Notification);
}

TEST(AnnouncementLabelTest, AnnounceShowsTheTextAsTextAndAccessibleName)
{
    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label, 1);
    window.show();

    label->announce(QStringLiteral("Program: 0, 2 of 8"));

    EXPECT_EQ(label->text(), QStringLiteral("Program: 0, 2 of 8"));
    EXPECT_EQ(label->accessibleName(), QStringLiteral("Program: 0, 2 of 8"));
    EXPECT_TRUE(label->isVisible());
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(label);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->text(QAccessible::Name), QStringLiteral("Program: 0, 2 of 8"));
    EXPECT_FALSE(accessible->state().invisible);

    label->announce(QStringLiteral("plus 6"));
    EXPECT_EQ(label->text(), QStringLiteral("plus 6"));
    EXPECT_EQ(accessible->text(QAccessible::Name), QStringLiteral("plus 6"));
    EXPECT_TRUE(label->isVisible());
}

TEST(AnnouncementLabelTest, EachAnnouncementShowsTheNotificationAgainWithItsNewName)
{
    // Qt turns a widget's hiding and showing into the accessibility events ObjectHide and
    // ObjectShow (AT-SPI: object:state-changed:showing), which Orca speaks for a notification.
    // Offscreen there is no accessibility bridge to watch (the real one is heard by Orca in
    // screen_reader_monitor_test.cpp), so this watches the widget events behind them.
    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label, 1);
    window.show();
    VisibilityRecorder recorder;
    label->installEventFilter(&recorder);

    label->announce(QStringLiteral("127"));
    label->announce(QStringLiteral("127")); // the same text again is announced again
    label->announce(QStringLiteral("minus 1"));

#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    EXPECT_TRUE(recorder.events.isEmpty());
#else
    EXPECT_EQ(recorder.events, (QStringList{QStringLiteral("hide"), QStringLiteral("show:127"), QStringLiteral("hide"),
                                            QStringLiteral("show:127"), QStringLiteral("hide"),
                                            QStringLiteral("show:minus 1")}));
#endif
    EXPECT_TRUE(label->isVisible());
}

TEST(AccessibilityBridgeTest, IsSwitchedOnUnlessTheEnvironmentDecides)
{
    SavedVariable alwaysOn("QT_LINUX_ACCESSIBILITY_ALWAYS_ON");
    SavedVariable accessibility("QT_ACCESSIBILITY");

    qunsetenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON");
    qunsetenv("QT_ACCESSIBILITY");
    EXPECT_TRUE(switchOnAccessibilityBridge());
    EXPECT_EQ(qgetenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), "1");

    qputenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "0");
    EXPECT_FALSE(switchOnAccessibilityBridge());
    EXPECT_EQ(qgetenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), "0");

    qunsetenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON");
    qputenv("QT_ACCESSIBILITY", "0");
    EXPECT_FALSE(switchOnAccessibilityBridge());
    EXPECT_FALSE(qEnvironmentVariableIsSet("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"));
}

} // namespace
} // namespace plinkora
