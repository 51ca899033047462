#include "common/diagnostics.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using namespace plinkora;

namespace {

std::string contentsOf(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

/// In a death test's child: standard output goes to `path` from now on.
void stdoutTo(const std::string& path)
{
    std::fflush(stdout);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, STDOUT_FILENO);
    ::close(fd);
}

} // namespace

TEST(LineAfterwardsTest, TheLineIsWrittenWhenItsScopeEndsAfterTheWorkInIt)
{
    ::testing::internal::CaptureStdout();
    std::string seenDuringTheWork;
    off_t writtenDuringTheWork = -1;
    {
        const LineAfterwards line("Key event received: type=%u keyCode=%u", 10u, 0u);
        std::fflush(stdout);
        writtenDuringTheWork = ::lseek(STDOUT_FILENO, 0, SEEK_CUR); // the capture is a file
        seenDuringTheWork = "work";
    }
    EXPECT_EQ(writtenDuringTheWork, 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Key event received: type=10 keyCode=0\n");
    EXPECT_EQ(seenDuringTheWork, "work");
}

TEST(LineAfterwardsTest, AnotherLineInTheScopeComesAfterTheHeldOne)
{
    ::testing::internal::CaptureStdout();
    {
        const LineAfterwards line("first %d", 1);
        printLine("second");
        printLine("third ", 3);
    }
    printLine("fourth");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "first 1\nsecond\nthird 3\nfourth\n");
}

TEST(LineAfterwardsTest, ALineFromAnotherThreadAlsoComesAfterTheHeldOne)
{
    ::testing::internal::CaptureStdout();
    {
        const LineAfterwards line("held");
        std::thread([] { printLine("from another thread"); }).join();
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "held\nfrom another thread\n");
}

TEST(LineAfterwardsTest, ASecondHeldLineSendsTheFirstOutAndEachIsWrittenOnce)
{
    ::testing::internal::CaptureStdout();
    {
        const LineAfterwards outer("outer");
        {
            const LineAfterwards inner("inner");
        }
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "outer\ninner\n");
}

TEST(LineAfterwardsTest, ALongLineIsCutAt255Bytes)
{
    ::testing::internal::CaptureStdout();
    {
        const LineAfterwards line("%s", std::string(400, 'x').c_str());
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), std::string(254, 'x') + "\n");
}

TEST(LineAfterwardsDeathTest, ALineStillHeldAtExitIsWritten)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("out").toStdString();
    EXPECT_EXIT(
        {
            stdoutTo(path);
            printLine("before");
            const LineAfterwards line("held at exit");
            std::exit(3);
        },
        ::testing::ExitedWithCode(3), "");
    EXPECT_EQ(contentsOf(path), "before\nheld at exit\n");
}

TEST(LineAfterwardsDeathTest, ALineStillHeldAtAFatalErrorIsWrittenFirst)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("out").toStdString();
    EXPECT_DEATH(
        {
            stdoutTo(path);
            const LineAfterwards line("held at the error");
            fatal("broken");
        },
        "Fatal error: broken");
    EXPECT_EQ(contentsOf(path), "held at the error\n");
}
