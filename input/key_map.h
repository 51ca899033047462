#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <optional>

// The key map: which physical key plays which note, picks which velocity or octave, and which
// keys drive the benders, the function-key controllers and the property list. Keys are named by
// position codes that do not depend on the keyboard layout (A = 0, S = 1, ...); the labels in
// the comments are those of a US keyboard. Characters are never consulted.
namespace plinkora {

using KeyCode = std::uint16_t;

/// A code that is in no table: what a key without a position code becomes.
inline constexpr KeyCode kNoKeyCode = 0xFFFF;

// Key event types and modifier flags.
inline constexpr std::uint16_t kEventKeyDown = 10;
inline constexpr std::uint16_t kEventKeyUp = 11;
inline constexpr std::uint16_t kEventFlagsChanged = 12;
inline constexpr std::uint64_t kEventMask = 0x1C00; // key down, key up, flags changed
inline constexpr std::uint64_t kShiftFlag = 0x20000;
inline constexpr std::uint64_t kCommandFlag = 0x100000;

/// A set of keys by position code (every key the key map names is below 128).
using KeySet = std::bitset<128>;

/// One key event as the key handling sees it.
struct KeyEvent
{
    std::uint16_t type = kEventKeyDown;
    KeyCode keyCode = kNoKeyCode;
    std::uint64_t modifierFlags = 0;
};

// Single keys with their own meaning.
inline constexpr KeyCode kKeyTab = 48;
inline constexpr KeyCode kKeyHome = 115;
inline constexpr KeyCode kKeyPageUp = 116;
inline constexpr KeyCode kKeyEnd = 119;
inline constexpr KeyCode kKeyPageDown = 121;
inline constexpr KeyCode kKeyPeriod = 47;
inline constexpr KeyCode kKeySlash = 44;
inline constexpr KeyCode kKeyEscape = 53; // all notes off

/// F1, F2, F3, F4.
inline constexpr std::array<KeyCode, 4> functionKeyCodes{122, 120, 99, 118};
/// Left, right, down, up.
inline constexpr std::array<KeyCode, 4> arrowKeyCodes{123, 124, 125, 126};
inline constexpr KeyCode kKeyLeft = 123;
inline constexpr KeyCode kKeyRight = 124;
inline constexpr KeyCode kKeyDown = 125;
inline constexpr KeyCode kKeyUp = 126;

struct NoteKey
{
    KeyCode code;
    int offset; // semitones above the octave's C
};
struct VelocityKey
{
    KeyCode code;
    std::uint8_t velocity;
};
struct OctaveKey
{
    KeyCode code;
    int octave;
};

// clang-format off
/// Note keys: white keys on the home row, black keys above them, Q R I [ \ extend upward.
inline constexpr std::array<NoteKey, 25> kNoteKeys{{
    {0, 0},   // A  C
    {13, 1},  // W  C#
    {1, 2},   // S  D
    {14, 3},  // E  D#
    {2, 4},   // D  E
    {3, 5},   // F  F
    {17, 6},  // T  F#
    {5, 7},   // G  G
    {16, 8},  // Y  G#
    {4, 9},   // H  A
    {32, 10}, // U  A#
    {38, 11}, // J  B
    {40, 12}, // K  C
    {31, 13}, // O  C#
    {37, 14}, // L  D
    {35, 15}, // P  D#
    {41, 16}, // ;  E
    {50, 17}, // `  F
    {30, 18}, // ]  F#
    {39, 19}, // '  G
    {12, 20}, // Q  G#
    {15, 21}, // R  A
    {34, 22}, // I  A#
    {33, 23}, // [  B
    {42, 24}, // \  C
}};

/// Velocity keys: the bottom letter row.
inline constexpr std::array<VelocityKey, 8> kVelocityKeys{{
    {6, 20}, {7, 40}, {8, 60}, {9, 80}, {11, 100}, {45, 115}, {46, 120}, {43, 127},
}}; // Z X C V B N M ,

/// Octave keys: the number row sets the octave to an absolute value ("-" and "=" are not here).
inline constexpr std::array<OctaveKey, 10> kOctaveKeys{{
    {18, 1}, {19, 2}, {20, 3}, {21, 4}, {23, 5}, {22, 6}, {26, 7}, {28, 8}, {25, 9}, {29, 0},
}}; // 1 2 3 4 5 6 7 8 9 0
// clang-format on

/// Semitone offset of a note key; nothing for any other key.
std::optional<int> noteOffsetForKey(KeyCode code);
/// Velocity of a velocity key; nothing for any other key.
std::optional<std::uint8_t> velocityForKey(KeyCode code);
/// Octave of an octave key; nothing for any other key.
std::optional<int> octaveForKey(KeyCode code);
/// 0 to 3 for F1 to F4; nothing for any other key.
std::optional<int> functionKeyIndex(KeyCode code);

/// What a key does. Every key the key map names has exactly one role.
enum class KeyRole : std::uint8_t
{
    None,              // not Plinkora's: the key goes on to the window
    Note,              // kNoteKeys
    Velocity,          // kVelocityKeys
    Octave,            // kOctaveKeys
    FunctionKey,       // F1 to F4: their controllers
    Bender,            // the arrows
    AutoReleaseToggle, // "." (pitch bend) and "/" (modulation)
    PropertyStep,      // Tab, Home, Page Up, End, Page Down: the property list
    Panic,             // Escape: all notes off
};

/// The role of `code`: the one classification of keys, for deciding which key events are
/// Plinkora's and for acting on them.
KeyRole keyRole(KeyCode code);

/// octave * 12 + offset + transposition, clamped to 0..127 (never dropped).
std::uint8_t noteNumber(std::int64_t octave, std::int64_t offset, std::int64_t transposition);
/// The smaller of `value` and 127, and 1 instead of 0.
std::uint8_t clampVelocity(std::uint8_t value);

/// A fast key-code to value table, filled from one of the lists above.
template <typename T> class KeyTable
{
public:
    static constexpr std::size_t kSize = 128;

    template <typename Entries, typename Value> constexpr KeyTable(const Entries& entries, Value value)
    {
        for (const auto& entry : entries) {
            present_[entry.code] = true;
            values_[entry.code] = value(entry);
        }
    }
    constexpr std::optional<T> find(KeyCode code) const
    {
        if (code >= kSize || !present_[code])
            return std::nullopt;
        return values_[code];
    }
    constexpr bool contains(KeyCode code) const { return code < kSize && present_[code]; }

private:
    std::array<bool, kSize> present_{};
    std::array<T, kSize> values_{};
};

} // namespace plinkora
