#!/usr/bin/env bash
# Sets up the machine, builds the plain Release configuration a user's first
# build makes (build only), builds everything and runs the whole suite in the
# default preset, then the unit tests under AddressSanitizer +
# UndefinedBehaviorSanitizer and under ThreadSanitizer.
# ZDR_TEST_PLAIN_BUILD=0 skips the plain build.
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

# Exactly what the README tells a user to type (warnings do not stop it).
plain_build() {
    echo "=== plain Release build (cmake -S . -B build/plain -DCMAKE_BUILD_TYPE=Release)"
    cmake -S . -B build/plain -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build build/plain -j "$jobs"
}

if [ "${ZDR_TEST_PLAIN_BUILD:-1}" != 0 ]; then
    plain_build
fi

presets=(default asan-ubsan tsan)
if [ -n "${ZDR_TEST_PRESETS:-}" ]; then
    read -r -a presets <<<"$ZDR_TEST_PRESETS"
fi
for p in "${presets[@]}"; do
    run_preset "$p"
done
