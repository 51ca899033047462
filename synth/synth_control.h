#pragma once

#include <functional>
#include <optional>
#include <string_view>

namespace plinkora {

/// When the built-in synthesizer plays: "auto" while no other program reads PLK, "on" always,
/// "off" never. The command line's --synth and the setting "Synth" use these names.
enum class SynthMode
{
    Auto,
    On,
    Off,
};

/// The name of `mode`: "auto", "on" or "off".
constexpr std::string_view synthModeName(SynthMode mode)
{
    switch (mode) {
    case SynthMode::On:
        return "on";
    case SynthMode::Off:
        return "off";
    case SynthMode::Auto:
        break;
    }
    return "auto";
}

/// Reads "auto", "on" or "off" (any case); nothing for another text.
std::optional<SynthMode> parseSynthMode(std::string_view name);

/// What the rest of the application sees of the built-in synthesizer: its mode, whether it can
/// be heard now, and when that changes. Main thread only.
class SynthControl
{
public:
    virtual ~SynthControl() = default;

    virtual SynthMode mode() const = 0;
    /// Changes the mode (and remembers it in the settings).
    virtual void setMode(SynthMode mode) = 0;
    /// True while what PLK sends is heard through the built-in synthesizer: the mode lets it
    /// play, its sound font is loaded and its audio output is open.
    virtual bool isAudible() const = 0;
    /// Called on the main thread whenever mode() or isAudible() changes.
    virtual void setChangeCallback(std::function<void()> changed) = 0;
};

} // namespace plinkora
