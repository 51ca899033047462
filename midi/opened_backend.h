#pragma once

#include "midi/midi_backend.h"

#include <memory>
#include <string>
#include <string_view>

namespace plinkora {

/// A back end whose client and source were made as soon as it was: at start-up that happens on
/// a worker, while the main thread connects to the window system. The first createClient and
/// createSource give the results of then (for the same name); later ones, for a service that
/// came back, go to the back end. Everything else goes to the back end.
class OpenedBackend final : public MIDIBackend
{
public:
    OpenedBackend(std::unique_ptr<MIDIBackend> backend, std::string_view name)
        : backend_(std::move(backend))
        , name_(name)
    {
        clientStatus_ = backend_->createClient(name_, client_);
        if (clientStatus_ == kStatusOk)
            sourceStatus_ = backend_->createSource(client_, name_, source_);
    }

    std::string_view apiName() const override { return backend_->apiName(); }
    [[nodiscard]] MIDIStatus createClient(std::string_view name, std::uint32_t& client) override
    {
        if (clientGiven_ || name != name_)
            return backend_->createClient(name, client);
        clientGiven_ = true;
        if (clientStatus_ == kStatusOk)
            client = client_;
        return clientStatus_;
    }
    [[nodiscard]] MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override
    {
        if (sourceGiven_ || clientStatus_ != kStatusOk || client != client_ || name != name_)
            return backend_->createSource(client, name, source);
        sourceGiven_ = true;
        if (sourceStatus_ == kStatusOk)
            source = source_;
        return sourceStatus_;
    }
    [[nodiscard]] MIDIStatus send(std::uint32_t source, MIDIBytes message) override
    {
        return backend_->send(source, message);
    }
    void disposeSource(std::uint32_t source) override { backend_->disposeSource(source); }
    void disposeClient(std::uint32_t client) override { backend_->disposeClient(client); }
    void setServiceLostListener(std::function<void()> lost) override
    {
        backend_->setServiceLostListener(std::move(lost));
    }

private:
    std::unique_ptr<MIDIBackend> backend_;
    std::string name_;
    std::uint32_t client_ = 0;
    std::uint32_t source_ = 0;
    MIDIStatus clientStatus_ = kStatusClientFailed;
    MIDIStatus sourceStatus_ = kStatusSourceFailed;
    bool clientGiven_ = false;
    bool sourceGiven_ = false;
};

} // namespace plinkora
