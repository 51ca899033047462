#include "support/engine_fixture.h"
#include "ui/keyboard_view.h"

#include <QAccessible>
#include <QFontInfo>
#include <QLabel>
#include <QMainWindow>
#include <QSignalSpy>
#include <QStringList>
#include <QTest>

#include <cmath>
#include <limits>
#include <memory>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

class KeyboardViewTest : public EngineFixture
{
protected:
    BenderController& bender() { return *monitor().benderController; }

    KeyboardView& view()
    {
        if (!view_)
            view_ = std::make_unique<KeyboardView>(monitor());
        return *view_;
    }

    std::unique_ptr<KeyboardView> view_;
};

QString accessibleName(QObject* object)
{
    QAccessibleInterface* face = QAccessible::queryAccessibleInterface(object);
    return face ? face->text(QAccessible::Name) : QString();
}

/// Collects Qt's warnings while it lives.
class WarningCollector
{
public:
    WarningCollector()
    {
        messages().clear();
        previous_ = qInstallMessageHandler(&WarningCollector::handle);
    }
    ~WarningCollector() { qInstallMessageHandler(previous_); }
    WarningCollector(const WarningCollector&) = delete;
    WarningCollector& operator=(const WarningCollector&) = delete;

    static QStringList& messages()
    {
        static QStringList list;
        return list;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& message)
    {
        if (type != QtDebugMsg && type != QtInfoMsg)
            messages() << message;
    }
    QtMessageHandler previous_ = nullptr;
};

} // namespace

TEST_F(KeyboardViewTest, RightAfterConstructionTheStatusLinesShowTheInitialTextsWhateverTheMonitorHolds)
{
    // GIVEN a monitor whose values differ from the initial texts
    monitor().currentOctave = 7;
    monitor().currentVelocity = 33;
    bender().pitchBend = 0.0;
    bender().modulation = 99.0;

    // WHEN the view is made, before its first refresh
    KeyboardView& v = view();

    // THEN the four status lines show the initial texts
    EXPECT_EQ(v.octaveLabel()->text(), "Octave: 4");
    EXPECT_EQ(v.velocityLabel()->text(), "Velocity: 80");
    EXPECT_EQ(v.pitchBendLabel()->text(), "Pitch: 0");
    EXPECT_EQ(v.modulationLabel()->text(), "Mod: 0");
}

TEST_F(KeyboardViewTest, TheFirstTickShowsTheMonitorsTrueValues)
{
    // GIVEN a view over a monitor at its start values (velocity 100)
    KeyboardView& v = view();

    // WHEN the event loop runs past the first 100 ms tick
    const bool refreshed = QTest::qWaitFor([&v] { return v.velocityLabel()->text() != "Velocity: 80"; }, 5000);

    // THEN the live values replace the initial texts
    ASSERT_TRUE(refreshed);
    EXPECT_EQ(v.octaveLabel()->text(), "Octave: 4");
    EXPECT_EQ(v.velocityLabel()->text(), "Velocity: 100");
    EXPECT_EQ(v.pitchBendLabel()->text(), "Pitch: 0");
    EXPECT_EQ(v.modulationLabel()->text(), "Mod: 0");
}

namespace {
/// Counts the paint, move, resize and layout events that reach the widgets it watches.
class RedrawCounter final : public QObject
{
public:
    void watch(QWidget* widget) { widget->installEventFilter(this); }
    int paints = 0;
    int relayouts = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        switch (event->type()) {
        case QEvent::Paint:
            ++paints;
            break;
        case QEvent::Move:
        case QEvent::Resize:
        case QEvent::LayoutRequest:
            ++relayouts;
            break;
        default:
            break;
        }
        return false;
    }
};
} // namespace

