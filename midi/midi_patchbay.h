#pragma once

#include <compare>
#include <functional>
#include <string>
#include <vector>

namespace plinkora {

/// A MIDI input of the system that the port PLK can be connected to: an ALSA sequencer port
/// or a JACK MIDI input port, named by client and port (never by number, which changes from
/// one run of a program to the next).
struct MIDIDestination
{
    std::string client; // the client's name: "FLUID Synth (1234)", "fluidsynth", "Ardour"
    std::string port;   // the port's name within its client: "Synth input port (1234:0)", "midi_00"

    /// "client:port", the form shown, announced, remembered and given to --connect.
    std::string name() const { return client + ':' + port; }
    bool operator==(const MIDIDestination&) const = default;
    /// By client, then port: the order of the lists.
    auto operator<=>(const MIDIDestination&) const = default; // NOLINT(modernize-use-nullptr): a 0 made by the compiler
};

/// The connections of the port PLK on the MIDI service it is published on: lists the MIDI
/// inputs of the system, connects PLK to them and disconnects it, and tells when any of that
/// changes. Implemented for the JACK server and the ALSA sequencer; a service without
/// connections (the null output) lists nothing. Main thread only, except where said.
class MIDIPatchbay
{
public:
    virtual ~MIDIPatchbay() = default;

    /// Every MIDI input of the system except Plinkora's own, in a stable order (client, then
    /// port). Empty while the service is not there.
    virtual std::vector<MIDIDestination> destinations() = 0;

    /// The destinations PLK is connected to now, whoever made the connection. Empty while
    /// PLK is not published.
    virtual std::vector<MIDIDestination> connections() = 0;

    /// True when PLK is published on the service now, so that connections() is all it is
    /// connected to (and not empty only because PLK or the service is not there).
    virtual bool sourcePublished() { return true; }

    /// Connects PLK to `destination`. True when connected afterwards (also when it already
    /// was); false when there is no such destination or the service refused.
    virtual bool connect(const MIDIDestination& destination) = 0;

    /// Disconnects PLK from `destination`. True when not connected afterwards.
    virtual bool disconnect(const MIDIDestination& destination) = 0;

    /// The MIDI service went away under PLK (its back end said so). The patchbay lets go of
    /// everything it holds of the dead service now and reaches for the service again only after
    /// serviceBack(); until then it lists nothing. (libjack frees every client of a process when
    /// one is opened while clients of a dead server are still open.)
    virtual void serviceLost() {}
    /// PLK is published again on the service.
    virtual void serviceBack() {}

    /// `changed` is called when a destination appears or goes, or a connection of PLK is made
    /// or broken, by anyone. It may be called on any thread (the service's own); the receiver
    /// hops to the main thread. Setting it again replaces it; an empty function stops the calls.
    virtual void setChangeCallback(std::function<void()> changed) = 0;
};

} // namespace plinkora
