"""The desktop for the tests in which Plinkora is heard without the screen.

`A11yDesktop` extends the end-to-end harness (tests/e2e/desktop.py: Xvfb, openbox, optionally a
private JACK server, Plinkora and xdotool) with the private services of tests/support/services.py:
a session bus, the AT-SPI accessibility bus, the recording speech-dispatcher, Orca and a
PulseAudio server with a null sink. A watchdog stops them even when the test process is killed.
"""

import json
import os
import re
import select
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))

from desktop import DEFAULT_TIMEOUT, Desktop  # noqa: E402
from services import (AccessibilityBus, Orca, PulseServer, SessionBus, SinkRecorder,  # noqa: E402,F401
                      SpeechService, die_with_parent, become_subreaper, guarded, private_folder,
                      start_time, wait_until, write_file)

HERE = os.path.dirname(os.path.abspath(__file__))
SYSTEM_PYTHON = "/usr/bin/python3"


# Said once after start when nothing will sound (always so on the null MIDI system the tests use
# without JACK). The tests of other announcements do not see it: the start-up waits for the
# check, and what was said and announced is read without it unless a test asks for it.
START_UP_WARNING = "Nothing is connected to PLK"


def _without_start_up_warning(texts, keep):
    return list(texts) if keep else [t for t in texts if t.strip().rstrip(".") != START_UP_WARNING]


def _ignored(keep_start_up_warning):
    """What the speech service and Orca leave out of what was said."""
    return () if keep_start_up_warning else (START_UP_WARNING,)


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
        self.speech.ignored_texts = _ignored(self.keep_start_up_warning)
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
        self.orca.ignored_texts = _ignored(self.keep_start_up_warning)
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
