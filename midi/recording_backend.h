#pragma once

#include "midi/midi_backend.h"

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace plinkora {

/// A MIDI service that records every call in order and can be told to fail. Used by tests and
/// benchmarks. Recording a message does not allocate until `reserved` calls are exceeded.
class RecordingBackend final : public MIDIBackend
{
public:
    enum class Op
    {
        CreateClient,
        CreateSource,
        Send,
        DisposeSource,
        DisposeClient
    };

    struct Call
    {
        Op op;
        std::uint32_t reference = 0;         // client for CreateSource/DisposeClient, source otherwise
        std::size_t length = 0;              // the number of bytes of a Send
        std::array<std::uint8_t, 3> bytes{}; // a Send's first three bytes
    };

    explicit RecordingBackend(std::size_t reserved = 4096);

    std::string_view apiName() const override { return "recording"; }
    [[nodiscard]] MIDIStatus createClient(std::string_view name, std::uint32_t& client) override;
    [[nodiscard]] MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override;
    [[nodiscard]] MIDIStatus send(std::uint32_t source, MIDIBytes message) override;
    void disposeSource(std::uint32_t source) override;
    void disposeClient(std::uint32_t client) override;

    /// Makes every later call of `op` fail with `status` (0 makes it succeed again).
    void failWith(Op op, MIDIStatus status);

    const std::vector<Call>& calls() const { return calls_; }
    /// The bytes of every Send, in order, each message as its own vector.
    std::vector<std::vector<std::uint8_t>> sentMessages() const;
    /// Forgets the recorded calls, keeping the reserved room.
    void clear() { calls_.clear(); }

    std::string clientName;
    std::string sourceName;

private:
    std::vector<Call> calls_;
    std::array<MIDIStatus, 5> failures_{};
};

} // namespace plinkora