TEST_F(KeyboardViewTest, IdleRefreshesRepaintAndPlaceNothingAndAChangedValueRepaintsItsLine)
{
    // GIVEN a shown view that has refreshed once and painted everything
    QMainWindow window;
    auto* v = new KeyboardView(monitor());
    window.setCentralWidget(v);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    v->updateDisplay();
    QTest::qWait(50);
    RedrawCounter counter;
    counter.watch(v);
    for (QLabel* label : {v->titleLabel(), v->statusLabel(), v->octaveLabel(), v->velocityLabel(), v->pitchBendLabel(),
                          v->modulationLabel(), v->instructionsLabel()})
        counter.watch(label);

    // WHEN nothing changes through several refreshes, by hand and by the view's timer
    for (int i = 0; i < 20; ++i)
        v->updateDisplay();
    QTest::qWait(350);

    // THEN nothing was repainted or placed again
    EXPECT_EQ(counter.paints, 0);
    EXPECT_EQ(counter.relayouts, 0);

    // AND an idle refresh does not even set the texts again: a text put on a line from outside
    // stays until its value changes
    v->pitchBendLabel()->setText("untouched");
    v->updateDisplay();
    EXPECT_EQ(v->pitchBendLabel()->text(), "untouched");
    bender().pitchBend = 8200.0;
    v->updateDisplay();
    EXPECT_EQ(v->pitchBendLabel()->text(), "Pitch: 8");
    QTest::qWait(50);
    counter.paints = 0;

    // WHEN the octave changes; THEN its line shows it and is repainted
    monitor().currentOctave = 6;
    v->updateDisplay();
    EXPECT_EQ(v->octaveLabel()->text(), "Octave: 6");
    ASSERT_TRUE(QTest::qWaitFor([&counter] { return counter.paints > 0; }, 5000));
}

TEST_F(KeyboardViewTest, PitchShowsTheBendTruncatedTowardZeroMinus8192)
{
    const std::vector<std::pair<double, QString>> cases{
        {8192.0, "Pitch: 0"},  {0.0, "Pitch: -8192"}, {16383.0, "Pitch: 8191"},
        {8191.9, "Pitch: -1"}, {8191.6, "Pitch: -1"}, {8192.99, "Pitch: 0"},
    };
    for (const auto& [bend, shown] : cases) {
        // GIVEN the bend; WHEN the view refreshes; THEN it shows the truncated offset
        bender().pitchBend = bend;
        view().updateDisplay();
        EXPECT_EQ(view().pitchBendLabel()->text(), shown) << "bend " << bend;
    }
}

TEST_F(KeyboardViewTest, ModulationShowsTheTruncatedValue)
{
    const std::vector<std::pair<double, QString>> cases{{127.0, "Mod: 127"}, {0.5, "Mod: 0"}, {63.99, "Mod: 63"}};
    for (const auto& [modulation, shown] : cases) {
        bender().modulation = modulation;
        view().updateDisplay();
        EXPECT_EQ(view().modulationLabel()->text(), shown) << "modulation " << modulation;
    }
}

TEST_F(KeyboardViewTest, OctaveAndVelocityArePlainDecimalNumbers)
{
    // GIVEN octave -1 and velocity 127
    monitor().currentOctave = -1;
    monitor().currentVelocity = 127;

    // WHEN the view refreshes
    view().updateDisplay();

    // THEN no padding, a minus sign for the negative octave
    EXPECT_EQ(view().octaveLabel()->text(), "Octave: -1");
    EXPECT_EQ(view().velocityLabel()->text(), "Velocity: 127");
}

TEST_F(KeyboardViewTest, ABendThatIsNotAFiniteNumberStopsTheProgramAtTheNextRefresh)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            bender().pitchBend = std::numeric_limits<double>::quiet_NaN();
            view().updateDisplay();
        },
        "pitch bend value nan cannot be shown");
    EXPECT_DEATH(
        {
            bender().modulation = std::numeric_limits<double>::infinity();
            view().updateDisplay();
        },
        "modulation value inf cannot be shown");
    EXPECT_DEATH(
        {
            bender().pitchBend = 1e19;
            view().updateDisplay();
        },
        "pitch bend value 1e\\+19 cannot be shown");
    EXPECT_DEATH(
        {
            // GIVEN a live view; WHEN its timer ticks with a broken bend; THEN it stops
            bender().updateTimer.stop(); // the view's own timer must be the one that notices
            bender().pitchBend = std::numeric_limits<double>::quiet_NaN();
            view();
            QTest::qWait(300);
        },
        "pitch bend value nan cannot be shown");
}

