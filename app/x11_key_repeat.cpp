#include "app/x11_key_repeat.h"

#include <QGuiApplication>

#ifdef PLINKORA_HAVE_XCB
#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <cstdint>
#include <cstdlib>
#include <sys/uio.h>
#endif

namespace plinkora {

#ifdef PLINKORA_HAVE_XCB
namespace {

// The two XKB requests needed, written out from the XKB protocol (the xcb-xkb headers are not
// a dependency of Plinkora; libxcb's generic request call sends them).
constexpr std::uint8_t kXkbUseExtension = 0;
constexpr std::uint8_t kXkbPerClientFlags = 21;
constexpr std::uint16_t kXkbUseCoreKeyboard = 0x0100;
constexpr std::uint32_t kXkbDetectableAutoRepeat = 1;

xcb_extension_t xkbExtension = {"XKEYBOARD", 0};

struct UseExtensionRequest
{
    std::uint8_t majorOpcode;
    std::uint8_t minorOpcode;
    std::uint16_t length;
    std::uint16_t wantedMajor;
    std::uint16_t wantedMinor;
};
struct UseExtensionReply
{
    std::uint8_t responseType;
    std::uint8_t supported;
    std::uint16_t sequence;
    std::uint32_t length;
    std::uint16_t serverMajor;
    std::uint16_t serverMinor;
    std::uint8_t pad[20];
};
struct PerClientFlagsRequest
{
    std::uint8_t majorOpcode;
    std::uint8_t minorOpcode;
    std::uint16_t length;
    std::uint16_t deviceSpec;
    std::uint16_t pad;
    std::uint32_t change;
    std::uint32_t value;
    std::uint32_t ctrlsToChange;
    std::uint32_t autoCtrls;
    std::uint32_t autoCtrlsValues;
};
struct PerClientFlagsReply
{
    std::uint8_t responseType;
    std::uint8_t deviceId;
    std::uint16_t sequence;
    std::uint32_t length;
    std::uint32_t supported;
    std::uint32_t value;
    std::uint32_t autoCtrls;
    std::uint32_t autoCtrlsValues;
    std::uint8_t pad[8];
};
static_assert(sizeof(UseExtensionRequest) == 8 && sizeof(PerClientFlagsRequest) == 28);

// Sends one request with a reply and waits for the reply (freed by the caller with free()).
template <typename Request> void* roundTrip(xcb_connection_t* connection, std::uint8_t opcode, Request& request)
{
    const xcb_protocol_request_t description = {1, &xkbExtension, opcode, 0};
    iovec parts[3];
    parts[2].iov_base = &request;
    parts[2].iov_len = sizeof request;
    const unsigned sequence = xcb_send_request(connection, XCB_REQUEST_CHECKED, parts + 2, &description);
    xcb_generic_error_t* error = nullptr;
    void* reply = xcb_wait_for_reply(connection, sequence, &error);
    std::free(error);
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
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &xkbExtension);
    if (!extension || !extension->present)
        return false;

    UseExtensionRequest use = {0, 0, 0, 1, 0};
    auto* used = static_cast<UseExtensionReply*>(roundTrip(connection, kXkbUseExtension, use));
    const bool supported = used && used->supported;
    std::free(used);
    if (!supported)
        return false;

    PerClientFlagsRequest flags = {0, 0, 0, kXkbUseCoreKeyboard, 0, kXkbDetectableAutoRepeat, kXkbDetectableAutoRepeat,
                                   0, 0, 0};
    auto* reply = static_cast<PerClientFlagsReply*>(roundTrip(connection, kXkbPerClientFlags, flags));
    const bool on = reply && (reply->value & kXkbDetectableAutoRepeat);
    std::free(reply);
    return on;
#else
    return false;
#endif
}

} // namespace plinkora
