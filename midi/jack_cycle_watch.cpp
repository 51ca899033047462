#include "midi/jack_cycle_watch.h"

#include "midi/midi_service_probe.h"

#include <jack/jack.h>

#include <thread>

namespace plinkora {

std::unique_ptr<JackCycleWatch> JackCycleWatch::open(const std::string& name, MIDIStatus& status)
{
    forbidJackServerStart();
    const QuietJackMessages quiet;
    jack_status_t jackStatus{};
    jack_client_t* client = jack_client_open(name.c_str(), JackNoStartServer, &jackStatus);
    if (client == nullptr) {
        status = (jackStatus & (JackServerFailed | JackServerError)) != 0 ? kStatusServiceUnavailable
                                                                          : kStatusClientFailed;
        return nullptr;
    }
    std::unique_ptr<JackCycleWatch> watch(new JackCycleWatch(client));
    if (jack_set_process_callback(client, &JackCycleWatch::onProcess, watch.get()) != 0) {
        status = kStatusClientFailed;
        return nullptr;
    }
    jack_on_info_shutdown(
        client,
        [](jack_status_t code, const char* reason, void* self) { onShutdown(static_cast<int>(code), reason, self); },
        watch.get());
    status = kStatusOk;
    return watch;
}

JackCycleWatch::JackCycleWatch(jack_client_t* client)
    : client_(client)
{
}

JackCycleWatch::~JackCycleWatch()
{
    const QuietJackMessages quiet; // closing a client of a server that is gone complains
    jack_client_close(client_);
}

int JackCycleWatch::onProcess(std::uint32_t, void* self)
{
    static_cast<JackCycleWatch*>(self)->cycles_.fetch_add(1, std::memory_order_release);
    return 0;
}

void JackCycleWatch::onShutdown(int, const char*, void* self)
{
    auto* watch = static_cast<JackCycleWatch*>(self);
    watch->serverGone_.store(true, std::memory_order_release);
    const std::lock_guard lock(watch->goneMutex_);
    if (watch->gone_)
        watch->gone_();
}

void JackCycleWatch::setGoneListener(std::function<void()> gone)
{
    const std::lock_guard lock(goneMutex_);
    gone_ = std::move(gone);
    if (gone_ && serverGone())
        gone_();
}

bool JackCycleWatch::waitCycles(unsigned cycles, std::chrono::milliseconds limit)
{
    if (serverGone())
        return false;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (!active_) {
        if (jack_activate(client_) != 0)
            return false;
        active_ = true;
    }
    // The first callback may belong to a cycle that had begun before the call: count one more.
    const std::uint64_t target = cycles_.load(std::memory_order_acquire) + cycles + 1;
    bool reached = false;
    while (!(reached = cycles_.load(std::memory_order_acquire) >= target) && !serverGone()
           && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(250));
    return reached;
}

void JackCycleWatch::deactivate()
{
    if (!active_)
        return;
    active_ = false;
    if (!serverGone())
        jack_deactivate(client_);
}

} // namespace plinkora
