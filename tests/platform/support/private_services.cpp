#include "platform/support/private_services.h"

#include <QCoreApplication>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace plinkora::testing {

namespace {

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const fs::path& path, const std::string& text, fs::perms permissions = fs::perms::owner_read | fs::perms::owner_write)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    fs::permissions(path, permissions);
}

fs::path makePrivateFolder(const fs::path& path)
{
    fs::create_directories(path);
    fs::permissions(path, fs::perms::owner_all);
    return path;
}

bool unixSocketAccepts(const fs::path& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

std::string trim(std::string text)
{
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.pop_back();
    std::size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start])))
        ++start;
    return text.substr(start);
}

// `busctl call` prints the reply as "s \"text\"" or "u 1234".
std::string busctlString(const std::string& reply)
{
    const auto first = reply.find('"');
    const auto last = reply.rfind('"');
    if (first == std::string::npos || last <= first)
        return {};
    return reply.substr(first + 1, last - first - 1);
}

pid_t busctlPid(const std::string& reply)
{
    std::istringstream in(reply);
    std::string type;
    long pid = -1;
    in >> type >> pid;
    return type == "u" ? static_cast<pid_t>(pid) : -1;
}

pid_t connectionPid(const std::string& busAddress, const std::string& name)
{
    const CommandResult result = runCommand(
        {"busctl", "--address=" + busAddress, "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
         "org.freedesktop.DBus", "GetConnectionUnixProcessID", "s", name},
        {}, 10s);
    return result.exitCode == 0 ? busctlPid(result.output) : -1;
}

} // namespace

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds step)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(step);
    }
}

bool waitUntilProcessingEvents(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        QThread::msleep(2);
    }
}

// --- TempDir -------------------------------------------------------------------------------

TempDir::TempDir(const std::string& prefix)
{
    std::string pattern = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed: " + std::string(std::strerror(errno)));
    path_ = pattern;
}

TempDir::~TempDir()
{
    if (std::getenv("PLINKORA_KEEP_TEST_FOLDERS") != nullptr) {
        std::fprintf(stderr, "kept %s\n", path_.c_str());
        return;
    }
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

fs::path TempDir::subfolder(const std::string& name) const
{
    return makePrivateFolder(path_ / name);
}

// --- ChildProcess --------------------------------------------------------------------------

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& environment,
                           const fs::path& outputFile, const std::vector<int>& inheritedFds)
{
    if (argv.empty())
        throw std::invalid_argument("ChildProcess: no command");
    // Everything the child needs is prepared before fork(): after it, only async-signal-safe calls.
    std::vector<std::string> environmentStrings;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const std::string name = text.substr(0, text.find('='));
        const bool changed = std::any_of(environment.begin(), environment.end(),
                                         [&](const auto& change) { return change.first == name; });
        if (!changed)
            environmentStrings.push_back(text);
    }
    for (const auto& [name, value] : environment) {
        if (value)
            environmentStrings.push_back(name + "=" + *value);
    }
    std::vector<char*> envp;
    for (std::string& text : environmentStrings)
        envp.push_back(text.data());
    envp.push_back(nullptr);
    std::vector<std::string> arguments = argv;
    std::vector<char*> args;
    for (std::string& text : arguments)
        args.push_back(text.data());
    args.push_back(nullptr);

    const int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const int outFd = outputFile.empty()
        ? -1
        : ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const pid_t parent = ::getpid();

    pid_ = ::fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed: " + std::string(std::strerror(errno)));
    if (pid_ == 0) {
        // Dies with the test process, even when that is killed.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(126);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        ::dup2(nullFd, STDIN_FILENO);
        ::dup2(outFd >= 0 ? outFd : nullFd, STDOUT_FILENO);
        ::dup2(outFd >= 0 ? outFd : nullFd, STDERR_FILENO);
        for (const int fd : inheritedFds)
            ::fcntl(fd, F_SETFD, 0);
        ::execvpe(args[0], args.data(), envp.data());
        ::_exit(127);
    }
    ::close(nullFd);
    if (outFd >= 0)
        ::close(outFd);
}

ChildProcess::~ChildProcess()
{
    stop();
}

