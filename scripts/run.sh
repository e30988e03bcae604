#!/bin/sh
# Builds Tanner Backup and starts it. Arguments are passed on (e.g. "folders", "--help").
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target tanner-backup
exec build/tanner-backup "$@"
