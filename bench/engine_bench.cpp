// The engine's hot paths on the recording back end: a note through the MIDI output, and the
// 60 Hz bender tick idle and with an arrow held. Each benchmark also reports the heap
// allocations it made per operation (goal: 0).
#include "benders/bender_controller.h"
#include "common/settings_store.h"
#include "midi/midi_manager.h"
#include "midi/recording_backend.h"
#include "support/fakes.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long long> allocations{0};
} // namespace

void* operator new(std::size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

using namespace plinkora;

namespace {
struct Engine
{
    Engine()
    {
        auto recording = std::make_unique<RecordingBackend>(1 << 16);
        backend = recording.get();
        midi = std::make_unique<MIDIManager>(std::move(recording));
        bender = std::make_unique<BenderController>(*midi, settings,
                                                    std::make_unique<plinkora::testing::RecordingSoundPlayer>());
        bender->updateTimer.stop(); // the benchmark drives the ticks
        backend->clear();
    }
    QTemporaryDir dir;
    QSettings qsettings{dir.filePath("bench.conf"), QSettings::IniFormat};
    SettingsStore settings{qsettings};
    RecordingBackend* backend = nullptr;
    std::unique_ptr<MIDIManager> midi;
    std::unique_ptr<BenderController> bender;
};

void reportAllocations(benchmark::State& state, long long before)
{
    state.counters["allocs/op"] = benchmark::Counter(static_cast<double>(allocations.load() - before),
                                                     benchmark::Counter::kAvgIterations);
}

void BM_NoteOnThenNoteOff(benchmark::State& state)
{
    Engine engine;
    const long long before = allocations.load();
    std::uint8_t note = 0;
    for (auto _ : state) {
        engine.midi->sendNoteOn(note, 100, 0);
        engine.midi->sendNoteOff(note, 0);
        note = static_cast<std::uint8_t>((note + 1) & 0x7F);
        if (engine.backend->calls().size() > 60000)
            engine.backend->clear();
    }
    reportAllocations(state, before);
    state.counters["ns/note"] = benchmark::Counter(static_cast<double>(state.iterations()) * 2.0,
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_NoteOnThenNoteOff);

void BM_BenderTickIdle(benchmark::State& state)
{
    Engine engine;
    const long long before = allocations.load();
    for (auto _ : state)
        engine.bender->updateBenders();
    reportAllocations(state, before);
    if (!engine.backend->calls().empty())
        state.SkipWithError("an idle tick sent something");
}
BENCHMARK(BM_BenderTickIdle);

void BM_BenderTickArrowHeld(benchmark::State& state)
{
    Engine engine;
    engine.bender->upPressed = true;
    engine.bender->rightPressed = true;
    const long long before = allocations.load();
    for (auto _ : state) {
        engine.bender->updateBenders();
        if (engine.backend->calls().size() > 60000)
            engine.backend->clear();
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_BenderTickArrowHeld);
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
