#pragma once

// Private desktop services for tests: each fixture starts its own instance of a real service in
// its own folders, talks to it only through addresses it hands out, and stops exactly the
// processes it started (by process id) when it is destroyed, also when the test fails. Nothing
// here touches the user's own session bus, sound server, speech service or X display.
//
// See README.md beside this file for the commands and environment variables each fixture uses.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace plinkora::testing {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// Checks `condition` every `step` until it holds (true) or `timeout` has passed (false).
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds step = 10ms);

/// The same, letting the Qt event loop of this thread run between the checks.
bool waitUntilProcessingEvents(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

/// A fresh folder under /tmp, removed with everything in it on destruction (kept when the
/// environment variable PLINKORA_KEEP_TEST_FOLDERS is set, for looking at logs).
class TempDir
{
public:
    explicit TempDir(const std::string& prefix = "plinkora-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return path_; }
    /// Makes (if needed) and returns the sub-folder `name`, with mode 0700.
    fs::path subfolder(const std::string& name) const;

private:
    fs::path path_;
};

/// Changes to the environment of a child: a value sets the variable, nothing removes it.
using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

/// A process started by a test. Its standard output and error go to `outputFile` (or nowhere).
/// It is killed when the test process dies (PR_SET_PDEATHSIG) and stopped when this object goes.
class ChildProcess
{
public:
    ChildProcess(const std::vector<std::string>& argv, const Environment& environment = {},
                 const fs::path& outputFile = {}, const std::vector<int>& inheritedFds = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool isRunning();
    /// Waits for the process to end by itself. True when it has.
    bool waitForExit(std::chrono::milliseconds timeout);
    /// The exit code once it has ended (128 + signal number when a signal ended it).
    std::optional<int> exitCode() const { return exitCode_; }
    /// Sends `signal`, waits up to `grace`, then SIGKILL. Does nothing when already ended.
    void stop(int signal = 15 /* SIGTERM */, std::chrono::milliseconds grace = 5s);

private:
    bool reap(bool block);

    pid_t pid_ = -1;
    std::optional<int> exitCode_;
};

struct CommandResult
{
    int exitCode = -1;  // -1 when it did not finish in time (it was killed)
    std::string output; // standard output and error together
};

/// Runs a command to its end (killing it after `timeout`).
CommandResult runCommand(const std::vector<std::string>& argv, const Environment& environment = {},
                         std::chrono::milliseconds timeout = 30s);

/// True when `program` can be run (an absolute path, or a name found in PATH).
bool programExists(const std::string& program);

/// Makes this test process the reaper of orphaned descendants (PR_SET_CHILD_SUBREAPER), so that
/// services the bus starts on demand (and daemons that detach) can be waited for by process id.
void becomeSubreaper();

/// Stops a process that a fixture's child started on its behalf (not a direct child): sends
/// `signal`, waits up to `grace` for it to end, then SIGKILL. Reaps it when it became ours.
void stopProcessById(pid_t pid, int signal, std::chrono::milliseconds grace);

/// True while a process with this id exists and has not ended.
bool processAlive(pid_t pid);

/// A private D-Bus session bus: dbus-daemon with its own configuration (no service activation,
/// everything allowed), listening on a socket in `folder`.
class PrivateSessionBus
{
public:
    explicit PrivateSessionBus(const fs::path& folder);
    ~PrivateSessionBus();
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    /// For DBUS_SESSION_BUS_ADDRESS or QDBusConnection::connectToBus.
    const std::string& address() const { return address_; }
    pid_t pid() const { return process_->pid(); }

private:
    std::string address_;
    std::unique_ptr<ChildProcess> process_;
};

/// The real AT-SPI accessibility bus on a private session bus: at-spi-bus-launcher (which
/// starts the accessibility bus's own dbus-daemon) and the AT-SPI registry (at-spi2-registryd,
/// started on demand by that bus).
class AccessibilityBus
{
public:
    /// `runtimeFolder` becomes the launcher's XDG_RUNTIME_DIR (its socket goes there);
    /// `display` is handed on as DISPLAY when not empty.
    AccessibilityBus(const PrivateSessionBus& sessionBus, const fs::path& runtimeFolder,
                     const std::string& display = {});
    ~AccessibilityBus();
    AccessibilityBus(const AccessibilityBus&) = delete;
    AccessibilityBus& operator=(const AccessibilityBus&) = delete;

    /// The accessibility bus's address (what org.a11y.Bus.GetAddress answers).
    const std::string& address() const { return address_; }
    /// Sets org.a11y.Status ScreenReaderEnabled, the desktop's screen-reader switch, with
    /// `busctl --user set-property`. Throws when busctl fails.
    void setScreenReaderEnabled(bool enabled) const;
    pid_t registryPid() const { return registryPid_; }

private:
    std::string sessionAddress_;
    std::string address_;
    std::unique_ptr<ChildProcess> launcher_;
    pid_t busDaemonPid_ = -1;
    pid_t registryPid_ = -1;
};

/// Xvfb on a display number it picks itself (-displayfd), so it never takes a display in use.
class PrivateXServer
{
public:
    explicit PrivateXServer(const fs::path& logFile = {});
    ~PrivateXServer();
    PrivateXServer(const PrivateXServer&) = delete;
    PrivateXServer& operator=(const PrivateXServer&) = delete;

    /// ":N", for DISPLAY.
    const std::string& display() const { return display_; }

private:
    std::string display_;
    std::unique_ptr<ChildProcess> process_;
};

/// Openbox on a private X server, so that windows get activated and focused as on a desktop
/// (Orca presents a window when it is activated).
class PrivateWindowManager
{
public:
    PrivateWindowManager(const std::string& display, const fs::path& folder);
    ~PrivateWindowManager();
    PrivateWindowManager(const PrivateWindowManager&) = delete;
    PrivateWindowManager& operator=(const PrivateWindowManager&) = delete;

private:
    std::unique_ptr<ChildProcess> process_;
};

/// A private speech-dispatcher whose only output module records: every text it is asked to say
/// is appended to a file with its language, and, unless it is cut off, followed by a "done" mark
/// after `speakingTime` (the time the text "takes to say"). The service runs with -l 5, so its
/// log shows every protocol command with the connection it came from.
class PrivateSpeechDispatcher
{
public:
    struct Options
    {
        std::chrono::milliseconds speakingTime{600};
    };

    /// Writes the configuration into `folder`; start() starts the service.
    explicit PrivateSpeechDispatcher(const fs::path& folder);
    PrivateSpeechDispatcher(const fs::path& folder, Options options);
    ~PrivateSpeechDispatcher();
    PrivateSpeechDispatcher(const PrivateSpeechDispatcher&) = delete;
    PrivateSpeechDispatcher& operator=(const PrivateSpeechDispatcher&) = delete;

    /// Starts the service and waits until it accepts connections. Throws when it does not.
    void start();
    /// Stops the service (SIGTERM, then SIGKILL after a grace period) and waits for it.
    void stop();
    bool isRunning() const;
    pid_t pid() const;

    /// "unix_socket:<socket>", for SPEECHD_ADDRESS (or SpeechDispatcherVoice's address).
    std::string address() const;
    fs::path socketPath() const;

    struct Utterance
    {
        std::string language;
        std::string text;
        bool finished = false; // false: cut off before its end
    };
    /// What the recording module was asked to say, in order.
    std::vector<Utterance> utterances() const;
    /// The service's log (-l 5).
    std::string log() const;
    /// The protocol commands (as logged, without the line end) of every connection whose client
    /// name ("user:client:connection") contains `clientName`, in order. SPEAK texts show up as
    /// the lines sent after SPEAK.
    std::vector<std::string> commandsOf(const std::string& clientName) const;

private:
    fs::path folder_;
    Options options_;
    std::unique_ptr<ChildProcess> process_;
};

/// A private PulseAudio server with one null sink ("plinkora_null", 44.1 kHz stereo) whose
/// monitor source can be recorded. No hardware, no other clients.
class PrivatePulseAudio
{
public:
    explicit PrivatePulseAudio(const fs::path& folder);
    ~PrivatePulseAudio();
    PrivatePulseAudio(const PrivatePulseAudio&) = delete;
    PrivatePulseAudio& operator=(const PrivatePulseAudio&) = delete;

    /// Starts the server again (same socket) after stop(); the constructor starts it.
    void start();
    /// Stops the server (SIGTERM, then SIGKILL after a grace period) and waits for it.
    void stop();
    bool isRunning() const;
    pid_t pid() const;

    /// "unix:<socket>", for PULSE_SERVER.
    const std::string& serverAddress() const { return serverAddress_; }
    static std::string sinkName() { return "plinkora_null"; }
    static std::string monitorName() { return "plinkora_null.monitor"; }

private:
    fs::path folder_;
    std::string serverAddress_;
    std::unique_ptr<ChildProcess> process_;
};

/// Records the null sink's monitor with parec: raw 16-bit signed mono samples at 44.1 kHz,
/// with a short latency so that nothing is held back when the recording stops.
class SinkRecorder
{
public:
    static constexpr int kSampleRate = 44100;

    SinkRecorder(const PrivatePulseAudio& server, const fs::path& rawFile);
    ~SinkRecorder();
    SinkRecorder(const SinkRecorder&) = delete;
    SinkRecorder& operator=(const SinkRecorder&) = delete;

    /// Ends the recording (SIGINT) and returns the samples.
    std::vector<std::int16_t> stop();
    std::size_t bytesSoFar() const;

private:
    fs::path file_;
    std::unique_ptr<ChildProcess> process_;
};

/// A stretch of sound in a recording: [begin, end) in samples.
struct Segment
{
    std::size_t begin = 0;
    std::size_t end = 0;
};

/// The stretches where the sound is louder than `threshold` (of full scale) in 10 ms windows,
/// stretches closer than `gap` joined.
std::vector<Segment> soundSegments(const std::vector<std::int16_t>& samples, int sampleRate,
                                   double threshold = 0.02, std::chrono::milliseconds gap = 30ms);

/// sox's "Rough frequency" (from `sox FILE -n stat`) of 16-bit signed mono samples at
/// `sampleRate`; nothing when sox fails.
std::optional<double> soxRoughFrequency(const std::vector<std::int16_t>& samples, int sampleRate,
                                        const fs::path& scratchFolder);

/// Orca 43, headless: started under a private X server and session bus, with its own HOME and
/// XDG folders and its own debug log (which shows everything it says: "SPEECH OUTPUT: '...'").
///
/// Orca refuses to start while another Orca of the same user runs anywhere on the machine, and
/// `orca --replace` would kill that one. So, where possible (root, or unprivileged user
/// namespaces), it runs in a process-id namespace of its own (unshare --pid --fork --mount-proc
/// --kill-child=SIGKILL): it sees no other Orca, and stopping the unshare process ends it and
/// anything it started. Elsewhere it starts only when no other Orca runs (else the constructor
/// throws OrcaUnavailable).
class PrivateOrca
{
public:
    struct Options
    {
        std::string display;           // DISPLAY
        std::string sessionBusAddress; // DBUS_SESSION_BUS_ADDRESS (the accessibility bus is found through it)
        fs::path folder;               // HOME, XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_CACHE_HOME, XDG_RUNTIME_DIR go here
        std::string speechAddress;     // SPEECHD_ADDRESS; empty: Orca gets no speech service
    };

    struct Unavailable : std::runtime_error
    {
        using std::runtime_error::runtime_error;
    };

    explicit PrivateOrca(const Options& options);
    ~PrivateOrca();
    PrivateOrca(const PrivateOrca&) = delete;
    PrivateOrca& operator=(const PrivateOrca&) = delete;

    /// Waits until Orca's debug log shows it has registered its event listeners (Orca took up to
    /// 10 s to get there on a loaded machine).
    bool waitUntilListening(std::chrono::milliseconds timeout = 30s) const;
    /// Everything Orca has spoken so far, from its debug log. Orca writes that log in blocks, so
    /// it lags behind; for checks while Orca runs, give it a PrivateSpeechDispatcher and read
    /// that one's utterances().
    std::vector<std::string> spoken() const;
    const fs::path& debugLog() const { return debugLog_; }
    /// The process id of the started process (unshare, or Orca itself when not isolated).
    pid_t pid() const { return process_->pid(); }
    bool isolated() const { return isolated_; }
    /// Stops Orca and waits for it to end.
    void stop();

    /// True when Orca can be started in a process-id namespace of its own here.
    static bool canIsolate();

private:
    fs::path debugLog_;
    bool isolated_ = false;
    std::unique_ptr<ChildProcess> process_;
};

} // namespace plinkora::testing
