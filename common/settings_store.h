#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>

class QSettings;

namespace plinkora {

/// The user's settings (bender speeds, function-key controllers, MIDI back end), kept in a
/// QSettings file. The only place that talks to QSettings: an absent or non-numeric value reads
/// as 0, as the settings format requires.
class SettingsStore
{
public:
    explicit SettingsStore(QSettings& settings);
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    /// The integer under `key`; 0 when absent or not a whole number.
    std::int64_t integerForKey(const QString& key) const;
    /// The number under `key`; 0.0 when absent or not a number.
    double doubleForKey(const QString& key) const;
    /// The text under `key`; empty when absent.
    QString stringForKey(const QString& key) const;

    void setInteger(std::int64_t value, const QString& key);
    void setDouble(double value, const QString& key);
    void setString(const QString& value, const QString& key);

    /// The list of texts under `key` (the remembered connections); empty when absent.
    QStringList stringListForKey(const QString& key) const;
    void setStringList(const QStringList& value, const QString& key);

    /// Path of the settings file, named in fatal errors.
    QString fileName() const;

private:
    QSettings& settings_;
};

} // namespace plinkora
