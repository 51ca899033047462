#include "common/settings_store.h"

#include <QSettings>
#include <QVariant>

namespace plinkora {

SettingsStore::SettingsStore(QSettings& settings)
    : settings_(settings)
{
}

std::int64_t SettingsStore::integerForKey(const QString& key) const
{
    bool ok = false;
    const qlonglong value = settings_.value(key).toString().trimmed().toLongLong(&ok);
    return ok ? value : 0;
}

double SettingsStore::doubleForKey(const QString& key) const
{
    bool ok = false;
    const double value = settings_.value(key).toString().trimmed().toDouble(&ok);
    return ok ? value : 0.0;
}

QString SettingsStore::stringForKey(const QString& key) const
{
    return settings_.value(key).toString();
}

void SettingsStore::setInteger(std::int64_t value, const QString& key)
{
    settings_.setValue(key, static_cast<qlonglong>(value));
    settings_.sync();
}

void SettingsStore::setDouble(double value, const QString& key)
{
    settings_.setValue(key, value);
    settings_.sync();
}

void SettingsStore::setString(const QString& value, const QString& key)
{
    settings_.setValue(key, value);
    settings_.sync();
}

QStringList SettingsStore::stringListForKey(const QString& key) const
{
    return settings_.value(key).toStringList();
}

void SettingsStore::setStringList(const QStringList& value, const QString& key)
{
    settings_.setValue(key, value);
    settings_.sync();
}

QString SettingsStore::fileName() const
{
    return settings_.fileName();
}

} // namespace plinkora
