#!/usr/bin/env bash
# e2e_latency.sh: end-to-end latency and idle cost of Plinkora measured from outside, side by
# side with the floor of this machine (bench/reference_keyboard.c) and Debian's jack-keyboard,
# and Plinkora once more with Orca running. One command: installs the Debian packages it needs
# (scripts/install-deps.sh), builds a Release build in build-bench, runs bench/e2e_latency.py
# with Debian's python3, and prints the table and Plinkora's differences. Then prints the
# in-process figures of the same build unless --no-in-process: key event to the message at the
# MIDI back end (key_latency_bench, diagnostic lines to a file, a pipe and a slow pipe), the bender tick
# idle and moving (engine_bench), a property change to its announcement's synchronous part
# (announcement_bench). Takes about 10 minutes on a quiet machine.
#
# Usage: bash bench/e2e_latency.sh [--runs N] [--periods 64,256] [--idle S] [--launches N]
#                                  [--programs reference,plinkora,jack-keyboard,plinkora+orca]
#                                  [--no-in-process] [--no-install]
#   --runs N   measured press and release pairs per program (default 240, after 10 warm-up pairs)
# Everything runs privately (Xvfb, openbox, JACK dummy server, session and accessibility buses,
# Orca, speech service) and is stopped by process id. Figures only: nothing is asserted.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
build="$root/build-bench"
install=1
in_process=1
pass=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --runs) pass+=(--pairs "$2"); shift 2 ;;
        --periods|--idle|--launches|--programs|--seed|--warmup|--orca-settle) pass+=("$1" "$2"); shift 2 ;;
        --no-in-process) in_process=0; shift ;;
        --no-install) install=0; shift ;;
        -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "e2e_latency.sh: unknown option $1" >&2; exit 2 ;;
    esac
done

if [[ $install -eq 1 ]]; then
    bash "$root/scripts/install-deps.sh" test
fi
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target plinkora startup_probe xtest_typer reference_keyboard latency_receiver \
    $([[ $in_process -eq 1 ]] && echo key_latency_bench engine_bench announcement_bench) >/dev/null

/usr/bin/python3 "$root/bench/e2e_latency.py" --build "$build" "${pass[@]}"

if [[ $in_process -eq 1 ]]; then
    echo
    echo "In-process figures of the same build:"
    "$build/bin/key_latency_bench" --stdout file,pipe,slowpipe --pairs 5000 --warmup 500 2>&1 \
        | grep -E '^(Diagnostic lines|  µs|  filter -> MIDI back end|  window -> MIDI)' || true
    "$build/bin/engine_bench" --benchmark_filter='BenderTick' 2>&1 | grep 'BM_' || true
    "$build/bin/announcement_bench" --benchmark_filter='PropertyChangeToAnnouncement' --benchmark_repetitions=3 \
        --benchmark_report_aggregates_only=true 2>&1 | grep 'median' || true
fi
