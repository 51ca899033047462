#include "app/x11_keys_down.h"

#include "input/key_table.h"

#include <QGuiApplication>

#ifdef PLINKORA_HAVE_XCB
#include <xcb/xcb.h>

#include <cstdlib>
#endif

namespace plinkora {

std::optional<KeySet> x11KeysDown()
{
#ifdef PLINKORA_HAVE_XCB
    const auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (!application || QGuiApplication::platformName() != QLatin1String("xcb"))
        return std::nullopt;
    const auto* x11 = application->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (!connection)
        return std::nullopt;
    xcb_query_keymap_reply_t* reply = xcb_query_keymap_reply(connection, xcb_query_keymap(connection), nullptr);
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
    std::free(reply);
    return down;
#else
    return std::nullopt;
#endif
}

} // namespace plinkora
