#include "app/single_instance.h"

#include "common/diagnostics.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace plinkora {

namespace {

#ifdef MSG_NOSIGNAL
constexpr int kNoSignal = MSG_NOSIGNAL; // no SIGPIPE from a write to a closed connection
#else
constexpr int kNoSignal = 0; // macOS: SO_NOSIGPIPE on the socket instead
#endif

// The socket's address; false when the path does not fit.
bool socketAddress(const QString& path, sockaddr_un& address)
{
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    if (static_cast<std::size_t>(name.size()) >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    return true;
}

// `fd` (a socket, or -1) closed on exec, and non-blocking when `nonBlocking`: set with fcntl,
// as macOS has no SOCK_CLOEXEC, SOCK_NONBLOCK or accept4.
int withFlags(int fd, bool nonBlocking)
{
    if (fd < 0)
        return fd;
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (nonBlocking)
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
#ifdef SO_NOSIGPIPE // macOS: no SIGPIPE from a write to a closed connection (MSG_NOSIGNAL elsewhere)
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    return fd;
}

// A Unix-domain stream socket (see withFlags), or -1.
int streamSocket(bool nonBlocking)
{
    return withFlags(::socket(AF_UNIX, SOCK_STREAM, 0), nonBlocking);
}

std::string errorText(int error)
{
    return std::strerror(error);
}

// send() all of `text`, or false.
bool writeAll(int fd, const char* text)
{
    std::size_t left = std::strlen(text);
    while (left > 0) {
        const ssize_t written = ::send(fd, text, left, kNoSignal);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace

/// A later launch's connection: what it has sent so far, read as the event loop sees it come.
class SingleInstance::Connection
{
public:
    explicit Connection(int socket)
        : fd(socket)
        , notifier(socket, QSocketNotifier::Read)
    {
    }
    ~Connection() { ::close(fd); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const int fd;
    QSocketNotifier notifier;
    QByteArray received;
};

SingleInstance::SingleInstance(const QString& directory)
    : QObject(nullptr)
    , socketPath_(QDir(directory).filePath(QStringLiteral("plinkora.socket")))
    , lockPath_(QDir(directory).filePath(QStringLiteral("plinkora.lock")))
    , lock_(lockPath_)
{
    // Only a lock whose process is gone is stale, however old it is.
    lock_.setStaleLockTime(0);
}

SingleInstance::~SingleInstance()
{
    stopListening();
    if (lock_.isLocked())
        lock_.unlock();
}

QString SingleInstance::defaultDirectory()
{
    QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QFileInfo(runtime).isDir())
        return runtime;
    QString folder = QDir::temp().filePath(QStringLiteral("plinkora-%1").arg(::getuid()));
    ::mkdir(QFile::encodeName(folder).constData(), 0700);
    return folder;
}

bool SingleInstance::claim()
{
    if (lock_.tryLock(0))
        return true;
    if (lock_.error() == QLockFile::LockFailedError)
        return false;
    printLine("Could not check for another running Plinkora: cannot write " + lockPath_.toStdString());
    return true;
}

bool SingleInstance::listen()
{
    if (serverSocket_ >= 0)
        return true;
    const auto fail = [this](const std::string& why) {
        printLine("Could not listen for later launches on " + socketPath_.toStdString() + ": " + why);
        if (serverSocket_ >= 0)
            ::close(serverSocket_);
        serverSocket_ = -1;
        return false;
    };
    sockaddr_un address;
    if (!socketAddress(socketPath_, address))
        return fail("the path is too long for a socket");
    // A socket file left by a crashed instance would make listening fail.
    ::unlink(address.sun_path);
    serverSocket_ = streamSocket(true);
    if (serverSocket_ < 0)
        return fail(errorText(errno));
    if (::bind(serverSocket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return fail(errorText(errno));
    // Only the user may connect (the folder is the user's own as well).
    ::chmod(address.sun_path, S_IRUSR | S_IWUSR);
    if (::listen(serverSocket_, 8) != 0) {
        const int listenError = errno;
        ::unlink(address.sun_path);
        return fail(errorText(listenError));
    }
    serverNotifier_ = std::make_unique<QSocketNotifier>(serverSocket_, QSocketNotifier::Read);
    connect(serverNotifier_.get(), &QSocketNotifier::activated, this, &SingleInstance::acceptConnections);
    return true;
}

void SingleInstance::stopListening()
{
    connections_.clear();
    if (serverSocket_ < 0)
        return;
    serverNotifier_.reset();
    ::close(serverSocket_);
    serverSocket_ = -1;
    QFile::remove(socketPath_);
}

bool SingleInstance::isListening() const
{
    return serverSocket_ >= 0;
}

bool SingleInstance::askRunningInstanceToShow(int timeoutMs) const
{
    sockaddr_un address;
    if (!socketAddress(socketPath_, address))
        return false;
    const QDeadlineTimer deadline(timeoutMs);
    // The running instance takes the lock some tens of milliseconds before it listens (its port
    // and the toolkit come first): a launch in that moment tries again.
    while (!deadline.hasExpired()) {
        const int fd = streamSocket(false);
        if (fd < 0)
            return false;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            QThread::msleep(20);
            continue;
        }
        QByteArray answer;
        if (writeAll(fd, kShowRequest)) {
            while (!answer.contains('\n') && !deadline.hasExpired()) {
                pollfd wait{fd, POLLIN, 0};
                const int ready = ::poll(&wait, 1, static_cast<int>(deadline.remainingTime()));
                if (ready < 0 && errno == EINTR)
                    continue;
                if (ready <= 0)
                    break;
                char buffer[64];
                const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
                if (got < 0 && errno == EINTR)
                    continue;
                if (got <= 0)
                    break;
                answer.append(buffer, got);
            }
        }
        ::close(fd);
        return answer == kShownAnswer;
    }
    return false;
}

void SingleInstance::acceptConnections()
{
    for (;;) {
        const int fd = withFlags(::accept(serverSocket_, nullptr, nullptr), true);
        if (fd < 0) {
            if (errno == EINTR)
                continue;
            return; // EAGAIN: none waiting any more
        }
        auto& connection = connections_.emplace_back(std::make_unique<Connection>(fd));
        Connection* added = connection.get();
        connect(&added->notifier, &QSocketNotifier::activated, this, [this, added] { readRequest(*added); });
    }
}

void SingleInstance::readRequest(Connection& connection)
{
    char buffer[64];
    const ssize_t got = ::recv(connection.fd, buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got > 0)
        connection.received.append(buffer, got);
    const qsizetype end = connection.received.indexOf('\n');
    if (got > 0 && end < 0 && connection.received.size() < 64)
        return; // the rest of the line is still to come
    if (end >= 0 && connection.received.left(end + 1) == kShowRequest) {
        emit showRequested();
        writeAll(connection.fd, kShownAnswer);
    }
    closeConnection(connection);
}

void SingleInstance::closeConnection(Connection& connection)
{
    // Its notifier has called here: the connection goes once the event loop is done with it.
    connection.notifier.setEnabled(false);
    const auto it = std::find_if(connections_.begin(), connections_.end(),
                                 [&connection](const auto& open) { return open.get() == &connection; });
    if (it == connections_.end())
        return;
    std::shared_ptr<Connection> closing = std::move(*it);
    connections_.erase(it);
    QMetaObject::invokeMethod(
        this, [closing] {}, Qt::QueuedConnection);
}

} // namespace plinkora
