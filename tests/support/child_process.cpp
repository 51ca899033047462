#include "support/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace plinkora::testing {

namespace {

constexpr auto kReaderEndLimit = 2s; // after the process ended, how long its pipes may stay open

void closeFd(int& fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

std::string errnoText(const std::string& what, int error)
{
    return what + ": " + std::strerror(error);
}

int statusFromWait(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return 128 + WTERMSIG(waitStatus);
    return -1;
}

// The environment of the child: this process's, with the options applied.
std::vector<std::string> childEnvironment(const ChildProcess::Options& options)
{
    std::map<std::string, std::string> variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos)
            variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const std::string& name : options.unsetEnvironment)
        variables.erase(name);
    for (const auto& [name, value] : options.environment)
        variables[name] = value;
    std::vector<std::string> result;
    for (const auto& [name, value] : variables)
        result.push_back(name + "=" + value);
    return result;
}

} // namespace

std::unique_ptr<ChildProcess> ChildProcess::start(const std::string& program, const Options& options)
{
    // Everything the child needs is made before fork: after it, only async-signal-safe calls.
    std::vector<std::string> arguments{program};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<std::string> environment = childEnvironment(options);
    std::vector<char*> envp;
    for (std::string& variable : environment)
        envp.push_back(variable.data());
    envp.push_back(nullptr);
    const bool searchPath = program.find('/') == std::string::npos;

    int outputPipe[2] = {-1, -1};
    int errorPipe[2] = {-1, -1};
    int execPipe[2] = {-1, -1}; // carries errno when exec fails; closed by a successful exec
    int wakePipe[2] = {-1, -1};
    auto closeAll = [&] {
        for (int* pair : {outputPipe, errorPipe, execPipe, wakePipe}) {
            closeFd(pair[0]);
            closeFd(pair[1]);
        }
    };
    if (pipe2(outputPipe, O_CLOEXEC) != 0 || pipe2(errorPipe, O_CLOEXEC) != 0 || pipe2(execPipe, O_CLOEXEC) != 0
        || pipe2(wakePipe, O_CLOEXEC) != 0) {
        const int error = errno;
        closeAll();
        throw std::runtime_error(errnoText("pipe", error));
    }
    int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t parent = getpid();

    const pid_t pid = fork();
    if (pid < 0) {
        const int error = errno;
        closeAll();
        closeFd(devNull);
        throw std::runtime_error(errnoText("fork", error));
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127); // the parent ended already
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction defaults
        {
        };
        defaults.sa_handler = SIG_DFL;
        for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD})
            sigaction(signal, &defaults, nullptr);
        if (devNull >= 0)
            dup2(devNull, STDIN_FILENO);
        dup2(outputPipe[1], STDOUT_FILENO);
        dup2(errorPipe[1], STDERR_FILENO);
        if (searchPath)
            execvpe(argv[0], argv.data(), envp.data());
        else
            execve(argv[0], argv.data(), envp.data());
        const int error = errno;
        [[maybe_unused]] const ssize_t written = write(execPipe[1], &error, sizeof error);
        _exit(127);
    }

    closeFd(devNull);
    closeFd(outputPipe[1]);
    closeFd(errorPipe[1]);
    closeFd(execPipe[1]);
    int execError = 0;
    ssize_t got;
    do {
        got = read(execPipe[0], &execError, sizeof execError);
    } while (got < 0 && errno == EINTR);
    closeFd(execPipe[0]);

    std::unique_ptr<ChildProcess> child(new ChildProcess);
    child->program_ = program;
    child->pid_ = pid;
    if (got == static_cast<ssize_t>(sizeof execError)) {
        child->reap(true);
        child->pid_ = -1;
        closeAll();
        throw std::runtime_error(errnoText("cannot start " + program, execError));
    }
    child->wakeReadFd_ = wakePipe[0];
    child->wakeWriteFd_ = wakePipe[1];
    const int outputFd = outputPipe[0];
    const int errorFd = errorPipe[0];
    const int wakeFd = wakePipe[0];
    child->reader_ =
        std::thread([raw = child.get(), outputFd, errorFd, wakeFd] { raw->readLoop(outputFd, errorFd, wakeFd); });
    return child;
}

