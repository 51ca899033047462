#include "app/key_event_filter.h"

#include "support/engine_fixture.h"
#include "support/key_delivery.h"

#include <QLineEdit>
#include <QTest>

#include <gtest/gtest.h>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

const Bytes kNoteOnA{0x90, 48, 100};
const Bytes kNoteOffA{0x80, 48, 0};
const Bytes kSustainOn{0xB0, 64, 127};
const Bytes kSustainOff{0xB0, 64, 0};
const Bytes kF1Down{0xB0, 115, 127};
const Bytes kF1Up{0xB0, 115, 0};

/// The focus widget of the test's main window: keeps every key event that reaches it.
class KeyRecorder final : public QWidget
{
public:
    explicit KeyRecorder(QWidget* parent)
        : QWidget(parent)
    {
        setFocusPolicy(Qt::StrongFocus);
    }
    std::vector<std::pair<QEvent::Type, int>> received;

protected:
    void keyPressEvent(QKeyEvent* event) override { received.emplace_back(event->type(), event->key()); }
    void keyReleaseEvent(QKeyEvent* event) override { received.emplace_back(event->type(), event->key()); }
};

class KeyEventFilterTest : public EngineFixture
{
protected:
    KeyEventFilterTest()
    {
        mainWindow.resize(300, 200);
        view = new KeyRecorder(&mainWindow);
        view->resize(300, 200);
        preferences.resize(300, 200);
        field = new QLineEdit(&preferences);

        KeyboardMonitor& keys = monitor();
        keys.keyWindow = [] { return static_cast<QObject*>(QApplication::activeWindow()); };
        keys.keyboardWindow = &mainWindow;
        filter = std::make_unique<KeyEventFilter>(keys);
        filter->install();
        keys.localMonitor = filter.get();
    }

    void SetUp() override
    {
        activate(mainWindow);
        view->setFocus();
        backend->clear();
    }

    static void activate(QWidget& window)
    {
        window.show();
        window.activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    }

    int sentCount(const Bytes& message) const
    {
        const auto all = sent();
        return static_cast<int>(std::count(all.begin(), all.end(), message));
    }

    QWidget mainWindow;
    KeyRecorder* view = nullptr;
    QWidget preferences;
    QLineEdit* field = nullptr;
    std::unique_ptr<KeyEventFilter> filter;
};

} // namespace

TEST_F(KeyEventFilterTest, AKeyPressDeliveredToTheWindowAndThenToTheFocusWidgetIsActedOnOnce)
{
    // WHEN A is pressed and released, each event going to the window and then the view
    sendPress(mainWindow, kLinuxA);
    sendRelease(mainWindow, kLinuxA);
    // THEN one note-on and one note-off, and the view never saw the swallowed events
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
    EXPECT_TRUE(view->received.empty());
}

TEST_F(KeyEventFilterTest, AKeyPlinkoraDoesNotHandleGoesOnToTheFocusWidget)
{
    sendPress(mainWindow, kLinuxMinus);
    sendRelease(mainWindow, kLinuxMinus);
    EXPECT_TRUE(sent().empty());
    ASSERT_EQ(view->received.size(), 2u);
    EXPECT_EQ(view->received[0], std::make_pair(QEvent::KeyPress, int(Qt::Key_Minus)));
    EXPECT_EQ(view->received[1], std::make_pair(QEvent::KeyRelease, int(Qt::Key_Minus)));
}

TEST_F(KeyEventFilterTest, TheKeyIsFoundByItsPositionNotByTheCharacterItTypes)
{
    // GIVEN a French layout, where the key in A's place types "q"
    const LinuxKey azertyQ{KEY_A, Qt::Key_Q, "q"};
    sendPress(mainWindow, azertyQ);
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
}

