#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plinkora {

/// The built-in synthesizer's audio output as the user chooses it: "auto" (the first that opens
/// of a running JACK server, PipeWire, PulseAudio and ALSA) or one FluidSynth audio driver by
/// name. The command line's --audio-driver and the setting "AudioDriver" use these names.
inline constexpr std::string_view kAutomaticAudioDriver = "auto";

/// One entry of the choice: the name and the text shown for it.
struct AudioDriverChoice
{
    std::string name;
    std::string text;
};

/// What "auto" tries, in order.
std::vector<std::string> automaticAudioDrivers();
/// The outputs to try for `choice`: those of "auto", or the chosen one alone.
std::vector<std::string> audioDriversFor(std::string_view choice);
/// "auto" or a driver of `available` (any case), in lower case; nothing for another text.
std::optional<std::string> parseAudioDriver(std::string_view name, const std::vector<std::string>& available);
/// What can be chosen: "Automatic" first, then JACK, PipeWire, PulseAudio and ALSA as far as
/// `available` has them, then its other outputs except "file" (which writes no sound).
std::vector<AudioDriverChoice> audioDriverChoices(const std::vector<std::string>& available);

} // namespace plinkora
