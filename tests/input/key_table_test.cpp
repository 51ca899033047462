#include "input/key_table.h"

#include <linux/input-event-codes.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

using namespace plinkora;

namespace {

// The native codes of one physical key as each platform's toolkit reports it. Linux codes are
// written with the kernel's own names (Qt adds 8); macOS codes are the virtual key codes of
// Apple's keyboard headers (kVK_...); Windows codes are set-1 scan codes, 0x100 for an E0 key.
struct PhysicalKey
{
    const char* label;
    std::uint32_t evdev;
    std::uint32_t mac;
    std::uint32_t windows;
};

constexpr std::uint32_t kLinuxScan(std::uint32_t evdev)
{
    return evdev + 8;
}

std::vector<KeyCode> positionsOf(const PhysicalKey& key)
{
    return {positionCodeForNative(KeyPlatform::Linux, kLinuxScan(key.evdev)),
            positionCodeForNative(KeyPlatform::MacOS, key.mac),
            positionCodeForNative(KeyPlatform::Windows, key.windows)};
}

const char* platformName(std::size_t index)
{
    static const char* const names[] = {"Linux", "macOS", "Windows"};
    return names[index];
}

struct NoteCase
{
    PhysicalKey key;
    int offset;
};

// clang-format off
const NoteCase kNoteCases[] = {
    {{"A", KEY_A, 0x00, 0x1E}, 0},
    {{"W", KEY_W, 0x0D, 0x11}, 1},
    {{"S", KEY_S, 0x01, 0x1F}, 2},
    {{"E", KEY_E, 0x0E, 0x12}, 3},
    {{"D", KEY_D, 0x02, 0x20}, 4},
    {{"F", KEY_F, 0x03, 0x21}, 5},
    {{"T", KEY_T, 0x11, 0x14}, 6},
    {{"G", KEY_G, 0x05, 0x22}, 7},
    {{"Y", KEY_Y, 0x10, 0x15}, 8},
    {{"H", KEY_H, 0x04, 0x23}, 9},
    {{"U", KEY_U, 0x20, 0x16}, 10},
    {{"J", KEY_J, 0x26, 0x24}, 11},
    {{"K", KEY_K, 0x28, 0x25}, 12},
    {{"O", KEY_O, 0x1F, 0x18}, 13},
    {{"L", KEY_L, 0x25, 0x26}, 14},
    {{"P", KEY_P, 0x23, 0x19}, 15},
    {{";", KEY_SEMICOLON, 0x29, 0x27}, 16},
    {{"`", KEY_GRAVE, 0x32, 0x29}, 17},
    {{"]", KEY_RIGHTBRACE, 0x1E, 0x1B}, 18},
    {{"'", KEY_APOSTROPHE, 0x27, 0x28}, 19},
    {{"Q", KEY_Q, 0x0C, 0x10}, 20},
    {{"R", KEY_R, 0x0F, 0x13}, 21},
    {{"I", KEY_I, 0x22, 0x17}, 22},
    {{"[", KEY_LEFTBRACE, 0x21, 0x1A}, 23},
    {{"\\", KEY_BACKSLASH, 0x2A, 0x2B}, 24},
};

struct ValueCase
{
    PhysicalKey key;
    int value;
};

const ValueCase kVelocityCases[] = {
    {{"Z", KEY_Z, 0x06, 0x2C}, 20},
    {{"X", KEY_X, 0x07, 0x2D}, 40},
    {{"C", KEY_C, 0x08, 0x2E}, 60},
    {{"V", KEY_V, 0x09, 0x2F}, 80},
    {{"B", KEY_B, 0x0B, 0x30}, 100},
    {{"N", KEY_N, 0x2D, 0x31}, 115},
    {{"M", KEY_M, 0x2E, 0x32}, 120},
    {{",", KEY_COMMA, 0x2B, 0x33}, 127},
};

const ValueCase kOctaveCases[] = {
    {{"1", KEY_1, 0x12, 0x02}, 1},
    {{"2", KEY_2, 0x13, 0x03}, 2},
    {{"3", KEY_3, 0x14, 0x04}, 3},
    {{"4", KEY_4, 0x15, 0x05}, 4},
    {{"5", KEY_5, 0x17, 0x06}, 5},
    {{"6", KEY_6, 0x16, 0x07}, 6},
    {{"7", KEY_7, 0x1A, 0x08}, 7},
    {{"8", KEY_8, 0x1C, 0x09}, 8},
    {{"9", KEY_9, 0x19, 0x0A}, 9},
    {{"0", KEY_0, 0x1D, 0x0B}, 0},
};

// In the key map's order: F1, F2, F3, F4.
const PhysicalKey kFunctionKeys[] = {
    {"F1", KEY_F1, 0x7A, 0x3B},
    {"F2", KEY_F2, 0x78, 0x3C},
    {"F3", KEY_F3, 0x63, 0x3D},
    {"F4", KEY_F4, 0x76, 0x3E},
};

// In the key map's order: left, right, down, up.
const PhysicalKey kArrowKeys[] = {
    {"Left", KEY_LEFT, 0x7B, 0x14B},
    {"Right", KEY_RIGHT, 0x7C, 0x14D},
    {"Down", KEY_DOWN, 0x7D, 0x150},
    {"Up", KEY_UP, 0x7E, 0x148},
};

struct SingleCase
{
    PhysicalKey key;
    KeyCode position;
};

const SingleCase kSingleKeys[] = {
    {{"Tab", KEY_TAB, 0x30, 0x0F}, kKeyTab},
    {{"Home", KEY_HOME, 0x73, 0x147}, kKeyHome},
    {{"Page Up", KEY_PAGEUP, 0x74, 0x149}, kKeyPageUp},
    {{"End", KEY_END, 0x77, 0x14F}, kKeyEnd},
    {{"Page Down", KEY_PAGEDOWN, 0x79, 0x151}, kKeyPageDown},
    {{".", KEY_DOT, 0x2F, 0x34}, kKeyPeriod},
    {{"/", KEY_SLASH, 0x2C, 0x35}, kKeySlash},
};

// Keys the key map does not act on but whose position the key handling must know or pass on.
const SingleCase kOtherKeys[] = {
    {{"left Shift", KEY_LEFTSHIFT, 0x38, 0x2A}, 56},
    {{"right Shift", KEY_RIGHTSHIFT, 0x3C, 0x36}, 60},
    {{"left Control", KEY_LEFTCTRL, 0x3B, 0x1D}, 59},
    {{"right Control", KEY_RIGHTCTRL, 0x3E, 0x11D}, 62},
    {{"left Alt / Option", KEY_LEFTALT, 0x3A, 0x38}, 58},
    {{"right Alt / Option", KEY_RIGHTALT, 0x3D, 0x138}, 61},
    {{"left Super / Command", KEY_LEFTMETA, 0x37, 0x15B}, 55},
    {{"right Super / Command", KEY_RIGHTMETA, 0x36, 0x15C}, 54},
    {{"Space", KEY_SPACE, 0x31, 0x39}, 49},
    {{"Return", KEY_ENTER, 0x24, 0x1C}, 36},
    {{"Escape", KEY_ESC, 0x35, 0x01}, 53},
    {{"Backspace / Delete", KEY_BACKSPACE, 0x33, 0x0E}, 51},
    {{"Delete / Forward Delete", KEY_DELETE, 0x75, 0x153}, 117},
    {{"-", KEY_MINUS, 0x1B, 0x0C}, 27},
    {{"=", KEY_EQUAL, 0x18, 0x0D}, 24},
    {{"F5", KEY_F5, 0x60, 0x3F}, 96},
    {{"F6", KEY_F6, 0x61, 0x40}, 97},
    {{"F7", KEY_F7, 0x62, 0x41}, 98},
    {{"F8", KEY_F8, 0x64, 0x42}, 100},
    {{"F9", KEY_F9, 0x65, 0x43}, 101},
    {{"F10", KEY_F10, 0x6D, 0x44}, 109},
    {{"F11", KEY_F11, 0x67, 0x57}, 103},
    {{"F12", KEY_F12, 0x6F, 0x58}, 111},
};
// clang-format on

void expectAllPlatforms(const PhysicalKey& key, KeyCode position)
{
    const std::vector<KeyCode> got = positionsOf(key);
    for (std::size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i], position) << key.label << " on " << platformName(i);
}

} // namespace

