#include "app/x11_key_repeat.h"

#ifdef PLINKORA_HAVE_XCB
#include "app/x11_connection.h"

// xkb.h is C and names a structure member `explicit`, a C++ keyword: renamed while it is read
// (on purpose, so clang's warning about a macro hiding a keyword is off for these lines).
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wkeyword-macro"
#endif
#define explicit xkb_explicit
#include <xcb/xkb.h>
#undef explicit
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
#endif

namespace plinkora {

#ifdef PLINKORA_HAVE_XCB
bool enableDetectableAutoRepeatOn(xcb_connection_t* connection)
{
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &xcb_xkb_id);
    if (!extension || !extension->present)
        return false;

    const auto used = waitForReply(connection,
                                   xcb_xkb_use_extension(connection, XCB_XKB_MAJOR_VERSION, XCB_XKB_MINOR_VERSION),
                                   &xcb_xkb_use_extension_reply);
    if (!used || !used->supported)
        return false;

    constexpr std::uint32_t detectable = XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT;
    const auto flags = waitForReply(
        connection, xcb_xkb_per_client_flags(connection, XCB_XKB_ID_USE_CORE_KBD, detectable, detectable, 0, 0, 0),
        &xcb_xkb_per_client_flags_reply);
    return flags && (flags->value & detectable) != 0;
}
#endif

bool enableDetectableAutoRepeat()
{
#ifdef PLINKORA_HAVE_XCB
    xcb_connection_t* connection = qtX11Connection();
    return connection && enableDetectableAutoRepeatOn(connection);
#else
    return false;
#endif
}

} // namespace plinkora
