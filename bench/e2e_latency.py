"""End-to-end latency and idle cost of Plinkora, side by side with the floor of the machine and a
peer program, measured from outside. Run through bench/e2e_latency.sh (which installs and
builds what it needs); see that script for the options.

For each JACK period (dummy driver, 48 kHz), in one private desktop (Xvfb, openbox and a JACK
server of the end-to-end tests' harness, tests/e2e/desktop.py):
  reference     bench/reference_keyboard (bare Xlib window, JACK client, lock-free ring)
  plinkora      plinkora --midi-api jack (standard output to a file)
  jack-keyboard Debian's jack-keyboard, as it starts by default
  plinkora+orca plinkora again, with the session bus, the accessibility bus, a speech service and
                Orca running (the accessibility tests' services, tests/a11y/a11y_services.py)
Each program gets the same fixed-seed key sequence through XTest (bench/xtest_typer), and
bench/latency_receiver stamps what reaches its JACK input on the same clock. Then the program
idles (CPU, wake-ups, memory), and is started 5 more times under bench/startup_probe.

The figures:
  latency     receiver's time of the MIDI event (clock at the top of its process callback plus
              the event's frame offset) minus the typist's clock just before the XTest call, for
              the measured events matched to their message; mean, median, p90, p99, and the p99
              of the events with no xrun from two periods before the key to two periods after
              the message. Key times are spread evenly over the JACK cycle, so the mean is the
              program's own delay plus half a period: differences of means compare programs
              below the period's granularity.
  missing     measured key events without their message (a press: note on; a release: note off
              or note on with velocity 0) before the next key event of the same kind; in
              brackets how many of them had an xrun from two periods before the key to two
              periods after the next key of its kind (JACK drops what a late client wrote)
  extra       messages that fit no key event, and messages other than notes
  xruns       JACK xruns reported during the typing (jackd runs --no-realtime, as the tests do)
  idle CPU    utime + stime from /proc/PID/stat over the idle window, % of one core
  wake-ups/s  voluntary + involuntary context switches of the live threads over the idle window
  memory      RssAnon + RssFile at the end of the idle window (VmRSS counts JACK's shared memory)
  start       median over the launches of exec -> port registered and exec -> window mapped
The JACK lock of the tests is taken for each period; when another user keeps it for more than
$PLINKORA_BENCH_LOCK_WAIT seconds (default 180) the benchmark goes ahead and says so.
Logs: $PLINKORA_BENCH_LOGS, else /tmp/plinkora-e2e-latency-PID.
"""

import argparse
import fcntl
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "a11y"))

from a11y_services import A11yDesktop  # noqa: E402
from desktop import Process  # noqa: E402

RATE = 48000
CLK_TCK = os.sysconf("SC_CLK_TCK")
LOCK_WAIT = float(os.environ.get("PLINKORA_BENCH_LOCK_WAIT", "180"))


# --- programs ---------------------------------------------------------------------------------

class Program:
    def __init__(self, name, argv, port, title, orca=False):
        self.name, self.argv, self.port, self.title, self.orca = name, argv, port, title, orca


def programs(build):
    plinkora = [os.path.join(build, "bin", "plinkora"), "--midi-api", "jack"]
    return [
        Program("reference", [os.path.join(build, "bin", "reference_keyboard")], "plkref:out", "plk-reference"),
        Program("plinkora", plinkora, "PLK:PLK", "Plinkora"),
        Program("jack-keyboard", ["jack-keyboard"], "jack-keyboard:midi_out", "jack-keyboard"),
        Program("plinkora+orca", plinkora, "PLK:PLK", "Plinkora", orca=True),
    ]


# --- the desktop ------------------------------------------------------------------------------

