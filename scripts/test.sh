#!/usr/bin/env bash
# Installs what the tests need, builds Plinkora with warnings as errors, and runs every test.
# Usage: bash scripts/test.sh            (build directory: build/)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh test

build=${PLINKORA_BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DPLINKORA_WERROR=ON
cmake --build "$build" -j"$(nproc)"
cd "$build"
ctest --output-on-failure --timeout 600 -j"${PLINKORA_TEST_JOBS:-2}"