bool ChildProcess::reap(bool block)
{
    if (exitCode_)
        return true;
    int status = 0;
    const pid_t result = ::waitpid(pid_, &status, block ? 0 : WNOHANG);
    if (result == pid_) {
        exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
    }
    if (result < 0 && errno == ECHILD) {
        exitCode_ = -1;
        return true;
    }
    return false;
}

bool ChildProcess::isRunning()
{
    return !reap(false);
}

bool ChildProcess::waitForExit(std::chrono::milliseconds timeout)
{
    return waitUntil([this] { return reap(false); }, timeout, 5ms);
}

void ChildProcess::stop(int signal, std::chrono::milliseconds grace)
{
    if (pid_ <= 0 || reap(false))
        return;
    ::kill(pid_, signal);
    if (waitForExit(grace))
        return;
    ::kill(pid_, SIGKILL);
    reap(true);
}

CommandResult runCommand(const std::vector<std::string>& argv, const Environment& environment,
                         std::chrono::milliseconds timeout)
{
    char pattern[] = "/tmp/plinkora-command-XXXXXX";
    const int fd = ::mkstemp(pattern);
    if (fd >= 0)
        ::close(fd);
    CommandResult result;
    {
        ChildProcess process(argv, environment, pattern);
        if (process.waitForExit(timeout))
            result.exitCode = *process.exitCode();
        else
            process.stop(SIGKILL, 1s);
    }
    result.output = readFile(pattern);
    ::unlink(pattern);
    return result;
}

bool programExists(const std::string& program)
{
    if (program.find('/') != std::string::npos)
        return ::access(program.c_str(), X_OK) == 0;
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        if (!folder.empty() && ::access((fs::path(folder) / program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

void becomeSubreaper()
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

bool processAlive(pid_t pid)
{
    if (pid <= 0)
        return false;
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid)
        return false; // it was ours (as the reaper of orphans) and has ended
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    if (stat.empty())
        return false;
    const auto close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] != 'Z';
}

void stopProcessById(pid_t pid, int signal, std::chrono::milliseconds grace)
{
    if (!processAlive(pid))
        return;
    ::kill(pid, signal);
    if (waitUntil([pid] { return !processAlive(pid); }, grace, 5ms))
        return;
    ::kill(pid, SIGKILL);
    waitUntil([pid] { return !processAlive(pid); }, 5s, 5ms);
}

// --- PrivateSessionBus ---------------------------------------------------------------------

PrivateSessionBus::PrivateSessionBus(const fs::path& folder)
{
    makePrivateFolder(folder);
    const fs::path socket = folder / "session_bus_socket";
    const fs::path config = folder / "session.conf";
    writeFile(config,
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n"
              "  <type>session</type>\n"
              "  <listen>unix:path=" + socket.string() + "</listen>\n"
              "  <auth>EXTERNAL</auth>\n"
              "  <policy context=\"default\">\n"
              "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
              "    <allow eavesdrop=\"true\"/>\n"
              "    <allow own=\"*\"/>\n"
              "  </policy>\n"
              "</busconfig>\n");
    address_ = "unix:path=" + socket.string();
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--config-file=" + config.string(), "--nofork", "--nopidfile"},
        Environment{}, folder / "dbus-daemon.log");
    if (!waitUntil([&] { return unixSocketAccepts(socket); }, 10s))
        throw std::runtime_error("the private session bus did not start; see " + (folder / "dbus-daemon.log").string());
}

PrivateSessionBus::~PrivateSessionBus() = default;

// --- AccessibilityBus ----------------------------------------------------------------------

AccessibilityBus::AccessibilityBus(const PrivateSessionBus& sessionBus, const fs::path& runtimeFolder,
                                   const std::string& display)
    : sessionAddress_(sessionBus.address())
{
    becomeSubreaper();
    makePrivateFolder(runtimeFolder);
    launcher_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/libexec/at-spi-bus-launcher", "--launch-immediately"},
        Environment{{"DBUS_SESSION_BUS_ADDRESS", sessionAddress_},
                    {"XDG_RUNTIME_DIR", runtimeFolder.string()},
                    {"DISPLAY", display.empty() ? std::nullopt : std::optional(display)},
                    {"AT_SPI_BUS_ADDRESS", std::nullopt},
                    // No dconf service on the private bus: settings from memory.
                    {"GSETTINGS_BACKEND", "memory"}},
        runtimeFolder / "at-spi-bus-launcher.log");
    const bool up = waitUntil(
        [&] {
            const CommandResult reply = runCommand({"busctl", "--address=" + sessionAddress_, "call", "org.a11y.Bus",
                                                    "/org/a11y/bus", "org.a11y.Bus", "GetAddress"},
                                                   {}, 10s);
            if (reply.exitCode == 0)
                address_ = busctlString(reply.output);
            return !address_.empty();
        },
        20s, 50ms);
    if (!up)
        throw std::runtime_error("at-spi-bus-launcher did not offer the accessibility bus");
    busDaemonPid_ = connectionPid(address_, "org.freedesktop.DBus");
    // Start the registry now (the bus starts it on the first call), so that it is there to stop.
    runCommand({"busctl", "--address=" + address_, "call", "org.a11y.atspi.Registry", "/org/a11y/atspi/registry",
                "org.a11y.atspi.Registry", "GetRegisteredEvents"},
               {}, 20s);
    registryPid_ = connectionPid(address_, "org.a11y.atspi.Registry");
    if (registryPid_ <= 0)
        throw std::runtime_error("the AT-SPI registry did not start on the accessibility bus");
}

