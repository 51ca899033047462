// The built-in synthesizer with FluidSynth, the default sound font and FluidSynth's file output
// (no sound server needed): loading off the calling thread, what is kept until it is there,
// muting, the idle suspension, the errors, the settings.
#include "common/settings_store.h"
#include "synth/built_in_synth.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

using namespace plinkora;
using namespace std::chrono_literals;

namespace {

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::vector<std::uint8_t> message(std::initializer_list<std::uint8_t> bytes)
{
    return bytes;
}

class BuiltInSynthTest : public ::testing::Test
{
protected:
    BuiltInSynthTest()
        : qsettings(dir.filePath("Plinkora.conf"), QSettings::IniFormat)
        , settings(qsettings)
    {
    }

    BuiltInSynth::Options fileOutput(std::chrono::milliseconds idle = 10s) const
    {
        BuiltInSynth::Options options;
        options.engine.drivers = {"file"};
        options.engine.audioFile = dir.filePath("out.raw").toStdString();
        options.engine.idleTime = idle;
        return options;
    }

    QTemporaryDir dir;
    QSettings qsettings;
    SettingsStore settings;
};

} // namespace

TEST_F(BuiltInSynthTest, TheDefaultFontLoadsOnTheWorkerAndProgramsSentBeforeAreKept)
{
    BuiltInSynth synth(settings, fileOutput());
    EXPECT_EQ(synth.soundFont(), BuiltInSynth::defaultSoundFont());
    EXPECT_EQ(BuiltInSynth::defaultSoundFont(), "/usr/share/sounds/sf2/TimGM6mb.sf2"); // FluidR3_GM not installed here
    synth.start();
    EXPECT_FALSE(synth.isAudible()); // start() does not wait for the font
    synth.midiSent(message({0xC2, 40}));
    synth.midiSent(message({0x90, 60, 100})); // dropped: nothing to play it yet
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    EXPECT_EQ(synth.engine().driverName(), "file");
    EXPECT_EQ(synth.engine().activeVoices(), 0);
    EXPECT_EQ(synth.engine().program(2), 40);
    synth.midiSent(message({0x90, 60, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 0);
}

TEST_F(BuiltInSynthTest, MutedItReleasesItsNotesAtOnceAndDropsNewOnes)
{
    BuiltInSynth synth(settings, fileOutput());
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    synth.midiSent(message({0x90, 60, 100, 0x90, 64, 100}));
    ASSERT_GT(synth.engine().activeVoices(), 0);
    synth.engine().setPlaying(false);
    EXPECT_TRUE(waitFor([&] { return synth.engine().activeVoices() == 0; }, 2s));
    synth.midiSent(message({0x90, 67, 100}));
    EXPECT_EQ(synth.engine().activeVoices(), 0);
    synth.engine().setPlaying(true);
    synth.midiSent(message({0x90, 67, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 0);
}

TEST_F(BuiltInSynthTest, AfterTheIdleTimeTheAudioOutputIsSuspendedAndTheNextNoteOpensItAgain)
{
    BuiltInSynth synth(settings, fileOutput(300ms));
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    synth.midiSent(message({0x90, 60, 100}));
    QCoreApplication::processEvents();
    std::this_thread::sleep_for(400ms);
    QCoreApplication::processEvents();
    EXPECT_FALSE(synth.engine().isSuspended()); // a held note keeps it open
    synth.midiSent(message({0x80, 60, 0}));
    ASSERT_TRUE(waitFor([&] { return synth.engine().isSuspended(); }, 10s));
    EXPECT_TRUE(synth.isAudible()); // suspended is still ready to play
    synth.midiSent(message({0x90, 62, 100}));
    EXPECT_FALSE(synth.engine().isSuspended());
    EXPECT_GT(synth.engine().activeVoices(), 0);
}

TEST_F(BuiltInSynthTest, AMissingSoundFontSaysOneLineAndChoosingAnotherTriesAgain)
{
    BuiltInSynth::Options options = fileOutput();
    options.soundFont = "/no/such/font.sf2";
    BuiltInSynth synth(settings, options);
    std::vector<QString> announced;
    synth.setAnnounce([&](const QString& text) { announced.push_back(text); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
    EXPECT_EQ(announced, std::vector<QString>{QStringLiteral("Sound font not found: /no/such/font.sf2")});
    EXPECT_FALSE(synth.isAudible());
    EXPECT_EQ(settings.stringForKey(QStringLiteral("SoundFont")), QStringLiteral("/no/such/font.sf2"));

    synth.setSoundFont(BuiltInSynth::defaultSoundFont());
    EXPECT_TRUE(waitFor([&] { return synth.isAudible(); }));
    EXPECT_EQ(settings.stringForKey(QStringLiteral("SoundFont")).toStdString(), BuiltInSynth::defaultSoundFont());
}

TEST_F(BuiltInSynthTest, AFileThatIsNoSoundFontIsRefusedAndTheFontInUseKeepsPlaying)
{
    BuiltInSynth synth(settings, fileOutput());
    std::vector<QString> announced;
    synth.setAnnounce([&](const QString& text) { announced.push_back(text); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    const QString bogus = dir.filePath("bogus.sf2");
    {
        QFile file(bogus);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("not a sound font");
    }
    synth.setSoundFont(bogus.toStdString());
    ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
    EXPECT_EQ(announced.front(), QStringLiteral("Sound font could not be read: ") + bogus);
    EXPECT_TRUE(synth.isAudible());
    EXPECT_EQ(synth.engine().soundFont(), BuiltInSynth::defaultSoundFont());
}

TEST_F(BuiltInSynthTest, AnAudioOutputThatCannotOpenSaysOneLine)
{
    qputenv("PULSE_SERVER", QByteArray("unix:") + dir.filePath("no-sound-server").toUtf8());
    BuiltInSynth::Options options = fileOutput();
    options.engine.drivers = {"pulseaudio"};
    BuiltInSynth synth(settings, options);
    std::vector<QString> announced;
    synth.setAnnounce([&](const QString& text) { announced.push_back(text); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
    EXPECT_TRUE(announced.front().startsWith(QStringLiteral("Audio output failed: pulseaudio: "))) << announced.front().toStdString();
    EXPECT_FALSE(synth.isAudible());
    qunsetenv("PULSE_SERVER");
}

TEST_F(BuiltInSynthTest, OffLoadsNothingUntilAnotherModeIsChosenWhichIsRemembered)
{
    BuiltInSynth::Options options = fileOutput();
    options.mode = SynthMode::Off;
    BuiltInSynth synth(settings, options);
    int changes = 0;
    synth.setChangeCallback([&] { ++changes; });
    synth.start();
    EXPECT_FALSE(synth.engine().isLoading());
    EXPECT_TRUE(settings.stringForKey(QStringLiteral("Synth")).isEmpty()); // --synth is for this run
    synth.setMode(SynthMode::On);
    EXPECT_EQ(settings.stringForKey(QStringLiteral("Synth")), QStringLiteral("on"));
    EXPECT_TRUE(waitFor([&] { return synth.isAudible(); }));
    EXPECT_GE(changes, 2);
}

TEST_F(BuiltInSynthTest, TheSettingChoosesTheModeAndTheFont)
{
    settings.setString(QStringLiteral("off"), QStringLiteral("Synth"));
    settings.setString(QStringLiteral("/somewhere/else.sf3"), QStringLiteral("SoundFont"));
    BuiltInSynth synth(settings, fileOutput());
    EXPECT_EQ(synth.mode(), SynthMode::Off);
    EXPECT_EQ(synth.soundFont(), "/somewhere/else.sf3");
}
