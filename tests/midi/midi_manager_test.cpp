#include "midi/midi_manager.h"
#include "midi/null_backend.h"
#include "midi/recording_backend.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace plinkora;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Op = RecordingBackend::Op;

/// A MIDIManager on a recording back end; the set-up calls are forgotten so each test sees
/// only what it caused.
class MIDIManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { make(); }

    /// Makes the manager; `prepare` may tell the back end to fail before the set-up runs.
    template <typename Prepare = void (*)(RecordingBackend&)> void make(Prepare prepare = [](RecordingBackend&) {})
    {
        manager.reset();
        auto owned = std::make_unique<RecordingBackend>();
        backend = owned.get();
        prepare(*backend);
        ::testing::internal::CaptureStdout();
        manager = std::make_unique<MIDIManager>(std::move(owned));
        setupOutput = ::testing::internal::GetCapturedStdout();
        setupCalls = backend->calls();
        backend->clear();
    }

    std::vector<Bytes> sent() const { return backend->sentMessages(); }

    std::vector<Op> ops() const
    {
        std::vector<Op> result;
        for (const RecordingBackend::Call& call : backend->calls())
            result.push_back(call.op);
        return result;
    }

    /// Runs `action` and returns what it printed on standard output.
    template <typename Action> std::string printedBy(Action&& action)
    {
        ::testing::internal::CaptureStdout();
        action();
        return ::testing::internal::GetCapturedStdout();
    }

    RecordingBackend* backend = nullptr;
    std::unique_ptr<MIDIManager> manager;
    std::string setupOutput;
    std::vector<RecordingBackend::Call> setupCalls;
};

} // namespace

// Messages

TEST_F(MIDIManagerTest, NoteOnSendsNinetyPlusChannelThenNoteThenVelocity)
{
    // GIVEN a published source
    // WHEN note 60 starts with velocity 100 on channel 3
    manager->sendNoteOn(60, 100, 3);
    // THEN one 3-byte message 93 3C 64 is sent
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x93, 0x3C, 0x64}}));
    ASSERT_EQ(backend->calls().size(), 1u);
    EXPECT_EQ(backend->calls()[0].length, 3);
}

TEST_F(MIDIManagerTest, NoteOnMasksNoteAndVelocityToSevenBitsInsteadOfClamping)
{
    // GIVEN a published source
    // WHEN a note and a velocity above 127 are sent
    manager->sendNoteOn(200, 255, 0);
    // THEN both are masked: 200 & 0x7F = 0x48, 255 & 0x7F = 0x7F
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 0x48, 0x7F}}));
}

TEST_F(MIDIManagerTest, NoteOffSendsEightyPlusChannelThenNoteThenZero)
{
    // GIVEN a sounding note 60 on channel 2
    manager->sendNoteOn(60, 100, 2);
    backend->clear();
    // WHEN it stops
    manager->sendNoteOff(60, 2);
    // THEN 82 3C 00 is sent in a 3-byte message
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x82, 0x3C, 0x00}}));
    EXPECT_EQ(backend->calls()[0].length, 3);
}

TEST_F(MIDIManagerTest, NoteOffMasksTheNote)
{
    // GIVEN a published source
    // WHEN note 255 stops
    manager->sendNoteOff(255, 0);
    // THEN the note byte is 0x7F
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x80, 0x7F, 0x00}}));
}

TEST_F(MIDIManagerTest, PitchBendSendsTheLowSevenBitsThenTheHighSevenBits)
{
    // GIVEN a published source
    // WHEN the bend is centred, at its top, at its bottom
    manager->sendPitchBend(8192, 0);
    manager->sendPitchBend(16383, 0);
    manager->sendPitchBend(0, 0);
    // THEN E0 00 40, E0 7F 7F, E0 00 00
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xE0, 0x00, 0x40}, {0xE0, 0x7F, 0x7F}, {0xE0, 0x00, 0x00}}));
}

