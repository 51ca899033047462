#include "support/engine_fixture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

using namespace plinkora;
using namespace plinkora::testing;

namespace {
class BenderControllerTest : public EngineFixture
{
protected:
    BenderController& bender() { return *monitor().benderController; }
    void ticks(int n)
    {
        for (int i = 0; i < n; ++i)
            bender().updateBenders();
    }
    Bytes bend(unsigned value)
    {
        return {0xE0, static_cast<std::uint8_t>(value & 0x7F), static_cast<std::uint8_t>(value >> 7)};
    }
    Bytes mod(unsigned value) { return {0xB0, 1, static_cast<std::uint8_t>(value)}; }
};
} // namespace

TEST_F(BenderControllerTest, StartsCentredWithAutoReleaseOnAndDefaultSpeeds)
{
    EXPECT_EQ(bender().pitchBend, 8192.0);
    EXPECT_EQ(bender().modulation, 0.0);
    EXPECT_TRUE(bender().pitchBendAutoRelease);
    EXPECT_TRUE(bender().modulationAutoRelease);
    EXPECT_EQ(bender().pitchBendSpeed, 100.0);
    EXPECT_EQ(bender().modulationSpeed, 100.0);
    EXPECT_TRUE(bender().updateTimer.isActive());
}

TEST_F(BenderControllerTest, IdleTicksSendNothing)
{
    ticks(100);
    EXPECT_TRUE(sent().empty());
}

TEST_F(BenderControllerTest, UpAndDownHeldTogetherRaiseTheBend)
{
    bender().upPressed = bender().downPressed = true;
    ticks(1);
    EXPECT_EQ(bender().pitchBend, 8292.0);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8292)}));
}

TEST_F(BenderControllerTest, RightAndLeftHeldTogetherRaiseModulation)
{
    bender().rightPressed = bender().leftPressed = true;
    ticks(2);
    EXPECT_EQ(bender().modulation, 1.5625);
}

TEST_F(BenderControllerTest, BendAtTheTopWithUpHeldIsSentOnEveryTick)
{
    bender().pitchBend = 16383.0;
    bender().upPressed = true;
    ticks(3);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(16383), bend(16383), bend(16383)}));
}

TEST_F(BenderControllerTest, FromTheCentreUpReachesTheTopAfter82Ticks)
{
    bender().upPressed = true;
    ticks(81);
    EXPECT_LT(bender().pitchBend, 16383.0);
    ticks(1);
    EXPECT_EQ(bender().pitchBend, 16383.0);
}

TEST_F(BenderControllerTest, BendAtFiftyWithDownForOneTickBecomesZero)
{
    bender().pitchBend = 50.0;
    bender().downPressed = true;
    ticks(1);
    EXPECT_EQ(bender().pitchBend, 0.0);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(0)}));
}

TEST_F(BenderControllerTest, ReleaseFrom8292ClampsToTheCentreThenStaysSilent)
{
    bender().pitchBend = 8292.0;
    ticks(1);
    EXPECT_EQ(bender().pitchBend, 8192.0);
    ticks(5);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8192)}));
}

TEST_F(BenderControllerTest, ReleaseFromTheTopStepsBy200ToExactlyTheCentre)
{
    bender().pitchBend = 16383.0;
    std::vector<Bytes> expected;
    for (double v = 16383.0 - 200.0; v > 8192.0; v -= 200.0)
        expected.push_back(bend(static_cast<unsigned>(v)));
    expected.push_back(bend(8192));
    ticks(static_cast<int>(expected.size()) + 3);
    EXPECT_EQ(sent(), expected);
    EXPECT_EQ(sent().front(), bend(16183));
    EXPECT_EQ(sent()[1], bend(15983));
    EXPECT_EQ(bender().pitchBend, 8192.0);
}

TEST_F(BenderControllerTest, ReleaseFromBelowTheCentreRisesBackToIt)
{
    bender().pitchBend = 8000.0;
    ticks(1);
    EXPECT_EQ(bender().pitchBend, 8192.0);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8192)}));
}

TEST_F(BenderControllerTest, WithAutoReleaseOffTheBendStaysWhereItWasLeft)
{
    bender().pitchBendAutoRelease = false;
    bender().pitchBend = 12000.0;
    ticks(10);
    EXPECT_EQ(bender().pitchBend, 12000.0);
    EXPECT_TRUE(sent().empty());
    // Turning auto-release back on starts the return at the next tick.
    bender().pitchBendAutoRelease = true;
    ticks(1);
    EXPECT_EQ(bender().pitchBend, 11800.0);
}

TEST_F(BenderControllerTest, ModulationAtDefaultSpeedSendsRoundedValues)
{
    bender().rightPressed = true;
    ticks(3);
    EXPECT_EQ(bender().modulation, 2.34375);
    EXPECT_EQ(sent(), (std::vector<Bytes>{mod(1), mod(2), mod(2)}));
}

