#include "app/command_line.h"

#include "midi/backend_factory.h"
#include "synth/audio_driver.h"
#include "synth/fluid_engine.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

namespace plinkora {

namespace {

// Qt's standard options, left in place for the application object to read. Qt accepts them
// with one dash or two.
constexpr std::array<std::string_view, 15> kQtOptionsWithValue{
    "platform",        "platformpluginpath",
    "platformtheme",   "plugin",
    "qwindowgeometry", "geometry",
    "qwindowtitle",    "title",
    "qwindowicon",     "icon",
    "display",         "name",
    "style",           "stylesheet",
    "session",
};
constexpr std::array<std::string_view, 5> kQtFlags{"reverse", "widgetcount", "nograb", "dograb", "sync"};

// "a, b or c".
std::string alternatives(const std::vector<std::string>& names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0)
            text += i + 1 == names.size() ? " or " : ", ";
        text += names[i];
    }
    return text;
}

std::string validNames()
{
    std::vector<std::string> names;
    names.reserve(kMIDIApis.size());
    for (const auto& api : kMIDIApis)
        names.emplace_back(api.name);
    return alternatives(names);
}

std::string_view withoutDashes(std::string_view argument)
{
    if (argument.starts_with("--"))
        return argument.substr(2);
    if (argument.starts_with("-"))
        return argument.substr(1);
    return argument;
}

bool contains(const auto& list, std::string_view name)
{
    return std::find(list.begin(), list.end(), name) != list.end();
}

// The value of `--name VALUE` or `--name=VALUE` at arguments[i] (moving i past it), or nothing
// when arguments[i] is not that option. `missing` is set when the value is not there.
std::optional<std::string_view> optionValue(const std::vector<std::string>& arguments, std::size_t& i,
                                            std::string_view name, bool& missing)
{
    const std::string_view argument = arguments[i];
    if (!argument.starts_with("--") || !argument.substr(2).starts_with(name))
        return std::nullopt;
    const std::string_view rest = argument.substr(2 + name.size());
    if (rest.empty()) {
        if (i + 1 >= arguments.size()) {
            missing = true;
            return std::string_view{};
        }
        return std::string_view(arguments[++i]);
    }
    if (rest.front() == '=')
        return rest.substr(1);
    return std::nullopt;
}

// "auto, jack, pulseaudio or alsa": what --audio-driver takes here.
std::string audioDriverNames(const std::vector<std::string>& available)
{
    std::vector<std::string> names;
    for (const AudioDriverChoice& choice : audioDriverChoices(available))
        names.push_back(choice.name);
    return alternatives(names);
}

CommandLine failure(std::string text)
{
    CommandLine result;
    result.action = CommandLine::Action::Fail;
    result.text = "plinkora: " + std::move(text);
    result.exitCode = kExitUsage;
    return result;
}

} // namespace

CommandLine parseCommandLine(const std::vector<std::string>& arguments)
{
    CommandLine result;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            result.action = CommandLine::Action::ShowHelp;
            result.text = helpText();
            return result;
        }
        if (argument == "--version" || argument == "-v") {
            result.action = CommandLine::Action::ShowVersion;
            result.text = versionText();
            return result;
        }
        if (argument == "--midi-api" || argument.starts_with("--midi-api=")) {
            std::string_view value;
            if (argument == "--midi-api") {
                if (i + 1 >= arguments.size())
                    return failure("--midi-api needs the name of a MIDI system: " + validNames());
                value = arguments[++i];
            } else {
                value = argument.substr(std::string_view("--midi-api=").size());
            }
            const MIDIApiParse parsed = parseMIDIApi(value);
            if (!parsed.kind)
                return failure(parsed.error);
            result.midiApi = std::string(midiApiName(*parsed.kind));
            continue;
        }
        bool missing = false;
        if (const std::optional<std::string_view> value = optionValue(arguments, i, "synth", missing)) {
            const std::optional<SynthMode> mode = parseSynthMode(*value);
            if (missing || !mode)
                return failure("--synth needs auto, on or off");
            result.synthMode = mode;
            continue;
        }
        if (const std::optional<std::string_view> value = optionValue(arguments, i, "soundfont", missing)) {
            if (missing || value->empty())
                return failure("--soundfont needs a sound font file (.sf2 or .sf3)");
            result.soundFont = std::string(*value);
            continue;
        }
        if (const std::optional<std::string_view> value = optionValue(arguments, i, "audio-driver", missing)) {
            const std::vector<std::string> available = FluidEngine::availableDrivers();
            result.audioDriver = missing ? std::nullopt : parseAudioDriver(*value, available);
            if (!result.audioDriver)
                return failure("--audio-driver needs " + audioDriverNames(available));
            continue;
        }
        if (const std::optional<std::string_view> value = optionValue(arguments, i, "connect", missing)) {
            if (missing || value->empty())
                return failure("--connect needs the name of a MIDI input, as client:port or client");
            result.connect.emplace_back(*value);
            continue;
        }
        if (argument.starts_with("-") && argument.size() > 1) {
            std::string_view name = withoutDashes(argument);
            const std::size_t equals = name.find('=');
            const bool inlineValue = equals != std::string_view::npos;
            if (inlineValue)
                name = name.substr(0, equals);
            if (contains(kQtOptionsWithValue, name)) {
                if (!inlineValue && i + 1 >= arguments.size())
                    return failure("the option " + std::string(argument) + " needs a value");
                if (name == "platform")
                    result.platformOption = true;
                if (!inlineValue)
                    ++i;
                continue;
            }
            if (contains(kQtFlags, name) && !inlineValue)
                continue;
            return failure("unknown option " + std::string(argument) + "; see plinkora --help");
        }
        return failure("unexpected argument " + std::string(argument) + "; see plinkora --help");
    }
    return result;
}

