#include "common/settings_store.h"
#include "midi/connection_keeper.h"
#include "support/fake_patchbay.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

const MIDIDestination kFluid{"fluidsynth", "midi_00"};
const MIDIDestination kSampler{"sampler", "in_1"};
const MIDIDestination kSamplerTwo{"sampler", "in_2"};

class ConnectionKeeperTest : public ::testing::Test
{
protected:
    /// The keeper, made on first use; with the stub synthesizer when `withSynth`.
    ConnectionKeeper& keeper(bool withSynth = false)
    {
        if (!keeper_) {
            keeper_ = std::make_unique<ConnectionKeeper>(
                patchbay, settings, [this](const UserText& text) { heard << text.shown; }, withSynth ? &synth : nullptr,
                QStringLiteral("jack"), true);
            keeper_->silenceCheckDelayMs = 0;
        }
        return *keeper_;
    }
    /// Runs the queued calls: the carried-over change calls and the check after start.
    static void settle() { QCoreApplication::processEvents(); }
    static QString key() { return QString::fromLatin1(ConnectionKeeper::kConnectionsKey); }
    void remember(const QStringList& names) { settings.setStringList(names, key()); }
    QStringList stored() const { return settings.stringListForKey(key()); }

    QTemporaryDir dir;
    QSettings qsettings{dir.filePath("plinkora.conf"), QSettings::IniFormat};
    SettingsStore settings{qsettings};
    FakePatchbay patchbay;
    StubSynthControl synth;
    QStringList heard;
    std::unique_ptr<ConnectionKeeper> keeper_;
};

} // namespace

TEST_F(ConnectionKeeperTest, ARememberedConnectionIsMadeAtStartAndAnnounced)
{
    patchbay.present = {kSampler, kFluid};
    remember({"fluidsynth:midi_00"});
    keeper().start();
    EXPECT_TRUE(patchbay.isConnected(kFluid));
    EXPECT_FALSE(patchbay.isConnected(kSampler));
    EXPECT_EQ(heard, QStringList{"Connected to fluidsynth:midi_00"});
    settle();
    EXPECT_EQ(heard, QStringList{"Connected to fluidsynth:midi_00"}) << "something sounds: no warning";
}

TEST_F(ConnectionKeeperTest, ChoosingAnInputConnectsAndRemembersItByName)
{
    patchbay.present = {kFluid, kSampler};
    keeper().start();
    settle();
    heard.clear();
    EXPECT_TRUE(keeper().setConnected("sampler:in_1", true));
    EXPECT_TRUE(patchbay.isConnected(kSampler));
    EXPECT_EQ(stored(), QStringList{"sampler:in_1"});
    EXPECT_EQ(heard, QStringList{"Connected to sampler:in_1"});

    EXPECT_TRUE(keeper().setConnected("sampler:in_1", false));
    EXPECT_FALSE(patchbay.isConnected(kSampler));
    EXPECT_TRUE(stored().isEmpty());
    EXPECT_EQ(heard, (QStringList{"Connected to sampler:in_1", "sampler:in_1 disconnected"}));
}

TEST_F(ConnectionKeeperTest, ARememberedInputThatAppearsLaterIsConnectedAgain)
{
    patchbay.present = {kSampler};
    remember({"fluidsynth:midi_00"});
    keeper().start();
    settle();
    EXPECT_EQ(heard, QStringList{"Nothing is connected to PLK"});
    heard.clear();

    // The receiver starts; the service calls back from its own thread.
    std::thread service([this] { patchbay.add(kFluid); });
    service.join();
    EXPECT_FALSE(patchbay.isConnected(kFluid)) << "the change is handled on the main thread";
    settle();
    EXPECT_TRUE(patchbay.isConnected(kFluid));
    EXPECT_EQ(heard, QStringList{"Connected to fluidsynth:midi_00"});

    // It ends, and starts again: connected again each time it appears.
    patchbay.remove(kFluid);
    settle();
    EXPECT_EQ(heard.last(), "fluidsynth:midi_00 disconnected");
    patchbay.add(kFluid);
    settle();
    EXPECT_TRUE(patchbay.isConnected(kFluid));
    EXPECT_EQ(heard.last(), "Connected to fluidsynth:midi_00");
    EXPECT_EQ(stored(), QStringList{"fluidsynth:midi_00"});
}

