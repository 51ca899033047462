#!/usr/bin/python3
"""Soak benchmark: many random key events through the X server into the real program, with a
JACK receiver at PLK:PLK (the private desktop of tests/e2e/desktop.py).

A fixed-seed sequence of presses and releases of note keys, octave keys, velocity keys and
Shift is typed through XTest at a steady rate (auto-repeat off). A model of the key handling
gives the MIDI messages that must arrive: a note-on (channel 1, the current velocity) at the
press of a note key that is not held, the note counted by number so that a note already
sounding is not started again; a note-off at every release, computed from the octave of that
moment; sustain on and off with Shift; and at the shut-down the note-offs of the notes still
counted, the bend centre and modulation 0. Printed: events sent, the rate reached, messages
expected and received, the first difference if any, whether the program ran to the end and
quit cleanly, and its resident memory after the warm-up and at the end.

Two more receivers, started with --times, give each message the time of the JACK cycle that
brought it, and the times of the xruns they heard and of the cycles they were not run in; the
program, run with PLINKORA_MIDI_TALLY, prints how many messages its JACK port took; the JACK
server's log names the clients that were late. Each message missing at a timed receiver is
listed with the time it was due and the xruns near it: one lost within two periods of an xrun
or in a cycle that receiver was not run in, while the program was given every key event and its
port took every message, was lost by JACK in that xrun and is counted apart; so is a message
received twice there (JACK handing the receiver a late client's port again).

Exits non-zero when a message is missing or extra other than so, or the program crashed; memory
is a figure.

Usage: /usr/bin/python3 bench/soak.py [--events 100000] [--rate 200] [--seed 1]
Paths: PLINKORA_BIN, PLINKORA_RECEIVER (default build/bin/plinkora, build/bin/jack_midi_receiver).
"""

import argparse
import bisect
import os
import random
import re
import signal
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))

from Xlib import X  # noqa: E402  (Debian: python3-xlib)
from Xlib.display import Display  # noqa: E402
from Xlib.ext import xtest  # noqa: E402

from desktop import Desktop  # noqa: E402

# X key codes (evdev + 8, the same on every layout) and what they are to Plinkora.
NOTE_KEYS = {  # X key code: semitones above the octave's C
    38: 0, 25: 1, 39: 2, 26: 3, 40: 4, 41: 5, 28: 6, 42: 7, 29: 8, 43: 9, 30: 10, 44: 11, 45: 12,
    32: 13, 46: 14, 33: 15, 47: 16, 49: 17, 35: 18, 48: 19, 24: 20, 27: 21, 31: 22, 34: 23, 51: 24,
}  # A W S E D F T G Y H U J K O L P ; ` ] ' Q R I [ \
OCTAVE_KEYS = {10: 1, 11: 2, 12: 3, 13: 4, 14: 5, 15: 6, 16: 7, 17: 8, 18: 9, 19: 0}  # 1 ... 9 0
VELOCITY_KEYS = {52: 20, 53: 40, 54: 60, 55: 80, 56: 100, 57: 115, 58: 120, 59: 127}  # Z X C V B N M ,
SHIFT = 50


def key_sequence(count, seed):
    """`count` X events (press, key code), every key released by the end."""
    rng = random.Random(seed)
    notes, octaves, velocities = list(NOTE_KEYS), list(OCTAVE_KEYS), list(VELOCITY_KEYS)
    held, events = [], []
    while len(events) < count - len(held):
        if held and (len(held) >= 6 or rng.random() < 0.45):
            code = held.pop(rng.randrange(len(held)))
            events.append((False, code))
            continue
        r = rng.random()
        pool = notes if r < 0.8 else octaves if r < 0.88 else velocities if r < 0.96 else [SHIFT]
        code = rng.choice(pool)
        if code in held:
            continue
        held.append(code)
        events.append((True, code))
    events += [(False, code) for code in reversed(held)]
    return events


