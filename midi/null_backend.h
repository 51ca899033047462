#pragma once

#include "midi/midi_backend.h"

namespace plinkora {

/// A MIDI service that accepts everything and delivers nothing: Plinkora still runs where no
/// MIDI system is available. Test and benchmark back ends derive from it and override
/// `send`.
class NullBackend : public MIDIBackend
{
public:
    std::string_view apiName() const override { return "null"; }
    [[nodiscard]] MIDIStatus createClient(std::string_view, std::uint32_t& client) override
    {
        client = 1;
        return kStatusOk;
    }
    [[nodiscard]] MIDIStatus createSource(std::uint32_t, std::string_view, std::uint32_t& source) override
    {
        source = 1;
        return kStatusOk;
    }
    [[nodiscard]] MIDIStatus send(std::uint32_t, MIDIBytes) override { return kStatusOk; }
    void disposeSource(std::uint32_t) override {}
    void disposeClient(std::uint32_t) override {}
};

} // namespace plinkora
