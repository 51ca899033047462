// The MIDI bytes PLK sends, read into the synthesizer's calls.
#include "synth/synth_target.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

using namespace plinkora;

namespace {

class RecordingTarget final : public SynthTarget
{
public:
    void noteOn(int c, int k, int v) override { calls.push_back("on " + s(c, k, v)); }
    void noteOff(int c, int k) override { calls.push_back("off " + s(c, k)); }
    void controlChange(int c, int n, int v) override { calls.push_back("cc " + s(c, n, v)); }
    void programChange(int c, int p) override { calls.push_back("program " + s(c, p)); }
    void pitchBend(int c, int v) override { calls.push_back("bend " + s(c, v)); }
    void channelPressure(int c, int v) override { calls.push_back("pressure " + s(c, v)); }
    void keyPressure(int c, int k, int v) override { calls.push_back("key pressure " + s(c, k, v)); }

    std::vector<std::string> calls;

private:
    static std::string s(int a, int b, int c = -1)
    {
        return std::to_string(a) + ' ' + std::to_string(b) + (c >= 0 ? ' ' + std::to_string(c) : "");
    }
};

std::vector<std::uint8_t> message(std::initializer_list<std::uint8_t> bytes)
{
    return bytes;
}

std::vector<std::string> play(std::initializer_list<std::uint8_t> bytes)
{
    RecordingTarget target;
    playMessages(message(bytes), target);
    return target.calls;
}

} // namespace

TEST(PlayMessages, EachChannelMessageBecomesItsCall)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(play({0x93, 60, 100}), V{"on 3 60 100"});
    EXPECT_EQ(play({0x80, 60, 0}), V{"off 0 60"});
    EXPECT_EQ(play({0x90, 60, 0}), V{"off 0 60"}); // velocity 0
    EXPECT_EQ(play({0xB0, 64, 127}), V{"cc 0 64 127"});
    EXPECT_EQ(play({0xCF, 19}), V{"program 15 19"});
    EXPECT_EQ(play({0xE1, 0x00, 0x40}), V{"bend 1 8192"});
    EXPECT_EQ(play({0xE0, 0x7F, 0x7F}), V{"bend 0 16383"});
    EXPECT_EQ(play({0xD2, 50}), V{"pressure 2 50"});
    EXPECT_EQ(play({0xA0, 60, 30}), V{"key pressure 0 60 30"});
}

TEST(PlayMessages, SeveralMessagesInOrderAndSystemBytesAndCutOffMessagesSkipped)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(play({0xB0, 0, 1, 0xC0, 5, 0x90, 62, 90}), (V{"cc 0 0 1", "program 0 5", "on 0 62 90"}));
    EXPECT_EQ(play({0xF8, 0x40, 0x90, 62, 90}), V{"on 0 62 90"});
    EXPECT_EQ(play({0x90, 62}), V{});
    EXPECT_EQ(play({}), V{});
}
