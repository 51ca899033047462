#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <array>
#include <memory>

namespace plinkora {

/// Turns SIGINT, SIGTERM and SIGHUP into the Qt signal `terminationRequested` on the main
/// thread, so that they quit through the same orderly shut-down as the Quit command. The
/// handler only writes the signal's number into a pipe (a self-pipe); a socket notifier on the
/// main thread reads it. After the first such signal the default actions are restored, so a
/// second Ctrl+C ends a shut-down that hangs. At most one may exist at a time. Does nothing
/// on systems without POSIX signals.
///
/// The handlers are installed at construction, which needs no application object; a signal
/// that arrives before the event loop watches the pipe waits in it and is reported then.
class TerminationSignals final : public QObject
{
    Q_OBJECT

public:
    /// Installs the handlers; watches the pipe at once when a QCoreApplication exists.
    TerminationSignals();
    /// Restores the signals' previous actions and closes the pipe.
    ~TerminationSignals() override;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

    /// Starts watching the pipe; needs the QCoreApplication. Nothing happens when it watches.
    void startWatching();
    /// Stops watching the pipe (before the QCoreApplication goes); the handlers stay.
    void stopWatching() { notifier_.reset(); }
    /// Whether the handlers are installed and the pipe is watched.
    bool isActive() const { return notifier_ != nullptr; }

signals:
    /// SIGINT, SIGTERM or SIGHUP arrived; `signalNumber` says which.
    void terminationRequested(int signalNumber);

private:
    void readPipe();
    void restoreDefaults();

    std::array<int, 2> pipe_{-1, -1};
    std::unique_ptr<QSocketNotifier> notifier_;
    bool restored_ = false;
};

} // namespace plinkora
