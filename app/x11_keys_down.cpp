#include "app/x11_keys_down.h"

#include "input/key_table.h"

#ifdef PLINKORA_HAVE_XCB
#include "app/x11_connection.h"
#endif

namespace plinkora {

std::optional<KeySet> x11KeysDown()
{
#ifdef PLINKORA_HAVE_XCB
    xcb_connection_t* connection = qtX11Connection();
    if (!connection)
        return std::nullopt;
    const auto reply = waitForReply(connection, xcb_query_keymap(connection), &xcb_query_keymap_reply);
    if (!reply)
        return std::nullopt;
    // One bit per X key code; an X key code is the evdev code plus 8, as Qt's native scan code.
    KeySet down;
    for (unsigned keycode = 8; keycode < 256; ++keycode) {
        if (!(reply->keys[keycode / 8] & (1u << (keycode % 8))))
            continue;
        if (const KeyCode code = positionCodeForNative(KeyPlatform::Linux, keycode); code < down.size())
            down.set(code);
    }
    return down;
#else
    return std::nullopt;
#endif
}

} // namespace plinkora
