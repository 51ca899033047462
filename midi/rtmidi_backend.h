#pragma once

#include "midi/jack_cycle_watch.h"
#include "midi/midi_backend.h"

#include <memory>
#include <string>

namespace plinkora {

/// The MIDI service of the platform, through RtMidi: the ALSA sequencer or JACK on Linux,
/// CoreMIDI on macOS. One client with one virtual source; references are 1.
///
/// Nothing reaches standard error when the service is missing: the ALSA sequencer and the
/// JACK server are probed quietly first, and a JACK server is never started. RtMidi reports
/// later problems to a callback, never by throwing.
class RtMidiBackend final : public MIDIBackend
{
public:
    enum class System
    {
        AlsaSequencer,
        Jack,
#if defined(__APPLE__)
        CoreMIDI,
#endif
    };

    /// `jackWatch`: for JACK, a client already opened on the server (the automatic choice opens
    /// one to see that a server runs); made by createClient when not given.
    explicit RtMidiBackend(System system, std::unique_ptr<JackCycleWatch> jackWatch = nullptr);
    ~RtMidiBackend() override;
    RtMidiBackend(const RtMidiBackend&) = delete;
    RtMidiBackend& operator=(const RtMidiBackend&) = delete;

    std::string_view apiName() const override;
    /// Fails with kStatusApiUnavailable when RtMidi lacks the system, kStatusServiceUnavailable
    /// when the service is not there (no sequencer, no JACK server), kStatusClientFailed else.
    [[nodiscard]] MIDIStatus createClient(std::string_view name, std::uint32_t& client) override;
    /// Publishes the virtual port `name`: it shows as "PLK:PLK" (client:port) in ALSA and JACK.
    [[nodiscard]] MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override;
    /// Sends the message at once. Does not allocate.
    [[nodiscard]] MIDIStatus send(std::uint32_t source, MIDIBytes message) override;
    /// Closes the virtual port. With JACK it first lets the server run a few cycles so that
    /// everything sent reaches the readers, and a few more after closing (RtMidi 5 is not safe
    /// to destroy right after); bounded when the server stalls. With ALSA the port itself goes
    /// with the client (RtMidi only withdraws a virtual port when its client goes).
    void disposeSource(std::uint32_t source) override;
    void disposeClient(std::uint32_t client) override;
    /// JACK: the server's shut-down notice, through the cycle watch. ALSA: the sequencer's
    /// announcement that PLK's client ended, or the sequencer failing, heard by a client
    /// "PLK-watch" while the port is published. CoreMIDI: never.
    void setServiceLostListener(std::function<void()> lost) override;

    /// RtMidi's text for the last problem it reported, for diagnostics ("" if none).
    const std::string& lastReport() const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace plinkora
