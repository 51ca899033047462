#pragma once

#include "midi/midi_status.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

struct _jack_client; // jack_client_t

namespace plinkora {

/// The watching client of the client "PLK" is called "PLK-sync".
inline constexpr std::string_view kJackWatchSuffix = "-sync";

/// A JACK client without ports that lets the JACK back end see the server's process cycles
/// and notice when the server shuts down. It has no ports, so patchbays do not show it. It
/// only takes part in the cycles from the first `waitCycles` until `deactivate`.
class JackCycleWatch
{
public:
    /// Opens the client `name` on the server JACK picks ($JACK_DEFAULT_SERVER, else the
    /// default). Never starts a server and prints nothing. On failure returns null and sets
    /// `status`: kStatusServiceUnavailable when no server runs, kStatusClientFailed otherwise.
    static std::unique_ptr<JackCycleWatch> open(const std::string& name, MIDIStatus& status);
    ~JackCycleWatch();
    JackCycleWatch(const JackCycleWatch&) = delete;
    JackCycleWatch& operator=(const JackCycleWatch&) = delete;

    /// True once the server has shut down or thrown the client out.
    bool serverGone() const { return serverGone_.load(std::memory_order_acquire); }

    /// Waits until the server has run `cycles` whole cycles after the call, taking part in
    /// them, or until `limit` has passed (returns false then, and at once if the server is gone).
    bool waitCycles(unsigned cycles, std::chrono::milliseconds limit);

    /// Stops taking part in the cycles.
    void deactivate();

    /// `gone` is called once, on JACK's thread, when the server shuts down or throws the
    /// client out (at once if that has happened already). Empty stops the call.
    void setGoneListener(std::function<void()> gone);

private:
    explicit JackCycleWatch(_jack_client* client);
    static int onProcess(std::uint32_t frames, void* self);
    static void onShutdown(int status, const char* reason, void* self);

    _jack_client* client_;
    std::atomic<std::uint64_t> cycles_{0};
    std::atomic<bool> serverGone_{false};
    bool active_ = false;
    std::mutex goneMutex_;
    std::function<void()> gone_; // under goneMutex_
};

} // namespace plinkora
