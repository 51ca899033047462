#include "support/engine_fixture.h"

#include <QCoreApplication>
#include <QTranslator>

using namespace plinkora;
using namespace plinkora::testing;

namespace {
class PropertyManagerTest : public EngineFixture
{
protected:
    PropertyManager& manager() { return *monitor().propertyManager; }
    MIDIProperty& property(std::size_t index) { return *manager().properties[index]; }
    void select(std::int64_t index) { manager().currentIndex = index; }

    /// Runs `action`, returns what it printed; the deferred posts and speech have not run yet.
    template <typename F> std::string printed(F action)
    {
        ::testing::internal::CaptureStdout();
        action();
        return ::testing::internal::GetCapturedStdout();
    }
    void runDeferred() { QCoreApplication::processEvents(); }
};
} // namespace

TEST_F(PropertyManagerTest, FreshManagerSelectsTheChannelSilently)
{
    EXPECT_EQ(manager().currentIndex, 0);
    runDeferred();
    EXPECT_TRUE(announcer->log.isEmpty());
    EXPECT_TRUE(sent().empty());
}

TEST_F(PropertyManagerTest, TabSelectsTheProgramAndAnnouncesIt)
{
    EXPECT_EQ(printed([&] { manager().nextProperty(); }), "Announcing: Program: 0, 2 of 8\n");
    EXPECT_TRUE(announcer->posted.isEmpty()); // deferred to the event loop
    runDeferred();
    EXPECT_EQ(announcer->posted, QStringList{"Program: 0, 2 of 8"});
    EXPECT_EQ(announcer->spoken, QStringList{"Program: 0, 2 of 8"});
}

TEST_F(PropertyManagerTest, ShiftTabFromTheChannelSelectsTheTransposition)
{
    EXPECT_EQ(printed([&] { manager().previousProperty(); }), "Announcing: Transpose: +0, 8 of 8\n");
    EXPECT_EQ(manager().currentIndex, 7);
}

TEST_F(PropertyManagerTest, EightTabsComeBackToTheChannel)
{
    std::string out = printed([&] {
        for (int i = 0; i < 8; ++i)
            manager().nextProperty();
    });
    EXPECT_EQ(manager().currentIndex, 0);
    EXPECT_TRUE(out.ends_with("Announcing: Channel: 1, 1 of 8\n"));
    EXPECT_NE(out.find("Announcing: Pan: 64, 5 of 8\n"), std::string::npos);
}

TEST_F(PropertyManagerTest, VolumeAtTheTopIsSentAndAnnouncedAgain)
{
    property(3).value = 127;
    select(3);
    EXPECT_EQ(printed([&] { manager().increaseValue(false); }), "Announcing: 127\n");
    EXPECT_EQ(property(3).value, 127);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 7, 127}}));
}

TEST_F(PropertyManagerTest, ChannelFourteenPlusALargeStepClampsTo15AndSendsNothing)
{
    property(0).value = 14;
    EXPECT_EQ(printed([&] { manager().increaseValue(true); }), "Announcing: 16\n");
    EXPECT_EQ(property(0).value, 15);
    EXPECT_TRUE(sent().empty());
}

TEST_F(PropertyManagerTest, TranspositionLimitsAndSigns)
{
    select(7);
    property(7).value = 20;
    EXPECT_EQ(printed([&] { manager().increaseValue(true); }), "Announcing: plus 24\n");
    EXPECT_EQ(property(7).value, 24);
    property(7).value = -20;
    EXPECT_EQ(printed([&] { manager().decreaseValue(true); }), "Announcing: minus 24\n");
    EXPECT_EQ(property(7).value, -24);
    property(7).value = 0;
    EXPECT_EQ(printed([&] { manager().decreaseValue(false); }), "Announcing: minus 1\n");
    EXPECT_EQ(manager().getTranspose(), -1);
    property(7).value = -1;
    EXPECT_EQ(printed([&] { manager().increaseValue(false); }), "Announcing: plus 0\n");
    EXPECT_TRUE(sent().empty()); // the transposition is never sent
}

TEST_F(PropertyManagerTest, PanMovesBySixteenOnALargeStepUpTo127)
{
    select(4);
    manager().increaseValue(true);
    EXPECT_EQ(property(4).value, 80);
    property(4).value = 120;
    manager().increaseValue(true);
    EXPECT_EQ(property(4).value, 127);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 10, 80}, {0xB0, 10, 127}}));
}

TEST_F(PropertyManagerTest, ChannelThreeCarriesPropertyMessagesAndNotes)
{
    property(0).value = 2;
    select(3);
    manager().increaseValue(false);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB2, 7, 101}}));
    EXPECT_EQ(manager().getChannel(), 2);
    press(0);
    EXPECT_EQ(sent().back(), (Bytes{0x92, 48, 100}));
}

TEST_F(PropertyManagerTest, ProgramGoesOutAsAProgramChangeAloneAndBankAsControllerZeroAlone)
{
    select(1);
    manager().increaseValue(false);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xC0, 1}}));
    backend->clear();
    select(2);
    manager().increaseValue(false);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 0, 1}}));
}

TEST_F(PropertyManagerTest, ReverbAndChorusUseTheirControllers)
{
    select(5);
    manager().decreaseValue(true);
    select(6);
    manager().increaseValue(true);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 91, 30}, {0xB0, 93, 10}}));
}

