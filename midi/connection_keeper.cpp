#include "midi/connection_keeper.h"

#include "common/diagnostics.h"
#include "common/settings_store.h"
#include "synth/synth_control.h"

#include <QMetaObject>
#include <QTimer>

#include <algorithm>

namespace plinkora {

namespace {

UserText connectedTo(const UserText& name)
{
    return UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "Connected to %1"), {name});
}

UserText disconnected(const UserText& name)
{
    return UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "%1 disconnected"), {name});
}

/// A text of the status line in the user's language.
QString statusLine(const char* source, const QList<UserText>& arguments)
{
    return UserText::translated("Connections", source, arguments).shown;
}

QString nameOf(const MIDIDestination& destination)
{
    return QString::fromStdString(destination.name());
}

bool contains(const std::vector<MIDIDestination>& list, const MIDIDestination& destination)
{
    return std::find(list.begin(), list.end(), destination) != list.end();
}

} // namespace

ConnectionKeeper::ConnectionKeeper(MIDIPatchbay& patchbay, SettingsStore& settings, Announce announce,
                                   SynthControl* synth, QString midiSystem, bool published)
    : QObject(nullptr)
    , patchbay_(patchbay)
    , settings_(settings)
    , announce_(std::move(announce))
    , synth_(synth)
    , midiSystem_(std::move(midiSystem))
    , published_(published)
{
}

ConnectionKeeper::~ConnectionKeeper()
{
    patchbay_.setChangeCallback({});
    if (synth_)
        synth_->setChangeCallback({});
}

void ConnectionKeeper::start(const std::vector<std::string>& connectThisRun)
{
    if (started_)
        return;
    started_ = true;
    for (const std::string& name : connectThisRun)
        thisRun_ << QString::fromStdString(name);

    patchbay_.setChangeCallback([this] { scheduleRefresh(); });
    if (synth_)
        synth_->setChangeCallback([this] { refresh(); });
    // Every input is new to the first reading: the wanted ones are connected now.
    refresh();

    const auto isThere = [this](const QString& wanted) {
        return std::any_of(destinations_.begin(), destinations_.end(),
                           [&](const MIDIDestination& d) { return matches(wanted, d, destinations_); });
    };
    for (const QString& wanted : remembered()) {
        if (!isThere(wanted))
            printLine("Remembered connection " + wanted.toStdString()
                      + " is not there now; PLK is connected to it when it appears");
    }
    for (const QString& wanted : std::as_const(thisRun_)) {
        if (!isThere(wanted))
            cannotConnect(wanted, "there is no such MIDI input now; PLK is connected to it when it appears");
    }

    if (connectionsVisible)
        QTimer::singleShot(silenceCheckDelayMs, this, &ConnectionKeeper::checkSomethingSounds);
}

void ConnectionKeeper::scheduleRefresh()
{
    if (refreshScheduled_.exchange(true))
        return;
    QMetaObject::invokeMethod(
        this,
        [this] {
            refreshScheduled_ = false;
            refresh();
        },
        Qt::QueuedConnection);
}

void ConnectionKeeper::refresh()
{
    std::vector<MIDIDestination> destinations = patchbay_.destinations();
    std::vector<MIDIDestination> connections = patchbay_.connections();

    // A wanted input that is there is connected: at start, when it appears (again), and when
    // its connection was broken while it stayed.
    bool connectedAny = false;
    for (const MIDIDestination& destination : destinations) {
        if (contains(connections, destination) || !isWanted(destination, destinations))
            continue;
        if (patchbay_.connect(destination)) {
            connectedAny = true;
            refused_.erase(destination.name());
        } else if (refused_.insert(destination.name()).second) {
            printLine("Cannot connect PLK to " + destination.name() + ": the MIDI service refused");
        }
    }
    if (connectedAny)
        connections = patchbay_.connections();

    for (const MIDIDestination& destination : connections) {
        if (!contains(connections_, destination))
            announce_(connectedTo(nameOf(destination)));
    }
    for (const MIDIDestination& destination : connections_) {
        if (!contains(connections, destination))
            announce_(disconnected(nameOf(destination)));
    }
    const bool heard = synthHeard();
    if (heard != synthWasHeard_) {
        announce_(heard ? connectedTo(synthName()) : disconnected(synthName()));
    }

    destinations_ = std::move(destinations);
    connections_ = std::move(connections);
    synthWasHeard_ = heard;
    emit changed();
}

std::vector<ConnectionEntry> ConnectionKeeper::entries() const
{
    std::vector<ConnectionEntry> list;
    if (synth_)
        list.push_back({ConnectionEntry::Kind::Synth, QLatin1String(kSynthName), synthWasHeard_});
    for (const MIDIDestination& destination : destinations_)
        list.push_back({ConnectionEntry::Kind::Destination, nameOf(destination), contains(connections_, destination)});
    for (const QString& wanted : remembered()) {
        const bool there = std::any_of(destinations_.begin(), destinations_.end(),
                                       [&](const MIDIDestination& d) { return matches(wanted, d, destinations_); });
        if (!there)
            list.push_back({ConnectionEntry::Kind::Absent, wanted, true});
    }
    return list;
}

