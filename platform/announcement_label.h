#pragma once

#include <QLabel>
#include <QPointer>
#include <QString>

namespace plinkora {

/// Switches Qt's accessibility bridge on before the QApplication is made, unless the user's
/// environment already decides (QT_LINUX_ACCESSIBILITY_ALWAYS_ON or QT_ACCESSIBILITY set).
/// Qt reads the accessibility bus's state only when the application starts, so without this a
/// screen reader started after Plinkora would never hear it. Returns true when it switched the
/// bridge on. Call it first thing in main().
bool switchOnAccessibilityBridge();

/// The label in the main window's status bar that carries announcements to screen readers.
///
/// Its accessible role is Notification. announce() hides it, gives it the text (as text and as
/// accessible name) and shows it again: AT-SPI sees a notification become visible, which Orca
/// speaks without moving focus (inside a QStatusBar, as the text alone). The text stays visible
/// for sighted users.
///
/// Orca reads the events in turn, some time after they were sent, and skips a "showing" event
/// when a later one of the same object is already waiting; it also reads the name as it is
/// then, not as it was. Two announcements close together (a connection made and undone at once)
/// on one object would be heard as the second one alone. So the announcements take turns
/// between the label and an empty twin notification beside it (no size, never painted): each
/// object keeps its name until its next turn.
class AnnouncementLabel final : public QLabel
{
    Q_OBJECT

public:
    explicit AnnouncementLabel(QWidget* parent = nullptr);

    AnnouncementLabel(const AnnouncementLabel&) = delete;
    AnnouncementLabel& operator=(const AnnouncementLabel&) = delete;

    /// Shows `text` and posts it to assistive technology as a notification.
    void announce(const QString& text);

    /// The notification that carried the last announcement: this label or its twin.
    QLabel* lastCarrier() const;

private:
    struct Twin
    {
    };
    AnnouncementLabel(QWidget* parent, Twin);

    static void showAgainNamed(QWidget& carrier, const QString& text);
    AnnouncementLabel* twin();

    QPointer<AnnouncementLabel> twin_;
    QPointer<QLabel> lastCarrier_;
    bool twinsTurn_ = false;
};

} // namespace plinkora
