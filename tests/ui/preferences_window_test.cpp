#include "input/function_key_config.h"
#include "support/engine_fixture.h"
#include "synth/built_in_synth.h"
#include "ui/preference_controls.h"
#include "ui/preferences_window.h"

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFontInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <memory>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

class PreferencesWindowTest : public EngineFixture
{
protected:
    BenderController& bender() { return *monitor().benderController; }

    /// The window, built on first use (settings written before are what it shows).
    PreferencesWindow& window()
    {
        if (!window_)
            window_ = std::make_unique<PreferencesWindow>(bender(), settings);
        return *window_;
    }

    /// Shows the window and waits until it is the active window.
    void showActive()
    {
        window().show();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&window()));
    }

    /// Replaces the field's text as a user does: select everything, then type (or erase).
    void type(int index, const QString& text)
    {
        QLineEdit* field = window().ccField(index);
        field->setFocus();
        field->selectAll();
        if (text.isEmpty())
            QTest::keyClick(field, Qt::Key_Backspace);
        else
            QTest::keyClicks(field, text);
        ASSERT_EQ(field->text(), text);
    }

    /// Commits the field with Return.
    void commit(int index) { QTest::keyClick(window().ccField(index), Qt::Key_Return); }

    QString shown(int index) { return window().ccField(index)->text(); }
    bool stored(const QString& key) { return qsettings.contains(key); }

    std::unique_ptr<PreferencesWindow> window_;
};

QAccessibleInterface* accessible(QObject* object)
{
    return QAccessible::queryAccessibleInterface(object);
}

} // namespace

TEST_F(PreferencesWindowTest, WithNoStoredNumbersTheFieldsShowTheDefaults115To118)
{
    // GIVEN empty settings; WHEN the window is built
    // THEN the four fields show the function keys' default controllers
    EXPECT_EQ(shown(0), "115");
    EXPECT_EQ(shown(1), "116");
    EXPECT_EQ(shown(2), "117");
    EXPECT_EQ(shown(3), "118");
}

TEST_F(PreferencesWindowTest, StoredNumbersAreShown)
{
    settings.setInteger(7, "PLK_F2_CC");
    settings.setInteger(200, "PLK_F4_CC");
    EXPECT_EQ(shown(0), "115");
    EXPECT_EQ(shown(1), "7");
    EXPECT_EQ(shown(3), "200");
}

TEST_F(PreferencesWindowTest, Typing64InF2AndPressingReturnStoresItAndLeavesItShown)
{
    // GIVEN the window; WHEN 64 is typed in the F2 field and Return pressed
    type(1, "64");
    commit(1);

    // THEN 64 is stored under PLK_F2_CC and the field still shows it; the others are untouched
    EXPECT_EQ(settings.integerForKey("PLK_F2_CC"), 64);
    EXPECT_EQ(shown(1), "64");
    EXPECT_FALSE(stored("PLK_F1_CC"));
    EXPECT_FALSE(stored("PLK_F3_CC"));
    EXPECT_FALSE(stored("PLK_F4_CC"));
}

TEST_F(PreferencesWindowTest, InvalidEntriesPutBackTheDefaultAndStoreNothing)
{
    for (const QString text : {"128", "300", "abc", " 64", "64 ", "-1", "+", ""}) {
        SCOPED_TRACE(text.toStdString());
        // GIVEN nothing stored; WHEN the entry is typed and committed
        type(1, text);
        commit(1);
        // THEN the field shows the default again and nothing was stored
        EXPECT_EQ(shown(1), "116");
        EXPECT_FALSE(stored("PLK_F2_CC"));
    }
}

TEST_F(PreferencesWindowTest, InvalidEntriesPutBackTheStoredNumberAndKeepIt)
{
    settings.setInteger(7, "PLK_F2_CC");
    for (const QString text : {"128", "300", "abc", " 64", "64 ", "-1", "+", ""}) {
        SCOPED_TRACE(text.toStdString());
        type(1, text);
        commit(1);
        EXPECT_EQ(shown(1), "7");
        EXPECT_EQ(settings.integerForKey("PLK_F2_CC"), 7);
    }
}

