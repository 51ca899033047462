#pragma once

#include <QSlider>
#include <QWidget>

namespace plinkora {

/// A horizontal slider over a range of real numbers. A QSlider holds whole numbers only, so
/// this one keeps the value in hundredths: 137.6 is position 13760. To assistive technology it
/// reports the real value (a slider at 137.6 reads "138", not "13760").
class SpeedSlider final : public QSlider
{
    Q_OBJECT

public:
    /// Positions per unit of the value.
    static constexpr int kScale = 100;

    /// A slider from `minimum` to `maximum`; arrow keys step by 1, Page Up and Page Down by 10.
    SpeedSlider(double minimum, double maximum, QWidget* parent);
    SpeedSlider() = delete;
    SpeedSlider(const SpeedSlider&) = delete;
    SpeedSlider& operator=(const SpeedSlider&) = delete;

    /// The current value (a multiple of 1/100).
    double doubleValue() const;
    /// Moves the slider to `value`, clamped to the range and rounded to 1/100. Emits
    /// valueChanged when the position changes, as a user's move does.
    void setDoubleValue(double value);
    double doubleMinimum() const;
    double doubleMaximum() const;
};

/// A plain container that assistive technology sees as a labelled group (role Grouping,
/// named by its accessible name).
class SettingsGroup final : public QWidget
{
    Q_OBJECT

public:
    SettingsGroup(const QString& accessibleName, QWidget* parent);
    SettingsGroup() = delete;
    SettingsGroup(const SettingsGroup&) = delete;
    SettingsGroup& operator=(const SettingsGroup&) = delete;
};

/// Installs, once, the accessibility factory that gives SpeedSlider its real value and
/// SettingsGroup its Grouping role. Called by their constructors.
void installPreferenceAccessibility();

} // namespace plinkora