TEST_F(ConnectionKeeperTest, ConnectionsMadeAndBrokenFromOutsideAreAnnouncedButNotRemembered)
{
    patchbay.present = {kFluid, kSampler};
    keeper().start();
    settle();
    heard.clear();
    patchbay.connectFromOutside(kSampler);
    settle();
    EXPECT_EQ(heard, QStringList{"Connected to sampler:in_1"});
    patchbay.disconnectFromOutside(kSampler);
    settle();
    EXPECT_EQ(heard, (QStringList{"Connected to sampler:in_1", "sampler:in_1 disconnected"}));
    EXPECT_TRUE(stored().isEmpty());
}

TEST_F(ConnectionKeeperTest, ARememberedConnectionBrokenFromOutsideIsMadeAgain)
{
    patchbay.present = {kFluid};
    remember({"fluidsynth:midi_00"});
    keeper().start();
    settle();
    heard.clear();
    patchbay.disconnectFromOutside(kFluid);
    settle();
    EXPECT_TRUE(patchbay.isConnected(kFluid));
    EXPECT_TRUE(heard.isEmpty()) << "made again within the same reading: nothing changed for the user";
}

TEST_F(ConnectionKeeperTest, AReceiverThatEndsAndStartsAgainBetweenTwoReadingsIsConnectedAgain)
{
    patchbay.present = {kFluid};
    remember({"fluidsynth:midi_00"});
    keeper().start();
    patchbay.remove(kFluid);
    patchbay.add(kFluid);
    settle();
    EXPECT_TRUE(patchbay.isConnected(kFluid));
}

TEST_F(ConnectionKeeperTest, AnInputIsFoundByItsClientAloneOnlyWhenThatClientHasOneInput)
{
    const std::vector<MIDIDestination> all{kFluid, kSampler, kSamplerTwo};
    EXPECT_TRUE(ConnectionKeeper::matches("fluidsynth", kFluid, all));
    EXPECT_TRUE(ConnectionKeeper::matches("fluidsynth:midi_00", kFluid, all));
    EXPECT_FALSE(ConnectionKeeper::matches("sampler", kSampler, all)) << "two inputs: ambiguous";
    EXPECT_FALSE(ConnectionKeeper::matches("Fluidsynth:midi_00", kFluid, all)) << "names are matched exactly";
    EXPECT_FALSE(ConnectionKeeper::matches("fluid", kFluid, all));
}

TEST_F(ConnectionKeeperTest, ConnectGivenOnTheCommandLineWorksForThisRunWithoutBeingRemembered)
{
    patchbay.present = {kFluid, kSampler};
    keeper().start({"fluidsynth"});
    EXPECT_TRUE(patchbay.isConnected(kFluid));
    EXPECT_TRUE(stored().isEmpty());
    // Kept for the whole run: it comes back when the receiver starts again.
    patchbay.remove(kFluid);
    settle();
    patchbay.add(kFluid);
    settle();
    EXPECT_TRUE(patchbay.isConnected(kFluid));
}

TEST_F(ConnectionKeeperTest, ConnectingToAnInputThatIsNotThereGivesAnAnnouncementAndWaitsForIt)
{
    patchbay.present = {kSampler};
    keeper().start({"ghost:in"});
    EXPECT_EQ(heard, QStringList{"Cannot connect to ghost:in"});
    settle();
    EXPECT_EQ(heard, (QStringList{"Cannot connect to ghost:in", "Nothing is connected to PLK"}));
    patchbay.add({"ghost", "in"});
    settle();
    EXPECT_TRUE(patchbay.isConnected({"ghost", "in"}));
}

TEST_F(ConnectionKeeperTest, ChoosingAnInputThatWentAwayMeanwhileIsReportedAndNothingBreaks)
{
    patchbay.present = {kFluid};
    keeper().start();
    settle();
    heard.clear();
    // Gone between the reading the list shows and the user's choice (no change call yet).
    patchbay.present.clear();
    EXPECT_FALSE(keeper().setConnected("fluidsynth:midi_00", true));
    EXPECT_EQ(heard, QStringList{"Cannot connect to fluidsynth:midi_00"});
    EXPECT_TRUE(stored().isEmpty());
    EXPECT_TRUE(keeper().entries().empty()) << "the list is read again";
}

