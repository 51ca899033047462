#pragma once

#include "midi/jack_cycle_watch.h"
#include "midi/midi_api.h"
#include "midi/midi_backend.h"
#include "midi/midi_patchbay.h"
#include "midi/recovering_backend.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace plinkora {

/// A back end for `kind`. It is made even if the service is not there: creating its client
/// then fails (MIDIManager prints the error line and sends become no-ops). `jackClient`: for
/// JACK, a client already open on the server, which the back end takes over; others close it.
std::unique_ptr<MIDIBackend> makeBackend(MIDIApiKind kind, std::unique_ptr<JackCycleWatch> jackClient = nullptr);

/// The connections of the port PLK on `kind`: the JACK server, the ALSA sequencer, or none
/// (NullPatchbay) for the null output and where the system has no patchbay here. Made even if
/// the service is not there: it lists nothing until the service comes.
std::unique_ptr<MIDIPatchbay> makePatchbay(MIDIApiKind kind);

/// `port` inside a RecoveringBackend, with the patchbay of its system (makePatchbay by its
/// apiName; none for a system without one).
std::unique_ptr<RecoveringBackend> makeRecoveringBackend(std::unique_ptr<MIDIBackend> port);

/// A back end for the system called `name`; null and `error` set when the name is unknown.
std::unique_ptr<MIDIBackend> makeBackend(std::string_view name, std::string& error);

/// How the automatic choice finds out what works; tests replace these.
struct MIDIServiceProbes
{
    bool (*alsaSequencer)() = nullptr; // can the ALSA sequencer be opened
    /// Is a JACK server already running (never starts one)? The client opened to find out may
    /// be left in `opened`, for the JACK back end to take over.
    bool (*jackServer)(std::unique_ptr<JackCycleWatch>& opened) = nullptr;
};

/// The probes of this machine (midi_service_probe.h).
MIDIServiceProbes systemProbes();

/// The automatic choice: the first that works of a JACK server that is already running (or
/// PipeWire's JACK interface, when the JACK library is PipeWire's), the ALSA sequencer, the
/// null sink. On macOS: CoreMIDI.
MIDIApiKind defaultMIDIApi(const MIDIServiceProbes& probes = systemProbes());
/// The same, keeping in `jackClient` the client the JACK probe opened, if any.
MIDIApiKind defaultMIDIApi(const MIDIServiceProbes& probes, std::unique_ptr<JackCycleWatch>& jackClient);

/// The back end to publish on: the system named by `requested` (from --midi-api or the
/// setting "MidiApi"), used even if it does not work, or the automatic choice when `requested`
/// is empty. Prints one line naming it, e.g. "MIDI output: jack". For an unknown name returns
/// null and sets `error`, printing nothing.
std::unique_ptr<MIDIBackend> chooseBackend(std::string_view requested, std::string& error,
                                           const MIDIServiceProbes& probes = systemProbes());

} // namespace plinkora
