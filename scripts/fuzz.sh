#!/bin/sh
# Builds the fuzz targets (clang, libFuzzer, ASan, UBSan) in build-fuzz and runs them for a bounded
# time each: the XML decoder, seeded from the documents in tests/data/xml, and the help package
# reader (both forms), seeded from tests/data/help/seeds; each also replays its regressions. New
# coverage goes to build-fuzz/corpus-TARGET; a crash, a hang or a broken promise stops the run
# with its input in build-fuzz/crashes/: save it under tests/data/xml/regressions/ or
# tests/data/help/regressions/, named after what it broke.
# Usage: scripts/fuzz.sh [seconds] [xml|help]   (default 60 seconds, both targets)
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-60}
only=${2:-}
build=build-fuzz

cmake -S tests/fuzz -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ >/dev/null
mkdir -p "$build/crashes"

run() { # target dict seeds...
    target=$1 dict=$2
    shift 2
    cmake --build "$build" --target "$target" -j "$(nproc)"
    mkdir -p "$build/corpus-$target"
    echo "== fuzzing $target for ${seconds} s"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$build/$target" -max_total_time="$seconds" -max_len=16384 -timeout=10 -rss_limit_mb=2048 \
        -dict="$dict" -artifact_prefix="$build/crashes/" -print_final_stats=1 "$build/corpus-$target" "$@"
}

[ -z "$only" ] || [ "$only" = xml ] && run xml_decoder_fuzz tests/fuzz/xml.dict tests/data/xml
[ -z "$only" ] || [ "$only" = help ] && run help_reader_fuzz tests/fuzz/help.dict tests/data/help/seeds tests/data/help/regressions
exit 0