AccessibilityBus::~AccessibilityBus()
{
    // The registry outlives the launcher on its own: stop it first, by its process id.
    stopProcessById(registryPid_, SIGTERM, 5s);
    launcher_->stop(SIGTERM, 5s);
    stopProcessById(busDaemonPid_, SIGTERM, 5s);
}

void AccessibilityBus::setScreenReaderEnabled(bool enabled) const
{
    const CommandResult result =
        runCommand({"busctl", "--user", "set-property", "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Status",
                    "ScreenReaderEnabled", "b", enabled ? "true" : "false"},
                   {{"DBUS_SESSION_BUS_ADDRESS", sessionAddress_}}, 10s);
    if (result.exitCode != 0)
        throw std::runtime_error("busctl set-property failed: " + result.output);
}

// --- PrivateXServer ------------------------------------------------------------------------

PrivateXServer::PrivateXServer(const fs::path& logFile)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"Xvfb", "-displayfd", std::to_string(fds[1]), "-nolisten", "tcp", "-screen", "0",
                                 "1280x800x24"},
        Environment{}, logFile, std::vector<int>{fds[1]});
    ::close(fds[1]);
    std::string number;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (number.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        pollfd wait{fds[0], POLLIN, 0};
        if (::poll(&wait, 1, 100) > 0) {
            char buffer[32];
            const ssize_t got = ::read(fds[0], buffer, sizeof buffer);
            if (got <= 0)
                break;
            number.append(buffer, static_cast<std::size_t>(got));
        }
    }
    ::close(fds[0]);
    number = trim(number);
    if (number.empty())
        throw std::runtime_error("Xvfb did not start");
    display_ = ":" + number;
}

PrivateXServer::~PrivateXServer() = default;

// --- PrivateWindowManager ------------------------------------------------------------------

PrivateWindowManager::PrivateWindowManager(const std::string& display, const fs::path& folder)
{
    const fs::path home = makePrivateFolder(folder);
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"openbox", "--sm-disable"},
        Environment{{"DISPLAY", display},
                    {"HOME", home.string()},
                    {"XDG_CONFIG_HOME", (home / ".config").string()},
                    {"XDG_CACHE_HOME", (home / ".cache").string()},
                    {"DBUS_SESSION_BUS_ADDRESS", std::nullopt}},
        home / "openbox.log");
    // Ready once it announces itself on the root window (_NET_SUPPORTING_WM_CHECK).
    const bool ready = waitUntil(
        [&] {
            if (!process_->isRunning())
                return true;
            if (!programExists("xprop"))
                return !waitUntil([&] { return !process_->isRunning(); }, 300ms);
            const CommandResult reply =
                runCommand({"xprop", "-display", display, "-root", "_NET_SUPPORTING_WM_CHECK"}, {}, 5s);
            return reply.exitCode == 0 && reply.output.find("window id") != std::string::npos;
        },
        20s, 50ms);
    if (!ready || !process_->isRunning())
        throw std::runtime_error("openbox did not start; see " + (home / "openbox.log").string());
}

