#pragma once

#include "platform/voice.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QVariantMap>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

class QDBusMessage;
class QDBusPendingCallWatcher;
class QDBusServiceWatcher;

namespace plinkora {

/// Knows whether a screen reader runs on this Linux desktop, and keeps knowing it without
/// asking anybody when the question comes:
///
/// - the desktop's screen-reader switch: the `ScreenReaderEnabled` property of `org.a11y.Status`
///   on `/org/a11y/bus` (service `org.a11y.Bus`, session bus), watched through
///   `PropertiesChanged`;
/// - Orca started by hand, by a shortcut or on a desktop without that switch (the property stays
///   false then): a process whose name is "orca" among the event listeners of the AT-SPI
///   registry on the accessibility bus (the bus whose address `org.a11y.Bus.GetAddress` gives).
///   The registry's `EventListenerRegistered`/`EventListenerDeregistered` signals and the
///   accessibility bus's `NameOwnerChanged` keep that list current.
///
/// All D-Bus calls are asynchronous; isRunning() only reads the state they left behind. Without a
/// session bus, or without an accessibility bus, it answers false. Lives on the thread that
/// made it (the main thread); isRunning() may be called from any thread.
class ScreenReaderMonitor final : public QObject, public ScreenReaderDetector
{
    Q_OBJECT

public:
    /// Watches the session bus of this process (QDBusConnection::sessionBus()).
    explicit ScreenReaderMonitor(QObject* parent = nullptr);
    /// Watches the given session bus (a private bus in tests).
    explicit ScreenReaderMonitor(QDBusConnection sessionBus, QObject* parent = nullptr);
    ~ScreenReaderMonitor() override;

    ScreenReaderMonitor(const ScreenReaderMonitor&) = delete;
    ScreenReaderMonitor& operator=(const ScreenReaderMonitor&) = delete;

    /// True while a screen reader runs. Reads a cached flag: a few nanoseconds, no D-Bus.
    bool isRunning() const override { return running_.load(std::memory_order_relaxed); }
    /// True once the first refresh() has all its answers (main thread).
    bool hasAnswered() const override { return answered_; }

    /// The desktop's screen-reader switch as last seen.
    bool screenReaderSwitchOn() const { return switchOn_; }
    /// True while an Orca process listens for accessibility events.
    bool orcaListening() const { return !orcaNames_.isEmpty(); }

    /// Asks everything again (the switch, the accessibility bus address, the registry's
    /// listeners). Asynchronous: refreshed() follows when every answer is in. Called by the
    /// constructor and whenever the accessibility bus service changes hands.
    void refresh();

    /// Process names taken for a screen reader among the registry's event listeners.
    static bool isScreenReaderProcessName(const QString& name);
    /// The name of the process `pid` (/proc/PID/comm), empty when it cannot be read.
    static QString processName(std::uint32_t pid);

signals:
    /// isRunning() changed.
    void runningChanged(bool running);
    /// A refresh() has received all its answers.
    void refreshed();

private slots:
    void onStatusPropertiesChanged(const QString& interfaceName, const QVariantMap& changed,
                                   const QStringList& invalidated);
    void onListenerRegistered(const QString& busName, const QString& event);
    void onListenerDeregistered(const QString& busName, const QString& event);
    void onAccessibilityNameOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner);
    void onAccessibilityBusOwnerChanged();

private:
    void askSwitch();
    void askAccessibilityBusAddress();
    void useAccessibilityBus(const QString& address);
    void dropAccessibilityBus();
    void askRegisteredListeners();
    void checkListener(const QString& busName);
    void forgetListener(const QString& busName);
    void setSwitch(bool on);
    void update();

    // Outstanding asynchronous calls of the current refresh; refreshed() when it falls to 0.
    void callStarted();
    void callFinished();
    // Sends `message` on `bus`; `answered` runs with its reply unless a newer refresh began since.
    void ask(const QDBusConnection& bus, const QDBusMessage& message,
             std::function<void(QDBusPendingCallWatcher&)> answered);

    QDBusConnection sessionBus_;
    std::optional<QDBusConnection> accessibilityBus_;
    QString accessibilityBusAddress_;
    QString accessibilityConnectionName_;
    QDBusServiceWatcher* accessibilityServiceWatcher_ = nullptr;

    bool switchOn_ = false;
    QHash<QString, bool> checkedListeners_; // bus name -> is a screen reader
    QSet<QString> orcaNames_;
    std::uint64_t generation_ = 0; // answers of an older generation are dropped
    int outstandingCalls_ = 0;
    bool refreshing_ = false;
    bool answered_ = false;
    std::atomic<bool> running_{false};
};

} // namespace plinkora
