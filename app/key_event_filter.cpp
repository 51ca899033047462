#include "app/key_event_filter.h"

#include "app/x11_key_repeat.h"
#include "input/key_table.h"
#include "input/keyboard_monitor.h"

#include <QApplication>
#include <QKeyEvent>
#include <QLoggingCategory>
#include <QMetaObject>
#include <QWidget>
#include <QWindow>

#include <algorithm>

// Where this filter stands among the application's event filters, and why.
//
// With a screen reader listening, Qt 6.4's AT-SPI bridge (QSpiApplicationAdaptor) has its own
// application event filter. For every *spontaneous* key press and release it sends the key to
// the accessibility registry (D-Bus NotifyListenersSync, 100 ms timeout; this is how Orca hears
// key presses and cuts its speech off), takes the event away (returns true) and keeps a copy.
// When the registry answers "not consumed" (or the call fails) it posts the copy, which is no
// longer spontaneous, to the same window; when a listener consumed the key the copy is deleted.
// The bridge ignores events that are not spontaneous, so it never takes a copy twice.
//
// Qt calls the most recently installed application filter first. Behind the bridge, Plinkora
// would see each key only after a D-Bus round trip through the registry and Orca, and not at
// all when Orca consumed it (a lost key release is a hanging note). In front of it:
// - Plinkora acts on the spontaneous event at once, at its first delivery (to the window), so
//   the time from here to the MIDI message is that of the key handling alone;
// - it never swallows a spontaneous event at the window: the event goes on to the bridge, which
//   forwards every key press to Orca; without a bridge it goes on to the focus widget, where
//   the monitor's decision (swallow or pass) is applied;
// - the copy the bridge posts later is recognised (same type, key, native codes and auto-repeat
//   flag as an event acted on at its window that never reached a widget) and given the decision
//   already taken, without acting again.
// The bridge installs its filter again whenever an accessibility listener registers (Orca
// starting after Plinkora, for example), which puts it back in front. A copy that arrives with
// no record is the sign: Plinkora acts on it (once, later than usual) and moves its filter back
// in front on the next turn of the event loop. It does the same when accessibility turns on.
namespace plinkora {

namespace {

// QT_LOGGING_RULES="plinkora.keys.debug=true" shows how key events travel past the filters.
Q_LOGGING_CATEGORY(lcKeys, "plinkora.keys", QtWarningMsg)

// The top-level widget shown in `window`, if any.
QWidget* topLevelWidgetOf(const QWindow* window)
{
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (widget->windowHandle() == window)
            return widget;
    return nullptr;
}

constexpr auto kRepostWindow = std::chrono::seconds(2); // the bridge waits at most 100 ms

bool isModifierPosition(KeyCode code)
{
    switch (code) {
    case kKeyShift:
    case kKeyRightShift:
    case kKeyControl:
    case kKeyRightControl:
    case kKeyOption:
    case kKeyRightOption:
    case kKeyCommand:
    case kKeyRightCommand:
        return true;
    default:
        return false;
    }
}

// The keys Qt names Control and Meta, by position: on macOS Qt's Control is Command and its Meta
// is Control; elsewhere they are Control and the Windows (Super) key.
struct ModifierPair
{
    KeyCode left;
    KeyCode right;
};
#ifdef Q_OS_MACOS
constexpr ModifierPair kQtControl{kKeyCommand, kKeyRightCommand};
constexpr ModifierPair kQtMeta{kKeyControl, kKeyRightControl};
#else
constexpr ModifierPair kQtControl{kKeyControl, kKeyRightControl};
constexpr ModifierPair kQtMeta{kKeyCommand, kKeyRightCommand};
#endif

// A modifier key whose position is unknown (no native code, as in synthesised events): the
// position of the left key of its kind.
KeyCode modifierPositionOfQtKey(int key)
{
    constexpr KeyCode control = kQtControl.left;
    constexpr KeyCode meta = kQtMeta.left;
    switch (key) {
    case Qt::Key_Shift:
        return kKeyShift;
    case Qt::Key_Control:
        return control;
    case Qt::Key_Alt:
        return kKeyOption;
    case Qt::Key_AltGr:
        return kKeyRightOption;
    case Qt::Key_Meta:
    case Qt::Key_Super_L:
        return meta;
    case Qt::Key_Super_R:
        return kQtMeta.right;
    default:
        return kNoKeyCode;
    }
}

} // namespace

KeyEventFilter::KeyEventFilter(KeyboardMonitor& monitor)
    : QObject(nullptr)
{
    monitor_ = &monitor;
    QAccessible::installActivationObserver(this);
    observingAccessibility_ = true;
}

KeyEventFilter::~KeyEventFilter()
{
    if (observingAccessibility_)
        QAccessible::removeActivationObserver(this);
    remove();
}

void KeyEventFilter::install()
{
    if (!monitor_ || !QCoreApplication::instance())
        return;
    // Under X11 a held key then repeats without synthetic releases (see x11_key_repeat.h).
    static const bool detectableAutoRepeat = [] {
        const bool on = enableDetectableAutoRepeat();
        qCDebug(lcKeys) << "detectable auto-repeat:" << on;
        return on;
    }();
    repeatsWithoutReleases_ = detectableAutoRepeat;
    QCoreApplication::instance()->installEventFilter(this);
    installed_ = true;
}

void KeyEventFilter::remove()
{
    if (QCoreApplication::instance())
        QCoreApplication::instance()->removeEventFilter(this);
    monitor_ = nullptr;
    installed_ = false;
    currentEvent_ = nullptr;
}

std::uint64_t KeyEventFilter::heldModifierFlags() const
{
    // The command flag follows the key Qt calls Control: Command on macOS, Control elsewhere.
    constexpr KeyCode command = kQtControl.left;
    constexpr KeyCode rightCommand = kQtControl.right;
    std::uint64_t flags = 0;
    if (heldModifiers_.test(kKeyShift) || heldModifiers_.test(kKeyRightShift))
        flags |= kShiftFlag;
    if (heldModifiers_.test(command) || heldModifiers_.test(rightCommand))
        flags |= kCommandFlag;
    return flags;
}

KeyEventFilter::Signature KeyEventFilter::signatureOf(const QKeyEvent& event)
{
    return {event.type(),        event.key(), event.nativeScanCode(), event.nativeVirtualKey(), event.nativeModifiers(),
            event.isAutoRepeat()};
}

bool KeyEventFilter::eventFilter(QObject* watched, QEvent* event)
{
    const int type = event->type();
    if ((type != QEvent::KeyPress && type != QEvent::KeyRelease) || !monitor_)
        return false;
    const auto& keyEvent = *static_cast<const QKeyEvent*>(event);
    const Signature signature = signatureOf(keyEvent);

    if (!watched->isWindowType()) {
        // The focus widget (or one of its parents) receiving an event already seen at its
        // window: the same answer, and no copy of it will come.
        if (event == currentEvent_ && signature == currentSignature_) {
            if (currentPending_) {
                forgetLastPending();
                currentPending_ = false;
            }
            return currentSwallow_;
        }
        // A key event sent to a widget directly, without a window: this is its first delivery.
        return remember(event, signature, act(keyEvent), false);
    }

    const auto time = keyEvent.timestamp();
    if (!event->spontaneous()) {
        bool found = false;
        const bool swallow = takeRepost(signature, found);
        if (found) {
            qCDebug(lcKeys) << "copy of a key event already acted on, swallowed:" << swallow;
            return remember(event, signature, swallow, false);
        }
        // No record: a filter in front of this one took the original away.
        scheduleMoveToFront();
        // The copy keeps no time; the key event read ahead is the oldest of its type and key.
        if (Arrival ahead; actedAhead_.take(type, signature.scanCode, 0, true, ahead)) {
            qCDebug(lcKeys) << "a filter in front took a key event away; its copy was read ahead, swallowed:"
                            << ahead.swallow;
            return remember(event, signature, ahead.swallow, false);
        }
        qCDebug(lcKeys) << "a filter in front took a key event away; acting on its copy and moving back in front";
        return remember(event, signature, act(keyEvent), false);
    }

    // The first delivery of an event from the window system.
    bool swallow = false;
    if (Arrival ahead; actedAhead_.take(type, signature.scanCode, time, false, ahead)) {
        swallow = ahead.swallow;
        qCDebug(lcKeys) << "Qt's copy of a key event read ahead, swallowed:" << swallow;
    } else {
        keyEventWindow_ = topLevelWidgetOf(static_cast<const QWindow*>(watched));
        swallow = act(keyEvent);
        keyEventWindow_ = nullptr;
        deliveredFirst_.add({type, signature.scanCode, time, swallow, std::chrono::steady_clock::now()});
        if (leftToQt_ && leftToQt_->type == type && leftToQt_->scanCode == signature.scanCode
            && leftToQt_->time == time)
            leftToQt_.reset(); // Qt has caught up with the keys read ahead
        qCDebug(lcKeys) << "acted on a key event at its window, swallowed:" << swallow;
    }
    remember(event, signature, swallow, true);
    rememberPending(signature, swallow);
    return false; // on to the accessibility bridge, or to the focus widget (see above)
}

void KeyEventFilter::actBeforeDelivery(QWidget* window, const QKeyEvent& event)
{
    const int type = event.type();
    if (!monitor_ || (type != QEvent::KeyPress && type != QEvent::KeyRelease))
        return;
    const std::uint32_t scanCode = event.nativeScanCode();
    if (Arrival first; deliveredFirst_.take(type, scanCode, event.timestamp(), false, first))
        return; // Qt's copy came first and was acted on
    const auto now = std::chrono::steady_clock::now();
    if (leftToQt_ && now - leftToQt_->seen > kRepostWindow)
        leftToQt_.reset(); // Qt never delivered it (a grab took the keyboard, for example)
    // While the monitor does not know yet that the main window has the keys back (Qt has not
    // handled the focus change that came before this key), the key is left to Qt's copy, which
    // comes after that change; so are the keys after it, until Qt has delivered the last one
    // left, so that every key keeps its place in the order.
    if (monitor_->focusAway || leftToQt_) {
        leftToQt_ = Arrival{type, scanCode, event.timestamp(), false, now};
        qCDebug(lcKeys) << "a key event read ahead is left to Qt's copy";
        return;
    }
    keyEventWindow_ = window;
    const bool swallow = act(event);
    keyEventWindow_ = nullptr;
    actedAhead_.add({type, scanCode, event.timestamp(), swallow, now});
    qCDebug(lcKeys) << "acted on a key event read ahead of Qt, swallowed:" << swallow;
}

void KeyEventFilter::Arrivals::add(const Arrival& arrival)
{
    if (count_ == kMax) { // forget the oldest
        std::move(entries_.begin() + 1, entries_.end(), entries_.begin());
        --count_;
    }
    entries_[count_++] = arrival;
}

bool KeyEventFilter::Arrivals::take(int type, std::uint32_t scanCode, std::uint64_t time, bool anyTime, Arrival& taken)
{
    const auto now = std::chrono::steady_clock::now();
    std::size_t kept = 0;
    bool found = false;
    for (std::size_t i = 0; i < count_; ++i) {
        const Arrival& entry = entries_[i];
        if (now - entry.seen > kRepostWindow)
            continue; // too old for a copy to come
        if (!found && entry.type == type && entry.scanCode == scanCode && (anyTime || entry.time == time)) {
            taken = entry;
            found = true;
            continue;
        }
        entries_[kept++] = entry;
    }
    count_ = kept;
    return found;
}

bool KeyEventFilter::remember(const QEvent* event, const Signature& signature, bool swallow, bool pending)
{
    currentEvent_ = event;
    currentSignature_ = signature;
    currentSwallow_ = swallow;
    currentPending_ = pending;
    return swallow;
}

bool KeyEventFilter::act(const QKeyEvent& event)
{
    KeyboardMonitor* monitor = monitor_;
    const bool press = event.type() == QEvent::KeyPress;
    KeyCode code = positionCodeForKeyEvent(event.nativeScanCode(), event.nativeVirtualKey());
    if (code == kNoKeyCode)
        code = modifierPositionOfQtKey(event.key());

    if (!press && event.isAutoRepeat() && !repeatsWithoutReleases_) {
        // X11 puts a release before every repeated press; it is not a real release. It goes
        // where the press before it went.
        return code == lastDownCode_ && lastDownSwallowed_;
    }

    if (isModifierPosition(code)) {
        heldModifiers_.set(code, press);
        return monitor->monitorCallback({kEventFlagsChanged, code, heldModifierFlags()});
    }

    // Modifiers released while another application had the keyboard are not held any more.
    const Qt::KeyboardModifiers modifiers = event.modifiers();
    if (!(modifiers & Qt::ShiftModifier)) {
        heldModifiers_.reset(kKeyShift);
        heldModifiers_.reset(kKeyRightShift);
    }
    std::uint64_t flags = 0;
    if (modifiers & Qt::ShiftModifier)
        flags |= kShiftFlag;
    if (modifiers & Qt::ControlModifier) // the platform's shortcut modifier (Command on macOS)
        flags |= kCommandFlag;

    const bool swallow = monitor->monitorCallback({press ? kEventKeyDown : kEventKeyUp, code, flags});
    if (press) {
        lastDownCode_ = code;
        lastDownSwallowed_ = swallow;
    }
    return swallow;
}

bool KeyEventFilter::takeRepost(const Signature& signature, bool& found)
{
    found = false;
    const auto now = std::chrono::steady_clock::now();
    // The bridge posts its copies in the order it took the events; an older record without a
    // copy belongs to a key that a listener consumed.
    for (std::size_t i = 0; i < pendingCount_; ++i) {
        const Pending& entry = pending_[(pendingStart_ + i) % kMaxPending];
        if (now - entry.seen > kRepostWindow || !(entry.signature == signature))
            continue;
        const bool swallow = entry.swallow;
        pendingStart_ = (pendingStart_ + i + 1) % kMaxPending;
        pendingCount_ -= i + 1;
        found = true;
        return swallow;
    }
    return false;
}

void KeyEventFilter::rememberPending(const Signature& signature, bool swallow)
{
    const auto now = std::chrono::steady_clock::now();
    while (pendingCount_ > 0 && now - pending_[pendingStart_].seen > kRepostWindow) {
        pendingStart_ = (pendingStart_ + 1) % kMaxPending;
        --pendingCount_;
    }
    if (pendingCount_ == kMaxPending) { // forget the oldest
        pendingStart_ = (pendingStart_ + 1) % kMaxPending;
        --pendingCount_;
    }
    pending_[(pendingStart_ + pendingCount_) % kMaxPending] = {signature, swallow, now};
    ++pendingCount_;
}

void KeyEventFilter::forgetLastPending()
{
    if (pendingCount_ > 0)
        --pendingCount_;
}

void KeyEventFilter::scheduleMoveToFront()
{
    if (moveToFrontScheduled_)
        return;
    moveToFrontScheduled_ = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            moveToFrontScheduled_ = false;
            if (monitor_) {
                qCDebug(lcKeys) << "key-event filter moved in front of the other application filters";
                install(); // installing again moves a filter to the front
            }
        },
        Qt::QueuedConnection);
}

void KeyEventFilter::accessibilityActiveChanged(bool active)
{
    // The bridge installs its key filter right after this notice.
    if (active)
        scheduleMoveToFront();
}

} // namespace plinkora
