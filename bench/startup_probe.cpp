// startup_probe: starts a program once and measures, from the moment it is started, when its
// JACK port is registered and when its main window is mapped on the X display. Used by
// startup_bench.sh; runs under a JACK server and an X server that are already there.
//
// Usage:
//   startup_probe [--port NAME] [--title TITLE] [--timeout-ms N] [--log FILE] -- PROGRAM [ARGS...]
//   startup_probe --until-exit [--log FILE] -- PROGRAM [ARGS...]
//   startup_probe --page-fault-cost
//
//   --port NAME      the JACK port to wait for (default PLK:PLK)
//   --title TITLE    the title of the window to wait for (default Plinkora)
//   --timeout-ms N   give up after N ms (default 20000)
//   --log FILE       the program's standard output and error are appended to FILE (default
//                    /dev/null)
//   --until-exit     no JACK, no X: the time from the start until the program ends by itself
//                    (for example `plinkora --version`: the cost of loading the program and its
//                    libraries). Prints "exit_ms E status S".
//   --page-fault-cost  the time one page fault takes on this machine (the first touch of 4000
//                    fresh pages): start-up is mostly page faults. Prints "fault_us U".
//
// How: before the program starts, the probe opens a JACK client whose port-registration
// callback takes the time when the port appears, and an X connection that watches the root
// window's children (SubstructureNotify, and StructureNotify on every new top-level window, so
// that a window manager's reparenting does not hide the map). The time is taken just before
// posix_spawn (which returns once the program is executing). When both are seen, the program
// is sent SIGTERM (by its process id) and the probe waits for it to end.
//
// Standard output, one line:
//   port_ms P window_ms W exit_ms E status S faults F cpu_ms C
// P and W in milliseconds from the start; E from SIGTERM to the end of the process; S the exit
// status (or 128 + signal); F the page faults and C the processor time (all threads, user and
// system, in steps of the clock tick) of the program when both had been seen. "-" for what was
// not seen. Exit status: 0 when both were seen and the
// program ended by itself after SIGTERM, 1 otherwise, 2 for a bad command line or no server.
// SIGTERM or SIGINT to the probe stops the program the same way (SIGTERM, then SIGKILL after
// 10 s, always by its process id).

#include <jack/jack.h>
#include <xcb/xcb.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

std::string g_portName = "PLK:PLK";
jack_client_t* g_jack = nullptr;
int g_wakeFd = -1;
std::atomic<std::int64_t> g_portSeenNs{0}; // steady_clock nanoseconds; 0: not yet
volatile std::sig_atomic_t g_stop = 0;

// SIGTERM or SIGINT to the probe: the program is stopped as after a measurement.
void onSignal(int)
{
    g_stop = 1;
}

std::int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// JACK's notification thread.
void onPortRegistration(jack_port_id_t id, int registered, void*)
{
    const std::int64_t now = nowNs();
    if (!registered || g_portSeenNs.load() != 0)
        return;
    const jack_port_t* port = jack_port_by_id(g_jack, id);
    if (port == nullptr || g_portName != jack_port_name(port))
        return;
    g_portSeenNs.store(now);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(g_wakeFd, &one, sizeof one);
}

struct XWatch
{
    xcb_connection_t* connection = nullptr;
    xcb_window_t root = 0;
    xcb_atom_t netWmName = 0;
    xcb_atom_t utf8String = 0;
    std::set<xcb_window_t> mapped;

    xcb_atom_t atom(const char* name)
    {
        xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
            connection, xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
        const xcb_atom_t result = reply ? reply->atom : 0;
        std::free(reply);
        return result;
    }

    bool open()
    {
        int screenNumber = 0;
        connection = xcb_connect(nullptr, &screenNumber);
        if (xcb_connection_has_error(connection))
            return false;
        xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
        for (int i = 0; i < screenNumber && screens.rem > 0; ++i)
            xcb_screen_next(&screens);
        root = screens.data->root;
        const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(connection, root, XCB_CW_EVENT_MASK, &mask);
        netWmName = atom("_NET_WM_NAME");
        utf8String = atom("UTF8_STRING");
        syncWithServer();
        return true;
    }

    void syncWithServer()
    {
        std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    }

    std::string property(xcb_window_t window, xcb_atom_t name, xcb_atom_t type)
    {
        xcb_get_property_reply_t* reply =
            xcb_get_property_reply(connection, xcb_get_property(connection, 0, window, name, type, 0, 1024), nullptr);
        std::string value;
        if (reply && reply->format == 8)
            value.assign(static_cast<const char*>(xcb_get_property_value(reply)),
                         static_cast<std::size_t>(xcb_get_property_value_length(reply)));
        std::free(reply);
        return value;
    }

