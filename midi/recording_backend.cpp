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

void RecordingBackend::failWith(Op op, MIDIStatus status)
{
    failures_.at(static_cast<std::size_t>(op)) = status;
}

MIDIStatus RecordingBackend::createClient(std::string_view name, std::uint32_t& client)
{
    calls_.push_back({Op::CreateClient});
    clientName = name;
    if (const MIDIStatus failure = failures_[static_cast<std::size_t>(Op::CreateClient)])
        return failure;
    client = kClientReference;
    return kStatusOk;
}

MIDIStatus RecordingBackend::createSource(std::uint32_t client, std::string_view name, std::uint32_t& source)
{
    calls_.push_back({Op::CreateSource, client});
    sourceName = name;
    if (const MIDIStatus failure = failures_[static_cast<std::size_t>(Op::CreateSource)])
        return failure;
    if (client != kClientReference)
        return kStatusNoSuchEndpoint;
    source = kSourceReference;
    return kStatusOk;
}

MIDIStatus RecordingBackend::send(std::uint32_t source, MIDIBytes message)
{
    Call call{Op::Send, source, message.size()};
    std::copy_n(message.begin(), std::min<std::size_t>(message.size(), call.bytes.size()), call.bytes.begin());
    calls_.push_back(call);
    if (const MIDIStatus failure = failures_[static_cast<std::size_t>(Op::Send)])
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
            messages.emplace_back(call.bytes.begin(), call.bytes.begin() + std::min(call.length, call.bytes.size()));
    return messages;
}

} // namespace plinkora
