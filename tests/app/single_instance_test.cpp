#include "app/single_instance.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QSignalSpy>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

using namespace plinkora;

namespace {

/// Asks from another thread, as a second process would, while this thread runs the event loop.
bool askFromAnotherLaunch(const SingleInstance& later)
{
    bool answered = false;
    bool done = false;
    std::thread asker([&] {
        answered = later.askRunningInstanceToShow(5000);
        done = true;
    });
    QDeadlineTimer deadline(10000);
    while (!done && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    asker.join();
    return answered;
}

/// A socket file nobody listens on, as a crashed instance leaves it.
void leaveStaleSocket(const QString& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
    ASSERT_TRUE(QFile::exists(path));
}

} // namespace

TEST(SingleInstance, TheFirstLaunchClaimsAndListens)
{
    QTemporaryDir dir;
    SingleInstance first(dir.path());
    ASSERT_TRUE(first.claim());
    EXPECT_FALSE(first.isListening());
    ASSERT_TRUE(first.listen());
    EXPECT_TRUE(first.isListening());
    EXPECT_EQ(first.socketPath(), dir.filePath("plinkora.socket"));
    // Only the user may connect to it.
    struct stat socketFile
    {
    };
    ASSERT_EQ(::stat(QFile::encodeName(first.socketPath()).constData(), &socketFile), 0);
    EXPECT_TRUE(S_ISSOCK(socketFile.st_mode));
    EXPECT_EQ(socketFile.st_mode & 0077, 0U);
    first.stopListening();
    EXPECT_FALSE(QFile::exists(first.socketPath()));
}

TEST(SingleInstance, ASecondLaunchFindsItRunningAndAsksItToShowItsWindow)
{
    QTemporaryDir dir;
    SingleInstance first(dir.path());
    ASSERT_TRUE(first.claim());
    ASSERT_TRUE(first.listen());
    QSignalSpy shown(&first, &SingleInstance::showRequested);

    SingleInstance second(dir.path());
    ASSERT_FALSE(second.claim());
    EXPECT_FALSE(second.isListening());
    EXPECT_TRUE(askFromAnotherLaunch(second));
    EXPECT_EQ(shown.count(), 1);

    // And again: every later launch is answered.
    EXPECT_TRUE(askFromAnotherLaunch(second));
    EXPECT_EQ(shown.count(), 2);
}

TEST(SingleInstance, WhenTheRunningOneEndsTheNextLaunchClaims)
{
    QTemporaryDir dir;
    {
        SingleInstance first(dir.path());
        ASSERT_TRUE(first.claim());
        ASSERT_TRUE(first.listen());
    }
    EXPECT_FALSE(QFile::exists(dir.filePath("plinkora.socket")));
    SingleInstance next(dir.path());
    EXPECT_TRUE(next.claim());
    EXPECT_TRUE(next.listen());
}

TEST(SingleInstance, TheLockAndSocketOfACrashedInstanceAreTakenOver)
{
    QTemporaryDir dir;
    // GIVEN a lock file naming a process that has ended, and its socket file
    const pid_t deadPid = ::fork();
    if (deadPid == 0)
        ::_exit(0);
    ASSERT_GT(deadPid, 0);
    ASSERT_EQ(::waitpid(deadPid, nullptr, 0), deadPid);
    QFile lock(dir.filePath("plinkora.lock"));
    ASSERT_TRUE(lock.open(QIODevice::WriteOnly));
    lock.write(QByteArray::number(deadPid) + "\nplinkora\n" + QSysInfo::machineHostName().toUtf8() + "\n");
    lock.close();
    leaveStaleSocket(dir.filePath("plinkora.socket"));

    // WHEN Plinkora starts THEN it is the running instance and answers later launches
    SingleInstance restarted(dir.path());
    ASSERT_TRUE(restarted.claim());
    EXPECT_TRUE(restarted.listen());
    SingleInstance later(dir.path());
    ASSERT_FALSE(later.claim());
    EXPECT_TRUE(askFromAnotherLaunch(later));
}

TEST(SingleInstance, ALaunchThatFindsTheLockHeldBeforeTheRunningOneListensWaitsForIt)
{
    QTemporaryDir dir;
    SingleInstance first(dir.path());
    ASSERT_TRUE(first.claim());
    QSignalSpy shown(&first, &SingleInstance::showRequested);
    SingleInstance later(dir.path());
    ASSERT_FALSE(later.claim());
    // The running one starts listening only a moment after the later launch begins to ask.
    QTimer::singleShot(300, &first, [&] { first.listen(); });
    EXPECT_TRUE(askFromAnotherLaunch(later));
    EXPECT_EQ(shown.count(), 1);
}

TEST(SingleInstance, AskingWhenNobodyAnswersGivesUp)
{
    QTemporaryDir dir;
    SingleInstance lonely(dir.path());
    EXPECT_FALSE(lonely.askRunningInstanceToShow(200));
}
