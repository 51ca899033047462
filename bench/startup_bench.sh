#!/usr/bin/env bash
# startup_bench.sh: how long Plinkora takes from being started to its MIDI port "PLK:PLK" being
# published and to its main window being mapped.
#
# Starts, each privately and stopped by its process id on exit: an X server (Xvfb, on a free
# display it picks itself), a window manager (openbox, unless --no-wm), a session bus (a
# dbus-daemon without service activation), the three through the tests' service launcher
# (tests/support/services.py), and a JACK server with the dummy driver under a
# private name. Then starts `plinkora --midi-api jack` RUNS times, one after the other, with
# private HOME and XDG folders, each under startup_probe, which prints the times; the first run
# warms the caches and is shown but not counted. Prints every run and the median and maximum.
#
# Usage: bench/startup_bench.sh [--build DIR] [--runs N] [--no-wm]
#   --build DIR   the build directory holding bin/plinkora and bin/startup_probe
#                 (default: $PLINKORA_BUILD_DIR, else build-bench, else build, beside bench/)
#   --runs N      measured runs (default 15)
#   --no-wm       no window manager: Qt maps its window itself
#
# What is measured (startup_probe.cpp): from just before posix_spawn of plinkora to
#   port:   the JACK port-registration callback for PLK:PLK in the probe's own JACK client;
#   window: the X MapNotify of the window titled "Plinkora", read from the probe's X connection.
# The probe's clients exist before plinkora starts. What the measurement adds is the delivery of
# one JACK notification and of one X event to the probe: tens to hundreds of microseconds.
# For reading the figures on a given machine it also prints: `plinkora --version` from exec to
# its end (loading the program and its ~75 libraries, nothing else), the page faults and the
# processor time of plinkora when its window was up, and what one page fault costs here
# (start-up is mostly page faults: about 0.1-0.3 µs each on bare metal, far more in some VMs).
# Speech: speech-dispatcher is never started (SPEECHD_CMD=/bin/false, a private socket path), so
# Plinkora's voice reports itself unavailable, off the start-up path as always.
# Goals: port under 100 ms, window under 200 ms.

set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="${PLINKORA_BUILD_DIR:-}"
runs=15
use_wm=1
while [[ $# -gt 0 ]]; do
    case "$1" in
        --build) build="$2"; shift 2 ;;
        --runs) runs="$2"; shift 2 ;;
        --no-wm) use_wm=0; shift ;;
        -h|--help) sed -n '2,27p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "startup_bench.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
if [[ -z "$build" ]]; then
    for candidate in "$here/../build-bench" "$here/../build"; do
        if [[ -x "$candidate/bin/plinkora" && -x "$candidate/bin/startup_probe" ]]; then
            build="$candidate"
            break
        fi
    done
fi
plinkora="$build/bin/plinkora"
probe="$build/bin/startup_probe"
if [[ ! -x "$plinkora" || ! -x "$probe" ]]; then
    echo "startup_bench.sh: build plinkora and startup_probe first (looked in '${build:-build-bench, build}')" >&2
    exit 2
fi
if ! [[ "$runs" =~ ^[1-9][0-9]*$ ]]; then
    echo "startup_bench.sh: --runs needs a positive number" >&2
    exit 2
fi
for tool in Xvfb jackd jack_lsp dbus-daemon /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "startup_bench.sh: $tool is missing" >&2; exit 2; }
done
if [[ $use_wm -eq 1 ]] && ! command -v openbox >/dev/null; then
    echo "startup_bench.sh: openbox is missing (or use --no-wm)" >&2
    exit 2
fi

work="$(mktemp -d /tmp/plinkora-startup-XXXXXX)"
started=()   # process ids of the servers, in the order they were started
probe_pid=""

stop_pid() { # stop_pid PID: SIGTERM, then SIGKILL after 5 s; by process id only
    local pid="$1" i
    kill -TERM "$pid" 2>/dev/null || return 0
    for ((i = 0; i < 50; i++)); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
}

