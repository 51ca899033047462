"""Private desktop services for tests and benchmarks, written once.

Each service runs on private names and folders and is stopped by process id, also when a test
fails: an X server (Xvfb on a display it picks itself), a window manager (openbox), a session bus
with its own configuration, the AT-SPI accessibility bus and registry on it, a speech-dispatcher
whose only output module records what it is asked to say, Orca in a process-id namespace of its
own, a PulseAudio server with a null sink, and a recorder of that sink. Nothing here touches the
user's own session bus, speech service, sound server or screen reader.

Python tests import the classes. Everything else (the C++ tests, the benchmark scripts) runs this
file as a launcher that starts one named service, prints what it is and waits:

    /usr/bin/python3 tests/support/services.py SERVICE [options]

prints `address ADDRESS` (what clients connect to), `pid PID` (the service's main process) and
`ready`, then keeps the service until it gets SIGTERM, SIGINT or SIGHUP, or its parent ends; then
it stops the service by process id and exits. When the service cannot start it prints
`failed REASON` and exits with 1 (3: Orca cannot run here). `--help` lists services and options.
"""

import argparse
import array
import ctypes
import html
import os
import re
import select
import signal
import socket
import subprocess
import sys
import threading
import time

DEFAULT_TIMEOUT = 20.0
PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36


class Process:
    """A child process whose standard output lines are collected by a thread."""

    def __init__(self, name, argv, env=None, capture=True, pass_fds=()):
        self.name = name
        self.lines = []
        self._cond = threading.Condition()
        self.proc = subprocess.Popen(
            argv,
            env=env,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE if capture else subprocess.DEVNULL,
            stderr=subprocess.PIPE if capture else subprocess.DEVNULL,
            text=True,
            bufsize=1,
            start_new_session=True,
            pass_fds=pass_fds,
        )
        self.stderr_lines = []
        if capture:
            threading.Thread(target=self._read, args=(self.proc.stdout, self.lines), daemon=True).start()
            threading.Thread(target=self._read, args=(self.proc.stderr, self.stderr_lines), daemon=True).start()

    @property
    def pid(self):
        return self.proc.pid

    def _read(self, stream, into):
        for line in stream:
            with self._cond:
                into.append(line.rstrip("\n"))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def wait_for_line(self, pattern, timeout=DEFAULT_TIMEOUT, start=0):
        """Index of the first line from `start` on that matches the regular expression."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for i in range(start, len(self.lines)):
                    if regex.search(self.lines[i]):
                        return i
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise AssertionError(
                        f"{self.name}: no line matching {pattern!r} within {timeout} s; "
                        f"stdout: {self.lines[-40:]}; stderr: {self.stderr_lines[-20:]}")
                self._cond.wait(min(remaining, 0.2))

    def snapshot(self):
        with self._cond:
            return list(self.lines)

    def running(self):
        return self.proc.poll() is None

    def send_signal(self, sig):
        if self.running():
            os.kill(self.proc.pid, sig)

    def wait(self, timeout=DEFAULT_TIMEOUT):
        return self.proc.wait(timeout=timeout)

    def stop(self, sig=signal.SIGTERM, timeout=10.0):
        """Stops the process by its id: `sig`, then SIGKILL if it does not end in time."""
        if self.proc.poll() is None:
            try:
                os.kill(self.proc.pid, sig)
                self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=10)
            except ProcessLookupError:
                pass
        for stream in (self.proc.stdout, self.proc.stderr):
            if stream:
                try:
                    stream.close()
                except OSError:
                    pass
        return self.proc.returncode



def die_with_parent():
    """For preexec_fn: the child is killed when the test process dies, whatever kills it."""
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def guarded(argv):
    """`argv` run so that the process is killed when the test process dies, whatever kills it
    (setpriv sets its parent-death signal, then executes it: the process id stays the same)."""
    return ["setpriv", "--pdeathsig", "KILL", "--", *argv]


def become_subreaper():
    """Daemons that our children start (the accessibility bus, the registry, ...) become our
    children when their parent ends, so that they can be waited for by process id."""
    try:
        ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    except (OSError, AttributeError):
        pass


def process_alive(pid):
    if not pid or pid <= 0:
        return False
    try:
        if os.waitpid(pid, os.WNOHANG)[0] == pid:
            return False  # ours (as the reaper of orphans), and it has ended
    except ChildProcessError:
        pass
    try:
        with open(f"/proc/{pid}/stat") as f:
            stat = f.read()
    except OSError:
        return False
    return stat[stat.rfind(")") + 2:][:1] != "Z"


def stop_pid(pid, sig=signal.SIGTERM, grace=5.0):
    """Stops a process that is not a direct child (started on our behalf by one): `sig`, then
    SIGKILL when it has not ended after `grace` seconds."""
    if not process_alive(pid):
        return
    try:
        os.kill(pid, sig)
    except ProcessLookupError:
        return
    deadline = time.monotonic() + grace
    while time.monotonic() < deadline:
        if not process_alive(pid):
            return
        time.sleep(0.02)
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        return
    deadline = time.monotonic() + 5
    while process_alive(pid) and time.monotonic() < deadline:
        time.sleep(0.02)


def wait_until(condition, timeout=DEFAULT_TIMEOUT, what="a condition", interval=0.05):
    """Checks `condition` every `interval` seconds until it holds; fails after `timeout`."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if condition():
            return
        time.sleep(interval)
    raise AssertionError(f"timed out after {timeout} s waiting for {what}")


