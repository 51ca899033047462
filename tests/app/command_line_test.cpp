#include "app/command_line.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

using namespace plinkora;

namespace {

CommandLine parse(std::vector<std::string> arguments)
{
    return parseCommandLine(arguments);
}

// A made-up environment for the display check.
std::map<std::string, std::string> environment;
std::string fakeEnvironment(const char* name)
{
    const auto it = environment.find(name);
    return it == environment.end() ? std::string() : it->second;
}

} // namespace

TEST(CommandLine, WithoutArgumentsPlinkoraRunsWithTheAutomaticMIDIChoice)
{
    const CommandLine line = parse({});
    EXPECT_EQ(line.action, CommandLine::Action::Run);
    EXPECT_FALSE(line.midiApi);
}

TEST(CommandLine, HelpAndVersionArePrintedAndEndWithExitCodeZero)
{
    for (const char* option : {"--help", "-h"}) {
        const CommandLine line = parse({option});
        EXPECT_EQ(line.action, CommandLine::Action::ShowHelp);
        EXPECT_NE(line.text.find("--midi-api"), std::string::npos);
        EXPECT_NE(line.text.find("alsa, jack or null"), std::string::npos);
        EXPECT_EQ(line.exitCode, 0);
    }
    for (const char* option : {"--version", "-v"}) {
        const CommandLine line = parse({option});
        EXPECT_EQ(line.action, CommandLine::Action::ShowVersion);
        EXPECT_EQ(line.text, std::string("plinkora ") + PLINKORA_VERSION + "\n");
    }
}

TEST(CommandLine, MIDIApiTakesEachNameOfTheTableInAnyCaseAndBothSpellings)
{
    EXPECT_EQ(parse({"--midi-api", "alsa"}).midiApi, "alsa");
    EXPECT_EQ(parse({"--midi-api", "jack"}).midiApi, "jack");
    EXPECT_EQ(parse({"--midi-api", "null"}).midiApi, "null");
    EXPECT_EQ(parse({"--midi-api=JACK"}).midiApi, "jack");
    EXPECT_EQ(parse({"--midi-api", "Null"}).action, CommandLine::Action::Run);
}

TEST(CommandLine, AnUnknownMIDIApiIsOneLineListingTheValidNamesAndExitCodeTwo)
{
    const CommandLine line = parse({"--midi-api", "oss"});
    EXPECT_EQ(line.action, CommandLine::Action::Fail);
    EXPECT_EQ(line.exitCode, 2);
    EXPECT_EQ(line.text, "plinkora: Unknown MIDI API \"oss\"; valid names are: alsa, jack, null");
    EXPECT_EQ(line.text.find('\n'), std::string::npos);
}

TEST(CommandLine, MIDIApiWithoutANameFails)
{
    const CommandLine line = parse({"--midi-api"});
    EXPECT_EQ(line.action, CommandLine::Action::Fail);
    EXPECT_EQ(line.exitCode, 2);
    EXPECT_NE(line.text.find("alsa, jack or null"), std::string::npos);
    EXPECT_EQ(parse({"--midi-api="}).action, CommandLine::Action::Fail);
}

TEST(CommandLine, UnknownOptionsAndStrayArgumentsFailWithExitCodeTwo)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--bogus"}, {"-x"}, {"file.mid"}, {"--midi-api", "jack", "extra"}}) {
        const CommandLine line = parse(arguments);
        EXPECT_EQ(line.action, CommandLine::Action::Fail) << arguments.front();
        EXPECT_EQ(line.exitCode, 2);
        EXPECT_EQ(line.text.rfind("plinkora: ", 0), 0u);
    }
}

TEST(CommandLine, QtsOwnOptionsAreLeftForQt)
{
    const CommandLine line = parse({"-platform", "offscreen", "--midi-api", "null", "-style=fusion", "-reverse"});
    EXPECT_EQ(line.action, CommandLine::Action::Run);
    EXPECT_TRUE(line.platformOption);
    EXPECT_EQ(line.midiApi, "null");
    EXPECT_FALSE(parse({"-style", "fusion"}).platformOption);
    EXPECT_EQ(parse({"-platform"}).action, CommandLine::Action::Fail);
}

TEST(CommandLine, WithoutAnyDisplayOneLineSaysSoAndHowToRunUnderXvfb)
{
    environment.clear();
    const std::optional<std::string> message = missingDisplayMessage(false, &fakeEnvironment);
    ASSERT_TRUE(message);
    EXPECT_NE(message->find("DISPLAY"), std::string::npos);
    EXPECT_NE(message->find("xvfb-run -a plinkora"), std::string::npos);
    EXPECT_EQ(message->find('\n'), std::string::npos);
}

TEST(CommandLine, AnX11OrWaylandDisplayOrAChosenQtPlatformIsEnough)
{
    for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) {
        environment = {{variable, "x"}};
        EXPECT_FALSE(missingDisplayMessage(false, &fakeEnvironment)) << variable;
    }
    environment.clear();
    EXPECT_FALSE(missingDisplayMessage(true, &fakeEnvironment));
    environment = {{"DISPLAY", ""}};
    EXPECT_TRUE(missingDisplayMessage(false, &fakeEnvironment));
}

