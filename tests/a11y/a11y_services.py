"""Private desktop services for the tests in which Plinkora is heard without the screen.

Each service runs on private names and folders (a session bus with its own configuration, the
AT-SPI accessibility bus and registry on it, a speech-dispatcher whose only output module
records what it is asked to say, Orca in a process-id namespace of its own, a PulseAudio server
with a null sink) and is stopped by process id, also when a test fails. Nothing here touches the
user's own session bus, speech service, sound server or screen reader.

`A11yDesktop` extends the end-to-end harness (tests/e2e/desktop.py): Xvfb, openbox, optionally a
private JACK server, Plinkora and xdotool come from there.
"""

import array
import ctypes
import html
import json
import os
import re
import select
import signal
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))

from desktop import DEFAULT_TIMEOUT, Desktop, Process  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
SYSTEM_PYTHON = "/usr/bin/python3"
PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36


# Said once after start when nothing will sound (always so on the null MIDI system the tests use
# without JACK). The tests of other announcements do not see it: the start-up waits for the
# check, and what was said and announced is read without it unless a test asks for it.
START_UP_WARNING = "Nothing is connected to PLK"


def _without_start_up_warning(texts, keep):
    return list(texts) if keep else [t for t in texts if t.strip().rstrip(".") != START_UP_WARNING]


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
    return Desktop.wait_until(condition, timeout=timeout, what=what, interval=interval)


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


class Watchdog:
    """Stops the processes a test started, by process id, even when the test process itself is
    killed (a CTest timeout, for example) and can clean nothing up: a small process of its own
    that is told each process id (with its start time) and, when the test process's end of the
    pipe closes without a "done", kills those still running."""

    SCRIPT = r"""
import os, shutil, signal, sys, time
watched, folders, done = [], [], False
for line in sys.stdin:
    if line.strip() == "done":
        done = True
        break
    if line.startswith("folder "):
        folders.append(line[7:].rstrip("\n"))
        continue
    pid, started = line.split()
    watched.append((int(pid), started))
if not done:
    for pid, started in reversed(watched):
        try:
            with open(f"/proc/{pid}/stat") as f:
                stat = f.read()
            if stat[stat.rfind(")") + 2:].split()[19] == started:
                os.kill(pid, signal.SIGKILL)
        except (OSError, IndexError):
            pass
    time.sleep(1)
    for folder in folders:
        shutil.rmtree(folder, ignore_errors=True)
"""

    def __init__(self):
        self.proc = subprocess.Popen([sys.executable, "-c", self.SCRIPT], stdin=subprocess.PIPE, text=True,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)

    def watch(self, pid):
        started = start_time(pid) if pid else None
        if started and self.proc.poll() is None:
            self.proc.stdin.write(f"{pid} {started}\n")
            self.proc.stdin.flush()

    def remove_later(self, folder):
        """The folder goes too when the test process is killed."""
        if self.proc.poll() is None:
            self.proc.stdin.write(f"folder {folder}\n")
            self.proc.stdin.flush()

    def stop(self):
        """Everything was stopped in order: the watchdog ends without killing anything."""
        if self.proc.poll() is None:
            try:
                self.proc.stdin.write("done\n")
                self.proc.stdin.close()
            except OSError:
                pass
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(timeout=5)


