#include "midi/backend_factory.h"

#include "common/diagnostics.h"
#include "midi/jack_cycle_watch.h"
#include "midi/midi_service_probe.h"
#include "midi/null_backend.h"
#include "midi/null_patchbay.h"
#include "midi/rtmidi_backend.h"

#if defined(PLINKORA_HAVE_ALSA)
#include "midi/alsa_patchbay.h"
#endif
#if defined(PLINKORA_HAVE_JACK)
#include "midi/jack_patchbay.h"
#endif

#include <algorithm>
#include <cctype>

namespace plinkora {

namespace {
constexpr std::string_view kPortName = "PLK";

// The automatic choice sees that a JACK server runs by opening a client; while it chooses, that
// client is kept and handed to the JACK back end (as its cycle watch) instead of being closed
// and opened again: each JACK client open or close costs several milliseconds at start-up.
struct ParkedJackClient
{
    bool keep = false;
    std::unique_ptr<JackCycleWatch> watch;
};

ParkedJackClient& parked()
{
    static ParkedJackClient slot;
    return slot;
}

// Parks what it opened only inside chooseBackend; anything not taken is closed when it ends.
class ParkingScope
{
public:
    ParkingScope() { parked().keep = true; }
    ~ParkingScope()
    {
        parked().keep = false;
        parked().watch.reset();
    }
    ParkingScope(const ParkingScope&) = delete;
    ParkingScope& operator=(const ParkingScope&) = delete;
};

bool jackServerRunningKeepingTheClient()
{
    if (!parked().keep)
        return jackServerRunning();
    MidiStatus status = kStatusOk;
    parked().watch = JackCycleWatch::open(std::string(kPortName).append(kJackWatchSuffix), status);
    return parked().watch != nullptr;
}

bool sameNameIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}
} // namespace

std::string_view midiApiName(MidiApiKind kind)
{
    for (const MidiApiEntry& entry : kMidiApis)
        if (entry.kind == kind)
            return entry.name;
    return {};
}

MidiApiParse parseMidiApi(std::string_view name)
{
    for (const MidiApiEntry& entry : kMidiApis)
        if (sameNameIgnoringCase(entry.name, name))
            return {entry.kind, {}};
    std::string error = "Unknown MIDI API \"";
    error += name;
    error += "\"; valid names are: ";
    for (std::size_t i = 0; i < kMidiApis.size(); ++i) {
        if (i > 0)
            error += ", ";
        error += kMidiApis[i].name;
    }
    return {std::nullopt, std::move(error)};
}

std::unique_ptr<MidiBackend> makeBackend(MidiApiKind kind)
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
        return std::make_unique<RtMidiBackend>(RtMidiBackend::System::Jack, std::move(parked().watch));
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
        return std::make_unique<AlsaPatchbay>(std::string(kPortName), std::string(kPortName));
#endif
#if defined(PLINKORA_HAVE_JACK)
    case MidiApiKind::Jack:
        return std::make_unique<JackPatchbay>(std::string(kPortName) + ':' + std::string(kPortName));
#endif
    default:
        break;
    }
    return std::make_unique<NullPatchbay>();
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
#if defined(__APPLE__)
    return MidiApiKind::CoreMidi; // always there
#else
    if (probes.alsaSequencer != nullptr && probes.alsaSequencer())
        return MidiApiKind::Alsa;
#endif
    if (probes.jackServer != nullptr && probes.jackServer())
        return MidiApiKind::Jack;
    return MidiApiKind::Null;
}

std::unique_ptr<MidiBackend> chooseBackend(std::string_view requested, std::string& error,
                                           const MidiServiceProbes& probes)
{
    const ParkingScope parking;
    MidiApiKind kind;
    if (requested.empty()) {
        kind = defaultMidiApi(probes);
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
    return makeBackend(kind);
}

} // namespace plinkora