TEST(CommandLine, AWaylandSessionRunsOnWaylandAndAnyOtherOnX11)
{
    environment = {{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_SESSION_TYPE", "wayland"}, {"DISPLAY", ":0"}};
    EXPECT_EQ(sessionQtPlatform(false, &fakeEnvironment), "wayland;xcb");
    // Wayland's socket alone, as a compositor started in an X11 session sets it: still X11.
    environment = {{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_SESSION_TYPE", "x11"}, {"DISPLAY", ":0"}};
    EXPECT_EQ(sessionQtPlatform(false, &fakeEnvironment), "xcb");
    environment = {{"DISPLAY", ":0"}};
    EXPECT_EQ(sessionQtPlatform(false, &fakeEnvironment), "xcb");
    environment = {{"WAYLAND_DISPLAY", "wayland-0"}};
    EXPECT_EQ(sessionQtPlatform(false, &fakeEnvironment), "wayland");
    environment.clear();
    EXPECT_FALSE(sessionQtPlatform(false, &fakeEnvironment));
}

TEST(CommandLine, AChosenQtPlatformIsLeftAlone)
{
    environment = {{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_SESSION_TYPE", "wayland"}, {"QT_QPA_PLATFORM", "xcb"}};
    EXPECT_FALSE(sessionQtPlatform(false, &fakeEnvironment));
    environment = {{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_SESSION_TYPE", "wayland"}};
    EXPECT_FALSE(sessionQtPlatform(true, &fakeEnvironment));
    environment.clear();
}

TEST(CommandLine, TheWindowSystemIsNamedForPeople)
{
    EXPECT_EQ(windowSystemName("xcb"), "x11");
    EXPECT_EQ(windowSystemName("wayland"), "wayland");
    EXPECT_EQ(windowSystemName("wayland-egl"), "wayland");
    EXPECT_EQ(windowSystemName("offscreen"), "offscreen");
}

TEST(CommandLine, SynthTakesAutoOnOrOffInAnyCaseAndBothSpellings)
{
    EXPECT_FALSE(parse({}).synthMode);
    EXPECT_EQ(parse({"--synth", "off"}).synthMode, SynthMode::Off);
    EXPECT_EQ(parse({"--synth=ON"}).synthMode, SynthMode::On);
    EXPECT_EQ(parse({"--synth", "Auto", "--midi-api", "null"}).synthMode, SynthMode::Auto);
    for (const std::vector<std::string>& wrong :
         {std::vector<std::string>{"--synth"}, {"--synth", "loud"}, {"--synth="}, {"--synthesizer", "on"}}) {
        const CommandLine line = parse(wrong);
        EXPECT_EQ(line.action, CommandLine::Action::Fail) << wrong.front();
        EXPECT_EQ(line.exitCode, kExitUsage);
    }
    EXPECT_NE(parse({"--synth", "loud"}).text.find("auto, on or off"), std::string::npos);
}

TEST(CommandLine, SoundFontTakesAFileAsWrittenWhichIsCheckedWhenItIsLoaded)
{
    EXPECT_FALSE(parse({}).soundFont);
    EXPECT_EQ(parse({"--soundfont", "my font.sf2"}).soundFont, "my font.sf2");
    EXPECT_EQ(parse({"--soundfont=/no/such.sf3"}).soundFont, "/no/such.sf3");
    EXPECT_EQ(parse({"--soundfont"}).action, CommandLine::Action::Fail);
    EXPECT_EQ(parse({"--soundfont="}).action, CommandLine::Action::Fail);
}

TEST(CommandLine, AudioDriverTakesAutoOrAnAudioOutputOfFluidSynth)
{
    EXPECT_EQ(parse({}).audioDriver, std::nullopt);
    EXPECT_EQ(parse({"--audio-driver", "ALSA"}).audioDriver, "alsa");
    EXPECT_EQ(parse({"--audio-driver=auto"}).audioDriver, "auto");
    EXPECT_EQ(parse({"--audio-driver=jack", "--synth", "on"}).audioDriver, "jack");
    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"--audio-driver"}, {"--audio-driver="}, {"--audio-driver", "loudspeaker"}}) {
        const CommandLine failed = parse(bad);
        EXPECT_EQ(failed.action, CommandLine::Action::Fail);
        EXPECT_EQ(failed.exitCode, kExitUsage);
        EXPECT_TRUE(failed.text.starts_with("plinkora: --audio-driver needs auto, ")) << failed.text;
        EXPECT_NE(failed.text.find("alsa"), std::string::npos) << failed.text;
    }
}

TEST(CommandLine, HelpExplainsTheBuiltInSynthesizerOptions)
{
    const std::string help = parse({"--help"}).text;
    EXPECT_NE(help.find("--audio-driver NAME"), std::string::npos);
    EXPECT_NE(help.find("\"AudioDriver\""), std::string::npos);
    EXPECT_NE(help.find("--synth MODE"), std::string::npos);
    EXPECT_NE(help.find("--soundfont FILE"), std::string::npos);
    EXPECT_NE(help.find("TimGM6mb"), std::string::npos);
}

TEST(CommandLine, ConnectNamesAMIDIInputAndMayBeRepeated)
{
    const CommandLine line = parse({"--connect", "fluidsynth:midi_00", "--connect=Ardour", "--midi-api", "jack"});
    EXPECT_EQ(line.action, CommandLine::Action::Run);
    EXPECT_EQ(line.connect, (std::vector<std::string>{"fluidsynth:midi_00", "Ardour"}));
    EXPECT_EQ(line.midiApi, "jack");

    for (const std::vector<std::string>& bad : {std::vector<std::string>{"--connect"}, {"--connect="}}) {
        const CommandLine failed = parse(bad);
        EXPECT_EQ(failed.action, CommandLine::Action::Fail);
        EXPECT_EQ(failed.exitCode, kExitUsage);
        EXPECT_NE(failed.text.find("--connect needs the name of a MIDI input"), std::string::npos);
    }
    EXPECT_NE(helpText().find("--connect NAME"), std::string::npos);
}
