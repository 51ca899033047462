#pragma once

// Private desktop services for tests: each fixture starts its own instance of a real service in
// its own folders, talks to it only through addresses it hands out, and stops it when it is
// destroyed, also when the test fails. Nothing here touches the user's own session bus, sound
// server, speech service or X display.
//
// The services themselves are started by tests/support/services.py, the one implementation the
// Python tests and the benchmark scripts use too: each fixture runs it as a launcher for one
// service and reads what the service left in its folder (what was said, Orca's log).
// tests/README.md tells what starts what.

#include "support/child_process.h"

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

/// The options that start a program with `arguments` (without the program) and `environment`.
ChildProcess::Options childOptions(const std::vector<std::string>& arguments, const Environment& environment = {});

struct CommandResult
{
    int exitCode = -1;  // -1 when it did not finish in time (it was killed)
    std::string output; // standard output, then standard error
};

/// Runs a command to its end (killing it after `timeout`).
CommandResult runCommand(const std::vector<std::string>& argv, const Environment& environment = {},
                         std::chrono::milliseconds timeout = 30s);

/// True when `program` can be run (an absolute path, or a name found in PATH).
bool programExists(const std::string& program);

/// One private service, started by the launcher tests/support/services.py, which prints what
/// the service is and keeps it until the launcher is stopped; then it stops the service and
/// whatever the service left behind, by process id. The launcher ends with the test process.
class PrivateService
{
public:
    struct Failed : std::runtime_error
    {
        Failed(const std::string& what, int exitStatus)
            : std::runtime_error(what)
            , status(exitStatus)
        {
        }
        int status; // the launcher's exit status: 3 when the service cannot run on this machine
    };

    /// Starts `service` (a name the launcher knows) with the launcher's `arguments` and waits
    /// until it is ready. Throws Failed when it does not get there.
    PrivateService(const std::string& service, const std::vector<std::string>& arguments,
                   std::chrono::milliseconds timeout = 90s);
    ~PrivateService();
    PrivateService(const PrivateService&) = delete;
    PrivateService& operator=(const PrivateService&) = delete;

    /// What clients connect to: a bus address, a display, a socket, a file.
    const std::string& address() const { return address_; }
    /// The service's main process.
    pid_t pid() const { return pid_; }
    /// Another line the launcher printed: "registry 1234" gives fact("registry") == "1234".
    std::string fact(const std::string& key) const;
    bool isRunning() const { return launcher_->running(); }

    /// The launcher's arguments before the service's name: the interpreter and the script.
    static std::vector<std::string> launcherCommand();

private:
    std::unique_ptr<ChildProcess> launcher_;
    std::vector<std::pair<std::string, std::string>> facts_;
    std::string address_;
    pid_t pid_ = -1;
};

/// A private D-Bus session bus: dbus-daemon with its own configuration (no service activation,
/// everything allowed), listening on a socket in `folder`.
class PrivateSessionBus
{
public:
    explicit PrivateSessionBus(const fs::path& folder);

    /// For DBUS_SESSION_BUS_ADDRESS or QDBusConnection::connectToBus.
    const std::string& address() const { return service_.address(); }
    pid_t pid() const { return service_.pid(); }

private:
    PrivateService service_;
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

    /// The accessibility bus's address (what org.a11y.Bus.GetAddress answers).
    const std::string& address() const { return service_.address(); }
    /// Sets org.a11y.Status ScreenReaderEnabled, the desktop's screen-reader switch, with
    /// `busctl --user set-property`. Throws when busctl fails.
    void setScreenReaderEnabled(bool enabled) const;
    pid_t registryPid() const;

private:
    std::string sessionAddress_;
    PrivateService service_;
};

/// Xvfb on a display number it picks itself (-displayfd), so it never takes a display in use.
class PrivateXServer
{
public:
    PrivateXServer();

    /// ":N", for DISPLAY.
    const std::string& display() const { return service_.address(); }

private:
    PrivateService service_;
};

/// Openbox on a private X server, so that windows get activated and focused as on a desktop
/// (Orca presents a window when it is activated).
class PrivateWindowManager
{
public:
    PrivateWindowManager(const std::string& display, const fs::path& folder);

private:
    PrivateService service_;
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

    /// The service's folder; start() starts it.
    explicit PrivateSpeechDispatcher(const fs::path& folder);
    PrivateSpeechDispatcher(const fs::path& folder, Options options);
    ~PrivateSpeechDispatcher();
    PrivateSpeechDispatcher(const PrivateSpeechDispatcher&) = delete;
    PrivateSpeechDispatcher& operator=(const PrivateSpeechDispatcher&) = delete;

    /// Starts the service and waits until it accepts connections. Throws when it does not.
    void start();
    /// Stops the service and waits for it.
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
    std::unique_ptr<PrivateService> service_;
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
    /// Stops the server and waits for it.
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
    std::unique_ptr<PrivateService> service_;
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

    /// Ends the recording and returns the samples.
    std::vector<std::int16_t> stop();
    std::size_t bytesSoFar() const;

private:
    fs::path file_;
    std::unique_ptr<PrivateService> service_;
};

/// A stretch of sound in a recording: [begin, end) in samples.
struct Segment
{
    std::size_t begin = 0;
    std::size_t end = 0;
};

/// The stretches where the sound is louder than `threshold` (of full scale) in 10 ms windows,
/// stretches closer than `gap` joined.
std::vector<Segment> soundSegments(const std::vector<std::int16_t>& samples, int sampleRate, double threshold = 0.02,
                                   std::chrono::milliseconds gap = 30ms);

/// sox's "Rough frequency" (from `sox FILE -n stat`) of 16-bit signed mono samples at
/// `sampleRate`; nothing when sox fails.
std::optional<double> soxRoughFrequency(const std::vector<std::int16_t>& samples, int sampleRate,
                                        const fs::path& scratchFolder);

/// Orca 43, headless: started under a private X server and session bus, with its own HOME and
/// XDG folders and its own debug log (which shows everything it says: "SPEECH OUTPUT: '...'").
///
/// Orca refuses to start while another Orca of the same user runs anywhere on the machine, and
/// `orca --replace` would kill that one. So, where possible (root, or unprivileged user
/// namespaces), it runs in a process-id namespace of its own: it sees no other Orca, and ending
/// the namespace ends it and anything it started. Elsewhere it starts only when no other Orca
/// runs (else the constructor throws Unavailable).
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
    /// The process id of the started process (the namespace's, or Orca itself when not isolated).
    pid_t pid() const { return service_ ? service_->pid() : -1; }
    bool isolated() const { return isolated_; }
    /// Stops Orca and waits for it to end.
    void stop();

    /// True when Orca can be started in a process-id namespace of its own here.
    static bool canIsolate();

private:
    fs::path debugLog_;
    bool isolated_ = false;
    std::unique_ptr<PrivateService> service_;
};

} // namespace plinkora::testing