TEST_F(KeyboardViewTest, TheRefreshTimerIsAMemberThatTicksEvery100Milliseconds)
{
    KeyboardView& v = view();
    const QTimer& timer = v.updateTimer();
    EXPECT_EQ(KeyboardView::kRefreshIntervalMs, 100);
    EXPECT_EQ(timer.interval(), 100);
    EXPECT_TRUE(timer.isActive());
    EXPECT_FALSE(timer.isSingleShot());
    // The timer lives inside the view object itself, so it dies with it.
    const auto* begin = reinterpret_cast<const char*>(&v);
    const auto* where = reinterpret_cast<const char*>(&timer);
    EXPECT_GE(where, begin);
    EXPECT_LT(where, begin + sizeof(KeyboardView));
}

TEST_F(KeyboardViewTest, DestroyingTheViewStopsTheRefreshes)
{
    // GIVEN a view whose timer runs, and a way to see the timer die with it
    view();
    bool timerDestroyed = false;
    QObject::connect(&view_->updateTimer(), &QObject::destroyed, [&timerDestroyed] { timerDestroyed = true; });

    // WHEN the view is destroyed while the monitor lives on, and the monitor then holds a
    // value that would stop the program at any refresh
    view_.reset();
    bender().updateTimer.stop(); // only a refresh of the view could notice the value
    bender().pitchBend = std::numeric_limits<double>::quiet_NaN();
    QTest::qWait(350);

    // THEN the timer went with the view and no tick reached it (the process is still here)
    EXPECT_TRUE(timerDestroyed);
    bender().pitchBend = 8192.0;
}

TEST_F(KeyboardViewTest, PlacingTheViewInAWindowMakesItThatWindowsFocusWidget)
{
    // GIVEN a window with another control that could take the focus
    QMainWindow window;
    auto* other = new QLabel("other");
    other->setFocusPolicy(Qt::StrongFocus);
    window.setMenuWidget(other);
    other->setFocus();

    // WHEN the view becomes the window's content
    KeyboardView* v = new KeyboardView(monitor());
    window.setCentralWidget(v);

    // THEN it is the window's focus widget, before and after the window is shown
    EXPECT_EQ(window.focusWidget(), v);
    EXPECT_EQ(v->focusPolicy(), Qt::StrongFocus);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    EXPECT_EQ(QApplication::focusWidget(), v);
    EXPECT_TRUE(v->hasFocus());
}

TEST_F(KeyboardViewTest, RemovingTheViewFromItsWindowRaisesNoError)
{
    // GIVEN the view as a shown window's content
    QMainWindow window;
    KeyboardView* v = new KeyboardView(monitor());
    window.setCentralWidget(v);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));

    // WHEN it is taken out of the window
    std::unique_ptr<KeyboardView> removed;
    {
        WarningCollector warnings;
        v->setParent(nullptr);
        removed.reset(v);
        QTest::qWait(150);
        // THEN nothing complains and it goes on refreshing on its own
        EXPECT_TRUE(WarningCollector::messages().isEmpty()) << WarningCollector::messages().join("\n").toStdString();
    }
    EXPECT_EQ(removed->parentWidget(), nullptr);
    EXPECT_TRUE(removed->updateTimer().isActive());
}

TEST_F(KeyboardViewTest, TheInstructionsAreTheSixteenLinesWithTheShortcutModifierOfThePlatform)
{
#ifdef Q_OS_MACOS
    const QString modifier = "Cmd";
#else
    const QString modifier = "Ctrl";
#endif
    const QString expected =
        QStringList{
            "KEYBOARD LAYOUT:",
            "",
            "Number Keys (1-9, 0): Change octave",
            "",
            "Piano Keys:",
            "  W E   T Y U   O P   ]: Black keys (sharps)",
            "A S D F G H J K L ; ` ': White keys",
            "Q R I [ \\: Extended (G# A A# B C)",
            "",
            "Velocity: Z=20  X=40  C=60  V=80  B=100  N=115  M=120  ,=127",
            "",
            "Benders:",
            "Up/down: Pitch Bend,  left/right: Modulation, period: Toggle Pitch Auto-Release, slash: Toggle Mod "
            "Auto-Release.",
            "",
            "This app appears as \"PLK\" in other MIDI applications.",
            "Keep this window focused to play. " + modifier + "+Q to quit, " + modifier + "+, for preferences.",
        }
            .join('\n');

    EXPECT_EQ(KeyboardView::instructionsText(), expected);
    EXPECT_EQ(view().instructionsLabel()->text(), expected);
    EXPECT_EQ(expected.split('\n').size(), 16);
    EXPECT_FALSE(expected.endsWith('\n'));
}

