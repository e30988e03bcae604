#!/bin/sh
# Builds the XML decoder's fuzz target (clang, libFuzzer, ASan, UBSan) in build-fuzz and runs it
# for a bounded time, seeded from the documents in tests/data/xml (regressions included). New
# coverage goes to build-fuzz/corpus; a crash, a hang or a broken promise stops the run with its
# input in build-fuzz/crashes/: save it under tests/data/xml/regressions/, named after what it broke.
# Usage: scripts/fuzz.sh [seconds]   (default 60)
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build-fuzz

cmake -S tests/fuzz -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" --target xml_decoder_fuzz -j "$(nproc)"
mkdir -p "$build/corpus" "$build/crashes"

echo "== fuzzing the XML decoder for ${seconds} s"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/xml_decoder_fuzz" -max_total_time="$seconds" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
    -dict=tests/fuzz/xml.dict -artifact_prefix="$build/crashes/" -print_final_stats=1 "$build/corpus" tests/data/xml
