#pragma once

#include <optional>
#include <string>

namespace plinkora {

/// Plays the short feedback sounds from the application's resource folder.
class SoundPlayer
{
public:
    virtual ~SoundPlayer() = default;

    /// The folder that holds up.wav and down.wav, or nothing when it cannot be found.
    virtual std::optional<std::string> resourcePath() const = 0;

    /// Starts playing the file at `path` once and returns at once. Returns false and sets
    /// `error` to a description when the file cannot be played (missing, unreadable, not a
    /// sound, or no sound output).
    virtual bool play(const std::string& path, std::string& error) = 0;
};

} // namespace plinkora
