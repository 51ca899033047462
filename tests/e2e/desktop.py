"""A private desktop for end-to-end tests of the real plinkora binary.

Starts, each on a private name, an X server (Xvfb) with a window manager, a JACK server with
the dummy driver, a JACK MIDI receiver listening to PLK:PLK, and plinkora itself; presses real
keys through the X server with xdotool; and stops everything it started by process id, also
when a test fails.

Paths come from the environment (CTest sets them): PLINKORA_BIN, PLINKORA_RECEIVER. The X server,
the window manager and the process helper come from tests/support/services.py.
"""

import fcntl
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))

from services import DEFAULT_TIMEOUT, Process, WindowManager, XServer, wait_until  # noqa: E402,F401

class Desktop:
    """Xvfb + openbox + private JACK + receiver; plinkora started on demand."""

    # The MIDI system plinkora is started on unless a test names one; None: its own choice.
    midi_api = "jack"

    def __init__(self, with_jack=True):
        self.with_jack = with_jack
        self.processes = []
        self.plinkora = None
        self.receiver = None
        self.tmp = tempfile.mkdtemp(prefix="plinkora-e2e-")
        # A program built with the sanitizers writes any report here instead of only to its
        # standard error: closing the desktop fails the test when one was written.
        self.sanitizer_reports = tempfile.mkdtemp(prefix="plinkora-sanitizer-")
        self.jack_name = f"plk-e2e-{os.getpid()}-{id(self) & 0xffff:x}"
        self.env = dict(os.environ)
        for key in ("DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "SESSION_MANAGER", "DBUS_SESSION_BUS_ADDRESS"):
            self.env.pop(key, None)
        home = os.path.join(self.tmp, "home")
        runtime = os.path.join(self.tmp, "runtime")
        os.makedirs(home)
        os.makedirs(runtime, mode=0o700)
        self.env.update({
            "HOME": home,
            "XDG_CONFIG_HOME": os.path.join(home, ".config"),
            "XDG_DATA_HOME": os.path.join(home, ".local", "share"),
            "XDG_CACHE_HOME": os.path.join(home, ".cache"),
            "XDG_RUNTIME_DIR": runtime,
            "JACK_DEFAULT_SERVER": self.jack_name,
            "JACK_NO_AUDIO_RESERVATION": "1",
            "JACK_NO_START_SERVER": "1",
            "LANG": "C.UTF-8",
            # Plinkora's voice finds no speech service here and must not start the system's one
            # (libspeechd starts SPEECHD_CMD when nothing answers; that process would outlive
            # the test).
            "SPEECHD_ADDRESS": f"unix_socket:{runtime}/no-speech-service",
            "SPEECHD_CMD": "/nonexistent/speech-dispatcher",
            # No session bus: without an address libdbus would start one for the display
            # (dbus-launch --autolaunch), which outlives the test too.
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={runtime}/no-session-bus",
            # Every process started from this desktop carries it (see processes_left()).
            "PLINKORA_E2E_DESKTOP": self.tmp,
        })
        for tool in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
            log = f"log_path={os.path.join(self.sanitizer_reports, 'report')}"
            self.env[tool] = f"{self.env[tool]}:{log}" if self.env.get(tool) else log

    # --- life ---------------------------------------------------------------------------

    def __enter__(self):
        try:
            self._start_display()
            if self.with_jack:
                self._start_jack()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        for process in reversed(self.processes):
            process.stop()
        self.processes.clear()
        if getattr(self, "_lock", None):
            self._lock.close()  # releases the lock
            self._lock = None
        shutil.rmtree(self.tmp, ignore_errors=True)
        reports = self.sanitizer_report_texts()
        shutil.rmtree(self.sanitizer_reports, ignore_errors=True)
        if reports:
            raise AssertionError("sanitizer reports:\n" + "\n".join(reports))

    def sanitizer_report_texts(self):
        """The reports that the sanitizers of the programs started here wrote, if any."""
        texts = []
        for name in sorted(os.listdir(self.sanitizer_reports)) if os.path.isdir(self.sanitizer_reports) else []:
            with open(os.path.join(self.sanitizer_reports, name), errors="replace") as f:
                texts.append(f"--- {name}\n{f.read()}")
        return texts

    def processes_left(self):
        """Process ids of the processes still running with this desktop's environment: every
        process started from it, by the desktop or by its children (a daemon that detached
        itself included), carries PLINKORA_E2E_DESKTOP with this desktop's folder."""
        marker = f"PLINKORA_E2E_DESKTOP={self.tmp}".encode()
        found = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open(f"/proc/{entry}/environ", "rb") as f:
                    environment = f.read().split(b"\0")
                with open(f"/proc/{entry}/stat") as f:
                    state = f.read().rsplit(")", 1)[1].split()[0]
            except OSError:  # gone meanwhile, or not ours to read
                continue
            if marker in environment and state != "Z":
                found.append(int(entry))
        return found

    def stop_x_server(self):
        """Ends the private X server by its process id, as when the display goes away."""
        xvfb = next(p for p in self.processes if p.name == "Xvfb")
        xvfb.stop()

    def _spawn(self, name, argv, env=None, capture=True):
        process = Process(name, argv, env=env or self.env, capture=capture)
        self.processes.append(process)
        return process

    def _start_display(self):
        x_server = XServer()
        self.processes.append(x_server)
        self.env["DISPLAY"] = x_server.display
        self.processes.append(WindowManager(x_server.display, env=self.env))
        time.sleep(0.5)  # openbox takes over focus handling

    def _start_jack(self):
        # JACK 2 names client sockets without the server's name, so two private servers with a
        # "PLK" client each would collide: one JACK test at a time on this machine. Larger
        # periods keep xruns (which drop MIDI events on a loaded machine) away.
        self._lock = open(os.environ.get("PLINKORA_JACK_TEST_LOCK", "/tmp/plinkora-jack-tests.lock"), "a")
        fcntl.flock(self._lock, fcntl.LOCK_EX)
        self._spawn_jackd()
        self.receiver = self.start_receiver(connect=True)

    def _spawn_jackd(self):
        self.jackd = self._spawn("jackd", ["jackd", "--no-realtime", "-t", "5000", "-n", self.jack_name,
                                           "-d", "dummy", "-r", "48000", "-p", "256"])
        self.wait_until(lambda: subprocess.run(["jack_lsp"], env=self.env, capture_output=True).returncode == 0,
                        timeout=DEFAULT_TIMEOUT, what="the JACK server to answer")

    def start_receiver(self, connect):
        """A receiver called rx<pid>; with `connect` it connects itself to PLK:PLK."""
        argv = [os.environ["PLINKORA_RECEIVER"], "--client", f"rx{os.getpid()}"]
        if connect:
            argv += ["--connect", "PLK:PLK"]
        receiver = self._spawn("receiver", argv)
        receiver.wait_for_line(r"^ready ")
        return receiver

    def kill_jack(self):
        """Kills the JACK server as a crash would (keeping the machine's JACK test lock)."""
        self.jackd.stop(sig=signal.SIGKILL)
        for name in os.listdir("/dev/shm"):  # what a killed server leaves, by its unique name
            if name.startswith(f"jack_{self.jack_name}_") or (name.startswith("jack_sem.")
                                                               and f"_{self.jack_name}_" in name):
                try:
                    os.remove(os.path.join("/dev/shm", name))
                except OSError:
                    pass

    def restart_jack(self):
        """A server of the same name again, and a receiver that connects nothing itself."""
        self._spawn_jackd()
        self.receiver = self.start_receiver(connect=False)

    # --- plinkora -----------------------------------------------------------------------

    def start_plinkora(self, *args, wait_connected=True):
        argv = [os.environ["PLINKORA_BIN"], *args]
        if self.with_jack and self.midi_api and "--midi-api" not in args:
            argv += ["--midi-api", self.midi_api]
        if not any(a == "--synth" or a.startswith("--synth=") for a in args):
            # The built-in synthesizer only where a test is about it: its audio output (JACK
            # ports, or a failure line and announcement where no sound server runs) is not what
            # the other tests look at.
            argv += ["--synth", "off"]
        process = self._spawn("plinkora", argv)
        if self.plinkora is None:
            self.plinkora = process
        if wait_connected and self.with_jack:
            self.receiver.wait_for_line(r"^connected PLK:PLK$")
        self.window = self.wait_for_window("^Plinkora$")
        self.activate(self.window)
        # Keyboard input has arrived once a key Plinkora passes on (Return) reaches it.
        self.key("Return")
        process.wait_for_line(r"^Key event received: type=11 keyCode=36$")
        return process

    def wait_for_window(self, name_regex, timeout=DEFAULT_TIMEOUT):
        found = {}

        def search():
            out = self.xdotool("search", "--onlyvisible", "--name", name_regex, check=False)
            if out:
                found["id"] = out.split()[0]
                return True
            return False

        self.wait_until(search, timeout=timeout, what=f"a window named {name_regex}")
        return found["id"]

    def activate(self, window):
        self.xdotool("windowactivate", "--sync", window, check=False)
        self.wait_until(lambda: self.xdotool("getactivewindow", check=False) == window, timeout=10,
                        what="the window to be active")
        time.sleep(0.2)

    # --- keys ---------------------------------------------------------------------------

    def xdotool(self, *args, check=True):
        result = subprocess.run(["xdotool", *args], env=self.env, capture_output=True, text=True, timeout=30)
        if check and result.returncode != 0:
            raise AssertionError(f"xdotool {' '.join(args)} failed: {result.stderr}")
        return result.stdout.strip() if result.returncode == 0 else None

    def key(self, *keys):
        """Presses and releases each key (X keysym names such as a, Tab, shift+Tab, ctrl+q)."""
        for k in keys:
            self.xdotool("key", "--clearmodifiers", k)

    def chord(self, modifier, k):
        """Holds `modifier`, presses and releases `k`, then lets the modifier go: the order in
        which people press shortcuts (xdotool's own "ctrl+a" lets Control go first)."""
        self.xdotool("keydown", modifier)
        self.xdotool("key", k)
        self.xdotool("keyup", modifier)

    def keydown(self, k):
        self.xdotool("keydown", k)

    def keyup(self, k):
        self.xdotool("keyup", k)

    def set_layout(self, layout):
        subprocess.run(["setxkbmap", layout], env=self.env, check=True, timeout=30)

    # --- MIDI ---------------------------------------------------------------------------

    def midi(self):
        """The MIDI messages the receiver saw, as lists of byte values."""
        return [[int(b, 16) for b in line.split()] for line in self.receiver.snapshot()
                if re.fullmatch(r"[0-9A-F]{2}( [0-9A-F]{2})*", line)]

    def wait_for_midi(self, count, timeout=DEFAULT_TIMEOUT):
        self.wait_until(lambda: len(self.midi()) >= count, timeout=timeout,
                        what=f"{count} MIDI messages (have {self.midi()})")
        return self.midi()

    def settle(self, seconds=0.4):
        time.sleep(seconds)

    @staticmethod
    def wait_until(condition, timeout=DEFAULT_TIMEOUT, what="a condition", interval=0.05):
        wait_until(condition, timeout=timeout, what=what, interval=interval)
