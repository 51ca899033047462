// synth_latency_bench: from a note sent through the MIDI output to the first audio frame that
// carries it, heard by tools/jack_audio_receiver on the same JACK server; and the memory of a
// process with the built-in synthesizer and the default sound font.
//
// Run it with a JACK server running (bench/synth_bench.sh starts a private one: dummy driver,
// 48 kHz, 64 frames). It makes the MIDI output (the null port behind the fan-out) and the
// built-in synthesizer with its JACK output, starts the receiver connected to PLK-synth, then
// ROUNDS times: reads CLOCK_MONOTONIC, sends a note-on through MIDIManager (what a key press
// does after the key event filter), and waits for the receiver's "sound NS FRAME" line, NS being
// CLOCK_MONOTONIC at the top of the receiver's process callback in the cycle that carried the
// note's first frame; then silences the note (all sound off) and waits a random 5 to 25 ms, so
// that the notes fall on every phase of the period. Prints percentiles and the goal: one period
// plus 1 ms. Then the same for notes after the audio output was suspended (idle).
//
// Usage: synth_latency_bench RECEIVER [ROUNDS] [SUSPENDED_ROUNDS]

#include "common/settings_store.h"
#include "midi/fan_out_backend.h"
#include "midi/midi_manager.h"
#include "midi/null_backend.h"
#include "synth/built_in_synth.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace plinkora;
using namespace std::chrono_literals;

namespace {

std::int64_t monotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Reads the receiver's lines until one starts with `prefix`; the rest of it.
std::string waitForLine(FILE* receiver, const char* prefix)
{
    char line[256];
    static const bool verbose = std::getenv("SYNTH_BENCH_VERBOSE") != nullptr;
    while (std::fgets(line, sizeof line, receiver)) {
        if (verbose)
            std::fprintf(stderr, "receiver: %s", line);
        if (std::strncmp(line, prefix, std::strlen(prefix)) == 0)
            return line + std::strlen(prefix);
    }
    std::fprintf(stderr, "synth_latency_bench: the receiver ended\n");
    std::exit(1);
}

void processEventsFor(std::chrono::milliseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(1ms);
    }
}

long statusKilobytes(const char* field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(field, 0) == 0)
            return std::atol(line.c_str() + std::strlen(field));
    return -1;
}

void printPercentiles(const char* what, std::vector<double> ms, double goal)
{
    std::sort(ms.begin(), ms.end());
    auto at = [&](double p) { return ms[std::min(ms.size() - 1, static_cast<std::size_t>(p * ms.size()))]; };
    std::printf("%s (%zu notes): min %.3f ms, median %.3f ms, p90 %.3f ms, p99 %.3f ms, max %.3f ms", what, ms.size(),
                ms.front(), at(0.5), at(0.9), at(0.99), ms.back());
    if (goal > 0)
        std::printf("; goal %.3f ms, %zu over", goal,
                    static_cast<std::size_t>(std::count_if(ms.begin(), ms.end(), [&](double v) { return v > goal; })));
    std::printf("\n");
}

struct Probe
{
    MIDIManager& manager;
    FILE* receiver;

    // One note: the time from just before the send to the frame that carries it, in ms.
    double note()
    {
        const std::int64_t sent = monotonicNanoseconds();
        manager.sendNoteOn(72, 127, 0);
        const std::string line = waitForLine(receiver, "sound ");
        long long cycle = 0;
        unsigned frame = 0;
        std::sscanf(line.c_str(), "%lld %u", &cycle, &frame);
        manager.sendNoteOff(72, 0);
        manager.sendControlChange(120, 0, 0); // all sound off: the next note starts in silence
        waitForLine(receiver, "silence ");
        return static_cast<double>(cycle - sent) / 1e6;
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "Usage: synth_latency_bench RECEIVER [ROUNDS] [SUSPENDED_ROUNDS]\n");
        return 2;
    }
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 200;
    const int suspendedRounds = argc > 3 ? std::atoi(argv[3]) : 10;
    QCoreApplication application(argc, argv);
    QTemporaryDir dir;
    QSettings qsettings(dir.filePath("Plinkora.conf"), QSettings::IniFormat);
    SettingsStore settings(qsettings);

    const long before = statusKilobytes("RssAnon:") + statusKilobytes("RssFile:");
    BuiltInSynth::Options options;
    options.mode = SynthMode::On;
    options.engine.drivers = {"jack"};
    BuiltInSynth synth(settings, options);
    MIDIManager manager(std::make_unique<FanOutBackend>(std::make_unique<NullBackend>(), &synth));
    synth.start();
    for (int i = 0; !synth.isAudible(); ++i) {
        if (i > 1000) {
            std::fprintf(stderr, "synth_latency_bench: the synthesizer did not open its JACK output\n");
            return 1;
        }
        processEventsFor(10ms);
    }
    const long after = statusKilobytes("RssAnon:") + statusKilobytes("RssFile:");

    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return 1;
    const pid_t receiverPid = fork();
    if (receiverPid == 0) {
        dup2(pipeFds[1], 1);
        close(pipeFds[0]);
        execl(argv[1], argv[1], "--connect", "PLK-synth", "--client", "synth_bench_rx", "--threshold", "0.00001",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipeFds[1]);
    FILE* receiver = fdopen(pipeFds[0], "r");
    unsigned period = 0;
    unsigned rate = 0;
    std::sscanf(waitForLine(receiver, "period ").c_str(), "%u %u", &period, &rate);
    waitForLine(receiver, "connected ");
    processEventsFor(200ms);

    Probe probe{manager, receiver};
    std::mt19937 random(7);
    std::uniform_int_distribution<int> pause(5, 25);
    std::vector<double> awake;
    for (int i = 0; i < rounds; ++i) {
        awake.push_back(probe.note());
        processEventsFor(std::chrono::milliseconds(pause(random)));
    }
    // After the idle time the output is closed; the next note opens it again inside the send.
    std::vector<double> resumes;
    synth.engine().setIdleTime(300ms);
    for (int i = 0; i < suspendedRounds; ++i) {
        while (!synth.engine().isSuspended())
            processEventsFor(20ms);
        const std::int64_t sent = monotonicNanoseconds();
        manager.sendNoteOn(72, 127, 0);
        resumes.push_back(static_cast<double>(monotonicNanoseconds() - sent) / 1e6);
        manager.sendNoteOff(72, 0);
        manager.sendControlChange(120, 0, 0);
    }

    const double periodMs = 1000.0 * period / rate;
    std::printf("JACK period %u frames at %u Hz = %.3f ms\n", period, rate, periodMs);
    printPercentiles("note sent -> first frame carrying it", awake, periodMs + 1.0);
    if (!resumes.empty())
        printPercentiles("note sent while suspended -> audio output open again", resumes, 0);
    std::printf("memory (RssAnon + RssFile): %.1f MiB before the synthesizer, %.1f MiB with it and %s\n",
                before / 1024.0, after / 1024.0, synth.soundFont().c_str());
    kill(receiverPid, SIGTERM);
    waitpid(receiverPid, nullptr, 0);
    std::fclose(receiver);
    return 0;
}