TEST_F(MIDIManagerTest, PitchBendAboveFourteenBitsIsMaskedNotClamped)
{
    // GIVEN a published source
    // WHEN a bend value of 0xFFFF is sent on channel 1
    manager->sendPitchBend(0xFFFF, 1);
    // THEN low = 0x7F and high = (0xFFFF >> 7) & 0x7F = 0x7F
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xE1, 0x7F, 0x7F}}));
}

TEST_F(MIDIManagerTest, ControlChangeSendsBZeroPlusChannelThenMaskedControllerAndValue)
{
    // GIVEN a published source
    // WHEN controller 200 gets value 10 on channel 3
    manager->sendControlChange(200, 10, 3);
    // THEN B3 48 0A
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB3, 0x48, 0x0A}}));
    EXPECT_EQ(backend->calls()[0].length, 3);
}

TEST_F(MIDIManagerTest, ControlChangeMasksTheValue)
{
    // GIVEN a published source
    // WHEN controller 1 gets value 130
    manager->sendControlChange(1, 130, 0);
    // THEN the value byte is 130 & 0x7F = 0x02
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 0x01, 0x02}}));
}

TEST_F(MIDIManagerTest, ProgramChangeIsATwoByteMessage)
{
    // GIVEN a published source
    // WHEN program 5 is chosen on channel 2
    manager->sendProgramChange(5, 2);
    // THEN C2 05 is sent as a message of two bytes
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xC2, 0x05}}));
    ASSERT_EQ(backend->calls().size(), 1u);
    EXPECT_EQ(backend->calls()[0].length, 2);
}

TEST_F(MIDIManagerTest, ProgramChangeMasksTheProgram)
{
    // GIVEN a published source
    // WHEN program 130 is chosen
    manager->sendProgramChange(130, 0);
    // THEN the program byte is 0x02
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xC0, 0x02}}));
}

TEST_F(MIDIManagerTest, EveryMessageIsHandedOverAloneWithJustItsOwnBytes)
{
    // GIVEN a back end that checks each message it is handed
    struct CheckingBackend final : NullBackend
    {
        std::string_view apiName() const override { return "checking"; }
        MIDIStatus send(std::uint32_t, MIDIBytes message) override
        {
            lengths.push_back(message.size());
            if (message.empty() || message[0] < 0x80)
                ++withoutStatusFirst;
            for (std::size_t i = 1; i < message.size(); ++i)
                if (message[i] >= 0x80)
                    ++statusAmongTheData;
            return kStatusOk;
        }
        std::vector<std::size_t> lengths;
        int withoutStatusFirst = 0;
        int statusAmongTheData = 0;
    };
    auto owned = std::make_unique<CheckingBackend>();
    CheckingBackend& checking = *owned;
    MIDIManager checked(std::move(owned));
    // WHEN every kind of message is sent, with every byte set
    checked.sendNoteOn(0xFF, 0xFF, 0xFF);
    checked.sendNoteOff(0xFF, 0xFF);
    checked.sendPitchBend(0xFFFF, 0xFF);
    checked.sendControlChange(0xFF, 0xFF, 0xFF);
    checked.sendProgramChange(0xFF, 0xFF);
    checked.cleanup();
    // THEN each send hands over one message, status byte first, three bytes long (two for the
    // program change), never batched with another
    EXPECT_EQ(checking.lengths, (std::vector<std::size_t>{3, 3, 3, 3, 2, 3, 3}));
    EXPECT_EQ(checking.withoutStatusFirst, 0);
    EXPECT_EQ(checking.statusAmongTheData, 0);
}

// Channels

TEST_F(MIDIManagerTest, ChannelSixteenWrapsToZeroAndSeventeenToOne)
{
    // GIVEN a published source
    // WHEN messages go to channels 16 and 17
    manager->sendControlChange(7, 100, 16);
    manager->sendControlChange(7, 100, 17);
    manager->sendProgramChange(1, 16);
    manager->sendPitchBend(8192, 17);
    // THEN they go out on channels 0 and 1
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 0x07, 0x64}, {0xB1, 0x07, 0x64}, {0xC0, 0x01}, {0xE1, 0x00, 0x40}}));
}

