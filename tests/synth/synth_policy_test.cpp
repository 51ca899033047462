// When the built-in synthesizer plays: auto follows PLK's readers on a fake patchbay.
#include "midi/midi_patchbay.h"
#include "synth/synth_control.h"
#include "synth/synth_policy.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace plinkora;

namespace {

class FakePatchbay final : public MIDIPatchbay
{
public:
    std::vector<MIDIDestination> destinations() override { return {{"Ardour", "midi_in"}, {"rx", "in"}}; }
    std::vector<MIDIDestination> connections() override { return connected; }
    bool connect(const MIDIDestination& destination) override
    {
        connected.push_back(destination);
        if (changed)
            changed();
        return true;
    }
    bool disconnect(const MIDIDestination& destination) override
    {
        std::erase(connected, destination);
        if (changed)
            changed();
        return true;
    }
    void setChangeCallback(std::function<void()> callback) override { changed = std::move(callback); }

    std::vector<MIDIDestination> connected;
    std::function<void()> changed;
};

void processEvents()
{
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
}

} // namespace

TEST(SynthMode, NamesAreReadInAnyCaseAndOthersAreRefused)
{
    EXPECT_EQ(parseSynthMode("auto"), SynthMode::Auto);
    EXPECT_EQ(parseSynthMode("ON"), SynthMode::On);
    EXPECT_EQ(parseSynthMode("Off"), SynthMode::Off);
    EXPECT_FALSE(parseSynthMode(""));
    EXPECT_FALSE(parseSynthMode("of"));
    EXPECT_FALSE(parseSynthMode("offf"));
    for (const SynthMode mode : {SynthMode::Auto, SynthMode::On, SynthMode::Off})
        EXPECT_EQ(parseSynthMode(synthModeName(mode)), mode);
}

TEST(SynthPolicy, AutoPlaysWhileNobodyReadsPlkFallsSilentWhenOneConnectsAndPlaysAgainAfterTheLastLeaves)
{
    FakePatchbay patchbay;
    SynthPolicy policy(SynthMode::Auto);
    std::vector<bool> changes;
    policy.setPlayingChanged([&](bool playing) { changes.push_back(playing); });
    policy.setPatchbay(&patchbay);
    EXPECT_TRUE(policy.shouldPlay());

    patchbay.connect({"Ardour", "midi_in"});
    processEvents();
    EXPECT_FALSE(policy.shouldPlay());
    EXPECT_EQ(policy.readers(), 1u);
    patchbay.connect({"rx", "in"});
    processEvents();
    patchbay.disconnect({"Ardour", "midi_in"});
    processEvents();
    EXPECT_FALSE(policy.shouldPlay()); // one still reads
    patchbay.disconnect({"rx", "in"});
    processEvents();
    EXPECT_TRUE(policy.shouldPlay());
    EXPECT_EQ(changes, (std::vector<bool>{false, true}));
}

TEST(SynthPolicy, OnAndOffIgnoreTheReaders)
{
    FakePatchbay patchbay;
    patchbay.connected = {{"Ardour", "midi_in"}};
    SynthPolicy policy(SynthMode::On);
    policy.setPatchbay(&patchbay);
    EXPECT_TRUE(policy.shouldPlay());
    policy.setMode(SynthMode::Off);
    EXPECT_FALSE(policy.shouldPlay());
    patchbay.disconnect({"Ardour", "midi_in"});
    processEvents();
    EXPECT_FALSE(policy.shouldPlay());
    policy.setMode(SynthMode::Auto);
    EXPECT_TRUE(policy.shouldPlay());
}

TEST(SynthPolicy, AChangeSaidOnTheServicesThreadIsCountedOnTheMainThread)
{
    FakePatchbay patchbay;
    SynthPolicy policy(SynthMode::Auto);
    policy.setPatchbay(&patchbay);
    patchbay.connected = {{"rx", "in"}};
    std::thread([&] { patchbay.changed(); }).join();
    EXPECT_TRUE(policy.shouldPlay()); // not yet: the count is queued to this thread
    processEvents();
    EXPECT_FALSE(policy.shouldPlay());
}

TEST(SynthPolicy, DetachingStopsTheCallsAndCountsNobody)
{
    FakePatchbay patchbay;
    patchbay.connected = {{"rx", "in"}};
    {
        SynthPolicy policy(SynthMode::Auto);
        policy.setPatchbay(&patchbay);
        EXPECT_FALSE(policy.shouldPlay());
        policy.setPatchbay(nullptr);
        EXPECT_TRUE(policy.shouldPlay());
        EXPECT_FALSE(patchbay.changed);
        policy.setPatchbay(&patchbay);
    }
    EXPECT_FALSE(patchbay.changed); // the policy went and took its callback with it
}
