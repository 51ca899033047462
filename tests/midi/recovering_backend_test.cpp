// The MIDI output through a service that dies and returns, on a fake service that reports the
// loss through the back-end interface as the ALSA sequencer and JACK back ends do: one line
// and one announcement each way, sends into nothing meanwhile, retries on a one-second timer,
// and PLK's connections restored.
#include "midi/midi_manager.h"
#include "midi/null_patchbay.h"
#include "midi/recording_backend.h"
#include "midi/recovering_backend.h"
#include "support/event_loop.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace plinkora;
using namespace std::chrono_literals;

namespace {

constexpr auto kTimeout = 20s;

/// A MIDI service that can go away and come back. It reports the loss from a thread of its
/// own, as the real services do.
class FakeService final : public MIDIBackend
{
public:
    std::string_view apiName() const override { return "alsa"; }
    MIDIStatus createClient(std::string_view name, std::uint32_t& client) override
    {
        ++clientAttempts;
        if (!running)
            return kStatusServiceUnavailable;
        clientName = name;
        client = ++lastReference;
        clients.push_back(client);
        return kStatusOk;
    }
    MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override
    {
        if (!running || clients.empty() || clients.back() != client)
            return kStatusSourceFailed;
        sourceName = name;
        source = ++lastReference;
        currentSource = source;
        published = true;
        return kStatusOk;
    }
    MIDIStatus send(std::uint32_t source, MIDIBytes message) override
    {
        if (!running)
            return kStatusServiceUnavailable;
        if (source != currentSource)
            return kStatusNoSuchEndpoint;
        sent.emplace_back(message.begin(), message.end());
        return kStatusOk;
    }
    void disposeSource(std::uint32_t source) override
    {
        disposed.push_back(source);
        published = false;
    }
    void disposeClient(std::uint32_t client) override { disposed.push_back(client); }
    void setServiceLostListener(std::function<void()> lost) override { listener = std::move(lost); }

    /// The service goes; its notice comes from another thread unless `notify` is false.
    void stop(bool notify = true)
    {
        running = false;
        published = false;
        if (notify && listener)
            std::thread([this] { listener(); }).join();
    }

    bool running = true;
    bool published = false;
    int clientAttempts = 0;
    std::uint32_t lastReference = 40; // not 1: the references handed on are the recovering one's
    std::uint32_t currentSource = 0;
    std::vector<std::uint32_t> clients;
    std::vector<std::uint32_t> disposed;
    std::vector<std::vector<std::uint8_t>> sent;
    std::string clientName;
    std::string sourceName;
    std::function<void()> listener;
};

/// The service's patchbay: destinations, PLK's connections (kept by the service while PLK is
/// published, lost with it), and change notices from another thread.
class FakePatchbay final : public MIDIPatchbay
{
public:
    explicit FakePatchbay(FakeService& service)
        : service_(service)
    {
    }
    std::vector<MIDIDestination> destinations() override
    {
        return service_.running ? present : std::vector<MIDIDestination>{};
    }
    std::vector<MIDIDestination> connections() override
    {
        return service_.published ? connected : std::vector<MIDIDestination>{};
    }
    bool sourcePublished() override { return service_.published; }
    bool connect(const MIDIDestination& destination) override
    {
        ++connectCalls;
        if (!service_.published || std::find(present.begin(), present.end(), destination) == present.end())
            return false;
        if (std::find(connected.begin(), connected.end(), destination) == connected.end())
            connected.push_back(destination);
        return true;
    }
    bool disconnect(const MIDIDestination& destination) override
    {
        std::erase(connected, destination);
        return true;
    }
    void setChangeCallback(std::function<void()> changed) override { changed_ = std::move(changed); }

    void changed()
    {
        if (changed_)
            std::thread([this] { changed_(); }).join();
    }
    /// Someone (another program, the user) connects PLK to `destination`.
    void connectFromOutside(const MIDIDestination& destination)
    {
        connect(destination);
        changed();
    }