def unix_socket_accepts(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        s.connect(path)
        return True
    except OSError:
        return False
    finally:
        s.close()


def private_folder(path):
    os.makedirs(path, mode=0o700, exist_ok=True)
    os.chmod(path, 0o700)
    return path


def write_file(path, text, mode=0o600):
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, mode)


def read_file(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except OSError:
        return ""


def busctl(*args, address=None, env=None, timeout=15):
    argv = ["busctl"]
    if address:
        argv.append(f"--address={address}")
    argv += list(args)
    return subprocess.run(argv, env=env, capture_output=True, text=True, timeout=timeout)


def connection_pid(bus_address, name):
    reply = busctl("call", "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                   "GetConnectionUnixProcessID", "s", name, address=bus_address)
    match = re.match(r"u (\d+)", reply.stdout.strip())
    return int(match.group(1)) if reply.returncode == 0 and match else None


def start_time(pid):
    """The process's start time (clock ticks after boot), which tells it from a later process
    that got the same id."""
    stat = read_file(f"/proc/{pid}/stat")
    return stat[stat.rfind(")") + 2:].split()[19] if stat else None


class _Service:
    """A service made of a started Process and, maybe, processes it left behind."""

    # Texts (compared without a final full stop) that utterances(), texts() and spoken() leave out.
    ignored_texts = ()

    def __init__(self):
        self.process = None

    def _kept(self, texts):
        return [t for t in texts if t.strip().rstrip(".") not in self.ignored_texts]

    @property
    def pid(self):
        return self.process.pid if self.process else None

    def running(self):
        return self.process is not None and self.process.running()


class SessionBus(_Service):
    """dbus-daemon with a configuration of its own: no service activation, everything allowed,
    listening on a socket in `folder`."""

    def __init__(self, folder):
        super().__init__()
        private_folder(folder)
        sock = os.path.join(folder, "session_bus_socket")
        config = os.path.join(folder, "session.conf")
        write_file(config, f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={sock}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
""")
        self.address = f"unix:path={sock}"
        self.process = Process("dbus-daemon", guarded(["dbus-daemon", f"--config-file={config}", "--nofork",
                                                               "--nopidfile"]))
        wait_until(lambda: unix_socket_accepts(sock) or not self.process.running(), timeout=15,
                   what="the private session bus")
        if not self.process.running():
            raise AssertionError(f"dbus-daemon did not start: {self.process.stderr_lines}")

    def stop(self):
        if self.process:
            self.process.stop()


class AccessibilityBus(_Service):
    """at-spi-bus-launcher on the private session bus (it starts the accessibility bus's own
    dbus-daemon) and the AT-SPI registry (started on demand by that bus)."""

    def __init__(self, session_bus, runtime, display):
        super().__init__()
        become_subreaper()
        private_folder(runtime)
        self.session_address = getattr(session_bus, "address", session_bus)
        self.bus_daemon_pid = None
        self.registry_pid = None
        env = dict(os.environ)
        env.pop("AT_SPI_BUS_ADDRESS", None)
        env.pop("DISPLAY", None)
        env.update({"DBUS_SESSION_BUS_ADDRESS": self.session_address, "XDG_RUNTIME_DIR": runtime,
                    "GSETTINGS_BACKEND": "memory", **({"DISPLAY": display} if display else {})})
        self.process = Process("at-spi-bus-launcher",
                               guarded(["/usr/libexec/at-spi-bus-launcher", "--launch-immediately"]), env=env)
        found = {}

        def address():
            reply = busctl("call", "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress",
                           address=self.session_address)
            match = re.search(r'"(.*)"', reply.stdout)
            if reply.returncode == 0 and match and match.group(1):
                found["address"] = match.group(1)
                return True
            return False

        try:
            wait_until(address, timeout=20, what="the accessibility bus")
            self.address = found["address"]
            self.bus_daemon_pid = connection_pid(self.address, "org.freedesktop.DBus")
            # The bus starts the registry on the first call to it: start it now, to stop it later.
            replies = []

            def registry_up():
                replies.append(busctl("call", "org.a11y.atspi.Registry", "/org/a11y/atspi/registry",
                                      "org.a11y.atspi.Registry", "GetRegisteredEvents", address=self.address,
                                      timeout=25).stderr.strip())
                self.registry_pid = connection_pid(self.address, "org.a11y.atspi.Registry")
                return bool(self.registry_pid)

            try:
                wait_until(registry_up, timeout=30, what="the AT-SPI registry", interval=0.2)
            except AssertionError:
                raise AssertionError(f"the AT-SPI registry did not start: {replies[-3:]}") from None
        except BaseException:
            self.stop()
            raise

    def set_screen_reader_enabled(self, enabled):
        """The desktop's screen-reader switch, set the way the desktop sets it."""
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.session_address)
        reply = busctl("--user", "set-property", "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Status",
                       "ScreenReaderEnabled", "b", "true" if enabled else "false", env=env)
        if reply.returncode != 0:
            raise AssertionError(f"busctl set-property failed: {reply.stderr}")

    def screen_reader_enabled(self):
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.session_address)
        reply = busctl("--user", "get-property", "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Status",
                       "ScreenReaderEnabled", env=env)
        return reply.stdout.strip() == "b true"

    def stop(self):
        # The registry outlives the launcher on its own: stop it first.
        stop_pid(self.registry_pid)
        if self.process:
            self.process.stop()
        stop_pid(self.bus_daemon_pid)


class SpeechService(_Service):
    """A private speech-dispatcher whose only output module records: each text it is asked to
    say is appended to a file; unless it is cut off, a "done" mark follows after
    `speaking_time` seconds (how long the text "takes to say"). Runs with -l 5, so its log shows
    every protocol command with the connection it came from."""

    def __init__(self, folder, speaking_time=1.5):
        super().__init__()
        become_subreaper()
        self.folder = private_folder(folder)
        for sub in ("run", "log", "data", "home"):
            private_folder(os.path.join(folder, sub))
        config = private_folder(os.path.join(folder, "config", "speech-dispatcher"))
        private_folder(os.path.join(config, "modules"))
        self.spoken_file = os.path.join(folder, "spoken.log")
        self.socket_path = os.path.join(folder, "run", "speechd.sock")
        self.log_file = os.path.join(folder, "log", "speech-dispatcher.log")
        recorder = os.path.join(folder, "record-speech.sh")
        # $1: the language, $2: the text. A cancel kills this script: no "done" line then.
        write_file(recorder, f"""#!/bin/sh
text=$(printf '%s' "$2" | tr '\\n\\t' '  ')
printf 'say\\t%s\\t%s\\n' "$1" "$text" >> '{self.spoken_file}'
sleep {speaking_time:.3f}
printf 'done\\t%s\\n' "$text" >> '{self.spoken_file}'
""", mode=0o700)
        write_file(os.path.join(config, "speechd.conf"), f"""LogDir "{os.path.join(folder, "log")}"
DefaultVolume 100
DefaultLanguage "en"
AudioOutputMethod "libao"
AddModule "recorder" "sd_generic" "recorder.conf"
DefaultModule recorder
""")
        write_file(os.path.join(config, "modules", "recorder.conf"),
                   f"GenericExecuteSynth \"{recorder} \\'$LANGUAGE\\' \\'$DATA\\'\"\n"
                   "GenericLanguage \"en\" \"en\" \"utf-8\"\n"
                   "AddVoice \"en\" \"MALE1\" \"recorder\"\n"
                   "DefaultVoice \"recorder\"\n")

    @property
    def address(self):
        """For SPEECHD_ADDRESS."""
        return f"unix_socket:{self.socket_path}"

    def start(self):
        if self.running():
            return
        try:
            os.unlink(self.socket_path)
        except FileNotFoundError:
            pass
        env = dict(os.environ)
        env.pop("SPEECHD_ADDRESS", None)
        env.update({"XDG_RUNTIME_DIR": os.path.join(self.folder, "run"),
                    "XDG_CONFIG_HOME": os.path.join(self.folder, "config"),
                    "XDG_DATA_HOME": os.path.join(self.folder, "data"),
                    "HOME": os.path.join(self.folder, "home")})
        self.process = Process("speech-dispatcher", guarded([
            "speech-dispatcher", "--run-single", "--timeout", "0", "--log-level", "5",
            "--log-dir", os.path.join(self.folder, "log"), "--communication-method", "unix_socket",
            "--socket-path", self.socket_path]), env=env)
        wait_until(lambda: unix_socket_accepts(self.socket_path) or not self.process.running(), timeout=20,
                   what="speech-dispatcher to accept connections")
        if not self.process.running():
            raise AssertionError(f"speech-dispatcher did not start: {self.process.stderr_lines[-20:]}")
        return self

    def stop(self):
        # speech-dispatcher 0.11 now and then waits for its output module for many seconds after
        # SIGTERM; nothing is lost by ending it sooner.
        if self.process:
            self.process.stop(timeout=3)

    def utterances(self):
        """[(text, finished)] in the order the module was asked to say them."""
        result = []
        for line in read_file(self.spoken_file).splitlines():
            if line.startswith("say\t"):
                parts = line.split("\t", 2)
                result.append([parts[2] if len(parts) > 2 else "", False])
            elif line.startswith("done\t"):
                text = line[5:]
                for entry in reversed(result):
                    if not entry[1] and entry[0] == text:
                        entry[1] = True
                        break
        kept = self._kept([entry[0] for entry in result])
        return [tuple(entry) for entry in result if entry[0] in kept]

    def texts(self):
        return [text for text, _ in self.utterances()]

    def log(self):
        return read_file(self.log_file)

    def commands(self):
        """[(client name, command)] for every protocol command in the log, in order. The client
        name is "user:client:connection"; commands sent before a connection names itself have
        the name "". A SPEAK's text shows up as the lines sent after it, up to the lone "."."""
        data = re.compile(r"speechd:\s+(\d+):DATA:\|(.*)$")
        named = re.compile(r'^SET SELF CLIENT_NAME "?([^"]*)"?$', re.IGNORECASE)
        owners = {}
        result = []
        for line in self.log().splitlines():
            line = line.replace("\r", "")
            match = data.search(line)
            if not match:
                continue
            fd, command = match.group(1), match.group(2).strip()
            name = named.match(command)
            if name:
                owners[fd] = name.group(1)
            result.append((owners.get(fd, ""), command))
        return result

    def commands_of(self, client):
        """The commands of every connection whose client name contains `client` (any case)."""
        return [command for name, command in self.commands() if client.lower() in name.lower()]

    def events_of(self, client):
        """What a client asked for, in order: ("speak", text) with SSML markup removed, and
        ("cancel", "CANCEL SELF" / "CANCEL ALL" / ...)."""
        events, current, in_speak = [], [], False
        for command in self.commands_of(client):
            if in_speak:
                if command == ".":
                    events.append(("speak", html.unescape(re.sub(r"<[^>]*>", "", " ".join(current)))))
                    current, in_speak = [], False
                else:
                    current.append(command)
            elif command.upper() == "SPEAK":
                in_speak = True
            elif command.upper().startswith("CANCEL"):
                events.append(("cancel", command.upper()))
        if not self.ignored_texts:
            return events
        # An ignored text leaves with the cancel the voice sends before each text.
        kept = []
        for event in events:
            if event[0] == "speak" and not self._kept([event[1]]):
                if kept and kept[-1] == ("cancel", "CANCEL SELF"):
                    kept.pop()
                continue
            kept.append(event)
        return kept

    def texts_of(self, client):
        """The texts a client sent with SPEAK."""
        return [text for kind, text in self.events_of(client) if kind == "speak"]


class OrcaUnavailable(AssertionError):
    """Another Orca of this user runs, and this one cannot get a process-id namespace of its own."""


class Orca(_Service):
    """Orca from Debian's package, headless, with its own HOME and XDG folders and its own debug
    log (`SPEECH OUTPUT: '...'` for everything it says).

    Orca refuses to start while another Orca of the same user runs anywhere on the machine (and
    `--replace` would kill that one), so it runs in a process-id namespace of its own (unshare
    --pid --fork --mount-proc --kill-child): it sees no other Orca, and ending the namespace's
    first process ends everything in it."""

    def __init__(self, folder, display, session_bus, speech=None, nudge=None):
        super().__init__()
        become_subreaper()
        self.nudge = nudge
        # False: stop() ends the namespace at once, without waiting for Orca's last debug lines.
        self.gentle_stop = True
        self.ended_by_itself = None
        self.stop_seconds = None
        self.folder = private_folder(folder)
        home = private_folder(os.path.join(folder, "home"))
        runtime = private_folder(os.path.join(folder, "run"))
        self.debug_log = os.path.join(folder, "orca-debug.log")
        env = dict(os.environ)
        env.pop("AT_SPI_BUS_ADDRESS", None)
        env.update({
            "DISPLAY": display,
            "DBUS_SESSION_BUS_ADDRESS": getattr(session_bus, "address", session_bus),
            "HOME": home,
            "XDG_CONFIG_HOME": os.path.join(home, ".config"),
            "XDG_DATA_HOME": os.path.join(home, ".local", "share"),
            "XDG_CACHE_HOME": os.path.join(home, ".cache"),
            "XDG_RUNTIME_DIR": runtime,
            "GSETTINGS_BACKEND": "memory",
            "SPEECHD_ADDRESS": getattr(speech, "address", speech) if speech else f"unix_socket:{runtime}/no-speech",
            # Never start a speech service of its own.
            "SPEECHD_CMD": "/nonexistent/speech-dispatcher",
            "LANG": "C.UTF-8",
        })
        self.isolated = self.can_isolate()
        if not self.isolated and subprocess.run(["pgrep", "-x", "orca"], capture_output=True).returncode == 0:
            raise OrcaUnavailable("another Orca runs for this user, and Orca cannot be given a process-id "
                                 "namespace of its own here (unshare --pid needs root or user namespaces)")
        isolation = ["unshare", "--pid", "--fork", "--mount-proc", "--kill-child=SIGKILL"] if self.isolated else []
        self.process = Process("orca", guarded([*isolation, "orca", f"--debug-file={self.debug_log}"]), env=env)

    @staticmethod
    def can_isolate():
        try:
            return subprocess.run(["unshare", "--pid", "--fork", "--mount-proc", "--kill-child=SIGKILL", "true"],
                                  capture_output=True, timeout=10).returncode == 0
        except (OSError, subprocess.TimeoutExpired):
            return False

    def log(self):
        return read_file(self.debug_log)

    def wait_until_listening(self, timeout=40):
        wait_until(lambda: "registering listener for: window:destroy" in self.log() or not self.running(),
                   timeout=timeout, what="Orca to listen for accessibility events")
        if not self.running():
            raise AssertionError(f"Orca ended: {self.process.lines[-20:]} {self.process.stderr_lines[-20:]}")

    def spoken(self, log=None):
        """Everything Orca said according to its debug log, or to the part of it given (Orca
        writes the log in blocks: it is complete only once Orca has ended)."""
        output = re.compile(r"SPEECH OUTPUT: '(.*?)'\s*(\{.*\})?\s*$")
        lines = (self.log() if log is None else log).splitlines()
        return self._kept([m.group(1) for m in map(output.search, lines) if m])

    def _orca_pid(self):
        if not self.process:
            return None
        if not self.isolated:
            return self.process.pid
        try:
            children = read_file(f"/proc/{self.process.pid}/task/{self.process.pid}/children").split()
        except OSError:
            children = []
        return int(children[0]) if children else None

    def stop(self):
        """Asks Orca to end (SIGTERM, which lets it write the rest of its debug log), then ends
        the namespace.

        Orca handles SIGTERM in Python, which runs only once its main loop wakes up: an idle
        Orca sleeps on. `nudge`, when set, is called once to wake it (a key press it hears)."""
        if not self.process:
            return
        orca = self._orca_pid()
        began = time.monotonic()
        if orca and process_alive(orca) and self.gentle_stop:
            try:
                os.kill(orca, signal.SIGTERM)
            except ProcessLookupError:
                pass
            nudged = False
            deadline = time.monotonic() + 20
            while self.process.running() and time.monotonic() < deadline:
                if not nudged and self.nudge and time.monotonic() - began > 1.0:
                    nudged = True
                    self.nudge()
                time.sleep(0.05)
        self.ended_by_itself = not self.process.running()
        self.stop_seconds = time.monotonic() - began
        # unshare ignores SIGTERM; SIGKILL ends it and, through --kill-child, the namespace.
        self.process.stop(sig=signal.SIGKILL)
        if orca and orca != self.process.pid:
            stop_pid(orca, signal.SIGKILL)


class PulseServer(_Service):
    """A private PulseAudio server with one null sink whose monitor can be recorded."""

    SINK = "plinkora_null"

    def __init__(self, folder):
        super().__init__()
        become_subreaper()
        self.folder = private_folder(folder)
        self.runtime = private_folder(os.path.join(folder, "run"))
        self.home = private_folder(os.path.join(folder, "home"))
        self.socket_path = os.path.join(self.runtime, "native")
        self.server = f"unix:{self.socket_path}"

    def start(self):
        if self.running():
            return self
        try:
            os.unlink(self.socket_path)
        except FileNotFoundError:
            pass
        env = dict(os.environ)
        for key in ("PULSE_SERVER", "DISPLAY"):
            env.pop(key, None)
        env.update({
            "HOME": self.home,
            "XDG_RUNTIME_DIR": self.runtime,
            "PULSE_RUNTIME_PATH": os.path.join(self.runtime, "pulse"),
            "XDG_CONFIG_HOME": os.path.join(self.home, ".config"),
            "XDG_STATE_HOME": os.path.join(self.home, ".state"),
            # No session bus (and no X11 autolaunch of one): PulseAudio only warns.
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.runtime}/no-bus",
        })
        self.process = Process("pulseaudio", guarded([
            "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no", "--disallow-exit",
            "--log-target=stderr",
            "-L", f"module-native-protocol-unix socket={self.socket_path} auth-anonymous=1",
            "-L", f"module-null-sink sink_name={self.SINK} rate=44100 channels=2"]), env=env)

        def up():
            return self.process.running() and subprocess.run(
                ["pactl", f"--server={self.server}", "info"], capture_output=True, timeout=10).returncode == 0

        wait_until(lambda: up() or not self.process.running(), timeout=20, what="PulseAudio")
        if not self.process.running():
            raise AssertionError(f"PulseAudio did not start: {self.process.stderr_lines[-20:]}")
        return self

    def stop(self):
        if self.process:
            self.process.stop()


