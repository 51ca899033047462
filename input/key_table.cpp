#include "input/key_table.h"

#include <algorithm>

// Position codes on a US PC keyboard; the key map's labels name the keys of this drawing.
// (A Mac keyboard has the same codes: Super is Command, Alt is Option, Backspace is Delete,
// Delete is Forward Delete, Insert is Help, Num Lock is Clear.)
//
//  Esc   F1  F2  F3  F4    F5  F6  F7  F8    F9 F10 F11 F12
//   53  122 120  99 118    96  97  98 100   101 109 103 111
//
//   `   1   2   3   4   5   6   7   8   9   0   -   =  Bksp    Ins Home PgUp    Num  /   *   -
//  50  18  19  20  21  23  22  26  28  25  29  27  24   51     114  115  116     71 75  67  78
//
//  Tab   Q   W   E   R   T   Y   U   I   O   P   [   ]   \     Del  End PgDn     7   8   9   +
//   48  12  13  14  15  17  16  32  34  31  35  33  30  42     117  119  121    89  91  92  69
//
//  Caps   A   S   D   F   G   H   J   K   L   ;   '  Enter                        4   5   6
//    57   0   1   2   3   5   4  38  40  37  41  39   36                         86  87  88
//
//  Shift <>   Z   X   C   V   B   N   M   ,   .   /  Shift          Up          1   2   3  Enter
//    56  10   6   7   8   9  11  45  46  43  47  44   60          126          83  84  85   76
//
//  Ctrl Super Alt          Space          AltGr Super Menu Ctrl  Left Down Right   0       .
//   59    55   58            49              61    54  110   62   123  125  124   82      65
//
// Keys with no position (Print Screen, Scroll Lock, Pause, the media keys other than volume
// and mute, ...) are left out and become kNoKeyCode.

