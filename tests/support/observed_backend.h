#pragma once

#include "midi/midi_backend.h"
#include "midi/recording_backend.h"

#include <functional>

namespace plinkora::testing {

/// A MIDI back end that passes every call to a RecordingBackend the test keeps, and lets the
/// test look at the application at the moment of each send (`onSend`).
class ObservedBackend final : public MIDIBackend
{
public:
    explicit ObservedBackend(RecordingBackend& recording)
        : recording_(recording)
    {
    }
    std::string_view apiName() const override { return recording_.apiName(); }
    MIDIStatus createClient(std::string_view name, std::uint32_t& client) override
    {
        return recording_.createClient(name, client);
    }
    MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override
    {
        return recording_.createSource(client, name, source);
    }
    MIDIStatus send(std::uint32_t source, MIDIBytes message) override
    {
        if (onSend)
            onSend();
        return recording_.send(source, message);
    }
    void disposeSource(std::uint32_t source) override { recording_.disposeSource(source); }
    void disposeClient(std::uint32_t client) override { recording_.disposeClient(client); }

    std::function<void()> onSend;

private:
    RecordingBackend& recording_;
};

} // namespace plinkora::testing
