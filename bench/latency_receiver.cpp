// latency_receiver: a JACK client with one MIDI input port that stamps every MIDI event it
// receives on CLOCK_MONOTONIC, for the end-to-end latency benchmark (e2e_latency.py). Unlike
// tools/jack_midi_receiver (which the tests use to read bytes), it prints times.
//
// Usage:
//   latency_receiver [--client NAME] [--connect SOURCE]...
// The JACK server is $JACK_DEFAULT_SERVER; none is ever started.
//   --client NAME     the client's name (default "latency_rx")
//   --connect SOURCE  an output port to connect to its input, by its full name, each time it is
//                     registered (it may come and go, e.g. PLK:PLK of successive program runs)
//
// Standard output, one line per item in the order seen (times in nanoseconds of CLOCK_MONOTONIC):
//   ready CLIENT:in
//   registered T PORT    the port-registration callback for PORT ran at T
//   connected PORT       PORT is connected and the connection is in effect
//   midi T TOP OFFSET BYTES...   one event: TOP is the clock read at the top of the process
//                        callback of the cycle that carried it, OFFSET its frame offset in that
//                        cycle, T = TOP + OFFSET / sample rate; BYTES in hex (at most 3 shown)
//   xrun T               JACK reported an xrun at T (the notification's arrival)
// Ends with status 0 on SIGTERM or SIGINT, 2 when there is no server.
//
// The process callback reads the clock first, then copies fixed-size records into a JACK ring
// buffer; the main thread prints them. Port-registration and xrun notifications come on JACK's
// notification thread and are stamped there.

#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>

#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Record
{
    std::int64_t top = 0;
    std::uint32_t offset = 0;
    std::uint32_t size = 0;
    unsigned char bytes[4] = {};
};

struct Notice
{
    std::int64_t time = 0;
    jack_port_id_t port = 0;
    bool xrun = false;
};

std::int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

jack_port_t* g_input = nullptr;
jack_ringbuffer_t* g_ring = nullptr;
sem_t g_wake;
std::atomic<std::uint64_t> g_cycles{0};
std::atomic<std::uint64_t> g_dropped{0};
std::mutex g_noticesMutex;
std::vector<Notice> g_notices;
volatile std::sig_atomic_t g_stop = 0;

void onSignal(int)
{
    g_stop = 1;
    sem_post(&g_wake);
}

