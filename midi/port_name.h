#pragma once

#include <string>
#include <string_view>

namespace plinkora {

/// The one name of Plinkora on the MIDI service: its client and its virtual port are both
/// called this, so other programs list the port as "PLK:PLK" (client:port).
inline constexpr std::string_view kPortName = "PLK";

/// The client:port name of the port, as JACK and the ALSA patchbays show it: "PLK:PLK".
inline std::string portFullName()
{
    return std::string(kPortName).append(":").append(kPortName);
}

/// The name of one of Plinkora's helper clients (no ports of their own, or the synthesizer's
/// audio): "PLK-" followed by `role`, e.g. "PLK-patchbay".
inline std::string helperClientName(std::string_view role)
{
    return std::string(kPortName).append("-").append(role);
}

} // namespace plinkora
