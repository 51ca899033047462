#pragma once

#include <QString>

#include <optional>
#include <string>

namespace plinkora {

/// The folder of the feedback sounds (up.wav and down.wav): $PLINKORA_RESOURCE_DIR when set;
/// else <executable's folder>/../share/plinkora when it holds up.wav (an installed Plinkora);
/// else the executable's own folder when it holds up.wav (a build tree); else nothing.
std::optional<std::string> soundFolder();

/// The folder soundFolder() chooses, given the environment variable's value (nothing when it
/// is not set) and the executable's folder.
std::optional<std::string> findSoundFolder(const std::optional<QString>& environmentValue,
                                           const QString& executableFolder);

/// The folder of the running executable.
QString executableFolder();

} // namespace plinkora
