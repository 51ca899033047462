// The built-in synthesizer with FluidSynth, the default sound font and FluidSynth's file output
// (no sound server needed): loading off the calling thread, what is kept until it is there,
// muting, the idle suspension, the errors, the settings.
#include "common/settings_store.h"
#include "synth/built_in_synth.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <algorithm>

#include <dlfcn.h>

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

// Whether libinstpatch has been started in this process: its ipatch_init registers its types.
bool libInstPatchStarted()
{
    using TypeFromName = std::size_t (*)(const char*);
    const auto typeFromName = reinterpret_cast<TypeFromName>(dlsym(RTLD_DEFAULT, "g_type_from_name"));
    return typeFromName != nullptr && typeFromName("IpatchDLSFile") != 0;
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

    /// A file of the test's own folder with `content`.
    QString writeFile(const char* name, const QByteArray& content) const
    {
        const QString path = dir.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return path;
    }

    /// Chooses `path` as the sound font of `synth`, which announces into `announced`; it is
    /// refused with one announcement and the font in use keeps playing.
    static void expectRefused(BuiltInSynth& synth, const std::vector<QString>& announced, const QString& path)
    {
        synth.setSoundFont(path.toStdString());
        ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
        EXPECT_EQ(announced.front(), QStringLiteral("Sound font could not be read: ") + path);
        EXPECT_TRUE(synth.isAudible());
    }

    QTemporaryDir dir;
    QSettings qsettings;
    SettingsStore settings;
};

} // namespace

