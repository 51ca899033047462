#pragma once

#include "midi/midi_patchbay.h"

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

struct _snd_seq; // snd_seq_t

namespace plinkora {

/// The connections of PLK on the ALSA sequencer, through a sequencer client of its own,
/// "PLK-patchbay", with one port that only hears the system's announcements (it cannot be
/// subscribed to by others, so no patchbay lists it as an input). A thread waits for the
/// announcements and calls the change callback. Linux only.
class AlsaPatchbay final : public MidiPatchbay
{
public:
    /// `sourceClient`, `sourcePort`: the names of Plinkora's port; of the clients with that
    /// name, the one of this process is taken.
    explicit AlsaPatchbay(std::string sourceClient = "PLK", std::string sourcePort = "PLK");
    ~AlsaPatchbay() override;
    AlsaPatchbay(const AlsaPatchbay&) = delete;
    AlsaPatchbay& operator=(const AlsaPatchbay&) = delete;

    std::vector<MidiDestination> destinations() override;
    std::vector<MidiDestination> connections() override;
    bool sourcePublished() override;
    bool connect(const MidiDestination& destination) override;
    bool disconnect(const MidiDestination& destination) override;
    /// Called on the patchbay's own thread for clients and ports that start, end or change,
    /// and subscriptions made or removed.
    void setChangeCallback(std::function<void()> changed) override;

private:
    struct Address
    {
        int client = -1;
        int port = -1;
    };
    bool open();
    void listen();
    void notify();
    bool findSource(Address& source);
    bool findDestination(const MidiDestination& destination, Address& found);

    std::string sourceClient_;
    std::string sourcePort_;
    _snd_seq* seq_ = nullptr;
    std::mutex seqMutex_; // the sequencer handle is used by the main thread and the listener
    int wakeFds_[2] = {-1, -1};
    std::thread listener_;
    std::mutex changedMutex_;
    std::function<void()> changed_; // under changedMutex_
};

} // namespace plinkora
