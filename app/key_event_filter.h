#pragma once

#include "input/key_map.h"

#include <QAccessible>
#include <QObject>
#include <QWidget>

#include <array>
#include <bitset>
#include <chrono>
#include <cstdint>
#include <optional>

class QKeyEvent;

namespace plinkora {

class KeyboardMonitor;

/// The local key-event monitor: one application-wide event filter that turns each key press
/// and release into a plain key event (position code, Shift and Command flags), and presses
/// and releases of Shift, Control, Alt and Super into modifier-change events, hands it to the
/// keyboard monitor once, and swallows what the monitor swallows. Main thread only.
///
/// Qt delivers one key event to the window and then again to the focus widget (and to its
/// parents when the widget ignores it); the monitor sees the first delivery only, and every
/// later delivery of the same event gets the same answer. X11's synthetic auto-repeat releases
/// never reach the monitor (the X server is asked not to send them; where it does send them,
/// those Qt flags as auto-repeat are dropped); auto-repeated presses arrive as key-downs. How the filter stands
/// with the accessibility bridge's own key filter is explained in the .cpp.
///
/// Under X11 the main window's key events also arrive ahead of Qt's delivery (x11_key_reader.h)
/// through actBeforeDelivery(). Each key event is acted on once, at whichever of its two copies
/// comes first, known by its type, native scan code and the window system's time; the other
/// copy gets the same answer without acting again. While the reader has the keys, Qt's copy is
/// the one the reader forwards after acting, so it always comes second; the other order is
/// kept for the keys Qt gets directly (the reader not yet open, or closed).
class KeyEventFilter final : public QObject, private QAccessible::ActivationObserver
{
    Q_OBJECT

public:
    /// A filter feeding `monitor`; not installed yet.
    explicit KeyEventFilter(KeyboardMonitor& monitor);
    /// Removes the filter if it is still installed.
    ~KeyEventFilter() override;

    KeyEventFilter() = delete;
    KeyEventFilter(const KeyEventFilter&) = delete;
    KeyEventFilter& operator=(const KeyEventFilter&) = delete;

    /// Installs the filter on the application, in front of every filter installed before.
    /// Under X11 it asks the server to repeat held keys without releases (see x11_key_repeat.h).
    void install();
    /// Whether held keys repeat with presses only (set by install()). Then every release is a
    /// real one, also one Qt flags as auto-repeat: Qt guesses that from a press of the same key
    /// close behind it, which a key struck again quickly gives too (on a busy machine, when both
    /// wait in the queue). Otherwise releases flagged as auto-repeat are dropped.
    void setRepeatsWithoutReleases(bool on) { repeatsWithoutReleases_ = on; }
    bool repeatsWithoutReleases() const { return repeatsWithoutReleases_; }
    /// Removes the filter from the application and lets go of the monitor: from now on no key
    /// event reaches it. Nothing happens when the filter is not installed.
    void remove();
    bool isInstalled() const { return installed_; }

    /// A key event of `window` read from the window system ahead of Qt's delivery of it (type,
    /// native scan code and modifiers, modifier state, the window system's time as timestamp).
    /// Acted on now, as a first delivery to `window`, unless Qt's copy came first, or the monitor
    /// still thinks the keys are away (then Qt's copy is acted on, and so are the keys after it
    /// until Qt has delivered it).
    void actBeforeDelivery(QWidget* window, const QKeyEvent& event);

    /// Modifier flags after the last modifier change: Shift while either Shift key is held,
    /// Command while either key of the platform's shortcut modifier is held.
    std::uint64_t heldModifierFlags() const;
    /// Forgets the modifier keys held: called when the main window loses the keys, after which
    /// their releases may happen in another program, unseen.
    void forgetHeldModifiers() { heldModifiers_.reset(); }

