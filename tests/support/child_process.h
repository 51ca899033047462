#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace plinkora::testing {

using namespace std::chrono_literals;

/// A process started by a test. Its standard output and standard error are read line by line
/// into two thread-safe lists as they arrive. The destructor stops it (SIGTERM, a bounded wait,
/// then SIGKILL) and reaps it, so a test never leaves a process behind, also when it fails.
/// Only the process started here is ever signalled, by its process id.
///
/// The child is also killed if the thread that started it ends (PR_SET_PDEATHSIG), so a test
/// process that crashes does not leave servers running: start children from the test's thread.
class ChildProcess
{
public:
    enum class Stream
    {
        Output,
        Error
    };

    struct Options
    {
        std::vector<std::string> arguments;                           // without the program
        std::vector<std::pair<std::string, std::string>> environment; // added or replaced
        std::vector<std::string> unsetEnvironment;                    // removed
    };

    /// Starts `program` (a path; no search of PATH unless it has no '/'). Throws
    /// std::runtime_error when it cannot be started.
    static std::unique_ptr<ChildProcess> start(const std::string& program, const Options& options = {});

    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& program() const { return program_; }

    /// A copy of the lines read so far (without their line feeds).
    std::vector<std::string> lines(Stream stream = Stream::Output) const;
    std::size_t lineCount(Stream stream = Stream::Output) const;

    /// Waits until a line at index `from` or later satisfies `match`; returns its index. Empty
    /// when `timeout` passes first or the stream ends without such a line.
    std::optional<std::size_t> waitForLine(const std::function<bool(const std::string&)>& match,
                                           std::chrono::milliseconds timeout, std::size_t from = 0,
                                           Stream stream = Stream::Output) const;
    /// The same for a line equal to `exact`.
    std::optional<std::size_t> waitForLine(const std::string& exact, std::chrono::milliseconds timeout,
                                           std::size_t from = 0, Stream stream = Stream::Output) const;
    /// The same for a line matching `pattern` as a whole.
    std::optional<std::size_t> waitForLineMatching(const std::regex& pattern, std::chrono::milliseconds timeout,
                                                   std::size_t from = 0, Stream stream = Stream::Output) const;
    /// Waits until at least `count` lines were read; false when `timeout` passes or the stream
    /// ends first.
    bool waitForLineCount(std::size_t count, std::chrono::milliseconds timeout, Stream stream = Stream::Output) const;

    /// True until the process has ended (it is reaped then).
    bool running();
    /// Waits up to `timeout` for the process to end by itself. Returns its status: the exit
    /// code, or 128 + the signal number that ended it.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    /// Sends `signal` if the process still runs.
    void sendSignal(int signal);
    /// Ends the process: SIGTERM, then SIGKILL if it has not ended after `grace`. Returns its
    /// status as waitForExit does. Calling it again returns the same status.
    int stop(std::chrono::milliseconds grace = 5s);

    /// The program, its id, and every line it printed so far, for failure messages.
    std::string describe() const;

private:
    ChildProcess() = default;
    void readLoop(int outputFd, int errorFd, int wakeFd);
    bool reap(bool block);
    void joinReader();

    std::string program_;
    pid_t pid_ = -1;
    std::optional<int> status_;
    std::mutex reapMutex_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> output_;
    std::vector<std::string> error_;
    bool outputEnded_ = false;
    bool errorEnded_ = false;

    int wakeReadFd_ = -1; // read by the reader thread; both ends are closed after it is joined
    int wakeWriteFd_ = -1;
    std::thread reader_;
};

/// Ids of the running processes whose program name (the last part of its first argument) is
/// `programName` and that have an argument equal to `argument` (any, when empty).
std::vector<pid_t> findProcesses(std::string_view programName, std::string_view argument = {});

/// Sets (or, with no value, removes) an environment variable of this process for the life of
/// the guard, then puts back what was there before. Main thread only.
class ScopedEnvironment
{
public:
    ScopedEnvironment(std::string name, std::optional<std::string> value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

} // namespace plinkora::testing