    std::vector<MIDIDestination> present{{"Synth", "in"}, {"Sampler", "midi_in"}, {"Recorder", "in"}};
    std::vector<MIDIDestination> connected;
    int connectCalls = 0;

private:
    FakeService& service_;
    std::function<void()> changed_;
};

const MIDIDestination kSynth{"Synth", "in"};
const MIDIDestination kSampler{"Sampler", "midi_in"};

template <typename Condition> bool waitUntil(Condition condition, std::chrono::milliseconds timeout = kTimeout)
{
    return plinkora::testing::waitUntil(condition, timeout);
}

class RecoveringBackendTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        auto ownedService = std::make_unique<FakeService>();
        service = ownedService.get();
        auto ownedPatchbay = std::make_unique<FakePatchbay>(*service);
        patchbay = ownedPatchbay.get();
        auto recovering = std::make_unique<RecoveringBackend>(std::move(ownedService), std::move(ownedPatchbay));
        keeper = recovering.get();
        ::testing::internal::CaptureStdout();
        manager = std::make_unique<MIDIManager>(std::move(recovering));
        keeper->watch([this](std::string_view text) { announced.emplace_back(text); });
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    }

    void loseAndWait()
    {
        service->stop();
        ASSERT_TRUE(waitUntil([&] { return announced.size() == 1; }));
    }

    void returnAndWait()
    {
        service->running = true;
        ASSERT_TRUE(waitUntil([&] { return announced.size() == 2; }));
    }

    FakeService* service = nullptr;
    FakePatchbay* patchbay = nullptr;
    RecoveringBackend* keeper = nullptr;
    std::unique_ptr<MIDIManager> manager;
    std::vector<std::string> announced;
};

} // namespace

TEST_F(RecoveringBackendTest, WhileTheServiceRunsEverythingPassesThroughUnderItsOwnReferences)
{
    // GIVEN the port published on the service
    // THEN the service made client and source "PLK", while the manager holds references of
    // the recovering back end, and a note reaches the service
    EXPECT_EQ(service->clientName, "PLK");
    EXPECT_EQ(service->sourceName, "PLK");
    EXPECT_EQ(manager->midiClient, 1u);
    EXPECT_EQ(manager->virtualSource, 1u);
    manager->sendNoteOn(60, 100, 0);
    EXPECT_EQ(service->sent, (std::vector<std::vector<std::uint8_t>>{{0x90, 60, 100}}));
    EXPECT_FALSE(keeper->serviceLost());
}

TEST_F(RecoveringBackendTest, ALossPrintsOneLineAnnouncesOnceAndSendsGoIntoNothingSilently)
{
    // GIVEN a note sounding
    manager->sendNoteOn(60, 100, 0);
    ::testing::internal::CaptureStdout();
    // WHEN the service goes, and every kind of message is sent many times meanwhile
    loseAndWait();
    for (int i = 0; i < 200; ++i) {
        manager->sendNoteOn(static_cast<std::uint8_t>(i % 128), 100, 0);
        manager->sendNoteOff(static_cast<std::uint8_t>(i % 128), 0);
        manager->sendPitchBend(static_cast<std::uint16_t>(i), 0);
        manager->sendControlChange(7, static_cast<std::uint8_t>(i % 128), 0);
        manager->sendProgramChange(static_cast<std::uint8_t>(i % 128), 0);
    }
    const std::string printed = ::testing::internal::GetCapturedStdout();
    // THEN one line and one announcement, nothing reached the dead service, its client and
    // source were disposed, and the manager's fields are as they were
    EXPECT_EQ(printed, "MIDI output lost: alsa\n");
    EXPECT_EQ(announced, std::vector<std::string>{"MIDI output lost"});
    EXPECT_EQ(service->sent.size(), 1u);
    EXPECT_EQ(service->disposed, (std::vector<std::uint32_t>{42, 41}));
    EXPECT_TRUE(keeper->serviceLost());
    EXPECT_EQ(manager->virtualSource, 1u);
    EXPECT_EQ(manager->midiClient, 1u);
}