TEST_F(KeyEventFilterTest, AutoRepeatedPressesAreKeyDownsAndTheSyntheticReleasesBetweenThemAreDropped)
{
    // GIVEN F1 held: X11 sends press, (release, press) per repeat, all repeats flagged
    sendPress(mainWindow, kLinuxF1);
    for (int i = 0; i < 3; ++i) {
        sendRelease(mainWindow, kLinuxF1, Qt::NoModifier, true);
        sendPress(mainWindow, kLinuxF1, Qt::NoModifier, true);
    }
    sendRelease(mainWindow, kLinuxF1);
    // THEN controller 115 goes to 127 at the press and at every repeat, and to 0 once
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Down, kF1Down, kF1Down, kF1Up}));
    EXPECT_TRUE(view->received.empty());
}

TEST_F(KeyEventFilterTest, HoldingANoteKeyPlaysItOnceThroughItsRepeats)
{
    sendPress(mainWindow, kLinuxA);
    for (int i = 0; i < 5; ++i) {
        sendRelease(mainWindow, kLinuxA, Qt::NoModifier, true);
        sendPress(mainWindow, kLinuxA, Qt::NoModifier, true);
    }
    sendRelease(mainWindow, kLinuxA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
}

TEST_F(KeyEventFilterTest, ReleasingOneOfTwoHeldShiftKeysKeepsTheSustainOn)
{
    sendPress(mainWindow, kLinuxLeftShift);
    EXPECT_EQ(filter->heldModifierFlags(), kShiftFlag);
    sendPress(mainWindow, kLinuxRightShift, Qt::ShiftModifier);
    sendRelease(mainWindow, kLinuxLeftShift, Qt::ShiftModifier);
    // THEN only the first press turned the sustain on, and one Shift is still held
    EXPECT_EQ(sent(), std::vector<Bytes>{kSustainOn});
    EXPECT_EQ(filter->heldModifierFlags(), kShiftFlag);
    EXPECT_TRUE(monitor().sustainActive);

    sendRelease(mainWindow, kLinuxRightShift, Qt::ShiftModifier);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kSustainOn, kSustainOff}));
    EXPECT_EQ(filter->heldModifierFlags(), 0u);
}

TEST_F(KeyEventFilterTest, ShiftWithTabSelectsThePreviousProperty)
{
    sendPress(mainWindow, kLinuxLeftShift);
    sendPress(mainWindow, kLinuxTab, Qt::ShiftModifier);
    EXPECT_EQ(sent().front(), kSustainOn);
    EXPECT_EQ(monitor().propertyManager->currentIndex, 7);
}

TEST_F(KeyEventFilterTest, ControlWithAIsPassedOnAndPlaysNothing)
{
    sendPress(mainWindow, kLinuxLeftCtrl);
    EXPECT_EQ(filter->heldModifierFlags(), kCommandFlag);
    sendPress(mainWindow, kLinuxA, Qt::ControlModifier);
    sendRelease(mainWindow, kLinuxA, Qt::ControlModifier);
    sendRelease(mainWindow, kLinuxLeftCtrl, Qt::ControlModifier);
    EXPECT_TRUE(sent().empty());
    // The modifier changes were swallowed; Ctrl+A reached the view.
    ASSERT_EQ(view->received.size(), 2u);
    EXPECT_EQ(view->received[0], std::make_pair(QEvent::KeyPress, int(Qt::Key_A)));
}

TEST_F(KeyEventFilterTest, KeysTypedWhileThePreferencesWindowIsActivePlayNothingAndReachItsField)
{
    activate(preferences);
    field->setFocus();
    sendPress(preferences, kLinuxA);
    sendRelease(preferences, kLinuxA);
    sendPress(preferences, kLinux5);
    sendRelease(preferences, kLinux5);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(field->text(), QStringLiteral("a5"));
}

