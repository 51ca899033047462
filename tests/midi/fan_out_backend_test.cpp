// The fan-out: every message leaves the MIDI output once and reaches both the port and the
// listener (the built-in synthesizer), with the port's statuses.
#include "midi/fan_out_backend.h"
#include "midi/midi_manager.h"
#include "midi/recording_backend.h"

#include <gtest/gtest.h>

#include <vector>

using namespace plinkora;

namespace {

class RecordingListener final : public MIDIListener
{
public:
    void midiSent(MIDIBytes message) override { heard.emplace_back(message.begin(), message.end()); }
    std::vector<std::vector<std::uint8_t>> heard;
};

struct FanOut
{
    FanOut()
    {
        auto recording = std::make_unique<RecordingBackend>();
        port = recording.get();
        auto fanOut = std::make_unique<FanOutBackend>(std::move(recording), &listener);
        backend = fanOut.get();
        manager = std::make_unique<MIDIManager>(std::move(fanOut));
    }
    RecordingListener listener;
    RecordingBackend* port = nullptr;
    FanOutBackend* backend = nullptr;
    std::unique_ptr<MIDIManager> manager;
};

} // namespace

TEST(FanOutBackend, EveryMessageReachesThePortAndTheListenerOnceInTheSameOrder)
{
    FanOut f;
    f.manager->sendProgramChange(19, 0);
    f.manager->sendControlChange(0, 1, 0);    // bank
    f.manager->sendControlChange(7, 100, 0);  // volume
    f.manager->sendControlChange(10, 30, 0);  // pan
    f.manager->sendControlChange(91, 80, 0);  // reverb
    f.manager->sendControlChange(93, 20, 0);  // chorus
    f.manager->sendControlChange(64, 127, 0); // sustain
    f.manager->sendNoteOn(60, 100, 0);
    f.manager->sendNoteOn(60, 100, 0); // a held key's repeat: not sent again
    f.manager->sendPitchBend(10000, 0);
    f.manager->sendControlChange(1, 64, 0); // modulation
    f.manager->sendNoteOff(60, 0);
    const std::vector<std::vector<std::uint8_t>> expected{
        {0xC0, 19},      {0xB0, 0, 1},    {0xB0, 7, 100},     {0xB0, 10, 30}, {0xB0, 91, 80}, {0xB0, 93, 20},
        {0xB0, 64, 127}, {0x90, 60, 100}, {0xE0, 0x10, 0x4E}, {0xB0, 1, 64},  {0x80, 60, 0},
    };
    EXPECT_EQ(f.port->sentMessages(), expected);
    EXPECT_EQ(f.listener.heard, expected);
}

TEST(FanOutBackend, TheShutDownSilencingIsHeardToo)
{
    FanOut f;
    f.manager->sendNoteOn(60, 100, 0);
    f.manager->sendNoteOn(64, 100, 0);
    f.listener.heard.clear();
    f.manager->cleanup();
    const std::vector<std::vector<std::uint8_t>> expected{
        {0x80, 60, 0}, {0x80, 64, 0}, {0xE0, 0x00, 0x40}, {0xB0, 1, 0}};
    EXPECT_EQ(f.listener.heard, expected);
    EXPECT_EQ(f.port->calls().back().op, RecordingBackend::Op::DisposeClient);
}

TEST(FanOutBackend, ThePortsStatusesWinAndTheListenerHearsEvenWhenThePortFails)
{
    FanOut f;
    EXPECT_EQ(f.backend->apiName(), "recording");
    EXPECT_EQ(f.port->clientName, "PLK");
    EXPECT_EQ(f.port->sourceName, "PLK");
    f.port->failWith(RecordingBackend::Op::Send, kStatusSendFailed);
    const std::uint8_t noteOn[] = {0x90, 62, 90};
    EXPECT_EQ(f.backend->send(f.manager->virtualSource, noteOn), kStatusSendFailed);
    ASSERT_EQ(f.listener.heard.size(), 1u);
    EXPECT_EQ(f.listener.heard[0], (std::vector<std::uint8_t>{0x90, 62, 90}));
}

TEST(FanOutBackend, WithoutAListenerOnlyThePortHearsAndAFailedPortFailsTheSource)
{
    auto recording = std::make_unique<RecordingBackend>();
    RecordingBackend* port = recording.get();
    port->failWith(RecordingBackend::Op::CreateSource, kStatusSourceFailed);
    FanOutBackend fanOut(std::move(recording), nullptr);
    std::uint32_t client = 0;
    std::uint32_t source = 0;
    EXPECT_EQ(fanOut.createClient("PLK", client), kStatusOk);
    EXPECT_EQ(fanOut.createSource(client, "PLK", source), kStatusSourceFailed);
    EXPECT_EQ(source, 0u);
    const std::uint8_t programChange[] = {0xC0, 0};
    EXPECT_EQ(fanOut.send(1, programChange), kStatusNoSuchEndpoint); // the port's answer: no source 1
}