// Set-up

TEST_F(MIDIManagerTest, SetupCreatesTheClientThenTheSourceBothNamedPLK)
{
    // GIVEN the manager was made (SetUp)
    // THEN the client came first, then the source of that client, both called PLK
    ASSERT_EQ(setupCalls.size(), 2u);
    EXPECT_EQ(setupCalls[0].op, Op::CreateClient);
    EXPECT_EQ(setupCalls[1].op, Op::CreateSource);
    EXPECT_EQ(setupCalls[1].reference, manager->midiClient);
    EXPECT_EQ(backend->clientName, "PLK");
    EXPECT_EQ(backend->sourceName, "PLK");
    EXPECT_NE(manager->midiClient, 0u);
    EXPECT_NE(manager->virtualSource, 0u);
    EXPECT_EQ(manager->outputPort, 0u);
    EXPECT_EQ(setupOutput, "");
}

TEST_F(MIDIManagerTest, ClientFailurePrintsItsLineAndNoSourceIsAttempted)
{
    // GIVEN a back end whose client cannot be made
    // WHEN the manager is made
    make([](RecordingBackend& b) { b.failWith(Op::CreateClient, kStatusServiceUnavailable); });
    // THEN exactly the client error line is printed and no source was tried
    EXPECT_EQ(setupOutput, "Error creating MIDI client: -2\n");
    ASSERT_EQ(setupCalls.size(), 1u);
    EXPECT_EQ(setupCalls[0].op, Op::CreateClient);
    EXPECT_EQ(manager->midiClient, 0u);
    EXPECT_EQ(manager->virtualSource, 0u);
}

TEST_F(MIDIManagerTest, SourceFailurePrintsItsLine)
{
    // GIVEN a back end whose source cannot be published
    // WHEN the manager is made
    make([](RecordingBackend& b) { b.failWith(Op::CreateSource, kStatusSourceFailed); });
    // THEN the source error line is printed after a client was made
    EXPECT_EQ(setupOutput, "Error creating MIDI source: -4\n");
    ASSERT_EQ(setupCalls.size(), 2u);
    EXPECT_NE(manager->midiClient, 0u);
    EXPECT_EQ(manager->virtualSource, 0u);
}

TEST_F(MIDIManagerTest, WithoutAClientNothingIsEverSentAndCleanupDisposesNothing)
{
    // GIVEN a manager whose client could not be made
    make([](RecordingBackend& b) { b.failWith(Op::CreateClient, kStatusClientFailed); });
    // WHEN every kind of message is sent and then cleanup runs
    const std::string printed = printedBy([&] {
        manager->sendNoteOn(60, 100, 0);
        manager->sendNoteOff(60, 0);
        manager->sendPitchBend(0, 0);
        manager->sendControlChange(1, 1, 0);
        manager->sendProgramChange(1, 0);
        manager->cleanup();
    });
    // THEN the back end saw no call at all and nothing was printed
    EXPECT_TRUE(backend->calls().empty());
    EXPECT_EQ(printed, "");
}

TEST_F(MIDIManagerTest, WithoutASourceCleanupDisposesOnlyTheClient)
{
    // GIVEN a manager whose client exists but whose source could not be published
    make([](RecordingBackend& b) { b.failWith(Op::CreateSource, kStatusSourceFailed); });
    // WHEN cleanup runs
    manager->cleanup();
    // THEN nothing is sent, no source is disposed, the client is
    EXPECT_EQ(ops(), (std::vector<Op>{Op::DisposeClient}));
}

// The set of sounding notes

TEST_F(MIDIManagerTest, ASecondNoteOnForAHeldKeySendsNothing)
{
    // GIVEN note 60 sounding (the key is held)
    manager->sendNoteOn(60, 100, 0);
    // WHEN auto-repeat sends note on 60 again
    manager->sendNoteOn(60, 100, 0);
    manager->sendNoteOn(60, 90, 0);
    // THEN only the first was sent
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 0x3C, 0x64}}));
}