TEST_F(KeyboardViewTest, TheLabelsHaveTheirTextsFontsAndAlignments)
{
    KeyboardView& v = view();
    struct Expected
    {
        QLabel* label;
        QString text;
        int size;
        QFont::Weight weight;
        bool monospaced;
        Qt::Alignment alignment;
    };
    const std::vector<Expected> labels{
        {v.titleLabel(), "Plinkora", 24, QFont::Bold, false, Qt::AlignCenter},
        {v.statusLabel(), QString::fromUtf8("\u2713 MIDI Device Active"), 14, QFont::Normal, false, Qt::AlignCenter},
        {v.octaveLabel(), "Octave: 4", 16, QFont::Medium, true, Qt::AlignCenter},
        {v.velocityLabel(), "Velocity: 80", 16, QFont::Medium, true, Qt::AlignCenter},
        {v.pitchBendLabel(), "Pitch: 0", 14, QFont::Normal, true, Qt::AlignCenter},
        {v.modulationLabel(), "Mod: 0", 14, QFont::Normal, true, Qt::AlignCenter},
        {v.instructionsLabel(), KeyboardView::instructionsText(), 12, QFont::Normal, true,
         Qt::AlignLeft | Qt::AlignTop},
    };
    for (const Expected& e : labels) {
        SCOPED_TRACE(e.text.toStdString());
        EXPECT_EQ(e.label->text(), e.text);
        EXPECT_EQ(e.label->font().pixelSize(), e.size);
        EXPECT_EQ(e.label->font().weight(), e.weight);
        EXPECT_EQ(QFontInfo(e.label->font()).fixedPitch(), e.monospaced);
        EXPECT_EQ(e.label->alignment(), e.alignment);
        EXPECT_EQ(e.label->textInteractionFlags(), Qt::NoTextInteraction);
    }
    EXPECT_TRUE(v.instructionsLabel()->wordWrap());

    // The status line is green: the green channel clearly dominates.
    const QColor green = v.statusLabel()->palette().color(QPalette::WindowText);
    EXPECT_GT(green.green(), green.red() + 40);
    EXPECT_GT(green.green(), green.blue() + 40);
}