TEST_F(BenderControllerTest, ModulationReachesTheTopAfter163Ticks)
{
    bender().rightPressed = true;
    ticks(162);
    EXPECT_LT(bender().modulation, 127.0);
    ticks(1);
    EXPECT_EQ(bender().modulation, 127.0);
}

TEST_F(BenderControllerTest, ModulationAutoReleaseReachesExactlyZeroAndStopsSending)
{
    bender().modulation = 3.0;
    ticks(2);
    EXPECT_EQ(bender().modulation, 0.0);
    EXPECT_EQ(sent(), (std::vector<Bytes>{mod(1), mod(0)}));
    ticks(5);
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(BenderControllerTest, LeftLowersModulationToZero)
{
    bender().modulation = 1.0;
    bender().leftPressed = true;
    ticks(2);
    EXPECT_EQ(bender().modulation, 0.0);
    EXPECT_EQ(sent(), (std::vector<Bytes>{mod(0), mod(0)}));
}

TEST_F(BenderControllerTest, BendGoesFirstWhenBothMoveAndBothUseChannelZero)
{
    monitor().propertyManager->properties[0]->value = 5; // the channel property does not apply
    bender().upPressed = bender().rightPressed = true;
    ticks(1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8292), mod(1)}));
}

TEST_F(BenderControllerTest, FractionalSpeedSendsTheRoundedBend)
{
    bender().pitchBendSpeed = 33.3;
    bender().upPressed = true;
    ticks(2);
    EXPECT_DOUBLE_EQ(bender().pitchBend, 8192.0 + 66.6);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8225), bend(8259)}));
}

TEST_F(BenderControllerTest, HalvesRoundAwayFromZero)
{
    bender().pitchBendSpeed = 0.5;
    bender().upPressed = true;
    ticks(1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8193)}));
}

TEST_F(BenderControllerTest, AbsentSpeedsGiveOneHundred)
{
    EXPECT_EQ(bender().pitchBendSpeed, 100.0);
}

TEST_F(BenderControllerTest, StoredZeroOrNegativeSpeedsGiveOneHundred)
{
    settings.setDouble(0.0, "PitchBendSpeed");
    settings.setDouble(-5.0, "ModulationSpeed");
    EXPECT_EQ(bender().pitchBendSpeed, 100.0);
    EXPECT_EQ(bender().modulationSpeed, 100.0);
}

TEST_F(BenderControllerTest, StoredSpeedsAreReadOnceAtConstruction)
{
    settings.setDouble(250.0, "PitchBendSpeed");
    settings.setDouble(33.3, "ModulationSpeed");
    EXPECT_EQ(bender().pitchBendSpeed, 250.0);
    EXPECT_EQ(bender().modulationSpeed, 33.3);
    settings.setDouble(400.0, "PitchBendSpeed");
    EXPECT_EQ(bender().pitchBendSpeed, 250.0);
}

TEST_F(BenderControllerTest, NonNumericStoredSpeedGivesOneHundred)
{
    qsettings.setValue("PitchBendSpeed", "fast");
    EXPECT_EQ(bender().pitchBendSpeed, 100.0);
}

TEST_F(BenderControllerTest, PeriodTogglesPitchAutoReleaseWithDownThenUpSound)
{
    press(kKeyPeriod);
    EXPECT_FALSE(bender().pitchBendAutoRelease);
    press(kKeyPeriod);
    EXPECT_TRUE(bender().pitchBendAutoRelease);
    EXPECT_EQ(sounds->played, (std::vector<std::string>{"/resources/down.wav", "/resources/up.wav"}));
}

TEST_F(BenderControllerTest, MissingSoundFilePrintsTheErrorLineAndTheToggleStays)
{
    monitor();
    sounds->failure = "No such file or directory";
    ::testing::internal::CaptureStdout();
    press(kKeyPeriod);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Key event received: type=10 keyCode=47\nError playing sound down.wav: No such file or directory\n");
    EXPECT_FALSE(bender().pitchBendAutoRelease);
}

TEST_F(BenderControllerTest, MissingResourceFolderPrintsItsLine)
{
    monitor();
    sounds->resourceFolder.reset();
    ::testing::internal::CaptureStdout();
    bender().playSound("up.wav");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Could not find resource path\n");
    EXPECT_TRUE(sounds->played.empty());
}

TEST_F(BenderControllerTest, NonFiniteBendIsFatalWhenSent)
{
    bender().pitchBend = std::numeric_limits<double>::infinity();
    bender().pitchBendAutoRelease = false;
    bender().downPressed = true;
    EXPECT_DEATH(ticks(1), "pitch bend");
}