TEST_F(MIDIManagerTest, AfterNoteOffTheNextNoteOnIsSentAgain)
{
    // GIVEN note 60 started and stopped
    manager->sendNoteOn(60, 100, 0);
    manager->sendNoteOff(60, 0);
    // WHEN it starts again
    manager->sendNoteOn(60, 100, 0);
    // THEN on, off, on were all sent
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 0x3C, 0x64}, {0x80, 0x3C, 0x00}, {0x90, 0x3C, 0x64}}));
}

TEST_F(MIDIManagerTest, TheSameNoteOnAnotherChannelIsNotSentWhileItSounds)
{
    // GIVEN note 60 sounding on channel 0
    manager->sendNoteOn(60, 100, 0);
    // WHEN note 60 starts on channel 5
    manager->sendNoteOn(60, 100, 5);
    // THEN only the first was sent: the note set has no channel
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 0x3C, 0x64}}));
}

TEST_F(MIDIManagerTest, NoteOffForANoteNeverStartedIsStillSent)
{
    // GIVEN no sounding note
    // WHEN note 61 stops on channel 4
    manager->sendNoteOff(61, 4);
    // THEN 84 3D 00 is sent anyway
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x84, 0x3D, 0x00}}));
}

TEST_F(MIDIManagerTest, TheNoteSetKeepsTheNoteAsGivenNotAsMasked)
{
    // GIVEN note 200 sounding (sent as 0x48)
    manager->sendNoteOn(200, 100, 0);
    // WHEN note 72 (0x48) starts
    manager->sendNoteOn(72, 100, 0);
    // THEN the set is keyed by the note as given, so both are sent
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 0x48, 0x64}, {0x90, 0x48, 0x64}}));
    EXPECT_TRUE(manager->activeNotes.contains(200));
    EXPECT_TRUE(manager->activeNotes.contains(72));
}

// Cleanup

TEST_F(MIDIManagerTest, CleanupStopsSoundingNotesInAscendingOrderThenCentresTheBendThenZeroesModulation)
{
    // GIVEN notes 64 and 60 sounding (started in that order)
    manager->sendNoteOn(64, 100, 0);
    manager->sendNoteOn(60, 100, 0);
    backend->clear();
    // WHEN cleanup runs
    const std::string printed = printedBy([&] { manager->cleanup(); });
    // THEN 80 3C 00, 80 40 00, E0 00 40, B0 01 00, then the source, then the client go
    EXPECT_EQ(sent(),
              (std::vector<Bytes>{{0x80, 0x3C, 0x00}, {0x80, 0x40, 0x00}, {0xE0, 0x00, 0x40}, {0xB0, 0x01, 0x00}}));
    EXPECT_EQ(ops(), (std::vector<Op>{Op::Send, Op::Send, Op::Send, Op::Send, Op::DisposeSource, Op::DisposeClient}));
    const auto& calls = backend->calls();
    EXPECT_EQ(calls[4].reference, manager->virtualSource);
    EXPECT_EQ(calls[5].reference, manager->midiClient);
    EXPECT_TRUE(manager->activeNotes.empty());
    EXPECT_EQ(printed, "");
}

TEST_F(MIDIManagerTest, CleanupWithNoSoundingNoteSendsOnlyBendCentreAndModulationZero)
{
    // GIVEN no sounding note
    // WHEN cleanup runs
    manager->cleanup();
    // THEN only the last two messages are sent before the source and client go
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xE0, 0x00, 0x40}, {0xB0, 0x01, 0x00}}));
    EXPECT_EQ(ops(), (std::vector<Op>{Op::Send, Op::Send, Op::DisposeSource, Op::DisposeClient}));
}

TEST_F(MIDIManagerTest, CleanupStopsANoteStartedOnChannelFiveOnChannelZero)
{
    // GIVEN note 67 sounding on channel 5
    manager->sendNoteOn(67, 100, 5);
    backend->clear();
    // WHEN cleanup runs
    manager->cleanup();
    // THEN its note off goes out on channel 0
    ASSERT_FALSE(sent().empty());
    EXPECT_EQ(sent()[0], (Bytes{0x80, 0x43, 0x00}));
}

