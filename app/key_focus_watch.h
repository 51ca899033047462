#pragma once

#include <QObject>

#include <functional>

namespace plinkora {

class KeyboardMonitor;

/// Tells the keyboard monitor when the main window stops receiving the keys and when it
/// receives them again: focusLost() once for every way of losing them (another window or
/// application becomes active, the preferences window, a menu or other popup opens, the screen
/// lock grabs the keyboard, the application goes inactive), focusRegained() at the return.
/// The main window receives the keys while it is the application's key window (`keyWindow`,
/// where an open popup counts as taking them) and the application is active. Main thread only.
class KeyFocusWatch final : public QObject
{
    Q_OBJECT

public:
    /// Starts watching at once; the first change reported is the main window getting the keys.
    KeyFocusWatch(KeyboardMonitor& monitor, std::function<QObject*()> keyWindow);
    ~KeyFocusWatch() override;

    KeyFocusWatch(const KeyFocusWatch&) = delete;
    KeyFocusWatch& operator=(const KeyFocusWatch&) = delete;

    /// Looks at who receives the keys now and tells the monitor when that changed.
    void update();
    /// True while the main window receives the keys, as last looked at.
    bool mainWindowHasKeys() const { return hasKeys_; }

signals:
    /// Right after the monitor was told (focusLost() and focusRegained()).
    void keysLost();
    void keysRegained();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    /// update() now and once more on the next turn of the event loop, when a window that is
    /// opening or closing has settled.
    void updateNowAndLater();

    KeyboardMonitor& monitor_;
    std::function<QObject*()> keyWindow_;
    bool hasKeys_ = false;
    bool updateScheduled_ = false;
};

} // namespace plinkora
