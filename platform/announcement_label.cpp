#include "platform/announcement_label.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QtGlobal>

namespace plinkora {

namespace {

const char kClassName[] = "plinkora::AnnouncementLabel";

/// The accessible side of the label: a notification whose name is the announced text.
class AnnouncementAccessible final : public QAccessibleWidget
{
public:
    explicit AnnouncementAccessible(QWidget* widget)
        : QAccessibleWidget(widget, QAccessible::Notification)
    {
    }

    QAccessible::Role role() const override { return QAccessible::Notification; }

    QString text(QAccessible::Text type) const override
    {
        if (type == QAccessible::Name) {
            QString name = widget()->accessibleName();
            if (!name.isEmpty())
                return name;
            if (const auto* label = qobject_cast<const QLabel*>(widget()))
                return label->text();
        }
        return QAccessibleWidget::text(type);
    }
};

QAccessibleInterface* announcementAccessibleFactory(const QString& className, QObject* object)
{
    if (className == QLatin1String(kClassName) && object != nullptr && object->isWidgetType())
        return new AnnouncementAccessible(static_cast<QWidget*>(object));
    return nullptr;
}

void installFactoryOnce()
{
    static const bool installed = [] {
        QAccessible::installFactory(announcementAccessibleFactory);
        return true;
    }();
    Q_UNUSED(installed)
}

} // namespace

bool switchOnAccessibilityBridge()
{
    if (qEnvironmentVariableIsSet("QT_LINUX_ACCESSIBILITY_ALWAYS_ON") || qEnvironmentVariableIsSet("QT_ACCESSIBILITY"))
        return false;
    return qputenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
}

AnnouncementLabel::AnnouncementLabel(QWidget* parent)
    : QLabel(parent)
{
    static_assert(sizeof(kClassName) > 1);
    Q_ASSERT(QLatin1String(metaObject()->className()) == QLatin1String(kClassName));
    installFactoryOnce();
    setTextFormat(Qt::PlainText);
}

AnnouncementLabel::AnnouncementLabel(QWidget* parent, Twin)
    : QLabel(parent)
{
    setTextFormat(Qt::PlainText);
    setFixedSize(0, 0);
    // Not shown with its parent: it appears only for its own announcements.
    hide();
}

QLabel* AnnouncementLabel::lastCarrier() const
{
    if (lastCarrier_)
        return lastCarrier_.data();
    return const_cast<AnnouncementLabel*>(this);
}

AnnouncementLabel* AnnouncementLabel::twin()
{
    if (!twin_ && parentWidget() != nullptr)
        twin_ = new AnnouncementLabel(parentWidget(), Twin{});
    return twin_.data();
}

void AnnouncementLabel::showAgainNamed(QWidget& carrier, const QString& text)
{
    carrier.hide();
    carrier.setAccessibleName(text);
    carrier.show();
}

void AnnouncementLabel::announce(const QString& text)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    // Qt 6.8 and later post an announcement event (AT-SPI object:announcement) that screen
    // readers speak directly, with the urgency asked for. Hiding and showing the label as well
    // would make them say it twice, so the label only shows the text here.
    setText(text);
    setAccessibleName(text);
    QAccessibleAnnouncementEvent event(this, text);
    event.setPoliteness(QAccessible::AnnouncementPoliteness::Assertive);
    QAccessible::updateAccessibility(&event);
#else
    // Before Qt 6.8 there is no announcement event (an Alert event does not reach AT-SPI). A
    // notification that becomes visible does: Orca speaks its name when it is shown again.
    // The label and its twin take turns; the one not carrying this text is left as it is, so
    // that a notification still waiting in Orca's queue keeps its own name.
    setText(text);
    if (twinsTurn_ && twin() != nullptr) {
        showAgainNamed(*twin_, text);
        lastCarrier_ = twin_.data();
    } else {
        if (twin_)
            twin_->hide();
        showAgainNamed(*this, text);
        lastCarrier_ = this;
    }
    twinsTurn_ = !twinsTurn_;
#endif
}

} // namespace plinkora
