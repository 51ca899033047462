// The key handling when the main window loses and regains the keys, and the panic (Escape).
#include "input/key_table.h"
#include "support/engine_fixture.h"

#include <QCoreApplication>
#include <QElapsedTimer>

using namespace plinkora;
using namespace plinkora::testing;

namespace {
constexpr KeyCode kA = 0, kD = 2, kG = 5, kK = 40, kKey5 = 23;
constexpr KeyCode kF1 = 122, kF3 = 99;
constexpr KeyCode kLeftShift = 56;

/// The engine with a main window and another window that can take the keys, and a platform
/// that tells which keys are down (`down`), or cannot tell (`platformTells` false).
class KeyboardFocusTest : public EngineFixture
{
protected:
    KeyboardFocusTest()
    {
        monitor().keyboardWindow = &mainWindow;
        monitor().keyWindow = [this] { return active; };
        monitor().keysDownNow = [this]() -> std::optional<KeySet> {
            ++asked;
            if (!platformTells)
                return std::nullopt;
            return down;
        };
    }

    /// Another window takes the keys and the application says so.
    void leave()
    {
        active = &otherWindow;
        monitor().focusLost();
    }
    /// The main window has the keys again and the application says so.
    void comeBack()
    {
        active = &mainWindow;
        monitor().focusRegained();
    }
    /// Lets the delayed "Paused" come due (the event loop runs its timer).
    static void waitPastTheSpeechDelay()
    {
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < KeyboardMonitor::kSpeechDelayMs + 200)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
    /// A key the user holds physically (as the platform will tell).
    void hold(KeyCode code)
    {
        down.set(code);
        press(code);
    }

    QObject mainWindow, otherWindow;
    QObject* active = &mainWindow;
    KeySet down;
    bool platformTells = true;
    int asked = 0;
};

std::vector<Bytes> panicBytes(std::vector<Bytes> noteOffs)
{
    std::vector<Bytes> expected = std::move(noteOffs);
    for (std::uint8_t channel = 0; channel < 16; ++channel) {
        const auto status = static_cast<std::uint8_t>(0xB0 | channel);
        expected.push_back({status, 64, 0});
        expected.push_back({status, 123, 0});
        expected.push_back({status, 120, 0});
    }
    expected.push_back({0xE0, 0x00, 0x40});
    expected.push_back({0xB0, 0x01, 0x00});
    return expected;
}
} // namespace

TEST_F(KeyboardFocusTest, FocusLossReleasesHeldNotesSustainFunctionKeysAndArrows)
{
    // GIVEN channel 3, Shift, A and D, F1 and F3, Up and Right held
    monitor().propertyManager->properties[0]->value = 3;
    modifiers(kShiftFlag, kLeftShift);
    press(kA, kShiftFlag);
    press(kD, kShiftFlag);
    press(kF1, kShiftFlag);
    press(kF3, kShiftFlag);
    press(kKeyUp, kShiftFlag);
    press(kKeyRight, kShiftFlag);
    // and the octave changed to 5 while the notes are held
    press(kKey5, kShiftFlag);
    backend->clear();
    // WHEN another window takes the keys
    leave();
    // THEN the note-offs as the releases would send them (octave 5), sustain 0, F1 and F3 to 0
    EXPECT_EQ(sent(),
              (std::vector<Bytes>{{0x83, 60, 0}, {0x83, 64, 0}, {0xB3, 64, 0}, {0xB3, 115, 0}, {0xB3, 117, 0}}));
    // AND the arrow flags are cleared, nothing is held any more
    const BenderController& benders = *monitor().benderController;
    EXPECT_FALSE(benders.upPressed || benders.downPressed || benders.leftPressed || benders.rightPressed);
    EXPECT_FALSE(monitor().sustainActive);
    EXPECT_TRUE(monitor().pressedKeys.none());
    EXPECT_TRUE(monitor().focusAway);
}

TEST_F(KeyboardFocusTest, ASecondFocusLossSendsAndSaysNothing)
{
    hold(kA);
    leave();
    QCoreApplication::processEvents();
    backend->clear();
    announcer->log.clear();
    monitor().focusLost();
    QCoreApplication::processEvents();
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(announcer->log.isEmpty());
}

TEST_F(KeyboardFocusTest, RegainingWithoutALossSaysAndSendsNothing)
{
    monitor().focusRegained();
    monitor().focusRegained();
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(announcer->log.isEmpty());
    EXPECT_EQ(asked, 0);
}

