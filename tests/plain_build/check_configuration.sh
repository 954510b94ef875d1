#!/usr/bin/env bash
# Configures the project as a user's first build does (no preset, only the
# build type) and checks that warnings are not turned into errors there: a
# compiler that warns where ours does not must not stop that build.
set -euo pipefail
src_dir=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! cmake -S "$src_dir" -B "$work/build" -DCMAKE_BUILD_TYPE=Release >"$work/configure.log" 2>&1; then
    cat "$work/configure.log" >&2
    exit 1
fi
werror=$(sed -n 's/^ZDR_WERROR:BOOL=//p' "$work/build/CMakeCache.txt")
if [ "$werror" != "OFF" ]; then
    echo "ZDR_WERROR is '$werror' in a plain configuration; expected OFF" >&2
    exit 1
fi
if grep -q -- '-Werror' "$work/build/compile_commands.json"; then
    echo "a plain configuration compiles with -Werror:" >&2
    grep -m 3 -- '-Werror' "$work/build/compile_commands.json" >&2
    exit 1
fi
echo "plain configuration: warnings stay warnings"
