// jack_midi_receiver: a small JACK client with one MIDI input port that prints every MIDI event
// it receives. Tests start it next to Plinkora to see the exact bytes Plinkora publishes.
//
// Usage:
//   jack_midi_receiver [--server NAME] [--connect SOURCE]... [--client NAME] [--times]
//
// Options:
//   --server NAME     The JACK server to use. Default: $JACK_DEFAULT_SERVER, else JACK's default
//                     server. A server is never started: when none runs, the tool exits with 2.
//   --connect SOURCE  A MIDI output port to listen to, by its full name, e.g. PLK:PLK. The tool
//                     waits for the port to appear, connects it to its input, and connects it
//                     again each time the port is registered anew. May be given more than once.
//   --client NAME     The JACK client name. Default "midi_receiver"; JACK adds a suffix such as
//                     "-01" when the name is taken (the "ready" line shows the name given).
//                     JACK 2 keys a client's socket by its name and user only, not by server:
//                     clients of one name opening at once on two servers on one machine disturb
//                     each other, so parallel test runs should not share client names.
//   --times           Adds times, in microseconds of CLOCK_MONOTONIC: each event line ends in
//                     " @TIME", the start of the JACK cycle that brought it; the xrun line becomes
//                     "jack_midi_receiver: xrun at TIME" (when the tool heard of it); a cycle the
//                     tool did not run in gives "jack_midi_receiver: cycle missed at TIME" (the
//                     start of the cycle after the gap, FRAMES frames later than expected: "...
//                     (FRAMES frames)").
//   --help            Prints this usage on standard output and exits with 0.
//
// Standard output: one line per item, flushed at once, in the order things happened:
//   ready CLIENT:in    The client is active; CLIENT:in is the full name of its input port.
//   connected SOURCE   SOURCE is connected to the input, and the connection is in effect: every
//                      event SOURCE sends from now on is printed (unless JACK loses it in an
//                      xrun, see standard error below).
//   90 3C 64           One received MIDI event: its bytes in uppercase hex, separated by spaces.
//   gone SOURCE        SOURCE was unregistered (or its connection to the input was lost). Every
//                      event it sent before is printed above this line.
// Standard error: warnings (lost events, connection failures, the server going away), and the
// line "jack_midi_receiver: xrun" for each xrun JACK reports. In an xrun some client missed a
// cycle, and MIDI events of that cycle may be lost: that is JACK, not the sender.
//
// Exit status: 0 after SIGTERM or SIGINT (events already received are printed first);
// 1 for a bad command line; 2 when no JACK server runs or the client cannot be made;
// 3 when the JACK server shut down while the tool was running; 4 when standard output is closed.
//
// Received events travel from the JACK process callback to the main thread through a
// lock-free JACK ring buffer; the main thread does all the printing and all the JACK requests
// (connecting is not allowed from JACK's callbacks).

#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>

#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kRingBytes = 1u << 20; // room for many cycles of dense traffic
constexpr std::size_t kLargestEvent = 64 * 1024;
constexpr auto kRecheckInterval = std::chrono::milliseconds(200);

struct Source
{
    std::string name;
    bool connected = false;
};

struct Shared
{
    jack_client_t* client = nullptr;
    bool times = false;
    jack_nframes_t lastCycleStart = 0; // the process callback's own
    bool cycleSeen = false;
    jack_port_t* input = nullptr;
    jack_ringbuffer_t* ring = nullptr;
    sem_t wake{};
    std::atomic<std::uint64_t> cycles{0};
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<bool> portsChanged{true};
    std::atomic<bool> serverGone{false};
    std::atomic<std::uint64_t> xruns{0};
    // With --times: when the xruns were heard (written by JACK's notification thread) and the
    // cycles this client missed (by the process callback), for the main thread to print.
    jack_ringbuffer_t* xrunTimes = nullptr;    // int64 times
    jack_ringbuffer_t* missedCycles = nullptr; // [int64 time][uint32 frames]
};

// JACK's clock is CLOCK_MONOTONIC on Linux; read it directly so that the times compare with
// other programs' whatever JACK uses.
std::int64_t monotonicMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

Shared g_shared;
volatile std::sig_atomic_t g_stop = 0;

void onSignal(int)
{
    g_stop = 1;
    sem_post(&g_shared.wake); // async-signal-safe
}

