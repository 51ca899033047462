#pragma once

#include "input/key_map.h"

#include <optional>

namespace plinkora {

/// Under X11, the keys that are physically down now, by position code, as the X server sees
/// them (one query of its key map). Nothing on other platforms (Wayland, offscreen, ...), where
/// a program cannot ask, and when the query fails.
std::optional<KeySet> x11KeysDown();

} // namespace plinkora