PrivateWindowManager::~PrivateWindowManager() = default;

// --- PrivateSpeechDispatcher ---------------------------------------------------------------

PrivateSpeechDispatcher::PrivateSpeechDispatcher(const fs::path& folder)
    : PrivateSpeechDispatcher(folder, Options{})
{
}

PrivateSpeechDispatcher::PrivateSpeechDispatcher(const fs::path& folder, Options options)
    : folder_(folder)
    , options_(options)
{
    becomeSubreaper();
    makePrivateFolder(folder_);
    makePrivateFolder(folder_ / "run");
    makePrivateFolder(folder_ / "log");
    makePrivateFolder(folder_ / "data");
    makePrivateFolder(folder_ / "home");
    const fs::path config = makePrivateFolder(folder_ / "config" / "speech-dispatcher");
    makePrivateFolder(config / "modules");
    const fs::path spoken = folder_ / "spoken.log";
    const fs::path recorder = folder_ / "record-speech.sh";
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", static_cast<double>(options_.speakingTime.count()) / 1000.0);
    // $1: the language, $2: the text. A cancel kills this script: no "done" line then.
    writeFile(recorder,
              "#!/bin/sh\n"
              "text=$(printf '%s' \"$2\" | tr '\\n\\t' '  ')\n"
              "printf 'say\\t%s\\t%s\\n' \"$1\" \"$text\" >> '" + spoken.string() + "'\n"
              "sleep " + seconds + "\n"
              "printf 'done\\t%s\\n' \"$text\" >> '" + spoken.string() + "'\n",
              fs::perms::owner_all);
    writeFile(config / "speechd.conf",
              "LogDir \"" + (folder_ / "log").string() + "\"\n"
              "DefaultVolume 100\n"
              "DefaultLanguage \"en\"\n"
              // Module start-up opens the audio output; with no sound card only libao's opens
              // (the recorder never plays anything).
              "AudioOutputMethod \"libao\"\n"
              "AddModule \"recorder\" \"sd_generic\" \"recorder.conf\"\n"
              "DefaultModule recorder\n");
    writeFile(config / "modules" / "recorder.conf",
              "GenericExecuteSynth \"" + recorder.string() + " \\'$LANGUAGE\\' \\'$DATA\\'\"\n"
              "GenericLanguage \"en\" \"en\" \"utf-8\"\n"
              "AddVoice \"en\" \"MALE1\" \"recorder\"\n"
              "DefaultVoice \"recorder\"\n");
}

PrivateSpeechDispatcher::~PrivateSpeechDispatcher()
{
    stop();
}

void PrivateSpeechDispatcher::start()
{
    if (isRunning())
        return;
    std::error_code ignored;
    fs::remove(socketPath(), ignored);
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"speech-dispatcher", "--run-single", "--timeout", "0", "--log-level", "5",
                                 "--log-dir", (folder_ / "log").string(), "--communication-method", "unix_socket",
                                 "--socket-path", socketPath().string()},
        Environment{{"XDG_RUNTIME_DIR", (folder_ / "run").string()},
                    {"XDG_CONFIG_HOME", (folder_ / "config").string()},
                    {"XDG_DATA_HOME", (folder_ / "data").string()},
                    {"HOME", (folder_ / "home").string()},
                    {"SPEECHD_ADDRESS", std::nullopt}},
        folder_ / "speech-dispatcher.out");
    if (!waitUntil([&] { return unixSocketAccepts(socketPath()) || !process_->isRunning(); }, 20s)
        || !process_->isRunning())
        throw std::runtime_error("speech-dispatcher did not start; see " + (folder_ / "speech-dispatcher.out").string());
}

void PrivateSpeechDispatcher::stop()
{
    if (process_)
        process_->stop(SIGTERM, 5s);
    process_.reset();
}

