#include "platform/screen_reader_monitor.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QFile>
#include <QMetaObject>

#include <utility>

namespace plinkora {

namespace {

const QString kBusService = QStringLiteral("org.a11y.Bus");
const QString kBusPath = QStringLiteral("/org/a11y/bus");
const QString kBusInterface = QStringLiteral("org.a11y.Bus");
const QString kStatusInterface = QStringLiteral("org.a11y.Status");
const QString kScreenReaderEnabled = QStringLiteral("ScreenReaderEnabled");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

const QString kRegistryService = QStringLiteral("org.a11y.atspi.Registry");
const QString kRegistryPath = QStringLiteral("/org/a11y/atspi/registry");
const QString kRegistryInterface = QStringLiteral("org.a11y.atspi.Registry");

const QString kDBusService = QStringLiteral("org.freedesktop.DBus");
const QString kDBusPath = QStringLiteral("/org/freedesktop/DBus");
const QString kDBusInterface = QStringLiteral("org.freedesktop.DBus");

// A bus that does not answer within this time counts as "no screen reader"; nothing waits for it.
constexpr int kCallTimeoutMs = 5000;

int nextConnectionNumber()
{
    static std::atomic<int> number{0};
    return ++number;
}

QDBusMessage methodCall(const QString& service, const QString& path, const QString& interface, const QString& method)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    // Looking must not start services: the accessibility bus is started by the desktop (or by
    // Qt's own accessibility bridge), never by this monitor.
    message.setAutoStartService(false);
    return message;
}

} // namespace

ScreenReaderMonitor::ScreenReaderMonitor(QObject* parent)
    : ScreenReaderMonitor(QDBusConnection::sessionBus(), parent)
{
}

ScreenReaderMonitor::ScreenReaderMonitor(QDBusConnection sessionBus, QObject* parent)
    : QObject(parent)
    , sessionBus_(std::move(sessionBus))
    , accessibilityConnectionName_(QStringLiteral("plinkora-screen-reader-monitor-%1").arg(nextConnectionNumber()))
{
    if (sessionBus_.isConnected()) {
        accessibilityServiceWatcher_ = new QDBusServiceWatcher(kBusService, sessionBus_,
                                                               QDBusServiceWatcher::WatchForOwnerChange, this);
        connect(accessibilityServiceWatcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
                &ScreenReaderMonitor::onAccessibilityBusOwnerChanged);
        sessionBus_.connect(kBusService, kBusPath, kPropertiesInterface, QStringLiteral("PropertiesChanged"), this,
                            SLOT(onStatusPropertiesChanged(QString, QVariantMap, QStringList)));
    }
    // The first answers arrive through the event loop; until then nothing is known to run.
    QMetaObject::invokeMethod(this, &ScreenReaderMonitor::refresh, Qt::QueuedConnection);
}

ScreenReaderMonitor::~ScreenReaderMonitor()
{
    if (sessionBus_.isConnected()) {
        sessionBus_.disconnect(kBusService, kBusPath, kPropertiesInterface, QStringLiteral("PropertiesChanged"), this,
                               SLOT(onStatusPropertiesChanged(QString, QVariantMap, QStringList)));
    }
    dropAccessibilityBus();
}

bool ScreenReaderMonitor::isScreenReaderProcessName(const QString& name)
{
    return name == QLatin1String("orca");
}

QString ScreenReaderMonitor::processName(std::uint32_t pid)
{
    QFile comm(QStringLiteral("/proc/%1/comm").arg(pid));
    if (!comm.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(comm.readAll()).trimmed();
}

void ScreenReaderMonitor::refresh()
{
    ++generation_;
    outstandingCalls_ = 0;
    refreshing_ = true;
    callStarted(); // held until every call of this refresh has been made
    if (sessionBus_.isConnected()) {
        askSwitch();
        askAccessibilityBusAddress();
    } else {
        setSwitch(false);
        dropAccessibilityBus();
        update();
    }
    callFinished();
}

void ScreenReaderMonitor::callStarted()
{
    ++outstandingCalls_;
}

void ScreenReaderMonitor::callFinished()
{
    if (--outstandingCalls_ == 0 && refreshing_) {
        refreshing_ = false;
        answered_ = true;
        emit refreshed();
    }
}

void ScreenReaderMonitor::ask(const QDBusConnection& bus, const QDBusMessage& message,
                              std::function<void(QDBusPendingCallWatcher&)> answered)
{
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, watcher, &QDBusPendingCallWatcher::deleteLater);
    callStarted();
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, answered = std::move(answered), generation = generation_](QDBusPendingCallWatcher* call) {
                if (generation != generation_)
                    return; // an answer to a refresh that has been replaced
                answered(*call);
                callFinished();
            });
}

