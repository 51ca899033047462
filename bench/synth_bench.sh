#!/usr/bin/env bash
# synth_bench.sh: what the built-in synthesizer costs the real program: idle processor time and
# memory with the synthesizer on (after its audio output was suspended) and off, and the note to
# first audio frame latency (synth_latency_bench).
#
# Starts, privately and stopped by process id on exit, a JACK server with the dummy driver
# (48 kHz, 64 frames; realtime with --rt). Runs `plinkora --midi-api jack --synth MODE` under Qt's
# offscreen platform with a private HOME, for MODE on and off, one after the other:
#   memory: RssAnon + RssFile from /proc/PID/status once the synthesizer is ready (on) or 3 s
#           after the start (off);
#   idle:   the program's processor time (utime + stime from /proc/PID/stat) over 20 s, taken
#           after the synthesizer said "audio suspended" (10 s after its last sound), or from 12 s
#           after the start for off; in percent of one core.
# Then synth_latency_bench on the same server.
#
# Usage: bench/synth_bench.sh [--build DIR] [--rt] [--notes N]
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="${PLINKORA_BUILD_DIR:-$here/../build-bench}"
rt=0
notes=200
while [[ $# -gt 0 ]]; do
    case "$1" in
        --build) build="$2"; shift 2 ;;
        --rt) rt=1; shift ;;
        --notes) notes="$2"; shift 2 ;;
        -h|--help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "synth_bench.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
for binary in plinkora synth_latency_bench jack_audio_receiver; do
    [[ -x "$build/bin/$binary" ]] || { echo "synth_bench.sh: build $binary first (in $build)" >&2; exit 2; }
done

work="$(mktemp -d /tmp/plinkora-synth-bench-XXXXXX)"
started=()
cleanup() {
    local i pid
    for ((i = ${#started[@]} - 1; i >= 0; i--)); do
        pid="${started[i]}"
        kill -TERM "$pid" 2>/dev/null || continue
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

unset DISPLAY WAYLAND_DISPLAY SESSION_MANAGER DBUS_SESSION_BUS_ADDRESS
export QT_QPA_PLATFORM=offscreen LANG=C.UTF-8
export SPEECHD_CMD=/bin/false SPEECHD_ADDRESS="unix_socket:$work/no-speech.sock"
export PULSE_SERVER="unix:$work/no-sound-server"
jack_name="plk-synth-bench-$$"
export JACK_DEFAULT_SERVER="$jack_name" JACK_NO_AUDIO_RESERVATION=1 JACK_NO_START_SERVER=1
if [[ $rt -eq 1 ]]; then jack_rt=(-R -P 80); else jack_rt=(--no-realtime); fi
jackd "${jack_rt[@]}" -n "$jack_name" -d dummy -r 48000 -p 64 >"$work/jackd.log" 2>&1 &
started+=($!)
for _ in $(seq 200); do jack_lsp -s "$jack_name" >/dev/null 2>&1 && break; sleep 0.05; done
jack_lsp -s "$jack_name" >/dev/null 2>&1 || { echo "synth_bench.sh: the JACK server did not start:" >&2; cat "$work/jackd.log" >&2; exit 1; }

ticks_per_second="$(getconf CLK_TCK)"
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
memory_kib() { awk '/^RssAnon:|^RssFile:/ { sum += $2 } END { print sum }' "/proc/$1/status"; }
wait_line() { # wait_line FILE REGEX SECONDS
    for _ in $(seq $(($3 * 20))); do grep -qE "$2" "$1" && return 0; sleep 0.05; done
    echo "synth_bench.sh: no line matching '$2' in $1:" >&2; tail -n 20 "$1" >&2; return 1
}

echo "Built-in synthesizer cost: $(nproc) CPUs, load average $(cut -d' ' -f1 /proc/loadavg);" \
     "JACK dummy 48000 Hz / 64 frames$([[ $rt -eq 1 ]] && echo ', realtime')"
for mode in on off; do
    export HOME="$work/home-$mode" XDG_CONFIG_HOME="$work/home-$mode/.config" XDG_RUNTIME_DIR="$work/run-$mode"
    mkdir -p "$HOME" && mkdir -m 700 -p "$XDG_RUNTIME_DIR"
    log="$work/plinkora-$mode.log"
    "$build/bin/plinkora" --midi-api jack --synth "$mode" >"$log" 2>&1 &
    pid=$!
    started+=($pid)
    if [[ $mode == on ]]; then
        wait_line "$log" "^Built-in synthesizer: .* on jack$" 20
        sleep 1
        memory="$(memory_kib "$pid")"
        wait_line "$log" "^Built-in synthesizer: audio suspended$" 30
    else
        sleep 3
        memory="$(memory_kib "$pid")"
        sleep 9
    fi
    before="$(cpu_ticks "$pid")"
    sleep 20
    after="$(cpu_ticks "$pid")"
    idle="$(awk -v t=$((after - before)) -v hz="$ticks_per_second" 'BEGIN { printf "%.2f", 100 * t / hz / 20 }')"
    printf "synth %-3s: memory %.1f MiB (RssAnon + RssFile), idle processor time %s %% of a core over 20 s\n" \
        "$mode" "$(awk -v k="$memory" 'BEGIN { print k / 1024 }')" "$idle"
    kill -TERM "$pid"; wait "$pid" 2>/dev/null || true
    unset 'started[${#started[@]}-1]'
done

"$build/bin/synth_latency_bench" "$build/bin/jack_audio_receiver" "$notes" 5 | grep -v "^Built-in synthesizer"
