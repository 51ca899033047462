#pragma once

#include <QLockFile>
#include <QObject>
#include <QString>

#include <memory>
#include <vector>

class QSocketNotifier;

namespace plinkora {

/// One Plinkora per user, so that there is never a second "PLK" port. The first instance holds
/// a lock file and listens on a local socket, both in the user's runtime folder; a later launch
/// finds the lock held, connects, asks the running instance to bring its main window forward,
/// and exits before it makes any MIDI port. A lock left by a crashed instance is taken over
/// (its process is gone), and so is the socket file it left behind. Main thread only.
///
/// The socket is a plain Unix-domain stream socket watched by the event loop, so that the
/// program does not load Qt Network (and its Kerberos and proxy libraries) for one request line.
///
/// claim() needs no application object (the program calls it before the toolkit starts);
/// listen() and askRunningInstanceToShow() need a QCoreApplication.
class SingleInstance final : public QObject
{
    Q_OBJECT

public:
    /// Uses `directory` for the lock file "plinkora.lock" and the socket "plinkora.socket".
    explicit SingleInstance(const QString& directory);
    ~SingleInstance() override;

    SingleInstance() = delete;
    SingleInstance(const SingleInstance&) = delete;
    SingleInstance& operator=(const SingleInstance&) = delete;

    /// The user's own folder for them: $XDG_RUNTIME_DIR, else "plinkora-<uid>" (mode 0700) in
    /// the temporary folder.
    static QString defaultDirectory();

    /// Tries to become the running instance by taking the lock. True: this process is it (also
    /// when the lock cannot be written, which is said in one line). False: another instance runs.
    bool claim();
    /// After a successful claim(): listens for later launches on the socket (a socket file left
    /// by a crashed instance is replaced). False, with one line, when it cannot.
    bool listen();
    /// Stops listening (the socket file goes); the lock stays until this object goes.
    void stopListening();

    /// From a later launch: asks the running instance to show its window. True when it
    /// answered within `timeoutMs`. Blocks; the running instance must be another thread or
    /// process.
    bool askRunningInstanceToShow(int timeoutMs = 3000) const;

    QString socketPath() const { return socketPath_; }
    QString lockPath() const { return lockPath_; }
    bool isListening() const;

    /// The request line a later launch sends, and the answer.
    static constexpr const char* kShowRequest = "show\n";
    static constexpr const char* kShownAnswer = "shown\n";

signals:
    /// A later launch asked to bring the main window forward.
    void showRequested();

private:
    class Connection;

    void acceptConnections();
    void readRequest(Connection& connection);
    void closeConnection(Connection& connection);

    QString socketPath_;
    QString lockPath_;
    QLockFile lock_;
    int serverSocket_ = -1;
    std::unique_ptr<QSocketNotifier> serverNotifier_;
    std::vector<std::unique_ptr<Connection>> connections_;
};

} // namespace plinkora