TEST_F(MIDIManagerTest, CleanupGoesOnWhenANoteOffFails)
{
    // GIVEN notes 60 and 64 sounding and a back end that now fails every send with -5
    manager->sendNoteOn(60, 100, 0);
    manager->sendNoteOn(64, 100, 0);
    backend->clear();
    backend->failWith(Op::Send, kStatusSendFailed);
    // WHEN cleanup runs
    const std::string printed = printedBy([&] { manager->cleanup(); });
    // THEN every message was still tried, each failure printed its line, source and client went
    EXPECT_EQ(sent().size(), 4u);
    EXPECT_EQ(printed,
              "Error sending MIDI note off: -5\n"
              "Error sending MIDI note off: -5\n"
              "Error sending MIDI pitch bend: -5\n"
              "Error sending MIDI CC1: -5\n");
    EXPECT_EQ(ops().back(), Op::DisposeClient);
    EXPECT_EQ(ops()[ops().size() - 2], Op::DisposeSource);
}

// Send errors

TEST_F(MIDIManagerTest, EachFailedSendPrintsItsLineWithTheSignedStatus)
{
    // GIVEN a back end that fails every send with -5
    backend->failWith(Op::Send, kStatusSendFailed);
    // WHEN every kind of message is sent
    const std::string printed = printedBy([&] {
        manager->sendNoteOn(60, 100, 0);
        manager->sendNoteOff(60, 0);
        manager->sendPitchBend(8192, 0);
        manager->sendProgramChange(5, 2);
    });
    // THEN each prints exactly its line
    EXPECT_EQ(printed,
              "Error sending MIDI note on: -5\n"
              "Error sending MIDI note off: -5\n"
              "Error sending MIDI pitch bend: -5\n"
              "Error sending MIDI program change: -5\n");
}

TEST_F(MIDIManagerTest, AFailedControlChangeNamesTheControllerBeforeMasking)
{
    // GIVEN a back end that fails every send with -5
    backend->failWith(Op::Send, kStatusSendFailed);
    // WHEN controller 200 gets value 10 on channel 3
    const std::string printed = printedBy([&] { manager->sendControlChange(200, 10, 3); });
    // THEN the line names CC200 although B3 48 0A was tried
    EXPECT_EQ(printed, "Error sending MIDI CC200: -5\n");
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB3, 0x48, 0x0A}}));
}

TEST_F(MIDIManagerTest, APositiveStatusIsPrintedAsIs)
{
    // GIVEN a back end that fails sends with an unusual positive status
    backend->failWith(Op::Send, static_cast<MIDIStatus>(12345)); // any number a service may answer
    // WHEN a bend is sent
    const std::string printed = printedBy([&] { manager->sendPitchBend(0, 0); });
    // THEN the number is printed in signed decimal
    EXPECT_EQ(printed, "Error sending MIDI pitch bend: 12345\n");
}

TEST_F(MIDIManagerTest, AFailedNoteOnStaysInTheNoteSet)
{
    // GIVEN a back end that fails every send
    backend->failWith(Op::Send, kStatusSendFailed);
    // WHEN note 60 starts (and fails) and auto-repeat starts it again
    const std::string printed = printedBy([&] {
        manager->sendNoteOn(60, 100, 0);
        manager->sendNoteOn(60, 100, 0);
    });
    // THEN the note was inserted before the send and not taken out: the repeat is not tried
    EXPECT_TRUE(manager->activeNotes.contains(60));
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(printed, "Error sending MIDI note on: -5\n");
    // AND cleanup still stops it
    backend->failWith(Op::Send, kStatusOk);
    backend->clear();
    manager->cleanup();
    ASSERT_FALSE(sent().empty());
    EXPECT_EQ(sent()[0], (Bytes{0x80, 0x3C, 0x00}));
}

