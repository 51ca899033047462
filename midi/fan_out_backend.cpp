#include "midi/fan_out_backend.h"

namespace plinkora {

FanOutBackend::FanOutBackend(std::unique_ptr<MIDIBackend> port, MIDIListener* listener)
    : port_(std::move(port))
    , listener_(listener)
{
}

MIDIStatus FanOutBackend::createClient(std::string_view name, std::uint32_t& client)
{
    return port_->createClient(name, client);
}

MIDIStatus FanOutBackend::createSource(std::uint32_t client, std::string_view name, std::uint32_t& source)
{
    return port_->createSource(client, name, source);
}

MIDIStatus FanOutBackend::send(std::uint32_t source, MIDIBytes message)
{
    const MIDIStatus status = port_->send(source, message);
    if (listener_)
        listener_->midiSent(message);
    return status;
}

void FanOutBackend::disposeSource(std::uint32_t source)
{
    port_->disposeSource(source);
}

void FanOutBackend::disposeClient(std::uint32_t client)
{
    port_->disposeClient(client);
}

} // namespace plinkora