TEST_F(KeyEventFilterTest, AKeyReleasedInThePreferencesWindowIsNoteOffLessAndItsNextPressIsARepeat)
{
    // GIVEN A pressed in the main window
    sendPress(mainWindow, kLinuxA);
    // WHEN it is released while the preferences window is active
    activate(preferences);
    field->setFocus();
    sendRelease(preferences, kLinuxA);
    // THEN no note-off, and A still counts as pressed
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
    // WHEN A goes down again in the main window: a repeat, nothing played; its release ends it
    activate(mainWindow);
    view->setFocus();
    sendPress(mainWindow, kLinuxA);
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
    sendRelease(mainWindow, kLinuxA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
}

TEST_F(KeyEventFilterTest, OnceRemovedTheFilterHandsNothingToTheMonitor)
{
    filter->remove();
    EXPECT_FALSE(filter->isInstalled());
    sendPress(mainWindow, kLinuxA);
    sendRelease(mainWindow, kLinuxA);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(view->received.size(), 2u);
}

// ---- With a screen reader: the accessibility bridge takes key events away and posts copies.

TEST_F(KeyEventFilterTest, WithTheBridgeBehindItEveryKeyReachesTheScreenReaderAndIsPlayedOnceAtOnce)
{
    // GIVEN the bridge's filter installed before Plinkora's (so Plinkora's runs first)
    FakeAccessibilityBridge bridge;
    bridge.install();
    filter->install();

    // WHEN A is pressed: THEN the note-on is sent at once, before the registry has answered
    sendPress(mainWindow, kLinuxA);
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
    EXPECT_EQ(bridge.forwarded, 1);

    // WHEN the registry answers and the copy comes back: THEN it is swallowed, not played again
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
    EXPECT_TRUE(view->received.empty());

    // A key Plinkora does not handle reaches the screen reader, then the view (once).
    sendPress(mainWindow, kLinuxMinus);
    sendRelease(mainWindow, kLinuxA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
    EXPECT_EQ(bridge.forwarded, 3);
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
    ASSERT_EQ(view->received.size(), 1u);
    EXPECT_EQ(view->received[0], std::make_pair(QEvent::KeyPress, int(Qt::Key_Minus)));
}

TEST_F(KeyEventFilterTest, AKeyTheScreenReaderConsumesWasStillPlayedAndItsCopyIsNotAwaited)
{
    FakeAccessibilityBridge bridge;
    bridge.install();
    filter->install();

    sendPress(mainWindow, kLinuxA);
    bridge.answerOldest(true); // consumed: no copy
    sendRelease(mainWindow, kLinuxA);
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
    EXPECT_TRUE(view->received.empty());
}

TEST_F(KeyEventFilterTest, WhenTheBridgeGetsInFrontTheKeyIsPlayedOnceFromItsCopyAndTheFilterMovesBackInFront)
{
    // GIVEN the bridge installed after Plinkora's filter (as when a screen reader starts later)
    FakeAccessibilityBridge bridge;
    bridge.install();

    // WHEN A is pressed: the bridge takes it first, nothing is played yet
    sendPress(mainWindow, kLinuxA);
    EXPECT_TRUE(sent().empty());
    // THEN the copy is played, once
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
    EXPECT_TRUE(view->received.empty());

    // AND after that turn of the event loop Plinkora's filter is in front again: the release is
    // played at once, and its copy is not played again
    QCoreApplication::processEvents();
    sendRelease(mainWindow, kLinuxA);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
    EXPECT_EQ(bridge.forwarded, 2);
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA}));
}

TEST_F(KeyEventFilterTest, CopiesOfAutoRepeatsAndFastTypingKeepTheirOrderAndAreEachActedOnOnce)
{
    FakeAccessibilityBridge bridge;
    bridge.install();
    filter->install();

    sendPress(mainWindow, kLinuxF1);
    sendRelease(mainWindow, kLinuxF1, Qt::NoModifier, true);
    sendPress(mainWindow, kLinuxF1, Qt::NoModifier, true);
    sendRelease(mainWindow, kLinuxF1);
    sendPress(mainWindow, kLinuxMinus);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Down, kF1Up}));
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Down, kF1Up}));
    ASSERT_EQ(view->received.size(), 1u);
    EXPECT_EQ(view->received[0].second, int(Qt::Key_Minus));
}