    std::string title(xcb_window_t window)
    {
        std::string name = property(window, netWmName, utf8String);
        if (name.empty())
            name = property(window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING);
        return name;
    }

    /// Handles the waiting events; returns the time at which a window titled `wanted` was seen
    /// mapped (0: not yet).
    std::int64_t drain(const std::string& wanted)
    {
        std::int64_t found = 0;
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection)) {
            const std::int64_t now = nowNs();
            const std::uint8_t type = event->response_type & 0x7F;
            if (type == XCB_CREATE_NOTIFY) {
                const auto* created = reinterpret_cast<const xcb_create_notify_event_t*>(event);
                if (created->parent == root) {
                    // A window manager will reparent it: watch the window itself too.
                    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
                    xcb_change_window_attributes(connection, created->window, XCB_CW_EVENT_MASK, &mask);
                    xcb_flush(connection);
                }
            } else if (type == XCB_MAP_NOTIFY) {
                const auto* map = reinterpret_cast<const xcb_map_notify_event_t*>(event);
                if (mapped.insert(map->window).second && found == 0 && title(map->window) == wanted)
                    found = now;
            }
            std::free(event);
        }
        return found;
    }
};

int usage()
{
    std::fputs("Usage: startup_probe [--port NAME] [--title TITLE] [--timeout-ms N] [--log FILE] -- PROGRAM [ARGS...]\n"
               "       startup_probe --until-exit [--log FILE] -- PROGRAM [ARGS...]\n"
               "       startup_probe --page-fault-cost\n",
               stderr);
    return 2;
}

/// Page faults (minor and major) and processor time in ms of process `pid` so far, from
/// /proc/PID/stat; false when it cannot be read.
bool processCosts(pid_t pid, long& faults, double& cpuMs)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr)
        return false;
    char buffer[1024] = {};
    const std::size_t length = std::fread(buffer, 1, sizeof buffer - 1, file);
    std::fclose(file);
    buffer[length] = 0;
    // The fields after the command name (which is in parentheses and may hold spaces).
    const char* rest = std::strrchr(buffer, ')');
    if (rest == nullptr)
        return false;
    std::vector<unsigned long long> fields; // fields[0] is field 3 (state) of proc(5)
    for (const char* p = rest + 2; *p;) {
        char* end = nullptr;
        fields.push_back(std::strtoull(p, &end, 10));
        if (end == p) { // the state letter
            while (*p && *p != ' ')
                ++p;
        } else {
            p = end;
        }
        while (*p == ' ')
            ++p;
    }
    if (fields.size() < 13)
        return false;
    // proc(5): minflt is field 10, majflt 12, utime 14, stime 15.
    faults = static_cast<long>(fields[10 - 3] + fields[12 - 3]);
    cpuMs = static_cast<double>(fields[14 - 3] + fields[15 - 3]) * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return true;
}

/// Starts `argv` with its output appended to `log`; the time just before in `start`.
pid_t spawn(char** argv, const std::string& log, std::int64_t& start)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = 0;
    start = nowNs();
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        std::fprintf(stderr, "startup_probe: cannot start %s: %s\n", argv[0], std::strerror(spawned));
        return -1;
    }
    return pid;
}