TEST_F(PropertyManagerTest, LowerLimitsHoldAndAreSentAgain)
{
    select(6);
    manager().decreaseValue(true);
    EXPECT_EQ(property(6).value, 0);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 93, 0}}));
}

TEST_F(PropertyManagerTest, WithAScreenReaderRunningTheAnnouncementIsPostedAndNotSpoken)
{
    monitor();
    announcer->screenReaderRunning = true;
    manager().nextProperty();
    runDeferred();
    EXPECT_EQ(announcer->posted, QStringList{"Program: 0, 2 of 8"});
    EXPECT_TRUE(announcer->spoken.isEmpty());
}

TEST_F(PropertyManagerTest, TheSecondOfTwoQuickChangesStopsTheFirst)
{
    select(3);
    manager().increaseValue(false);
    manager().increaseValue(false);
    runDeferred();
    EXPECT_EQ(announcer->log, (QStringList{"post:101", "speak:101", "post:102", "stop", "speak:102"}));
}

TEST_F(PropertyManagerTest, APendingAnnouncementDoesNotOutliveItsManager)
{
    // GIVEN a manager whose voice reports into a log that outlives it
    struct LoggingVoice final : Announcer
    {
        explicit LoggingVoice(QStringList& l)
            : log(l)
        {
        }
        void postAnnouncement(const QString& text) override { log << "post:" + text; }
        bool isScreenReaderRunning() override { return false; }
        bool isSpeaking() override { return false; }
        void stopSpeaking() override { log << "stop"; }
        void speak(const QString& text) override { log << "speak:" + text; }
        QStringList& log;
    };
    QStringList log;
    auto standalone = std::make_unique<PropertyManager>(*midi, std::make_unique<LoggingVoice>(log));
    // WHEN an announcement is queued and the manager is destroyed before the loop runs
    standalone->nextProperty();
    standalone.reset();
    runDeferred();
    // THEN the queued job did nothing
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(PropertyManagerTest, AnEmptyListMakesAdjustmentsDoNothing)
{
    manager().properties.clear();
    manager().increaseValue(true);
    manager().decreaseValue(false);
    EXPECT_EQ(manager().getChannel(), 0);
    EXPECT_EQ(manager().getTranspose(), 0);
    EXPECT_TRUE(sent().empty());
    EXPECT_DEATH(manager().nextProperty(), "no properties");
}

TEST_F(PropertyManagerTest, ASelectionOutsideTheListMakesAdjustmentsDoNothing)
{
    select(8);
    manager().increaseValue(false);
    select(-1);
    manager().decreaseValue(false);
    EXPECT_TRUE(sent().empty());
}

namespace {
/// The build tree's German translation installed for the test.
class GermanPropertyManagerTest : public PropertyManagerTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(german.load(QStringLiteral("plinkora_de"), QStringLiteral(PLINKORA_TRANSLATIONS_DIR)));
        QCoreApplication::installTranslator(&german);
    }
    void TearDown() override { QCoreApplication::removeTranslator(&german); }

    QTranslator german;
};
} // namespace

TEST_F(GermanPropertyManagerTest, AnnouncementsAreSaidInGermanAndPrintedInEnglish)
{
    EXPECT_EQ(printed([&] { manager().nextProperty(); }), "Announcing: Program: 0, 2 of 8\n");
    runDeferred();
    EXPECT_EQ(announcer->posted, QStringList{"Programm: 0, 2 von 8"});
    EXPECT_EQ(announcer->spoken, QStringList{"Programm: 0, 2 von 8"});

    select(7);
    EXPECT_EQ(printed([&] { manager().decreaseValue(false); }), "Announcing: minus 1\n");
    EXPECT_EQ(printed([&] { manager().nextProperty(); }), "Announcing: Channel: 1, 1 of 8\n");
    EXPECT_EQ(printed([&] { manager().previousProperty(); }), "Announcing: Transpose: -1, 8 of 8\n");
    runDeferred();
    EXPECT_EQ(announcer->spoken,
              (QStringList{"Programm: 0, 2 von 8", "minus 1", "Kanal: 1, 1 von 8", "Transponierung: -1, 8 von 8"}));
    EXPECT_EQ(property(7).displayText(), "Transpose: -1");
    EXPECT_EQ(property(7).text().shown, "Transponierung: -1");
}

TEST_F(GermanPropertyManagerTest, AllNotesOffIsSaidInGerman)
{
    EXPECT_EQ(printed([&] { monitor().allNotesOff(); }), "Announcing: All notes off\n");
    runDeferred();
    EXPECT_EQ(announcer->spoken, QStringList{"Alle Noten aus"});
}

TEST(UserText, FillsTheArgumentsOfEachFormFromTheSameFormAllAtOnce)
{
    const UserText name{QStringLiteral("Built-in synthesizer"), QStringLiteral("Eingebauter Synthesizer")};
    const UserText text = UserText::announcement("%1 of %2", {name, QStringLiteral("%1")});
    EXPECT_EQ(text.english, "Built-in synthesizer of %1");
    EXPECT_EQ(text.shown, "Eingebauter Synthesizer of %1");
}
