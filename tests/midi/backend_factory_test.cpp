#include "midi/backend_factory.h"

#include "midi/midi_manager.h"
#include "midi/midi_service_probe.h"
#include "midi/recording_backend.h"
#include "midi/rtmidi_backend.h"
#include "support/child_process.h"
#if defined(PLINKORA_HAVE_JACK)
#include "support/jack_server.h"
#endif

#include <gtest/gtest.h>

#include <chrono>

using namespace plinkora;
#if defined(PLINKORA_HAVE_JACK)
using plinkora::testing::JackServer;
#endif
using plinkora::testing::ScopedEnvironment;

namespace {

// Fake probes for the automatic choice; they count how often they were asked.
int g_alsaAsked = 0;
int g_jackAsked = 0;
bool alsaYes()
{
    ++g_alsaAsked;
    return true;
}
bool alsaNo()
{
    ++g_alsaAsked;
    return false;
}
bool jackYes(std::unique_ptr<JackCycleWatch>&)
{
    ++g_jackAsked;
    return true;
}
bool jackNo(std::unique_ptr<JackCycleWatch>&)
{
    ++g_jackAsked;
    return false;
}

class BackendFactoryTest : public ::testing::Test
{
protected:
    void SetUp() override { g_alsaAsked = g_jackAsked = 0; }
};

} // namespace

// The name table

TEST_F(BackendFactoryTest, TheNameTableIsAlsaJackNullInThatOrder)
{
    // GIVEN the table
    // THEN it lists alsa, jack, null, in the order the automatic choice tries them
    ASSERT_EQ(kMIDIApis.size(), 3u);
    EXPECT_EQ(kMIDIApis[0].name, "alsa");
    EXPECT_EQ(kMIDIApis[1].name, "jack");
    EXPECT_EQ(kMIDIApis[2].name, "null");
}

TEST_F(BackendFactoryTest, EveryNameReadsAsItsSystemAndEverySystemHasItsName)
{
    for (const MIDIApiEntry& entry : kMIDIApis) {
        // GIVEN a name of the table
        // WHEN it is read
        const MIDIApiParse parsed = parseMIDIApi(entry.name);
        // THEN it gives its system, whose name is that name again
        ASSERT_TRUE(parsed.kind.has_value()) << entry.name;
        EXPECT_EQ(*parsed.kind, entry.kind);
        EXPECT_EQ(midiApiName(*parsed.kind), entry.name);
        EXPECT_EQ(parsed.error, "");
    }
}

TEST_F(BackendFactoryTest, NamesAreReadIgnoringCase)
{
    // GIVEN names typed in other cases
    // WHEN they are read
    // THEN they are the same systems
    EXPECT_EQ(parseMIDIApi("JACK").kind, MIDIApiKind::Jack);
    EXPECT_EQ(parseMIDIApi("Alsa").kind, MIDIApiKind::Alsa);
    EXPECT_EQ(parseMIDIApi("nUlL").kind, MIDIApiKind::Null);
}

TEST_F(BackendFactoryTest, AnUnknownNameGivesAMessageListingTheValidNamesAndPrintsNothing)
{
    // GIVEN a name not in the table
    // WHEN it is read
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const MIDIApiParse parsed = parseMIDIApi("oss");
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    // THEN there is no system, and a message for the caller to show
    EXPECT_FALSE(parsed.kind.has_value());
    EXPECT_EQ(parsed.error, "Unknown MIDI API \"oss\"; valid names are: alsa, jack, null");
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(BackendFactoryTest, AnEmptyNameIsNotAName)
{
    EXPECT_FALSE(parseMIDIApi("").kind.has_value());
    EXPECT_EQ(parseMIDIApi("").error, "Unknown MIDI API \"\"; valid names are: alsa, jack, null");
}

// Making back ends

TEST_F(BackendFactoryTest, EachSystemMakesABackEndOfThatName)
{
    for (const MIDIApiEntry& entry : kMIDIApis) {
        // GIVEN a system
        // WHEN its back end is made
        const std::unique_ptr<MIDIBackend> backend = makeBackend(entry.kind);
        // THEN it is there and carries the system's name
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->apiName(), entry.name);
    }
}