class SinkRecorder:
    """Records the null sink's monitor with parec: raw signed 16-bit mono samples at 44.1 kHz."""

    RATE = 44100

    def __init__(self, pulse, raw_file):
        """`pulse`: a PulseServer or its address."""
        self.file = raw_file
        self.out = open(raw_file, "wb")
        self.proc = subprocess.Popen(
            ["parec", f"--server={getattr(pulse, 'server', pulse)}", f"--device={PulseServer.SINK}.monitor", "--raw", "--format=s16le",
             f"--rate={self.RATE}", "--channels=1", "--latency-msec=20"],
            stdout=self.out, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, start_new_session=True,
            preexec_fn=die_with_parent)
        # The monitor delivers silence all the time: bytes arriving mean it records.
        wait_until(lambda: os.path.getsize(raw_file) > 0 or self.proc.poll() is not None, timeout=10,
                   what="parec to record")
        if self.proc.poll() is not None:
            raise AssertionError("parec did not start recording")

    def samples_so_far(self):
        with open(self.file, "rb") as f:
            data = f.read()
        samples = array.array("h")
        samples.frombytes(data[:len(data) // 2 * 2])
        if sys.byteorder != "little":
            samples.byteswap()
        return samples

    def stop(self):
        """Ends the recording and returns the samples."""
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGINT)
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=5)
        if not self.out.closed:
            self.out.close()
        return self.samples_so_far()

    @property
    def pid(self):
        return self.proc.pid

    def running(self):
        return self.proc.poll() is None