ChildProcess::~ChildProcess()
{
    if (pid_ > 0)
        stop();
    joinReader();
    closeFd(wakeReadFd_);
    closeFd(wakeWriteFd_);
}

void ChildProcess::readLoop(int outputFd, int errorFd, int wakeFd)
{
    std::array<std::string, 2> partial;
    std::array<int, 2> fds{outputFd, errorFd};
    std::array<char, 4096> buffer{};
    auto deliver = [this](std::size_t which, std::string line) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const std::lock_guard lock(mutex_);
        (which == 0 ? output_ : error_).push_back(std::move(line));
        changed_.notify_all();
    };
    while (fds[0] >= 0 || fds[1] >= 0) {
        std::array<pollfd, 3> polls{{{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}, {wakeFd, POLLIN, 0}}};
        if (poll(polls.data(), polls.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (polls[2].revents != 0)
            break; // told to stop reading
        for (std::size_t which = 0; which < 2; ++which) {
            if (fds[which] < 0 || polls[which].revents == 0)
                continue;
            const ssize_t count = read(fds[which], buffer.data(), buffer.size());
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0) {
                if (!partial[which].empty())
                    deliver(which, std::exchange(partial[which], {}));
                closeFd(fds[which]);
                const std::lock_guard lock(mutex_);
                (which == 0 ? outputEnded_ : errorEnded_) = true;
                changed_.notify_all();
                continue;
            }
            partial[which].append(buffer.data(), static_cast<std::size_t>(count));
            std::size_t start = 0;
            for (std::size_t feed; (feed = partial[which].find('\n', start)) != std::string::npos; start = feed + 1)
                deliver(which, partial[which].substr(start, feed - start));
            partial[which].erase(0, start);
        }
    }
    for (std::size_t which = 0; which < 2; ++which) {
        if (!partial[which].empty())
            deliver(which, std::move(partial[which]));
        closeFd(fds[which]);
    }
    const std::lock_guard lock(mutex_);
    outputEnded_ = errorEnded_ = true;
    changed_.notify_all();
}

void ChildProcess::joinReader()
{
    if (!reader_.joinable())
        return;
    {
        // The pipes end when the process has ended, unless something it started holds them.
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kReaderEndLimit, [this] { return outputEnded_ && errorEnded_; });
    }
    if (wakeWriteFd_ >= 0) {
        const char byte = 0;
        [[maybe_unused]] const ssize_t written = write(wakeWriteFd_, &byte, 1);
    }
    reader_.join();
}

std::vector<std::string> ChildProcess::lines(Stream stream) const
{
    const std::lock_guard lock(mutex_);
    return stream == Stream::Output ? output_ : error_;
}

std::size_t ChildProcess::lineCount(Stream stream) const
{
    const std::lock_guard lock(mutex_);
    return (stream == Stream::Output ? output_ : error_).size();
}

std::optional<std::size_t> ChildProcess::waitForLine(const std::function<bool(const std::string&)>& match,
                                                     std::chrono::milliseconds timeout, std::size_t from,
                                                     Stream stream) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    const std::vector<std::string>& list = stream == Stream::Output ? output_ : error_;
    const bool& ended = stream == Stream::Output ? outputEnded_ : errorEnded_;
    std::size_t next = from;
    for (;;) {
        for (; next < list.size(); ++next)
            if (match(list[next]))
                return next;
        if (ended)
            return std::nullopt;
        if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
            for (; next < list.size(); ++next)
                if (match(list[next]))
                    return next;
            return std::nullopt;
        }
    }
}

std::optional<std::size_t> ChildProcess::waitForLine(const std::string& exact, std::chrono::milliseconds timeout,
                                                     std::size_t from, Stream stream) const
{
    return waitForLine([&exact](const std::string& line) { return line == exact; }, timeout, from, stream);
}

