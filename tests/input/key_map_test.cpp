#include "input/key_map.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace plinkora;

namespace {
constexpr KeyCode kA = 0, kK = 40, kBackslash = 42, kApostrophe = 39;
constexpr KeyCode kQ = 12, kR = 15, kI = 34, kLeftBracket = 33;

std::uint8_t noteFor(KeyCode key, int octave, int transposition)
{
    return noteNumber(octave, *noteOffsetForKey(key), transposition);
}
} // namespace

TEST(KeyMap, AtOctaveFourATheKAndBackslashPlay48And60And72)
{
    EXPECT_EQ(noteFor(kA, 4, 0), 48);
    EXPECT_EQ(noteFor(kK, 4, 0), 60);
    EXPECT_EQ(noteFor(kBackslash, 4, 0), 72);
}

TEST(KeyMap, EveryNoteKeyPlaysFortyEightPlusItsOffsetAtOctaveFour)
{
    for (const NoteKey& key : kNoteKeys)
        EXPECT_EQ(noteFor(key.code, 4, 0), 48 + key.offset) << "key code " << key.code;
}

TEST(KeyMap, GraveAccentPlaysFAndRightBracketPlaysFSharpBetweenSemicolonAndApostrophe)
{
    EXPECT_EQ(noteOffsetForKey(41), 16); // ; E
    EXPECT_EQ(noteOffsetForKey(50), 17); // ` F
    EXPECT_EQ(noteOffsetForKey(30), 18); // ] F#
    EXPECT_EQ(noteOffsetForKey(39), 19); // ' G
}

TEST(KeyMap, AtOctaveZeroTransposedDownTwoOctavesEveryNoteKeyGivesZero)
{
    for (const NoteKey& key : kNoteKeys)
        EXPECT_EQ(noteFor(key.code, 0, -24), 0);
}

TEST(KeyMap, AtOctaveNineTheTopKeysClampTo127)
{
    EXPECT_EQ(noteFor(kK, 9, 0), 120);
    EXPECT_EQ(noteFor(kApostrophe, 9, 0), 127);
    for (KeyCode key : {kQ, kR, kI, kLeftBracket, kBackslash})
        EXPECT_EQ(noteFor(key, 9, 0), 127) << "key code " << key;
}

TEST(KeyMap, AtOctaveNineTransposedUpTwoOctavesEveryNoteKeyGives127)
{
    for (const NoteKey& key : kNoteKeys)
        EXPECT_EQ(noteFor(key.code, 9, 24), 127);
}

TEST(KeyMap, AAtOctaveZeroGivesZeroAndStaysZeroTransposedDown)
{
    EXPECT_EQ(noteFor(kA, 0, 0), 0);
    EXPECT_EQ(noteFor(kA, 0, -1), 0);
}

TEST(KeyMap, MinusAndEqualsAreInNoTable)
{
    for (KeyCode key : {KeyCode{24}, KeyCode{27}}) {
        EXPECT_FALSE(noteOffsetForKey(key));
        EXPECT_FALSE(velocityForKey(key));
        EXPECT_FALSE(octaveForKey(key));
        EXPECT_EQ(keyRole(key), KeyRole::None);
    }
}

