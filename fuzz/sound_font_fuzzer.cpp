// Random sound font files read for their presets and cut down to some of them.
//
// The input is the file. Checked: reading never fails other than by refusing the file with a
// reason; a cut-down font reads back, piece by piece, as a font with exactly the presets it was
// cut down to; and nothing reads outside the input.

#include "synth/sound_font_presets.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace plinkora;

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> input(data, size);
    std::string why;
    const auto font = SoundFontPresets::read(memoryBytes(input), why);
    if (!font) {
        check(!why.empty());
        return 0;
    }
    check(!font->presets().empty());
    // Every other preset, then the first one alone.
    std::set<PresetNumber> kept;
    for (std::size_t i = 0; i < font->presets().size(); i += 2)
        kept.insert(font->presets()[i]);
    for (const auto& wanted : {kept, std::set<PresetNumber>{font->presets().front()}}) {
        const auto cut = font->subset(wanted);
        for (const PresetNumber preset : cut->presets())
            check(wanted.contains(preset));
        std::vector<std::uint8_t> bytes(cut->size());
        // Read in uneven steps, across the pieces.
        for (std::size_t offset = 0; offset < bytes.size(); offset += 13) {
            const std::size_t count = std::min<std::size_t>(13, bytes.size() - offset);
            check(cut->read(offset, std::span(bytes).subspan(offset, count), memoryBytes(input)));
        }
        const auto again = SoundFontPresets::read(memoryBytes(bytes), why);
        check(again.has_value());
        check(again->presets() == cut->presets());
    }
    return 0;
}
