#pragma once

// What the X11 parts of the key handling share (x11_key_repeat, x11_keys_down, x11_key_reader).
// Built only where xcb is (PLINKORA_HAVE_XCB).

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace plinkora {

/// A reply, error or event of libxcb, which the caller frees with free().
struct FreeWithFree
{
    void operator()(void* p) const { std::free(p); }
};
template <typename T> using XcbPointer = std::unique_ptr<T, FreeWithFree>;

/// Waits for the reply to `cookie` (`replyOf` is the request's reply function); null when the
/// server answered with an error, which is dropped.
template <typename Reply, typename Cookie>
XcbPointer<Reply> waitForReply(xcb_connection_t* connection, Cookie cookie,
                               Reply* (*replyOf)(xcb_connection_t*, Cookie, xcb_generic_error_t**))
{
    xcb_generic_error_t* error = nullptr;
    XcbPointer<Reply> reply(replyOf(connection, cookie, &error));
    const XcbPointer<xcb_generic_error_t> dropped(error);
    return reply;
}

/// Qt's connection to the X server; null when the application does not run on X11.
xcb_connection_t* qtX11Connection();

/// Asks the X server for detectable auto-repeat on `connection` (see x11_key_repeat.h); whether
/// it switched it on.
bool enableDetectableAutoRepeatOn(xcb_connection_t* connection);

} // namespace plinkora
