#pragma once

#include "midi/midi_backend.h"

#include <memory>

namespace plinkora {

/// Hears every message the MIDI output sends, after the port has it (the built-in synthesizer).
/// Called on the sending thread; must not allocate or block.
class MIDIListener
{
public:
    virtual ~MIDIListener() = default;
    virtual void midiSent(MIDIBytes message) = 0;
};

/// A back end in front of the port's back end: every call goes to the port, and every message is
/// also handed to the listener, so that what the port sends and what the listener hears are
/// the same messages, sent once by the MIDI output. The port's statuses are the ones returned;
/// the listener hears a message whatever the port answered (the port may be missing).
class FanOutBackend final : public MIDIBackend
{
public:
    FanOutBackend(std::unique_ptr<MIDIBackend> port, MIDIListener* listener);

    /// Replaces the listener (null: none). Main thread only, between sends.
    void setListener(MIDIListener* listener) { listener_ = listener; }
    MIDIBackend& port() { return *port_; }

    std::string_view apiName() const override { return port_->apiName(); }
    [[nodiscard]] MIDIStatus createClient(std::string_view name, std::uint32_t& client) override;
    [[nodiscard]] MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override;
    [[nodiscard]] MIDIStatus send(std::uint32_t source, MIDIBytes message) override;
    void disposeSource(std::uint32_t source) override;
    void disposeClient(std::uint32_t client) override;

private:
    std::unique_ptr<MIDIBackend> port_;
    MIDIListener* listener_;
};

} // namespace plinkora