void ScreenReaderMonitor::askSwitch()
{
    QDBusMessage message = methodCall(kBusService, kBusPath, kPropertiesInterface, QStringLiteral("Get"));
    message << kStatusInterface << kScreenReaderEnabled;
    ask(sessionBus_, message, [this](QDBusPendingCallWatcher& call) {
        QDBusPendingReply<QDBusVariant> reply = call;
        setSwitch(!reply.isError() && reply.value().variant().toBool());
        update();
    });
}

void ScreenReaderMonitor::askAccessibilityBusAddress()
{
    QDBusMessage message = methodCall(kBusService, kBusPath, kBusInterface, QStringLiteral("GetAddress"));
    ask(sessionBus_, message, [this](QDBusPendingCallWatcher& call) {
        QDBusPendingReply<QString> reply = call;
        if (reply.isError() || reply.value().isEmpty())
            dropAccessibilityBus();
        else
            useAccessibilityBus(reply.value());
        update();
    });
}

void ScreenReaderMonitor::useAccessibilityBus(const QString& address)
{
    if (!accessibilityBus_ || address != accessibilityBusAddress_ || !accessibilityBus_->isConnected()) {
        dropAccessibilityBus();
        // A local socket: connecting takes well under a millisecond.
        QDBusConnection bus = QDBusConnection::connectToBus(address, accessibilityConnectionName_);
        if (!bus.isConnected()) {
            QDBusConnection::disconnectFromBus(accessibilityConnectionName_);
            return;
        }
        accessibilityBus_ = bus;
        accessibilityBusAddress_ = address;
        bus.connect(kRegistryService, kRegistryPath, kRegistryInterface, QStringLiteral("EventListenerRegistered"),
                    this, SLOT(onListenerRegistered(QString, QString)));
        bus.connect(kRegistryService, kRegistryPath, kRegistryInterface, QStringLiteral("EventListenerDeregistered"),
                    this, SLOT(onListenerDeregistered(QString, QString)));
        bus.connect(kDBusService, kDBusPath, kDBusInterface, QStringLiteral("NameOwnerChanged"), this,
                    SLOT(onAccessibilityNameOwnerChanged(QString, QString, QString)));
    }
    askRegisteredListeners();
}

void ScreenReaderMonitor::dropAccessibilityBus()
{
    checkedListeners_.clear();
    orcaNames_.clear();
    if (!accessibilityBus_)
        return;
    QDBusConnection& bus = *accessibilityBus_;
    bus.disconnect(kRegistryService, kRegistryPath, kRegistryInterface, QStringLiteral("EventListenerRegistered"), this,
                   SLOT(onListenerRegistered(QString, QString)));
    bus.disconnect(kRegistryService, kRegistryPath, kRegistryInterface, QStringLiteral("EventListenerDeregistered"),
                   this, SLOT(onListenerDeregistered(QString, QString)));
    bus.disconnect(kDBusService, kDBusPath, kDBusInterface, QStringLiteral("NameOwnerChanged"), this,
                   SLOT(onAccessibilityNameOwnerChanged(QString, QString, QString)));
    accessibilityBus_.reset();
    accessibilityBusAddress_.clear();
    QDBusConnection::disconnectFromBus(accessibilityConnectionName_);
}