TEST_F(BackendFactoryTest, MakingByAnUnknownNameGivesNothingAndTheMessage)
{
    // GIVEN an unknown name
    std::string error;
    // WHEN a back end is made from it
    const std::unique_ptr<MIDIBackend> backend = makeBackend("coreaudio", error);
    // THEN there is none, and the message lists the valid names
    EXPECT_EQ(backend, nullptr);
    EXPECT_EQ(error, "Unknown MIDI API \"coreaudio\"; valid names are: alsa, jack, null");
}

TEST_F(BackendFactoryTest, MakingByANameGivesThatBackEnd)
{
    std::string error;
    const std::unique_ptr<MIDIBackend> backend = makeBackend("jack", error);
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->apiName(), "jack");
    EXPECT_EQ(error, "");
}

// The automatic choice

TEST_F(BackendFactoryTest, ARunningJackServerIsChosenFirstWithoutAskingTheSequencer)
{
    // GIVEN a sequencer and a JACK server (or PipeWire's JACK interface)
    // WHEN the automatic choice runs
    const MIDIApiKind chosen = defaultMIDIApi({&alsaYes, &jackYes});
    // THEN JACK, what the desktop runs, is chosen and the sequencer was not even asked
    EXPECT_EQ(chosen, MIDIApiKind::Jack);
    EXPECT_EQ(g_jackAsked, 1);
    EXPECT_EQ(g_alsaAsked, 0);
}

TEST_F(BackendFactoryTest, TheSequencerIsChosenWhenNoJackServerAnswers)
{
    EXPECT_EQ(defaultMIDIApi({&alsaYes, &jackNo}), MIDIApiKind::Alsa);
    EXPECT_EQ(g_jackAsked, 1);
    EXPECT_EQ(g_alsaAsked, 1);
}

TEST_F(BackendFactoryTest, TheNullSinkIsChosenWhenNothingElseWorks)
{
    EXPECT_EQ(defaultMIDIApi({&alsaNo, &jackNo}), MIDIApiKind::Null);
}

TEST_F(BackendFactoryTest, ChoosingAutomaticallyPrintsTheChosenBackEnd)
{
    // GIVEN only a JACK server
    std::string error;
    // WHEN the back end is chosen with no name asked for
    ::testing::internal::CaptureStdout();
    const std::unique_ptr<MIDIBackend> backend = chooseBackend("", error, {&alsaNo, &jackYes});
    const std::string out = ::testing::internal::GetCapturedStdout();
    // THEN it is JACK, and one line says so
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->apiName(), "jack");
    EXPECT_EQ(out, "MIDI output: jack\n");
    EXPECT_EQ(error, "");
}

TEST_F(BackendFactoryTest, AnExplicitChoiceIsUsedWithoutProbing)
{
    // GIVEN probes that say nothing works
    std::string error;
    // WHEN alsa is asked for by name
    ::testing::internal::CaptureStdout();
    const std::unique_ptr<MIDIBackend> backend = chooseBackend("alsa", error, {&alsaNo, &jackNo});
    const std::string out = ::testing::internal::GetCapturedStdout();
    // THEN alsa is used anyway, printed, and nothing was probed
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->apiName(), "alsa");
    EXPECT_EQ(out, "MIDI output: alsa\n");
    EXPECT_EQ(g_alsaAsked + g_jackAsked, 0);
}

TEST_F(BackendFactoryTest, AnUnknownExplicitChoiceGivesTheMessageAndPrintsNothing)
{
    std::string error;
    ::testing::internal::CaptureStdout();
    const std::unique_ptr<MIDIBackend> backend = chooseBackend("winmm", error, {&alsaYes, &jackYes});
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(backend, nullptr);
    EXPECT_EQ(error, "Unknown MIDI API \"winmm\"; valid names are: alsa, jack, null");
    EXPECT_EQ(out, "");
}

// The automatic choice on this machine

// The real JACK server's tests, where the build has JACK.
#if defined(PLINKORA_HAVE_JACK)
TEST_F(BackendFactoryTest, WithNoJackServerAndNoSequencerTheNullSinkIsChosenQuietlyAndFast)
{
    // GIVEN no sequencer on this machine and JACK pointed at a server that does not run
    if (alsaSequencerAvailable())
        GTEST_SKIP() << "this machine has an ALSA sequencer";
    const std::string absent = JackServer::uniqueName("plk-absent");
    const ScopedEnvironment server("JACK_DEFAULT_SERVER", absent);
    const ScopedEnvironment noStartFlag("JACK_NO_START_SERVER", std::nullopt);
    std::string error;
    // WHEN the back end is chosen automatically
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const auto started = std::chrono::steady_clock::now();
    const std::unique_ptr<MIDIBackend> backend = chooseBackend("", error);
    const auto took = std::chrono::steady_clock::now() - started;
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    // THEN it is the null sink, said in one line, nothing on standard error, and no server was started
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->apiName(), "null");
    EXPECT_EQ(out, "MIDI output: null\n");
    EXPECT_EQ(err, "");
    EXPECT_FALSE(JackServer::serverExists(absent));
    EXPECT_LT(took, std::chrono::seconds(2)); // a bound for a loaded machine; typically 10-30 ms
}

