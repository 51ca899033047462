#include "support/jack_server.h"

#include <jack/jack.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace plinkora::testing {

namespace {

void dropMessage(const char*) {}

// libjack prints several lines when it finds no server; the helpers ask quietly.
class Quiet
{
public:
    Quiet()
        : error_(jack_error_callback)
        , info_(jack_info_callback)
    {
        jack_set_error_function(dropMessage);
        jack_set_info_function(dropMessage);
    }
    ~Quiet()
    {
        jack_set_error_function(error_);
        jack_set_info_function(info_);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    void (*error_)(const char*);
    void (*info_)(const char*);
};

jack_client_t* openClient(const std::string& server)
{
    const Quiet quiet;
    jack_status_t status{};
    static std::atomic<unsigned> counter{0};
    const std::string clientName = "plk-test-probe-" + std::to_string(counter++);
    return jack_client_open(clientName.c_str(), static_cast<jack_options_t>(JackNoStartServer | JackServerName),
                            &status, server.c_str());
}

void closeClient(jack_client_t* client)
{
    const Quiet quiet;
    jack_client_close(client);
}

} // namespace

std::string JackTestLock::path()
{
    const char* chosen = std::getenv("PLINKORA_JACK_TEST_LOCK");
    return chosen != nullptr && *chosen != '\0' ? chosen : "/tmp/plinkora-jack-tests.lock";
}

JackTestLock::JackTestLock(std::chrono::milliseconds timeout)
{
    const std::string file = path();
    fd_ = ::open(file.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666); // flock needs no write access
    if (fd_ < 0)
        throw std::runtime_error("cannot open " + file + ": " + std::strerror(errno));
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) {
            ::close(fd_);
            fd_ = -1;
            throw std::runtime_error("another test kept the JACK test lock " + file);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

JackTestLock::~JackTestLock()
{
    if (fd_ >= 0)
        ::close(fd_); // releases the lock
}

std::string JackServer::uniqueName(std::string_view prefix)
{
    static std::atomic<unsigned> counter{0};
    return std::string(prefix) + "-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

bool JackServer::reachable(const std::string& name)
{
    jack_client_t* client = openClient(name);
    if (client == nullptr)
        return false;
    closeClient(client);
    return true;
}

bool JackServer::serverExists(const std::string& name)
{
    if (!findProcesses("jackd", name).empty() || !findProcesses("jackdmp", name).empty())
        return true;
    // jackd's socket: /dev/shm/jack_<name>_<uid>_0
    const std::string socket = "/dev/shm/jack_" + name + "_" + std::to_string(getuid()) + "_0";
    return access(socket.c_str(), F_OK) == 0;
}

std::unique_ptr<JackServer> JackServer::start(const Options& options)
{
    std::unique_ptr<JackServer> server(new JackServer);
    server->lock_ = std::make_unique<JackTestLock>();
    server->name_ = options.name.empty() ? uniqueName() : options.name;
    server->options_ = options;
    server->launch();
    return server;
}

void JackServer::launch()
{
    ChildProcess::Options process;
    process.arguments = {"-n", name_,
                         "-t", std::to_string(options_.clientTimeout.count()),
                         "-d", "dummy",
                         "-r", std::to_string(options_.sampleRate),
                         "-p", std::to_string(options_.periodFrames)};
    process.environment = {{"JACK_NO_AUDIO_RESERVATION", "1"}};
    process.unsetEnvironment = {"JACK_DEFAULT_SERVER"};
    process_ = ChildProcess::start("jackd", process);
    stopped_ = false;

    const auto deadline = std::chrono::steady_clock::now() + options_.readyTimeout;
    for (;;) {
        if (reachable(name_))
            return;
        if (!process_->running() || std::chrono::steady_clock::now() >= deadline) {
            const std::string what = process_->describe();
            stop();
            throw std::runtime_error("the JACK server " + name_ + " did not come up: " + what);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void JackServer::kill()
{
    if (!process_ || stopped_)
        return;
    process_->sendSignal(SIGKILL);
    process_->waitForExit(std::chrono::seconds(30));
    removeLeftovers();
}

void JackServer::restart()
{
    if (process_ && process_->running())
        process_->stop();
    removeLeftovers();
    if (!lock_)
        lock_ = std::make_unique<JackTestLock>();
    launch();
}

JackServer::~JackServer()
{
    stop();
}

void JackServer::stop(std::chrono::milliseconds grace)
{
    if (!process_ || stopped_)
        return;
    stopped_ = true;
    process_->stop(grace);
    removeLeftovers();
    lock_.reset();
}

void JackServer::removeLeftovers() const
{
    // A server that had to be killed leaves its socket and semaphores. Only this server's
    // names are touched: they carry its unique name.
    DIR* shm = opendir("/dev/shm");
    if (shm == nullptr)
        return;
    const std::string socketPrefix = "jack_" + name_ + "_";
    const std::string semaphoreTag = "_" + name_ + "_";
    std::vector<std::string> doomed;
    while (const dirent* entry = readdir(shm)) {
        const std::string file = entry->d_name;
        if (file.rfind(socketPrefix, 0) == 0
            || (file.rfind("jack_sem.", 0) == 0 && file.find(semaphoreTag) != std::string::npos))
            doomed.push_back("/dev/shm/" + file);
    }
    closedir(shm);
    for (const std::string& path : doomed)
        std::remove(path.c_str());
}

std::vector<std::pair<std::string, std::string>> JackServer::environment() const
{
    return {{"JACK_DEFAULT_SERVER", name_}, {"JACK_NO_START_SERVER", "1"}};
}

std::vector<std::string> JackServer::ports() const
{
    std::vector<std::string> names;
    jack_client_t* client = openClient(name_);
    if (client == nullptr)
        return names;
    if (const char** list = jack_get_ports(client, nullptr, nullptr, 0)) {
        for (const char** port = list; *port != nullptr; ++port)
            names.emplace_back(*port);
        jack_free(list);
    }
    closeClient(client);
    return names;
}

bool JackServer::hasPort(std::string_view fullName) const
{
    const std::vector<std::string> list = ports();
    return std::find(list.begin(), list.end(), fullName) != list.end();
}

bool JackServer::waitForPort(std::string_view fullName, bool present, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (hasPort(fullName) == present)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace plinkora::testing
