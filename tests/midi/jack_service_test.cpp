// PLK's connections on a private JACK server through the JACK patchbay, and the MIDI output
// through a server that is killed or stopped and started again under the same name: the one
// line each way, no line per send meanwhile, PLK published again and connected again to the
// receiver it was connected to, which then hears a note played after the return.
#include "midi/backend_factory.h"
#include "midi/jack_patchbay.h"
#include "midi/midi_manager.h"
#include "midi/recovering_backend.h"
#include "support/child_process.h"
#include "support/event_loop.h"
#include "support/jack_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#ifndef PLINKORA_JACK_MIDI_RECEIVER
#error "PLINKORA_JACK_MIDI_RECEIVER must name the jack_midi_receiver executable"
#endif

using namespace plinkora;
using plinkora::testing::ChildProcess;
using plinkora::testing::JackServer;
using plinkora::testing::ScopedEnvironment;
using namespace std::chrono_literals;

namespace {

constexpr auto kTimeout = 20s;

template <typename Condition> bool waitUntil(Condition condition, std::chrono::milliseconds timeout = kTimeout)
{
    return plinkora::testing::waitUntil(condition, timeout);
}

bool contains(const std::vector<MIDIDestination>& list, const MIDIDestination& item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

class JackServiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server = JackServer::start();
        environment = std::make_unique<ScopedEnvironment>("JACK_DEFAULT_SERVER", server->name());
    }

    void TearDown() override
    {
        if (HasFailure() && server)
            std::printf("%s\n", server->process().describe().c_str());
        manager.reset();
        receivers.clear();
        environment.reset();
        server.reset();
    }

    /// A receiver called `client` (unique to this process), listening to `connectTo` if given.
    ChildProcess& startReceiver(const std::string& client, const std::string& connectTo = {})
    {
        ChildProcess::Options options;
        options.arguments = {"--server", server->name(), "--client", client};
        if (!connectTo.empty()) {
            options.arguments.push_back("--connect");
            options.arguments.push_back(connectTo);
        }
        options.environment = server->environment();
        receivers.push_back(ChildProcess::start(PLINKORA_JACK_MIDI_RECEIVER, options));
        ChildProcess& receiver = *receivers.back();
        EXPECT_TRUE(receiver.waitForLine("ready " + client + ":in", kTimeout)) << receiver.describe();
        return receiver;
    }

    /// The manager on the JACK back end inside a recovering back end, watching.
    void makeManager()
    {
        auto recovering = makeRecoveringBackend(makeBackend(MIDIApiKind::Jack));
        keeper = recovering.get();
        manager = std::make_unique<MIDIManager>(std::move(recovering));
        ASSERT_NE(manager->virtualSource, 0u);
        keeper->watch([this](std::string_view text) { announced.emplace_back(text); });
    }

    /// Plays note on/off pairs until `receiver` prints the note on (JACK may lose the events
    /// of a cycle in an xrun on a loaded machine), up to a few times.
    bool heard(ChildProcess& receiver, std::uint8_t note)
    {
        char expected[16];
        std::snprintf(expected, sizeof expected, "90 %02X 64", note);
        for (int attempt = 0; attempt < 5; ++attempt) {
            const std::size_t from = receiver.lineCount();
            manager->sendNoteOn(note, 100, 0);
            manager->sendNoteOff(note, 0);
            if (receiver.waitForLine(expected, 3s, from))
                return true;
        }
        return false;
    }

    const std::string receiverName = "plk-listener-" + std::to_string(getpid());
    std::unique_ptr<JackServer> server;
    std::unique_ptr<ScopedEnvironment> environment;
    std::vector<std::unique_ptr<ChildProcess>> receivers;
    std::unique_ptr<MIDIManager> manager;
    RecoveringBackend* keeper = nullptr;
    std::vector<std::string> announced;
};

} // namespace

