#include "midi/alsa_patchbay.h"

#include "midi/alsa_announcements.h"

#include <alsa/asoundlib.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace plinkora {

namespace {
constexpr std::string_view kClientRole = "patchbay";
constexpr unsigned kDestinationCaps = SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;

// alsa-lib's small records, on the stack with their own lifetime.
struct ClientInfo
{
    ClientInfo() { snd_seq_client_info_malloc(&info); }
    ~ClientInfo() { snd_seq_client_info_free(info); }
    ClientInfo(const ClientInfo&) = delete;
    ClientInfo& operator=(const ClientInfo&) = delete;
    snd_seq_client_info_t* info = nullptr;
};

struct PortInfo
{
    PortInfo() { snd_seq_port_info_malloc(&info); }
    ~PortInfo() { snd_seq_port_info_free(info); }
    PortInfo(const PortInfo&) = delete;
    PortInfo& operator=(const PortInfo&) = delete;
    snd_seq_port_info_t* info = nullptr;
};

// Calls f(client info, port info) for every port of every client but `self`.
template <typename F> void forEachPort(snd_seq_t* seq, F&& f)
{
    const ClientInfo client;
    const PortInfo port;
    const int self = snd_seq_client_id(seq);
    snd_seq_client_info_set_client(client.info, -1);
    while (snd_seq_query_next_client(seq, client.info) >= 0) {
        const int id = snd_seq_client_info_get_client(client.info);
        if (id == self)
            continue;
        snd_seq_port_info_set_client(port.info, id);
        snd_seq_port_info_set_port(port.info, -1);
        while (snd_seq_query_next_port(seq, port.info) >= 0)
            f(client.info, port.info);
    }
}
} // namespace

AlsaPatchbay::AlsaPatchbay(std::string sourceClient, std::string sourcePort)
    : sourceClient_(std::move(sourceClient))
    , sourcePort_(std::move(sourcePort))
{
}

void AlsaPatchbay::open()
{
    AlsaAnnouncements::Listener listener;
    listener.announced = [this](const snd_seq_event_t& event) {
        switch (event.type) {
        case SND_SEQ_EVENT_CLIENT_START:
        case SND_SEQ_EVENT_CLIENT_EXIT:
        case SND_SEQ_EVENT_CLIENT_CHANGE:
        case SND_SEQ_EVENT_PORT_START:
        case SND_SEQ_EVENT_PORT_EXIT:
        case SND_SEQ_EVENT_PORT_CHANGE:
        case SND_SEQ_EVENT_PORT_SUBSCRIBED:
        case SND_SEQ_EVENT_PORT_UNSUBSCRIBED:
            notify();
            break;
        default:
            break;
        }
    };
    listener.lost = [this] {
        lost_.store(true, std::memory_order_release);
        notify();
    };
    client_ = AlsaAnnouncements::open(helperClientName(kClientRole), std::move(listener));
}

bool AlsaPatchbay::ensureClient()
{
    if (client_ && !lost_.load(std::memory_order_acquire))
        return true;
    const bool reopening = client_ != nullptr || wasLost_;
    client_.reset();
    wasLost_ = reopening;
    lost_.store(false, std::memory_order_release);
    open();
    if (!client_)
        return false;
    if (reopening)
        notify(); // the sequencer is back
    wasLost_ = false;
    return true;
}

AlsaPatchbay::~AlsaPatchbay()
{
    client_.reset(); // no more calls from its thread
}

void AlsaPatchbay::notify()
{
    const std::lock_guard lock(changedMutex_);
    if (changed_)
        changed_();
}

void AlsaPatchbay::setChangeCallback(std::function<void()> changed)
{
    {
        const std::lock_guard lock(changedMutex_);
        changed_ = std::move(changed);
        if (!changed_)
            return;
    }
    ensureClient(); // only an open client hears of changes
}

bool AlsaPatchbay::findSource(snd_seq_t* seq, Address& source)
{
    bool found = false;
    bool own = false; // another program's PLK counts only when this process has none
    const pid_t self = getpid();
    forEachPort(seq, [&](snd_seq_client_info_t* client, const snd_seq_port_info_t* port) {
        if (sourceClient_ != snd_seq_client_info_get_name(client) || sourcePort_ != snd_seq_port_info_get_name(port))
            return;
        const bool ours = snd_seq_client_info_get_pid(client) == self;
        if (found && (own || !ours))
            return;
        source = {snd_seq_client_info_get_client(client), snd_seq_port_info_get_port(port)};
        found = true;
        own = ours;
    });
    return found;
}