bool PrivateSpeechDispatcher::isRunning() const
{
    return process_ && process_->isRunning();
}

pid_t PrivateSpeechDispatcher::pid() const
{
    return process_ ? process_->pid() : -1;
}

std::string PrivateSpeechDispatcher::address() const
{
    return "unix_socket:" + socketPath().string();
}

fs::path PrivateSpeechDispatcher::socketPath() const
{
    return folder_ / "run" / "speechd.sock";
}

std::vector<PrivateSpeechDispatcher::Utterance> PrivateSpeechDispatcher::utterances() const
{
    std::vector<Utterance> result;
    std::istringstream lines(readFile(folder_ / "spoken.log"));
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("say\t", 0) == 0) {
            const auto tab = line.find('\t', 4);
            Utterance utterance;
            utterance.language = line.substr(4, tab == std::string::npos ? std::string::npos : tab - 4);
            utterance.text = tab == std::string::npos ? std::string() : line.substr(tab + 1);
            result.push_back(utterance);
        } else if (line.rfind("done\t", 0) == 0) {
            const std::string text = line.substr(5);
            for (auto it = result.rbegin(); it != result.rend(); ++it) {
                if (!it->finished && it->text == text) {
                    it->finished = true;
                    break;
                }
            }
        }
    }
    return result;
}

std::string PrivateSpeechDispatcher::log() const
{
    return readFile(folder_ / "log" / "speech-dispatcher.log");
}

std::vector<std::string> PrivateSpeechDispatcher::commandsOf(const std::string& clientName) const
{
    // Lines look like "[date : usec] speechd:     17:DATA:|SET SELF CLIENT_NAME "root:x:main"\r".
    static const std::regex data(R"(speechd:\s+(\d+):DATA:\|(.*)$)");
    static const std::regex name(R"(^SET SELF CLIENT_NAME \"(.*)\"$)", std::regex::icase);
    std::vector<std::string> commands;
    std::vector<std::pair<std::string, std::string>> clients; // socket -> client name, newest last
    std::istringstream lines(log());
    std::string line;
    while (std::getline(lines, line)) {
        line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
        std::smatch match;
        if (!std::regex_search(line, match, data))
            continue;
        const std::string socket = match[1];
        const std::string command = trim(match[2]);
        std::smatch named;
        if (std::regex_match(command, named, name))
            clients.emplace_back(socket, named[1]);
        std::string owner;
        for (auto it = clients.rbegin(); it != clients.rend(); ++it) {
            if (it->first == socket) {
                owner = it->second;
                break;
            }
        }
        if (!owner.empty() && owner.find(clientName) != std::string::npos)
            commands.push_back(command);
    }
    return commands;
}

// --- PrivatePulseAudio ---------------------------------------------------------------------

PrivatePulseAudio::PrivatePulseAudio(const fs::path& folder)
    : folder_(folder)
{
    becomeSubreaper();
    makePrivateFolder(folder_);
    makePrivateFolder(folder_ / "run");
    makePrivateFolder(folder_ / "home");
    serverAddress_ = "unix:" + (folder_ / "run" / "native").string();
    start();
}

void PrivatePulseAudio::start()
{
    if (isRunning())
        return;
    const fs::path runtime = folder_ / "run";
    const fs::path home = folder_ / "home";
    const fs::path socket = runtime / "native";
    std::error_code ignored;
    fs::remove(socket, ignored);
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                                 "--disallow-exit", "--log-target=stderr",
                                 "-L", "module-native-protocol-unix socket=" + socket.string() + " auth-anonymous=1",
                                 "-L", "module-null-sink sink_name=" + sinkName() + " rate=44100 channels=2"},
        Environment{{"HOME", home.string()},
                    {"XDG_RUNTIME_DIR", runtime.string()},
                    {"XDG_CONFIG_HOME", (home / ".config").string()},
                    {"XDG_STATE_HOME", (home / ".state").string()},
                    {"PULSE_SERVER", std::nullopt},
                    {"PULSE_RUNTIME_PATH", std::nullopt},
                    {"DISPLAY", std::nullopt},
                    // No session bus (and no X11 autolaunch of one): PulseAudio only warns.
                    {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (runtime / "no-bus").string()}},
        folder_ / "pulseaudio.log");
    const bool up = waitUntil(
        [&] {
            return process_->isRunning()
                && runCommand({"pactl", "--server=" + serverAddress_, "info"}, {}, 10s).exitCode == 0;
        },
        20s, 50ms);
    if (!up)
        throw std::runtime_error("PulseAudio did not start; see " + (folder_ / "pulseaudio.log").string());
}

