#pragma once

#include <QString>

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace plinkora {

class SettingsStore;

/// The controller numbers that F1 to F4 send, kept in the settings under "PLK_F1_CC" to
/// "PLK_F4_CC". A stored 0 (or nothing) means the key's default, 115 to 118; the program
/// writes 0 to 127. A constant without state: the program uses the one value
/// kFunctionKeyConfig; the stored numbers are read afresh at every use, never cached.
class FunctionKeyConfig
{
public:
    const char* const f1CCKey = "PLK_F1_CC";
    const char* const f2CCKey = "PLK_F2_CC";
    const char* const f3CCKey = "PLK_F3_CC";
    const char* const f4CCKey = "PLK_F4_CC";

    /// The settings key of function key `index` (0 = F1 ... 3 = F4).
    QString key(int index) const;
    /// 115, 116, 117 or 118.
    static std::uint8_t defaultController(int index);

    /// The controller that function key `index` sends: the stored number, or the default when
    /// 0 is stored. A stored number outside 0..255 stops the program with a line naming the
    /// key, the value and the settings file.
    std::uint8_t controllerNumber(const SettingsStore& settings, int index) const;

    /// Applies what the user typed into the field of function key `index`: a number from 0 to
    /// 127 is stored and nothing is returned (the field keeps its text); anything else stores
    /// nothing and returns the text the field must show again (the read rule's number).
    std::optional<QString> storeTypedText(SettingsStore& settings, int index, const QString& text) const;

    /// Parses an unsigned 8-bit decimal number: digits only, one optional leading "+" or "-"
    /// ("-" only for zero), no spaces, at most 255 at every step.
    static std::optional<std::uint8_t> parseUInt8(std::string_view text);
};

/// The four settings keys of the function keys, for every reader.
inline constexpr FunctionKeyConfig kFunctionKeyConfig{};

} // namespace plinkora
