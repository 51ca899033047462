#include "support/engine_fixture.h"

#include "midi/null_backend.h"

#include <QCoreApplication>

#include <cstdio>
#include <unistd.h>

using namespace plinkora;
using namespace plinkora::testing;

namespace {
constexpr KeyCode kA = 0, kB = 11, kK = 40, kKey4 = 21, kKey5 = 23, kReturn = 36, kMinus = 27, kEquals = 24;
constexpr KeyCode kF1 = 122, kF2 = 120, kF3 = 99, kF4 = 118;
constexpr KeyCode kLeftShift = 56, kRightShift = 60;

class KeyboardMonitorTest : public EngineFixture
{
};
} // namespace

TEST_F(KeyboardMonitorTest, StartsAtOctaveFourVelocity100WithoutSustain)
{
    EXPECT_EQ(monitor().currentOctave, 4);
    EXPECT_EQ(monitor().currentVelocity, 100);
    EXPECT_FALSE(monitor().sustainActive);
    EXPECT_TRUE(monitor().pressedKeys.none());
    EXPECT_EQ(monitor().propertyManager->properties.size(), 8u);
    EXPECT_NE(monitor().benderController, nullptr);
}

TEST_F(KeyboardMonitorTest, HoldingAPlaysOneNoteOnAndOneNoteOffDespiteRepeats)
{
    // GIVEN octave 4, velocity 100, channel 0, no transposition
    // WHEN A goes down, repeats three times, and comes up
    press(kA);
    press(kA);
    press(kA);
    press(kA);
    release(kA);
    // THEN one note-on for 48 and one note-off for 48
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 48, 0}}));
}

TEST_F(KeyboardMonitorTest, ChangingOctaveWhileHoldingSendsTheNoteOffForTheNewOctave)
{
    press(kA);
    press(kKey5);
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 60, 0}}));
    EXPECT_TRUE(midi->activeNotes.contains(48));

    // 48 still counts as sounding: pressing A again at octave 4 sends nothing, its release
    // finally silences it.
    backend->clear();
    press(kKey4);
    press(kA);
    EXPECT_TRUE(sent().empty());
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x80, 48, 0}}));
    EXPECT_FALSE(midi->activeNotes.contains(48));
}

TEST_F(KeyboardMonitorTest, TransposingWhileHoldingSendsTheNoteOffForTheNewTransposition)
{
    for (int i = 0; i < 7; ++i)
        press(kKeyTab), release(kKeyTab); // to Transpose
    ASSERT_EQ(monitor().propertyManager->currentIndex, 7);
    press(kA);
    press(kKeyPageUp);
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 49, 0}}));
    EXPECT_TRUE(midi->activeNotes.contains(48));
}

TEST_F(KeyboardMonitorTest, VelocityKeyWhileHoldingSendsNothingAndAppliesToTheNextNote)
{
    press(kA);
    press(6); // Z: 20
    backend->clear();
    press(kB); // B: 100
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(monitor().currentVelocity, 100);
    press(6);
    press(kK);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 60, 20}}));
}

TEST_F(KeyboardMonitorTest, ShiftIsSustainOnTheCurrentChannel)
{
    modifiers(kShiftFlag, kLeftShift);
    modifiers(0, kLeftShift);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 64, 127}, {0xB0, 64, 0}}));
}

TEST_F(KeyboardMonitorTest, SecondShiftWhileOneIsHeldSendsNothing)
{
    modifiers(kShiftFlag, kLeftShift);
    modifiers(kShiftFlag, kRightShift); // second Shift down
    modifiers(kShiftFlag, kRightShift); // one of two released: still held
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 64, 127}}));
    modifiers(0, kLeftShift);
    EXPECT_EQ(sent().back(), (Bytes{0xB0, 64, 0}));
}

TEST_F(KeyboardMonitorTest, OtherModifiersChangeNothingButAreSwallowed)
{
    EXPECT_TRUE(monitor().monitorCallback({kEventFlagsChanged, 59, 0x40000})); // Control
    EXPECT_TRUE(sent().empty());
}

