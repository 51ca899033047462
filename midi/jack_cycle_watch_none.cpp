// The cycle watch where Plinkora is built without JACK: there is never a server to watch, so
// the JACK back end reports the service unavailable and publishes nothing.
#include "midi/jack_cycle_watch.h"

namespace plinkora {

std::unique_ptr<JackCycleWatch> JackCycleWatch::open(const std::string&, MIDIStatus& status)
{
    status = kStatusServiceUnavailable;
    return nullptr;
}

JackCycleWatch::~JackCycleWatch() = default;

bool JackCycleWatch::waitCycles(unsigned, std::chrono::milliseconds)
{
    return false;
}

void JackCycleWatch::deactivate() {}

void JackCycleWatch::setGoneListener(std::function<void()>) {}

} // namespace plinkora
