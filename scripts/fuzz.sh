#!/usr/bin/env bash
# Builds the libFuzzer targets (preset `fuzz`: clang with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs every fuzzer found in build/fuzz/fuzzers/
# for a bounded time each, one after the other.
#
#   scripts/fuzz.sh [--seconds N] [--no-build] [NAME...]
#
#   --seconds N   time per fuzzer (default: $ZDR_FUZZ_SECONDS, else 60)
#   --no-build    run what is already built
#   NAME...       run only these fuzzers (e.g. user_defaults_fuzz)
#
# Each fuzzer keeps its corpus in build/fuzz/corpus/<name>/ (it grows from run
# to run; inputs in tests/fuzz_seeds/<name>/, where there are any, start it)
# and its log in build/fuzz/logs/<name>.log. A crash, a leak, undefined
# behaviour or a hang leaves its input in build/fuzz/artifacts/<name>/; the
# script names that reproducer and how to replay it, goes on with the other
# fuzzers, and exits 1. Fuzzers are found, not listed: any `*_fuzz.cpp` beside
# its parser and registered with zdr_add_fuzzer is run.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${ZDR_FUZZ_SECONDS:-60}"
build=1
only=()
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds) [ $# -ge 2 ] || { echo "fuzz.sh: --seconds needs a number" >&2; exit 2; }
                   seconds="$2"; shift 2 ;;
        --seconds=*) seconds="${1#--seconds=}"; shift ;;
        --no-build) build=0; shift ;;
        -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
        -*) echo "fuzz.sh: unknown option $1" >&2; exit 2 ;;
        *) only+=("$1"); shift ;;
    esac
done
case "$seconds" in
    ''|*[!0-9]*|0) echo "fuzz.sh: --seconds must be a whole number above 0, not '$seconds'" >&2
                   exit 2 ;;
esac

out=build/fuzz
if [ "$build" = 1 ]; then
    command -v clang++ >/dev/null || { echo "fuzz.sh: clang++ is needed (apt-get install clang)" >&2; exit 2; }
    echo "=== fuzz: configure and build"
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz -j "${ZDR_FUZZ_BUILD_JOBS:-$(nproc)}"
fi

fuzzers=()
for f in "$out"/fuzzers/*; do
    [ -f "$f" ] && [ -x "$f" ] || continue
    name=$(basename "$f")
    if [ ${#only[@]} -gt 0 ]; then
        keep=0
        for o in "${only[@]}"; do [ "$o" = "$name" ] && keep=1; done
        [ "$keep" = 1 ] || continue
    fi
    fuzzers+=("$f")
done
if [ ${#fuzzers[@]} -eq 0 ]; then
    echo "fuzz.sh: no fuzzers in $out/fuzzers/${only:+ named ${only[*]}}" >&2
    exit 2
fi

# Undefined behaviour must stop the run like a crash does.
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"

failed=()
for f in "${fuzzers[@]}"; do
    name=$(basename "$f")
    corpus="$out/corpus/$name"
    artifacts="$out/artifacts/$name"
    log="$out/logs/$name.log"
    mkdir -p "$corpus" "$artifacts" "$out/logs"
    # Seed inputs, if the fuzzer has any.
    seeds=()
    [ -d "tests/fuzz_seeds/$name" ] && seeds+=("tests/fuzz_seeds/$name")
    echo "=== $name: ${seconds} s (corpus $corpus)"
    touch "$artifacts/.started"
    status=0
    "$f" "$corpus" ${seeds[@]+"${seeds[@]}"} -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix="$artifacts/" -print_final_stats=1 >"$log" 2>&1 || status=$?
    if [ "$status" -ne 0 ]; then
        reproducer=$(find "$artifacts" -type f -newer "$artifacts/.started" | head -n 1)
        echo "FAILED $name (exit $status): see $log"
        if [ -n "$reproducer" ]; then
            echo "  reproducer: $reproducer"
            echo "  replay:     $f $reproducer"
        fi
        grep -m 3 -E 'ERROR: |runtime error:|SUMMARY:' "$log" | sed 's/^/  /' || true
        failed+=("$name")
    else
        grep -E '^stat::number_of_executed_units' "$log" | sed "s/^/  /" || true
    fi
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz.sh: ${#failed[@]} of ${#fuzzers[@]} fuzzers failed: ${failed[*]}"
    exit 1
fi
echo "fuzz.sh: all ${#fuzzers[@]} fuzzers ran ${seconds} s each without a failure"