class XServer(_Service):
    """Xvfb on a display number it picks itself (-displayfd), so it never takes a display in use."""

    name = "Xvfb"

    def __init__(self, screen="1280x900x24"):
        super().__init__()
        read_fd, write_fd = os.pipe()
        try:
            self.process = Process("Xvfb", guarded(["Xvfb", "-displayfd", str(write_fd), "-screen", "0", screen,
                                                    "-nolisten", "tcp", "-ac"]),
                                   capture=False, pass_fds=(write_fd,))
        finally:
            os.close(write_fd)
        with os.fdopen(read_fd) as f:
            number = f.readline().strip() if select.select([f], [], [], DEFAULT_TIMEOUT)[0] else ""
        if not number:
            self.stop()
            raise AssertionError("Xvfb did not start")
        self.display = f":{number}"

    @property
    def address(self):
        """For DISPLAY."""
        return self.display

    def stop(self):
        if self.process:
            return self.process.stop()
        return None


class WindowManager(_Service):
    """Openbox on an X server, so that windows get activated and focused as on a desktop (Orca
    presents a window when it is activated). Ready once it announces itself on the root window
    (_NET_SUPPORTING_WM_CHECK). With `folder`, it gets HOME and XDG folders there and no bus."""

    name = "openbox"

    def __init__(self, display, env=None, folder=None):
        super().__init__()
        env = dict(os.environ if env is None else env)
        env["DISPLAY"] = display
        if folder:
            home = private_folder(folder)
            env.update({"HOME": home, "XDG_CONFIG_HOME": os.path.join(home, ".config"),
                        "XDG_CACHE_HOME": os.path.join(home, ".cache")})
            env.pop("DBUS_SESSION_BUS_ADDRESS", None)
        self.address = display

        def announced():
            reply = subprocess.run(["xprop", "-display", display, "-root", "_NET_SUPPORTING_WM_CHECK"],
                                   capture_output=True, text=True, timeout=10)
            return reply.returncode == 0 and "window id" in reply.stdout

        # Now and then (1 start in 40 here) openbox ends at once with status 1 and says nothing;
        # started again it comes up.
        for _ in range(3):
            self.process = Process("openbox", guarded(["openbox", "--sm-disable"]), env=env)
            try:
                wait_until(lambda: not self.process.running() or announced(), timeout=DEFAULT_TIMEOUT,
                           what="openbox")
            except BaseException:
                self.stop()
                raise
            if self.process.running():
                return
        raise AssertionError(f"openbox did not start: {self.process.stderr_lines[-10:]} "
                             f"(status {self.process.proc.returncode})")

    def stop(self):
        if self.process:
            return self.process.stop()
        return None


