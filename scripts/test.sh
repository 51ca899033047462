#!/usr/bin/env bash
# Installs what the tests need, checks the code with clang-format and clang-tidy (scripts/lint.sh),
# builds Plinkora with warnings as errors, and runs every test;
# then builds it a second time with AddressSanitizer and UndefinedBehaviorSanitizer (build-asan/)
# and runs every test again there, the JACK, desktop and accessibility tests included, any
# sanitizer report failing the run; then builds the engine with every Linux-only facility
# switched off (build-portable/: no JACK, ALSA, speech-dispatcher, X11 or FluidSynth, as on
# macOS or Windows) and runs its unit tests there; then runs each fuzzer of fuzz/ for a fixed time.
# Usage: bash scripts/test.sh   (build directories: build/, build-asan/, build-portable/, build-fuzz/)
# PLINKORA_FUZZ_SECONDS sets the fuzzing time per target (default 60; 0 skips fuzzing).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh test
bash scripts/clean-jack-leftovers.sh

# Three builds: a compiler cache, where there is one, keeps the second run of each short.
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

began=$SECONDS
jobs=${PLINKORA_TEST_JOBS:-2}
build=${PLINKORA_BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DPLINKORA_WERROR=ON

# The lint first: it needs only the compile commands of the configured build, and fails fast.
# PLINKORA_LINT_OPTIONS=--tidy-only leaves the formatting out.
began=$SECONDS
# shellcheck disable=SC2086
PLINKORA_BUILD_DIR="$build" bash scripts/lint.sh ${PLINKORA_LINT_OPTIONS:-}
echo "== lint: $((SECONDS - began)) s"

began=$SECONDS
cmake --build "$build" -j"$(nproc)"
(cd "$build" && ctest --output-on-failure --timeout 600 -j"$jobs")
echo "== plain build and tests: $((SECONDS - began)) s"

# The sanitizers: a report stops the program (no recovery), a leak at exit fails it. The
# leaks of libraries outside Plinkora are listed, each with its reason, in the suppressions
# file; full stacks (fast_unwind_on_malloc=0) let those entries match.
began=$SECONDS
asan=${PLINKORA_ASAN_BUILD_DIR:-build-asan}
cmake -S . -B "$asan" -DCMAKE_BUILD_TYPE=Debug -DPLINKORA_WERROR=ON -DPLINKORA_SANITIZE=ON -DPLINKORA_BUILD_BENCH=OFF
cmake --build "$asan" -j"$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:fast_unwind_on_malloc=0:halt_on_error=1:detect_stack_use_after_return=0"
export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan-suppressions.txt:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# The package test builds its own Release package: nothing of this build is in it.
(cd "$asan" && ctest --output-on-failure --timeout 900 -j"$jobs" -E "^packaging_deb$")
unset ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS
echo "== sanitizer build and tests: $((SECONDS - began)) s"

# Without the Linux-only facilities: the program and the engine's unit tests (the desktop's tests
# need the Linux desktop services).
began=$SECONDS
portable=${PLINKORA_PORTABLE_BUILD_DIR:-build-portable}
cmake -S . -B "$portable" -DCMAKE_BUILD_TYPE=Debug -DPLINKORA_WERROR=ON -DPLINKORA_BUILD_BENCH=OFF \
    -DPLINKORA_WITH_JACK=OFF -DPLINKORA_WITH_ALSA=OFF -DPLINKORA_WITH_SPEECHD=OFF -DPLINKORA_WITH_X11=OFF \
    -DPLINKORA_WITH_FLUIDSYNTH=OFF
engine_tests=(common_test midi_test midi_system_test midi_allocation_test midi_connections_test input_test key_table_test benders_test properties_test)
cmake --build "$portable" -j"$(nproc)" --target plinkora "${engine_tests[@]}"
(cd "$portable" && ctest --output-on-failure --timeout 300 -j"$jobs" -E "_NOT_BUILT$")
# The whole program builds and starts there too (its voice the system's, through Qt TextToSpeech).
"$portable/bin/plinkora" --version
echo "== build without the Linux-only facilities, engine tests: $((SECONDS - began)) s"

fuzz_seconds=${PLINKORA_FUZZ_SECONDS:-60}
if [ "$fuzz_seconds" -gt 0 ]; then
    began=$SECONDS
    bash scripts/fuzz.sh "$fuzz_seconds"
    echo "== fuzzing: $((SECONDS - began)) s"
fi
