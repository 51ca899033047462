#pragma once

#include "synth/synth_control.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The command line of `plinkora` and the checks made before anything else exists. Plain
// standard C++: it runs before the Qt application object is made.
namespace plinkora {

struct CommandLine
{
    enum class Action
    {
        Run,         // start Plinkora
        ShowHelp,    // print `text` on standard output, exit 0
        ShowVersion, // print `text` on standard output, exit 0
        Fail,        // print `text` on standard error, exit with `exitCode`
    };

    Action action = Action::Run;
    /// The MIDI system named by --midi-api, as written in the name table; empty when not given.
    std::optional<std::string> midiApi;
    /// The built-in synthesizer's mode given with --synth; empty when not given.
    std::optional<SynthMode> synthMode;
    /// The sound font given with --soundfont, as written; empty when not given.
    std::optional<std::string> soundFont;
    /// The audio output given with --audio-driver ("auto" or a FluidSynth audio driver, in
    /// lower case); empty when not given.
    std::optional<std::string> audioDriver;
    /// The MIDI inputs named by --connect (repeatable), connected for this run only.
    std::vector<std::string> connect;
    /// Whether Qt's own -platform option was given (it chooses the display like QT_QPA_PLATFORM).
    bool platformOption = false;
    std::string text;
    int exitCode = 0;
};

/// Exit code for a command line that cannot be used.
inline constexpr int kExitUsage = 2;
/// Exit code when there is no display to show the window on.
inline constexpr int kExitNoDisplay = 1;

/// Reads the arguments after the program name. Accepts --help (-h), --version (-v),
/// --midi-api NAME (or --midi-api=NAME, any case), --synth auto|on|off, --soundfont FILE,
/// --audio-driver NAME (auto or an audio output of the FluidSynth in use, any case),
/// --connect NAME (repeatable; each also as --option=VALUE) and Qt's standard options, which are
/// left for Qt. Anything else, or an unknown MIDI system, gives Action::Fail with one line and
/// exit code 2.
CommandLine parseCommandLine(const std::vector<std::string>& arguments);

/// The text of --help.
std::string helpText();
/// The text of --version: "plinkora" and the version.
std::string versionText();

/// Reads an environment variable; empty when unset.
using EnvironmentReader = std::string (*)(const char* name);
std::string readEnvironment(const char* name);

/// On Linux: when neither DISPLAY nor WAYLAND_DISPLAY is set and neither QT_QPA_PLATFORM nor
/// -platform chooses another platform, the one line that says so and how to run without a
/// screen (under Xvfb). Nothing when there is a display, and never on macOS or Windows.
std::optional<std::string> missingDisplayMessage(bool platformOption, EnvironmentReader environment = readEnvironment);

/// On Linux, the Qt platform for the session when neither QT_QPA_PLATFORM nor -platform
/// chooses one: in a Wayland session (WAYLAND_DISPLAY set and XDG_SESSION_TYPE "wayland")
/// "wayland;xcb" (native Wayland, X11 through the compositor's X server if Wayland fails);
/// "xcb" when DISPLAY is set otherwise; "wayland" when only WAYLAND_DISPLAY is. Nothing else
/// (Qt's own choice), and never on macOS or Windows.
std::optional<std::string> sessionQtPlatform(bool platformOption, EnvironmentReader environment = readEnvironment);

/// The window system a Qt platform name stands for, as the start-up line "Window system: ..."
/// says it: "wayland" (for wayland, wayland-egl, ...), "x11" for xcb, other names as they are (offscreen, ...).
std::string windowSystemName(std::string_view qtPlatformName);

} // namespace plinkora