TEST_F(MIDIManagerTest, ASuccessfulSendPrintsNothing)
{
    // GIVEN a working back end
    // WHEN every kind of message is sent
    const std::string printed = printedBy([&] {
        manager->sendNoteOn(60, 100, 0);
        manager->sendNoteOff(60, 0);
        manager->sendPitchBend(8192, 0);
        manager->sendControlChange(1, 0, 0);
        manager->sendProgramChange(5, 2);
    });
    // THEN nothing is printed
    EXPECT_EQ(printed, "");
}

TEST(MIDIManagerLifetime, DestroyingTheManagerWithoutCleanupSendsAndDisposesNothing)
{
    // GIVEN a manager whose back end forwards to a recording that outlives it, with a note sounding
    struct Forwarding final : MIDIBackend
    {
        explicit Forwarding(RecordingBackend& to)
            : target(to)
        {
        }
        std::string_view apiName() const override { return "forwarding"; }
        MIDIStatus createClient(std::string_view n, std::uint32_t& c) override { return target.createClient(n, c); }
        MIDIStatus createSource(std::uint32_t c, std::string_view n, std::uint32_t& s) override
        {
            return target.createSource(c, n, s);
        }
        MIDIStatus send(std::uint32_t s, MIDIBytes m) override { return target.send(s, m); }
        void disposeSource(std::uint32_t s) override { target.disposeSource(s); }
        void disposeClient(std::uint32_t c) override { target.disposeClient(c); }
        RecordingBackend& target;
    };
    RecordingBackend recording;
    auto manager = std::make_unique<MIDIManager>(std::make_unique<Forwarding>(recording));
    manager->sendNoteOn(60, 100, 0);
    recording.clear();
    // WHEN the manager is destroyed without cleanup
    manager.reset();
    // THEN the back end saw no call: no note off, no disposal
    EXPECT_TRUE(recording.calls().empty());
}

TEST_F(MIDIManagerTest, StoppingTheActiveNotesSendsTheirNoteOffsOnTheGivenChannelInAscendingOrder)
{
    // GIVEN notes 64 and 48 started on channel 0 and 60 on channel 3
    manager->sendNoteOn(64, 100, 0);
    manager->sendNoteOn(48, 90, 0);
    manager->sendNoteOn(60, 80, 3);
    backend->clear();
    // WHEN the sounding notes are stopped on channel 5
    manager->stopActiveNotes(5);
    // THEN one note-off each, on channel 5, lowest first, and nothing counts as sounding
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x85, 48, 0}, {0x85, 60, 0}, {0x85, 64, 0}}));
    EXPECT_TRUE(manager->activeNotes.empty());
    // AND a second stop sends nothing
    backend->clear();
    manager->stopActiveNotes(5);
    EXPECT_TRUE(sent().empty());
}

TEST_F(MIDIManagerTest, AllChannelsOffSendsSustainAllNotesOffAndAllSoundOffOnEachChannelInTurn)
{
    manager->sendAllChannelsOff();
    std::vector<Bytes> expected;
    for (std::uint8_t channel = 0; channel < 16; ++channel) {
        const auto status = static_cast<std::uint8_t>(0xB0 | channel);
        expected.push_back({status, 64, 0});
        expected.push_back({status, 123, 0});
        expected.push_back({status, 120, 0});
    }
    EXPECT_EQ(sent(), expected);
}

TEST_F(MIDIManagerTest, BendersAtRestAreBendCentreThenModulationZeroOnChannelZero)
{
    manager->sendBendersAtRest();
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xE0, 0x00, 0x40}, {0xB0, 0x01, 0x00}}));
}

TEST_F(MIDIManagerTest, WithoutASourceThePanicMessagesSendNothing)
{
    make([](RecordingBackend& b) { b.failWith(Op::CreateSource, kStatusSourceFailed); });
    manager->activeNotes.insert(60);
    manager->stopActiveNotes(0);
    manager->sendAllChannelsOff();
    manager->sendBendersAtRest();
    EXPECT_TRUE(sent().empty());
}