    /// While a key event from the window system is handed to the monitor: the top-level widget
    /// of the window the event was sent to; null at any other time. The window system sends the
    /// keys only to the window that has them, and under Wayland they arrive before Qt makes that
    /// window the active one (Qt first waits for an answer from the compositor).
    QWidget* keyEventWindow() const { return keyEventWindow_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // What identifies a key event and a copy of it made by the accessibility bridge (which
    // keeps the type, the key, the native codes and the auto-repeat flag, but not the time).
    struct Signature
    {
        int type = 0;
        int key = 0;
        std::uint32_t scanCode = 0;
        std::uint32_t virtualKey = 0;
        std::uint32_t nativeModifiers = 0;
        bool autoRepeat = false;
        bool operator==(const Signature&) const = default;
    };
    static Signature signatureOf(const QKeyEvent& event);

    // A spontaneous event acted on at its window, which a filter behind this one (the
    // accessibility bridge) may have taken away and may post again.
    struct Pending
    {
        Signature signature;
        bool swallow = false;
        std::chrono::steady_clock::time_point seen;
    };

    // A key event acted on at one of its two copies (see actBeforeDelivery()), and the answer.
    struct Arrival
    {
        int type = 0;
        std::uint32_t scanCode = 0;
        std::uint64_t time = 0;
        bool swallow = false;
        std::chrono::steady_clock::time_point seen;
    };
    // The last arrivals of one kind, oldest first; those older than the repost window are gone.
    class Arrivals
    {
    public:
        void add(const Arrival& arrival);
        /// Takes the oldest arrival of `type` and `scanCode`, of exactly `time` unless `anyTime`;
        /// false when there is none.
        bool take(int type, std::uint32_t scanCode, std::uint64_t time, bool anyTime, Arrival& taken);

    private:
        static constexpr std::size_t kMax = 32;
        std::array<Arrival, kMax> entries_{};
        std::size_t count_ = 0;
    };

    /// Converts the event, hands it to the monitor, returns the monitor's decision.
    bool act(const QKeyEvent& event);
    /// Makes `event` the current one, whose later deliveries get `swallow`; returns `swallow`.
    bool remember(const QEvent* event, const Signature& signature, bool swallow, bool pending);
    /// The decision of the copy of a taken-away event, removing its record; false in `found`
    /// when it is no such copy.
    bool takeRepost(const Signature& signature, bool& found);
    void rememberPending(const Signature& signature, bool swallow);
    void forgetLastPending();
    /// Puts this filter back in front of the other application filters on the next turn of the
    /// event loop (never while Qt walks the filter list).
    void scheduleMoveToFront();
    void accessibilityActiveChanged(bool active) override;

    KeyboardMonitor* monitor_ = nullptr;
    QWidget* keyEventWindow_ = nullptr;
    bool installed_ = false;

    // The event of the last first delivery, and the answer every later delivery gets.
    const QEvent* currentEvent_ = nullptr;
    Signature currentSignature_;
    bool currentSwallow_ = false;
    bool currentPending_ = false;

    // Key events acted on ahead of Qt's delivery, and events Qt delivered first.
    Arrivals actedAhead_;
    Arrivals deliveredFirst_;
    // The last key event read ahead and left to Qt's copy, until Qt delivers it.
    std::optional<Arrival> leftToQt_;

    static constexpr std::size_t kMaxPending = 64;
    std::array<Pending, kMaxPending> pending_{};
    std::size_t pendingStart_ = 0;
    std::size_t pendingCount_ = 0;

    // Modifier keys held, by position code (the eight modifier keys are below 64).
    std::bitset<64> heldModifiers_;
    // The last key-down handed to the monitor, for the auto-repeat releases that follow it.
    KeyCode lastDownCode_ = kNoKeyCode;
    bool lastDownSwallowed_ = false;
    bool repeatsWithoutReleases_ = false;

    bool moveToFrontScheduled_ = false;
    bool observingAccessibility_ = false;
};

} // namespace plinkora