/// Microseconds per first touch of a fresh anonymous page (the median of 5 tries).
double pageFaultCostUs()
{
    constexpr std::size_t kPages = 4000;
    const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    std::vector<double> tries;
    for (int t = 0; t < 5; ++t) {
        void* memory = ::mmap(nullptr, kPages * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            return -1;
        auto* bytes = static_cast<volatile char*>(memory);
        const std::int64_t start = nowNs();
        for (std::size_t i = 0; i < kPages; ++i)
            bytes[i * pageSize] = 1;
        tries.push_back(static_cast<double>(nowNs() - start) / 1000.0 / kPages);
        ::munmap(memory, kPages * pageSize);
    }
    std::sort(tries.begin(), tries.end());
    return tries[tries.size() / 2];
}

int statusOf(int waitStatus)
{
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

std::string milliseconds(std::int64_t ns)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(ns) / 1e6);
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    std::string title = "Plinkora";
    std::string log = "/dev/null";
    long timeoutMs = 20000;
    bool untilExit = false;
    int first = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--") {
            first = i + 1;
            break;
        }
        if (option == "--until-exit") {
            untilExit = true;
            continue;
        }
        if (option == "--page-fault-cost") {
            std::printf("fault_us %.3f\n", pageFaultCostUs());
            return 0;
        }
        if (i + 1 >= argc)
            return usage();
        const std::string value = argv[++i];
        if (option == "--port")
            g_portName = value;
        else if (option == "--title")
            title = value;
        else if (option == "--timeout-ms")
            timeoutMs = std::strtol(value.c_str(), nullptr, 10);
        else if (option == "--log")
            log = value;
        else
            return usage();
    }
    if (first < 0 || first >= argc)
        return usage();

    if (untilExit) {
        std::int64_t start = 0;
        const pid_t pid = spawn(argv + first, log, start);
        if (pid < 0)
            return 2;
        int waitStatus = 0;
        ::waitpid(pid, &waitStatus, 0);
        const std::int64_t ended = nowNs();
        std::printf("exit_ms %s status %d\n", milliseconds(ended - start).c_str(), statusOf(waitStatus));
        return 0;
    }

    struct sigaction action
    {
    };
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    g_wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    jack_status_t status{};
    g_jack = jack_client_open("startup_probe", JackNoStartServer, &status);
    if (g_jack == nullptr) {
        std::fprintf(stderr, "startup_probe: no JACK server (status 0x%x)\n", static_cast<unsigned>(status));
        return 2;
    }
    if (jack_set_port_registration_callback(g_jack, onPortRegistration, nullptr) != 0 || jack_activate(g_jack) != 0) {
        std::fputs("startup_probe: cannot watch the JACK ports\n", stderr);
        jack_client_close(g_jack);
        return 2;
    }
    if (jack_port_by_name(g_jack, g_portName.c_str()) != nullptr) {
        std::fprintf(stderr, "startup_probe: %s already exists\n", g_portName.c_str());
        jack_client_close(g_jack);
        return 2;
    }
    XWatch x;
    if (!x.open()) {
        std::fputs("startup_probe: cannot open the X display\n", stderr);
        jack_client_close(g_jack);
        return 2;
    }

    std::int64_t start = 0;
    const pid_t pid = spawn(argv + first, log, start);
    if (pid < 0) {
        jack_client_close(g_jack);
        return 2;
    }

    std::int64_t windowSeen = 0;
    bool exitedEarly = false;
    int waitStatus = 0;
    const std::int64_t deadline = start + timeoutMs * 1'000'000;
    while ((g_portSeenNs.load() == 0 || windowSeen == 0) && nowNs() < deadline && g_stop == 0) {
        pollfd fds[2] = {{xcb_get_file_descriptor(x.connection), POLLIN, 0}, {g_wakeFd, POLLIN, 0}};
        ::poll(fds, 2, 20);
        if (windowSeen == 0)
            windowSeen = x.drain(title);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = ::read(g_wakeFd, &count, sizeof count);
        if (xcb_connection_has_error(x.connection))
            break;
        if (::waitpid(pid, &waitStatus, WNOHANG) == pid) {
            exitedEarly = true;
            break;
        }
    }

    long faults = -1;
    double cpuMs = -1;
    if (!exitedEarly && g_portSeenNs.load() != 0 && windowSeen != 0 && !processCosts(pid, faults, cpuMs))
        faults = -1;

    std::int64_t exitNs = -1;
    if (!exitedEarly) {
        const std::int64_t terminated = nowNs();
        ::kill(pid, SIGTERM);
        // The program's orderly shut-down; SIGKILL (by its id) if it hangs.
        const std::int64_t killAt = terminated + 10'000'000'000LL;
        for (;;) {
            const pid_t done = ::waitpid(pid, &waitStatus, WNOHANG);
            if (done == pid) {
                exitNs = nowNs() - terminated;
                break;
            }
            if (nowNs() > killAt) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, &waitStatus, 0);
                break;
            }
            ::usleep(1000);
        }
    }
    const int exitStatus = statusOf(waitStatus);

    const std::int64_t portSeen = g_portSeenNs.load();
    char cpu[32] = "-";
    if (faults >= 0)
        std::snprintf(cpu, sizeof cpu, "%.0f", cpuMs);
    std::printf("port_ms %s window_ms %s exit_ms %s status %d faults %s cpu_ms %s\n",
                portSeen ? milliseconds(portSeen - start).c_str() : "-",
                windowSeen ? milliseconds(windowSeen - start).c_str() : "-",
                exitNs >= 0 ? milliseconds(exitNs).c_str() : "-", exitStatus,
                faults >= 0 ? std::to_string(faults).c_str() : "-", cpu);
    std::fflush(stdout);

    jack_client_close(g_jack);
    xcb_disconnect(x.connection);
    return portSeen && windowSeen && exitNs >= 0 ? 0 : 1;
}
