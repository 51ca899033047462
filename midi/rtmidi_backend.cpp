#include "midi/rtmidi_backend.h"

#include "midi/jack_cycle_watch.h"
#include "midi/midi_service_probe.h"

#include <RtMidi.h>

#if defined(PLINKORA_HAVE_ALSA)
#include "midi/alsa_announcements.h"

#include <alsa/asoundlib.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace plinkora {

namespace {
constexpr std::uint32_t kClientReference = 1;
constexpr std::uint32_t kSourceReference = 1;
constexpr std::string_view kAlsaWatchSuffix = "-watch"; // "PLK-watch"

// RtMidi's JACK output hands each message to its process callback through a ring buffer;
// closing the port right after a send can lose what is still in there, or what is in the port
// but not yet read. So before the port goes, these cycles run: the callback moves everything
// into the port and the readers take it.
constexpr unsigned kDrainCycles = 3;
// RtMidi 5 frees that ring buffer before it closes its JACK client, while a process callback
// that began before the port was closed may still be reading it. After the port is closed,
// these cycles (and at least this time) pass before the RtMidi client is destroyed: every
// callback since sees no port and returns at once.
constexpr unsigned kSettleCycles = 3;
constexpr std::chrono::milliseconds kSettleTime{10};
constexpr std::chrono::milliseconds kWaitLimit{1000};

RtMidi::Api rtMIDIApi(RtMidiBackend::System system)
{
    switch (system) {
    case RtMidiBackend::System::AlsaSequencer:
        return RtMidi::LINUX_ALSA;
    case RtMidiBackend::System::Jack:
        return RtMidi::UNIX_JACK;
#if defined(__APPLE__)
    case RtMidiBackend::System::CoreMIDI:
        return RtMidi::MACOSX_CORE;
#endif
    }
    return RtMidi::UNSPECIFIED;
}

bool compiledIntoRtMidi(RtMidi::Api api)
{
    std::vector<RtMidi::Api> apis;
    RtMidi::getCompiledApi(apis);
    return std::find(apis.begin(), apis.end(), api) != apis.end();
}
} // namespace

struct RtMidiBackend::State
{
    System system;
    std::unique_ptr<JackCycleWatch> jackWatch; // JACK only
#if defined(PLINKORA_HAVE_ALSA)
    // ALSA only, while the port is published: hears the sequencer say that PLK's client ended.
    std::unique_ptr<AlsaAnnouncements> alsaWatch;
    std::atomic<int> alsaClient{-1};
#endif
    std::unique_ptr<RtMidiOut> out;
    bool sourceOpen = false;
    int reports = 0; // problems RtMidi reported since the counter was last reset
    // The messages RtMidi took (for its process callback to write into the port) and refused.
    // With PLINKORA_MIDI_TALLY set they are printed on standard error when the port closes.
    std::uint64_t handed = 0;
    std::uint64_t refused = 0;
    std::string lastReport;
    std::mutex lostMutex;
    std::function<void()> lost; // under lostMutex; called on the service's thread

    void serviceLost()
    {
        const std::lock_guard lock(lostMutex);
        if (lost)
            lost();
    }

    static void onReport(RtMidiError::Type type, const std::string& text, void* self)
    {
        if (type == RtMidiError::DEBUG_WARNING)
            return;
        auto* state = static_cast<State*>(self);
        ++state->reports;
        try {
            state->lastReport = text;
        } catch (...) {
        }
    }
};

#if defined(PLINKORA_HAVE_ALSA)
namespace {
// The sequencer client "PLK" of RtMidi ends only with the back end, or when the sequencer
// loses it: a watch client hears that from the sequencer's announcements.
void watchAlsaClient(RtMidiBackend::State& s, std::string_view name)
{
    AlsaAnnouncements::Listener listener;
    listener.announced = [&s](const snd_seq_event_t& event) {
        if (event.type == SND_SEQ_EVENT_CLIENT_EXIT && event.data.addr.client == s.alsaClient.load())
            s.serviceLost();
    };
    listener.lost = [&s] { s.serviceLost(); };
    s.alsaWatch = AlsaAnnouncements::open(std::string(name).append(kAlsaWatchSuffix), std::move(listener));
    if (s.alsaWatch)
        s.alsaClient =
            s.alsaWatch->withSequencer([&](snd_seq_t* seq) { return AlsaAnnouncements::findClient(seq, name); });
}
} // namespace
#endif

RtMidiBackend::RtMidiBackend(System system, std::unique_ptr<JackCycleWatch> jackWatch)
    : state_(std::make_unique<State>())
{
    state_->system = system;
    if (system == System::Jack) {
        forbidJackServerStart();
        state_->jackWatch = std::move(jackWatch);
    }
}

RtMidiBackend::~RtMidiBackend()
{
    disposeClient(kClientReference);
    state_->jackWatch.reset();
}

std::string_view RtMidiBackend::apiName() const
{
    switch (state_->system) {
    case System::AlsaSequencer:
        return "alsa";
    case System::Jack:
        return "jack";
#if defined(__APPLE__)
    case System::CoreMIDI:
        return "coremidi";
#endif
    }
    return "";
}

