#pragma once

#include "midi/midi_patchbay.h"
#include "midi/port_name.h"

#include <atomic>
#include <mutex>
#include <string>

struct _jack_client; // jack_client_t

namespace plinkora {

/// The connections of PLK on the JACK server ($JACK_DEFAULT_SERVER, else the default), through
/// a client of its own, "PLK-patchbay", that has no ports (patchbays do not show it). The
/// client is opened by the first call (not when the patchbay is made, which costs the start-up
/// nothing). When the server goes the client is closed, and opened again only after
/// serviceBack(). It never starts a server and prints nothing.
class JackPatchbay final : public MIDIPatchbay
{
public:
    /// `source`: the full name of Plinkora's port.
    explicit JackPatchbay(std::string source = portFullName());
    ~JackPatchbay() override;
    JackPatchbay(const JackPatchbay&) = delete;
    JackPatchbay& operator=(const JackPatchbay&) = delete;

    std::vector<MIDIDestination> destinations() override;
    std::vector<MIDIDestination> connections() override;
    bool sourcePublished() override;
    bool connect(const MIDIDestination& destination) override;
    bool disconnect(const MIDIDestination& destination) override;
    void serviceLost() override;
    void serviceBack() override;
    /// Called on JACK's notification thread for ports registered, unregistered or renamed,
    /// connections made or broken, and the server's shut-down; on the calling thread when the
    /// client was opened again after serviceBack().
    void setChangeCallback(std::function<void()> changed) override;

private:
    bool ensureClient();
    void closeClient();
    void notify();
    MIDIDestination destinationOf(const char* fullName) const;

    static void onPortRegistration(std::uint32_t port, int registered, void* self);
    static void onPortConnect(std::uint32_t a, std::uint32_t b, int connected, void* self);
    static void onPortRename(std::uint32_t port, const char* oldName, const char* newName, void* self);
    static void onShutdown(int status, const char* reason, void* self);

    std::string source_;
    std::string ownClient_; // the client part of source_: its ports are not destinations
    _jack_client* client_ = nullptr;
    std::atomic<bool> serverGone_{false};
    bool waitingForService_ = false; // the server went; no client until serviceBack()
    bool reopened_ = false;          // the next client opened replaces one of a dead server
    std::mutex changedMutex_;
    std::function<void()> changed_; // under changedMutex_
};

} // namespace plinkora
