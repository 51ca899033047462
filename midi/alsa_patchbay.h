#pragma once

#include "midi/midi_patchbay.h"
#include "midi/port_name.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

struct _snd_seq; // snd_seq_t

namespace plinkora {

class AlsaAnnouncements;

/// The connections of PLK on the ALSA sequencer, through a sequencer client of its own,
/// "PLK-patchbay" (AlsaAnnouncements), whose thread hears the system's announcements and calls
/// the change callback. The client is opened by the first call, and again by the first call
/// after the sequencer failed under it.
/// Linux only.
class AlsaPatchbay final : public MIDIPatchbay
{
public:
    /// `sourceClient`, `sourcePort`: the names of Plinkora's port; of the clients with that
    /// name, the one of this process is taken.
    explicit AlsaPatchbay(std::string sourceClient = std::string(kPortName),
                          std::string sourcePort = std::string(kPortName));
    ~AlsaPatchbay() override;
    AlsaPatchbay(const AlsaPatchbay&) = delete;
    AlsaPatchbay& operator=(const AlsaPatchbay&) = delete;

    std::vector<MIDIDestination> destinations() override;
    std::vector<MIDIDestination> connections() override;
    bool sourcePublished() override;
    bool connect(const MIDIDestination& destination) override;
    bool disconnect(const MIDIDestination& destination) override;
    /// Called on the patchbay's own thread for clients and ports that start, end or change,
    /// and subscriptions made or removed.
    void setChangeCallback(std::function<void()> changed) override;

private:
    struct Address
    {
        int client = -1;
        int port = -1;
    };
    void open();
    bool ensureClient();
    void notify();
    bool findSource(_snd_seq* seq, Address& source);
    bool findDestination(_snd_seq* seq, const MIDIDestination& destination, Address& found);

    std::string sourceClient_;
    std::string sourcePort_;
    std::unique_ptr<AlsaAnnouncements> client_; // null without a sequencer
    std::atomic<bool> lost_{false};             // the sequencer failed under client_
    bool wasLost_ = false;                      // a client was lost and none opened since
    std::mutex changedMutex_;
    std::function<void()> changed_; // under changedMutex_
};

} // namespace plinkora
