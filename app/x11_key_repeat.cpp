#include "app/x11_key_repeat.h"

#include <QGuiApplication>

#ifdef PLINKORA_HAVE_XCB
#include <xcb/xcb.h>
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

#include <cstdlib>
#include <memory>
#endif

namespace plinkora {

#ifdef PLINKORA_HAVE_XCB
namespace {

// A reply or an error of libxcb, which the caller frees with free().
struct FreeWithFree
{
    void operator()(void* p) const { std::free(p); }
};
template <typename T> using XcbPointer = std::unique_ptr<T, FreeWithFree>;

// Waits for the reply to `cookie` (`replyOf` is the request's reply function); null when the
// server answered with an error, which is dropped.
template <typename Reply, typename Cookie>
XcbPointer<Reply> waitForReply(xcb_connection_t* connection, Cookie cookie,
                               Reply* (*replyOf)(xcb_connection_t*, Cookie, xcb_generic_error_t**))
{
    xcb_generic_error_t* error = nullptr;
    XcbPointer<Reply> reply(replyOf(connection, cookie, &error));
    const XcbPointer<xcb_generic_error_t> dropped(error);
    return reply;
}

} // namespace
#endif

bool enableDetectableAutoRepeat()
{
#ifdef PLINKORA_HAVE_XCB
    const auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (!application || QGuiApplication::platformName() != QLatin1String("xcb"))
        return false;
    const auto* x11 = application->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (!connection)
        return false;
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
#else
    return false;
#endif
}

} // namespace plinkora
