#include "app/key_focus_watch.h"

#include "input/keyboard_monitor.h"

#include <QApplication>
#include <QMetaObject>
#include <QWidget>
#include <QWindow>

namespace plinkora {

KeyFocusWatch::KeyFocusWatch(KeyboardMonitor& monitor, std::function<QObject*()> keyWindow)
    : QObject(nullptr)
    , monitor_(monitor)
    , keyWindow_(std::move(keyWindow))
{
    // The active window or focus widget changes with every window, menu and screen lock that
    // takes the keyboard; the application state also when the desktop takes it as a whole.
    connect(qApp, &QGuiApplication::focusWindowChanged, this, &KeyFocusWatch::updateNowAndLater);
    connect(qApp, &QGuiApplication::applicationStateChanged, this, &KeyFocusWatch::updateNowAndLater);
    connect(qApp, &QApplication::focusChanged, this, &KeyFocusWatch::updateNowAndLater);
    // Popups (menus) and window (de)activations seen as events, in case no signal tells.
    qApp->installEventFilter(this);
    update();
}

KeyFocusWatch::~KeyFocusWatch()
{
    if (QCoreApplication::instance())
        QCoreApplication::instance()->removeEventFilter(this);
}

bool KeyFocusWatch::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::Show:
    case QEvent::Hide:
        if (watched->isWidgetType() && static_cast<QWidget*>(watched)->windowType() == Qt::Popup)
            updateNowAndLater();
        break;
    case QEvent::WindowActivate:
    case QEvent::WindowDeactivate:
    case QEvent::ApplicationStateChange:
        updateNowAndLater();
        break;
    default:
        break;
    }
    return false;
}

void KeyFocusWatch::update()
{
    const QObject* mainWindow = monitor_.keyboardWindow.data();
    const bool hasKeys = mainWindow && keyWindow_ && keyWindow_() == mainWindow
        && QGuiApplication::applicationState() == Qt::ApplicationActive;
    if (hasKeys == hasKeys_)
        return;
    hasKeys_ = hasKeys;
    if (hasKeys) {
        monitor_.focusRegained();
        emit keysRegained();
    } else {
        monitor_.focusLost();
        emit keysLost();
    }
}

void KeyFocusWatch::updateNowAndLater()
{
    update();
    if (updateScheduled_)
        return;
    updateScheduled_ = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            updateScheduled_ = false;
            update();
        },
        Qt::QueuedConnection);
}

} // namespace plinkora