std::optional<std::size_t> ChildProcess::waitForLineMatching(const std::regex& pattern,
                                                             std::chrono::milliseconds timeout, std::size_t from,
                                                             Stream stream) const
{
    return waitForLine([&pattern](const std::string& line) { return std::regex_match(line, pattern); }, timeout, from,
                       stream);
}

bool ChildProcess::waitForLineCount(std::size_t count, std::chrono::milliseconds timeout, Stream stream) const
{
    std::unique_lock lock(mutex_);
    const std::vector<std::string>& list = stream == Stream::Output ? output_ : error_;
    const bool& ended = stream == Stream::Output ? outputEnded_ : errorEnded_;
    changed_.wait_for(lock, timeout, [&] { return list.size() >= count || ended; });
    return list.size() >= count;
}

bool ChildProcess::reap(bool block)
{
    const std::lock_guard lock(reapMutex_);
    if (status_)
        return true;
    if (pid_ <= 0)
        return true;
    int waitStatus = 0;
    pid_t result;
    do {
        result = waitpid(pid_, &waitStatus, block ? 0 : WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result == pid_) {
        status_ = statusFromWait(waitStatus);
        return true;
    }
    if (result < 0) { // not our child any more: nothing to wait for
        status_ = -1;
        return true;
    }
    return false;
}

bool ChildProcess::running()
{
    return !reap(false);
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!reap(false)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(5ms);
    }
    return status_;
}

void ChildProcess::sendSignal(int signal)
{
    const std::lock_guard lock(reapMutex_);
    if (pid_ > 0 && !status_)
        ::kill(pid_, signal); // not reaped yet, so the id is still this child's
}

int ChildProcess::stop(std::chrono::milliseconds grace)
{
    if (pid_ <= 0)
        return status_.value_or(-1);
    sendSignal(SIGTERM);
    if (!waitForExit(grace)) {
        sendSignal(SIGKILL);
        reap(true);
    }
    joinReader();
    return status_.value_or(-1);
}

std::string ChildProcess::describe() const
{
    std::ostringstream text;
    text << program_ << " (pid " << pid_ << ")";
    const std::lock_guard lock(mutex_);
    text << "\n  standard output:";
    for (const std::string& line : output_)
        text << "\n    " << line;
    text << "\n  standard error:";
    for (const std::string& line : error_)
        text << "\n    " << line;
    return text.str();
}

std::vector<pid_t> findProcesses(std::string_view programName, std::string_view argument)
{
    std::vector<pid_t> found;
    DIR* proc = opendir("/proc");
    if (proc == nullptr)
        return found;
    while (const dirent* entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0')
            continue;
        std::ifstream file(std::string("/proc/") + entry->d_name + "/cmdline", std::ios::binary);
        const std::string commandLine((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::vector<std::string_view> parts;
        for (std::size_t start = 0; start < commandLine.size();) {
            const std::size_t stop = commandLine.find('\0', start);
            const std::size_t length = (stop == std::string::npos ? commandLine.size() : stop) - start;
            parts.emplace_back(commandLine.data() + start, length);
            start += length + 1;
        }
        if (parts.empty())
            continue;
        std::string_view name = parts[0];
        if (const auto slash = name.rfind('/'); slash != std::string_view::npos)
            name.remove_prefix(slash + 1);
        if (name != programName)
            continue;
        bool hasArgument = argument.empty();
        for (std::size_t i = 1; i < parts.size() && !hasArgument; ++i)
            hasArgument = parts[i] == argument;
        if (hasArgument)
            found.push_back(static_cast<pid_t>(pid));
    }
    closedir(proc);
    return found;
}

ScopedEnvironment::ScopedEnvironment(std::string name, std::optional<std::string> value)
    : name_(std::move(name))
{
    if (const char* previous = std::getenv(name_.c_str()))
        previous_ = previous;
    if (value)
        setenv(name_.c_str(), value->c_str(), 1);
    else
        unsetenv(name_.c_str());
}

ScopedEnvironment::~ScopedEnvironment()
{
    if (previous_)
        setenv(name_.c_str(), previous_->c_str(), 1);
    else
        unsetenv(name_.c_str());
}

} // namespace plinkora::testing
