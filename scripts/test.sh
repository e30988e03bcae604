#!/bin/sh
# Builds and runs the whole test suite: a normal build, the format check, and a second build
# under AddressSanitizer and UndefinedBehaviorSanitizer; in CI (CI set) also the Debian package
# (scripts/package-test.sh).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh

echo "== format check"
git ls-files '*.cpp' '*.h' | xargs -r clang-format --dry-run --Werror

jobs=$(nproc)
echo "== build"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
echo "== tests"
ctest --test-dir build --output-on-failure -j "$jobs" --timeout 600

echo "== sanitizer build (ASan + UBSan)"
cmake -S . -B build-sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTANNER_SANITIZE=ON
cmake --build build-sanitize -j "$jobs"
echo "== tests under the sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    LSAN_OPTIONS=suppressions="$PWD/tests/lsan.supp":print_suppressions=0 \
    ctest --test-dir build-sanitize --output-on-failure -j "$jobs" --timeout 900
scripts/fuzz.sh 60
if [ -n "${CI:-}" ]; then
    echo "== the Debian package"
    scripts/package-test.sh
fi
echo "== all tests passed"