// With --times: the start of this cycle in CLOCK_MONOTONIC microseconds, and a note of the
// cycles this client was not run in (the frame count jumped by more than one period).
std::int64_t cycleStart(jack_nframes_t frames)
{
    const jack_nframes_t start = jack_last_frame_time(g_shared.client);
    const std::int64_t now = monotonicMicroseconds();
    const std::int64_t startTime = now
        - static_cast<std::int64_t>(jack_frames_since_cycle_start(g_shared.client)) * 1'000'000
            / jack_get_sample_rate(g_shared.client);
    // The frame counter wraps; a step shorter than a period (JACK moving its clock) is no gap.
    const auto step = static_cast<std::int32_t>(start - g_shared.lastCycleStart);
    if (g_shared.cycleSeen && step > static_cast<std::int32_t>(frames)) {
        const auto gap = static_cast<std::uint32_t>(step) - frames;
        if (jack_ringbuffer_write_space(g_shared.missedCycles) >= sizeof startTime + sizeof gap) {
            jack_ringbuffer_write(g_shared.missedCycles, reinterpret_cast<const char*>(&startTime), sizeof startTime);
            jack_ringbuffer_write(g_shared.missedCycles, reinterpret_cast<const char*>(&gap), sizeof gap);
        }
        sem_post(&g_shared.wake);
    }
    g_shared.cycleSeen = true;
    g_shared.lastCycleStart = start;
    return startTime;
}