std::string helpText()
{
    return "Usage: plinkora [--midi-api NAME] [--synth auto|on|off] [--soundfont FILE]\n"
           "                [--audio-driver NAME] [--connect NAME]...\n"
           "Plays the computer keyboard as a MIDI controller on the virtual MIDI port \"PLK\".\n"
           "\n"
           "Options:\n"
           "  --midi-api NAME  the MIDI system to publish the port on: "
        + validNames()
        + ".\n"
          "                   Without it: the setting \"MidiApi\", else the first that works of\n"
          "                   a JACK server that is already running (or PipeWire's JACK\n"
          "                   interface, under pw-jack), the ALSA sequencer, and null (no port).\n"
          "  --synth MODE     the built-in synthesizer: auto (plays while no other program\n"
          "                   reads PLK; the default), on (always) or off (never).\n"
          "                   Without it: the setting \"Synth\".\n"
          "  --soundfont FILE the General MIDI sound font (.sf2 or .sf3) the built-in\n"
          "                   synthesizer plays; remembered as the setting \"SoundFont\".\n"
          "                   Default: FluidR3_GM when installed, else TimGM6mb.\n"
          "  --audio-driver NAME\n"
          "                   the built-in synthesizer's audio output: auto (the default: a\n"
          "                   running JACK server, else PipeWire, else PulseAudio, else\n"
          "                   ALSA) or one of FluidSynth's audio drivers, such as jack,\n"
          "                   pipewire, pulseaudio or alsa; remembered as the setting\n"
          "                   \"AudioDriver\".\n"
          "  --connect NAME   connect PLK to the MIDI input NAME (client:port, or the client\n"
          "                   alone when it has one input) for this run; repeatable. It is\n"
          "                   connected when it appears if it is not there yet.\n"
          "  -h, --help       show this help and exit\n"
          "  -v, --version    show the version and exit\n"
          "\n"
          "Qt's standard options (-platform NAME, -style NAME, ...) are accepted too.\n"
          "Without a screen, run it under Xvfb: xvfb-run -a plinkora\n";
}

std::string versionText()
{
#ifdef PLINKORA_VERSION
    return std::string("plinkora ") + PLINKORA_VERSION + "\n";
#else
    return "plinkora\n";
#endif
}

std::string readEnvironment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

std::optional<std::string> missingDisplayMessage(bool platformOption, EnvironmentReader environment)
{
#if defined(__APPLE__) || defined(_WIN32)
    (void)platformOption;
    (void)environment;
    return std::nullopt;
#else
    if (platformOption || !environment("QT_QPA_PLATFORM").empty() || !environment("DISPLAY").empty()
        || !environment("WAYLAND_DISPLAY").empty())
        return std::nullopt;
    return "plinkora: no display: neither DISPLAY nor WAYLAND_DISPLAY is set. Start it from a desktop session, "
           "or without a screen under Xvfb: xvfb-run -a plinkora";
#endif
}

std::optional<std::string> sessionQtPlatform(bool platformOption, EnvironmentReader environment)
{
#if defined(__APPLE__) || defined(_WIN32)
    (void)platformOption;
    (void)environment;
    return std::nullopt;
#else
    if (platformOption || !environment("QT_QPA_PLATFORM").empty())
        return std::nullopt;
    const bool wayland = !environment("WAYLAND_DISPLAY").empty();
    const bool x11 = !environment("DISPLAY").empty();
    if (wayland && environment("XDG_SESSION_TYPE") == "wayland")
        return "wayland;xcb";
    if (x11)
        return "xcb";
    if (wayland)
        return "wayland";
    return std::nullopt;
#endif
}

std::string windowSystemName(std::string_view qtPlatformName)
{
    if (qtPlatformName == "xcb")
        return "x11";
    if (qtPlatformName.starts_with("wayland")) // wayland, wayland-egl, ...
        return "wayland";
    return std::string(qtPlatformName);
}

} // namespace plinkora