TEST_F(RecoveringBackendTest, ASendThatFindsTheServiceGoneBeforeItsNoticeCountsAsTheLossWithoutAnErrorLine)
{
    // GIVEN the service gone, its notice not delivered (it never comes here)
    service->stop(false);
    ::testing::internal::CaptureStdout();
    // WHEN notes are sent
    manager->sendNoteOn(60, 100, 0);
    manager->sendNoteOff(60, 0);
    ASSERT_TRUE(waitUntil([&] { return announced.size() == 1; }));
    const std::string printed = ::testing::internal::GetCapturedStdout();
    // THEN no error line: the loss is taken as reported, once
    EXPECT_EQ(printed, "MIDI output lost: alsa\n");
    EXPECT_EQ(announced, std::vector<std::string>{"MIDI output lost"});
}

TEST_F(RecoveringBackendTest, RetriesOnATimerOfOneSecondNotInABusyLoop)
{
    // GIVEN the service lost and not coming back
    loseAndWait();
    const int attemptsAtLoss = service->clientAttempts;
    // WHEN three attempts have been made
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(waitUntil([&] { return service->clientAttempts >= attemptsAtLoss + 3; }));
    const qint64 took = clock.elapsed();
    // THEN they came from the one-second timer: three seconds, less the timer's coarseness,
    // passed (a busy loop would have tried thousands of times by then)
    EXPECT_EQ(RecoveringBackend::kRetryInterval, 1000ms);
    EXPECT_GE(took, 2800);
    std::printf("[ measured ] three retries took %lld ms\n", static_cast<long long>(took));
}

TEST_F(RecoveringBackendTest, TheReturnPublishesPLKAgainRestoresItsConnectionsAndAnnouncesIt)
{
    // GIVEN PLK connected to the synth by someone else, and then the service lost
    patchbay->connectFromOutside(kSynth);
    ASSERT_TRUE(waitUntil([&] { return keeper->rememberedConnections() == std::vector{kSynth}; }));
    loseAndWait();
    // WHEN the service comes back
    ::testing::internal::CaptureStdout();
    returnAndWait();
    const std::string printed = ::testing::internal::GetCapturedStdout();
    // THEN PLK is published again under its name, connected to the synth again, one line and
    // one announcement, and notes reach the service again under the manager's old references
    EXPECT_EQ(printed, "MIDI output back: alsa\n");
    EXPECT_EQ(announced, (std::vector<std::string>{"MIDI output lost", "MIDI output back"}));
    EXPECT_TRUE(service->published);
    EXPECT_EQ(service->sourceName, "PLK");
    EXPECT_EQ(patchbay->connected, std::vector{kSynth});
    EXPECT_FALSE(keeper->serviceLost());
    service->sent.clear();
    manager->sendNoteOn(64, 90, 0);
    EXPECT_EQ(service->sent, (std::vector<std::vector<std::uint8_t>>{{0x90, 64, 90}}));
}

TEST_F(RecoveringBackendTest, ADestinationNotBackYetIsConnectedWhenItAppears)
{
    // GIVEN PLK connected to the synth and the sampler, then lost; the sampler does not come
    // back with the service
    patchbay->connectFromOutside(kSynth);
    patchbay->connectFromOutside(kSampler);
    ASSERT_TRUE(waitUntil([&] { return keeper->rememberedConnections().size() == 2; }));
    loseAndWait();
    patchbay->connected.clear();
    std::erase(patchbay->present, kSampler);
    returnAndWait();
    EXPECT_EQ(patchbay->connected, std::vector{kSynth});
    // WHEN an unrelated change comes, and then the sampler appears
    patchbay->changed();
    plinkora::testing::runEventLoopFor(50ms);
    EXPECT_EQ(patchbay->connected, std::vector{kSynth});
    patchbay->present.push_back(kSampler);
    patchbay->changed();
    // THEN PLK is connected to it too
    ASSERT_TRUE(waitUntil([&] { return patchbay->connected.size() == 2; }));
    EXPECT_EQ(patchbay->connected, (std::vector{kSynth, kSampler}));
}

