#pragma once

#include <QCoreApplication>

#include <chrono>
#include <thread>

namespace plinkora::testing {

/// Runs the event loop (timers, queued calls) until `condition` holds; false when `timeout`
/// passes first.
template <typename Condition> bool waitUntil(Condition condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Runs the event loop for `time`.
inline void runEventLoopFor(std::chrono::milliseconds time)
{
    waitUntil([] { return false; }, time);
}

} // namespace plinkora::testing
