#!/usr/bin/env bash
# Installs the built tree into a temporary prefix, then either
#   consume: builds a consumer with find_package(ZDRShared2) and another with
#            pkg-config, and runs both;
#   headers: checks that exactly the public headers were installed and that
#            each compiles on its own against the installed tree.
set -euo pipefail
build_dir=$1
mode=${2:-consume}
src_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
include_dir="$work/prefix/include"

build_consumer() {
    cmake -S "$src_dir" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" "$@" \
        >"$work/configure.log" 2>&1 || { cat "$work/configure.log" >&2; exit 1; }
    if ! cmake --build "$work/cmake-build" >"$work/build.log" 2>&1; then
        cat "$work/build.log" >&2
        exit 1
    fi
}

case "$mode" in
consume)
    build_consumer
    "$work/cmake-build/consumer"
    export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}"
    # shellcheck disable=SC2046
    c++ -o "$work/pc-consumer" "$src_dir/main.cpp" $(pkg-config --cflags --libs zdrshared2)
    "$work/pc-consumer"
    ;;
headers)
    # Internal and test-support headers stay out of the installed tree.
    private=$(cd "$include_dir" && find zdr \( -name '*_internal.h' -o -name '*_test_support.h' \
        -o -path '*/detail/*' -o -path '*/testing/*' \) -print)
    if [ -n "$private" ]; then
        echo "non-public headers were installed:" >&2
        echo "$private" >&2
        exit 1
    fi
    build_consumer -DZDR_INSTALLED_INCLUDE_DIR="$include_dir"
    echo "$(cd "$include_dir" && find zdr -name '*.h' | wc -l) installed headers compile on their own"
    ;;
*)
    echo "usage: $0 <build dir> [consume|headers]" >&2
    exit 2
    ;;
esac