TEST_F(BackendFactoryTest, WithAJackServerRunningJackIsChosen)
{
    // GIVEN a private JACK server, and JACK clients pointed at it
    const std::unique_ptr<JackServer> jack = JackServer::start();
    const ScopedEnvironment server("JACK_DEFAULT_SERVER", jack->name());
    std::string error;
    // WHEN the back end is chosen automatically
    ::testing::internal::CaptureStdout();
    const auto started = std::chrono::steady_clock::now();
    const std::unique_ptr<MIDIBackend> backend = chooseBackend("", error);
    const auto took = std::chrono::steady_clock::now() - started;
    const std::string out = ::testing::internal::GetCapturedStdout();
    // THEN it is JACK, also where the machine has a sequencer
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->apiName(), "jack");
    EXPECT_EQ(out, "MIDI output: jack\n");
    EXPECT_LT(took, std::chrono::seconds(2)); // a bound for a loaded machine; typically 20-40 ms
    // AND the probe left no port behind
    for (const std::string& port : jack->ports())
        EXPECT_NE(port.rfind("PLK", 0), 0u) << port;
}

// The recovering back end around a port

TEST(RecoveringBackendAround, ABackEndWithoutLossesIsPassedThroughUnchanged)
{
    // GIVEN the recording back end (its service never goes) inside a recovering one
    auto owned = std::make_unique<RecordingBackend>();
    RecordingBackend* recording = owned.get();
    std::unique_ptr<RecoveringBackend> keeper = makeRecoveringBackend(std::move(owned));
    // WHEN the manager publishes, sends, and cleans up
    MIDIManager manager(std::move(keeper));
    manager.sendNoteOn(60, 100, 0);
    manager.cleanup();
    // THEN the back end saw the same calls as without it, and there is no patchbay to speak of
    using Op = RecordingBackend::Op;
    std::vector<Op> ops;
    for (const RecordingBackend::Call& call : recording->calls())
        ops.push_back(call.op);
    EXPECT_EQ(ops,
              (std::vector<Op>{Op::CreateClient, Op::CreateSource, Op::Send, Op::Send, Op::Send, Op::Send,
                               Op::DisposeSource, Op::DisposeClient}));
}

// Explicit choices that do not work
#endif

TEST_F(BackendFactoryTest, AnAlsaClientWithoutASequencerFailsQuietlyWithServiceUnavailable)
{
    // GIVEN no sequencer on this machine
    if (alsaSequencerAvailable())
        GTEST_SKIP() << "this machine has an ALSA sequencer";
    RtMidiBackend backend(RtMidiBackend::System::AlsaSequencer);
    std::uint32_t client = 0;
    // WHEN the client is made
    ::testing::internal::CaptureStderr();
    const MIDIStatus status = backend.createClient("PLK", client);
    const std::string err = ::testing::internal::GetCapturedStderr();
    // THEN it fails with -2, leaves the reference alone, and nothing is printed
    EXPECT_EQ(status, kStatusServiceUnavailable);
    EXPECT_EQ(client, 0u);
    EXPECT_EQ(err, "");
}

TEST_F(BackendFactoryTest, AnExplicitAlsaChoiceWithoutASequencerMakesSendsSilentNoOps)
{
    // GIVEN no sequencer, and alsa asked for by name
    if (alsaSequencerAvailable())
        GTEST_SKIP() << "this machine has an ALSA sequencer";
    std::string error;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    // WHEN the manager is made on it, sends, and cleans up
    {
        MIDIManager manager(chooseBackend("alsa", error));
        manager.sendNoteOn(60, 100, 0);
        manager.sendControlChange(1, 1, 0);
        manager.cleanup();
    }
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    // THEN the choice and the client error are the only lines
    EXPECT_EQ(out, "MIDI output: alsa\nError creating MIDI client: -2\n");
    EXPECT_EQ(err, "");
}