def expected_messages(events, origins=False):
    """What the key handling and the MIDI output send for `events`, then at the shut-down; with
    `origins`, for each of those messages the index of the key event that sends it (None for
    the shut-down's)."""
    octave, velocity, held, sounding, sustain = 4, 100, set(), set(), False
    out, origin = [], []
    for index, (press, code) in enumerate(events):
        origin += [index - 1] * (len(out) - len(origin))
        if code == SHIFT:
            if press != sustain:
                sustain = press
                out.append([0xB0, 64, 127 if press else 0])
            continue
        if press and code in OCTAVE_KEYS:
            octave = OCTAVE_KEYS[code]
        if press and code in VELOCITY_KEYS:
            velocity = VELOCITY_KEYS[code]
        if code not in NOTE_KEYS:
            continue
        note = max(0, min(127, octave * 12 + NOTE_KEYS[code]))
        if press:
            if code in held:
                continue
            held.add(code)
            if note not in sounding:
                sounding.add(note)
                out.append([0x90, note, velocity])
        else:
            held.discard(code)
            sounding.discard(note)
            out.append([0x80, note, 0])
    origin += [len(events) - 1] * (len(out) - len(origin))
    out += [[0x80, note, 0] for note in sorted(sounding)]
    out += [[0xE0, 0x00, 0x40], [0xB0, 1, 0]]
    origin += [None] * (len(out) - len(origin))
    return origin if origins else out


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        return int(re.search(r"^VmRSS:\s+(\d+) kB", f.read(), re.M).group(1))


def received(desktop):
    return [[int(b, 16) for b in line.split()] for line in desktop.receiver.snapshot()
            if re.fullmatch(r"[0-9A-F]{2}( [0-9A-F]{2})*", line)]


def wait_for_count(desktop, count, quiet_seconds=10.0):
    """Waits until `count` messages arrived or none arrived for `quiet_seconds`."""
    last, last_change = -1, time.monotonic()
    while True:
        have = len(desktop.receiver.snapshot())
        if have != last:
            last, last_change = have, time.monotonic()
        if len(received(desktop)) >= count or time.monotonic() - last_change > quiet_seconds:
            return
        time.sleep(0.5)


PERIOD_US = 256 * 1_000_000 // 48_000  # the private JACK server's period (tests/e2e/desktop.py)
XRUN_LINE = re.compile(r"^jack_midi_receiver: xrun at (\d+)$")
MISSED_LINE = re.compile(r"^jack_midi_receiver: cycle missed at (\d+) \((\d+) frames\)$")
TALLY_LINE = re.compile(r"^MIDI tally: (\d+) messages handed to the port, (\d+) refused$")
LATE_CLIENT = re.compile(r"XRun: client = (\S+) was not finished")


def timed_messages(receiver):
    """(bytes, time in µs) of each message a receiver started with --times printed."""
    out = []
    for line in receiver.snapshot():
        m = re.fullmatch(r"([0-9A-F]{2}(?: [0-9A-F]{2})*) @(-?\d+)", line)
        if m:
            out.append(([int(b, 16) for b in m.group(1).split()], int(m.group(2))))
    return out


def align(want, got, lookahead=64, confirm=4, reach=50_000):
    """Matches each received message to the next expected one equal to it (messages are lost,
    not reordered): (missing want indices, extra got indices, got index of each matched want
    index). A match is one where the next `confirm` messages agree too, searched among the next
    `lookahead` expected, then (a long run lost) among the next `reach` with twice as many
    agreeing; a received message matched by neither is extra."""
    missing, extra, matched = [], [], {}
    i = 0
    for j in range(len(got)):
        k = None
        for length, limit in ((confirm, lookahead), (2 * confirm, reach), (1, lookahead)):
            probe = got[j:j + length]
            k = next((k for k in range(i, min(i + limit, len(want))) if want[k:k + len(probe)] == probe), None)
            if k is not None:
                break
        if k is None:
            extra.append(j)
            continue
        missing += range(i, k)
        matched[k] = j
        i = k + 1
    missing += range(i, len(want))
    if extra:
        # Perhaps only lost ones after all: each received message taken as the first equal
        # expected one finds a place for every one of them whenever that is possible.
        i, greedy = 0, {}
        for j, message in enumerate(got):
            while i < len(want) and want[i] != message:
                i += 1
            if i == len(want):
                return missing, extra, matched
            greedy[i] = j
            i += 1
        return [k for k in range(len(want)) if k not in greedy], [], greedy
    return missing, extra, matched


def share_covered(times, reach, start, end):
    """The share of [start, end] lying within `reach` of one of `times`."""
    covered, last = 0, start
    for t in sorted(times):
        a, b = max(t - reach, last), min(t + reach, end)
        if b > a:
            covered += b - a
            last = b
    return covered / (end - start) if end > start else 0.0