TEST_F(KeyboardMonitorTest, SustainFollowsTheChannelProperty)
{
    monitor().propertyManager->properties[0]->value = 2;
    modifiers(kShiftFlag);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB2, 64, 127}}));
}

TEST_F(KeyboardMonitorTest, ShiftTabSendsSustainThenSelectsThePreviousProperty)
{
    modifiers(kShiftFlag, kLeftShift);
    ::testing::internal::CaptureStdout();
    press(kKeyTab, kShiftFlag);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 64, 127}}));
    EXPECT_EQ(monitor().propertyManager->currentIndex, 7);
    EXPECT_NE(out.find("Announcing: Transpose: +0, 8 of 8\n"), std::string::npos);
}

TEST_F(KeyboardMonitorTest, CommandKeysArePassedOnAndPlayNothing)
{
    for (KeyCode key : {kA, KeyCode{12}, KeyCode{43}}) { // A, Q, comma
        EXPECT_FALSE(monitor().monitorCallback({kEventKeyDown, key, kCommandFlag}));
        EXPECT_FALSE(monitor().monitorCallback({kEventKeyUp, key, kCommandFlag}));
    }
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(monitor().pressedKeys.none());
}

TEST_F(KeyboardMonitorTest, ControlOrOptionWithAPlaysTheNote)
{
    // Control and Option are not the shortcut flag here: their bits are ignored.
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kA, 0x40000}));
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyUp, kA, 0x80000}));
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}, {0x80, 48, 0}}));
}

TEST_F(KeyboardMonitorTest, KeysInAnotherWindowArePassedOnAndTheHeldKeyStaysPressed)
{
    // GIVEN the main window and the preferences window
    QObject mainWindow, preferences;
    QObject* active = &mainWindow;
    monitor().keyboardWindow = &mainWindow;
    monitor().keyWindow = [&] { return active; };
    // WHEN A goes down in the main window, the preferences become key, A comes up there
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kA, 0}));
    active = &preferences;
    EXPECT_FALSE(monitor().monitorCallback({kEventKeyUp, kA, 0}));
    EXPECT_FALSE(monitor().monitorCallback({kEventKeyDown, kK, 0})); // typing there plays nothing
    EXPECT_FALSE(monitor().monitorCallback({kEventFlagsChanged, kLeftShift, kShiftFlag}));
    // THEN no note-off, A stays pressed; back in the main window its next key-down is a repeat
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x90, 48, 100}}));
    EXPECT_TRUE(monitor().pressedKeys.test(kA));
    active = &mainWindow;
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kA, 0}));
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyUp, kA, 0}));
    EXPECT_EQ(sent().back(), (Bytes{0x80, 48, 0}));
}

TEST_F(KeyboardMonitorTest, NoKeyWindowAndNoMainWindowCountAsTheSame)
{
    monitor().keyWindow = [] { return static_cast<QObject*>(nullptr); };
    EXPECT_TRUE(monitor().monitorCallback({kEventKeyDown, kA, 0}));
    QObject mainWindow;
    monitor().keyboardWindow = &mainWindow;
    EXPECT_FALSE(monitor().monitorCallback({kEventKeyUp, kA, 0}));
}

TEST_F(KeyboardMonitorTest, F1HeldSendsController115AtEveryDownAndZeroAtUp)
{
    monitor().propertyManager->properties[0]->value = 3;
    press(kF1);
    press(kF1);
    press(kF1);
    release(kF1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB3, 115, 127}, {0xB3, 115, 127}, {0xB3, 115, 127}, {0xB3, 115, 0}}));
}

TEST_F(KeyboardMonitorTest, EmptyStoreGivesF1ToF4Controllers115To118)
{
    for (KeyCode key : {kF1, kF2, kF3, kF4})
        press(key);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 115, 127}, {0xB0, 116, 127}, {0xB0, 117, 127}, {0xB0, 118, 127}}));
}