bool ConnectionKeeper::setConnected(const QString& name, bool connected)
{
    if (synth_ && name == QLatin1String(kSynthName)) {
        synth_->setMode(connected ? SynthMode::On : SynthMode::Off);
        refresh();
        return synthHeard() == connected;
    }
    const std::optional<MIDIDestination> destination = findDestination(name, destinations_);
    if (!destination) {
        if (connected) {
            cannotConnect(name, "it is no longer there");
            refresh();
            return false;
        }
        // A remembered input that is not there: forgetting it is all there is to do.
        QStringList names = remembered();
        names.removeAll(name);
        settings_.setStringList(names, QLatin1String(kConnectionsKey));
        refresh();
        return true;
    }
    bool done = false;
    if (connected) {
        done = patchbay_.connect(*destination);
        if (done)
            remember(name);
        else if (!findDestination(name, patchbay_.destinations()))
            cannotConnect(name, "it is no longer there");
        else
            cannotConnect(name, "the MIDI service refused");
    } else {
        done = patchbay_.disconnect(*destination);
        forget(*destination);
        if (!done)
            printLine("Cannot disconnect PLK from " + destination->name() + ": the MIDI service refused");
    }
    refresh();
    return done;
}

QStringList ConnectionKeeper::remembered() const
{
    return settings_.stringListForKey(QLatin1String(kConnectionsKey));
}

UserText ConnectionKeeper::synthName()
{
    return UserText::translated("Connections", kSynthName);
}

QString ConnectionKeeper::shownName(const QString& name)
{
    return name == QLatin1String(kSynthName) ? synthName().shown : name;
}

QString ConnectionKeeper::statusText() const
{
    if (!published_)
        return statusLine(QT_TRANSLATE_NOOP("Connections", "MIDI: %1, no port"), {midiSystem_});
    QStringList names = connectedNames();
    if (!names.isEmpty()) {
        for (QString& name : names)
            name = shownName(name);
        return statusLine(QT_TRANSLATE_NOOP("Connections", "MIDI: %1, port PLK:PLK, connected to %2"),
                          {midiSystem_, names.join(QStringLiteral(", "))});
    }
    if (connectionsVisible)
        return statusLine(QT_TRANSLATE_NOOP("Connections", "MIDI: %1, port PLK:PLK, not connected"), {midiSystem_});
    return statusLine(QT_TRANSLATE_NOOP("Connections", "MIDI: %1, port PLK:PLK"), {midiSystem_});
}

void ConnectionKeeper::checkSomethingSounds()
{
    if (checkedSomethingSounds_)
        return;
    checkedSomethingSounds_ = true;
    const QStringList names = connectedNames();
    const std::string connected = names.join(QStringLiteral(", ")).toStdString();
    printLine("Connections at start: " + (names.isEmpty() ? std::string("none, nothing will sound") : connected));
    if (names.isEmpty())
        announce_(UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "Nothing is connected to PLK")));
}

bool ConnectionKeeper::matches(const QString& wanted, const MIDIDestination& destination,
                               const std::vector<MIDIDestination>& all)
{
    const std::string name = wanted.toStdString();
    if (name == destination.name())
        return true;
    if (name != destination.client)
        return false;
    return std::count_if(all.begin(), all.end(), [&](const MIDIDestination& d) { return d.client == name; }) == 1;
}

std::optional<MIDIDestination> ConnectionKeeper::findDestination(const QString& name,
                                                                 const std::vector<MIDIDestination>& among)
{
    for (const MIDIDestination& destination : among) {
        if (nameOf(destination) == name)
            return destination;
    }
    return std::nullopt;
}

bool ConnectionKeeper::isWanted(const MIDIDestination& destination, const std::vector<MIDIDestination>& all) const
{
    const auto wants = [&](const QString& wanted) { return matches(wanted, destination, all); };
    const QStringList names = remembered();
    return std::any_of(names.begin(), names.end(), wants) || std::any_of(thisRun_.begin(), thisRun_.end(), wants);
}

QStringList ConnectionKeeper::connectedNames() const
{
    QStringList names;
    if (synthWasHeard_)
        names << QLatin1String(kSynthName);
    for (const MIDIDestination& destination : connections_)
        names << nameOf(destination);
    return names;
}

bool ConnectionKeeper::synthHeard() const
{
    return synth_ && synth_->isAudible();
}

void ConnectionKeeper::remember(const QString& name)
{
    QStringList names = remembered();
    if (names.contains(name))
        return;
    names << name;
    settings_.setStringList(names, QLatin1String(kConnectionsKey));
}

void ConnectionKeeper::forget(const MIDIDestination& destination)
{
    // Also a name that reached it by its client alone, and the same for this run.
    const auto names = [&](const QString& wanted) { return matches(wanted, destination, destinations_); };
    QStringList stored = remembered();
    const qsizetype before = stored.size();
    stored.removeIf(names);
    if (stored.size() != before)
        settings_.setStringList(stored, QLatin1String(kConnectionsKey));
    thisRun_.removeIf(names);
}

void ConnectionKeeper::cannotConnect(const QString& name, const std::string& reason)
{
    printLine("Cannot connect PLK to " + name.toStdString() + ": " + reason);
    announce_(UserText::announcement(QT_TRANSLATE_NOOP("Announcement", "Cannot connect to %1"), {name}));
}

} // namespace plinkora