TEST(KeyTable, EveryNoteKeyPlaysItsNoteOnEachPlatform)
{
    std::set<KeyCode> covered;
    for (const NoteCase& c : kNoteCases) {
        const std::vector<KeyCode> got = positionsOf(c.key);
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(noteOffsetForKey(got[i]), c.offset) << c.key.label << " on " << platformName(i);
        covered.insert(got[0]);
    }
    EXPECT_EQ(covered.size(), kNoteKeys.size());
    for (const NoteKey& key : kNoteKeys)
        EXPECT_TRUE(covered.count(key.code)) << "note key " << key.code << " is reached by no physical key";
}

TEST(KeyTable, EveryVelocityKeyPicksItsVelocityOnEachPlatform)
{
    std::set<KeyCode> covered;
    for (const ValueCase& c : kVelocityCases) {
        const std::vector<KeyCode> got = positionsOf(c.key);
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(velocityForKey(got[i]), c.value) << c.key.label << " on " << platformName(i);
        covered.insert(got[0]);
    }
    EXPECT_EQ(covered.size(), kVelocityKeys.size());
}

TEST(KeyTable, EveryNumberKeyPicksItsOctaveOnEachPlatform)
{
    std::set<KeyCode> covered;
    for (const ValueCase& c : kOctaveCases) {
        const std::vector<KeyCode> got = positionsOf(c.key);
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(octaveForKey(got[i]), c.value) << c.key.label << " on " << platformName(i);
        covered.insert(got[0]);
    }
    EXPECT_EQ(covered.size(), kOctaveKeys.size());
}

