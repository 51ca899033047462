#include "app/single_instance.h"

#include "common/diagnostics.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>

#ifdef Q_OS_UNIX
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace plinkora {

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
#ifdef Q_OS_UNIX
    QString folder = QDir::temp().filePath(QStringLiteral("plinkora-%1").arg(::getuid()));
    ::mkdir(QFile::encodeName(folder).constData(), 0700);
    return folder;
#else
    return QDir::tempPath();
#endif
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
    if (server_)
        return server_->isListening();
    // A socket file left by a crashed instance would make listening fail.
    QLocalServer::removeServer(socketPath_);
    server_ = std::make_unique<QLocalServer>();
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(socketPath_)) {
        printLine("Could not listen for later launches on " + socketPath_.toStdString() + ": "
                  + server_->errorString().toStdString());
        server_.reset();
        return false;
    }
    connect(server_.get(), &QLocalServer::newConnection, this, &SingleInstance::acceptConnections);
    return true;
}

void SingleInstance::stopListening()
{
    if (server_)
        server_->close(); // removes the socket file
    server_.reset();
}

bool SingleInstance::isListening() const
{
    return server_ && server_->isListening();
}

bool SingleInstance::askRunningInstanceToShow(int timeoutMs) const
{
    const QDeadlineTimer deadline(timeoutMs);
    // The running instance takes the lock some tens of milliseconds before it listens (its port
    // and the toolkit come first): a launch in that moment tries again.
    while (!deadline.hasExpired()) {
        QLocalSocket socket;
        socket.connectToServer(socketPath_);
        if (!socket.waitForConnected(static_cast<int>(deadline.remainingTime()))) {
            QThread::msleep(20);
            continue;
        }
        socket.write(kShowRequest);
        if (!socket.waitForBytesWritten(static_cast<int>(deadline.remainingTime())))
            continue;
        QByteArray answer;
        while (!answer.contains('\n') && socket.waitForReadyRead(static_cast<int>(deadline.remainingTime())))
            answer += socket.readAll();
        answer += socket.readAll();
        return answer == kShownAnswer;
    }
    return false;
}

void SingleInstance::acceptConnections()
{
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readRequest(socket); });
        if (socket->bytesAvailable() > 0)
            readRequest(socket);
    }
}

void SingleInstance::readRequest(QLocalSocket* socket)
{
    if (!socket->canReadLine())
        return;
    const QByteArray request = socket->readLine();
    if (request == kShowRequest) {
        emit showRequested();
        socket->write(kShownAnswer);
        socket->flush();
    }
    socket->disconnectFromServer();
}

} // namespace plinkora
