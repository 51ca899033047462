#pragma once

#include "midi/midi_status.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

namespace plinkora {

/// The bytes of one MIDI message, status byte first.
using MIDIBytes = std::span<const std::uint8_t>;

/// The five operations the MIDI output needs from the platform's MIDI service. References
/// are non-zero numbers handed out by the back end; 0 means "none".
class MIDIBackend
{
public:
    virtual ~MIDIBackend() = default;

    /// Short name of the back end ("alsa", "jack", "null", "recording").
    virtual std::string_view apiName() const = 0;

    /// Registers this process as a MIDI client called `name`. Returns 0 and sets `client`,
    /// or a negative status (midi_status.h) and leaves `client` as it was.
    [[nodiscard]] virtual MIDIStatus createClient(std::string_view name, std::uint32_t& client) = 0;

    /// Publishes a virtual source `name` of `client` that other programs can read from.
    /// Returns 0 and sets `source`, or a negative status.
    [[nodiscard]] virtual MIDIStatus createSource(std::uint32_t client, std::string_view name,
                                                  std::uint32_t& source) = 0;

    /// Hands one message to every reader of `source`, at once. Must not allocate.
    [[nodiscard]] virtual MIDIStatus send(std::uint32_t source, MIDIBytes message) = 0;

    /// Withdraws the virtual source. Waits until what was sent has left.
    virtual void disposeSource(std::uint32_t source) = 0;

    /// Unregisters the client.
    virtual void disposeClient(std::uint32_t client) = 0;

    /// `lost` is called when the service goes away under the client: the JACK server shut down
    /// or was killed, the sequencer client was lost. It is the service's own notice, called on
    /// any thread (the service's), once per client made. The client and the source are dead
    /// then: dispose them, and create them again when the service is back. Setting it again
    /// replaces it; an empty function stops the calls. Back ends whose service cannot go away
    /// never call it.
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the back ends that override it keep it
    virtual void setServiceLostListener(std::function<void()> lost) { (void)lost; }
};

} // namespace plinkora
