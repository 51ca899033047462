#include "midi/midi_api.h"

#include <algorithm>
#include <cctype>

namespace plinkora {

namespace {
bool sameNameIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}
} // namespace

std::string_view midiApiName(MIDIApiKind kind)
{
    for (const MIDIApiEntry& entry : kMIDIApis)
        if (entry.kind == kind)
            return entry.name;
    return {};
}

MIDIApiParse parseMIDIApi(std::string_view name)
{
    for (const MIDIApiEntry& entry : kMIDIApis)
        if (sameNameIgnoringCase(entry.name, name))
            return {entry.kind, {}};
    std::string error = "Unknown MIDI API \"";
    error += name;
    error += "\"; valid names are: ";
    for (std::size_t i = 0; i < kMIDIApis.size(); ++i) {
        if (i > 0)
            error += ", ";
        error += kMIDIApis[i].name;
    }
    return {std::nullopt, std::move(error)};
}

} // namespace plinkora
