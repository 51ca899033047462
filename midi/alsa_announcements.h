#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

struct _snd_seq;      // snd_seq_t
struct snd_seq_event; // snd_seq_event_t

namespace plinkora {

/// A sequencer client of Plinkora's own that hears the ALSA sequencer's announcements (clients
/// and ports starting, ending, changing; subscriptions made and removed) on a thread. Its one
/// port takes no subscribers, so no patchbay offers it as a MIDI input. Linux only.
class AlsaAnnouncements
{
public:
    struct Listener
    {
        /// Each announcement, on the listening thread.
        std::function<void(const snd_seq_event& event)> announced;
        /// The sequencer failed under the client (it is gone); no calls after this one.
        std::function<void()> lost;
    };

    /// Opens the client `clientName` and starts listening. Null when there is no sequencer;
    /// prints nothing.
    static std::unique_ptr<AlsaAnnouncements> open(const std::string& clientName, Listener listener);
    ~AlsaAnnouncements();
    AlsaAnnouncements(const AlsaAnnouncements&) = delete;
    AlsaAnnouncements& operator=(const AlsaAnnouncements&) = delete;

    /// Runs `f(sequencer)` with the client's handle, which the listening thread does not use
    /// meanwhile. Not from within a listener call.
    template <typename F> auto withSequencer(F&& f)
    {
        const std::lock_guard lock(mutex_);
        return f(seq_);
    }

    /// The number of the client called `name` that belongs to this process, else of any client
    /// of that name; -1 when there is none.
    static int findClient(_snd_seq* seq, std::string_view name);

private:
    AlsaAnnouncements() = default;
    void listen();

    _snd_seq* seq_ = nullptr;
    std::mutex mutex_;
    Listener listener_;
    int wakeFds_[2] = {-1, -1};
    std::thread thread_;
};

} // namespace plinkora
