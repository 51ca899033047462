// jack_audio_receiver: a small JACK client with one audio input port that tells when sound starts
// and stops arriving, with the time of the JACK cycle that carried it. Tests and benchmarks start
// it next to Plinkora to hear the built-in synthesizer.
//
// Usage:
//   jack_audio_receiver [--connect CLIENT]... [--client NAME] [--threshold LEVEL]
//
// Options:
//   --connect CLIENT   Connects every audio output port of the JACK client CLIENT (e.g.
//                      PLK-synth) to the input, now and each time such a port appears. May be
//                      given more than once.
//   --client NAME      The JACK client name. Default "audio_receiver".
//   --threshold LEVEL  The peak (of full scale, 0 to 1) above which a frame is sound.
//                      Default 0.0001.
//   --help             Prints this usage and exits with 0.
// The JACK server is $JACK_DEFAULT_SERVER, else JACK's default; none is ever started (exit 2).
//
// Standard output, one line per item, flushed at once:
//   ready CLIENT:in          the client is active.
//   connected PORT           PORT is connected to the input.
//   sound NS FRAME PEAK      sound began: NS is CLOCK_MONOTONIC in nanoseconds read at the top
//                            of the process callback of the cycle that carried it, FRAME the
//                            first frame above the threshold in that cycle, PEAK the cycle's
//                            peak. The frame's own time is NS + FRAME / rate.
//   silence NS               no frame above the threshold for 100 ms (NS: the cycle that ended
//                            the stretch of sound).
//   period FRAMES RATE       the JACK period and sample rate, after "ready".
// Exit status: 0 after SIGTERM or SIGINT; 1 for a bad command line; 2 without a JACK server.

#include <jack/jack.h>
#include <jack/ringbuffer.h>

#include <semaphore.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Event
{
    std::int64_t nanoseconds;
    std::uint32_t frame;
    float peak;
    bool sound;
};

struct Shared
{
    jack_client_t* client = nullptr;
    jack_port_t* input = nullptr;
    jack_ringbuffer_t* events = nullptr;
    sem_t wake{};
    std::atomic<bool> stop{false};
    std::atomic<bool> portsChanged{false};
    float threshold = 0.0001f;
    bool sounding = false;
    std::uint64_t quietFrames = 0;
    std::uint64_t quietLimit = 4800;
};

Shared g;

std::int64_t monotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int process(jack_nframes_t frames, void*)
{
    const std::int64_t now = monotonicNanoseconds();
    const auto* samples = static_cast<const float*>(jack_port_get_buffer(g.input, frames));
    float peak = 0.0f;
    std::uint32_t first = frames;
    for (jack_nframes_t i = 0; i < frames; ++i) {
        const float level = std::fabs(samples[i]);
        if (level > g.threshold && first == frames)
            first = i;
        peak = std::max(peak, level);
    }
    Event event{now, first, peak, true};
    if (first < frames) {
        g.quietFrames = 0;
        if (!g.sounding) {
            g.sounding = true;
            jack_ringbuffer_write(g.events, reinterpret_cast<const char*>(&event), sizeof event);
            sem_post(&g.wake);
        }
    } else if (g.sounding) {
        g.quietFrames += frames;
        if (g.quietFrames >= g.quietLimit) {
            g.sounding = false;
            event.sound = false;
            jack_ringbuffer_write(g.events, reinterpret_cast<const char*>(&event), sizeof event);
            sem_post(&g.wake);
        }
    }
    return 0;
}

void portRegistered(jack_port_id_t, int registered, void*)
{
    if (registered) {
        g.portsChanged = true;
        sem_post(&g.wake);
    }
}

void onSignal(int)
{
    g.stop = true;
    sem_post(&g.wake);
}

void connectAll(const std::vector<std::string>& clients, std::vector<std::string>& connected)
{
    for (const std::string& client : clients) {
        const std::string pattern = "^" + client + ":";
        const char** ports = jack_get_ports(g.client, pattern.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput);
        if (!ports)
            continue;
        for (const char** port = ports; *port; ++port) {
            const std::string name = *port;
            bool done = false;
            for (const std::string& c : connected)
                done = done || c == name;
            if (done || jack_connect(g.client, *port, jack_port_name(g.input)) != 0)
                continue;
            connected.push_back(name);
            std::printf("connected %s\n", *port);
            std::fflush(stdout);
        }
        jack_free(ports);
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> clients;
    std::string name = "audio_receiver";
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            std::puts("Usage: jack_audio_receiver [--connect CLIENT]... [--client NAME] [--threshold LEVEL]");
            return 0;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "jack_audio_receiver: %s needs a value\n", argv[i]);
            return 1;
        }
        if (argument == "--connect")
            clients.emplace_back(argv[++i]);
        else if (argument == "--client")
            name = argv[++i];
        else if (argument == "--threshold")
            g.threshold = std::strtof(argv[++i], nullptr);
        else {
            std::fprintf(stderr, "jack_audio_receiver: unknown option %s\n", argv[i]);
            return 1;
        }
    }
    sem_init(&g.wake, 0, 0);
    g.events = jack_ringbuffer_create(64 * sizeof(Event));
    jack_status_t status{};
    g.client = jack_client_open(name.c_str(), JackNoStartServer, &status);
    if (!g.client) {
        std::fprintf(stderr, "jack_audio_receiver: no JACK server (status 0x%x)\n", static_cast<unsigned>(status));
        return 2;
    }
    g.input = jack_port_register(g.client, "in", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
    g.quietLimit = jack_get_sample_rate(g.client) / 10;
    jack_set_process_callback(g.client, process, nullptr);
    jack_set_port_registration_callback(g.client, portRegistered, nullptr);
    struct sigaction action
    {
    };
    action.sa_handler = onSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    if (!g.input || jack_activate(g.client) != 0) {
        std::fprintf(stderr, "jack_audio_receiver: cannot activate the client\n");
        return 2;
    }
    std::printf("ready %s\nperiod %u %u\n", jack_port_name(g.input), jack_get_buffer_size(g.client),
                jack_get_sample_rate(g.client));
    std::fflush(stdout);
    std::vector<std::string> connected;
    connectAll(clients, connected);
    while (!g.stop) {
        sem_wait(&g.wake);
        if (g.portsChanged.exchange(false)) {
            connected.clear(); // a port of the same name may have come back
            connectAll(clients, connected);
        }
        Event event{};
        while (jack_ringbuffer_read_space(g.events) >= sizeof event) {
            jack_ringbuffer_read(g.events, reinterpret_cast<char*>(&event), sizeof event);
            if (event.sound)
                std::printf("sound %lld %u %.6f\n", static_cast<long long>(event.nanoseconds), event.frame,
                            static_cast<double>(event.peak));
            else
                std::printf("silence %lld\n", static_cast<long long>(event.nanoseconds));
            std::fflush(stdout);
        }
    }
    jack_client_close(g.client);
    jack_ringbuffer_free(g.events);
    return 0;
}
