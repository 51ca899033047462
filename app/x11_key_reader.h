#pragma once

#include <QObject>

#include <cstdint>
#include <functional>
#include <memory>

class QKeyEvent;
class QSocketNotifier;
class QWindow;
struct xcb_connection_t;

namespace plinkora {

/// Under X11, the key presses and releases of one window, read on a connection of this
/// program's own by the main thread itself, the moment the X server sends them.
///
/// Qt 6.4 reads its X connection on a thread of its own and wakes the main thread to deliver
/// each event, a hand-off of 0.1 to 0.2 ms between the key and the note on a small machine. Here
/// the main thread waits on the X socket itself and hands each key event on at once (its type,
/// X key code as the native scan code, modifier state, and the X server's time as the
/// timestamp).
///
/// Qt's connection stops selecting the window's key events while the reader is open, so that
/// Qt's event thread does not wake for each key beside the main thread. Once a key has been
/// acted on, the reader forwards the X event, unchanged, to Qt's connection (an X SendEvent to
/// the window's maker): Qt delivers it as always, to the accessibility bridge and the screen
/// reader, the shortcuts and the widgets, and the key-event filter knows it as a copy of a key
/// already acted on (see key_event_filter.h). The reader gives the keys back to Qt's connection
/// when it closes or its connection breaks.
///
/// The X server sends the key events here because this connection selects them on the window:
/// they come while the window has the keyboard and the toolkit has no grab (an open menu grabs
/// the keyboard, and then Qt's connection gets them directly). Held keys repeat without releases
/// here as on Qt's connection (x11_key_repeat.h). Main thread only.
class X11KeyReader final : public QObject
{
    Q_OBJECT

public:
    using KeyHandler = std::function<void(const QKeyEvent&)>;

    /// A reader of `window`'s key events, handing each to `handler`; null where there is none to
    /// be had: not on X11, no XKB or no detectable auto-repeat, no connection to the server.
    static std::unique_ptr<X11KeyReader> open(const QWindow& window, KeyHandler handler);
    ~X11KeyReader() override;

    X11KeyReader(const X11KeyReader&) = delete;
    X11KeyReader& operator=(const X11KeyReader&) = delete;

private:
    X11KeyReader(xcb_connection_t* connection, KeyHandler handler);
    /// Hands on every key event that has arrived, then forwards it to Qt; stops reading when
    /// the connection broke.
    void readEvents();
    /// The window's key events come here only, not also to Qt's connection.
    void takeKeysFromQt();
    /// Qt's connection selects the window's key events again, as it did.
    void giveKeysBackToQt();

    xcb_connection_t* connection_ = nullptr;
    KeyHandler handler_;
    QSocketNotifier* notifier_ = nullptr;
    std::uint32_t window_ = 0;      // the X window read
    std::uint32_t qtEventMask_ = 0; // Qt's selection on it before the keys were taken
    bool keysTaken_ = false;
};

} // namespace plinkora
