#include "midi/backend_factory.h"

#include "common/diagnostics.h"
#include "midi/jack_cycle_watch.h"
#include "midi/midi_service_probe.h"
#include "midi/null_backend.h"
#include "midi/null_patchbay.h"
#include "midi/port_name.h"
#include "midi/rtmidi_backend.h"

#if defined(PLINKORA_HAVE_ALSA)
#include "midi/alsa_patchbay.h"
#endif
#if defined(PLINKORA_HAVE_JACK)
#include "midi/jack_patchbay.h"
#endif

namespace plinkora {

namespace {
// The automatic choice sees that a JACK server runs by opening a client. That client is handed
// to the JACK back end (as its cycle watch) instead of being closed and opened again: each JACK
// client open or close costs several milliseconds at start-up.
bool jackServerRunningKeepingTheClient(std::unique_ptr<JackCycleWatch>& opened)
{
    MidiStatus whyNot = kStatusOk; // no server and a refused client both mean: not JACK
    opened = JackCycleWatch::open(std::string(kPortName).append(kJackWatchSuffix), whyNot);
    return opened != nullptr;
}
} // namespace

std::unique_ptr<MidiBackend> makeBackend(MidiApiKind kind, std::unique_ptr<JackCycleWatch> jackClient)
{
    switch (kind) {
#if defined(__APPLE__)
    case MidiApiKind::CoreMidi:
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::CoreMidi);
#else
    case MidiApiKind::Alsa:
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::AlsaSequencer);
#endif
    case MidiApiKind::Jack:
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::Jack, std::move(jackClient));
    case MidiApiKind::Null:
        break;
    }
    return std::make_unique<NullBackend>();
}

std::unique_ptr<MidiPatchbay> makePatchbay(MidiApiKind kind)
{
    switch (kind) {
#if defined(PLINKORA_HAVE_ALSA)
    case MidiApiKind::Alsa:
        return std::make_unique<AlsaPatchbay>();
#endif
#if defined(PLINKORA_HAVE_JACK)
    case MidiApiKind::Jack:
        return std::make_unique<JackPatchbay>();
#endif
    default:
        break;
    }
    return std::make_unique<NullPatchbay>();
}

std::unique_ptr<RecoveringBackend> makeRecoveringBackend(std::unique_ptr<MidiBackend> port)
{
    const MidiApiParse parsed = parseMidiApi(port->apiName());
    std::unique_ptr<MidiPatchbay> patchbay = parsed.kind ? makePatchbay(*parsed.kind) : nullptr;
    return std::make_unique<RecoveringBackend>(std::move(port), std::move(patchbay));
}

std::unique_ptr<MidiBackend> makeBackend(std::string_view name, std::string& error)
{
    MidiApiParse parsed = parseMidiApi(name);
    if (!parsed.kind) {
        error = std::move(parsed.error);
        return nullptr;
    }
    return makeBackend(*parsed.kind);
}

MidiServiceProbes systemProbes()
{
    return {&alsaSequencerAvailable, &jackServerRunningKeepingTheClient};
}

MidiApiKind defaultMidiApi(const MidiServiceProbes& probes)
{
    std::unique_ptr<JackCycleWatch> jackClient; // only the answer is wanted: closed at once
    return defaultMidiApi(probes, jackClient);
}

MidiApiKind defaultMidiApi(const MidiServiceProbes& probes, std::unique_ptr<JackCycleWatch>& jackClient)
{
#if defined(__APPLE__)
    return MidiApiKind::CoreMidi; // always there
#else
    // What the desktop runs comes first: a JACK server, or PipeWire's JACK interface where the
    // JACK library is PipeWire's (both answer a JACK client). The ALSA sequencer is there on
    // nearly every Linux machine, whatever the desktop uses; PipeWire bridges it too.
    if (probes.jackServer != nullptr && probes.jackServer(jackClient))
        return MidiApiKind::Jack;
    if (probes.alsaSequencer != nullptr && probes.alsaSequencer())
        return MidiApiKind::Alsa;
    return MidiApiKind::Null;
#endif
}

std::unique_ptr<MidiBackend> chooseBackend(std::string_view requested, std::string& error,
                                           const MidiServiceProbes& probes)
{
    std::unique_ptr<JackCycleWatch> jackClient; // the JACK probe's client, for the JACK back end
    MidiApiKind kind;
    if (requested.empty()) {
        kind = defaultMidiApi(probes, jackClient);
    } else {
        MidiApiParse parsed = parseMidiApi(requested);
        if (!parsed.kind) {
            error = std::move(parsed.error);
            return nullptr;
        }
        kind = *parsed.kind;
    }
    std::string line = "MIDI output: ";
    line += midiApiName(kind);
    printLine(line);
    return makeBackend(kind, std::move(jackClient)); // any other back end lets the client close
}

} // namespace plinkora