TEST_F(BenderControllerTest, TheTimerTicksAboutSixtyTimesASecond)
{
    // GIVEN up held; WHEN the event loop runs for half a second; THEN the timer has moved the
    // bend (the count is loose: the machine may be loaded).
    bender().upPressed = true;
    QEventLoop loop;
    QTimer::singleShot(500, &loop, &QEventLoop::quit);
    loop.exec();
    const auto count = sent().size();
    EXPECT_GE(count, 10u);
    EXPECT_LE(count, 40u);
}

TEST_F(BenderControllerTest, DestroyingTheControllerStopsItsTimer)
{
    bender().upPressed = true;
    monitor().benderController.reset();
    QEventLoop loop;
    QTimer::singleShot(100, &loop, &QEventLoop::quit);
    loop.exec();
    EXPECT_TRUE(sent().empty());
}

namespace {
/// Runs the event loop until the bender timer has let itself rest (at most `limitMs`).
bool waitUntilResting(const BenderController& bender, int limitMs = 5000)
{
    QElapsedTimer waited;
    waited.start();
    while (bender.updateTimer.isActive() && waited.elapsed() < limitMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    return !bender.updateTimer.isActive();
}
} // namespace

TEST_F(BenderControllerTest, AtRestTheTimerStopsAfterItsFirstTickAndSendsNothing)
{
    // GIVEN a new controller, whose timer starts at once; WHEN its first tick finds nothing to move
    ASSERT_TRUE(bender().updateTimer.isActive());
    ASSERT_TRUE(waitUntilResting(bender()));

    // THEN it rests without having sent anything, and a wake-up with nothing to move keeps it resting
    EXPECT_TRUE(sent().empty());
    EXPECT_FALSE(bender().canMove());
    bender().wake();
    EXPECT_FALSE(bender().updateTimer.isActive());
}

TEST_F(BenderControllerTest, AnArrowWakesTheTimerWhichRestsAgainOnceTheBendIsBackAtTheCentre)
{
    // GIVEN a resting timer
    ASSERT_TRUE(waitUntilResting(bender()));

    // WHEN up is pressed through the key handler; THEN the timer runs again
    press(kKeyUp);
    EXPECT_TRUE(bender().updateTimer.isActive());
    EXPECT_TRUE(bender().canMove());
    QElapsedTimer waited;
    waited.start();
    while (sent().size() < 2 && waited.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    ASSERT_GE(sent().size(), 2u);

    // WHEN it is let go; THEN the bend springs back to the centre and the timer rests there
    release(kKeyUp);
    EXPECT_TRUE(bender().updateTimer.isActive());
    ASSERT_TRUE(waitUntilResting(bender()));
    EXPECT_EQ(bender().pitchBend, 8192.0);
    EXPECT_EQ(sent().back(), bend(8192));
    // Every message on the way up and back is a bend: the same ones the ticks always sent.
    for (const Bytes& message : sent())
        EXPECT_EQ(message[0], 0xE0);
    const std::size_t count = sent().size();
    QEventLoop loop;
    QTimer::singleShot(100, &loop, &QEventLoop::quit);
    loop.exec();
    EXPECT_EQ(sent().size(), count);
}

TEST_F(BenderControllerTest, TurningAutoReleaseBackOnWakesTheTimerForTheReturn)
{
    // GIVEN a bend left away from the centre with auto-release off, and a resting timer
    press(kKeyPeriod);
    ASSERT_FALSE(bender().pitchBendAutoRelease);
    bender().pitchBend = 8792.0;
    ASSERT_TRUE(waitUntilResting(bender()));
    EXPECT_TRUE(sent().empty());

    // WHEN period turns auto-release on again; THEN the timer brings the bend back and rests
    press(kKeyPeriod);
    EXPECT_TRUE(bender().updateTimer.isActive());
    ASSERT_TRUE(waitUntilResting(bender()));
    EXPECT_EQ(sent(), (std::vector<Bytes>{bend(8592), bend(8392), bend(8192)}));
}

TEST_F(BenderControllerTest, ASpeedChangeAtRestGivesTheTimerNothingToDo)
{
    ASSERT_TRUE(waitUntilResting(bender()));
    bender().pitchBendSpeed = 300.0;
    bender().modulationSpeed = 5.0;
    bender().wake();
    EXPECT_FALSE(bender().updateTimer.isActive());
}

TEST_F(BenderControllerTest, ATimerStoppedFromOutsideStaysStoppedWhenAnArrowIsPressed)
{
    // The benchmarks and the fuzzers drive the ticks by hand.
    bender().updateTimer.stop();
    press(kKeyRight);
    EXPECT_FALSE(bender().updateTimer.isActive());
    ticks(1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{mod(1)}));
}
