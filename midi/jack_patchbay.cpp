#include "midi/jack_patchbay.h"

#include "midi/midi_service_probe.h"

#include <jack/jack.h>

#include <algorithm>
#include <cerrno>

namespace plinkora {

namespace {
constexpr std::string_view kClientRole = "patchbay";

// A JACK list of port names, freed with jack_free.
class PortList
{
public:
    explicit PortList(const char** names)
        : names_(names)
    {
    }
    ~PortList()
    {
        if (names_ != nullptr)
            jack_free(static_cast<void*>(names_));
    }
    PortList(const PortList&) = delete;
    PortList& operator=(const PortList&) = delete;
    template <typename F> void forEach(F&& f) const
    {
        for (const char** name = names_; name != nullptr && *name != nullptr; ++name)
            f(*name);
    }

private:
    const char** names_;
};
} // namespace

JackPatchbay::JackPatchbay(std::string source)
    : source_(std::move(source))
    , ownClient_(source_.substr(0, source_.find(':')))
{
}

JackPatchbay::~JackPatchbay()
{
    {
        const std::lock_guard lock(changedMutex_);
        changed_ = nullptr;
    }
    closeClient();
}

bool JackPatchbay::ensureClient()
{
    if (client_ != nullptr && !serverGone_.load(std::memory_order_acquire))
        return true;
    if (client_ != nullptr)
        serviceLost(); // its own notice came first
    if (waitingForService_)
        return false;
    forbidJackServerStart();
    const QuietJackMessages quiet;
    jack_status_t status{};
    jack_client_t* client = jack_client_open(helperClientName(kClientRole).c_str(), JackNoStartServer, &status);
    if (client == nullptr)
        return false;
    serverGone_.store(false, std::memory_order_release);
    jack_set_port_registration_callback(client, &JackPatchbay::onPortRegistration, this);
    jack_set_port_connect_callback(client, &JackPatchbay::onPortConnect, this);
    jack_set_port_rename_callback(client, &JackPatchbay::onPortRename, this);
    jack_on_info_shutdown(
        client,
        [](jack_status_t code, const char* reason, void* self) { onShutdown(static_cast<int>(code), reason, self); },
        this);
    // Only an active client hears of changes; without a process callback it takes no part in
    // the cycles.
    if (jack_activate(client) != 0) {
        jack_client_close(client);
        return false;
    }
    client_ = client;
    if (reopened_)
        notify(); // the server's ports are there again
    reopened_ = false;
    return true;
}

void JackPatchbay::serviceLost()
{
    waitingForService_ = true;
    if (client_ == nullptr)
        return;
    // Closing a client of a dead server is safe (opening one is not, see the interface).
    const QuietJackMessages quiet;
    jack_client_close(client_);
    client_ = nullptr;
    reopened_ = true;
}

void JackPatchbay::serviceBack()
{
    waitingForService_ = false;
}

void JackPatchbay::closeClient()
{
    if (client_ == nullptr)
        return;
    const QuietJackMessages quiet; // closing a client of a server that is gone complains
    if (!serverGone_.load(std::memory_order_acquire))
        jack_deactivate(client_);
    jack_client_close(client_);
    client_ = nullptr;
}

void JackPatchbay::notify()
{
    const std::lock_guard lock(changedMutex_);
    if (changed_)
        changed_();
}

void JackPatchbay::setChangeCallback(std::function<void()> changed)
{
    {
        const std::lock_guard lock(changedMutex_);
        changed_ = std::move(changed);
        if (!changed_)
            return;
    }
    ensureClient(); // only an open client hears of changes
}

MIDIDestination JackPatchbay::destinationOf(const char* fullName) const
{
    const std::string name = fullName;
    if (const jack_port_t* port = jack_port_by_name(client_, fullName)) {
        const std::string shortName = jack_port_short_name(port);
        if (name.size() > shortName.size()
            && name.compare(name.size() - shortName.size(), shortName.size(), shortName) == 0)
            return {name.substr(0, name.size() - shortName.size() - 1), shortName};
    }
    const std::size_t colon = name.find(':');
    return {name.substr(0, colon), colon == std::string::npos ? std::string() : name.substr(colon + 1)};
}

std::vector<MIDIDestination> JackPatchbay::destinations()
{
    std::vector<MIDIDestination> list;
    if (!ensureClient())
        return list;
    const PortList ports(jack_get_ports(client_, nullptr, JACK_DEFAULT_MIDI_TYPE, JackPortIsInput));
    ports.forEach([&](const char* name) {
        MIDIDestination destination = destinationOf(name);
        if (destination.client != ownClient_)
            list.push_back(std::move(destination));
    });
    std::sort(list.begin(), list.end());
    return list;
}

std::vector<MIDIDestination> JackPatchbay::connections()
{
    std::vector<MIDIDestination> list;
    if (!ensureClient())
        return list;
    const jack_port_t* port = jack_port_by_name(client_, source_.c_str());
    if (port == nullptr)
        return list;
    const PortList connected(jack_port_get_all_connections(client_, port));
    connected.forEach([&](const char* name) { list.push_back(destinationOf(name)); });
    std::sort(list.begin(), list.end());
    return list;
}

bool JackPatchbay::sourcePublished()
{
    return ensureClient() && jack_port_by_name(client_, source_.c_str()) != nullptr;
}

bool JackPatchbay::connect(const MIDIDestination& destination)
{
    if (!ensureClient())
        return false;
    const int result = jack_connect(client_, source_.c_str(), destination.name().c_str());
    return result == 0 || result == EEXIST;
}

bool JackPatchbay::disconnect(const MIDIDestination& destination)
{
    if (!ensureClient())
        return true; // nothing is connected where there is no server
    const jack_port_t* port = jack_port_by_name(client_, source_.c_str());
    if (port == nullptr || !jack_port_connected_to(port, destination.name().c_str()))
        return true;
    return jack_disconnect(client_, source_.c_str(), destination.name().c_str()) == 0;
}

void JackPatchbay::onPortRegistration(std::uint32_t, int, void* self)
{
    static_cast<JackPatchbay*>(self)->notify();
}

void JackPatchbay::onPortConnect(std::uint32_t, std::uint32_t, int, void* self)
{
    static_cast<JackPatchbay*>(self)->notify();
}

void JackPatchbay::onPortRename(std::uint32_t, const char*, const char*, void* self)
{
    static_cast<JackPatchbay*>(self)->notify();
}

void JackPatchbay::onShutdown(int, const char*, void* self)
{
    auto* patchbay = static_cast<JackPatchbay*>(self);
    patchbay->serverGone_.store(true, std::memory_order_release);
    patchbay->notify();
}

} // namespace plinkora