# --- the launcher ------------------------------------------------------------------------------

class _Stop(Exception):
    pass


def _stop_on_signal(signum, frame):
    raise _Stop()


def _start(args):
    """The service named on the command line, started; and what to print about it."""
    folder = args.folder and private_folder(args.folder)
    if args.service == "x-server":
        service = XServer()
    elif args.service == "window-manager":
        service = WindowManager(args.display, folder=folder)
    elif args.service == "session-bus":
        service = SessionBus(folder)
    elif args.service == "accessibility-bus":
        service = AccessibilityBus(args.session_bus, folder, args.display)
        return service, [("address", service.address), ("pid", service.pid),
                         ("registry", service.registry_pid), ("bus-daemon", service.bus_daemon_pid)]
    elif args.service == "speech":
        service = SpeechService(folder, speaking_time=args.speaking_time).start()
    elif args.service == "orca":
        def nudge():
            subprocess.run(["xdotool", "key", "ctrl"], env=dict(os.environ, DISPLAY=args.display),
                           capture_output=True, timeout=10)
        service = Orca(folder, args.display, args.session_bus, speech=args.speech or None, nudge=nudge)
        service.gentle_stop = args.gentle_stop
        return service, [("address", service.debug_log), ("pid", service.pid),
                         ("isolated", int(service.isolated))]
    elif args.service == "pulse":
        service = PulseServer(folder).start()
        return service, [("address", service.server), ("pid", service.pid)]
    else:  # sink-recorder
        service = SinkRecorder(args.server, args.file)
        return service, [("address", args.file), ("pid", service.pid)]
    return service, [("address", service.address), ("pid", service.pid)]


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="services.py", description="Starts one private service, prints `address`, `pid` and `ready`, "
        "and stops it on SIGTERM, SIGINT, SIGHUP or when its parent ends.")
    parser.add_argument("service", choices=["x-server", "window-manager", "session-bus", "accessibility-bus",
                                            "speech", "orca", "orca-can-isolate", "pulse", "sink-recorder"])
    parser.add_argument("--folder", help="the service's own folder (made private); its files and logs go there")
    parser.add_argument("--display", default="", help="DISPLAY (window-manager, accessibility-bus, orca)")
    parser.add_argument("--session-bus", default="", help="the session bus address (accessibility-bus, orca)")
    parser.add_argument("--speech", default="", help="the speech service address for orca (SPEECHD_ADDRESS)")
    parser.add_argument("--speaking-time", type=float, default=1.5,
                        help="seconds each text takes to say on the recording speech service")
    parser.add_argument("--gentle-stop", action="store_true",
                        help="orca: ask Orca to end (it writes the rest of its debug log) before ending it")
    parser.add_argument("--server", default="", help="the PulseAudio server whose null sink sink-recorder records")
    parser.add_argument("--file", default="", help="sink-recorder's file of raw 16-bit mono samples at 44.1 kHz")
    args = parser.parse_args(argv)
    if args.service == "orca-can-isolate":
        return 0 if Orca.can_isolate() else 1
    needs_folder = args.service in ("session-bus", "accessibility-bus", "speech", "orca", "pulse")
    if needs_folder and not args.folder:
        parser.error(f"{args.service} needs --folder")

    parent = os.getppid()
    for signum in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(signum, _stop_on_signal)
    # When whoever started the launcher ends, even by SIGKILL, the service is still stopped.
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)
    become_subreaper()
    service = None
    try:
        if os.getppid() != parent:
            return 1
        try:
            service, facts = _start(args)
        except OrcaUnavailable as error:
            print(f"failed {error}", flush=True)
            return 3
        except (AssertionError, OSError, subprocess.SubprocessError) as error:
            print(f"failed {error}", flush=True)
            return 1
        for key, value in facts:
            print(f"{key} {value if value is not None else ''}".rstrip(), flush=True)
        print("ready", flush=True)
        while service.running():
            time.sleep(0.2)
        print("ended", flush=True)
        return 0
    except _Stop:
        return 0
    finally:
        for signum in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(signum, signal.SIG_IGN)
        if service is not None:
            service.stop()


if __name__ == "__main__":
    sys.exit(main())