void PrivatePulseAudio::stop()
{
    if (process_)
        process_->stop(SIGTERM, 5s);
    process_.reset();
}

bool PrivatePulseAudio::isRunning() const
{
    return process_ && process_->isRunning();
}

pid_t PrivatePulseAudio::pid() const
{
    return process_ ? process_->pid() : -1;
}

PrivatePulseAudio::~PrivatePulseAudio()
{
    stop();
}

SinkRecorder::SinkRecorder(const PrivatePulseAudio& server, const fs::path& rawFile)
    : file_(rawFile)
{
    std::error_code ignored;
    fs::remove(file_, ignored);
    // parec writes the samples to standard output, which ChildProcess sends to the file;
    // --latency-msec keeps parec from holding seconds of sound back.
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"parec", "--server=" + server.serverAddress(), "--device=" + server.monitorName(),
                                 "--raw", "--format=s16le", "--rate=44100", "--channels=1", "--latency-msec=20"},
        Environment{}, file_);
    // The null sink's monitor delivers silence all the time: bytes arriving mean it records.
    if (!waitUntil([&] { return bytesSoFar() > 0 || !process_->isRunning(); }, 10s) || !process_->isRunning())
        throw std::runtime_error("parec did not start recording");
}

SinkRecorder::~SinkRecorder() = default;

std::size_t SinkRecorder::bytesSoFar() const
{
    std::error_code error;
    const auto size = fs::file_size(file_, error);
    return error ? 0 : static_cast<std::size_t>(size);
}

std::vector<std::int16_t> SinkRecorder::stop()
{
    process_->stop(SIGINT, 5s);
    const std::string bytes = readFile(file_);
    std::vector<std::int16_t> samples(bytes.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto low = static_cast<unsigned char>(bytes[2 * i]);
        const auto high = static_cast<unsigned char>(bytes[2 * i + 1]);
        samples[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(low | high << 8));
    }
    return samples;
}

std::vector<Segment> soundSegments(const std::vector<std::int16_t>& samples, int sampleRate, double threshold,
                                   std::chrono::milliseconds gap)
{
    const std::size_t window = static_cast<std::size_t>(sampleRate / 100);
    const std::size_t gapSamples = static_cast<std::size_t>(sampleRate * gap.count() / 1000);
    std::vector<Segment> segments;
    for (std::size_t start = 0; start + window <= samples.size(); start += window) {
        double sum = 0.0;
        for (std::size_t i = start; i < start + window; ++i) {
            const double value = samples[i] / 32768.0;
            sum += value * value;
        }
        if (std::sqrt(sum / static_cast<double>(window)) < threshold)
            continue;
        if (!segments.empty() && start <= segments.back().end + gapSamples)
            segments.back().end = start + window;
        else
            segments.push_back({start, start + window});
    }
    return segments;
}

std::optional<double> soxRoughFrequency(const std::vector<std::int16_t>& samples, int sampleRate,
                                        const fs::path& scratchFolder)
{
    static int counter = 0;
    const fs::path raw = scratchFolder / ("sound-" + std::to_string(++counter) + ".raw");
    {
        std::ofstream file(raw, std::ios::binary | std::ios::trunc);
        for (const std::int16_t sample : samples) {
            const auto value = static_cast<std::uint16_t>(sample);
            file.put(static_cast<char>(value & 0xFF));
            file.put(static_cast<char>(value >> 8));
        }
    }
    const CommandResult result = runCommand({"sox", "-t", "raw", "-r", std::to_string(sampleRate), "-e", "signed",
                                             "-b", "16", "-c", "1", raw.string(), "-n", "stat"},
                                            {}, 30s);
    static const std::regex rough(R"(Rough\s+frequency:\s+(-?\d+))");
    std::smatch match;
    if (result.exitCode != 0 || !std::regex_search(result.output, match, rough))
        return std::nullopt;
    return std::stod(match[1]);
}