TEST_F(KeyboardFocusTest, AKeyHeldAcrossTheReturnPlaysNothingUntilPressedAgain)
{
    // GIVEN A held when another window takes the keys (note-off sent)
    hold(kA);
    leave();
    backend->clear();
    // WHEN the main window gets the keys back with A still down, and A repeats
    comeBack();
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kA, 0}));
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kA, 0}));
    // THEN nothing plays, and its release sends nothing
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyUp, kA, 0}));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(midi->activeNotes.empty());
    // AND pressed again it plays, and its release stops it
    press(kA);
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 48, 0}}));
}

TEST_F(KeyboardFocusTest, AKeyReleasedInTheOtherWindowPlaysAtItsNextPress)
{
    hold(kA);
    leave();
    down.reset(kA); // let go while the other window has the keys
    comeBack();
    backend->clear();
    press(kA);
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 48, 0}}));
}

TEST_F(KeyboardFocusTest, AKeyPressedInTheOtherWindowAndHeldAcrossTheReturnPlaysNothing)
{
    leave();
    down.set(kG); // pressed while the other window has the keys
    comeBack();
    press(kG);
    release(kG);
    EXPECT_TRUE(sent().empty());
}

TEST_F(KeyboardFocusTest, WhereThePlatformCannotTellAKeyDownIsANewPressAndTheOldReleaseSendsNothing)
{
    platformTells = false;
    hold(kA);
    hold(kD);
    leave();
    comeBack();
    backend->clear();
    // D held through the return: its release sends nothing
    release(kD);
    EXPECT_TRUE(sent().empty());
    // A let go in the other window and pressed again: it plays
    press(kA);
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 48, 0}}));
}

TEST_F(KeyboardFocusTest, ShiftHeldAcrossTheReturnSustainsOnlyWhenPressedAgain)
{
    modifiers(kShiftFlag, kLeftShift);
    down.set(kLeftShift);
    leave();
    comeBack();
    backend->clear();
    // Control pressed and let go with Shift still held: no sustain
    modifiers(kShiftFlag, kKeyControl);
    modifiers(kShiftFlag, kKeyControl);
    EXPECT_TRUE(sent().empty());
    // Shift let go (nothing to send), then pressed again: sustain
    modifiers(0, kLeftShift);
    EXPECT_TRUE(sent().empty());
    modifiers(kShiftFlag, kLeftShift);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 64, 127}}));
}

TEST_F(KeyboardFocusTest, AnArrowHeldAcrossTheReturnBendsNothingAndTheBenderSpringsBack)
{
    hold(kKeyUp);
    for (int i = 0; i < 3; ++i)
        monitor().benderController->updateBenders();
    leave();
    comeBack();
    press(kKeyUp); // the platform's repeat
    EXPECT_FALSE(monitor().benderController->upPressed);
    backend->clear();
    for (int i = 0; i < 3; ++i)
        monitor().benderController->updateBenders();
    // 8192 + 3 * 100 springs back by 200 a tick: 8292, then the centre, then nothing
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xE0, 0x64, 0x40}, {0xE0, 0x00, 0x40}}));
}

TEST_F(KeyboardFocusTest, AKeyDownAtTheReturnBeforeTheApplicationSaysSoIsTheReturn)
{
    hold(kA);
    leave();
    active = &mainWindow; // the key event comes first
    down.reset(kA);
    backend->clear();
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kK, 0}));
    EXPECT_FALSE(monitor().focusAway);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 60, 100}}));
}

TEST_F(KeyboardFocusTest, PausedAndPlayingAreSpokenWithoutAScreenReader)
{
    leave();
    EXPECT_TRUE(announcer->spoken.isEmpty()) << "Paused waits to see that the keys stay away";
    waitPastTheSpeechDelay();
    comeBack();
    EXPECT_EQ(announcer->spoken, (QStringList{"Paused", "Playing"}));
    EXPECT_TRUE(announcer->posted.isEmpty()); // no announcement to assistive technology
}

TEST_F(KeyboardFocusTest, AFocusThatOnlyFlickersIsNotSpoken)
{
    leave();
    comeBack();
    waitPastTheSpeechDelay();
    EXPECT_TRUE(announcer->log.isEmpty());
}

