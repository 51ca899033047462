#pragma once

#include <cstdint>

// Statuses of the MIDI back ends: 0 is success, each kind of failure has its own negative
// number. The README lists them for users who read an error line.
namespace plinkora {

using MidiStatus = std::int32_t;

inline constexpr MidiStatus kStatusOk = 0;
/// The requested MIDI system is not compiled into this build, or its name is unknown.
inline constexpr MidiStatus kStatusApiUnavailable = -1;
/// The MIDI service is not there: no ALSA sequencer device, or no JACK server running.
inline constexpr MidiStatus kStatusServiceUnavailable = -2;
/// The service refused to register the client.
inline constexpr MidiStatus kStatusClientFailed = -3;
/// The virtual port could not be published.
inline constexpr MidiStatus kStatusSourceFailed = -4;
/// The message could not be handed to the service.
inline constexpr MidiStatus kStatusSendFailed = -5;
/// The client or port reference is not one this back end handed out.
inline constexpr MidiStatus kStatusNoSuchEndpoint = -6;

} // namespace plinkora