const std::string& RtMidiBackend::lastReport() const
{
    return state_->lastReport;
}

MIDIStatus RtMidiBackend::createClient(std::string_view name, std::uint32_t& client)
{
    State& s = *state_;
    if (s.out)
        return kStatusClientFailed; // one client per back end
    const RtMidi::Api api = rtMIDIApi(s.system);
    if (!compiledIntoRtMidi(api))
        return kStatusApiUnavailable;

    // RtMidi prints to standard error when the service is missing, before a callback can be
    // installed, so find that out first, quietly.
    if (s.system == System::AlsaSequencer && !alsaSequencerAvailable())
        return kStatusServiceUnavailable;
    if (s.system == System::Jack) {
        if (s.jackWatch && s.jackWatch->serverGone())
            s.jackWatch.reset();
        if (!s.jackWatch) {
            MIDIStatus status = kStatusOk;
            s.jackWatch = JackCycleWatch::open(std::string(name).append(kJackWatchSuffix), status);
            if (!s.jackWatch)
                return status;
        }
        s.jackWatch->setGoneListener([&s] { s.serviceLost(); });
    }

    try {
        s.out = std::make_unique<RtMidiOut>(api, std::string(name));
    } catch (const RtMidiError& error) {
        s.lastReport = error.getMessage();
    } catch (const std::exception& error) {
        s.lastReport = error.what();
    }
    if (!s.out) {
        s.jackWatch.reset();
        return kStatusClientFailed;
    }
    s.out->setErrorCallback(&State::onReport, &s);
    client = kClientReference;
    return kStatusOk;
}

void RtMidiBackend::setServiceLostListener(std::function<void()> lost)
{
    const std::lock_guard lock(state_->lostMutex);
    state_->lost = std::move(lost);
}

MIDIStatus RtMidiBackend::createSource(std::uint32_t client, std::string_view name, std::uint32_t& source)
{
    State& s = *state_;
    if (client != kClientReference || !s.out)
        return kStatusNoSuchEndpoint;
    if (s.sourceOpen)
        return kStatusSourceFailed; // one source per client
    s.reports = 0;
    try {
        s.out->openVirtualPort(std::string(name));
    } catch (...) {
        return kStatusSourceFailed;
    }
    if (s.reports != 0)
        return kStatusSourceFailed;
    s.sourceOpen = true;
    source = kSourceReference;
#if defined(PLINKORA_HAVE_ALSA)
    if (s.system == System::AlsaSequencer)
        watchAlsaClient(s, name);
#endif
    return kStatusOk;
}

MIDIStatus RtMidiBackend::send(std::uint32_t source, MIDIBytes message)
{
    State& s = *state_;
    if (source != kSourceReference || !s.sourceOpen)
        return kStatusNoSuchEndpoint;
    // With the server gone RtMidi would fill its ring buffer and then wait for room forever.
    if (s.jackWatch && s.jackWatch->serverGone())
        return kStatusServiceUnavailable;
    if (message.empty())
        return kStatusSendFailed;
    s.reports = 0;
    try {
        s.out->sendMessage(message.data(), message.size());
    } catch (...) {
        ++s.refused;
        return kStatusSendFailed;
    }
    if (s.reports != 0) {
        ++s.refused;
        return kStatusSendFailed;
    }
    ++s.handed;
    return kStatusOk;
}

namespace {
// "MIDI tally: 1563 messages handed to the port, 0 refused"
void printTally(const RtMidiBackend::State& s)
{
    if (std::getenv("PLINKORA_MIDI_TALLY"))
        std::fprintf(stderr, "MIDI tally: %llu messages handed to the port, %llu refused\n",
                     static_cast<unsigned long long>(s.handed), static_cast<unsigned long long>(s.refused));
}
} // namespace

void RtMidiBackend::disposeSource(std::uint32_t source)
{
    State& s = *state_;
    if (source != kSourceReference || !s.sourceOpen)
        return;
    s.sourceOpen = false;
    printTally(s);
#if defined(PLINKORA_HAVE_ALSA)
    s.alsaWatch.reset(); // PLK's client ending now is no loss
#endif
    if (!s.jackWatch) {
        s.out->closePort();
        return;
    }
    if (s.jackWatch->serverGone()) {
        const QuietJackMessages quiet;
        s.out->closePort();
        return;
    }
    s.jackWatch->waitCycles(kDrainCycles, kWaitLimit);
    s.out->closePort();
    const auto closed = std::chrono::steady_clock::now();
    s.jackWatch->waitCycles(kSettleCycles, kWaitLimit);
    std::this_thread::sleep_until(closed + kSettleTime);
    s.jackWatch->deactivate();
}

void RtMidiBackend::disposeClient(std::uint32_t client)
{
    State& s = *state_;
    if (client != kClientReference || !s.out)
        return;
    disposeSource(kSourceReference); // never let RtMidi close an open JACK port itself
    if (s.jackWatch && s.jackWatch->serverGone()) {
        const QuietJackMessages quiet;
        s.out.reset();
    } else {
        s.out.reset();
    }
    s.jackWatch.reset();
}

} // namespace plinkora
