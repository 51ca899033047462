#pragma once

#include <cstdint>

// Statuses of the MIDI back ends: 0 is success, each kind of failure has its own negative
// number. The README lists them for users who read an error line.
namespace plinkora {

/// A MIDI back end's answer. It cannot be dropped by accident: a caller that has nothing to do
/// with a failure says so with a cast to void and the reason beside it. It converts to its
/// number for printing and for `if (status)` (non-zero: a failure).
enum [[nodiscard]] MIDIStatus : std::int32_t{
    kStatusOk = 0,
    /// The requested MIDI system is not compiled into this build, or its name is unknown.
    kStatusApiUnavailable = -1,
    /// The MIDI service is not there: no ALSA sequencer device, or no JACK server running.
    kStatusServiceUnavailable = -2,
    /// The service refused to register the client.
    kStatusClientFailed = -3,
    /// The virtual port could not be published.
    kStatusSourceFailed = -4,
    /// The message could not be handed to the service.
    kStatusSendFailed = -5,
    /// The client or port reference is not one this back end handed out.
    kStatusNoSuchEndpoint = -6,
};

} // namespace plinkora
