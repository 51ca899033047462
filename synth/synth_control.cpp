#include "synth/synth_control.h"

#include <algorithm>
#include <cctype>

namespace plinkora {

std::optional<SynthMode> parseSynthMode(std::string_view name)
{
    for (const SynthMode mode : {SynthMode::Auto, SynthMode::On, SynthMode::Off}) {
        const std::string_view candidate = synthModeName(mode);
        if (candidate.size() == name.size()
            && std::equal(candidate.begin(), candidate.end(), name.begin(),
                          [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); }))
            return mode;
    }
    return std::nullopt;
}

} // namespace plinkora
