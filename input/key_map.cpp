#include "input/key_map.h"

#include "midi/midi_message.h"

#include <algorithm>
#include <initializer_list>

namespace plinkora {

namespace {
constexpr KeyTable<int> kNoteTable(kNoteKeys, [](const NoteKey& k) { return k.offset; });
constexpr KeyTable<std::uint8_t> kVelocityTable(kVelocityKeys, [](const VelocityKey& k) { return k.velocity; });
constexpr KeyTable<int> kOctaveTable(kOctaveKeys, [](const OctaveKey& k) { return k.octave; });

constexpr std::array<KeyRole, KeySet().size()> kRoles = [] {
    std::array<KeyRole, KeySet().size()> roles{};
    for (const NoteKey& key : kNoteKeys)
        roles[key.code] = KeyRole::Note;
    for (const VelocityKey& key : kVelocityKeys)
        roles[key.code] = KeyRole::Velocity;
    for (const OctaveKey& key : kOctaveKeys)
        roles[key.code] = KeyRole::Octave;
    for (const KeyCode code : functionKeyCodes)
        roles[code] = KeyRole::FunctionKey;
    for (const KeyCode code : arrowKeyCodes)
        roles[code] = KeyRole::Bender;
    roles[kKeyPeriod] = roles[kKeySlash] = KeyRole::AutoReleaseToggle;
    for (const KeyCode code : {kKeyTab, kKeyHome, kKeyPageUp, kKeyEnd, kKeyPageDown})
        roles[code] = KeyRole::PropertyStep;
    roles[kKeyEscape] = KeyRole::Panic;
    return roles;
}();
} // namespace

KeyRole keyRole(KeyCode code)
{
    return code < kRoles.size() ? kRoles[code] : KeyRole::None;
}

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

std::uint8_t noteNumber(std::int64_t octave, std::int64_t offset, std::int64_t transposition)
{
    const std::int64_t raw = octave * 12 + offset + transposition;
    return static_cast<std::uint8_t>(std::clamp<std::int64_t>(raw, 0, kMIDIDataMax));
}

std::uint8_t clampVelocity(std::uint8_t value)
{
    const std::uint8_t limited = std::min(value, kMIDIDataMax);
    return limited == 0 ? 1 : limited;
}

} // namespace plinkora
