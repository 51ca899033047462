#include "midi/recording_backend.h"

#include <algorithm>

namespace plinkora {

namespace {
constexpr std::uint32_t kClientReference = 0x1001;
constexpr std::uint32_t kSourceReference = 0x2001;
} // namespace

RecordingBackend::RecordingBackend(std::size_t reserved)
{
    calls_.reserve(reserved);
}

void RecordingBackend::failWith(Op op, MidiStatus status)
{
    failures_.at(static_cast<std::size_t>(op)) = status;
}

MidiStatus RecordingBackend::createClient(std::string_view name, std::uint32_t& client)
{
    calls_.push_back({Op::CreateClient});
    clientName = name;
    if (const MidiStatus failure = failures_[static_cast<std::size_t>(Op::CreateClient)])
        return failure;
    client = kClientReference;
    return kStatusOk;
}

MidiStatus RecordingBackend::createSource(std::uint32_t client, std::string_view name, std::uint32_t& source)
{
    calls_.push_back({Op::CreateSource, client});
    sourceName = name;
    if (const MidiStatus failure = failures_[static_cast<std::size_t>(Op::CreateSource)])
        return failure;
    if (client != kClientReference)
        return kStatusNoSuchEndpoint;
    source = kSourceReference;
    return kStatusOk;
}

MidiStatus RecordingBackend::received(std::uint32_t source, const MidiPacket& packet)
{
    Call call{Op::Send, source, packet.length};
    std::copy_n(packet.data.begin(), std::min<std::size_t>(packet.length, 3), call.bytes.begin());
    call.restOfPacketZero = std::all_of(packet.data.begin() + std::min<std::size_t>(packet.length, 256),
                                        packet.data.end(), [](std::uint8_t b) { return b == 0; });
    calls_.push_back(call);
    if (const MidiStatus failure = failures_[static_cast<std::size_t>(Op::Send)])
        return failure;
    return source == kSourceReference ? kStatusOk : kStatusNoSuchEndpoint;
}

void RecordingBackend::disposeSource(std::uint32_t source)
{
    calls_.push_back({Op::DisposeSource, source});
}

void RecordingBackend::disposeClient(std::uint32_t client)
{
    calls_.push_back({Op::DisposeClient, client});
}

std::vector<std::vector<std::uint8_t>> RecordingBackend::sentMessages() const
{
    std::vector<std::vector<std::uint8_t>> messages;
    for (const Call& call : calls_)
        if (call.op == Op::Send)
            messages.emplace_back(call.bytes.begin(), call.bytes.begin() + std::min<std::size_t>(call.length, 3));
    return messages;
}

} // namespace plinkora
