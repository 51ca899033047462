#!/usr/bin/env bash
# Installs what Plinkora needs, builds it, and starts it. Arguments go to plinkora
# (for example: bash scripts/run.sh --midi-api jack).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh run

build=${PLINKORA_BUILD_DIR:-build-release}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DPLINKORA_BUILD_TESTS=OFF -DPLINKORA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
exec "$build/bin/plinkora" "$@"
