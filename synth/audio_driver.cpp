#include "synth/audio_driver.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace plinkora {

namespace {
const std::vector<AudioDriverChoice>& knownDrivers()
{
    static const std::vector<AudioDriverChoice> known{
        {"jack", "JACK"}, {"pipewire", "PipeWire"}, {"pulseaudio", "PulseAudio"}, {"alsa", "ALSA"}};
    return known;
}

bool contains(const std::vector<std::string>& names, std::string_view name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}
} // namespace

std::vector<std::string> automaticAudioDrivers()
{
    std::vector<std::string> names;
    for (const AudioDriverChoice& driver : knownDrivers())
        names.push_back(driver.name);
    return names;
}

std::vector<std::string> audioDriversFor(std::string_view choice)
{
    if (choice.empty() || choice == kAutomaticAudioDriver)
        return automaticAudioDrivers();
    return {std::string(choice)};
}

std::optional<std::string> parseAudioDriver(std::string_view name, const std::vector<std::string>& available)
{
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == kAutomaticAudioDriver || (!lower.empty() && contains(available, lower)))
        return lower;
    return std::nullopt;
}

std::vector<AudioDriverChoice> audioDriverChoices(const std::vector<std::string>& available)
{
    std::vector<AudioDriverChoice> choices{{std::string(kAutomaticAudioDriver), "Automatic"}};
    for (const AudioDriverChoice& driver : knownDrivers())
        if (contains(available, driver.name))
            choices.push_back(driver);
    for (const std::string& name : available) {
        const bool listed = std::any_of(choices.begin(), choices.end(),
                                        [&name](const AudioDriverChoice& choice) { return choice.name == name; });
        if (!listed && name != "file")
            choices.push_back({name, name});
    }
    return choices;
}

} // namespace plinkora