TEST_F(KeyEventFilterTest, WhereHeldKeysRepeatWithoutReleasesAKeyStruckAgainQuicklyIsReleasedAndPlayedAgain)
{
    // GIVEN held keys repeating with presses only (X11 with detectable auto-repeat)
    filter->setRepeatsWithoutReleases(true);
    // WHEN A is pressed, released and pressed again so quickly that Qt flags the release and the
    // second press as auto-repeat (the press was already queued behind the release), then released
    sendPress(mainWindow, kLinuxA);
    sendRelease(mainWindow, kLinuxA, Qt::NoModifier, true);
    sendPress(mainWindow, kLinuxA, Qt::NoModifier, true);
    sendRelease(mainWindow, kLinuxA);
    // THEN the note is struck twice and released twice
    EXPECT_EQ(sent(), (std::vector<Bytes>{kNoteOnA, kNoteOffA, kNoteOnA, kNoteOffA}));
}

namespace {

/// The key-event filter with the main window's key events also read ahead of Qt's delivery (as
/// under X11): each event comes twice, with the X server's time, in either order.
class KeysReadAheadTest : public KeyEventFilterTest
{
protected:
    static std::unique_ptr<QKeyEvent> timed(QEvent::Type type, const LinuxKey& key, std::uint64_t time)
    {
        auto event = makeKeyEvent(type, key);
        event->setTimestamp(time);
        return event;
    }
    void readAhead(QEvent::Type type, const LinuxKey& key, std::uint64_t time)
    {
        filter->actBeforeDelivery(&mainWindow, *timed(type, key, time));
    }
    void delivered(QEvent::Type type, const LinuxKey& key, std::uint64_t time)
    {
        auto event = timed(type, key, time);
        deliverFromWindowSystem(mainWindow, *event);
    }
};

} // namespace

// F1 sends its controller at every press, a repeat too: a key acted on twice would show.
TEST_F(KeysReadAheadTest, AKeyReadAheadIsActedOnAtOnceAndQtsCopyOfItIsNotActedOnAgain)
{
    readAhead(QEvent::KeyPress, kLinuxF1, 1000);
    EXPECT_EQ(sent(), std::vector<Bytes>{kF1Down});
    delivered(QEvent::KeyPress, kLinuxF1, 1000);
    readAhead(QEvent::KeyRelease, kLinuxF1, 1040);
    delivered(QEvent::KeyRelease, kLinuxF1, 1040);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up}));
    EXPECT_TRUE(view->received.empty()); // swallowed at both copies
}

TEST_F(KeysReadAheadTest, WhenQtsCopyComesFirstTheKeyIsActedOnThenAndTheOneReadAheadIsPassedOver)
{
    delivered(QEvent::KeyPress, kLinuxF1, 1000);
    EXPECT_EQ(sent(), std::vector<Bytes>{kF1Down});
    readAhead(QEvent::KeyPress, kLinuxF1, 1000);
    readAhead(QEvent::KeyRelease, kLinuxF1, 1040);
    delivered(QEvent::KeyRelease, kLinuxF1, 1040);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up}));
}

TEST_F(KeysReadAheadTest, AKeyStruckTwiceIsActedOnTwiceWhateverOrderItsCopiesComeIn)
{
    // Both strokes read ahead before Qt delivers the first: the copies are told apart by time.
    readAhead(QEvent::KeyPress, kLinuxF1, 1000);
    readAhead(QEvent::KeyRelease, kLinuxF1, 1010);
    readAhead(QEvent::KeyPress, kLinuxF1, 1020);
    delivered(QEvent::KeyPress, kLinuxF1, 1000);
    delivered(QEvent::KeyRelease, kLinuxF1, 1010);
    delivered(QEvent::KeyPress, kLinuxF1, 1020);
    // The last release reaches Qt first.
    delivered(QEvent::KeyRelease, kLinuxF1, 1030);
    readAhead(QEvent::KeyRelease, kLinuxF1, 1030);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up, kF1Down, kF1Up}));
}

TEST_F(KeysReadAheadTest, AKeyPlinkoraPassesOnReachesTheFocusWidgetOnceFromQtsCopy)
{
    readAhead(QEvent::KeyPress, kLinuxMinus, 1000);
    EXPECT_TRUE(view->received.empty());
    delivered(QEvent::KeyPress, kLinuxMinus, 1000);
    ASSERT_EQ(view->received.size(), 1u);
    EXPECT_EQ(view->received[0], std::make_pair(QEvent::KeyPress, int(Qt::Key_Minus)));
}