TEST(KeyTable, F1ToF4AreTheFunctionKeysInTheirOrderOnEachPlatform)
{
    for (std::size_t index = 0; index < std::size(kFunctionKeys); ++index) {
        const std::vector<KeyCode> got = positionsOf(kFunctionKeys[index]);
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(functionKeyIndex(got[i]), static_cast<int>(index))
                << kFunctionKeys[index].label << " on " << platformName(i);
    }
}

TEST(KeyTable, TheArrowKeysAreTheBenderKeysInTheirOrderOnEachPlatform)
{
    for (std::size_t index = 0; index < std::size(kArrowKeys); ++index)
        expectAllPlatforms(kArrowKeys[index], arrowKeyCodes[index]);
}

TEST(KeyTable, TabHomeEndPageKeysPeriodAndSlashKeepTheirPositionsOnEachPlatform)
{
    for (const SingleCase& c : kSingleKeys)
        expectAllPlatforms(c.key, c.position);
}

TEST(KeyTable, ModifiersAndOtherKeysSitWhereTheyDoOnAMacKeyboard)
{
    for (const SingleCase& c : kOtherKeys)
        expectAllPlatforms(c.key, c.position);
    EXPECT_EQ(kKeyShift, 56);
    EXPECT_EQ(kKeyRightShift, 60);
    EXPECT_EQ(kKeyControl, 59);
    EXPECT_EQ(kKeyRightControl, 62);
    EXPECT_EQ(kKeyOption, 58);
    EXPECT_EQ(kKeyRightOption, 61);
    EXPECT_EQ(kKeyCommand, 55);
    EXPECT_EQ(kKeyRightCommand, 54);
}

TEST(KeyTable, MinusAndEqualsAreInNoTableOfTheKeyMap)
{
    const PhysicalKey minus{"-", KEY_MINUS, 0x1B, 0x0C};
    const PhysicalKey equals{"=", KEY_EQUAL, 0x18, 0x0D};
    for (const PhysicalKey& key : {minus, equals})
        for (KeyCode code : positionsOf(key)) {
            EXPECT_FALSE(noteOffsetForKey(code) || velocityForKey(code) || octaveForKey(code));
            EXPECT_EQ(keyRole(code), KeyRole::None);
        }
}

