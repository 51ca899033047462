#include "midi/recovering_backend.h"

#include "common/diagnostics.h"
#include "midi/null_patchbay.h"

#include <QMetaObject>

#include <algorithm>

namespace plinkora {

namespace {
constexpr std::uint32_t kClientReference = 1;
constexpr std::uint32_t kSourceReference = 1;

bool contains(const std::vector<MIDIDestination>& list, const MIDIDestination& item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}
} // namespace

RecoveringBackend::RecoveringBackend(std::unique_ptr<MIDIBackend> port, std::unique_ptr<MIDIPatchbay> patchbay)
    : port_(std::move(port))
    , patchbay_(patchbay ? std::move(patchbay) : std::make_unique<NullPatchbay>())
{
    retryTimer_.setInterval(kRetryInterval);
    QObject::connect(&retryTimer_, &QTimer::timeout, &context_, [this] { retry(); });
    port_->setServiceLostListener([this] { serviceLostNotice(); });
}

RecoveringBackend::~RecoveringBackend()
{
    port_->setServiceLostListener({});
    patchbay_->setChangeCallback({});
}

std::string_view RecoveringBackend::apiName() const
{
    return port_->apiName();
}

MIDIStatus RecoveringBackend::createClient(std::string_view name, std::uint32_t& client)
{
    if (clientMade_)
        return kStatusClientFailed; // one client
    const MIDIStatus status = port_->createClient(name, portClient_);
    if (status != kStatusOk)
        return status;
    clientName_ = name;
    clientMade_ = true;
    client = kClientReference;
    return kStatusOk;
}

MIDIStatus RecoveringBackend::createSource(std::uint32_t client, std::string_view name, std::uint32_t& source)
{
    if (client != kClientReference || !clientMade_)
        return kStatusNoSuchEndpoint;
    if (published_)
        return kStatusSourceFailed; // one source
    const MIDIStatus status = port_->createSource(portClient_, name, portSource_);
    if (status != kStatusOk)
        return status;
    sourceName_ = name;
    published_ = true;
    source = kSourceReference;
    return kStatusOk;
}

MIDIStatus RecoveringBackend::send(std::uint32_t source, MIDIBytes message)
{
    if (source != kSourceReference || !published_)
        return kStatusNoSuchEndpoint;
    if (lost_.load(std::memory_order_acquire))
        return kStatusOk; // into nothing
    const MIDIStatus status = port_->send(portSource_, message);
    if (status == kStatusServiceUnavailable) {
        // The back end saw the service go a moment before its notice arrived here.
        serviceLostNotice();
        return kStatusOk;
    }
    return status;
}

void RecoveringBackend::disposeSource(std::uint32_t source)
{
    if (source != kSourceReference || !published_ || disposed_)
        return;
    retryTimer_.stop();
    disposed_ = true;
    if (!lost_.load(std::memory_order_acquire))
        port_->disposeSource(portSource_);
}

void RecoveringBackend::disposeClient(std::uint32_t client)
{
    if (client != kClientReference || !clientMade_)
        return;
    retryTimer_.stop();
    clientMade_ = false;
    disposed_ = true;
    if (!lost_.load(std::memory_order_acquire))
        port_->disposeClient(portClient_);
}

void RecoveringBackend::watch(std::function<void(std::string_view)> announce)
{
    announce_ = std::move(announce);
    if (watching_)
        return;
    watching_ = true;
    // On the first turn of the event loop: opening the patchbay's client costs the start-up
    // nothing then.
    QMetaObject::invokeMethod(
        &context_,
        [this] {
            // Called on any thread; the work is done on the main thread.
            patchbay_->setChangeCallback([this] {
                QMetaObject::invokeMethod(
                    &context_, [this] { connectionsChanged(); }, Qt::QueuedConnection);
            });
            connectionsChanged();
        },
        Qt::QueuedConnection);
}

void RecoveringBackend::serviceLostNotice()
{
    lost_.store(true, std::memory_order_release);
    QMetaObject::invokeMethod(
        &context_, [this] { handleLoss(); }, Qt::QueuedConnection);
}

void RecoveringBackend::handleLoss()
{
    if (lossHandled_ || disposed_ || !published_)
        return;
    lossHandled_ = true;
    tell("MIDI output lost: ", QT_TRANSLATE_NOOP("Announcement", "MIDI output lost"));
    // The client and the source of the dead service go at once; the new ones are made below.
    port_->disposeSource(portSource_);
    port_->disposeClient(portClient_);
    portSource_ = 0;
    portClient_ = 0;
    patchbay_->serviceLost();
    retryTimer_.start();
}

void RecoveringBackend::retry()
{
    if (disposed_)
        return;
    std::uint32_t client = 0;
    std::uint32_t source = 0;
    if (port_->createClient(clientName_, client) != kStatusOk)
        return; // not back yet: the next tick tries again
    if (port_->createSource(client, sourceName_, source) != kStatusOk) {
        port_->disposeClient(client);
        return;
    }
    retryTimer_.stop();
    portClient_ = client;
    portSource_ = source;
    lossHandled_ = false;
    lost_.store(false, std::memory_order_release);
    patchbay_->serviceBack();
    pending_ = remembered_;
    connectPending();
    tell("MIDI output back: ", QT_TRANSLATE_NOOP("Announcement", "MIDI output back"));
    tellViews();
}

void RecoveringBackend::connectPending()
{
    if (pending_.empty())
        return;
    const std::vector<MIDIDestination> present = patchbay_->destinations();
    std::erase_if(pending_, [&](const MIDIDestination& destination) {
        return contains(present, destination) && patchbay_->connect(destination);
    });
}

void RecoveringBackend::connectionsChanged()
{
    if (!lost_.load(std::memory_order_acquire) && !disposed_ && published_ && patchbay_->sourcePublished()) {
        connectPending();
        std::vector<MIDIDestination> now = patchbay_->connections();
        // A connection not made again yet is still wanted; one broken on purpose while PLK
        // was published is not.
        for (const MIDIDestination& destination : pending_)
            if (!contains(now, destination))
                now.push_back(destination);
        remembered_ = std::move(now);
    }
    tellViews();
}

bool RecoveringBackend::hasPatchbay() const
{
    return dynamic_cast<const NullPatchbay*>(patchbay_.get()) == nullptr;
}

std::unique_ptr<MIDIPatchbay> RecoveringBackend::patchbayView()
{
    return std::make_unique<ForwardingPatchbay>(*this);
}

void RecoveringBackend::tellViews() const
{
    // A callback may make or drop a view: walk a copy.
    const std::vector<ForwardingPatchbay*> views = views_;
    for (const ForwardingPatchbay* view : views)
        if (std::find(views_.begin(), views_.end(), view) != views_.end())
            view->changed();
}

void RecoveringBackend::tell(std::string_view line, std::string_view announcement)
{
    std::string text(line);
    text += port_->apiName();
    printLine(text);
    if (announce_)
        announce_(announcement);
}

} // namespace plinkora