TEST_F(KeyboardViewTest, TheLayoutStacksTitleStatusAndTwoColumnsAboveTheInstructions)
{
    // GIVEN the view at the main window's content size, with live values of different widths
    KeyboardView& v = view();
    v.resize(600, 400);
    v.show();
    monitor().currentVelocity = 127;
    bender().pitchBend = 0.0;
    v.updateDisplay();

    const QRect title = v.titleLabel()->geometry();
    const QRect status = v.statusLabel()->geometry();
    const QRect octave = v.octaveLabel()->geometry();
    const QRect velocity = v.velocityLabel()->geometry();
    const QRect pitch = v.pitchBendLabel()->geometry();
    const QRect mod = v.modulationLabel()->geometry();
    const QRect instructions = v.instructionsLabel()->geometry();
    const auto bottom = [](const QRect& r) { return r.y() + r.height(); };
    const auto right = [](const QRect& r) { return r.x() + r.width(); };

    // THEN the title is 20 from the top, the status line 10 below it, both centred
    EXPECT_EQ(title.y(), 20);
    EXPECT_LE(std::abs(title.center().x() - 300), 1);
    EXPECT_EQ(status.y(), bottom(title) + 10);
    EXPECT_LE(std::abs(status.center().x() - 300), 1);
    // octave on the left and velocity on the right, 40 inside, 20 below the status line
    EXPECT_EQ(octave.x(), 40);
    EXPECT_EQ(octave.y(), bottom(status) + 20);
    EXPECT_EQ(right(velocity), 560);
    EXPECT_EQ(velocity.y(), bottom(status) + 20);
    // pitch under octave, modulation under velocity, 10 apart
    EXPECT_EQ(pitch.x(), 40);
    EXPECT_EQ(pitch.y(), bottom(octave) + 10);
    EXPECT_EQ(right(mod), 560);
    EXPECT_EQ(mod.y(), bottom(velocity) + 10);
    // each status line has its own width, which follows its text
    EXPECT_EQ(velocity.size(), v.velocityLabel()->sizeHint());
    EXPECT_EQ(pitch.size(), v.pitchBendLabel()->sizeHint());
    // the instructions 20 under pitch, 40 from both sides, tall enough for every wrapped line
    EXPECT_EQ(instructions.y(), bottom(pitch) + 20);
    EXPECT_EQ(instructions.x(), 40);
    EXPECT_EQ(right(instructions), 560);
    EXPECT_EQ(instructions.height(), v.instructionsLabel()->heightForWidth(520));

    // WHEN the view is made wider THEN the columns follow the edges
    v.resize(800, 400);
    EXPECT_EQ(v.velocityLabel()->geometry().x() + v.velocityLabel()->geometry().width(), 760);
    EXPECT_LE(std::abs(v.titleLabel()->geometry().center().x() - 400), 1);
    EXPECT_EQ(v.instructionsLabel()->geometry().width(), 720);
}

TEST_F(KeyboardViewTest, TheViewIs600By400UnlessTheFontsNeedMoreHeightForTheInstructions)
{
    // GIVEN a view at its preferred size
    KeyboardView& v = view();
    v.resize(v.sizeHint());
    v.show();
    const QRect instructions = v.instructionsLabel()->geometry();

    // THEN it is 600 wide, at least 400 high, and every line of the instructions is inside it
    EXPECT_EQ(v.sizeHint().width(), 600);
    EXPECT_EQ(v.sizeHint().height(), std::max(400, v.contentHeight(600)));
    EXPECT_EQ(v.contentHeight(600), instructions.y() + instructions.height());
    EXPECT_LE(instructions.y() + instructions.height(), v.height());

    // WHEN the instructions need less room THEN the view is exactly 600 by 400
    v.instructionsLabel()->setFont(QFont(v.instructionsLabel()->font().family(), 6));
    EXPECT_EQ(v.sizeHint(), QSize(600, 400));
}

TEST_F(KeyboardViewTest, EveryLabelIsNamedByItsTextAndTheFocusedViewHasAFixedName)
{
    // GIVEN a view
    KeyboardView& v = view();

    // THEN the view has a fixed name and a description for screen readers
    EXPECT_EQ(accessibleName(&v), "Plinkora keyboard");
    EXPECT_FALSE(v.accessibleDescription().isEmpty());
    // and every label is named by its text
    for (QLabel* label : {v.titleLabel(), v.statusLabel(), v.octaveLabel(), v.velocityLabel(), v.pitchBendLabel(),
                          v.modulationLabel(), v.instructionsLabel()})
        EXPECT_EQ(accessibleName(label), label->text());

    // WHEN the values change THEN the live labels' names follow, the view's stays
    monitor().currentOctave = 2;
    bender().modulation = 42.0;
    v.updateDisplay();
    EXPECT_EQ(accessibleName(v.octaveLabel()), "Octave: 2");
    EXPECT_EQ(accessibleName(v.modulationLabel()), "Mod: 42");
    EXPECT_EQ(accessibleName(&v), "Plinkora keyboard");
}

TEST_F(KeyboardViewTest, OtherConstructorsDoNotExist)
{
    static_assert(!std::is_default_constructible_v<KeyboardView>);
    static_assert(!std::is_constructible_v<KeyboardView, QWidget*>);
    static_assert(!std::is_copy_constructible_v<KeyboardView>);
    static_assert(std::is_constructible_v<KeyboardView, KeyboardMonitor&>);
    SUCCEED();
}