void ScreenReaderMonitor::askRegisteredListeners()
{
    if (!accessibilityBus_)
        return;
    QDBusMessage message = methodCall(kRegistryService, kRegistryPath, kRegistryInterface,
                                      QStringLiteral("GetRegisteredEvents"));
    ask(*accessibilityBus_, message, [this](QDBusPendingCallWatcher& call) {
        const QDBusMessage reply = call.reply();
        QSet<QString> listening;
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            const auto listeners = reply.arguments().constFirst().value<QDBusArgument>();
            listeners.beginArray();
            while (!listeners.atEnd()) {
                QString busName;
                QString event;
                listeners.beginStructure();
                listeners >> busName >> event;
                listeners.endStructure();
                listening.insert(busName);
            }
            listeners.endArray();
        }
        for (auto it = checkedListeners_.begin(); it != checkedListeners_.end();) {
            if (listening.contains(it.key())) {
                ++it;
            } else {
                orcaNames_.remove(it.key());
                it = checkedListeners_.erase(it);
            }
        }
        for (const QString& busName : std::as_const(listening)) {
            if (!checkedListeners_.contains(busName))
                checkListener(busName);
        }
        update();
    });
}

void ScreenReaderMonitor::checkListener(const QString& busName)
{
    if (!accessibilityBus_)
        return;
    checkedListeners_.insert(busName, false); // being checked; not a screen reader until known
    QDBusMessage message = methodCall(kDBusService, kDBusPath, kDBusInterface,
                                      QStringLiteral("GetConnectionUnixProcessID"));
    message << busName;
    ask(*accessibilityBus_, message, [this, busName](QDBusPendingCallWatcher& call) {
        QDBusPendingReply<uint> reply = call;
        // The name may have left the bus while we asked: then it is no longer listed.
        if (!reply.isError() && checkedListeners_.contains(busName)
            && isScreenReaderProcessName(processName(reply.value()))) {
            checkedListeners_.insert(busName, true);
            orcaNames_.insert(busName);
            update();
        }
    });
}

void ScreenReaderMonitor::forgetListener(const QString& busName)
{
    checkedListeners_.remove(busName);
    orcaNames_.remove(busName);
}

void ScreenReaderMonitor::onStatusPropertiesChanged(const QString& interfaceName, const QVariantMap& changed,
                                                    const QStringList& invalidated)
{
    if (interfaceName != kStatusInterface)
        return;
    const auto value = changed.constFind(kScreenReaderEnabled);
    if (value != changed.constEnd()) {
        setSwitch(value->toBool());
        update();
    } else if (invalidated.contains(kScreenReaderEnabled)) {
        askSwitch();
    }
}

void ScreenReaderMonitor::onListenerRegistered(const QString& busName, const QString& event)
{
    Q_UNUSED(event)
    if (!checkedListeners_.contains(busName))
        checkListener(busName);
}

void ScreenReaderMonitor::onListenerDeregistered(const QString& busName, const QString& event)
{
    Q_UNUSED(event)
    // A screen reader that stops listening to one event may still listen to others: ask again.
    if (orcaNames_.contains(busName))
        askRegisteredListeners();
}

void ScreenReaderMonitor::onAccessibilityNameOwnerChanged(const QString& name, const QString& oldOwner,
                                                          const QString& newOwner)
{
    Q_UNUSED(oldOwner)
    if (name == kRegistryService) {
        // A new registry knows nothing of the old one's listeners.
        checkedListeners_.clear();
        orcaNames_.clear();
        if (!newOwner.isEmpty())
            askRegisteredListeners();
        update();
    } else if (newOwner.isEmpty() && checkedListeners_.contains(name)) {
        forgetListener(name);
        update();
    }
}

void ScreenReaderMonitor::onAccessibilityBusOwnerChanged()
{
    refresh();
}

void ScreenReaderMonitor::setSwitch(bool on)
{
    switchOn_ = on;
}

void ScreenReaderMonitor::update()
{
    const bool running = switchOn_ || !orcaNames_.isEmpty();
    if (running_.exchange(running, std::memory_order_relaxed) != running)
        emit runningChanged(running);
}

} // namespace plinkora
