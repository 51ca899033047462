#include "app/termination_signals.h"

#include "common/diagnostics.h"

#include <QCoreApplication>

#ifdef Q_OS_UNIX
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>
#endif

namespace plinkora {

#ifdef Q_OS_UNIX
namespace {

constexpr std::array<int, 3> kSignals{SIGINT, SIGTERM, SIGHUP};
// The write end of the pipe, for the handler (which can reach nothing else).
volatile std::sig_atomic_t writeEnd = -1;
struct sigaction previousActions[kSignals.size()];

extern "C" void onTerminationSignal(int signalNumber)
{
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(signalNumber);
    if (writeEnd >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(writeEnd, &byte, 1);
    }
    errno = savedErrno;
}

} // namespace
#endif

TerminationSignals::TerminationSignals()
{
#ifdef Q_OS_UNIX
    if (writeEnd >= 0)
        fatal("TerminationSignals: only one may exist at a time");
    if (::pipe2(pipe_.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        printLine("Could not watch for termination signals: no pipe, errno ", errno);
        pipe_ = {-1, -1};
        return;
    }
    writeEnd = pipe_[1];

    struct sigaction action = {};
    action.sa_handler = &onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < kSignals.size(); ++i)
        ::sigaction(kSignals[i], &action, &previousActions[i]);
    if (QCoreApplication::instance())
        startWatching();
#endif
}

void TerminationSignals::startWatching()
{
#ifdef Q_OS_UNIX
    if (notifier_ || pipe_[0] < 0)
        return;
    notifier_ = std::make_unique<QSocketNotifier>(pipe_[0], QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, &TerminationSignals::readPipe);
#endif
}

TerminationSignals::~TerminationSignals()
{
#ifdef Q_OS_UNIX
    if (pipe_[0] < 0)
        return;
    restoreDefaults();
    notifier_.reset();
    writeEnd = -1;
    ::close(pipe_[0]);
    ::close(pipe_[1]);
#endif
}

void TerminationSignals::restoreDefaults()
{
#ifdef Q_OS_UNIX
    if (restored_)
        return;
    restored_ = true;
    for (std::size_t i = 0; i < kSignals.size(); ++i)
        ::sigaction(kSignals[i], &previousActions[i], nullptr);
#endif
}

void TerminationSignals::readPipe()
{
#ifdef Q_OS_UNIX
    unsigned char bytes[16];
    const ssize_t count = ::read(pipe_[0], bytes, sizeof bytes);
    if (count <= 0)
        return;
    // A second signal while shutting down is not caught any more: it ends the process.
    restoreDefaults();
    emit terminationRequested(bytes[0]);
#endif
}

} // namespace plinkora