TEST_F(KeysReadAheadTest, WithTheBridgeBehindTheFilterTheScreenReaderHearsEveryKeyPlayedOnce)
{
    FakeAccessibilityBridge bridge;
    bridge.install();
    filter->install();

    readAhead(QEvent::KeyPress, kLinuxA, 1000);
    delivered(QEvent::KeyPress, kLinuxA, 1000);
    readAhead(QEvent::KeyPress, kLinuxMinus, 1010);
    delivered(QEvent::KeyPress, kLinuxMinus, 1010);
    EXPECT_EQ(bridge.forwarded, 2);
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), std::vector<Bytes>{kNoteOnA});
    ASSERT_EQ(view->received.size(), 1u);
    EXPECT_EQ(view->received[0].second, int(Qt::Key_Minus));
}

TEST_F(KeysReadAheadTest, WithTheBridgeInFrontTheCopyItPostsOfAKeyReadAheadIsNotPlayedAgain)
{
    // GIVEN the bridge in front of Plinkora's filter (a screen reader started later)
    FakeAccessibilityBridge bridge;
    bridge.install();

    // WHEN F1 is read ahead, then Qt delivers it and the bridge takes it away and posts a copy
    readAhead(QEvent::KeyPress, kLinuxF1, 1000);
    delivered(QEvent::KeyPress, kLinuxF1, 1000);
    EXPECT_EQ(sent(), std::vector<Bytes>{kF1Down});
    bridge.answerAll();
    QCoreApplication::processEvents();

    // THEN its controller was sent once, the copy went nowhere, and the filter is in front again
    EXPECT_EQ(sent(), std::vector<Bytes>{kF1Down});
    EXPECT_TRUE(view->received.empty());
    QCoreApplication::processEvents();
    readAhead(QEvent::KeyRelease, kLinuxF1, 1040);
    delivered(QEvent::KeyRelease, kLinuxF1, 1040);
    bridge.answerAll();
    QCoreApplication::processEvents();
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up}));
    EXPECT_EQ(bridge.forwarded, 2);
}

TEST_F(KeysReadAheadTest, OnceRemovedTheFilterActsOnNothingReadAhead)
{
    filter->remove();
    readAhead(QEvent::KeyPress, kLinuxA, 1000);
    EXPECT_TRUE(sent().empty());
}

TEST_F(KeysReadAheadTest, KeysReadAheadBeforeTheReturnOfTheKeysIsKnownAreLeftToQtAndKeepTheirOrder)
{
    // GIVEN the keys away (another window had them), and back at the window system already
    monitor().focusLost();

    // WHEN keys are read ahead before Qt has handled the return: THEN Qt's copies are acted on
    readAhead(QEvent::KeyPress, kLinuxF1, 1000);
    readAhead(QEvent::KeyRelease, kLinuxF1, 1040);
    EXPECT_TRUE(sent().empty());
    delivered(QEvent::KeyPress, kLinuxF1, 1000);
    EXPECT_EQ(sent(), std::vector<Bytes>{kF1Down});
    // AND a key read ahead while Qt has not delivered all of those waits for its copy too
    readAhead(QEvent::KeyPress, kLinuxF1, 1080);
    EXPECT_EQ(sent(), std::vector<Bytes>{kF1Down});
    delivered(QEvent::KeyRelease, kLinuxF1, 1040);
    delivered(QEvent::KeyPress, kLinuxF1, 1080);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up, kF1Down}));

    // THEN once Qt has caught up, keys are acted on when read ahead again, once
    readAhead(QEvent::KeyRelease, kLinuxF1, 1120);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up, kF1Down, kF1Up}));
    delivered(QEvent::KeyRelease, kLinuxF1, 1120);
    EXPECT_EQ(sent(), (std::vector<Bytes>{kF1Down, kF1Up, kF1Down, kF1Up}));
}