class _Service:
    """A service made of a started Process and, maybe, processes it left behind."""

    def __init__(self):
        self.process = None

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
        self.session_address = session_bus.address
        self.bus_daemon_pid = None
        self.registry_pid = None
        env = dict(os.environ)
        env.pop("AT_SPI_BUS_ADDRESS", None)
        env.update({"DBUS_SESSION_BUS_ADDRESS": self.session_address, "XDG_RUNTIME_DIR": runtime,
                    "DISPLAY": display, "GSETTINGS_BACKEND": "memory"})
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
            busctl("call", "org.a11y.atspi.Registry", "/org/a11y/atspi/registry", "org.a11y.atspi.Registry",
                   "GetRegisteredEvents", address=self.address, timeout=25)
            self.registry_pid = connection_pid(self.address, "org.a11y.atspi.Registry")
            if not self.registry_pid:
                raise AssertionError("the AT-SPI registry did not start")
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
        self.keep_start_up_warning = False
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
        kept = _without_start_up_warning([entry[0] for entry in result], self.keep_start_up_warning)
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
        if self.keep_start_up_warning:
            return events
        # The start-up warning leaves with the cancel the voice sends before each text.
        kept = []
        for event in events:
            if event[0] == "speak" and not _without_start_up_warning([event[1]], False):
                if kept and kept[-1] == ("cancel", "CANCEL SELF"):
                    kept.pop()
                continue
            kept.append(event)
        return kept

    def texts_of(self, client):
        """The texts a client sent with SPEAK."""
        return [text for kind, text in self.events_of(client) if kind == "speak"]


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
        self.keep_start_up_warning = False
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
            "DBUS_SESSION_BUS_ADDRESS": session_bus.address,
            "HOME": home,
            "XDG_CONFIG_HOME": os.path.join(home, ".config"),
            "XDG_DATA_HOME": os.path.join(home, ".local", "share"),
            "XDG_CACHE_HOME": os.path.join(home, ".cache"),
            "XDG_RUNTIME_DIR": runtime,
            "GSETTINGS_BACKEND": "memory",
            "SPEECHD_ADDRESS": speech.address if speech else f"unix_socket:{runtime}/no-speech",
            # Never start a speech service of its own.
            "SPEECHD_CMD": "/nonexistent/speech-dispatcher",
            "LANG": "C.UTF-8",
        })
        self.isolated = self.can_isolate()
        if not self.isolated and subprocess.run(["pgrep", "-x", "orca"], capture_output=True).returncode == 0:
            raise AssertionError("another Orca runs for this user, and Orca cannot be given a process-id "
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
        return _without_start_up_warning([m.group(1) for m in map(output.search, lines) if m],
                                         self.keep_start_up_warning)

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
        if orca and process_alive(orca):
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
        self.file = raw_file
        self.out = open(raw_file, "wb")
        self.proc = subprocess.Popen(
            ["parec", f"--server={pulse.server}", f"--device={pulse.SINK}.monitor", "--raw", "--format=s16le",
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


def sound_segments(samples, rate, threshold=0.02, gap=0.03):
    """[(begin, end)] in samples of the stretches louder than `threshold` of full scale in 10 ms
    windows, stretches closer than `gap` seconds joined."""
    window = rate // 100
    gap_samples = int(rate * gap)
    segments = []
    for start in range(0, len(samples) - window + 1, window):
        chunk = samples[start:start + window]
        power = sum(v * v for v in chunk) / (window * 32768.0 * 32768.0)
        if power ** 0.5 < threshold:
            continue
        if segments and start <= segments[-1][1] + gap_samples:
            segments[-1][1] = start + window
        else:
            segments.append([start, start + window])
    return [tuple(s) for s in segments]


def sox_rough_frequency(samples, rate, scratch):
    """sox's "Rough frequency" of raw signed 16-bit mono samples."""
    with open(scratch, "wb") as f:
        f.write(samples.tobytes())
    result = subprocess.run(["sox", "-t", "raw", "-r", str(rate), "-e", "signed", "-b", "16", "-c", "1", scratch,
                             "-n", "stat"], capture_output=True, text=True, timeout=30)
    match = re.search(r"Rough\s+frequency:\s+(-?\d+)", result.stdout + result.stderr)
    return float(match.group(1)) if result.returncode == 0 and match else None


class AtspiProbe:
    """A python3-pyatspi client (Debian's interpreter) that answers questions about the
    accessible objects of one application, one JSON line per question (see atspi_probe.py)."""

    def __init__(self, env, application="plinkora"):
        self.stderr = open(os.path.join(env["XDG_RUNTIME_DIR"], "atspi-probe.err"), "w+")
        self.proc = subprocess.Popen([SYSTEM_PYTHON, os.path.join(HERE, "atspi_probe.py"), application],
                                     env=env, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.stderr,
                                     text=True, bufsize=1, start_new_session=True, preexec_fn=die_with_parent)
        if self._read(30) != "ready":
            raise AssertionError(f"the AT-SPI probe did not start: {self._errors()}")

    def _errors(self):
        self.stderr.flush()
        self.stderr.seek(0)
        return self.stderr.read()[-2000:]

    def _read(self, timeout):
        ready, _, _ = select.select([self.proc.stdout], [], [], timeout)
        if not ready:
            raise AssertionError(f"the AT-SPI probe did not answer within {timeout} s: {self._errors()}")
        line = self.proc.stdout.readline()
        if not line:
            raise AssertionError(f"the AT-SPI probe ended: {self._errors()}")
        return line.strip()

    def ask(self, *question, timeout=30):
        """The answer to a question such as ("tree",) or ("focused",)."""
        self.proc.stdin.write(json.dumps(list(question)) + "\n")
        self.proc.stdin.flush()
        answer = json.loads(self._read(timeout))
        if isinstance(answer, dict) and "error" in answer:
            raise AssertionError(f"AT-SPI probe: {answer['error']}")
        return answer

    def stop(self):
        if self.proc.poll() is None:
            try:
                self.proc.stdin.close()
                self.proc.wait(timeout=5)
            except (OSError, subprocess.TimeoutExpired):
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=5)
        self.proc.stdout.close()
        self.stderr.close()


class A11yDesktop(Desktop):
    """The e2e desktop (Xvfb, openbox, maybe JACK) plus the services of being heard. Every
    service is stopped by process id when the desktop closes, in the reverse order of starting.
    Plinkora gets the private session bus, speech service and sound server through its
    environment; it never reaches the user's own ones."""

    def __init__(self, with_jack=False):
        super().__init__(with_jack=with_jack)
        become_subreaper()
        self.watchdog = Watchdog()
        self.watchdog.remove_later(self.tmp)
        self.session_bus = None
        self.a11y_bus = None
        self.speech = None
        self.orca = None
        self.pulse = None
        # True: what was said and announced includes the start-up warning.
        self.keep_start_up_warning = False
        runtime = self.env["XDG_RUNTIME_DIR"]
        # Nothing reaches the user's own services, and nothing starts one of its own: no
        # speech-dispatcher autospawn, no PulseAudio autospawn.
        client_conf = os.path.join(self.tmp, "pulse-client.conf")
        write_file(client_conf, "autospawn = no\n")
        self.env.update({
            "SPEECHD_ADDRESS": f"unix_socket:{runtime}/no-speech-service",
            "SPEECHD_CMD": "/nonexistent/speech-dispatcher",
            "PULSE_SERVER": f"unix:{runtime}/no-sound-server",
            "PULSE_CLIENTCONFIG": client_conf,
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={runtime}/no-session-bus",
            "GSETTINGS_BACKEND": "memory",
        })
        self.env.pop("AT_SPI_BUS_ADDRESS", None)
        self.env.pop("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", None)
        self.env.pop("QT_ACCESSIBILITY", None)

    def _spawn(self, name, argv, env=None, capture=True):
        process = super()._spawn(name, guarded(argv), env=env, capture=capture)
        self.watchdog.watch(process.pid)
        return process

    def __enter__(self):
        try:
            super().__enter__()
        except BaseException:
            self.watchdog.stop()
            raise
        for process in self.processes:  # Xvfb, started by the harness without _spawn
            self.watchdog.watch(process.pid)
        return self

    def close(self):
        """Stops everything in the reverse order of starting; removes the test's folder unless
        PLINKORA_KEEP_TEST_FOLDERS is set (for reading the logs after a failure)."""
        if os.environ.get("PLINKORA_KEEP_TEST_FOLDERS") and os.path.isdir(self.tmp):
            for process in reversed(self.processes):
                process.stop()
            self.processes.clear()
            kept = self.tmp + "-kept"
            os.rename(self.tmp, kept)
            os.mkdir(self.tmp)
            print(f"kept {kept}", file=sys.stderr)
        super().close()
        self.watchdog.stop()

    def _folder(self, name):
        return private_folder(os.path.join(self.tmp, name))

    def _keep(self, service):
        self.processes.append(service)
        for pid in (getattr(service, "pid", None), getattr(service, "bus_daemon_pid", None),
                    getattr(service, "registry_pid", None)):
            self.watchdog.watch(pid)
        return service

    def start_session_bus(self):
        self.session_bus = self._keep(SessionBus(self._folder("session-bus")))
        self.env["DBUS_SESSION_BUS_ADDRESS"] = self.session_bus.address
        return self.session_bus

    def start_accessibility_bus(self):
        if not self.session_bus:
            self.start_session_bus()
        self.a11y_bus = self._keep(AccessibilityBus(self.session_bus, self._folder("a11y-run"), self.env["DISPLAY"]))
        return self.a11y_bus

    def make_speech_service(self, speaking_time=1.5, start=True):
        """The recording speech-dispatcher; Plinkora is pointed at it (also before it runs)."""
        self.speech = self._keep(SpeechService(self._folder("speech"), speaking_time=speaking_time))
        self.speech.keep_start_up_warning = self.keep_start_up_warning
        self.env["SPEECHD_ADDRESS"] = self.speech.address
        if start:
            self.start_speech_service()
        return self.speech

    def start_speech_service(self):
        self.speech.start()
        self.watchdog.watch(self.speech.pid)
        return self.speech

    def start_orca(self, speech=None):
        self.orca = self._keep(Orca(self._folder("orca"), self.env["DISPLAY"], self.session_bus, speech=speech,
                                    nudge=lambda: self.xdotool("key", "ctrl", check=False)))
        self.orca.keep_start_up_warning = self.keep_start_up_warning
        self.orca.wait_until_listening()
        return self.orca

    def start_pulse(self):
        self.pulse = self._keep(PulseServer(self._folder("pulse")))
        self.pulse.start()
        self.watchdog.watch(self.pulse.pid)
        self.env["PULSE_SERVER"] = self.pulse.server
        return self.pulse

    def start_plinkora(self, *args, wait_connected=True):
        if not self.with_jack and "--midi-api" not in args:
            args = (*args, "--midi-api", "null")
        process = super().start_plinkora(*args, wait_connected=wait_connected)
        if "null" in args:
            # The check of what will sound, two seconds after start: its warning comes before
            # anything the test does.
            process.wait_for_line(r"^Connections at start: ", timeout=30)
        return process

    def probe(self):
        return self._keep(AtspiProbe(self.env))

    def announcements(self, start=0):
        """The texts of Plinkora's "Announcing: " lines."""
        return _without_start_up_warning([line[len("Announcing: "):] for line in self.plinkora.snapshot()[start:]
                                          if line.startswith("Announcing: ")], self.keep_start_up_warning)

    def wait_for_announcement(self, text, start=0, timeout=DEFAULT_TIMEOUT):
        return self.plinkora.wait_for_line("^Announcing: " + re.escape(text) + "$", start=start, timeout=timeout)