TEST_F(KeyboardMonitorTest, StoredControllerIsReadAtEveryPressIncludingTheRelease)
{
    settings.setInteger(7, "PLK_F2_CC");
    press(kF2);
    settings.setInteger(9, "PLK_F2_CC");
    release(kF2);
    press(kF1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 7, 127}, {0xB0, 9, 0}, {0xB0, 115, 127}}));
}

TEST_F(KeyboardMonitorTest, StoredZeroUnderF1SendsTheDefault)
{
    settings.setInteger(0, "PLK_F1_CC");
    press(kF1);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 115, 127}}));
}

TEST_F(KeyboardMonitorTest, StoredTwoHundredSendsController72)
{
    qsettings.setValue("PLK_F3_CC", 200);
    press(kF3);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 72, 127}}));
}

TEST_F(KeyboardMonitorTest, StoredOutOfRangeControllerIsFatalAtThePress)
{
    qsettings.setValue("PLK_F4_CC", 300);
    qsettings.sync();
    EXPECT_DEATH(press(kF4), "300 under \"PLK_F4_CC\"");
}

TEST_F(KeyboardMonitorTest, HoldingPeriodFlipsPitchAutoReleaseOnEveryRepeatWithASound)
{
    BenderController& bender = *monitor().benderController;
    press(kKeyPeriod);
    EXPECT_FALSE(bender.pitchBendAutoRelease);
    press(kKeyPeriod);
    EXPECT_TRUE(bender.pitchBendAutoRelease);
    press(kKeyPeriod);
    EXPECT_FALSE(bender.pitchBendAutoRelease);
    release(kKeyPeriod);
    EXPECT_FALSE(bender.pitchBendAutoRelease);
    EXPECT_EQ(sounds->played,
              (std::vector<std::string>{"/resources/down.wav", "/resources/up.wav", "/resources/down.wav"}));
    EXPECT_TRUE(sent().empty());
}

TEST_F(KeyboardMonitorTest, SlashFlipsModulationAutoRelease)
{
    press(kKeySlash);
    EXPECT_FALSE(monitor().benderController->modulationAutoRelease);
    EXPECT_TRUE(monitor().benderController->pitchBendAutoRelease);
    EXPECT_EQ(sounds->played, (std::vector<std::string>{"/resources/down.wav"}));
}

TEST_F(KeyboardMonitorTest, ArrowsSetTheBenderFlagsAndSendNothing)
{
    BenderController& bender = *monitor().benderController;
    press(kKeyUp);
    EXPECT_TRUE(bender.upPressed);
    press(kKeyUp);
    EXPECT_TRUE(bender.upPressed);
    release(kKeyUp);
    EXPECT_FALSE(bender.upPressed);
    press(kKeyDown);
    press(kKeyLeft);
    press(kKeyRight);
    EXPECT_TRUE(bender.downPressed && bender.leftPressed && bender.rightPressed);
    EXPECT_TRUE(sent().empty());
}

TEST_F(KeyboardMonitorTest, TabAtTheLastPropertyWrapsToTheFirst)
{
    for (int i = 0; i < 7; ++i)
        press(kKeyTab);
    EXPECT_EQ(monitor().propertyManager->currentIndex, 7);
    press(kKeyTab);
    EXPECT_EQ(monitor().propertyManager->currentIndex, 0);
}

TEST_F(KeyboardMonitorTest, HomeEndPageUpPageDownAdjustTheSelectedProperty)
{
    press(kKeyTab);
    press(kKeyTab);
    press(kKeyTab); // Volume 100
    press(kKeyHome);
    press(kKeyPageDown);
    press(kKeyEnd);
    press(kKeyPageUp);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0xB0, 7, 110}, {0xB0, 7, 109}, {0xB0, 7, 99}, {0xB0, 7, 100}}));
}

