#pragma once

#include <fluidsynth.h>

#include <memory>
#include <string>

namespace plinkora {

class SoundFontSubset;

/// Fonts cut down to some presets (SoundFontPresets) reach FluidSynth through a sound font loader
/// whose file callbacks read them. FluidSynth opens a font by its name, also later for the
/// samples of a program it is given, so each cut-down font is known by a name of its own for as
/// long as a synthesizer has it. Thread-safe.
struct CutDownFonts
{
    /// Makes `font`, cut down from the file `original`, known; returns the name to load it by.
    static std::string add(std::shared_ptr<const SoundFontSubset> font, const std::string& original);
    /// Forgets the font of `name` (nothing for an empty or unknown name).
    static void remove(const std::string& name);
    /// A loader that opens those names, for a synthesizer made with `settings` (which owns it
    /// once it is added).
    static fluid_sfloader_t* newLoader(fluid_settings_t* settings);
};

} // namespace plinkora
