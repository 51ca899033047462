#include "ui/preference_controls.h"

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QAccessibleWidget>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace plinkora {

namespace {

/// The accessible face of a SpeedSlider: a slider whose value is the real number, with a step
/// of 1, so that a screen reader says "138" where the slider holds 13760 hundredths.
class SpeedSliderAccessible final : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    explicit SpeedSliderAccessible(SpeedSlider* slider)
        : QAccessibleWidget(slider, QAccessible::Slider)
    {
    }

    void* interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::ValueInterface)
            return static_cast<QAccessibleValueInterface*>(this);
        return QAccessibleWidget::interface_cast(type);
    }

    QString text(QAccessible::Text type) const override
    {
        if (type == QAccessible::Value) {
            char buffer[64];
            std::snprintf(buffer, sizeof buffer, "%.0f", slider()->doubleValue());
            return QString::fromLatin1(buffer);
        }
        return QAccessibleWidget::text(type);
    }

    QVariant currentValue() const override { return slider()->doubleValue(); }
    void setCurrentValue(const QVariant& value) override { slider()->setDoubleValue(value.toDouble()); }
    QVariant maximumValue() const override { return slider()->doubleMaximum(); }
    QVariant minimumValue() const override { return slider()->doubleMinimum(); }
    QVariant minimumStepSize() const override { return 1.0; }

private:
    SpeedSlider* slider() const { return static_cast<SpeedSlider*>(widget()); }
};

QAccessibleInterface* preferenceAccessibilityFactory(const QString& className, QObject* object)
{
    if (className == QLatin1String(SpeedSlider::staticMetaObject.className())) {
        if (auto* slider = qobject_cast<SpeedSlider*>(object))
            return new SpeedSliderAccessible(slider);
    }
    if (className == QLatin1String(SettingsGroup::staticMetaObject.className())) {
        if (auto* group = qobject_cast<SettingsGroup*>(object))
            return new QAccessibleWidget(group, QAccessible::Grouping);
    }
    return nullptr;
}

} // namespace

void installPreferenceAccessibility()
{
    static bool installed = false;
    if (!installed) {
        QAccessible::installFactory(preferenceAccessibilityFactory);
        installed = true;
    }
}

SpeedSlider::SpeedSlider(double minimum, double maximum, QWidget* parent)
    : QSlider(Qt::Horizontal, parent)
{
    installPreferenceAccessibility();
    setRange(static_cast<int>(std::lround(minimum * kScale)), static_cast<int>(std::lround(maximum * kScale)));
    setSingleStep(kScale);
    setPageStep(10 * kScale);
    // Reachable with Tab on every platform (some styles make sliders click-focus only).
    setFocusPolicy(Qt::StrongFocus);
}

double SpeedSlider::doubleValue() const
{
    return static_cast<double>(value()) / kScale;
}

void SpeedSlider::setDoubleValue(double newValue)
{
    const double lowest = doubleMinimum();
    const double highest = doubleMaximum();
    const double clamped = std::isnan(newValue) ? lowest : std::clamp(newValue, lowest, highest);
    setValue(static_cast<int>(std::lround(clamped * kScale)));
}

double SpeedSlider::doubleMinimum() const
{
    return static_cast<double>(minimum()) / kScale;
}

double SpeedSlider::doubleMaximum() const
{
    return static_cast<double>(maximum()) / kScale;
}

SettingsGroup::SettingsGroup(const QString& accessibleName, QWidget* parent)
    : QWidget(parent)
{
    installPreferenceAccessibility();
    setAccessibleName(accessibleName);
}

} // namespace plinkora
