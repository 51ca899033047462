#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (build directory build-fuzz/) and runs each
# for the given number of seconds (default 60), starting from its seeds in fuzz/corpus/<target>/.
# Inputs found on the way are kept in build-fuzz/corpus/<target>/ (the seeds stay as they are);
# an input that fails is written to build-fuzz/artifacts/ and the script exits non-zero.
# Usage: bash scripts/fuzz.sh [seconds per target]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
build=${PLINKORA_FUZZ_BUILD_DIR:-build-fuzz}
targets=(key_events_fuzzer settings_fuzzer sound_font_fuzzer)

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DPLINKORA_WERROR=ON -DPLINKORA_FUZZ=ON \
    -DPLINKORA_BUILD_TESTS=OFF -DPLINKORA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

mkdir -p "$build/artifacts"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
for target in "${targets[@]}"; do
    mkdir -p "$build/corpus/$target"
    echo "== $target: $seconds s"
    # libFuzzer's -max_total_time counts from the start: the whole run stays within the budget.
    "$build/bin/$target" -max_total_time="$seconds" -max_len=4096 -timeout=20 -rss_limit_mb=2048 \
        -artifact_prefix="$build/artifacts/$target-" -print_final_stats=1 \
        "$build/corpus/$target" "fuzz/corpus/$target" 2>"$build/$target.log" || {
        grep -E "ERROR|SUMMARY|fuzzer:|Fatal|runtime error" "$build/$target.log" | head -20
        tail -30 "$build/$target.log"
        echo "$target failed: the input is in $build/artifacts/" >&2
        exit 1
    }
    grep -E "^Done|stat::number_of_executed_units|cov:" "$build/$target.log" | tail -2
done
