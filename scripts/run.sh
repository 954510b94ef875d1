#!/usr/bin/env bash
# Sets up the machine, builds the library and the zdrctl tool, and runs the
# main job: the device table, then the demo of the live device model. It uses
# the real audio server when one answers, else the simulated backend.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default -DZDR_BUILD_TESTS=OFF >/dev/null
cmake --build --preset default --target zdrctl -j "$(nproc)"

bin=build/default/apps/zdrctl/zdrctl
if [ -x "$bin" ]; then
    "$bin" devices
    "$bin" demo
else
    build/default/apps/runtime_example/runtime_example
fi
