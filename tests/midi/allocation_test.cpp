// Sending MIDI must not allocate: the sends happen on every key press. This executable replaces
// the global operator new and delete with versions that count the allocations made on the
// test's own thread while counting is switched on.
#include "common/settings_store.h"
#include "midi/backend_factory.h"
#include "midi/fan_out_backend.h"
#include "midi/midi_manager.h"
#include "midi/null_backend.h"
#include "midi/recording_backend.h"
#include "support/child_process.h"
#if defined(PLINKORA_HAVE_JACK)
#include "support/jack_server.h"
#endif
#include "synth/built_in_synth.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>
#include <thread>

namespace {

std::atomic<long> g_allocations{0};
thread_local bool t_counting = false;

void* allocate(std::size_t size)
{
    if (t_counting)
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}

void* allocateAligned(std::size_t size, std::align_val_t alignment)
{
    if (t_counting)
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    const auto align = static_cast<std::size_t>(alignment);
    const std::size_t rounded = (size + align - 1) / align * align;
    if (void* memory = std::aligned_alloc(align, rounded == 0 ? align : rounded))
        return memory;
    throw std::bad_alloc();
}

/// Counts the allocations made on this thread while it lives.
class AllocationCounter
{
public:
    AllocationCounter()
    {
        g_allocations = 0;
        t_counting = true;
    }
    ~AllocationCounter() { t_counting = false; }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;
    long count() const { return g_allocations.load(); }
};

/// Many messages of every kind: note on and off (held-key repeats included), bend, CC, program.
/// Sends `rounds` rounds of every kind of message; with `everyProgram` false, the program changes
/// all choose program 0.
void sendMany(plinkora::MIDIManager& manager, int rounds, bool everyProgram = true)
{
    for (int i = 0; i < rounds; ++i) {
        const auto note = static_cast<std::uint8_t>(36 + i % 48);
        const auto channel = static_cast<std::uint8_t>(i % 16);
        manager.sendNoteOn(note, 100, channel);
        manager.sendNoteOn(note, 100, channel); // auto-repeat: nothing sent
        manager.sendPitchBend(static_cast<std::uint16_t>(i * 97 % 16384), channel);
        manager.sendControlChange(static_cast<std::uint8_t>(i % 128), static_cast<std::uint8_t>(i % 128), channel);
        manager.sendProgramChange(static_cast<std::uint8_t>(everyProgram ? i % 128 : 0), channel);
        manager.sendNoteOff(note, channel);
    }
}

} // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}
void* operator new[](std::size_t size)
{
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
    return allocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment)
{
    return allocateAligned(size, alignment);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

using namespace plinkora;

TEST(SendingAllocation, TheCounterSeesAnAllocation)
{
    // GIVEN counting is on
    long counted = 0;
    {
        const AllocationCounter counter;
        // WHEN something is allocated
        int* volatile value = new int(7); // volatile: the allocation cannot be optimised away
        counted = counter.count();
        delete value;
    }
    // THEN it is counted (so a zero below means something)
    EXPECT_EQ(counted, 1);
}

TEST(SendingAllocation, SendingOnTheRecordingBackEndAllocatesNothing)
{
    // GIVEN a manager on a recording back end with room reserved for every call
    constexpr int kRounds = 2000;
    auto owned = std::make_unique<RecordingBackend>(kRounds * 6 + 64);
    RecordingBackend& recording = *owned;
    MIDIManager manager(std::move(owned));
    // WHEN thousands of messages of every kind are sent
    long counted = 0;
    {
        const AllocationCounter counter;
        sendMany(manager, kRounds);
        counted = counter.count();
    }
    // THEN nothing was allocated, and they were all sent
    EXPECT_EQ(counted, 0);
    EXPECT_EQ(recording.sentMessages().size(), static_cast<std::size_t>(kRounds * 5 + 0));
}

TEST(SendingAllocation, SendingOnTheNullBackEndAllocatesNothing)
{
    // GIVEN a manager on the null sink
    MIDIManager manager(std::make_unique<NullBackend>());
    // WHEN thousands of messages of every kind are sent, then cleanup with notes sounding
    long counted = 0;
    manager.sendNoteOn(60, 100, 0);
    manager.sendNoteOn(64, 100, 0);
    {
        const AllocationCounter counter;
        sendMany(manager, 5000);
        manager.cleanup();
        counted = counter.count();
    }
    // THEN nothing was allocated
    EXPECT_EQ(counted, 0);
}

TEST(SendingAllocation, ThePanicAllocatesNothing)
{
    // GIVEN a manager on the null sink with notes sounding
    MIDIManager manager(std::make_unique<NullBackend>());
    manager.sendNoteOn(60, 100, 0);
    manager.sendNoteOn(64, 100, 0);
    long counted = 0;
    {
        // WHEN the notes are stopped, every channel silenced and the benders put at rest
        const AllocationCounter counter;
        manager.stopActiveNotes(0);
        manager.sendAllChannelsOff();
        manager.sendBendersAtRest();
        counted = counter.count();
    }
    // THEN nothing was allocated
    EXPECT_EQ(counted, 0);
    EXPECT_TRUE(manager.activeNotes.empty());
}

#if defined(PLINKORA_HAVE_JACK)
TEST(SendingAllocation, SendingOnTheJackBackEndAllocatesNothing)
{
    // GIVEN a manager on the JACK back end, publishing on a private JACK server
    const std::unique_ptr<plinkora::testing::JackServer> jack = plinkora::testing::JackServer::start();
    const plinkora::testing::ScopedEnvironment server("JACK_DEFAULT_SERVER", jack->name());
    ::testing::internal::CaptureStdout();
    MIDIManager manager(makeBackend(MIDIApiKind::Jack));
    const std::string setup = ::testing::internal::GetCapturedStdout();
    ASSERT_EQ(setup, "");
    ASSERT_NE(manager.virtualSource, 0u);
    // WHEN thousands of messages of every kind are sent (more than RtMidi's ring buffer holds
    // at once, so sending also waits for JACK's cycles to make room)
    constexpr int kRounds = 2000;
    long counted = 0;
    std::chrono::steady_clock::duration took{};
    {
        const AllocationCounter counter;
        const auto started = std::chrono::steady_clock::now();
        sendMany(manager, kRounds);
        took = std::chrono::steady_clock::now() - started;
        counted = counter.count();
    }
    // THEN nothing was allocated on the sending thread
    EXPECT_EQ(counted, 0);
    std::printf("[ measured ] %d JACK sends took %lld us\n", kRounds * 5,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
    ::testing::internal::CaptureStdout();
    manager.cleanup();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}
#endif

#if defined(PLINKORA_HAVE_FLUIDSYNTH)
TEST(SendingAllocation, SendingThroughTheFanOutToTheBuiltInSynthesizerAllocatesNothingOnceItsPresetsAreLoaded)
{
    QTemporaryDir dir;
    QSettings qsettings(dir.filePath("Plinkora.conf"), QSettings::IniFormat);
    plinkora::SettingsStore settings(qsettings);
    plinkora::BuiltInSynth::Options options;
    options.mode = plinkora::SynthMode::On;
    options.engine.drivers = {"file"};
    options.engine.audioFile = dir.filePath("out.raw").toStdString();
    plinkora::BuiltInSynth synth(settings, options);
    plinkora::MIDIManager manager(
        std::make_unique<plinkora::FanOutBackend>(std::make_unique<plinkora::NullBackend>(), &synth));
    synth.start();
    for (int i = 0; i < 2000 && !synth.isAudible(); ++i) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(synth.isAudible());
    // Once only: the idle timer starts once per quiet stretch, the voices beyond the first 64
    // are made when chords need them, and a program whose preset is not loaded loads it.
    sendMany(manager, 2000);
    sendMany(manager, 16, false);
    const std::set<plinkora::PresetNumber> programZero{{0, 0}, {128, 0}};
    for (int i = 0; i < 2000 && synth.engine().presetsLoaded() != programZero; ++i) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(synth.engine().presetsLoaded(), programZero);
    EXPECT_EQ(synth.engine().voices(), 128);
    const AllocationCounter counter;
    sendMany(manager, 2000, false);
    EXPECT_EQ(counter.count(), 0);
}
#endif