TEST_F(PreferencesWindowTest, ZeroOrMinusZeroIsStoredAndShownUntilTheFieldIsFilledFromTheSettings)
{
    for (const QString zero : {"0", "-0"}) {
        SCOPED_TRACE(zero.toStdString());
        qsettings.clear();
        window_.reset();

        // GIVEN 64 stored for F3; WHEN "0" (or "-0") is typed and committed
        settings.setInteger(64, "PLK_F3_CC");
        type(2, zero);
        commit(2);

        // THEN 0 is stored and the field keeps the text as typed
        EXPECT_TRUE(stored("PLK_F3_CC"));
        EXPECT_EQ(settings.integerForKey("PLK_F3_CC"), 0);
        EXPECT_EQ(shown(2), zero);

        // WHEN the field is next filled from the settings (a rejected entry)
        type(2, "abc");
        commit(2);
        // THEN it shows the default, since a stored 0 means "not set"
        EXPECT_EQ(shown(2), "117");
        EXPECT_EQ(settings.integerForKey("PLK_F3_CC"), 0);
    }
}

TEST_F(PreferencesWindowTest, APlusSignAndLeadingZerosAreAccepted)
{
    type(0, "+127");
    commit(0);
    EXPECT_EQ(settings.integerForKey("PLK_F1_CC"), 127);
    EXPECT_EQ(shown(0), "+127");

    type(3, "0127");
    commit(3);
    EXPECT_EQ(settings.integerForKey("PLK_F4_CC"), 127);
    EXPECT_EQ(shown(3), "0127");
}

TEST_F(PreferencesWindowTest, LeavingAnEditedFieldWithTabCommitsIt)
{
    // GIVEN the window in front with 42 typed into F1
    showActive();
    type(0, "42");

    // WHEN Tab moves on to F2
    QTest::keyClick(window().ccField(0), Qt::Key_Tab);

    // THEN 42 is stored and the focus is in F2
    EXPECT_EQ(window().focusWidget(), window().ccField(1));
    EXPECT_EQ(settings.integerForKey("PLK_F1_CC"), 42);
    EXPECT_EQ(shown(0), "42");

    // WHEN an invalid entry is left with Tab THEN it is put back and nothing is stored
    type(1, "999");
    QTest::keyClick(window().ccField(1), Qt::Key_Tab);
    EXPECT_EQ(shown(1), "116");
    EXPECT_FALSE(stored("PLK_F2_CC"));
}

TEST_F(PreferencesWindowTest, LeavingAFieldThatWasNotEditedStoresNothing)
{
    // GIVEN a field whose rejected entry was put back (the default, not stored)
    showActive();
    type(1, "abc");
    commit(1);
    ASSERT_EQ(shown(1), "116");

    // WHEN the user tabs through the fields
    for (int i = 0; i < 6; ++i)
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);

    // THEN nothing was stored: the default shown is not written by merely leaving
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(stored(kFunctionKeyConfig.key(i)));
}

TEST_F(PreferencesWindowTest, MovingThePitchSliderTo137Point6AppliesShowsAndStoresIt)
{
    // WHEN the pitch slider is moved to 137.6
    window().pitchSpeedSlider()->setDoubleValue(137.6);

    // THEN the controller's speed is 137.6, the label shows 138, 137.6 is stored
    EXPECT_EQ(bender().pitchBendSpeed, 137.6);
    EXPECT_EQ(window().pitchSpeedLabel()->text(), "138");
    EXPECT_EQ(settings.doubleForKey("PitchBendSpeed"), 137.6);
    EXPECT_EQ(window().pitchSpeedSlider()->doubleValue(), 137.6);
    EXPECT_EQ(bender().modulationSpeed, 100.0);
    EXPECT_FALSE(stored("ModulationSpeed"));
}

