#pragma once

#include "midi/midi_backend.h"
#include "midi/midi_patchbay.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace plinkora {

/// The MIDI systems Plinkora can publish its port on.
enum class MidiApiKind
{
#if defined(__APPLE__)
    CoreMidi,
#else
    Alsa,
#endif
    Jack,
    Null,
};

struct MidiApiEntry
{
    std::string_view name;
    MidiApiKind kind;
};

/// The one table of MIDI system names, read by the command line option --midi-api and the
/// setting "MidiApi".
inline constexpr std::array<MidiApiEntry, 3> kMidiApis{{
#if defined(__APPLE__)
    {"coremidi", MidiApiKind::CoreMidi},
#else
    {"alsa", MidiApiKind::Alsa},
#endif
    {"jack", MidiApiKind::Jack},
    {"null", MidiApiKind::Null},
}};

/// The name of `kind` in kMidiApis.
std::string_view midiApiName(MidiApiKind kind);

/// The result of reading a MIDI system name: the system, or a message for the user.
struct MidiApiParse
{
    std::optional<MidiApiKind> kind;
    std::string error; // set when `kind` is empty
};

/// Reads a name of kMidiApis, ignoring case. An unknown name gives a message that lists the
/// valid names, e.g. `Unknown MIDI API "oss"; valid names are: alsa, jack, null`.
MidiApiParse parseMidiApi(std::string_view name);

/// A back end for `kind`. It is made even if the service is not there: creating its client
/// then fails (MIDIManager prints the error line and sends become no-ops).
std::unique_ptr<MidiBackend> makeBackend(MidiApiKind kind);

/// The connections of the port PLK on `kind`: the JACK server, the ALSA sequencer, or none
/// (NullPatchbay) for the null output and where the system has no patchbay here. Made even if
/// the service is not there: it lists nothing until the service comes.
std::unique_ptr<MidiPatchbay> makePatchbay(MidiApiKind kind);

/// A back end for the system called `name`; null and `error` set when the name is unknown.
std::unique_ptr<MidiBackend> makeBackend(std::string_view name, std::string& error);

/// How the automatic choice finds out what works; tests replace these.
struct MidiServiceProbes
{
    bool (*alsaSequencer)() = nullptr; // can the ALSA sequencer be opened
    bool (*jackServer)() = nullptr;    // is a JACK server already running (never starts one)
};

/// The probes of this machine (midi_service_probe.h).
MidiServiceProbes systemProbes();

/// The automatic choice: the first that works of a JACK server that is already running (or
/// PipeWire's JACK interface, when the JACK library is PipeWire's), the ALSA sequencer, the
/// null sink. On macOS: CoreMIDI.
MidiApiKind defaultMidiApi(const MidiServiceProbes& probes = systemProbes());

/// The back end to publish on: the system named by `requested` (from --midi-api or the
/// setting "MidiApi"), used even if it does not work, or the automatic choice when `requested`
/// is empty. Prints one line naming it, e.g. "MIDI output: jack". For an unknown name returns
/// null and sets `error`, printing nothing.
std::unique_ptr<MidiBackend> chooseBackend(std::string_view requested, std::string& error,
                                           const MidiServiceProbes& probes = systemProbes());

} // namespace plinkora
