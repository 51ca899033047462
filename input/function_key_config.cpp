#include "input/function_key_config.h"

#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "midi/midi_message.h"

#include <cstdlib>

namespace plinkora {

QString FunctionKeyConfig::key(int index) const
{
    const std::array<const char*, 4> keys{f1CCKey, f2CCKey, f3CCKey, f4CCKey};
    return QString::fromLatin1(keys.at(static_cast<std::size_t>(index)));
}

std::uint8_t FunctionKeyConfig::defaultController(int index)
{
    return static_cast<std::uint8_t>(115 + index);
}

std::uint8_t FunctionKeyConfig::controllerNumber(const SettingsStore& settings, int index) const
{
    const QString settingsKey = key(index);
    const std::int64_t stored = settings.integerForKey(settingsKey);
    if (stored == 0)
        return defaultController(index);
    if (stored < 0 || stored > 255) {
        fatal(QStringLiteral("the stored controller number %1 under \"%2\" in %3 is outside 0 to 255")
                  .arg(stored)
                  .arg(settingsKey, settings.fileName())
                  .toStdString());
    }
    return static_cast<std::uint8_t>(stored);
}

std::optional<QString> FunctionKeyConfig::storeTypedText(SettingsStore& settings, int index, const QString& text) const
{
    const QByteArray utf8 = text.toUtf8();
    const std::optional<std::uint8_t> value =
        parseUInt8(std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())));
    if (value && *value <= kMIDIDataMax) {
        settings.setInteger(*value, key(index));
        return std::nullopt;
    }
    return QString::number(controllerNumber(settings, index));
}

std::optional<std::uint8_t> FunctionKeyConfig::parseUInt8(std::string_view text)
{
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty())
        return std::nullopt;
    unsigned value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - '0');
        if (value > 255)
            return std::nullopt;
    }
    if (negative && value != 0)
        return std::nullopt;
    return static_cast<std::uint8_t>(value);
}

} // namespace plinkora
