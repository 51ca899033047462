#include "platform/announcement_label.h"

#include <QAccessible>
#include <QApplication>
#include <QEvent>
#include <QLabel>
#include <QMainWindow>
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

// Records the hide and show events of the label and of its twin (any other notification)
// with the accessible name each has at that moment.
class VisibilityRecorder final : public QObject
{
public:
    explicit VisibilityRecorder(const AnnouncementLabel* label)
        : label_(label)
    {
    }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        const auto* notification = qobject_cast<const AnnouncementLabel*>(watched);
        if (notification == nullptr)
            return false;
        const QString who = notification == label_ ? QStringLiteral("label ") : QStringLiteral("twin ");
        if (event->type() == QEvent::Hide)
            events << who + QStringLiteral("hide");
        else if (event->type() == QEvent::Show)
            events << who + QStringLiteral("show:") + notification->accessibleName();
        return false;
    }
    QStringList events;

private:
    const AnnouncementLabel* label_;
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
    EXPECT_EQ(label->lastCarrier(), label);
    EXPECT_TRUE(label->isVisible());
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(label);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->text(QAccessible::Name), QStringLiteral("Program: 0, 2 of 8"));
    EXPECT_FALSE(accessible->state().invisible);

    label->announce(QStringLiteral("plus 6"));
    EXPECT_EQ(label->text(), QStringLiteral("plus 6"));
    EXPECT_TRUE(label->isVisible());
#if QT_VERSION < QT_VERSION_CHECK(6, 8, 0)
    // The twin carries the second text; the label keeps the name Orca may not have read yet.
    QLabel* twin = label->lastCarrier();
    ASSERT_NE(twin, label);
    EXPECT_EQ(accessible->text(QAccessible::Name), QStringLiteral("Program: 0, 2 of 8"));
    QAccessibleInterface* twinAccessible = QAccessible::queryAccessibleInterface(twin);
    ASSERT_NE(twinAccessible, nullptr);
    EXPECT_EQ(twinAccessible->role(), QAccessible::Notification);
    EXPECT_EQ(twinAccessible->text(QAccessible::Name), QStringLiteral("plus 6"));
    EXPECT_EQ(twin->parentWidget(), label->parentWidget());
    EXPECT_TRUE(twin->isVisible());
    EXPECT_EQ(twin->size(), QSize(0, 0));
    EXPECT_TRUE(twin->text().isEmpty());

    label->announce(QStringLiteral("minus 1"));
    EXPECT_EQ(label->lastCarrier(), label);
    EXPECT_EQ(accessible->text(QAccessible::Name), QStringLiteral("minus 1"));
    EXPECT_FALSE(twin->isVisible());
#endif
}

TEST(AnnouncementLabelTest, AWindowShownAfterwardsDoesNotShowTheTwin)
{
    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label, 1);
    label->announce(QStringLiteral("127"));
    label->announce(QStringLiteral("minus 1"));
    label->announce(QStringLiteral("plus 6"));
    window.show();
    EXPECT_EQ(label->lastCarrier(), label);
    const auto notifications = window.findChildren<AnnouncementLabel*>();
    EXPECT_EQ(std::count_if(notifications.begin(), notifications.end(), [](QWidget* w) { return w->isVisible(); }), 1);
}

TEST(AnnouncementLabelTest, EachAnnouncementShowsANotificationAgainWithItsNewName)
{
    // Qt turns a widget's hiding and showing into the accessibility events ObjectHide and
    // ObjectShow (AT-SPI: object:state-changed:showing), which Orca speaks for a notification.
    // Offscreen there is no accessibility bridge to watch (the real one is heard by Orca in
    // screen_reader_monitor_test.cpp), so this watches the widget events behind them, of the
    // label and of its twin, which take turns.
    QMainWindow window;
    auto* label = new AnnouncementLabel(&window);
    window.statusBar()->addWidget(label, 1);
    window.show();
    VisibilityRecorder recorder(label);
    qApp->installEventFilter(&recorder);

    label->announce(QStringLiteral("127"));
    label->announce(QStringLiteral("127")); // the same text again is announced again
    label->announce(QStringLiteral("minus 1"));
    qApp->removeEventFilter(&recorder);

#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    EXPECT_TRUE(recorder.events.isEmpty());
#else
    EXPECT_EQ(
        recorder.events,
        (QStringList{QStringLiteral("label hide"), QStringLiteral("label show:127"), QStringLiteral("twin show:127"),
                     QStringLiteral("twin hide"), QStringLiteral("label hide"), QStringLiteral("label show:minus 1")}));
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
