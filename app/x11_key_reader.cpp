#include "app/x11_key_reader.h"

#include <QKeyEvent>
#include <QLoggingCategory>
#include <QSocketNotifier>
#include <QWindow>

#ifdef PLINKORA_HAVE_XCB
#include "app/x11_connection.h"

#include <QGuiApplication>

// Xlib's name of a display; its header is not included because its macros (KeyPress, None, ...)
// clash with Qt's names.
extern "C" char* XDisplayString(Display* display);
#endif

namespace plinkora {

namespace {

#ifdef PLINKORA_HAVE_XCB
Q_LOGGING_CATEGORY(lcKeyReader, "plinkora.keys", QtWarningMsg)

// The modifiers of an X key event's state (the keys held before it), as Qt names them.
Qt::KeyboardModifiers modifiersOfState(std::uint16_t state)
{
    Qt::KeyboardModifiers modifiers;
    if (state & XCB_MOD_MASK_SHIFT)
        modifiers |= Qt::ShiftModifier;
    if (state & XCB_MOD_MASK_CONTROL)
        modifiers |= Qt::ControlModifier;
    if (state & XCB_MOD_MASK_1)
        modifiers |= Qt::AltModifier;
    if (state & XCB_MOD_MASK_4)
        modifiers |= Qt::MetaModifier;
    return modifiers;
}

// The name of the X display Qt is connected to (DISPLAY, or Qt's -display option).
QByteArray qtDisplayName()
{
    const auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    const auto* x11 = application ? application->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    Display* display = x11 ? x11->display() : nullptr;
    return display ? QByteArray(XDisplayString(display)) : QByteArray();
}
#endif

} // namespace

std::unique_ptr<X11KeyReader> X11KeyReader::open(const QWindow& window, KeyHandler handler)
{
#ifdef PLINKORA_HAVE_XCB
    if (!qtX11Connection())
        return nullptr;
    const QByteArray displayName = qtDisplayName();
    if (displayName.isEmpty())
        return nullptr;
    xcb_connection_t* connection = xcb_connect(displayName.constData(), nullptr);
    if (xcb_connection_has_error(connection) || !enableDetectableAutoRepeatOn(connection)) {
        qCDebug(lcKeyReader) << "no key reader of its own on" << displayName;
        xcb_disconnect(connection);
        return nullptr;
    }
    const std::uint32_t mask = XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE;
    const auto windowId = static_cast<xcb_window_t>(window.winId());
    const XcbPointer<xcb_generic_error_t> refused(xcb_request_check(
        connection, xcb_change_window_attributes_checked(connection, windowId, XCB_CW_EVENT_MASK, &mask)));
    if (refused) {
        qCDebug(lcKeyReader) << "the X server refused the key events of window" << windowId;
        xcb_disconnect(connection);
        return nullptr;
    }
    std::unique_ptr<X11KeyReader> reader(new X11KeyReader(connection, std::move(handler)));
    reader->window_ = windowId;
    reader->takeKeysFromQt();
    reader->readEvents(); // what arrived while the replies were awaited
    return reader;
#else
    Q_UNUSED(window);
    Q_UNUSED(handler);
    return nullptr;
#endif
}

X11KeyReader::X11KeyReader(xcb_connection_t* connection, KeyHandler handler)
    : connection_(connection)
    , handler_(std::move(handler))
{
#ifdef PLINKORA_HAVE_XCB
    notifier_ = new QSocketNotifier(xcb_get_file_descriptor(connection), QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &X11KeyReader::readEvents);
#endif
}

X11KeyReader::~X11KeyReader()
{
#ifdef PLINKORA_HAVE_XCB
    giveKeysBackToQt();
    delete notifier_;
    xcb_disconnect(connection_);
#endif
}

void X11KeyReader::takeKeysFromQt()
{
#ifdef PLINKORA_HAVE_XCB
    // Qt's connection stops selecting the window's key events: the X server then sends them
    // here only, and Qt's event thread no longer wakes for them beside the main thread (on two
    // cores it delayed the main thread's read by 27 to 64 µs). Each key is forwarded to Qt once
    // it has been acted on (readEvents).
    xcb_connection_t* qt = qtX11Connection();
    if (!qt)
        return;
    const XcbPointer<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(qt, xcb_get_window_attributes(qt, window_), nullptr));
    constexpr std::uint32_t keys = XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE;
    if (!attributes || (attributes->your_event_mask & keys) != keys)
        return;
    qtEventMask_ = attributes->your_event_mask;
    const std::uint32_t withoutKeys = qtEventMask_ & ~keys;
    xcb_change_window_attributes(qt, window_, XCB_CW_EVENT_MASK, &withoutKeys);
    xcb_flush(qt);
    keysTaken_ = true;
    qCDebug(lcKeyReader) << "the key events of window" << window_
                         << "now come to the key reader only, and go on to Qt once acted on";
#endif
}

void X11KeyReader::giveKeysBackToQt()
{
#ifdef PLINKORA_HAVE_XCB
    if (!keysTaken_)
        return;
    keysTaken_ = false;
    if (xcb_connection_t* qt = qtX11Connection()) {
        xcb_change_window_attributes(qt, window_, XCB_CW_EVENT_MASK, &qtEventMask_);
        xcb_flush(qt);
    }
#endif
}

void X11KeyReader::readEvents()
{
#ifdef PLINKORA_HAVE_XCB
    while (const XcbPointer<xcb_generic_event_t> event{xcb_poll_for_event(connection_)}) {
        const std::uint8_t type = event->response_type & 0x7f;
        if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE)
            continue;
        // Presses and releases have the same layout.
        const auto* key = reinterpret_cast<const xcb_key_press_event_t*>(event.get());
        QKeyEvent keyEvent(type == XCB_KEY_PRESS ? QEvent::KeyPress : QEvent::KeyRelease, Qt::Key_unknown,
                           modifiersOfState(key->state), key->detail, 0, key->state);
        keyEvent.setTimestamp(key->time);
        handler_(keyEvent);
        // Then to Qt, as the X server sent it (its time too): an event sent with no mask goes to
        // the client that made the window, Qt's connection. The accessibility bridge, shortcuts
        // and widgets get the key from there.
        if (keysTaken_) {
            xcb_send_event(connection_, 0, window_, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(key));
            xcb_flush(connection_);
        }
    }
    if (xcb_connection_has_error(connection_)) {
        qCDebug(lcKeyReader) << "the key reader's connection to the X server broke; Qt's delivery goes on alone";
        giveKeysBackToQt();
        notifier_->setEnabled(false);
    }
#endif
}

} // namespace plinkora
