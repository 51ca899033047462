#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace plinkora {

/// The MIDI systems Plinkora can publish its port on.
enum class MIDIApiKind
{
#if defined(__APPLE__)
    CoreMIDI,
#else
    Alsa,
#endif
    Jack,
    Null,
};

struct MIDIApiEntry
{
    std::string_view name;
    MIDIApiKind kind;
};

/// The one table of MIDI system names, read by the command line option --midi-api and the
/// setting "MidiApi". In the order the automatic choice tries them.
inline constexpr std::array<MIDIApiEntry, 3> kMIDIApis{{
#if defined(__APPLE__)
    {"coremidi", MIDIApiKind::CoreMIDI},
#else
    {"alsa", MIDIApiKind::Alsa},
#endif
    {"jack", MIDIApiKind::Jack},
    {"null", MIDIApiKind::Null},
}};

/// The name of `kind` in kMIDIApis.
std::string_view midiApiName(MIDIApiKind kind);

/// The result of reading a MIDI system name: the system, or a message for the user.
struct MIDIApiParse
{
    std::optional<MIDIApiKind> kind;
    std::string error; // set when `kind` is empty
};

/// Reads a name of kMIDIApis, ignoring case. An unknown name gives a message that lists the
/// valid names, e.g. `Unknown MIDI API "oss"; valid names are: alsa, jack, null`.
MIDIApiParse parseMIDIApi(std::string_view name);

} // namespace plinkora
