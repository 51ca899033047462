#pragma once

namespace plinkora {

/// Under X11, asks the X server for "detectable auto-repeat" on this program's connection: a
/// held key then repeats as key presses only, without the synthetic key release the server
/// otherwise puts before every repeat.
///
/// Qt 6.4 recognises such a release only when the repeated press has already been read from
/// the connection when the release is handled; on a busy machine it often has not, and a held
/// note was cut and struck again at every repeat (measured under Xvfb: about half the repeats
/// of a held key). With this, the key handling sees one press, repeated presses, one release.
///
/// Returns true when the server switched it on; false on other platforms (Wayland, macOS,
/// Windows, offscreen), where repeats are no problem, and when the server lacks XKB.
bool enableDetectableAutoRepeat();

} // namespace plinkora
