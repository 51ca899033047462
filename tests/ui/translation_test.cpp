#include "platform/user_language.h"
#include "support/engine_fixture.h"
#include "ui/connections_view.h"
#include "ui/keyboard_view.h"
#include "ui/main_window.h"
#include "ui/preferences_window.h"

#include <QAction>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QSlider>

#include <memory>

using namespace plinkora;
using namespace plinkora::testing;

namespace {

QStringList labelTexts(const QWidget& widget)
{
    QStringList texts;
    for (const QLabel* label : widget.findChildren<QLabel*>())
        texts << label->text();
    return texts;
}

/// The windows built after the German translation of the build tree was installed (as the
/// program does at start under LANGUAGE=de); English again afterwards.
class GermanWindowsTest : public EngineFixture
{
protected:
    void SetUp() override { language = installTranslations(QLocale(QLocale::German, QLocale::Germany)); }
    void TearDown() override { installTranslations(QLocale::c()); }

    QLocale language;
};

} // namespace

TEST_F(GermanWindowsTest, TheTranslationIsFoundInTheBuildTreeAndTheVoiceFollowsIt)
{
    EXPECT_EQ(language.language(), QLocale::German);
    EXPECT_EQ(userLanguage().language(), QLocale::German);
}

TEST_F(GermanWindowsTest, TheMainWindowReadsInGerman)
{
    MainWindow window(monitor());
    EXPECT_EQ(window.windowTitle(), "Plinkora");
    EXPECT_EQ(window.aboutAction()->text(), "Über Plinkora");
    EXPECT_EQ(window.preferencesAction()->text(), "Einstellungen...");
    EXPECT_EQ(window.quitAction()->text(), "Plinkora beenden");

    const QStringList labels = labelTexts(*window.keyboardView());
    EXPECT_TRUE(labels.contains("\u2713 MIDI-Gerät aktiv")) << labels.join('|').toStdString();
    EXPECT_TRUE(labels.contains("Oktave: 4"));
    EXPECT_TRUE(labels.contains("Tonhöhe: 0"));
    EXPECT_FALSE(labels.contains("Octave: 4"));
    EXPECT_TRUE(KeyboardView::instructionsText().startsWith("TASTATURBELEGUNG:"));
    EXPECT_TRUE(KeyboardView::instructionsText().endsWith("Strg+Q beendet, Strg+, öffnet die Einstellungen."));
    EXPECT_EQ(window.keyboardView()->accessibleName(), "Plinkora-Tastatur");
}

TEST_F(GermanWindowsTest, ThePreferencesReadInGerman)
{
    PreferencesWindow window(*monitor().benderController, settings);
    EXPECT_EQ(window.windowTitle(), "Einstellungen");
    const QStringList labels = labelTexts(window);
    for (const char* text : {"Bender-Einstellungen", "Pitch-Bend-Tempo:", "Modulationstempo:",
                             "Controller der Funktionstasten", "F1 CC:", "Soundfont:"})
        EXPECT_TRUE(labels.contains(QString::fromUtf8(text))) << text;
    QStringList names;
    for (const QWidget* control : window.findChildren<QWidget*>())
        names << control->accessibleName();
    for (const char* name : {"Pitch-Bend-Tempo", "Modulationstempo", "F4 MIDI-CC-Nummer", "Soundfont wählen"})
        EXPECT_TRUE(names.contains(QString::fromUtf8(name))) << name;
}

TEST(EnglishWindows, WithoutATranslationTheTextsStayEnglish)
{
    EXPECT_EQ(installTranslations(QLocale(QLocale::French, QLocale::France)).language(), QLocale::English);
    EXPECT_EQ(KeyboardView::tr("Octave: %1").arg(4), "Octave: 4");
    EXPECT_EQ(installTranslations(QLocale::c()).language(), QLocale::English);
}