// --- PrivateOrca ---------------------------------------------------------------------------

bool PrivateOrca::canIsolate()
{
    static const bool can = programExists("unshare")
        && runCommand({"unshare", "--pid", "--fork", "--mount-proc", "--kill-child=SIGKILL", "true"}, {}, 10s).exitCode
            == 0;
    return can;
}

PrivateOrca::PrivateOrca(const Options& options)
{
    const fs::path folder = makePrivateFolder(options.folder);
    const fs::path home = makePrivateFolder(folder / "home");
    const fs::path runtime = makePrivateFolder(folder / "run");
    debugLog_ = folder / "orca-debug.log";
    isolated_ = canIsolate();
    if (!isolated_ && runCommand({"pgrep", "-x", "orca"}, {}, 10s).exitCode == 0)
        throw Unavailable("another Orca runs for this user and Orca cannot be isolated here");
    std::vector<std::string> argv;
    if (isolated_)
        argv = {"unshare", "--pid", "--fork", "--mount-proc", "--kill-child=SIGKILL"};
    argv.insert(argv.end(), {"orca", "--debug-file=" + debugLog_.string()});
    process_ = std::make_unique<ChildProcess>(
        argv,
        Environment{{"DISPLAY", options.display},
                    {"DBUS_SESSION_BUS_ADDRESS", options.sessionBusAddress},
                    {"AT_SPI_BUS_ADDRESS", std::nullopt},
                    {"HOME", home.string()},
                    {"XDG_CONFIG_HOME", (home / ".config").string()},
                    {"XDG_DATA_HOME", (home / ".local/share").string()},
                    {"XDG_CACHE_HOME", (home / ".cache").string()},
                    {"XDG_RUNTIME_DIR", runtime.string()},
                    {"GSETTINGS_BACKEND", "memory"},
                    {"SPEECHD_ADDRESS", options.speechAddress.empty()
                                            ? std::optional<std::string>("unix_socket:" + (runtime / "no-speech").string())
                                            : std::optional(options.speechAddress)},
                    // Never start a speech service of its own.
                    {"SPEECHD_CMD", "/nonexistent/speech-dispatcher"}},
        folder / "orca.out");
}

PrivateOrca::~PrivateOrca()
{
    stop();
}

bool PrivateOrca::waitUntilListening(std::chrono::milliseconds timeout) const
{
    return waitUntil(
        [&] {
            return readFile(debugLog_).find("registering listener for: window:destroy") != std::string::npos;
        },
        timeout, 50ms);
}

std::vector<std::string> PrivateOrca::spoken() const
{
    // "12:00:00.000000 - SPEECH OUTPUT: 'the text'{'established': False}"
    static const std::regex output(R"(SPEECH OUTPUT: '(.*?)'(\{.*\})?\s*$)");
    std::vector<std::string> result;
    std::istringstream lines(readFile(debugLog_));
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch match;
        if (std::regex_search(line, match, output))
            result.push_back(match[1]);
    }
    return result;
}

void PrivateOrca::stop()
{
    if (!process_)
        return;
    if (isolated_) {
        // unshare ignores SIGTERM; killing it kills Orca (--kill-child), and Orca's end, as the
        // namespace's first process, ends everything it started.
        std::vector<pid_t> children;
        std::istringstream list(readFile("/proc/" + std::to_string(process_->pid()) + "/task/"
                                         + std::to_string(process_->pid()) + "/children"));
        for (pid_t child = 0; list >> child;)
            children.push_back(child);
        process_->stop(SIGKILL, 3s);
        for (const pid_t child : children)
            stopProcessById(child, SIGKILL, 5s);
    } else {
        // Orca does not stop quickly on SIGTERM.
        process_->stop(SIGTERM, 3s);
    }
    process_.reset();
}

} // namespace plinkora::testing
