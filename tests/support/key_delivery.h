#pragma once

#include <QApplication>
#include <QKeyEvent>
#include <QPointer>
#include <QWidget>
#include <QWindow>
#include <QtTest/qtestspontaneevent.h>

#include <linux/input-event-codes.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

// Key events as the window system hands them to Qt on Linux: spontaneous, to the window
// (QWidgetWindow) first, which passes them on to its focus widget, with the X11/Wayland scan
// code (evdev + 8).
namespace plinkora::testing {

struct LinuxKey
{
    std::uint32_t evdev;
    int qtKey;
    const char* text;         // what the key types without Shift
    std::uint32_t keysym = 0; // the X11 keysym, where it matters
};

inline constexpr LinuxKey kLinuxA{KEY_A, Qt::Key_A, "a"};
inline constexpr LinuxKey kLinuxK{KEY_K, Qt::Key_K, "k"};
inline constexpr LinuxKey kLinuxB{KEY_B, Qt::Key_B, "b"};
inline constexpr LinuxKey kLinux5{KEY_5, Qt::Key_5, "5"};
inline constexpr LinuxKey kLinuxMinus{KEY_MINUS, Qt::Key_Minus, "-"};
inline constexpr LinuxKey kLinuxTab{KEY_TAB, Qt::Key_Tab, "\t"};
inline constexpr LinuxKey kLinuxF1{KEY_F1, Qt::Key_F1, ""};
inline constexpr LinuxKey kLinuxLeftShift{KEY_LEFTSHIFT, Qt::Key_Shift, ""};
inline constexpr LinuxKey kLinuxRightShift{KEY_RIGHTSHIFT, Qt::Key_Shift, ""};
inline constexpr LinuxKey kLinuxLeftCtrl{KEY_LEFTCTRL, Qt::Key_Control, ""};
inline constexpr LinuxKey kLinuxEscape{KEY_ESC, Qt::Key_Escape, "\x1b"};

/// The X11 modifier mask of Shift, for events with `nativeModifiers`.
inline constexpr std::uint32_t kX11ShiftMask = 1;

inline std::unique_ptr<QKeyEvent> makeKeyEvent(QEvent::Type type, const LinuxKey& key,
                                               Qt::KeyboardModifiers modifiers = Qt::NoModifier,
                                               bool autoRepeat = false)
{
    return std::make_unique<QKeyEvent>(type, key.qtKey, modifiers, key.evdev + 8, key.keysym, 0,
                                       QString::fromLatin1(key.text), autoRepeat);
}

/// Hands `event` to `widget`'s window as the window system does. Returns what Qt's delivery
/// returned.
inline bool deliverFromWindowSystem(QWidget& widget, QKeyEvent& event)
{
    QWindow* window = widget.window()->windowHandle();
    QSpontaneKeyEvent::setSpontaneous(&event);
    return QCoreApplication::instance()->notify(window, &event);
}

inline void sendPress(QWidget& widget, const LinuxKey& key, Qt::KeyboardModifiers modifiers = Qt::NoModifier,
                      bool autoRepeat = false)
{
    deliverFromWindowSystem(widget, *makeKeyEvent(QEvent::KeyPress, key, modifiers, autoRepeat));
}

inline void sendRelease(QWidget& widget, const LinuxKey& key, Qt::KeyboardModifiers modifiers = Qt::NoModifier,
                        bool autoRepeat = false)
{
    deliverFromWindowSystem(widget, *makeKeyEvent(QEvent::KeyRelease, key, modifiers, autoRepeat));
}

/// Behaves as Qt 6.4's AT-SPI bridge does with key events: takes every spontaneous key press
/// and release away, keeps a copy (which is not spontaneous), and when the registry answers
/// posts the copy to the same object, or drops it when a listener consumed the key.
class FakeAccessibilityBridge final : public QObject
{
public:
    FakeAccessibilityBridge() = default;
    ~FakeAccessibilityBridge() override
    {
        QCoreApplication::instance()->removeEventFilter(this);
        for (auto& entry : queue)
            delete entry.second;
    }

    void install() { QCoreApplication::instance()->installEventFilter(this); }

    /// The registry answers the oldest key: posted again, or dropped when `consumed`.
    void answerOldest(bool consumed = false)
    {
        auto [target, copy] = queue.front();
        queue.pop_front();
        if (consumed || !target)
            delete copy;
        else
            QCoreApplication::postEvent(target.data(), copy);
    }
    void answerAll()
    {
        while (!queue.empty())
            answerOldest();
    }

    std::deque<std::pair<QPointer<QObject>, QKeyEvent*>> queue;
    int forwarded = 0; // key events sent on to the registry (what the screen reader hears)

protected:
    bool eventFilter(QObject* target, QEvent* event) override
    {
        if (!event->spontaneous())
            return false;
        if (event->type() != QEvent::KeyPress && event->type() != QEvent::KeyRelease)
            return false;
        const auto* old = static_cast<QKeyEvent*>(event);
        ++forwarded;
        queue.emplace_back(target,
                           new QKeyEvent(old->type(), old->key(), old->modifiers(), old->nativeScanCode(),
                                         old->nativeVirtualKey(), old->nativeModifiers(), old->text(),
                                         old->isAutoRepeat(), old->count()));
        return true;
    }
};

} // namespace plinkora::testing