namespace plinkora {

namespace {

// clang-format off

// Linux: evdev key codes (linux/input-event-codes.h); Qt's native scan code is these plus 8.
constexpr std::array kLinuxKeys{
    NativeKey{1, 53},    // Esc
    NativeKey{2, 18},    // 1
    NativeKey{3, 19},    // 2
    NativeKey{4, 20},    // 3
    NativeKey{5, 21},    // 4
    NativeKey{6, 23},    // 5
    NativeKey{7, 22},    // 6
    NativeKey{8, 26},    // 7
    NativeKey{9, 28},    // 8
    NativeKey{10, 25},   // 9
    NativeKey{11, 29},   // 0
    NativeKey{12, 27},   // -
    NativeKey{13, 24},   // =
    NativeKey{14, 51},   // Backspace
    NativeKey{15, 48},   // Tab
    NativeKey{16, 12},   // Q
    NativeKey{17, 13},   // W
    NativeKey{18, 14},   // E
    NativeKey{19, 15},   // R
    NativeKey{20, 17},   // T
    NativeKey{21, 16},   // Y
    NativeKey{22, 32},   // U
    NativeKey{23, 34},   // I
    NativeKey{24, 31},   // O
    NativeKey{25, 35},   // P
    NativeKey{26, 33},   // [
    NativeKey{27, 30},   // ]
    NativeKey{28, 36},   // Enter
    NativeKey{29, 59},   // left Ctrl
    NativeKey{30, 0},    // A
    NativeKey{31, 1},    // S
    NativeKey{32, 2},    // D
    NativeKey{33, 3},    // F
    NativeKey{34, 5},    // G
    NativeKey{35, 4},    // H
    NativeKey{36, 38},   // J
    NativeKey{37, 40},   // K
    NativeKey{38, 37},   // L
    NativeKey{39, 41},   // ;
    NativeKey{40, 39},   // '
    NativeKey{41, 50},   // `
    NativeKey{42, 56},   // left Shift
    NativeKey{43, 42},   // backslash
    NativeKey{44, 6},    // Z
    NativeKey{45, 7},    // X
    NativeKey{46, 8},    // C
    NativeKey{47, 9},    // V
    NativeKey{48, 11},   // B
    NativeKey{49, 45},   // N
    NativeKey{50, 46},   // M
    NativeKey{51, 43},   // ,
    NativeKey{52, 47},   // .
    NativeKey{53, 44},   // /
    NativeKey{54, 60},   // right Shift
    NativeKey{55, 67},   // keypad *
    NativeKey{56, 58},   // left Alt
    NativeKey{57, 49},   // Space
    NativeKey{58, 57},   // Caps Lock
    NativeKey{59, 122},  // F1
    NativeKey{60, 120},  // F2
    NativeKey{61, 99},   // F3
    NativeKey{62, 118},  // F4
    NativeKey{63, 96},   // F5
    NativeKey{64, 97},   // F6
    NativeKey{65, 98},   // F7
    NativeKey{66, 100},  // F8
    NativeKey{67, 101},  // F9
    NativeKey{68, 109},  // F10
    NativeKey{69, 71},   // Num Lock (keypad Clear)
    NativeKey{71, 89},   // keypad 7
    NativeKey{72, 91},   // keypad 8
    NativeKey{73, 92},   // keypad 9
    NativeKey{74, 78},   // keypad -
    NativeKey{75, 86},   // keypad 4
    NativeKey{76, 87},   // keypad 5
    NativeKey{77, 88},   // keypad 6
    NativeKey{78, 69},   // keypad +
    NativeKey{79, 83},   // keypad 1
    NativeKey{80, 84},   // keypad 2
    NativeKey{81, 85},   // keypad 3
    NativeKey{82, 82},   // keypad 0
    NativeKey{83, 65},   // keypad .
    NativeKey{86, 10},   // the extra key beside left Shift on ISO keyboards
    NativeKey{87, 103},  // F11
    NativeKey{88, 111},  // F12
    NativeKey{89, 94},   // Ro (JIS)
    NativeKey{92, 104},  // Henkan (JIS; Kana on a Mac)
    NativeKey{94, 102},  // Muhenkan (JIS; Eisu on a Mac)
    NativeKey{95, 95},   // keypad comma (JIS)
    NativeKey{96, 76},   // keypad Enter
    NativeKey{97, 62},   // right Ctrl
    NativeKey{98, 75},   // keypad /
    NativeKey{100, 61},  // right Alt (AltGr)
    NativeKey{102, 115}, // Home
    NativeKey{103, 126}, // Up
    NativeKey{104, 116}, // Page Up
    NativeKey{105, 123}, // Left
    NativeKey{106, 124}, // Right
    NativeKey{107, 119}, // End
    NativeKey{108, 125}, // Down
    NativeKey{109, 121}, // Page Down
    NativeKey{110, 114}, // Insert (Help)
    NativeKey{111, 117}, // Delete (Forward Delete)
    NativeKey{113, 74},  // Mute
    NativeKey{114, 73},  // Volume Down
    NativeKey{115, 72},  // Volume Up
    NativeKey{117, 81},  // keypad =
    NativeKey{124, 93},  // Yen (JIS)
    NativeKey{125, 55},  // left Super (Command)
    NativeKey{126, 54},  // right Super (right Command)
    NativeKey{127, 110}, // Menu
    NativeKey{183, 105}, // F13
    NativeKey{184, 107}, // F14
    NativeKey{185, 113}, // F15
    NativeKey{186, 106}, // F16
    NativeKey{187, 64},  // F17
    NativeKey{188, 79},  // F18
    NativeKey{189, 80},  // F19
    NativeKey{190, 90},  // F20
};

// macOS: the virtual key code is the position code; every key of a Mac keyboard is listed.
constexpr std::array kMacKeys{
    NativeKey{0, 0},     NativeKey{1, 1},     NativeKey{2, 2},     NativeKey{3, 3},     // A S D F
    NativeKey{4, 4},     NativeKey{5, 5},     NativeKey{6, 6},     NativeKey{7, 7},     // H G Z X
    NativeKey{8, 8},     NativeKey{9, 9},     NativeKey{10, 10},   NativeKey{11, 11},   // C V section B
    NativeKey{12, 12},   NativeKey{13, 13},   NativeKey{14, 14},   NativeKey{15, 15},   // Q W E R
    NativeKey{16, 16},   NativeKey{17, 17},   NativeKey{18, 18},   NativeKey{19, 19},   // Y T 1 2
    NativeKey{20, 20},   NativeKey{21, 21},   NativeKey{22, 22},   NativeKey{23, 23},   // 3 4 6 5
    NativeKey{24, 24},   NativeKey{25, 25},   NativeKey{26, 26},   NativeKey{27, 27},   // = 9 7 -
    NativeKey{28, 28},   NativeKey{29, 29},   NativeKey{30, 30},   NativeKey{31, 31},   // 8 0 ] O
    NativeKey{32, 32},   NativeKey{33, 33},   NativeKey{34, 34},   NativeKey{35, 35},   // U [ I P
    NativeKey{36, 36},   NativeKey{37, 37},   NativeKey{38, 38},   NativeKey{39, 39},   // Return L J '
    NativeKey{40, 40},   NativeKey{41, 41},   NativeKey{42, 42},   NativeKey{43, 43},   // K ; \ ,
    NativeKey{44, 44},   NativeKey{45, 45},   NativeKey{46, 46},   NativeKey{47, 47},   // / N M .
    NativeKey{48, 48},   NativeKey{49, 49},   NativeKey{50, 50},   NativeKey{51, 51},   // Tab Space ` Delete
    NativeKey{53, 53},   NativeKey{54, 54},   NativeKey{55, 55},   NativeKey{56, 56},   // Esc RCmd Cmd Shift
    NativeKey{57, 57},   NativeKey{58, 58},   NativeKey{59, 59},   NativeKey{60, 60},   // Caps Opt Ctrl RShift
    NativeKey{61, 61},   NativeKey{62, 62},   NativeKey{63, 63},   NativeKey{64, 64},   // ROpt RCtrl Fn F17
    NativeKey{65, 65},   NativeKey{67, 67},   NativeKey{69, 69},   NativeKey{71, 71},   // kp. kp* kp+ Clear
    NativeKey{72, 72},   NativeKey{73, 73},   NativeKey{74, 74},   NativeKey{75, 75},   // Vol+ Vol- Mute kp/
    NativeKey{76, 76},   NativeKey{78, 78},   NativeKey{79, 79},   NativeKey{80, 80},   // kpEnter kp- F18 F19
    NativeKey{81, 81},   NativeKey{82, 82},   NativeKey{83, 83},   NativeKey{84, 84},   // kp= kp0 kp1 kp2
    NativeKey{85, 85},   NativeKey{86, 86},   NativeKey{87, 87},   NativeKey{88, 88},   // kp3 kp4 kp5 kp6
    NativeKey{89, 89},   NativeKey{90, 90},   NativeKey{91, 91},   NativeKey{92, 92},   // kp7 F20 kp8 kp9
    NativeKey{93, 93},   NativeKey{94, 94},   NativeKey{95, 95},   NativeKey{96, 96},   // Yen _ kp, F5
    NativeKey{97, 97},   NativeKey{98, 98},   NativeKey{99, 99},   NativeKey{100, 100}, // F6 F7 F3 F8
    NativeKey{101, 101}, NativeKey{102, 102}, NativeKey{103, 103}, NativeKey{104, 104}, // F9 Eisu F11 Kana
    NativeKey{105, 105}, NativeKey{106, 106}, NativeKey{107, 107}, NativeKey{109, 109}, // F13 F16 F14 F10
    NativeKey{110, 110}, NativeKey{111, 111}, NativeKey{113, 113}, NativeKey{114, 114}, // Menu F12 F15 Help
    NativeKey{115, 115}, NativeKey{116, 116}, NativeKey{117, 117}, NativeKey{118, 118}, // Home PgUp FwdDel F4
    NativeKey{119, 119}, NativeKey{120, 120}, NativeKey{121, 121}, NativeKey{122, 122}, // End F2 PgDn F1
    NativeKey{123, 123}, NativeKey{124, 124}, NativeKey{125, 125}, NativeKey{126, 126}, // Left Right Down Up
};

// Windows: set-1 scan codes; 0x100 marks the keys that send an E0 prefix.
constexpr std::array kWindowsKeys{
    NativeKey{0x01, 53},   // Esc
    NativeKey{0x02, 18},   // 1
    NativeKey{0x03, 19},   // 2
    NativeKey{0x04, 20},   // 3
    NativeKey{0x05, 21},   // 4
    NativeKey{0x06, 23},   // 5
    NativeKey{0x07, 22},   // 6
    NativeKey{0x08, 26},   // 7
    NativeKey{0x09, 28},   // 8
    NativeKey{0x0A, 25},   // 9
    NativeKey{0x0B, 29},   // 0
    NativeKey{0x0C, 27},   // -
    NativeKey{0x0D, 24},   // =
    NativeKey{0x0E, 51},   // Backspace
    NativeKey{0x0F, 48},   // Tab
    NativeKey{0x10, 12},   // Q
    NativeKey{0x11, 13},   // W
    NativeKey{0x12, 14},   // E
    NativeKey{0x13, 15},   // R
    NativeKey{0x14, 17},   // T
    NativeKey{0x15, 16},   // Y
    NativeKey{0x16, 32},   // U
    NativeKey{0x17, 34},   // I
    NativeKey{0x18, 31},   // O
    NativeKey{0x19, 35},   // P
    NativeKey{0x1A, 33},   // [
    NativeKey{0x1B, 30},   // ]
    NativeKey{0x1C, 36},   // Enter
    NativeKey{0x1D, 59},   // left Ctrl
    NativeKey{0x1E, 0},    // A
    NativeKey{0x1F, 1},    // S
    NativeKey{0x20, 2},    // D
    NativeKey{0x21, 3},    // F
    NativeKey{0x22, 5},    // G
    NativeKey{0x23, 4},    // H
    NativeKey{0x24, 38},   // J
    NativeKey{0x25, 40},   // K
    NativeKey{0x26, 37},   // L
    NativeKey{0x27, 41},   // ;
    NativeKey{0x28, 39},   // '
    NativeKey{0x29, 50},   // `
    NativeKey{0x2A, 56},   // left Shift
    NativeKey{0x2B, 42},   // backslash
    NativeKey{0x2C, 6},    // Z
    NativeKey{0x2D, 7},    // X
    NativeKey{0x2E, 8},    // C
    NativeKey{0x2F, 9},    // V
    NativeKey{0x30, 11},   // B
    NativeKey{0x31, 45},   // N
    NativeKey{0x32, 46},   // M
    NativeKey{0x33, 43},   // ,
    NativeKey{0x34, 47},   // .
    NativeKey{0x35, 44},   // /
    NativeKey{0x36, 60},   // right Shift
    NativeKey{0x37, 67},   // keypad *
    NativeKey{0x38, 58},   // left Alt
    NativeKey{0x39, 49},   // Space
    NativeKey{0x3A, 57},   // Caps Lock
    NativeKey{0x3B, 122},  // F1
    NativeKey{0x3C, 120},  // F2
    NativeKey{0x3D, 99},   // F3
    NativeKey{0x3E, 118},  // F4
    NativeKey{0x3F, 96},   // F5
    NativeKey{0x40, 97},   // F6
    NativeKey{0x41, 98},   // F7
    NativeKey{0x42, 100},  // F8
    NativeKey{0x43, 101},  // F9
    NativeKey{0x44, 109},  // F10
    NativeKey{0x47, 89},   // keypad 7
    NativeKey{0x48, 91},   // keypad 8
    NativeKey{0x49, 92},   // keypad 9
    NativeKey{0x4A, 78},   // keypad -
    NativeKey{0x4B, 86},   // keypad 4
    NativeKey{0x4C, 87},   // keypad 5
    NativeKey{0x4D, 88},   // keypad 6
    NativeKey{0x4E, 69},   // keypad +
    NativeKey{0x4F, 83},   // keypad 1
    NativeKey{0x50, 84},   // keypad 2
    NativeKey{0x51, 85},   // keypad 3
    NativeKey{0x52, 82},   // keypad 0
    NativeKey{0x53, 65},   // keypad .
    NativeKey{0x56, 10},   // the extra key beside left Shift on ISO keyboards
    NativeKey{0x57, 103},  // F11
    NativeKey{0x58, 111},  // F12
    NativeKey{0x59, 81},   // keypad =
    NativeKey{0x64, 105},  // F13
    NativeKey{0x65, 107},  // F14
    NativeKey{0x66, 113},  // F15
    NativeKey{0x67, 106},  // F16
    NativeKey{0x68, 64},   // F17
    NativeKey{0x69, 79},   // F18
    NativeKey{0x6A, 80},   // F19
    NativeKey{0x6B, 90},   // F20
    NativeKey{0x73, 94},   // Ro (JIS)
    NativeKey{0x79, 104},  // Henkan (JIS; Kana on a Mac)
    NativeKey{0x7B, 102},  // Muhenkan (JIS; Eisu on a Mac)
    NativeKey{0x7D, 93},   // Yen (JIS)
    NativeKey{0x7E, 95},   // keypad comma
    NativeKey{0x11C, 76},  // keypad Enter
    NativeKey{0x11D, 62},  // right Ctrl
    NativeKey{0x120, 74},  // Mute
    NativeKey{0x12E, 73},  // Volume Down
    NativeKey{0x130, 72},  // Volume Up
    NativeKey{0x135, 75},  // keypad /
    NativeKey{0x138, 61},  // right Alt (AltGr)
    NativeKey{0x145, 71},  // Num Lock (keypad Clear); Windows reports it with the E0 flag
    NativeKey{0x147, 115}, // Home
    NativeKey{0x148, 126}, // Up
    NativeKey{0x149, 116}, // Page Up
    NativeKey{0x14B, 123}, // Left
    NativeKey{0x14D, 124}, // Right
    NativeKey{0x14F, 119}, // End
    NativeKey{0x150, 125}, // Down
    NativeKey{0x151, 121}, // Page Down
    NativeKey{0x152, 114}, // Insert (Help)
    NativeKey{0x153, 117}, // Delete (Forward Delete)
    NativeKey{0x15B, 55},  // left Windows key (Command)
    NativeKey{0x15C, 54},  // right Windows key (right Command)
    NativeKey{0x15D, 110}, // Menu
};

// clang-format on

// Strictly increasing native codes: the look-up is a binary search, and no code appears twice.
constexpr bool strictlyIncreasing(std::span<const NativeKey> keys)
{
    return std::ranges::adjacent_find(keys, [](const NativeKey& a, const NativeKey& b) { return a.native >= b.native; })
        == keys.end();
}
static_assert(std::ranges::is_sorted(kLinuxKeys, {}, &NativeKey::native));
static_assert(std::ranges::is_sorted(kMacKeys, {}, &NativeKey::native));
static_assert(std::ranges::is_sorted(kWindowsKeys, {}, &NativeKey::native));
static_assert(strictlyIncreasing(kLinuxKeys) && strictlyIncreasing(kMacKeys) && strictlyIncreasing(kWindowsKeys));

constexpr KeyCode lookUp(std::span<const NativeKey> keys, std::uint32_t native)
{
    const auto it = std::ranges::lower_bound(keys, native, {}, &NativeKey::native);
    return it != keys.end() && it->native == native ? it->position : kNoKeyCode;
}

} // namespace

std::span<const NativeKey> nativeKeyTable(KeyPlatform platform)
{
    switch (platform) {
    case KeyPlatform::Linux:
        return kLinuxKeys;
    case KeyPlatform::MacOS:
        return kMacKeys;
    case KeyPlatform::Windows:
        return kWindowsKeys;
    }
    return {};
}

KeyCode positionCodeForNative(KeyPlatform platform, std::uint32_t native)
{
    if (platform == KeyPlatform::Linux) {
        if (native < kLinuxScanCodeOffset)
            return kNoKeyCode;
        return lookUp(kLinuxKeys, native - kLinuxScanCodeOffset);
    }
    return lookUp(nativeKeyTable(platform), native);
}

KeyCode positionCodeForKeyEvent(std::uint32_t nativeScanCode, std::uint32_t nativeVirtualKey)
{
    if constexpr (kBuildKeyPlatform == KeyPlatform::MacOS)
        return positionCodeForNative(KeyPlatform::MacOS, nativeVirtualKey);
    else
        return positionCodeForNative(kBuildKeyPlatform, nativeScanCode);
}

} // namespace plinkora
