#!/usr/bin/env bash
# Installs the built tree into a temporary prefix, then builds a consumer with
# find_package(ZDRShared2) and another with pkg-config, and runs both.
set -euo pipefail
build_dir=$1
src_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$src_dir" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}"
# shellcheck disable=SC2046
c++ -o "$work/pc-consumer" "$src_dir/main.cpp" $(pkg-config --cflags --libs zdrshared2)
"$work/pc-consumer"
