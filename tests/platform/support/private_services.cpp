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
#include <limits>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <unistd.h>

namespace plinkora::testing {

namespace {

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

fs::path makePrivateFolder(const fs::path& path)
{
    fs::create_directories(path);
    fs::permissions(path, fs::perms::owner_all);
    return path;
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

std::string seconds(std::chrono::milliseconds time)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(time.count()) / 1000.0);
    return text;
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

// --- Commands ------------------------------------------------------------------------------

ChildProcess::Options childOptions(const std::vector<std::string>& arguments, const Environment& environment)
{
    ChildProcess::Options options;
    options.arguments = arguments;
    for (const auto& [name, value] : environment) {
        if (value)
            options.environment.emplace_back(name, *value);
        else
            options.unsetEnvironment.push_back(name);
    }
    return options;
}

CommandResult runCommand(const std::vector<std::string>& argv, const Environment& environment,
                         std::chrono::milliseconds timeout)
{
    if (argv.empty())
        throw std::invalid_argument("runCommand: no command");
    CommandResult result;
    std::unique_ptr<ChildProcess> process;
    try {
        process = ChildProcess::start(
            argv.front(), childOptions(std::vector<std::string>(argv.begin() + 1, argv.end()), environment));
    } catch (const std::runtime_error& error) {
        result.exitCode = 127;
        result.output = error.what();
        return result;
    }
    if (const auto status = process->waitForExit(timeout))
        result.exitCode = *status;
    else
        process->stop(1s);
    // What it wrote is all read once its pipes end.
    constexpr auto kAll = std::numeric_limits<std::size_t>::max();
    process->waitForLineCount(kAll, 2s, ChildProcess::Stream::Output);
    process->waitForLineCount(kAll, 2s, ChildProcess::Stream::Error);
    for (const auto stream : {ChildProcess::Stream::Output, ChildProcess::Stream::Error})
        for (const std::string& line : process->lines(stream))
            result.output += line + "\n";
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

// --- PrivateService ------------------------------------------------------------------------

std::vector<std::string> PrivateService::launcherCommand()
{
    return {"/usr/bin/python3", PLINKORA_SERVICES_LAUNCHER};
}

PrivateService::PrivateService(const std::string& service, const std::vector<std::string>& arguments,
                               std::chrono::milliseconds timeout)
{
    const std::vector<std::string> command = launcherCommand();
    ChildProcess::Options options;
    options.arguments.assign(command.begin() + 1, command.end());
    options.arguments.push_back(service);
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    launcher_ = ChildProcess::start(command.front(), options);
    const auto ready = launcher_->waitForLine(
        [](const std::string& line) { return line == "ready" || line.rfind("failed", 0) == 0; }, timeout);
    if (!ready || launcher_->lines()[*ready] != "ready") {
        const std::string what = "the private " + service + " did not start: " + launcher_->describe();
        const int status = launcher_->stop(5s);
        throw Failed(what, status);
    }
    const std::vector<std::string> lines = launcher_->lines();
    for (std::size_t i = 0; i < *ready; ++i) {
        const auto space = lines[i].find(' ');
        facts_.emplace_back(lines[i].substr(0, space),
                            space == std::string::npos ? std::string() : lines[i].substr(space + 1));
    }
    address_ = fact("address");
    const std::string pid = fact("pid");
    pid_ = pid.empty() ? -1 : static_cast<pid_t>(std::stol(pid));
}

PrivateService::~PrivateService()
{
    // The launcher stops its service first (Orca's namespace and speech-dispatcher's module may
    // take a few seconds), then ends.
    launcher_->stop(20s);
}

std::string PrivateService::fact(const std::string& key) const
{
    for (const auto& [name, value] : facts_)
        if (name == key)
            return value;
    return {};
}

// --- The services ----------------------------------------------------------------------------

PrivateSessionBus::PrivateSessionBus(const fs::path& folder)
    : service_("session-bus", {"--folder", folder.string()})
{
}

AccessibilityBus::AccessibilityBus(const PrivateSessionBus& sessionBus, const fs::path& runtimeFolder,
                                   const std::string& display)
    : sessionAddress_(sessionBus.address())
    , service_("accessibility-bus",
               {"--folder", runtimeFolder.string(), "--session-bus", sessionBus.address(), "--display", display})
{
}

pid_t AccessibilityBus::registryPid() const
{
    const std::string pid = service_.fact("registry");
    return pid.empty() ? -1 : static_cast<pid_t>(std::stol(pid));
}

void AccessibilityBus::setScreenReaderEnabled(bool enabled) const
{
    const CommandResult result = runCommand({"busctl", "--user", "set-property", "org.a11y.Bus", "/org/a11y/bus",
                                             "org.a11y.Status", "ScreenReaderEnabled", "b", enabled ? "true" : "false"},
                                            {{"DBUS_SESSION_BUS_ADDRESS", sessionAddress_}}, 10s);
    if (result.exitCode != 0)
        throw std::runtime_error("busctl set-property failed: " + result.output);
}

PrivateXServer::PrivateXServer()
    : service_("x-server", {})
{
}

PrivateWindowManager::PrivateWindowManager(const std::string& display, const fs::path& folder)
    : service_("window-manager", {"--display", display, "--folder", folder.string()})
{
}

PrivateSpeechDispatcher::PrivateSpeechDispatcher(const fs::path& folder)
    : PrivateSpeechDispatcher(folder, Options{})
{
}

PrivateSpeechDispatcher::PrivateSpeechDispatcher(const fs::path& folder, Options options)
    : folder_(folder)
    , options_(options)
{
}

PrivateSpeechDispatcher::~PrivateSpeechDispatcher() = default;

void PrivateSpeechDispatcher::start()
{
    if (isRunning())
        return;
    service_ = std::make_unique<PrivateService>(
        "speech",
        std::vector<std::string>{"--folder", folder_.string(), "--speaking-time", seconds(options_.speakingTime)});
}

void PrivateSpeechDispatcher::stop()
{
    service_.reset();
}

bool PrivateSpeechDispatcher::isRunning() const
{
    return service_ && service_->isRunning();
}

pid_t PrivateSpeechDispatcher::pid() const
{
    return service_ ? service_->pid() : -1;
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

PrivatePulseAudio::PrivatePulseAudio(const fs::path& folder)
    : folder_(folder)
    , serverAddress_("unix:" + (folder / "run" / "native").string())
{
    start();
}

PrivatePulseAudio::~PrivatePulseAudio() = default;

void PrivatePulseAudio::start()
{
    if (isRunning())
        return;
    service_ = std::make_unique<PrivateService>("pulse", std::vector<std::string>{"--folder", folder_.string()});
    if (service_->address() != serverAddress_)
        throw std::runtime_error("PulseAudio listens on " + service_->address() + ", not " + serverAddress_);
}

void PrivatePulseAudio::stop()
{
    service_.reset();
}

bool PrivatePulseAudio::isRunning() const
{
    return service_ && service_->isRunning();
}

pid_t PrivatePulseAudio::pid() const
{
    return service_ ? service_->pid() : -1;
}

SinkRecorder::SinkRecorder(const PrivatePulseAudio& server, const fs::path& rawFile)
    : file_(rawFile)
{
    std::error_code ignored;
    fs::remove(file_, ignored);
    service_ = std::make_unique<PrivateService>(
        "sink-recorder", std::vector<std::string>{"--server", server.serverAddress(), "--file", file_.string()});
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
    service_.reset();
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
    const CommandResult result = runCommand({"sox", "-t", "raw", "-r", std::to_string(sampleRate), "-e", "signed", "-b",
                                             "16", "-c", "1", raw.string(), "-n", "stat"},
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
    static const bool can = [] {
        std::vector<std::string> command = PrivateService::launcherCommand();
        command.push_back("orca-can-isolate");
        return runCommand(command, {}, 30s).exitCode == 0;
    }();
    return can;
}

PrivateOrca::PrivateOrca(const Options& options)
    : debugLog_(options.folder / "orca-debug.log")
{
    std::vector<std::string> arguments{"--folder",      options.folder.string(), "--display",
                                       options.display, "--session-bus",         options.sessionBusAddress};
    if (!options.speechAddress.empty())
        arguments.insert(arguments.end(), {"--speech", options.speechAddress});
    try {
        service_ = std::make_unique<PrivateService>("orca", arguments);
    } catch (const PrivateService::Failed& failed) {
        if (failed.status == 3)
            throw Unavailable(failed.what());
        throw;
    }
    isolated_ = service_->fact("isolated") == "1";
}

PrivateOrca::~PrivateOrca() = default;

bool PrivateOrca::waitUntilListening(std::chrono::milliseconds timeout) const
{
    return waitUntil(
        [&] { return readFile(debugLog_).find("registering listener for: window:destroy") != std::string::npos; },
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
    service_.reset();
}

} // namespace plinkora::testing