TEST_F(RecoveringBackendTest, AConnectionBrokenOnPurposeIsNotRestored)
{
    // GIVEN PLK connected to both, then disconnected from the sampler while published
    patchbay->connectFromOutside(kSynth);
    patchbay->connectFromOutside(kSampler);
    patchbay->disconnect(kSampler);
    patchbay->changed();
    ASSERT_TRUE(waitUntil([&] { return keeper->rememberedConnections() == std::vector{kSynth}; }));
    // WHEN the service goes and comes back
    loseAndWait();
    patchbay->connected.clear();
    returnAndWait();
    // THEN only the synth is connected
    EXPECT_EQ(patchbay->connected, std::vector{kSynth});
}

TEST_F(RecoveringBackendTest, AChangeNoticeOfTheDyingServiceDoesNotForgetTheConnections)
{
    // GIVEN PLK connected to the synth
    patchbay->connectFromOutside(kSynth);
    ASSERT_TRUE(waitUntil([&] { return keeper->rememberedConnections() == std::vector{kSynth}; }));
    // WHEN the patchbay's notice of the shut-down (PLK gone, nothing connected) arrives before
    // the back end's
    service->running = false;
    service->published = false;
    patchbay->changed();
    plinkora::testing::runEventLoopFor(50ms);
    service->stop();
    ASSERT_TRUE(waitUntil([&] { return announced.size() == 1; }));
    // THEN the synth is still remembered and connected again on the return
    EXPECT_EQ(keeper->rememberedConnections(), std::vector{kSynth});
    patchbay->connected.clear();
    returnAndWait();
    EXPECT_EQ(patchbay->connected, std::vector{kSynth});
}

TEST_F(RecoveringBackendTest, ASecondLossAfterTheReturnIsHandledLikeTheFirst)
{
    loseAndWait();
    returnAndWait();
    ::testing::internal::CaptureStdout();
    service->stop();
    ASSERT_TRUE(waitUntil([&] { return announced.size() == 3; }));
    service->running = true;
    ASSERT_TRUE(waitUntil([&] { return announced.size() == 4; }));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "MIDI output lost: alsa\nMIDI output back: alsa\n");
    EXPECT_EQ(announced.back(), "MIDI output back");
}

TEST_F(RecoveringBackendTest, CleanupWhileLostSendsNothingDisposesNothingAndStopsTheRetries)
{
    // GIVEN the service lost
    manager->sendNoteOn(60, 100, 0);
    loseAndWait();
    const std::size_t disposals = service->disposed.size();
    // WHEN the program ends, and the service comes back afterwards
    ::testing::internal::CaptureStdout();
    manager->cleanup();
    service->running = true;
    plinkora::testing::runEventLoopFor(RecoveringBackend::kRetryInterval + 500ms);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    // THEN nothing was printed, sent or disposed again, and PLK was not made again
    EXPECT_EQ(printed, "");
    EXPECT_EQ(service->disposed.size(), disposals);
    EXPECT_EQ(service->sent.size(), 1u);
    EXPECT_FALSE(service->published);
    EXPECT_EQ(announced, std::vector<std::string>{"MIDI output lost"});
}

TEST_F(RecoveringBackendTest, TheUsersPatchbayHearsOfChangesAndOfTheReturn)
{
    int calls = 0;
    keeper->patchbay().setChangeCallback([&] { ++calls; });
    patchbay->connectFromOutside(kSynth);
    ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
    EXPECT_EQ(keeper->patchbay().connections(), std::vector{kSynth});
    loseAndWait();
    const int beforeReturn = calls;
    returnAndWait();
    EXPECT_GT(calls, beforeReturn);
}
