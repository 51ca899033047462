#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace plinkora {

/// The MIDI systems Plinkora can publish its port on.
enum class MidiApiKind
{
#if defined(__APPLE__)
    CoreMidi,
#else
    Alsa,
#endif
    Jack,
    Null,
};

struct MidiApiEntry
{
    std::string_view name;
    MidiApiKind kind;
};

/// The one table of MIDI system names, read by the command line option --midi-api and the
/// setting "MidiApi". In the order the automatic choice tries them.
inline constexpr std::array<MidiApiEntry, 3> kMidiApis{{
#if defined(__APPLE__)
    {"coremidi", MidiApiKind::CoreMidi},
#else
    {"alsa", MidiApiKind::Alsa},
#endif
    {"jack", MidiApiKind::Jack},
    {"null", MidiApiKind::Null},
}};

/// The name of `kind` in kMidiApis.
std::string_view midiApiName(MidiApiKind kind);

/// The result of reading a MIDI system name: the system, or a message for the user.
struct MidiApiParse
{
    std::optional<MidiApiKind> kind;
    std::string error; // set when `kind` is empty
};

/// Reads a name of kMidiApis, ignoring case. An unknown name gives a message that lists the
/// valid names, e.g. `Unknown MIDI API "oss"; valid names are: alsa, jack, null`.
MidiApiParse parseMidiApi(std::string_view name);

} // namespace plinkora