TEST_F(PreferencesWindowTest, MovingTheModulationSliderAppliesShowsAndStoresIt)
{
    window().modSpeedSlider()->setDoubleValue(20.4);
    EXPECT_EQ(bender().modulationSpeed, 20.4);
    EXPECT_EQ(window().modSpeedLabel()->text(), "20");
    EXPECT_EQ(settings.doubleForKey("ModulationSpeed"), 20.4);

    window().modSpeedSlider()->setDoubleValue(499.6);
    EXPECT_EQ(window().modSpeedLabel()->text(), "500");
    EXPECT_EQ(bender().modulationSpeed, 499.6);
}

TEST_F(PreferencesWindowTest, TheSlidersStartAtTheControllersSpeedsWithoutStoringThem)
{
    bender().pitchBendSpeed = 250.0;
    bender().modulationSpeed = 42.0;
    EXPECT_EQ(window().pitchSpeedSlider()->doubleValue(), 250.0);
    EXPECT_EQ(window().modSpeedSlider()->doubleValue(), 42.0);
    EXPECT_EQ(window().pitchSpeedLabel()->text(), "250");
    EXPECT_EQ(window().modSpeedLabel()->text(), "42");
    EXPECT_FALSE(stored("PitchBendSpeed"));
    EXPECT_FALSE(stored("ModulationSpeed"));
}

TEST_F(PreferencesWindowTest, TheSlidersStayWithin20And500WhateverTheControllerHeld)
{
    // GIVEN speeds outside the sliders' range
    bender().pitchBendSpeed = 5.0;
    bender().modulationSpeed = 900.0;

    // THEN the labels show them unchanged and the sliders are clamped
    EXPECT_EQ(window().pitchSpeedLabel()->text(), "5");
    EXPECT_EQ(window().modSpeedLabel()->text(), "900");
    EXPECT_EQ(window().pitchSpeedSlider()->doubleValue(), 20.0);
    EXPECT_EQ(window().modSpeedSlider()->doubleValue(), 500.0);
    EXPECT_EQ(bender().pitchBendSpeed, 5.0);

    // WHEN moved beyond the ends THEN they stop at 20 and 500
    window().pitchSpeedSlider()->setDoubleValue(1000.0);
    EXPECT_EQ(bender().pitchBendSpeed, 500.0);
    window().pitchSpeedSlider()->setDoubleValue(-3.0);
    EXPECT_EQ(bender().pitchBendSpeed, 20.0);
    EXPECT_EQ(window().pitchSpeedLabel()->text(), "20");
}

TEST_F(PreferencesWindowTest, TheSlidersWorkFromTheKeyboard)
{
    // GIVEN the window in front, the pitch slider at 100
    showActive();
    SpeedSlider* slider = window().pitchSpeedSlider();
    slider->setFocus();

    // WHEN arrow, Page and Home/End keys are pressed THEN the speed follows in whole steps
    QTest::keyClick(slider, Qt::Key_Right);
    EXPECT_EQ(bender().pitchBendSpeed, 101.0);
    QTest::keyClick(slider, Qt::Key_PageUp);
    EXPECT_EQ(bender().pitchBendSpeed, 111.0);
    QTest::keyClick(slider, Qt::Key_End);
    EXPECT_EQ(bender().pitchBendSpeed, 500.0);
    QTest::keyClick(slider, Qt::Key_Home);
    EXPECT_EQ(bender().pitchBendSpeed, 20.0);
    EXPECT_EQ(settings.doubleForKey("PitchBendSpeed"), 20.0);
}

TEST_F(PreferencesWindowTest, CtrlWClosesTheWindowAndSaysSo)
{
    for (Qt::KeyboardModifiers modifiers :
         {Qt::KeyboardModifiers(Qt::ControlModifier), Qt::ControlModifier | Qt::AltModifier}) {
        // GIVEN the window in front with the focus in a field
        window_.reset();
        showActive();
        QSignalSpy closed(&window(), &PreferencesWindow::closed);
        window().ccField(0)->setFocus();

        // WHEN Ctrl+W (also with Alt) is pressed
        QTest::keyClick(window().ccField(0), Qt::Key_W, modifiers);

        // THEN the window is closed, not deleted, and has said so
        EXPECT_FALSE(window().isVisible());
        EXPECT_EQ(closed.count(), 1);
        EXPECT_EQ(shown(0), "115");
    }
}