cleanup() {
    trap - EXIT INT TERM
    if [[ -n "$probe_pid" ]]; then
        stop_pid "$probe_pid" # the probe stops plinkora by its id first
    fi
    local i
    for ((i = ${#started[@]} - 1; i >= 0; i--)); do
        stop_pid "${started[i]}"
    done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

wait_for() { # wait_for SECONDS DESCRIPTION COMMAND...
    local seconds="$1" what="$2" i
    shift 2
    for ((i = 0; i < seconds * 20; i++)); do
        if "$@" >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.05
    done
    echo "startup_bench.sh: $what did not come up; logs in $work:" >&2
    tail -n 20 "$work"/*.log >&2 2>/dev/null || true
    trap - EXIT
    cleanup
    exit 1
}

# A private environment: nothing of the caller's desktop, session bus or JACK server.
unset DISPLAY WAYLAND_DISPLAY QT_QPA_PLATFORM SESSION_MANAGER DBUS_SESSION_BUS_ADDRESS \
      QT_LINUX_ACCESSIBILITY_ALWAYS_ON QT_ACCESSIBILITY
export HOME="$work/home"
export XDG_CONFIG_HOME="$HOME/.config" XDG_DATA_HOME="$HOME/.local/share" XDG_CACHE_HOME="$HOME/.cache"
export XDG_RUNTIME_DIR="$work/runtime"
export LANG=C.UTF-8
export SPEECHD_CMD=/bin/false SPEECHD_ADDRESS="unix_socket:$work/runtime/no-speech.sock"
mkdir -p "$HOME" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"

# The X server, the window manager and the session bus: the tests' private services, each kept
# by its launcher (tests/support/services.py) until the launcher is stopped.
services="$here/../tests/support/services.py"
start_service() { # start_service NAME ARGS...: starts it and sets service_address
    local name="$1"
    shift
    /usr/bin/python3 "$services" "$name" "$@" >"$work/$name.out" 2>"$work/$name.log" &
    started+=($!)
    wait_for 60 "$name" grep -qx ready "$work/$name.out"
    service_address="$(sed -n 's/^address //p' "$work/$name.out")"
}

start_service x-server
export DISPLAY="$service_address"
if [[ $use_wm -eq 1 ]]; then
    start_service window-manager --display "$DISPLAY" --folder "$work/openbox"
fi
start_service session-bus --folder "$work/session-bus"
export DBUS_SESSION_BUS_ADDRESS="$service_address"

jack_name="plk-startup-$$"
export JACK_DEFAULT_SERVER="$jack_name" JACK_NO_AUDIO_RESERVATION=1 JACK_NO_START_SERVER=1
jackd --no-realtime -n "$jack_name" -d dummy -r 48000 -p 64 >"$work/jackd.log" 2>&1 &
started+=($!)
wait_for 20 "the JACK server" jack_lsp -s "$jack_name"

run_once() { # run_once: prints the probe's line
    "$probe" --port PLK:PLK --title Plinkora --timeout-ms 20000 --log "$work/plinkora.log" \
        -- "$plinkora" --midi-api jack >"$work/probe.out" &
    probe_pid=$!
    local status=0
    wait "$probe_pid" || status=$?
    probe_pid=""
    cat "$work/probe.out"
    return $status
}

echo "Plinkora start-up: exec -> port PLK:PLK published (JACK) and -> main window mapped (X11)"
echo "$(nproc) CPUs, load average $(cut -d' ' -f1,2 /proc/loadavg) (1 and 5 min); Xvfb $DISPLAY," \
     "$([[ $use_wm -eq 1 ]] && echo openbox || echo 'no window manager'), JACK dummy 48000 Hz / 64 frames"
echo "binary: $plinkora"
echo

echo "one page fault here: $("$probe" --page-fault-cost | cut -d' ' -f2) µs"
versions=()
for ((run = 0; run <= runs; run++)); do
    line="$("$probe" --until-exit -- "$plinkora" --version)"
    [[ $run -gt 0 ]] && versions+=("$(cut -d' ' -f2 <<<"$line")")
done
echo

ports=()
windows=()
exits=()
faults=()
cpus=()
for ((run = 0; run <= runs; run++)); do
    if ! line="$(run_once)"; then
        echo "startup_bench.sh: run $run failed: $line" >&2
        echo "--- plinkora's output:" >&2
        tail -n 30 "$work/plinkora.log" >&2 || true
        exit 1
    fi
    read -r _ port _ window _ exit_ms _ status _ fault_count _ cpu_ms <<<"$line"
    if [[ $run -eq 0 ]]; then
        printf 'warm-up  port %8s ms  window %8s ms  (%s page faults, %s ms CPU; SIGTERM -> end %s ms, status %s; not counted)\n' \
            "$port" "$window" "$fault_count" "$cpu_ms" "$exit_ms" "$status"
        continue
    fi
    printf 'run %3d  port %8s ms  window %8s ms  (%s page faults, %s ms CPU; SIGTERM -> end %s ms, status %s)\n' \
        "$run" "$port" "$window" "$fault_count" "$cpu_ms" "$exit_ms" "$status"
    ports+=("$port")
    windows+=("$window")
    exits+=("$exit_ms")
    faults+=("$fault_count")
    cpus+=("$cpu_ms")
done

summary() { # summary NAME GOAL VALUES...: median and maximum
    local name="$1" goal="$2"
    shift 2
    printf '%s\n' "$@" | sort -n | awk -v name="$name" -v goal="$goal" '
        { v[NR] = $1 }
        END {
            median = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
            verdict = goal == "" ? "" : (median < goal && v[NR] < goal ? "goal met (median and max)" : (median < goal ? "goal met by the median, not by the max" : "goal NOT met"))
            printf "%-40s median %8.1f   max %8.1f   %s\n", name, median, v[NR], (goal == "" ? "" : "goal < " goal " ms: " verdict)
        }'
}
echo
echo "$runs runs:"
summary "exec -> port PLK:PLK published (ms)" 100 "${ports[@]}"
summary "exec -> main window mapped (ms)" 200 "${windows[@]}"
summary "SIGTERM -> process ended (ms)" "" "${exits[@]}"
summary "page faults until the window" "" "${faults[@]}"
summary "CPU time until the window (ms)" "" "${cpus[@]}"
summary "plinkora --version, exec -> end (ms)" "" "${versions[@]}"