TEST_F(KeyboardFocusTest, PausedCutsOwnSpeechOff)
{
    announcer->speaking = true;
    leave();
    waitPastTheSpeechDelay();
    EXPECT_EQ(announcer->log, (QStringList{"stop", "speak:Paused"}));
}

TEST_F(KeyboardFocusTest, NothingIsSpokenWithAScreenReader)
{
    announcer->screenReaderRunning = true;
    leave();
    waitPastTheSpeechDelay();
    comeBack();
    QCoreApplication::processEvents();
    EXPECT_TRUE(announcer->log.isEmpty());
}

TEST_F(KeyboardFocusTest, AScreenReaderStartedWhileTheKeysAreAwayKeepsTheVoiceSilent)
{
    leave();
    announcer->screenReaderRunning = true;
    waitPastTheSpeechDelay();
    comeBack();
    EXPECT_TRUE(announcer->log.isEmpty());
}

TEST_F(KeyboardFocusTest, EscapeSilencesEverythingInOrderAndAnnounces)
{
    // GIVEN channel 2, C, E and G held at octave 4, the bend and modulation moved
    monitor().propertyManager->properties[0]->value = 2;
    hold(kA);
    hold(kD);
    hold(kG);
    hold(kKeyUp);
    press(kKeyRight);
    release(kKeyRight);
    monitor().benderController->updateBenders();
    monitor().benderController->pitchBendAutoRelease = false;
    backend->clear();
    // WHEN Escape goes down (and repeats), and comes up
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kKeyEscape, 0}));
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kKeyEscape, 0}));
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyUp, kKeyEscape, 0}));
    const std::string printed = ::testing::internal::GetCapturedStdout();
    // THEN the note-offs on the current channel, the 16 channels, the benders at rest, once
    EXPECT_EQ(sent(), panicBytes({{0x82, 48, 0}, {0x82, 52, 0}, {0x82, 55, 0}}));
    EXPECT_TRUE(midi->activeNotes.empty());
    EXPECT_NE(printed.find("Announcing: All notes off\n"), std::string::npos);
    QCoreApplication::processEvents();
    EXPECT_EQ(announcer->posted, QStringList{"All notes off"});
    // AND the next ticks send nothing: the benders are at rest though Up is held
    backend->clear();
    monitor().benderController->updateBenders();
    monitor().benderController->updateBenders();
    EXPECT_TRUE(sent().empty());
    // AND the held keys play nothing until pressed again; their releases send nothing
    press(kA);
    press(kKeyUp);
    release(kA);
    release(kD);
    release(kKeyUp);
    monitor().benderController->updateBenders();
    EXPECT_TRUE(sent().empty());
    press(kD);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x92, 52, 100}}));
}

TEST_F(KeyboardFocusTest, EscapeWithNothingSoundingStillSilencesEveryChannel)
{
    press(kKeyEscape);
    EXPECT_EQ(sent(), panicBytes({}));
}

TEST_F(KeyboardFocusTest, EscapeIsSwallowedOnlyForTheMainWindow)
{
    active = &otherWindow;
    EXPECT_FALSE(monitor().monitorCallback({kEventKeyDown, kKeyEscape, 0}));
    EXPECT_FALSE(monitor().monitorCallback({kEventKeyUp, kKeyEscape, 0}));
    EXPECT_TRUE(sent().empty());
    active = &mainWindow;
    EXPECT_FALSE(monitor().monitorCallback({kEventKeyDown, kKeyEscape, kCommandFlag}));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kKeyEscape, 0}));
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyUp, kKeyEscape, 0}));
    EXPECT_FALSE(sent().empty());
}

TEST_F(KeyboardFocusTest, AFunctionKeyHeldThroughEscapeStillSendsZeroAtItsRelease)
{
    press(kF1);
    press(kKeyEscape);
    release(kKeyEscape);
    backend->clear();
    release(kF1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 115, 0}}));
}

TEST_F(KeyboardFocusTest, TheThreeCallsInAnyOrderAnyNumberOfTimesLeaveAWorkingInstrument)
{
    hold(kA);
    monitor().allNotesOff();
    monitor().focusRegained();
    monitor().focusLost();
    monitor().allNotesOff();
    monitor().focusLost();
    monitor().focusRegained();
    monitor().focusRegained();
    monitor().allNotesOff();
    down.reset();
    release(kA);
    backend->clear();
    press(kK);
    release(kK);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 60, 100}, {0x80, 60, 0}}));
}