TEST(KeyMap, EachKeyOfTheMapHasTheRoleOfItsTableAndNoOtherKeyHasOne)
{
    // GIVEN the key map's tables and single keys
    std::map<KeyCode, KeyRole> expected;
    for (const NoteKey& key : kNoteKeys)
        expected[key.code] = KeyRole::Note;
    for (const VelocityKey& key : kVelocityKeys)
        expected[key.code] = KeyRole::Velocity;
    for (const OctaveKey& key : kOctaveKeys)
        expected[key.code] = KeyRole::Octave;
    for (const KeyCode code : functionKeyCodes)
        expected[code] = KeyRole::FunctionKey;
    for (const KeyCode code : arrowKeyCodes)
        expected[code] = KeyRole::Bender;
    expected[kKeyPeriod] = expected[kKeySlash] = KeyRole::AutoReleaseToggle;
    for (const KeyCode code : {kKeyTab, kKeyHome, kKeyPageUp, kKeyEnd, kKeyPageDown})
        expected[code] = KeyRole::PropertyStep;
    expected[kKeyEscape] = KeyRole::Panic;
    // THEN every code has that role, every other code none, and the tables do not overlap
    EXPECT_EQ(expected.size(), kNoteKeys.size() + kVelocityKeys.size() + kOctaveKeys.size() + 4 + 4 + 2 + 5 + 1);
    for (KeyCode code = 0; code < 256; ++code) {
        const auto it = expected.find(code);
        EXPECT_EQ(keyRole(code), it == expected.end() ? KeyRole::None : it->second) << code;
    }
    EXPECT_EQ(keyRole(kNoKeyCode), KeyRole::None);
}

TEST(KeyMap, VelocityEntriesAreClampedToOneThrough127)
{
    EXPECT_EQ(clampVelocity(*velocityForKey(43)), 127); // comma
    EXPECT_EQ(clampVelocity(0), 1);
    EXPECT_EQ(clampVelocity(200), 127);
    for (const VelocityKey& key : kVelocityKeys)
        EXPECT_EQ(clampVelocity(key.velocity), key.velocity);
}

TEST(KeyMap, BottomRowGivesTheVelocities)
{
    const std::array<std::pair<KeyCode, int>, 8> expected{
        {{6, 20}, {7, 40}, {8, 60}, {9, 80}, {11, 100}, {45, 115}, {46, 120}, {43, 127}}};
    for (auto [key, velocity] : expected)
        EXPECT_EQ(velocityForKey(key), velocity);
}

TEST(KeyMap, NumberRowSetsAbsoluteOctavesZeroToNine)
{
    const std::array<std::pair<KeyCode, int>, 10> expected{
        {{18, 1}, {19, 2}, {20, 3}, {21, 4}, {23, 5}, {22, 6}, {26, 7}, {28, 8}, {25, 9}, {29, 0}}};
    for (auto [key, octave] : expected)
        EXPECT_EQ(octaveForKey(key), octave);
}

TEST(KeyMap, FunctionAndArrowKeysAreInTheirOrder)
{
    EXPECT_EQ(functionKeyIndex(122), 0);
    EXPECT_EQ(functionKeyIndex(120), 1);
    EXPECT_EQ(functionKeyIndex(99), 2);
    EXPECT_EQ(functionKeyIndex(118), 3);
    EXPECT_EQ(arrowKeyCodes, (std::array<KeyCode, 4>{123, 124, 125, 126}));
}

TEST(KeyMap, AllKeySetsAreDisjoint)
{
    std::multiset<KeyCode> all;
    for (const auto& k : kNoteKeys)
        all.insert(k.code);
    for (const auto& k : kVelocityKeys)
        all.insert(k.code);
    for (const auto& k : kOctaveKeys)
        all.insert(k.code);
    for (KeyCode k : functionKeyCodes)
        all.insert(k);
    for (KeyCode k : arrowKeyCodes)
        all.insert(k);
    for (KeyCode k : {kKeyTab, kKeyHome, kKeyPageUp, kKeyEnd, kKeyPageDown, kKeyPeriod, kKeySlash})
        all.insert(k);
    for (KeyCode k : all)
        EXPECT_EQ(all.count(k), 1u) << "key code " << k;
    EXPECT_EQ(all.size(), 25u + 8u + 10u + 4u + 4u + 7u);
}

TEST(KeyMap, UnknownKeyIsInNoTable)
{
    EXPECT_FALSE(noteOffsetForKey(kNoKeyCode));
    EXPECT_FALSE(velocityForKey(kNoKeyCode));
    EXPECT_FALSE(octaveForKey(kNoKeyCode));
}
