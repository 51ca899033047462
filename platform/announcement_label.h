#pragma once

#include <QLabel>
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
class AnnouncementLabel final : public QLabel
{
    Q_OBJECT

public:
    explicit AnnouncementLabel(QWidget* parent = nullptr);

    AnnouncementLabel(const AnnouncementLabel&) = delete;
    AnnouncementLabel& operator=(const AnnouncementLabel&) = delete;

    /// Shows `text` and posts it to assistive technology as a notification.
    void announce(const QString& text);
};

} // namespace plinkora