#if defined(PLINKORA_HAVE_INSTPATCH_START)
// First of the file: libinstpatch's types, once registered, stay for the rest of the process.
TEST_F(BuiltInSynthTest, LibInstPatchStartsOnlyForAFileTheSoundFontLoadersCannotRead)
{
    BuiltInSynth synth(settings, fileOutput());
    std::vector<QString> announced;
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    // The default font and a program loaded later: no DLS loader needed.
    synth.midiSent(message({0xC0, 40}));
    ASSERT_TRUE(waitFor([&] { return synth.engine().program(0) == 40; }));
    EXPECT_FALSE(libInstPatchStarted());

    // A file no SF2 loader reads reaches FluidSynth's DLS loader, which gets libinstpatch started.
    expectRefused(synth, announced, writeFile("bogus.dls", "not a sound font either"));
    EXPECT_TRUE(libInstPatchStarted());
    synth.midiSent(message({0x90, 60, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 0);
}
#endif

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
    // Program 40 came after the load had begun: its preset is loaded next.
    EXPECT_TRUE(waitFor([&] { return synth.engine().program(2) == 40; }));
    synth.midiSent(message({0x92, 60, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 0);
}

TEST_F(BuiltInSynthTest, TheFontIsLoadedCutDownToThePresetsInUseAndAnotherProgramIsLoadedWhenChosen)
{
    BuiltInSynth synth(settings, fileOutput());
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    // Every channel on program 0: the piano and, on channel 10, the standard drum kit.
    EXPECT_EQ(synth.engine().presetsLoaded(), (std::set<PresetNumber>{{0, 0}, {128, 0}}));

    synth.midiSent(message({0xC0, 40}));
    // The channel keeps its preset until the one for program 40 is there.
    EXPECT_EQ(synth.engine().program(0), 0);
    synth.midiSent(message({0x90, 60, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 0);
    ASSERT_TRUE(waitFor([&] { return synth.engine().program(0) == 40; }));
    // The other channels keep program 0.
    EXPECT_EQ(synth.engine().presetsLoaded(), (std::set<PresetNumber>{{0, 0}, {0, 40}, {128, 0}}));
    synth.midiSent(message({0x80, 60, 0, 0x90, 62, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 0);
}

TEST_F(BuiltInSynthTest, ItStartsWithSixtyFourVoicesAndMakesAllOneHundredAndTwentyEightWhenChordsNeedThem)
{
    BuiltInSynth synth(settings, fileOutput());
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    EXPECT_EQ(synth.engine().voices(), 64);
    // Notes held on four channels until more than 48 voices sound.
    int notes = 0;
    for (std::uint8_t channel = 0; channel < 4 && synth.engine().activeVoices() <= 48; ++channel)
        for (std::uint8_t key = 40; key < 80 && synth.engine().activeVoices() <= 48; ++key, ++notes)
            synth.midiSent(message({static_cast<std::uint8_t>(0x90 | channel), key, 100}));
    EXPECT_GT(synth.engine().activeVoices(), 48);
    EXPECT_EQ(synth.engine().voices(), 128);
    const int sounding = synth.engine().activeVoices();
    synth.midiSent(message({0x94, 60, 100}));
    EXPECT_GT(synth.engine().activeVoices(), sounding);
    EXPECT_LT(notes, 160);
}

TEST_F(BuiltInSynthTest, AFontThatCanNoLongerBeReadKeepsItsLoadedPresetsPlayingAndSaysSo)
{
    const QString copy = dir.filePath("copy.sf2");
    ASSERT_TRUE(QFile::copy(QString::fromStdString(BuiltInSynth::defaultSoundFont()), copy));
    BuiltInSynth synth(settings, fileOutput());
    std::vector<QString> announced;
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    synth.setSoundFont(copy.toStdString());
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    ASSERT_TRUE(QFile::remove(copy));

    synth.midiSent(message({0xC0, 40}));
    ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
    EXPECT_EQ(announced, std::vector<QString>{QStringLiteral("Sound font could not be read: ") + copy});
    // Program 40 falls back to the piano loaded, which plays on.
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
    // Nothing can sound while muted: the audio output closes once the voices have ended, not
    // after the idle time, and opens again when it plays again.
    EXPECT_TRUE(waitFor([&] { return synth.engine().isSuspended(); }, 2s));
    synth.midiSent(message({0x90, 67, 100}));
    EXPECT_EQ(synth.engine().activeVoices(), 0);
    synth.engine().setPlaying(true);
    EXPECT_FALSE(synth.engine().isSuspended());
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
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
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
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    expectRefused(synth, announced, writeFile("bogus.sf2", "not a sound font"));
    EXPECT_EQ(synth.engine().soundFont(), BuiltInSynth::defaultSoundFont());
}

TEST_F(BuiltInSynthTest, AnAudioOutputThatCannotOpenSaysOneLine)
{
    qputenv("PULSE_SERVER", QByteArray("unix:") + dir.filePath("no-sound-server").toUtf8());
    BuiltInSynth::Options options = fileOutput();
    options.engine.drivers = {"pulseaudio"};
    BuiltInSynth synth(settings, options);
    std::vector<QString> announced;
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
    EXPECT_TRUE(announced.front().startsWith(QStringLiteral("Audio output failed: pulseaudio: ")))
        << announced.front().toStdString();
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

TEST_F(BuiltInSynthTest, AFailedAudioOutputSaysOneLineAndChoosingAnotherTriesAgain)
{
    qputenv("JACK_DEFAULT_SERVER",
            QByteArray("plinkora-none-") + QByteArray::number(QCoreApplication::applicationPid()));
    BuiltInSynth::Options options = fileOutput();
    options.audioDriver = "jack";
    BuiltInSynth synth(settings, options);
    EXPECT_EQ(synth.audioDriver(), "jack");
    EXPECT_EQ(settings.stringForKey(QStringLiteral("AudioDriver")), QStringLiteral("jack")); // remembered
    std::vector<QString> announced;
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return !announced.empty(); }));
    EXPECT_EQ(announced, std::vector<QString>{QStringLiteral("Audio output failed: jack: no JACK server is running")});
    EXPECT_FALSE(synth.isAudible());

    // The same one again tries again, and fails again, with one more line.
    synth.setAudioDriver("jack");
    EXPECT_EQ(announced.size(), 2U);
    EXPECT_FALSE(synth.isAudible());

    // Another one opens, and is remembered.
    synth.setAudioDriver("file");
    EXPECT_TRUE(synth.isAudible());
    EXPECT_EQ(synth.engine().driverName(), "file");
    EXPECT_EQ(settings.stringForKey(QStringLiteral("AudioDriver")), QStringLiteral("file"));
    EXPECT_EQ(announced.size(), 2U);
    qunsetenv("JACK_DEFAULT_SERVER");
}

TEST_F(BuiltInSynthTest, ChoosingAnotherAudioOutputWhilePlayingClosesTheOneInUse)
{
    qputenv("JACK_DEFAULT_SERVER",
            QByteArray("plinkora-none-") + QByteArray::number(QCoreApplication::applicationPid()));
    BuiltInSynth synth(settings, fileOutput());
    std::vector<QString> announced;
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    int changes = 0;
    synth.setChangeCallback([&] { ++changes; });
    synth.start();
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    const int before = changes;
    synth.setAudioDriver("jack");
    EXPECT_FALSE(synth.isAudible());
    EXPECT_EQ(synth.engine().driverName(), "");
    EXPECT_GT(changes, before);
    ASSERT_EQ(announced.size(), 1U);
    EXPECT_EQ(announced.front(), QStringLiteral("Audio output failed: jack: no JACK server is running"));
    qunsetenv("JACK_DEFAULT_SERVER");
}

TEST_F(BuiltInSynthTest, AnAudioOutputChosenWhileTheFontLoadsIsTheOneOpened)
{
    BuiltInSynth::Options options = fileOutput();
    options.engine.drivers = {"no-such-output"};
    BuiltInSynth synth(settings, options);
    std::vector<QString> announced;
    synth.setAnnounce([&](const UserText& text) { announced.push_back(text.shown); });
    synth.start();
    synth.setAudioDriver("file"); // the worker tried the old one
    ASSERT_TRUE(waitFor([&] { return synth.isAudible(); }));
    EXPECT_EQ(synth.engine().driverName(), "file");
    EXPECT_TRUE(announced.empty());
}

TEST_F(BuiltInSynthTest, TheSettingChoosesTheAudioOutput)
{
    EXPECT_EQ(BuiltInSynth(settings, fileOutput()).audioDriver(), "auto");
    settings.setString(QStringLiteral("ALSA"), QStringLiteral("AudioDriver"));
    {
        BuiltInSynth synth(settings, fileOutput());
        EXPECT_EQ(synth.audioDriver(), "alsa");
        EXPECT_EQ(synth.engine().drivers(), std::vector<std::string>{"alsa"});
    }
    settings.setString(QStringLiteral("loudspeaker"), QStringLiteral("AudioDriver"));
    EXPECT_EQ(BuiltInSynth(settings, fileOutput()).audioDriver(), "auto");
}

TEST(AudioDriverTest, NamesAndChoices)
{
    const std::vector<std::string> available{"alsa", "file", "jack", "oss", "pulseaudio"};
    EXPECT_EQ(parseAudioDriver("AUTO", available), "auto");
    EXPECT_EQ(parseAudioDriver("Jack", available), "jack");
    EXPECT_EQ(parseAudioDriver("pipewire", available), std::nullopt); // not in this FluidSynth
    EXPECT_EQ(parseAudioDriver("", available), std::nullopt);
    EXPECT_EQ(audioDriversFor("auto"), (std::vector<std::string>{"jack", "pipewire", "pulseaudio", "alsa"}));
    EXPECT_EQ(audioDriversFor("alsa"), std::vector<std::string>{"alsa"});

    std::vector<std::string> names;
    std::vector<std::string> texts;
    for (const AudioDriverChoice& choice : audioDriverChoices(available)) {
        names.push_back(choice.name);
        texts.push_back(choice.text);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"auto", "jack", "pulseaudio", "alsa", "oss"}));
    EXPECT_EQ(texts, (std::vector<std::string>{"Automatic", "JACK", "PulseAudio", "ALSA", "oss"}));
    const std::vector<std::string> here = FluidEngine::availableDrivers();
    EXPECT_NE(std::find(here.begin(), here.end(), "alsa"), here.end());
    EXPECT_NE(std::find(here.begin(), here.end(), "file"), here.end());
}
