#pragma once

#include "support/child_process.h"

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace plinkora::testing {

/// A lock shared by every test on this machine that runs JACK clients, held while its JACK
/// server lives. JACK 2 names a client's notification socket /dev/shm/jack_<client>_<uid>_0,
/// without the server's name: two clients of the same name ("PLK", "PLK-sync",
/// "midi_receiver") opening at the same time on two private servers break each other's
/// connection ("Cannot connect to client name = PLK"). So such tests take turns.
///
/// It is flock(2) on the file $PLINKORA_JACK_TEST_LOCK, else /tmp/plinkora-jack-tests.lock;
/// other test harnesses (the Python end-to-end tests) take the same lock on the same file.
class JackTestLock
{
public:
    /// Waits up to `timeout` for the lock; throws std::runtime_error if it stays taken.
    explicit JackTestLock(std::chrono::milliseconds timeout = std::chrono::seconds(90));
    ~JackTestLock();
    JackTestLock(const JackTestLock&) = delete;
    JackTestLock& operator=(const JackTestLock&) = delete;

    static std::string path();

private:
    int fd_ = -1;
};

/// A private JACK server for one test: `jackd -n NAME -t 5000 -d dummy -r 48000 -p 256` (no sound
/// card needed), under a name no other test uses. The destructor stops exactly this server, by its
/// process id, and removes what a killed server leaves in /dev/shm.
///
/// Clients find it through JACK_DEFAULT_SERVER=NAME (see environment()). It holds the
/// JackTestLock from before the server starts until after it has stopped.
class JackServer
{
public:
    struct Options
    {
        std::string name; // empty: uniqueName()
        std::chrono::milliseconds readyTimeout = std::chrono::seconds(30);
        unsigned sampleRate = 48000;
        unsigned periodFrames = 256; // 5.3 ms: fewer xruns than 64 frames on a loaded machine
        // How long the server waits for a client's answer (jackd -t). JACK's default is short
        // enough for a client open to fail when the machine is busy.
        std::chrono::milliseconds clientTimeout = std::chrono::seconds(5);
    };

    /// Starts the server and waits until a client can connect to it. Throws
    /// std::runtime_error, with what jackd printed, when it does not come up in time.
    static std::unique_ptr<JackServer> start(const Options& options);
    static std::unique_ptr<JackServer> start() { return start(Options{}); }

    ~JackServer();
    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;

    const std::string& name() const { return name_; }
    pid_t pid() const { return process_->pid(); }
    ChildProcess& process() { return *process_; }

    /// {"JACK_DEFAULT_SERVER", name} and JACK_NO_START_SERVER, for ChildProcess::Options.
    std::vector<std::pair<std::string, std::string>> environment() const;

    /// The full names of the server's ports ("client:port"), asked through a short-lived
    /// client. Empty if the server cannot be reached.
    std::vector<std::string> ports() const;
    bool hasPort(std::string_view fullName) const;
    /// Waits until the port is there (`present`) or gone; false when `timeout` passes first.
    bool waitForPort(std::string_view fullName, bool present, std::chrono::milliseconds timeout) const;

    /// Stops the server (SIGTERM, then SIGKILL after `grace`) and releases the JackTestLock.
    /// The destructor calls it. process() stays readable.
    void stop(std::chrono::milliseconds grace = std::chrono::seconds(5));

    /// Kills the server with SIGKILL, as a crash would (its clients get no orderly shut-down),
    /// keeping the JackTestLock and the name for restart().
    void kill();
    /// Starts a server under the same name and options again after stop() or kill(), and waits
    /// until a client can connect. Throws as start() does.
    void restart();

    /// A server name unique to this process and call: "<prefix>-<pid>-<counter>".
    static std::string uniqueName(std::string_view prefix = "plk-test");
    /// True when a client can connect to server `name` now. Never starts a server and prints
    /// nothing.
    static bool reachable(const std::string& name);
    /// True when a jackd process for server `name` runs, or its socket exists in /dev/shm.
    static bool serverExists(const std::string& name);

private:
    JackServer() = default;
    void launch();
    void removeLeftovers() const;

    std::unique_ptr<JackTestLock> lock_;
    std::string name_;
    Options options_;
    std::unique_ptr<ChildProcess> process_;
    bool stopped_ = false;
};

} // namespace plinkora::testing