TEST_F(KeyboardMonitorTest, MinusEqualsAndReturnArePassedOn)
{
    for (KeyCode key : {kMinus, kEquals, kReturn}) {
        EXPECT_FALSE(monitor().monitorCallback({kEventKeyDown, key, 0}));
        EXPECT_FALSE(monitor().monitorCallback({kEventKeyUp, key, 0}));
    }
    EXPECT_EQ(monitor().currentOctave, 4);
    EXPECT_TRUE(sent().empty());
}

TEST_F(KeyboardMonitorTest, HandledKeysAreSwallowedOnDownAndUp)
{
    for (KeyCode key : {kA, kB, kKey5, kF1, kKeyUp, kKeyPeriod, kKeySlash, kKeyHome, kKeyPageUp, kKeyEnd, kKeyPageDown,
                        kKeyTab, kKeyEscape}) {
        EXPECT_TRUE(KeyboardMonitor::isHandledKey(key)) << key;
    }
    EXPECT_FALSE(KeyboardMonitor::isHandledKey(kNoKeyCode));
    EXPECT_FALSE(KeyboardMonitor::isHandledKey(49)); // space
    EXPECT_FALSE(KeyboardMonitor::isHandledKey(51)); // backspace
}

TEST_F(KeyboardMonitorTest, EveryEventPrintsTheDebugLine)
{
    ::testing::internal::CaptureStdout();
    press(kA);
    release(kReturn, kCommandFlag);
    modifiers(kShiftFlag, kLeftShift);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Key event received: type=10 keyCode=0\n"
              "Key event received: type=11 keyCode=36\n"
              "Key event received: type=12 keyCode=56\n");
}

TEST_F(KeyboardMonitorTest, NotesFollowTheChannelProperty)
{
    monitor().propertyManager->properties[0]->value = 2;
    press(kA);
    release(kA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{{0x92, 48, 100}, {0x82, 48, 0}}));
}

TEST_F(KeyboardMonitorTest, OctaveKeysChangeNothingThatSounds)
{
    press(kA);
    backend->clear();
    for (KeyCode key : {KeyCode{18}, KeyCode{29}, KeyCode{25}})
        press(key);
    EXPECT_EQ(monitor().currentOctave, 9);
    EXPECT_TRUE(sent().empty());
}

namespace {
/// A back end that notes how much of standard output had been written when a message came.
class StdoutWatchingBackend final : public NullBackend
{
public:
    MIDIStatus send(std::uint32_t, MIDIBytes) override
    {
        std::fflush(stdout);
        writtenAtSend.push_back(::lseek(STDOUT_FILENO, 0, SEEK_CUR));
        return kStatusOk;
    }
    std::vector<off_t> writtenAtSend;
};
} // namespace

TEST(KeyboardMonitorOutputTest, TheKeyMessageLeavesBeforeTheKeysLineIsWritten)
{
    // GIVEN a monitor whose back end sees how far standard output (captured to a file) has come
    QTemporaryDir dir;
    QSettings qsettings(dir.filePath("plinkora.conf"), QSettings::IniFormat);
    SettingsStore settings(qsettings);
    auto watching = std::make_unique<StdoutWatchingBackend>();
    StdoutWatchingBackend& backend = *watching;
    MIDIManager midi(std::move(watching));
    KeyboardMonitor monitor(midi, settings, std::make_unique<RecordingSoundPlayer>(),
                            std::make_unique<RecordingAnnouncer>());
    backend.writtenAtSend.clear();

    // WHEN A is pressed and released
    ::testing::internal::CaptureStdout();
    monitor.monitorCallback({kEventKeyDown, kA, 0});
    monitor.monitorCallback({kEventKeyUp, kA, 0});
    const std::string printed = ::testing::internal::GetCapturedStdout();

    // THEN each message went out before its own line, and the lines are whole and in order
    const std::string first = "Key event received: type=10 keyCode=0\n";
    EXPECT_EQ(printed, first + "Key event received: type=11 keyCode=0\n");
    EXPECT_EQ(backend.writtenAtSend, (std::vector<off_t>{0, static_cast<off_t>(first.size())}));
}
