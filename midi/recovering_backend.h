#pragma once

#include "midi/midi_backend.h"
#include "midi/midi_patchbay.h"

#include <QObject>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace plinkora {

/// Keeps the port PLK through a MIDI service that dies and returns, for every back end that
/// reports the loss (MIDIBackend::setServiceLostListener). Stands between the MIDI output and
/// the port's back end, handing out references of its own that stay valid across the loss.
///
/// When the service is lost it prints one line ("MIDI output lost: jack"), announces
/// "MIDI output lost", disposes the dead client and source, and sends go into nothing, each
/// reporting success (no line per message). Once a second, on a timer, it creates the client
/// and the source again; when that works it connects PLK again to what it was connected to
/// (kept up to date from the patchbay while PLK is published; a destination that is not back
/// yet is connected when it appears), prints "MIDI output back: jack" and announces
/// "MIDI output back". Main thread only, except the back end's and the patchbay's notices.
class RecoveringBackend final : public MIDIBackend
{
public:
    static constexpr std::chrono::milliseconds kRetryInterval{1000};

    RecoveringBackend(std::unique_ptr<MIDIBackend> port, std::unique_ptr<MIDIPatchbay> patchbay);
    ~RecoveringBackend() override;
    RecoveringBackend(const RecoveringBackend&) = delete;
    RecoveringBackend& operator=(const RecoveringBackend&) = delete;

    std::string_view apiName() const override;
    [[nodiscard]] MIDIStatus createClient(std::string_view name, std::uint32_t& client) override;
    [[nodiscard]] MIDIStatus createSource(std::uint32_t client, std::string_view name, std::uint32_t& source) override;
    /// While the service is lost: nothing is sent, and the status is 0.
    [[nodiscard]] MIDIStatus send(std::uint32_t source, MIDIBytes message) override;
    /// Also stop the retries: nothing is made again after the clean-up.
    void disposeSource(std::uint32_t source) override;
    void disposeClient(std::uint32_t client) override;

    /// Sets what speaks the two announcements (may be empty), and from the next turn of the
    /// event loop on follows PLK's connections, to restore them after a loss. Call once the
    /// announcer exists.
    void watch(std::function<void(std::string_view text)> announce);

    /// The patchbay of the service, for the connections of PLK shown to the user. Its change
    /// callback is called on the main thread, also when PLK is back.
    MIDIPatchbay& patchbay() { return forwarding_; }
    /// Another view of the same patchbay with a change callback of its own, for a second part
    /// that follows PLK's readers (the built-in synthesizer). Must not outlive this back end.
    std::unique_ptr<MIDIPatchbay> patchbayView();

    /// False where the service has no patchbay (the null output): PLK's connections cannot
    /// be seen there.
    bool hasPatchbay() const;
    /// True from the loss until PLK is published again.
    bool serviceLost() const { return lost_.load(std::memory_order_acquire); }
    /// The destinations PLK is to be connected to after a loss.
    const std::vector<MIDIDestination>& rememberedConnections() const { return remembered_; }

private:
    // The patchbay as the user sees it: the real one, whose change callback the back end
    // keeps for itself and passes on.
    class ForwardingPatchbay final : public MIDIPatchbay
    {
    public:
        explicit ForwardingPatchbay(RecoveringBackend& owner)
            : owner_(owner)
        {
            owner_.views_.push_back(this);
        }
        ~ForwardingPatchbay() override { std::erase(owner_.views_, this); }
        ForwardingPatchbay(const ForwardingPatchbay&) = delete;
        ForwardingPatchbay& operator=(const ForwardingPatchbay&) = delete;
        std::vector<MIDIDestination> destinations() override { return owner_.patchbay_->destinations(); }
        std::vector<MIDIDestination> connections() override { return owner_.patchbay_->connections(); }
        bool sourcePublished() override { return owner_.patchbay_->sourcePublished(); }
        // The loss and the return are the recovering back end's to tell.
        void serviceLost() override {}
        void serviceBack() override {}
        bool connect(const MIDIDestination& destination) override { return owner_.patchbay_->connect(destination); }
        bool disconnect(const MIDIDestination& destination) override
        {
            return owner_.patchbay_->disconnect(destination);
        }
        void setChangeCallback(std::function<void()> changed) override { changed_ = std::move(changed); }
        void changed() const
        {
            if (changed_)
                changed_();
        }

    private:
        RecoveringBackend& owner_;
        std::function<void()> changed_;
    };

    void serviceLostNotice(); // any thread
    void handleLoss();
    void retry();
    void connectionsChanged();
    void connectPending();
    void tell(std::string_view line, std::string_view announcement);
    void tellViews() const;

    std::unique_ptr<MIDIBackend> port_;
    std::unique_ptr<MIDIPatchbay> patchbay_;
    std::vector<ForwardingPatchbay*> views_; // every view made, told of each change
    ForwardingPatchbay forwarding_{*this};
    std::function<void(std::string_view)> announce_;
    std::string clientName_;
    std::string sourceName_;
    std::uint32_t portClient_ = 0;
    std::uint32_t portSource_ = 0;
    bool clientMade_ = false;
    bool published_ = false;
    bool disposed_ = false;
    bool watching_ = false;
    std::atomic<bool> lost_{false};
    bool lossHandled_ = false;
    std::vector<MIDIDestination> remembered_;
    std::vector<MIDIDestination> pending_; // remembered, not there yet when PLK came back
    QObject context_;                      // queued calls from the service's threads die with it
    QTimer retryTimer_;
};

} // namespace plinkora
