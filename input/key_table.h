#pragma once

#include "input/key_map.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

// The one place that knows the toolkit's native key codes: it turns them into the position
// codes of the key map (A = 0, S = 1, ...). Only the key's place on the keyboard counts, never
// the character it types, so AZERTY, QWERTZ and Dvorak users play by position.
//
// What Qt reports for a key, by platform:
// - Linux (X11 and Wayland alike): QKeyEvent::nativeScanCode() is the kernel's evdev key code
//   plus 8 (the X/xkb key code). The Linux table below is written in evdev codes.
// - macOS: QKeyEvent::nativeVirtualKey() is the virtual key code, which already is the position
//   code. The macOS table only restricts it to the keys that exist.
// - Windows: QKeyEvent::nativeScanCode() is the set-1 scan code; keys that send an E0 prefix
//   have 0x100 added (Qt keeps bit 24 of the message's lParam, the "extended" flag).
//
// A key with no entry gets kNoKeyCode, which is in no table of the key map.
namespace plinkora {

/// One row of a native table: the code Qt reports and the position code it stands for.
struct NativeKey
{
    std::uint32_t native;
    KeyCode position;
};

enum class KeyPlatform
{
    Linux,
    MacOS,
    Windows,
};

/// The platform this program is built for.
#if defined(__APPLE__)
inline constexpr KeyPlatform kBuildKeyPlatform = KeyPlatform::MacOS;
#elif defined(_WIN32)
inline constexpr KeyPlatform kBuildKeyPlatform = KeyPlatform::Windows;
#else
inline constexpr KeyPlatform kBuildKeyPlatform = KeyPlatform::Linux;
#endif

/// On Linux the native scan code is the evdev code plus this.
inline constexpr std::uint32_t kLinuxScanCodeOffset = 8;

/// The rows of `platform`'s table, sorted by native code (the Linux one in evdev codes).
std::span<const NativeKey> nativeKeyTable(KeyPlatform platform);

/// The position code of the key whose native code on `platform` is `native` (for Linux the
/// native scan code, evdev + 8). kNoKeyCode for a key that has no entry.
KeyCode positionCodeForNative(KeyPlatform platform, std::uint32_t native);

/// The position code of a key event as Qt reports it on the platform of this build: the scan
/// code on Linux and Windows, the virtual key on macOS. kNoKeyCode for a key with no entry.
KeyCode positionCodeForKeyEvent(std::uint32_t nativeScanCode, std::uint32_t nativeVirtualKey);

// Position codes of the keys that are not in the key map's tables but that the key-event
// conversion needs to recognise (modifier keys of a Mac keyboard and their PC counterparts).
inline constexpr KeyCode kKeyReturn = 36;
inline constexpr KeyCode kKeySpace = 49;
inline constexpr KeyCode kKeyDelete = 51;
inline constexpr KeyCode kKeyRightCommand = 54; // right Super / Windows key on a PC keyboard
inline constexpr KeyCode kKeyCommand = 55;      // left Super / Windows key on a PC keyboard
inline constexpr KeyCode kKeyShift = 56;
inline constexpr KeyCode kKeyCapsLock = 57;
inline constexpr KeyCode kKeyOption = 58; // left Alt on a PC keyboard
inline constexpr KeyCode kKeyControl = 59;
inline constexpr KeyCode kKeyRightShift = 60;
inline constexpr KeyCode kKeyRightOption = 61; // right Alt (AltGr) on a PC keyboard
inline constexpr KeyCode kKeyRightControl = 62;
inline constexpr KeyCode kKeyForwardDelete = 117;

} // namespace plinkora