int process(jack_nframes_t frames, void*)
{
    const std::int64_t top = nowNs();
    void* buffer = jack_port_get_buffer(g_input, frames);
    const std::uint32_t count = jack_midi_get_event_count(buffer);
    for (std::uint32_t i = 0; i < count; ++i) {
        jack_midi_event_t event;
        if (jack_midi_event_get(&event, buffer, i) != 0)
            continue;
        Record record;
        record.top = top;
        record.offset = event.time;
        record.size = static_cast<std::uint32_t>(event.size);
        std::memcpy(record.bytes, event.buffer, event.size < 4 ? event.size : 4);
        if (jack_ringbuffer_write_space(g_ring) < sizeof record) {
            g_dropped.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        jack_ringbuffer_write(g_ring, reinterpret_cast<const char*>(&record), sizeof record);
    }
    g_cycles.fetch_add(1, std::memory_order_release);
    if (count > 0)
        sem_post(&g_wake);
    return 0;
}

void notice(Notice n)
{
    {
        std::lock_guard<std::mutex> lock(g_noticesMutex);
        g_notices.push_back(n);
    }
    sem_post(&g_wake);
}

void onPortRegistration(jack_port_id_t port, int registered, void*)
{
    if (registered != 0)
        notice({nowNs(), port, false});
}

int onXrun(void*)
{
    notice({nowNs(), 0, true});
    return 0;
}

void drain(jack_nframes_t rate)
{
    Record record;
    while (jack_ringbuffer_read_space(g_ring) >= sizeof record) {
        jack_ringbuffer_read(g_ring, reinterpret_cast<char*>(&record), sizeof record);
        const std::int64_t time = record.top + std::int64_t{record.offset} * 1'000'000'000 / rate;
        std::printf("midi %lld %lld %u", static_cast<long long>(time), static_cast<long long>(record.top),
                    record.offset);
        for (std::uint32_t i = 0; i < record.size && i < 3; ++i)
            std::printf(" %02X", record.bytes[i]);
        std::putchar('\n');
    }
    if (const std::uint64_t lost = g_dropped.exchange(0))
        std::fprintf(stderr, "latency_receiver: %llu events lost (ring buffer full)\n",
                     static_cast<unsigned long long>(lost));
    std::fflush(stdout);
}

void waitCycles(std::uint64_t count)
{
    const std::uint64_t target = g_cycles.load(std::memory_order_acquire) + count;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (g_cycles.load(std::memory_order_acquire) < target && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

void connectSources(jack_client_t* client, const std::vector<std::string>& sources)
{
    const char* input = jack_port_name(g_input);
    for (const std::string& source : sources) {
        if (jack_port_by_name(client, source.c_str()) == nullptr || jack_port_connected_to(g_input, source.c_str()))
            continue;
        const int result = jack_connect(client, source.c_str(), input);
        if (result != 0 && result != EEXIST)
            continue; // tried again at the next check
        waitCycles(3);
        if (jack_port_connected_to(g_input, source.c_str())) {
            std::printf("connected %s\n", source.c_str());
            std::fflush(stdout);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::string clientName = "latency_rx";
    std::vector<std::string> sources;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if ((option == "--client" || option == "--connect") && i + 1 < argc) {
            if (option == "--client")
                clientName = argv[++i];
            else
                sources.emplace_back(argv[++i]);
            continue;
        }
        std::fprintf(stderr, "Usage: latency_receiver [--client NAME] [--connect SOURCE]...\n");
        return 1;
    }
    struct sigaction action
    {
    };
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sem_init(&g_wake, 0, 0);
    g_ring = jack_ringbuffer_create(sizeof(Record) * 16384);
    jack_ringbuffer_mlock(g_ring);

    jack_status_t status{};
    jack_client_t* client = jack_client_open(clientName.c_str(), JackNoStartServer, &status);
    if (client == nullptr) {
        std::fprintf(stderr, "latency_receiver: no JACK server (status 0x%x)\n", static_cast<unsigned>(status));
        return 2;
    }
    g_input = jack_port_register(client, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    if (g_input == nullptr || jack_set_process_callback(client, process, nullptr) != 0
        || jack_set_port_registration_callback(client, onPortRegistration, nullptr) != 0
        || jack_set_xrun_callback(client, onXrun, nullptr) != 0 || jack_activate(client) != 0) {
        std::fputs("latency_receiver: cannot set up the client\n", stderr);
        jack_client_close(client);
        return 2;
    }
    const jack_nframes_t rate = jack_get_sample_rate(client);
    std::printf("ready %s\n", jack_port_name(g_input));
    std::fflush(stdout);

    auto nextCheck = std::chrono::steady_clock::now();
    while (g_stop == 0) {
        drain(rate);
        std::vector<Notice> notices;
        {
            std::lock_guard<std::mutex> lock(g_noticesMutex);
            notices.swap(g_notices);
        }
        bool registered = false;
        for (const Notice& n : notices) {
            if (n.xrun) {
                std::printf("xrun %lld\n", static_cast<long long>(n.time));
                continue;
            }
            const jack_port_t* port = jack_port_by_id(client, n.port);
            std::printf("registered %lld %s\n", static_cast<long long>(n.time),
                        port != nullptr ? jack_port_name(port) : "?");
            registered = true;
        }
        std::fflush(stdout);
        const auto now = std::chrono::steady_clock::now();
        if (registered || now >= nextCheck) {
            connectSources(client, sources);
            nextCheck = now + std::chrono::milliseconds(200);
        }
        const std::int64_t wakeAt = nowNs() + 50'000'000; // at the latest, for the checks above
        const timespec until{static_cast<time_t>(wakeAt / 1'000'000'000), static_cast<long>(wakeAt % 1'000'000'000)};
        while (sem_clockwait(&g_wake, CLOCK_MONOTONIC, &until) != 0 && errno == EINTR && g_stop == 0) {
        }
    }
    jack_deactivate(client);
    drain(rate);
    jack_client_close(client);
    jack_ringbuffer_free(g_ring);
    return 0;
}
