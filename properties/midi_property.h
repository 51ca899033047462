#pragma once

#include "common/user_text.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace plinkora {

/// What a property does. The declaration order is the enumeration's own; the order the user
/// steps through is that of `makeProperties`.
enum class MIDIPropertyType : std::uint8_t
{
    channel,
    program,
    bank,
    volume,
    reverb,
    chorus,
    pan,
    transpose
};

/// One adjustable MIDI setting with its range, steps and controller number. The manager
/// changes `value` in place and keeps it within the range.
class MIDIProperty
{
public:
    MIDIProperty(QString name, MIDIPropertyType type, std::int64_t value, std::int64_t minValue, std::int64_t maxValue,
                 std::int64_t smallStep, std::int64_t largeStep, std::optional<std::uint8_t> ccNumber);

    /// "Channel: 1" (shown 1 to 16), "Transpose: +6" / "Transpose: -12", "Pan: 64".
    QString displayText() const;
    /// The same with the name in the user's language as well ("Kanal: 1").
    UserText text() const;

    QString name;
    MIDIPropertyType type;
    std::int64_t value;
    std::int64_t minValue;
    std::int64_t maxValue;
    std::int64_t smallStep;
    std::int64_t largeStep;
    std::optional<std::uint8_t> ccNumber;
};

/// The eight properties in the order the user steps through them: Channel, Program, Bank,
/// Volume, Pan, Reverb, Chorus, Transpose, with their starting values.
std::vector<std::unique_ptr<MIDIProperty>> makeProperties();

} // namespace plinkora