TEST_F(ConnectionKeeperTest, ARefusedConnectionIsAnnouncedAndNotRemembered)
{
    patchbay.present = {kFluid};
    patchbay.refuse = true;
    keeper().start();
    EXPECT_FALSE(keeper().setConnected("fluidsynth:midi_00", true));
    EXPECT_EQ(heard, QStringList{"Cannot connect to fluidsynth:midi_00"});
    EXPECT_TRUE(stored().isEmpty());
    // A remembered input the service refuses is tried again at each change, silently.
    remember({"fluidsynth:midi_00"});
    const int tries = patchbay.connectCalls;
    keeper().refresh();
    keeper().refresh();
    EXPECT_EQ(patchbay.connectCalls, tries + 2);
    EXPECT_EQ(heard.size(), 1);
}

TEST_F(ConnectionKeeperTest, NothingIsConnectedIsSaidOnceAfterStartWhenNothingWillSound)
{
    synth.setMode(SynthMode::Off);
    patchbay.present = {kFluid};
    keeper(true).start();
    EXPECT_TRUE(heard.isEmpty()) << "said a while after start";
    settle();
    EXPECT_EQ(heard, QStringList{"Nothing is connected to PLK"});
    keeper().checkSomethingSounds();
    EXPECT_EQ(heard.size(), 1) << "once only";
}

TEST_F(ConnectionKeeperTest, AFailedSynthesizerCountsAsNothing)
{
    synth.setMode(SynthMode::On);
    synth.works = false;
    keeper(true).start();
    settle();
    EXPECT_EQ(heard, QStringList{"Nothing is connected to PLK"});
}

TEST_F(ConnectionKeeperTest, TheSynthesizerIsAnEntryOfTheListAndIsSwitchedFromIt)
{
    patchbay.present = {kFluid};
    remember({"gone:port"});
    keeper(true).start();
    settle();
    EXPECT_EQ(heard, QStringList{"Connected to Built-in synthesizer"});

    const std::vector<ConnectionEntry> list = keeper().entries();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].kind, ConnectionEntry::Kind::Synth);
    EXPECT_TRUE(list[0].checked);
    EXPECT_EQ(list[1].name, "fluidsynth:midi_00");
    EXPECT_FALSE(list[1].checked);
    EXPECT_EQ(list[2].kind, ConnectionEntry::Kind::Absent);
    EXPECT_EQ(list[2].name, "gone:port");

    EXPECT_TRUE(keeper().setConnected("Built-in synthesizer", false));
    EXPECT_EQ(synth.mode(), SynthMode::Off);
    EXPECT_EQ(heard.last(), "Built-in synthesizer disconnected");
    // Unchecking an absent entry forgets it.
    EXPECT_TRUE(keeper().setConnected("gone:port", false));
    EXPECT_TRUE(stored().isEmpty());
    EXPECT_EQ(keeper().entries().size(), 2u);
}

TEST_F(ConnectionKeeperTest, TheStatusTextNamesTheSystemThePortAndTheConnections)
{
    patchbay.present = {kFluid, kSampler};
    keeper().start();
    EXPECT_EQ(keeper().statusText(), "MIDI: jack, port PLK:PLK, not connected");
    keeper().setConnected("fluidsynth:midi_00", true);
    keeper().setConnected("sampler:in_1", true);
    EXPECT_EQ(keeper().statusText(), "MIDI: jack, port PLK:PLK, connected to fluidsynth:midi_00, sampler:in_1");

    ConnectionKeeper unpublished(
        patchbay, settings, [](const UserText&) {}, nullptr, "alsa", false);
    EXPECT_EQ(unpublished.statusText(), "MIDI: alsa, no port");
}

TEST_F(ConnectionKeeperTest, TheChangeCallsStopWhenTheKeeperGoes)
{
    keeper().start();
    EXPECT_TRUE(patchbay.hasCallback());
    keeper_.reset();
    EXPECT_FALSE(patchbay.hasCallback());
    patchbay.add(kFluid);
    settle();
}
