#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the whole suite in the
# default preset, then the unit tests under AddressSanitizer +
# UndefinedBehaviorSanitizer and under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
jobs=$(nproc)

run_preset() {
    local preset=$1
    echo "=== ${preset}: configure and build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    echo "=== ${preset}: test"
    ctest --preset "$preset"
}

presets=(default asan-ubsan tsan)
if [ -n "${ZDR_TEST_PRESETS:-}" ]; then
    read -r -a presets <<<"$ZDR_TEST_PRESETS"
fi
for p in "${presets[@]}"; do
    run_preset "$p"
done
