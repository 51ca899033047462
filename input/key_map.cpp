#include "input/key_map.h"

#include "midi/midi_message.h"

#include <algorithm>

namespace plinkora {

namespace {
constexpr KeyTable<int> kNoteTable(kNoteKeys, [](const NoteKey& k) { return k.offset; });
constexpr KeyTable<std::uint8_t> kVelocityTable(kVelocityKeys, [](const VelocityKey& k) { return k.velocity; });
constexpr KeyTable<int> kOctaveTable(kOctaveKeys, [](const OctaveKey& k) { return k.octave; });
} // namespace

std::optional<int> noteOffsetForKey(KeyCode code)
{
    return kNoteTable.find(code);
}

std::optional<std::uint8_t> velocityForKey(KeyCode code)
{
    return kVelocityTable.find(code);
}

std::optional<int> octaveForKey(KeyCode code)
{
    return kOctaveTable.find(code);
}

std::optional<int> functionKeyIndex(KeyCode code)
{
    const auto it = std::find(functionKeyCodes.begin(), functionKeyCodes.end(), code);
    if (it == functionKeyCodes.end())
        return std::nullopt;
    return static_cast<int>(it - functionKeyCodes.begin());
}

bool isFunctionKey(KeyCode code)
{
    return functionKeyIndex(code).has_value();
}

bool isArrowKey(KeyCode code)
{
    return std::find(arrowKeyCodes.begin(), arrowKeyCodes.end(), code) != arrowKeyCodes.end();
}

std::uint8_t noteNumber(std::int64_t octave, std::int64_t offset, std::int64_t transposition)
{
    const std::int64_t raw = octave * 12 + offset + transposition;
    return static_cast<std::uint8_t>(std::clamp<std::int64_t>(raw, 0, kMidiDataMax));
}

std::uint8_t clampVelocity(std::uint8_t value)
{
    const std::uint8_t limited = std::min(value, kMidiDataMax);
    return limited == 0 ? 1 : limited;
}

} // namespace plinkora