TEST_F(JackServiceTest, ThePatchbayListsInputsConnectsDisconnectsAndTellsOfChanges)
{
    // GIVEN PLK published, a receiver not connected to it, and a patchbay with a change counter
    makeManager();
    startReceiver(receiverName);
    JackPatchbay patchbay;
    std::atomic<int> changes{0};
    patchbay.setChangeCallback([&] { ++changes; });
    const MIDIDestination input{receiverName, "in"};

    // THEN the receiver's input is listed, PLK's own port and the patchbay's client are not,
    // and PLK is connected to nothing
    const std::vector<MIDIDestination> listed = patchbay.destinations();
    EXPECT_TRUE(contains(listed, input));
    for (const MIDIDestination& destination : listed)
        EXPECT_NE(destination.client, "PLK") << destination.name();
    EXPECT_TRUE(patchbay.sourcePublished());
    EXPECT_TRUE(patchbay.connections().empty());
    EXPECT_FALSE(patchbay.connect({"nobody", "in"}));

    // WHEN PLK is connected to the receiver (twice) THEN it is connected, a change was told,
    // and a note reaches the receiver
    EXPECT_TRUE(patchbay.connect(input));
    EXPECT_TRUE(patchbay.connect(input));
    EXPECT_EQ(patchbay.connections(), std::vector{input});
    EXPECT_TRUE(waitUntil([&] { return changes.load() > 0; }));
    EXPECT_TRUE(heard(*receivers.back(), 61));

    // WHEN it is disconnected (twice) THEN nothing is connected and a change was told
    const int before = changes.load();
    EXPECT_TRUE(patchbay.disconnect(input));
    EXPECT_TRUE(patchbay.disconnect(input));
    EXPECT_TRUE(patchbay.connections().empty());
    EXPECT_TRUE(waitUntil([&] { return changes.load() > before; }));

    // WHEN another program's input appears THEN a change is told and it is listed
    const int beforeNew = changes.load();
    startReceiver(receiverName + "-b");
    EXPECT_TRUE(waitUntil([&] { return changes.load() > beforeNew; }));
    EXPECT_TRUE(contains(patchbay.destinations(), MIDIDestination{receiverName + "-b", "in"}));
    manager->cleanup();
}

TEST_F(JackServiceTest, ThePatchbayClientHasNoPorts)
{
    JackPatchbay patchbay;
    EXPECT_TRUE(patchbay.connections().empty()); // opens its client
    EXPECT_FALSE(patchbay.sourcePublished());    // no PLK yet
    for (const std::string& port : server->ports())
        EXPECT_EQ(port.rfind("PLK-patchbay", 0), std::string::npos) << port;
}

namespace {
enum class Ending
{
    Killed,
    Stopped,
};

class JackServiceLossTest : public JackServiceTest, public ::testing::WithParamInterface<Ending>
{
};
} // namespace

TEST_P(JackServiceLossTest, PLKComesBackConnectedToItsReceiverAfterTheServerDiedAndReturned)
{
    // GIVEN PLK published and connected (by the receiver) to a receiver, a note sounding
    makeManager();
    ChildProcess& first = startReceiver(receiverName, "PLK:PLK");
    ASSERT_TRUE(first.waitForLine("connected PLK:PLK", kTimeout)) << first.describe();
    const MIDIDestination input{receiverName, "in"};
    ASSERT_TRUE(waitUntil([&] { return contains(keeper->rememberedConnections(), input); }));
    ASSERT_TRUE(heard(first, 50));
    manager->sendNoteOn(52, 100, 0);

    // WHEN the server dies, while messages keep being sent
    ::testing::internal::CaptureStdout();
    if (GetParam() == Ending::Killed)
        server->kill();
    else
        server->stop();
    ASSERT_TRUE(waitUntil([&] { return announced.size() == 1; }));
    for (int i = 0; i < 3000; ++i)
        manager->sendControlChange(7, static_cast<std::uint8_t>(i % 128), 0);
    receivers.clear(); // the receiver ended with its server

    // AND a server of the same name starts again, with the receiver (which connects nothing
    // itself this time)
    const auto restarted = std::chrono::steady_clock::now();
    server->restart();
    ChildProcess& second = startReceiver(receiverName);
    ASSERT_TRUE(waitUntil([&] { return announced.size() == 2; }));
    const auto back = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitUntil([&] { return contains(keeper->patchbay().connections(), input); }))
        << "PLK not connected again to " << input.name();
    const std::string printed = ::testing::internal::GetCapturedStdout();

    // THEN one line each way and nothing per send, both announcements, PLK published again and
    // connected to the receiver, which hears a note played now
    EXPECT_EQ(printed, "MIDI output lost: jack\nMIDI output back: jack\n");
    EXPECT_EQ(announced, (std::vector<std::string>{"MIDI output lost", "MIDI output back"}));
    EXPECT_TRUE(server->hasPort("PLK:PLK"));
    EXPECT_TRUE(heard(second, 67)) << second.describe();
    std::printf(
        "[ measured ] PLK back %lld ms after the server was started again\n",
        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(back - restarted).count()));

    // AND the clean-up afterwards is quiet
    ::testing::internal::CaptureStdout();
    manager->cleanup();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

INSTANTIATE_TEST_SUITE_P(KilledOrStopped, JackServiceLossTest, ::testing::Values(Ending::Killed, Ending::Stopped),
                         [](const ::testing::TestParamInfo<Ending>& ending) {
                             return ending.param == Ending::Killed ? std::string("Killed") : std::string("Stopped");
                         });