def nearest(times, start, end):
    """The time in `times` closest to the interval [start, end], and its distance (0 inside)."""
    best = None
    for t in times:
        distance = 0 if start <= t <= end else min(abs(t - start), abs(t - end))
        if best is None or distance < best[1]:
            best = (t, distance)
    return best


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--events", type=int, default=100_000)
    parser.add_argument("--rate", type=float, default=200.0, help="events a second")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    os.environ.setdefault("PLINKORA_BIN", os.path.join(ROOT, "build", "bin", "plinkora"))
    os.environ.setdefault("PLINKORA_RECEIVER", os.path.join(ROOT, "build", "bin", "jack_midi_receiver"))

    os.environ["PLINKORA_MIDI_TALLY"] = "1"
    events = key_sequence(args.events, args.seed)
    expected_keys_only = expected_messages(events)[:-2]
    sent_at = [0] * len(events)
    with Desktop() as desktop:
        timed = {}
        for name in ("A", "B"):
            timed[name] = desktop._spawn(f"timed receiver {name}", [
                os.environ["PLINKORA_RECEIVER"], "--client", f"rx{name}{os.getpid()}", "--connect", "PLK:PLK", "--times"])
            timed[name].wait_for_line(r"^ready ")
        plinkora = desktop.start_plinkora()
        for receiver in timed.values():
            receiver.wait_for_line(r"^connected PLK:PLK$")
        display = Display(desktop.env["DISPLAY"])
        display.change_keyboard_control(auto_repeat_mode=X.AutoRepeatModeOff)
        display.sync()
        warm_up = min(1000, len(events) // 10)
        rss_start = None
        began = time.monotonic()
        for i, (press, code) in enumerate(events):
            if i == warm_up:
                rss_start = resident_kib(plinkora.pid)
            delay = began + i / args.rate - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            xtest.fake_input(display, X.KeyPress if press else X.KeyRelease, code)
            display.flush()
            sent_at[i] = time.monotonic_ns() // 1000
            if not plinkora.running():
                break
        display.sync()
        sent_seconds = time.monotonic() - began
        wait_for_count(desktop, len(expected_keys_only))
        still_running = plinkora.running()
        rss_end = resident_kib(plinkora.pid) if still_running else None
        exit_code = plinkora.stop(sig=signal.SIGTERM, timeout=30)
        wait_for_count(desktop, len(expected_keys_only) + 2, quiet_seconds=3)
        time.sleep(1)
        got = received(desktop)
        streams = {name: timed_messages(receiver) for name, receiver in timed.items()}
        key_lines = sum(1 for line in plinkora.snapshot() if re.match(r"Key event received: type=1[012] ", line))
        xruns = sum(1 for line in desktop.receiver.stderr_lines if line.endswith(": xrun"))
        xrun_times = [int(m.group(1)) for m in map(XRUN_LINE.match, list(timed["A"].stderr_lines)) if m]
        # A cycle a receiver was not run in: from the start of the first cycle missed to the
        # start of the cycle it was run in again.
        missed = {name: [(int(m.group(1)) - int(m.group(2)) * 1_000_000 // 48_000 - PERIOD_US, int(m.group(1)))
                         for m in map(MISSED_LINE.match, list(receiver.stderr_lines)) if m]
                  for name, receiver in timed.items()}
        tally = next((m for m in map(TALLY_LINE.match, list(plinkora.stderr_lines)) if m), None)
        late_clients = {}
        for line in desktop.jackd.lines + desktop.jackd.stderr_lines:
            m = LATE_CLIENT.search(line)
            if m:
                late_clients[m.group(1)] = late_clients.get(m.group(1), 0) + 1
        display.close()

    want = expected_messages(events)
    print(f"events sent: {len(events)} in {sent_seconds:.1f} s ({len(events) / sent_seconds:.1f} a second)")
    print(f"MIDI messages: expected {len(want)}, received {len(got)}")
    first_difference = next((i for i, (a, b) in enumerate(zip(want, got)) if a != b), None)
    if first_difference is None and len(want) != len(got):
        first_difference = min(len(want), len(got))
    if first_difference is not None:
        print(f"first difference at message {first_difference}: expected {want[first_difference:first_difference + 3]}, "
              f"received {got[first_difference:first_difference + 3]}")
    # The program prints a line for every key press and release it is given, Return included.
    print(f"key presses and releases the program was given: {key_lines} (sent {len(events)}, and Return pressed and released at the start)")
    print(f"xruns JACK reported to the receiver (an xrun can drop MIDI events): {xruns}")
    handed = int(tally.group(1)) if tally else None
    if tally:
        print(f"the program's JACK port took {handed} messages (expected {len(want)}), refused {tally.group(2)}")
    else:
        print("the program printed no MIDI tally")
    print("clients JACK found late in an xrun: " + (", ".join(f"{k} {v} times" for k, v in sorted(late_clients.items()))
                                                     or "none named"))

    # The timed receivers: each missing message with the time it was due (between the
    # messages received before and after it) and the xruns and missed cycles near that.
    origin_of = expected_messages(events, origins=True)
    want_keys = [tuple(m) for m in want]
    unexplained, lost, in_xrun = 0, {}, 0
    for name, stream in streams.items():
        missing, extra, matched = align(want_keys, [tuple(m) for m, _ in stream])
        at = sorted((i, stream[j][1]) for i, j in matched.items())
        at_index = [i for i, _ in at]
        print(f"timed receiver {name}: {len(stream)} messages, {len(missing)} missing, {len(extra)} extra; "
              f"{len(missed[name])} times not run in a cycle")
        lost[name] = set(missing)
        for index in missing:
            place = bisect.bisect_left(at_index, index)  # the message is not among them
            start = at[place - 1][1] if place > 0 else None
            end = at[place][1] if place < len(at) else None
            start, end = start if start is not None else end, end if end is not None else start
            lo, hi = start - 2 * PERIOD_US, end + 2 * PERIOD_US
            near_xrun = nearest(xrun_times, start, end) if xrun_times else None
            gaps = [(a, b) for a, b in missed[name] if a <= hi and b >= lo]
            explained = handed == len(want) and (bool(gaps) or (near_xrun is not None and near_xrun[1] <= 2 * PERIOD_US))
            in_xrun += explained
            unexplained += not explained
            event = origin_of[index]
            print(f"  {name}: missing message {index} {want[index]} "
                  f"({f'key event {event} sent at {sent_at[event]} µs' if event is not None else 'at the shut-down'}), "
                  f"due between {start} and {end} µs; "
                  + (f"nearest xrun heard at {near_xrun[0]} ({near_xrun[1]} µs away)" if near_xrun else "no xrun")
                  + "".join(f"; not run from {a} to {b}" for a, b in gaps)
                  + (" -> lost in an xrun" if explained else " -> NOT explained by an xrun"))
        for j in extra:
            # JACK may hand a receiver the last events of a late client's port again: a
            # message received twice, next to an xrun.
            t = stream[j][1]
            twice = any(stream[k][0] == stream[j][0] for k in range(max(0, j - 4), j))
            near_xrun = nearest(xrun_times, t, t) if xrun_times else None
            gaps = [(a, b) for a, b in missed[name] if a <= t + 2 * PERIOD_US and b >= t - 2 * PERIOD_US]
            explained = twice and handed == len(want) and (
                bool(gaps) or (near_xrun is not None and near_xrun[1] <= 2 * PERIOD_US))
            unexplained += not explained
            in_xrun += explained
            print(f"  {name}: extra message {list(stream[j][0])} at {t} µs (received message {j})"
                  + (", received just before too" if twice else "")
                  + (f"; nearest xrun heard at {near_xrun[0]} ({near_xrun[1]} µs away)" if near_xrun else "")
                  + "".join(f"; not run from {a} to {b}" for a, b in gaps)
                  + (" -> delivered twice in an xrun" if explained else " -> NOT explained by an xrun"))
    if first_difference is not None and not any(lost.values()) and len(got) < len(want):
        late = next((v for k, v in late_clients.items() if k.startswith("rx") and k[2:].isdigit()), 0)
        print(f"receiver: {len(want) - len(got)} missing while both timed receivers, reading the same port, "
              f"got every message; JACK found it late {late} times")
    if any(lost.values()):
        print(f"lost at both timed receivers: {len(lost['A'] & lost['B'])}, at one only: {len(lost['A'] ^ lost['B'])}; "
              f"lost or received twice within two periods of an xrun or of a cycle the receiver was not run in: {in_xrun}")
        times = [t for _, t in streams["A"]]
        if times:
            # What chance alone would give: the share of the run within two periods of an xrun.
            share = share_covered(xrun_times, 2 * PERIOD_US, times[0], times[-1])
            print(f"share of the run within two periods of an xrun heard: {100 * share:.2f} %")
    print(f"ran to the end: {'yes' if still_running else 'no'}; exit code at SIGTERM: {exit_code}")
    if rss_start is not None and rss_end is not None:
        print(f"resident memory: {rss_start} KiB after {warm_up} events, {rss_end} KiB at the end, "
              f"growth {rss_end - rss_start} KiB ({'under' if rss_end - rss_start < 1024 else 'NOT under'} 1 MiB)")
    clean = first_difference is None and not any(lost.values())
    ok = still_running and exit_code == 0 and unexplained == 0 and key_lines == len(events) + 2
    print("soak: " + ("FAILED" if not ok else "no message missing or extra" if clean
                      else "messages lost by JACK in xruns (listed above), none by the program"))
    return 0 if ok else 1

if __name__ == "__main__":
    sys.exit(main())