class BenchDesktop(A11yDesktop):
    """The accessibility tests' desktop with a JACK server of the given period and the stamping
    receiver listening to every program's port."""

    def __init__(self, build, period, ports):
        self.build, self.period, self.ports = build, period, ports
        super().__init__(with_jack=True)

    def _start_jack(self):
        # One JACK user at a time on this machine (JACK 2 client sockets ignore the server name),
        # but a benchmark does not wait for ever: after LOCK_WAIT seconds it goes ahead and says so.
        self._lock = open(os.environ.get("PLINKORA_JACK_TEST_LOCK", "/tmp/plinkora-jack-tests.lock"), "a")
        deadline = time.monotonic() + LOCK_WAIT
        while True:
            try:
                fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                if time.monotonic() > deadline:
                    print(f"  the JACK lock {self._lock.name} stayed taken for {LOCK_WAIT} s: going ahead without "
                          "it (another JACK client named PLK on this machine would disturb the run)",
                          file=sys.stderr, flush=True)
                    break
                time.sleep(0.5)
        jackd = self._spawn("jackd", ["jackd", "--no-realtime", "-t", "5000", "-n", self.jack_name,
                                      "-d", "dummy", "-r", str(RATE), "-p", str(self.period)])
        try:
            self.wait_until(lambda: subprocess.run(["jack_lsp"], env=self.env, capture_output=True).returncode == 0,
                            what="the JACK server to answer")
        except AssertionError as error:
            # "Too many servers already active": JACK 2's registry of servers (8 places) is full
            # of servers that were killed; a place is freed when a server of the same name starts.
            raise AssertionError(f"{error}; jackd said: {jackd.stderr_lines[-5:]}") from None
        argv = [os.path.join(self.build, "bin", "latency_receiver"), "--client", f"lrx{os.getpid()}"]
        for port in self.ports:
            argv += ["--connect", port]
        self.receiver = self._spawn("receiver", argv)
        self.receiver.wait_for_line(r"^ready ")

    def launch(self, program, log):
        """Starts a program with its output appended to `log` (a file: nothing wakes a reader)."""
        out = open(log, "a")
        proc = subprocess.Popen(program.argv, env=self.env, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                start_new_session=True)
        out.close()
        wrapper = Process.__new__(Process)
        wrapper.name, wrapper.proc, wrapper.lines, wrapper.stderr_lines = program.name, proc, [], []
        self.processes.append(wrapper)
        self.watchdog.watch(proc.pid)
        return wrapper

    def forget(self, process):
        process.stop()
        if process in self.processes:
            self.processes.remove(process)


# --- measuring --------------------------------------------------------------------------------