TEST(KeyTable, AnUnknownNativeCodeGivesNoKeyCode)
{
    // Linux: codes below the offset of 8, Print Screen, Pause, a code beyond every keyboard.
    for (std::uint32_t scan : {0u, 7u, kLinuxScan(KEY_SYSRQ), kLinuxScan(KEY_PAUSE), kLinuxScan(KEY_RESERVED),
                               kLinuxScan(250), 0xFFFFu, 0xFFFFFFFFu})
        EXPECT_EQ(positionCodeForNative(KeyPlatform::Linux, scan), kNoKeyCode) << scan;
    // macOS: the holes in Apple's numbering, and codes above the arrows.
    for (std::uint32_t code : {52u, 66u, 68u, 70u, 77u, 108u, 112u, 127u, 200u, 0xFFFFu})
        EXPECT_EQ(positionCodeForNative(KeyPlatform::MacOS, code), kNoKeyCode) << code;
    // Windows: 0, Pause (0x45 without E0), Print Screen (E0 37), Scroll Lock, a lone E0 flag.
    for (std::uint32_t code : {0x00u, 0x45u, 0x137u, 0x46u, 0x100u, 0x1FFu})
        EXPECT_EQ(positionCodeForNative(KeyPlatform::Windows, code), kNoKeyCode) << code;
    EXPECT_EQ(kNoKeyCode, 0xFFFF);
    EXPECT_FALSE(noteOffsetForKey(kNoKeyCode) || velocityForKey(kNoKeyCode) || octaveForKey(kNoKeyCode));
}

TEST(KeyTable, OnEachPlatformNoTwoKeysShareAPositionAndEveryRowIsReachable)
{
    for (KeyPlatform platform : {KeyPlatform::Linux, KeyPlatform::MacOS, KeyPlatform::Windows}) {
        std::set<KeyCode> positions;
        std::set<std::uint32_t> natives;
        for (const NativeKey& row : nativeKeyTable(platform)) {
            EXPECT_TRUE(positions.insert(row.position).second)
                << "position " << row.position << " appears twice, native " << row.native;
            EXPECT_TRUE(natives.insert(row.native).second) << "native " << row.native << " appears twice";
            EXPECT_NE(row.position, kNoKeyCode);
            const std::uint32_t native = platform == KeyPlatform::Linux ? row.native + kLinuxScanCodeOffset
                                                                        : row.native;
            EXPECT_EQ(positionCodeForNative(platform, native), row.position) << "native " << row.native;
        }
    }
}

TEST(KeyTable, TheMacTableIsTheIdentityOnEveryKeyOfAMacKeyboard)
{
    for (const NativeKey& row : nativeKeyTable(KeyPlatform::MacOS))
        EXPECT_EQ(row.native, row.position);
    // Every PC key with a position has it on a Mac keyboard too.
    for (const NativeKey& row : nativeKeyTable(KeyPlatform::Linux))
        EXPECT_EQ(positionCodeForNative(KeyPlatform::MacOS, row.position), row.position);
}

TEST(KeyTable, EveryPcKeyWithAPositionOnLinuxHasOneOnWindows)
{
    std::set<KeyCode> linuxPositions, windowsPositions;
    for (const NativeKey& row : nativeKeyTable(KeyPlatform::Linux))
        linuxPositions.insert(row.position);
    for (const NativeKey& row : nativeKeyTable(KeyPlatform::Windows))
        windowsPositions.insert(row.position);
    EXPECT_EQ(linuxPositions, windowsPositions);
}

TEST(KeyTable, TheKeyEventConversionUsesTheScanCodeOnLinux)
{
    if constexpr (kBuildKeyPlatform != KeyPlatform::Linux)
        GTEST_SKIP() << "built for another platform";
    // GIVEN the A key as X11 or Wayland reports it, with a virtual key (keysym) of a French layout
    // WHEN it is converted THEN only the scan code counts
    EXPECT_EQ(positionCodeForKeyEvent(kLinuxScan(KEY_A), 0x71 /* q */), 0);
    EXPECT_EQ(positionCodeForKeyEvent(kLinuxScan(KEY_Q), 0x61 /* a */), 12);
    EXPECT_EQ(positionCodeForKeyEvent(0, 0x61), kNoKeyCode);
}
