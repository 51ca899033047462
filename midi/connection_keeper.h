#pragma once

// Qt 6.4's moc cannot parse the standard library's <concepts>, which <compare> brings in; it
// needs nothing from this header.
#ifndef Q_MOC_RUN
#include "common/user_text.h"
#include "midi/midi_patchbay.h"
#endif

#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace plinkora {

class SettingsStore;
class SynthControl;

/// One entry of the Connections list: a MIDI input of the system, the built-in synthesizer, or
/// a remembered input that is not there now.
struct ConnectionEntry
{
    enum class Kind
    {
        Synth,       // the built-in synthesizer
        Destination, // a MIDI input that is there now
        Absent,      // a remembered MIDI input that is not there now
    };

    Kind kind = Kind::Destination;
    /// "client:port", or "Built-in synthesizer".
    QString name;
    /// Connected now (the synthesizer: heard now); an absent entry: remembered.
    bool checked = false;
};

/// Keeps PLK's connections: lists the MIDI inputs of the system, connects PLK to the ones the
/// user chooses and remembers them by name ("client:port", never by number) in the setting
/// "Connections"; connects them again at start, whenever a remembered input appears later (a
/// receiver started, or started again), and when another program broke such a connection: a
/// remembered connection is kept while its input is there, until the user unchecks it.
/// Announces every connection made or broken, by anyone ("Connected to NAME", "NAME
/// disconnected"), and once after start, when nothing at all will sound, "Nothing is connected
/// to PLK". Main thread only; the patchbay's change calls may
/// come from any thread and are carried over to the main thread.
class ConnectionKeeper final : public QObject
{
    Q_OBJECT

public:
    using Announce = std::function<void(const UserText&)>;

    /// `synth` may be null (no built-in synthesizer); `midiSystem` is the name of the MIDI
    /// system PLK is published on ("jack", "alsa", "null") and `published` whether it is.
    /// Nothing happens before start().
    ConnectionKeeper(MIDIPatchbay& patchbay, SettingsStore& settings, Announce announce, SynthControl* synth,
                     QString midiSystem, bool published);
    /// Stops the patchbay's and the synthesizer's change calls.
    ~ConnectionKeeper() override;

    ConnectionKeeper(const ConnectionKeeper&) = delete;
    ConnectionKeeper& operator=(const ConnectionKeeper&) = delete;

    /// The setting holding the remembered connections, a list of "client:port".
    static constexpr const char* kConnectionsKey = "Connections";
    /// The name of the built-in synthesizer's entry.
    static constexpr const char* kSynthName = QT_TRANSLATE_NOOP("Connections", "Built-in synthesizer");
    /// That name in English and in the user's language.
    static UserText synthName();
    /// `name` as the user reads it: the built-in synthesizer's in the user's language, any other as it is.
    static QString shownName(const QString& name);

    /// Reads the remembered connections, adds `connectThisRun` (from --connect: kept for this
    /// run, not remembered) and connects every one that is there. A name from the command line
    /// that is not there gets one line and an announcement; it is connected when it appears.
    /// Then, silenceCheckDelayMs later, the check whether anything will sound.
    void start(const std::vector<std::string>& connectThisRun = {});

    /// The list as shown: the synthesizer first, then the MIDI inputs of the system in the
    /// patchbay's order, then the remembered ones that are not there.
    std::vector<ConnectionEntry> entries() const;

    /// The user's choice for the entry called `name`: connect (and remember) or disconnect (and
    /// forget). For the synthesizer: its mode on or off. A destination that is no longer there
    /// gets one line and an announcement. True when the choice took effect.
    bool setConnected(const QString& name, bool connected);

    /// How long after start() the check whether anything will sound waits: patchbays and
    /// session managers often connect a new port within moments, and the built-in synthesizer
    /// opens its audio output meanwhile.
    int silenceCheckDelayMs = 2000;
    /// False when PLK's connections cannot be seen (no patchbay for this MIDI system): the
    /// status then claims no connection either way, and there is no such check.
    bool connectionsVisible = true;

    /// The remembered names, as stored.
    QStringList remembered() const;

    /// What the main window shows: the MIDI system, the port and what it is connected to, e.g.
    /// "MIDI: jack, port PLK:PLK, connected to fluidsynth:midi_00".
    QString statusText() const;

    /// Prints the line "Connections at start: " with what PLK is connected to, and announces
    /// "Nothing is connected to PLK" when that is nothing (the synthesizer not heard either).
    /// Does it at most once; later calls do nothing.
    void checkSomethingSounds();

    /// Reads the patchbay again: connects the wanted inputs that are there, announces the
    /// connections made and broken since the last reading, and emits changed().
    void refresh();

    /// True when `wanted` (a remembered or given name) names `destination`: the same
    /// "client:port", or the client's name alone when that client has this one input among
    /// `all`.
    static bool matches(const QString& wanted, const MIDIDestination& destination,
                        const std::vector<MIDIDestination>& all);

signals:
    /// The list or the connections changed (also after a refresh that found no change).
    void changed();

private:
    /// Carries a change call of the patchbay (any thread) to the main thread, once per burst.
    void scheduleRefresh();
    static std::optional<MIDIDestination> findDestination(const QString& name,
                                                          const std::vector<MIDIDestination>& among);
    bool isWanted(const MIDIDestination& destination, const std::vector<MIDIDestination>& all) const;
    bool synthHeard() const;
    /// The synthesizer when heard, then the connections, as of the last reading.
    QStringList connectedNames() const;
    void remember(const QString& name);
    void forget(const MIDIDestination& destination);
    void cannotConnect(const QString& name, const std::string& reason);

    MIDIPatchbay& patchbay_;
    SettingsStore& settings_;
    Announce announce_;
    SynthControl* synth_;
    QString midiSystem_;
    bool published_;

    std::vector<MIDIDestination> destinations_;
    std::vector<MIDIDestination> connections_;
    bool synthWasHeard_ = false;
    // Names given with --connect: wanted for this run, never stored.
    QStringList thisRun_;
    // Inputs whose automatic connection the service refused: one line each until it works.
    std::set<std::string> refused_;
    bool started_ = false;
    bool checkedSomethingSounds_ = false;
    std::atomic<bool> refreshScheduled_{false};
};

} // namespace plinkora