def proc_counters(pid):
    """(processor ticks, {thread id: (name, context switches)} of the live threads,
    RssAnon + RssFile in kB)."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = int(fields[11]) + int(fields[12])  # utime, stime (fields 14 and 15)
    switches = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/comm") as f:
                name = f.read().strip()
            count = 0
            with open(f"/proc/{pid}/task/{task}/status") as f:
                for line in f:
                    if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                        count += int(line.split()[1])
            switches[task] = (name + (" (main)" if task == str(pid) else ""), count)
        except OSError:
            pass
    rss = 0
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(("RssAnon:", "RssFile:")):
                rss += int(line.split()[1])
    return ticks, switches, rss


def percentile(values, p):
    """Nearest-rank percentile of a sorted list."""
    if not values:
        return float("nan")
    rank = max(1, -(-len(values) * p // 100))
    return values[int(rank) - 1]


def match(stamps, lines, period):
    """Latencies (ms) of the measured key events, the xrun-free ones, missing and extra counts,
    how many of the missing had an xrun near them, and the number of xruns.

    Each key event expects one note message of its kind (press: note on, release: note off or
    note on with velocity 0), the first such message after its stamp and before the next event
    of the same kind; messages that fit no event are extra."""
    messages = []
    xruns = []
    for line in lines:
        parts = line.split()
        if parts[0] == "midi" and len(parts) >= 6:
            status, velocity = int(parts[4], 16), int(parts[6], 16) if len(parts) > 6 else 0
            kind = None
            if status & 0xF0 == 0x90:
                kind = "press" if velocity > 0 else "release"
            elif status & 0xF0 == 0x80:
                kind = "release"
            messages.append((int(parts[1]), kind))
        elif parts[0] == "xrun":
            xruns.append(int(parts[1]))
    first = stamps[0][2]
    messages = [m for m in messages if m[0] >= first]
    messages.sort()
    period_ns = period * 1e9 / RATE
    latencies, clean, missing, missing_in_xruns, extra = [], [], 0, 0, 0
    j = 0
    for i, (kind, _, stamp, label) in enumerate(stamps):
        following = stamps[i + 2][2] if i + 2 < len(stamps) else float("inf")
        while j < len(messages) and (messages[j][0] < stamp or messages[j][1] is None):
            if label == "measured" or messages[j][1] is None:
                extra += 1
            j += 1
        if j < len(messages) and messages[j][1] == kind and messages[j][0] < following:
            arrival = messages[j][0]
            j += 1
            if label != "measured":
                continue
            latency = (arrival - stamp) / 1e6
            latencies.append(latency)
            if not any(stamp - 2 * period_ns <= x <= arrival + 2 * period_ns for x in xruns):
                clean.append(latency)
        elif label == "measured":
            missing += 1
            # Its message was due between the key and the next key of its kind.
            due_by = min(following, stamp + 1e9)
            if any(stamp - 2 * period_ns <= x <= due_by + 2 * period_ns for x in xruns):
                missing_in_xruns += 1
    extra += len(messages) - j
    return sorted(latencies), sorted(clean), missing, missing_in_xruns, extra, len(xruns)


class Row(dict):
    pass


def measure(desktop, program, args, work):
    """Types the sequence into one running program, then measures it idle."""
    row = Row(name=program.name, period=desktop.period)
    log = os.path.join(work, f"{program.name}-{desktop.period}.log")
    before = len(desktop.receiver.snapshot())
    process = desktop.launch(program, log)
    try:
        desktop.receiver.wait_for_line(r"^connected " + program.port + "$", start=before, timeout=60)
        window = desktop.wait_for_window("^" + program.title + "$", timeout=60)
        desktop.activate(window)
        if program.orca:
            time.sleep(args.orca_settle)  # Orca presents the window
        start = len(desktop.receiver.snapshot())
        typer = subprocess.run([os.path.join(args.build, "bin", "xtest_typer"), "--seed", str(args.seed),
                                "--pairs", str(args.pairs), "--warmup", str(args.warmup)],
                               env=desktop.env, capture_output=True, text=True, timeout=600, check=True)
        time.sleep(0.5)
        stamps = []
        for line in typer.stdout.splitlines():
            kind, code, stamp, label = line.split()
            stamps.append((kind, int(code), int(stamp), label))
        lines = [line for line in desktop.receiver.snapshot()[start:] if line.startswith(("midi", "xrun"))]
        latencies, clean, missing, missing_in_xruns, extra, xruns = match(stamps, lines, desktop.period)
        row.update(latencies=latencies, clean=clean, missing=missing, missing_in_xruns=missing_in_xruns,
                   extra=extra, xruns=xruns,
                   events=sum(1 for s in stamps if s[3] == "measured"))
        time.sleep(2)
        t0 = time.monotonic()
        ticks0, switches0, _ = proc_counters(process.pid)
        time.sleep(args.idle)
        ticks1, switches1, rss = proc_counters(process.pid)
        seconds = time.monotonic() - t0
        threads = sorted(((name, (count - switches0.get(tid, (name, 0))[1]) / seconds)
                          for tid, (name, count) in switches1.items()), key=lambda t: -t[1])
        row.update(cpu=100.0 * (ticks1 - ticks0) / CLK_TCK / seconds, wakeups=sum(rate for _, rate in threads),
                   threads=threads, rss=rss / 1024.0)
        if program.orca:
            row["orca_saw_it"] = "plinkora" in desktop.orca.log().lower()
    finally:
        desktop.forget(process)
    if not program.orca and args.launches > 0:
        ports, windows = [], []
        for _ in range(args.launches):
            out = subprocess.run([os.path.join(args.build, "bin", "startup_probe"), "--port", program.port,
                                  "--title", program.title, "--timeout-ms", "30000", "--log", log, "--",
                                  *program.argv], env=desktop.env, capture_output=True, text=True, timeout=120)
            fields = out.stdout.split()
            if len(fields) >= 4 and fields[1] != "-" and fields[3] != "-":
                ports.append(float(fields[1]))
                windows.append(float(fields[3]))
        row.update(port_ms=statistics.median(ports) if ports else None,
                   window_ms=statistics.median(windows) if windows else None)
    return row


def run_period(args, period, work):
    rows = []
    chosen = [p for p in programs(args.build) if p.name in args.programs]
    with BenchDesktop(args.build, period, sorted({p.port for p in chosen})) as desktop:
        subprocess.run(["xset", "r", "off"], env=desktop.env, check=False)  # no key repeat
        for program in chosen:
            if program.orca:
                desktop.start_accessibility_bus()
                speech = desktop.make_speech_service(speaking_time=0.3)
                desktop.start_orca(speech=speech)
            print(f"  period {period}: {program.name} ...", file=sys.stderr, flush=True)
            rows.append(measure(desktop, program, args, work))
    return rows


# --- the table --------------------------------------------------------------------------------

def fmt(value, digits=2):
    if value is None or value != value:
        return "-"
    return f"{value:.{digits}f}"


def figures(row):
    lat, clean = row["latencies"], row["clean"]
    return {
        "mean": statistics.fmean(lat) if lat else None,
        "median": statistics.median(lat) if lat else None,
        "p90": percentile(lat, 90),
        "p99": percentile(lat, 99),
        "p99 no xrun": percentile(clean, 99),
    }


def missing_cell(row):
    if not row["missing"]:
        return "0"
    return f"{row['missing']} ({row['missing_in_xruns']} near an xrun)"


def print_table(rows):
    print("| program | period | mean ms | median ms | p90 ms | p99 ms | p99 no xrun ms (n) | missing / extra | xruns "
          "| idle CPU % | wake-ups/s | memory MB | start: port ms | start: window ms |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    for row in rows:
        f = figures(row)
        print(f"| {row['name']} | {row['period']} | {fmt(f['mean'])} | {fmt(f['median'])} | {fmt(f['p90'])} | {fmt(f['p99'])} "
              f"| {fmt(f['p99 no xrun'])} ({len(row['clean'])}) | {missing_cell(row)} / {row['extra']} "
              f"| {row['xruns']} | {fmt(row['cpu'])} | {fmt(row['wakeups'], 1)} | {fmt(row['rss'], 1)} "
              f"| {fmt(row.get('port_ms'), 0)} | {fmt(row.get('window_ms'), 0)} |")


def print_differences(rows):
    print()
    print("Plinkora minus the others, same run (ms, except CPU in % of a core, wake-ups/s, MB):")
    for period in sorted({r["period"] for r in rows}):
        by_name = {r["name"]: r for r in rows if r["period"] == period}
        if "plinkora" not in by_name:
            continue
        mine = by_name["plinkora"]
        for other in ("reference", "jack-keyboard", "plinkora+orca"):
            if other not in by_name:
                continue
            theirs = by_name[other]
            a, b = figures(mine), figures(theirs)
            sign = -1 if other == "plinkora+orca" else 1
            parts = [f"{k} {sign * (a[k] - b[k]):+.2f}" for k in ("mean", "median", "p90", "p99", "p99 no xrun")
                     if a[k] is not None and b[k] is not None and a[k] == a[k] and b[k] == b[k]]
            parts.append(f"idle CPU {sign * (mine['cpu'] - theirs['cpu']):+.2f}")
            parts.append(f"wake-ups {sign * (mine['wakeups'] - theirs['wakeups']):+.1f}")
            parts.append(f"memory {sign * (mine['rss'] - theirs['rss']):+.1f}")
            for key in ("port_ms", "window_ms"):
                if mine.get(key) is not None and theirs.get(key) is not None:
                    parts.append(f"{key[:-3]} {mine[key] - theirs[key]:+.0f}")
            label = "with Orca minus without" if other == "plinkora+orca" else f"vs {other}"
            print(f"  period {period}, {label}: " + ", ".join(parts))


def print_threads(rows):
    print()
    print("Idle wake-ups per second by thread (context switches over the idle window):")
    for row in rows:
        busy = [f"{name} {rate:.1f}" for name, rate in row["threads"] if rate >= 0.05]
        print(f"  {row['name']}, period {row['period']}: " + (", ".join(busy) or "none"))
    for row in rows:
        if "orca_saw_it" in row:
            print(f"  Orca's log names Plinkora (period {row['period']}): {'yes' if row['orca_saw_it'] else 'NO'}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--periods", default="64,256")
    parser.add_argument("--pairs", type=int, default=240)
    parser.add_argument("--warmup", type=int, default=10)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--idle", type=float, default=20.0)
    parser.add_argument("--launches", type=int, default=5)
    parser.add_argument("--orca-settle", type=float, default=5.0)
    parser.add_argument("--programs", default="reference,plinkora,jack-keyboard,plinkora+orca")
    args = parser.parse_args()
    args.build = os.path.abspath(args.build)
    args.programs = args.programs.split(",")
    work = os.environ.get("PLINKORA_BENCH_LOGS") or os.path.join("/tmp", f"plinkora-e2e-latency-{os.getpid()}")
    os.makedirs(work, exist_ok=True)
    load = open("/proc/loadavg").read().split()[:3]
    print(f"End-to-end: XTest key event -> JACK MIDI event at a receiver on the same clock. {os.cpu_count()} CPUs, "
          f"load average {' '.join(load)}; JACK dummy {RATE} Hz; {args.pairs} pairs after {args.warmup} warm-up "
          f"pairs, gaps 20-40 ms, seed {args.seed}; idle {args.idle:g} s; start-up median of {args.launches}")
    rows = []
    for period in [int(p) for p in args.periods.split(",")]:
        rows += run_period(args, period, work)
    print()
    print_table(rows)
    print_differences(rows)
    print_threads(rows)
    print(f"\nload average at the end {' '.join(open('/proc/loadavg').read().split()[:3])}; logs in {work}")


if __name__ == "__main__":
    main()
