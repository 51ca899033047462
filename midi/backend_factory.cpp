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
    MIDIStatus whyNot = kStatusOk; // no server and a refused client both mean: not JACK
    opened = JackCycleWatch::open(std::string(kPortName).append(kJackWatchSuffix), whyNot);
    return opened != nullptr;
}
} // namespace

std::unique_ptr<MIDIBackend> makeBackend(MIDIApiKind kind, std::unique_ptr<JackCycleWatch> jackClient)
{
    switch (kind) {
#if defined(__APPLE__)
    case MIDIApiKind::CoreMIDI:
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::CoreMIDI);
#else
    case MIDIApiKind::Alsa:
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::AlsaSequencer);
#endif
    case MIDIApiKind::Jack:
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::Jack, std::move(jackClient));
    case MIDIApiKind::Null:
        break;
    }
    return std::make_unique<NullBackend>();
}

std::unique_ptr<MIDIPatchbay> makePatchbay(MIDIApiKind kind)
{
    switch (kind) {
#if defined(PLINKORA_HAVE_ALSA)
    case MIDIApiKind::Alsa:
        return std::make_unique<AlsaPatchbay>();
#endif
#if defined(PLINKORA_HAVE_JACK)
    case MIDIApiKind::Jack:
        return std::make_unique<JackPatchbay>();
#endif
    default:
        break;
    }
    return std::make_unique<NullPatchbay>();
}

std::unique_ptr<RecoveringBackend> makeRecoveringBackend(std::unique_ptr<MIDIBackend> port)
{
    const MIDIApiParse parsed = parseMIDIApi(port->apiName());
    std::unique_ptr<MIDIPatchbay> patchbay = parsed.kind ? makePatchbay(*parsed.kind) : nullptr;
    return std::make_unique<RecoveringBackend>(std::move(port), std::move(patchbay));
}

std::unique_ptr<MIDIBackend> makeBackend(std::string_view name, std::string& error)
{
    MIDIApiParse parsed = parseMIDIApi(name);
    if (!parsed.kind) {
        error = std::move(parsed.error);
        return nullptr;
    }
    return makeBackend(*parsed.kind);
}

MIDIServiceProbes systemProbes()
{
    return {&alsaSequencerAvailable, &jackServerRunningKeepingTheClient};
}

MIDIApiKind defaultMIDIApi(const MIDIServiceProbes& probes)
{
    std::unique_ptr<JackCycleWatch> jackClient; // only the answer is wanted: closed at once
    return defaultMIDIApi(probes, jackClient);
}

MIDIApiKind defaultMIDIApi(const MIDIServiceProbes& probes, std::unique_ptr<JackCycleWatch>& jackClient)
{
#if defined(__APPLE__)
    return MIDIApiKind::CoreMIDI; // always there
#else
    // What the desktop runs comes first: a JACK server, or PipeWire's JACK interface where the
    // JACK library is PipeWire's (both answer a JACK client). The ALSA sequencer is there on
    // nearly every Linux machine, whatever the desktop uses; PipeWire bridges it too.
    if (probes.jackServer != nullptr && probes.jackServer(jackClient))
        return MIDIApiKind::Jack;
    if (probes.alsaSequencer != nullptr && probes.alsaSequencer())
        return MIDIApiKind::Alsa;
    return MIDIApiKind::Null;
#endif
}

std::unique_ptr<MIDIBackend> chooseBackend(std::string_view requested, std::string& error,
                                           const MIDIServiceProbes& probes)
{
    std::unique_ptr<JackCycleWatch> jackClient; // the JACK probe's client, for the JACK back end
    MIDIApiKind kind;
    if (requested.empty()) {
        kind = defaultMIDIApi(probes, jackClient);
    } else {
        MIDIApiParse parsed = parseMIDIApi(requested);
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