// JACK's real-time thread: copy each event as [uint32 size][int64 time][bytes] into the ring buffer.
int process(jack_nframes_t frames, void*)
{
    void* buffer = jack_port_get_buffer(g_shared.input, frames);
    const std::int64_t time = g_shared.times ? cycleStart(frames) : 0;
    const std::uint32_t count = jack_midi_get_event_count(buffer);
    bool wrote = false;
    for (std::uint32_t i = 0; i < count; ++i) {
        jack_midi_event_t event;
        if (jack_midi_event_get(&event, buffer, i) != 0)
            continue;
        const auto size = static_cast<std::uint32_t>(event.size);
        if (size > kLargestEvent || jack_ringbuffer_write_space(g_shared.ring) < sizeof size + sizeof time + size) {
            g_shared.dropped.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        jack_ringbuffer_write(g_shared.ring, reinterpret_cast<const char*>(&size), sizeof size);
        jack_ringbuffer_write(g_shared.ring, reinterpret_cast<const char*>(&time), sizeof time);
        jack_ringbuffer_write(g_shared.ring, reinterpret_cast<const char*>(event.buffer), size);
        wrote = true;
    }
    g_shared.cycles.fetch_add(1, std::memory_order_release);
    if (wrote)
        sem_post(&g_shared.wake);
    return 0;
}

void onPortRegistration(jack_port_id_t, int, void*)
{
    g_shared.portsChanged.store(true);
    sem_post(&g_shared.wake);
}

int onXrun(void*)
{
    if (g_shared.times) {
        const std::int64_t now = monotonicMicroseconds();
        if (jack_ringbuffer_write_space(g_shared.xrunTimes) >= sizeof now)
            jack_ringbuffer_write(g_shared.xrunTimes, reinterpret_cast<const char*>(&now), sizeof now);
    } else {
        g_shared.xruns.fetch_add(1);
    }
    sem_post(&g_shared.wake);
    return 0;
}

void onShutdown(jack_status_t, const char*, void*)
{
    g_shared.serverGone.store(true);
    sem_post(&g_shared.wake);
}

bool g_outputBroken = false;

void printText(const char* text, std::size_t length)
{
    if (g_outputBroken)
        return;
    if (std::fwrite(text, 1, length, stdout) != length || std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0)
        g_outputBroken = true;
}

void printLine(const std::string& text)
{
    printText(text.data(), text.size());
}

// Prints every event waiting in the ring buffer, oldest first.
void drainEvents()
{
    static std::vector<char> line(kLargestEvent * 3 + 32);
    static std::vector<unsigned char> bytes(kLargestEvent);
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (;;) {
        std::uint32_t size = 0;
        std::int64_t time = 0;
        if (jack_ringbuffer_read_space(g_shared.ring) < sizeof size)
            break;
        jack_ringbuffer_peek(g_shared.ring, reinterpret_cast<char*>(&size), sizeof size);
        if (jack_ringbuffer_read_space(g_shared.ring) < sizeof size + sizeof time + size)
            break; // the writer writes the size first; the rest follows at once
        jack_ringbuffer_read_advance(g_shared.ring, sizeof size);
        jack_ringbuffer_read(g_shared.ring, reinterpret_cast<char*>(&time), sizeof time);
        jack_ringbuffer_read(g_shared.ring, reinterpret_cast<char*>(bytes.data()), size);
        std::size_t length = 0;
        for (std::uint32_t i = 0; i < size; ++i) {
            if (i > 0)
                line[length++] = ' ';
            line[length++] = kHex[bytes[i] >> 4];
            line[length++] = kHex[bytes[i] & 0x0F];
        }
        if (g_shared.times)
            length += static_cast<std::size_t>(
                std::snprintf(line.data() + length, 32, " @%lld", static_cast<long long>(time)));
        printText(line.data(), length);
    }
    for (std::uint64_t xruns = g_shared.xruns.exchange(0); xruns > 0; --xruns)
        std::fputs("jack_midi_receiver: xrun\n", stderr);
    std::int64_t time = 0;
    std::uint32_t gap = 0;
    while (g_shared.times && jack_ringbuffer_read_space(g_shared.xrunTimes) >= sizeof time) {
        jack_ringbuffer_read(g_shared.xrunTimes, reinterpret_cast<char*>(&time), sizeof time);
        std::fprintf(stderr, "jack_midi_receiver: xrun at %lld\n", static_cast<long long>(time));
    }
    while (g_shared.times && jack_ringbuffer_read_space(g_shared.missedCycles) >= sizeof time + sizeof gap) {
        jack_ringbuffer_read(g_shared.missedCycles, reinterpret_cast<char*>(&time), sizeof time);
        jack_ringbuffer_read(g_shared.missedCycles, reinterpret_cast<char*>(&gap), sizeof gap);
        std::fprintf(stderr, "jack_midi_receiver: cycle missed at %lld (%u frames)\n", static_cast<long long>(time),
                     gap);
    }
    if (const std::uint64_t lost = g_shared.dropped.exchange(0))
        std::fprintf(stderr, "jack_midi_receiver: %llu events lost (ring buffer full)\n",
                     static_cast<unsigned long long>(lost));
}

// Waits until the process callback has run `count` more times, so that a change of the graph
// made before the call is in effect (JACK applies graph changes at the start of a cycle).
void waitCycles(std::uint64_t count)
{
    const std::uint64_t target = g_shared.cycles.load(std::memory_order_acquire) + count;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (g_shared.cycles.load(std::memory_order_acquire) < target && std::chrono::steady_clock::now() < deadline
           && !g_shared.serverGone.load())
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

void checkSources(jack_client_t* client, std::vector<Source>& sources)
{
    const char* inputName = jack_port_name(g_shared.input);
    for (Source& source : sources) {
        const jack_port_t* port = jack_port_by_name(client, source.name.c_str());
        if (source.connected && (port == nullptr || !jack_port_connected_to(g_shared.input, source.name.c_str()))) {
            waitCycles(2); // events of the source's last cycle reach the ring buffer
            drainEvents();
            printLine("gone " + source.name);
            source.connected = false;
        }
        if (!source.connected && port != nullptr) {
            const int result = jack_connect(client, source.name.c_str(), inputName);
            if (result != 0 && result != EEXIST) {
                std::fprintf(stderr, "jack_midi_receiver: cannot connect %s to %s (%d)\n", source.name.c_str(),
                             inputName, result);
                continue; // tried again at the next check
            }
            waitCycles(3);
            if (!jack_port_connected_to(g_shared.input, source.name.c_str())) {
                std::fprintf(stderr, "jack_midi_receiver: %s is not connected after connecting it\n",
                             source.name.c_str());
                continue; // tried again at the next check
            }
            drainEvents();
            printLine("connected " + source.name);
            source.connected = true;
        }
    }
}

void printUsage(FILE* to)
{
    std::fputs("Usage: jack_midi_receiver [--server NAME] [--connect SOURCE]... [--client NAME] [--times]\n", to);
}

} // namespace

int main(int argc, char** argv)
{
    std::string serverName;
    std::string clientName = "midi_receiver";
    std::vector<Source> sources;
    if (const char* fromEnvironment = std::getenv("JACK_DEFAULT_SERVER"))
        serverName = fromEnvironment;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help") {
            printUsage(stdout);
            return 0;
        }
        if (option == "--times") {
            g_shared.times = true;
            continue;
        }
        if ((option == "--server" || option == "--connect" || option == "--client") && i + 1 < argc) {
            const std::string value = argv[++i];
            if (option == "--server")
                serverName = value;
            else if (option == "--client")
                clientName = value;
            else
                sources.push_back({value});
            continue;
        }
        std::fprintf(stderr, "jack_midi_receiver: unknown or incomplete option '%s'\n", option.c_str());
        printUsage(stderr);
        return 1;
    }

    setenv("JACK_NO_START_SERVER", "1", 1);
    struct sigaction action
    {
    };
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    sem_init(&g_shared.wake, 0, 0);

    g_shared.ring = jack_ringbuffer_create(kRingBytes);
    if (g_shared.times) {
        g_shared.xrunTimes = jack_ringbuffer_create(kRingBytes / 8);
        g_shared.missedCycles = jack_ringbuffer_create(kRingBytes / 8);
    }
    if (g_shared.ring == nullptr || (g_shared.times && (!g_shared.xrunTimes || !g_shared.missedCycles))) {
        std::fputs("jack_midi_receiver: out of memory\n", stderr);
        return 2;
    }
    jack_ringbuffer_mlock(g_shared.ring); // may fail without privileges; it works unlocked too

    jack_status_t status{};
    const auto options = static_cast<jack_options_t>(JackNoStartServer | (serverName.empty() ? 0 : JackServerName));
    jack_client_t* client = serverName.empty()
        ? jack_client_open(clientName.c_str(), options, &status)
        : jack_client_open(clientName.c_str(), options, &status, serverName.c_str());
    if (client == nullptr) {
        std::fprintf(stderr, "jack_midi_receiver: cannot open a client on JACK server '%s' (status 0x%x)\n",
                     serverName.empty() ? "default" : serverName.c_str(), static_cast<unsigned>(status));
        return 2;
    }
    g_shared.client = client;
    g_shared.input = jack_port_register(client, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    if (g_shared.input == nullptr || jack_set_process_callback(client, process, nullptr) != 0
        || jack_set_port_registration_callback(client, onPortRegistration, nullptr) != 0
        || jack_set_xrun_callback(client, onXrun, nullptr) != 0) {
        std::fputs("jack_midi_receiver: cannot register the input port\n", stderr);
        jack_client_close(client);
        return 2;
    }
    jack_on_info_shutdown(client, onShutdown, nullptr);
    if (jack_activate(client) != 0) {
        std::fputs("jack_midi_receiver: cannot activate the client\n", stderr);
        jack_client_close(client);
        return 2;
    }
    printLine(std::string("ready ") + jack_port_name(g_shared.input));

    int exitStatus = 0;
    auto nextCheck = std::chrono::steady_clock::now();
    while (g_stop == 0) {
        drainEvents();
        if (g_shared.serverGone.load()) {
            std::fputs("jack_midi_receiver: the JACK server shut down\n", stderr);
            exitStatus = 3;
            break;
        }
        const auto now = std::chrono::steady_clock::now();
        if (g_shared.portsChanged.exchange(false) || now >= nextCheck) {
            checkSources(client, sources);
            nextCheck = now + kRecheckInterval;
        }
        if (g_outputBroken) {
            exitStatus = 4;
            break;
        }
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += 50'000'000;
        if (until.tv_nsec >= 1'000'000'000) {
            until.tv_nsec -= 1'000'000'000;
            ++until.tv_sec;
        }
        while (sem_timedwait(&g_shared.wake, &until) != 0 && errno == EINTR && g_stop == 0) {
        }
    }

    if (exitStatus != 3)
        jack_deactivate(client); // no more process callbacks: the ring buffer holds the last events
    drainEvents();
    jack_client_close(client);
    jack_ringbuffer_free(g_shared.ring);
    if (g_shared.times) {
        jack_ringbuffer_free(g_shared.xrunTimes);
        jack_ringbuffer_free(g_shared.missedCycles);
    }
    return exitStatus;
}