TEST_F(PreferencesWindowTest, ClosingTheWindowCommitsAnEntryThatWasTypedButNotCommitted)
{
    // GIVEN 42 typed into F1 without Return
    showActive();
    type(0, "42");

    // WHEN the window is closed with Ctrl+W
    QTest::keyClick(window().ccField(0), Qt::Key_W, Qt::ControlModifier);
    QTest::qWait(50);

    // THEN what the field showed is what is stored
    EXPECT_FALSE(window().isVisible());
    EXPECT_EQ(settings.integerForKey("PLK_F1_CC"), 42);
}

TEST_F(PreferencesWindowTest, CtrlShiftWAndWAloneDoNotCloseTheWindow)
{
    showActive();
    QSignalSpy closed(&window(), &PreferencesWindow::closed);
    window().pitchSpeedSlider()->setFocus();

    QTest::keyClick(window().pitchSpeedSlider(), Qt::Key_W, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_TRUE(window().isVisible());
    QTest::keyClick(window().pitchSpeedSlider(), Qt::Key_W);
    EXPECT_TRUE(window().isVisible());
    QTest::keyClick(&window(), Qt::Key_W);
    EXPECT_TRUE(window().isVisible());
    EXPECT_EQ(closed.count(), 0);
}

TEST_F(PreferencesWindowTest, ANewWindowAfterCloseShowsTheCurrentSpeedsAndStoredNumbers)
{
    // GIVEN a window in which 0 was stored for F3 and 12 for F1, then closed
    showActive();
    type(2, "0");
    commit(2);
    type(0, "12");
    commit(0);
    EXPECT_EQ(shown(2), "0");
    window().close();
    window_.reset();

    // and the controller's speeds changed meanwhile
    bender().pitchBendSpeed = 321.0;
    bender().modulationSpeed = 77.0;

    // WHEN a new window is built
    PreferencesWindow& again = window();

    // THEN it shows the current speeds, the stored 12 and the default for the stored 0
    EXPECT_EQ(again.pitchSpeedLabel()->text(), "321");
    EXPECT_EQ(again.pitchSpeedSlider()->doubleValue(), 321.0);
    EXPECT_EQ(again.modSpeedLabel()->text(), "77");
    EXPECT_EQ(shown(0), "12");
    EXPECT_EQ(shown(2), "117");
}

TEST_F(PreferencesWindowTest, AStoredNumberOutside0To255StopsTheProgramWhenTheWindowIsBuilt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The file is the fixture's own, made afresh when the test is run again to die.
    const std::string file = QDir::tempPath().toStdString() + "/[^ ]+/plinkora\\.conf";

    // GIVEN 300 stored by hand under PLK_F2_CC; WHEN the window is built; THEN the program
    // stops with a line naming the key, the value and the settings file
    qsettings.setValue("PLK_F2_CC", "300");
    qsettings.sync();
    EXPECT_DEATH(window(), "PLK_F2_CC.*") << "key";
    EXPECT_DEATH(window(), "300");
    EXPECT_DEATH(window(), file);

    qsettings.setValue("PLK_F2_CC", "-1");
    qsettings.setValue("PLK_F4_CC", "-1");
    qsettings.sync();
    EXPECT_DEATH(window(), "-1 under \"PLK_F2_CC\" in " + file);
}

TEST_F(PreferencesWindowTest, TheWindowIsTitledPreferencesFixedAt400By484AndClosable)
{
    PreferencesWindow& w = window();
    EXPECT_EQ(w.windowTitle(), "Preferences");
    EXPECT_TRUE(w.isWindow());
    EXPECT_EQ(w.size(), QSize(400, 484));
    EXPECT_EQ(w.minimumSize(), QSize(400, 484));
    EXPECT_EQ(w.maximumSize(), QSize(400, 484));
    EXPECT_TRUE(w.windowFlags() & Qt::WindowCloseButtonHint);
    EXPECT_TRUE(w.windowFlags() & Qt::WindowTitleHint);
    EXPECT_FALSE(w.windowFlags() & Qt::WindowMinimizeButtonHint);
    EXPECT_FALSE(w.windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_FALSE(w.testAttribute(Qt::WA_DeleteOnClose));
    // centred on the screen
    const QPoint centre = w.screen()->availableGeometry().center();
    EXPECT_LE((w.geometry().center() - centre).manhattanLength(), 2);
}

TEST_F(PreferencesWindowTest, TheFramesKeepTheirSizesAndOrderTopDown)
{
    PreferencesWindow& w = window();
    // The bender group on top, the function-key group 10 inside its bottom edge.
    EXPECT_EQ(w.benderGroup()->geometry(), QRect(0, 0, 400, 190));
    EXPECT_EQ(w.functionKeyGroup()->geometry(), QRect(0, 180, 400, 162));
    EXPECT_EQ(w.pitchSpeedSlider()->geometry(), QRect(20, 95, 360, 25));
    EXPECT_EQ(w.modSpeedSlider()->geometry(), QRect(20, 165, 360, 25));
    EXPECT_EQ(w.pitchSpeedLabel()->geometry(), QRect(320, 70, 60, 20));
    EXPECT_EQ(w.modSpeedLabel()->geometry(), QRect(320, 140, 60, 20));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(w.ccField(i)->geometry(), QRect(110, 38 + 30 * i, 60, 24));

    // Headings and captions, with their fonts and alignments.
    const auto label = [&](QWidget* group, const QString& text) -> QLabel* {
        for (QLabel* l : group->findChildren<QLabel*>())
            if (l->text() == text)
                return l;
        return nullptr;
    };
    QLabel* benderHeading = label(w.benderGroup(), "Bender Settings");
    ASSERT_NE(benderHeading, nullptr);
    EXPECT_EQ(benderHeading->geometry(), QRect(20, 20, 360, 30));
    EXPECT_EQ(benderHeading->font().pixelSize(), 18);
    EXPECT_EQ(benderHeading->font().weight(), QFont::Bold);
    QLabel* pitchCaption = label(w.benderGroup(), "Pitch Bend Speed:");
    ASSERT_NE(pitchCaption, nullptr);
    EXPECT_EQ(pitchCaption->geometry(), QRect(20, 70, 150, 20));
    EXPECT_EQ(pitchCaption->font().pixelSize(), 14);
    QLabel* modCaption = label(w.benderGroup(), "Modulation Speed:");
    ASSERT_NE(modCaption, nullptr);
    EXPECT_EQ(modCaption->geometry(), QRect(20, 140, 150, 20));
    EXPECT_EQ(w.pitchSpeedLabel()->alignment() & Qt::AlignHorizontal_Mask, Qt::AlignRight);
    EXPECT_EQ(w.pitchSpeedLabel()->font().pixelSize(), 14);
    EXPECT_TRUE(QFontInfo(w.pitchSpeedLabel()->font()).fixedPitch());

    QLabel* keysHeading = label(w.functionKeyGroup(), "Function Key MIDI Controllers");
    ASSERT_NE(keysHeading, nullptr);
    EXPECT_EQ(keysHeading->geometry(), QRect(20, 0, 360, 30));
    EXPECT_EQ(keysHeading->font().pixelSize(), 18);
    for (int n = 1; n <= 4; ++n) {
        QLabel* caption = label(w.functionKeyGroup(), QString("F%1 CC:").arg(n));
        ASSERT_NE(caption, nullptr);
        EXPECT_EQ(caption->geometry(), QRect(20, 40 + 30 * (n - 1), 80, 20));
        EXPECT_EQ(caption->alignment() & Qt::AlignHorizontal_Mask, Qt::AlignRight);
        // No buddy: a screen reader would read the caption instead of the field's name.
        EXPECT_EQ(caption->buddy(), nullptr);
    }
    EXPECT_EQ(pitchCaption->buddy(), nullptr);
    EXPECT_EQ(modCaption->buddy(), nullptr);
}

TEST_F(PreferencesWindowTest, GroupsFieldsAndSlidersAreNamedForScreenReaders)
{
    PreferencesWindow& w = window();
    EXPECT_EQ(accessible(w.benderGroup())->role(), QAccessible::Grouping);
    EXPECT_EQ(accessible(w.benderGroup())->text(QAccessible::Name), "Bender Settings");
    EXPECT_EQ(accessible(w.functionKeyGroup())->role(), QAccessible::Grouping);
    EXPECT_EQ(accessible(w.functionKeyGroup())->text(QAccessible::Name), "Function Key MIDI Controllers");
    // A window, not Qt's "client" of a plain widget (AT-SPI's "filler").
    EXPECT_EQ(accessible(&w)->role(), QAccessible::Window);
    EXPECT_EQ(accessible(&w)->text(QAccessible::Name), "Preferences");
    for (int n = 1; n <= 4; ++n) {
        QAccessibleInterface* field = accessible(w.ccField(n - 1));
        EXPECT_EQ(field->role(), QAccessible::EditableText);
        EXPECT_EQ(field->text(QAccessible::Name), QString("F%1 MIDI CC number").arg(n));
        // Nothing labels the field but its name ("F1 CC:" is only the visible caption).
        EXPECT_TRUE(field->relations(QAccessible::Label).isEmpty());
        EXPECT_EQ(field->text(QAccessible::Value), QString::number(114 + n));
    }

    // The sliders are named and report the speed itself, not their internal position.
    w.pitchSpeedSlider()->setDoubleValue(137.6);
    QAccessibleInterface* pitch = accessible(w.pitchSpeedSlider());
    EXPECT_EQ(pitch->role(), QAccessible::Slider);
    EXPECT_TRUE(pitch->relations(QAccessible::Label).isEmpty());
    EXPECT_EQ(pitch->text(QAccessible::Name), "Pitch Bend Speed");
    EXPECT_EQ(pitch->text(QAccessible::Value), "138");
    ASSERT_NE(pitch->valueInterface(), nullptr);
    EXPECT_EQ(pitch->valueInterface()->currentValue().toDouble(), 137.6);
    EXPECT_EQ(pitch->valueInterface()->minimumValue().toDouble(), 20.0);
    EXPECT_EQ(pitch->valueInterface()->maximumValue().toDouble(), 500.0);
    EXPECT_EQ(pitch->valueInterface()->minimumStepSize().toDouble(), 1.0);
    EXPECT_EQ(accessible(w.modSpeedSlider())->text(QAccessible::Name), "Modulation Speed");

    // A screen reader setting the value moves the slider as the user would.
    pitch->valueInterface()->setCurrentValue(250.0);
    EXPECT_EQ(bender().pitchBendSpeed, 250.0);
    EXPECT_EQ(settings.doubleForKey("PitchBendSpeed"), 250.0);
}

TEST_F(PreferencesWindowTest, TabGoesThroughTheSlidersThenF1ToF4ThenTheSynthesizer)
{
    // GIVEN the window in front; THEN the first stop has the focus
    showActive();
    EXPECT_EQ(QApplication::focusWidget(), window().pitchSpeedSlider());

    // WHEN Tab is pressed over and over THEN the focus goes round in this order
    const std::vector<QWidget*> expected{
        window().modSpeedSlider(), window().ccField(0),        window().ccField(1),       window().ccField(2),
        window().ccField(3),       window().soundFontButton(), window().audioDeviceBox(), window().pitchSpeedSlider()};
    for (QWidget* next : expected) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        EXPECT_EQ(QApplication::focusWidget(), next);
    }
}

TEST_F(PreferencesWindowTest, OtherConstructorsDoNotExist)
{
    static_assert(!std::is_default_constructible_v<PreferencesWindow>);
    static_assert(!std::is_constructible_v<PreferencesWindow, QWidget*>);
    static_assert(!std::is_copy_constructible_v<PreferencesWindow>);
    static_assert(std::is_constructible_v<PreferencesWindow, BenderController&, SettingsStore&>);
    SUCCEED();
}

TEST_F(PreferencesWindowTest, TheSoundFontRowShowsTheChosenFontOrTheDefault)
{
    EXPECT_EQ(window().soundFontLabel()->toolTip().toStdString(), BuiltInSynth::defaultSoundFont());
    EXPECT_EQ(window().soundFontButton()->accessibleName(), QStringLiteral("Choose sound font"));
    EXPECT_EQ(window().soundFontLabel()->accessibleName(), QStringLiteral("Sound font"));
    window().showSoundFont(QStringLiteral("/fonts/piano.sf3"));
    EXPECT_EQ(window().soundFontLabel()->text(), QStringLiteral("/fonts/piano.sf3"));
}

TEST_F(PreferencesWindowTest, TheSoundFontRowShowsTheStoredFont)
{
    settings.setString(QStringLiteral("/home/me/Big.sf2"), QStringLiteral("SoundFont"));
    EXPECT_EQ(window().soundFontLabel()->toolTip(), QStringLiteral("/home/me/Big.sf2"));
}

TEST_F(PreferencesWindowTest, TheAudioDeviceListOffersAutomaticAndFluidSynthsOutputs)
{
    QComboBox* box = window().audioDeviceBox();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->accessibleName(), QStringLiteral("Audio device"));
    const auto captions = window().findChildren<QLabel*>();
    const auto caption = std::find_if(captions.begin(), captions.end(), [box](QLabel* l) { return l->buddy() == box; });
    ASSERT_NE(caption, captions.end());
    EXPECT_EQ((*caption)->text(), QStringLiteral("Audio device:"));
    ASSERT_GE(box->count(), 2);
    EXPECT_EQ(box->itemText(0), QStringLiteral("Automatic"));
    EXPECT_EQ(box->itemData(0).toString(), QStringLiteral("auto"));
    EXPECT_GE(box->findData(QStringLiteral("alsa")), 1);
    EXPECT_EQ(box->itemText(box->findData(QStringLiteral("alsa"))), QStringLiteral("ALSA"));
    EXPECT_EQ(box->findData(QStringLiteral("file")), -1); // it writes no sound
    EXPECT_EQ(box->currentIndex(), 0);                    // nothing stored: automatic
    EXPECT_GE(box->geometry().top(), window().soundFontLabel()->geometry().bottom());
}

TEST_F(PreferencesWindowTest, TheAudioDeviceListShowsTheStoredChoiceAndReportsEveryChoiceMade)
{
    settings.setString(QStringLiteral("alsa"), QStringLiteral("AudioDriver"));
    showActive();
    QComboBox* box = window().audioDeviceBox();
    EXPECT_EQ(box->currentData().toString(), QStringLiteral("alsa"));
    QStringList chosen;
    QObject::connect(&window(), &PreferencesWindow::audioDriverChosen, [&](const QString& name) { chosen << name; });

    // With the keyboard: Home goes to Automatic; choosing the entry already chosen reports it too
    // (a device that failed is tried again).
    box->setFocus();
    QTest::keyClick(box, Qt::Key_Home);
    EXPECT_EQ(box->currentData().toString(), QStringLiteral("auto"));
    box->setCurrentIndex(box->findData(QStringLiteral("alsa")));
    emit box->activated(box->currentIndex());
    EXPECT_EQ(chosen, (QStringList{QStringLiteral("auto"), QStringLiteral("alsa")}));
}