bool AlsaPatchbay::findDestination(snd_seq_t* seq, const MIDIDestination& destination, Address& found)
{
    bool any = false;
    forEachPort(seq, [&](snd_seq_client_info_t* client, const snd_seq_port_info_t* port) {
        if (any || (snd_seq_port_info_get_capability(port) & kDestinationCaps) != kDestinationCaps)
            return;
        if (destination.client == snd_seq_client_info_get_name(client)
            && destination.port == snd_seq_port_info_get_name(port)) {
            found = {snd_seq_client_info_get_client(client), snd_seq_port_info_get_port(port)};
            any = true;
        }
    });
    return any;
}

namespace {
// A subscription from `from` to `to`, on the stack.
struct Subscription
{
    Subscription(int fromClient, int fromPort, int toClient, int toPort)
    {
        snd_seq_port_subscribe_malloc(&subscription);
        const snd_seq_addr_t sender{static_cast<unsigned char>(fromClient), static_cast<unsigned char>(fromPort)};
        const snd_seq_addr_t dest{static_cast<unsigned char>(toClient), static_cast<unsigned char>(toPort)};
        snd_seq_port_subscribe_set_sender(subscription, &sender);
        snd_seq_port_subscribe_set_dest(subscription, &dest);
    }
    ~Subscription() { snd_seq_port_subscribe_free(subscription); }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    snd_seq_port_subscribe_t* subscription = nullptr;
};
} // namespace

std::vector<MIDIDestination> AlsaPatchbay::destinations()
{
    std::vector<MIDIDestination> list;
    if (!ensureClient())
        return list;
    client_->withSequencer([&](snd_seq_t* seq) {
        forEachPort(seq, [&](snd_seq_client_info_t* client, const snd_seq_port_info_t* port) {
            const unsigned caps = snd_seq_port_info_get_capability(port);
            if ((caps & kDestinationCaps) != kDestinationCaps || (caps & SND_SEQ_PORT_CAP_NO_EXPORT) != 0)
                return;
            const std::string clientName = snd_seq_client_info_get_name(client);
            if (clientName == sourceClient_ && snd_seq_client_info_get_pid(client) == getpid())
                return; // Plinkora's own
            list.push_back({clientName, snd_seq_port_info_get_name(port)});
        });
    });
    std::sort(list.begin(), list.end());
    return list;
}

std::vector<MIDIDestination> AlsaPatchbay::connections()
{
    std::vector<MIDIDestination> list;
    if (!ensureClient())
        return list;
    client_->withSequencer([&](snd_seq_t* seq) {
        Address source;
        if (!findSource(seq, source))
            return;
        snd_seq_query_subscribe_t* query = nullptr;
        snd_seq_query_subscribe_malloc(&query);
        const snd_seq_addr_t root{static_cast<unsigned char>(source.client), static_cast<unsigned char>(source.port)};
        snd_seq_query_subscribe_set_root(query, &root);
        snd_seq_query_subscribe_set_type(query, SND_SEQ_QUERY_SUBS_READ);
        snd_seq_query_subscribe_set_index(query, 0);
        const ClientInfo client;
        const PortInfo port;
        while (snd_seq_query_port_subscribers(seq, query) >= 0) {
            const snd_seq_addr_t* reader = snd_seq_query_subscribe_get_addr(query);
            if (snd_seq_get_any_client_info(seq, reader->client, client.info) >= 0
                && snd_seq_get_any_port_info(seq, reader->client, reader->port, port.info) >= 0)
                list.push_back({snd_seq_client_info_get_name(client.info), snd_seq_port_info_get_name(port.info)});
            snd_seq_query_subscribe_set_index(query, snd_seq_query_subscribe_get_index(query) + 1);
        }
        snd_seq_query_subscribe_free(query);
    });
    std::sort(list.begin(), list.end());
    return list;
}

bool AlsaPatchbay::sourcePublished()
{
    if (!ensureClient())
        return false;
    return client_->withSequencer([&](snd_seq_t* seq) {
        Address source;
        return findSource(seq, source);
    });
}

bool AlsaPatchbay::connect(const MIDIDestination& destination)
{
    if (!ensureClient())
        return false;
    return client_->withSequencer([&](snd_seq_t* seq) {
        Address source;
        Address dest;
        if (!findSource(seq, source) || !findDestination(seq, destination, dest))
            return false;
        const Subscription subscription(source.client, source.port, dest.client, dest.port);
        const int result = snd_seq_subscribe_port(seq, subscription.subscription);
        return result >= 0 || result == -EBUSY; // -EBUSY: connected already
    });
}

bool AlsaPatchbay::disconnect(const MIDIDestination& destination)
{
    if (!ensureClient())
        return true;
    return client_->withSequencer([&](snd_seq_t* seq) {
        Address source;
        Address dest;
        if (!findSource(seq, source) || !findDestination(seq, destination, dest))
            return true;
        const Subscription subscription(source.client, source.port, dest.client, dest.port);
        if (snd_seq_get_port_subscription(seq, subscription.subscription) < 0)
            return true; // not connected
        return snd_seq_unsubscribe_port(seq, subscription.subscription) >= 0;
    });
}

} // namespace plinkora
