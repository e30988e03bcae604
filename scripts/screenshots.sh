#!/bin/sh
# Takes the screenshots shown in the README (docs/*.png) of the real window under Xvfb.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target screenshot_tool
xvfb-run -a -s "-screen 0 1280x800x24" build/tests/screenshot_tool docs
cmake --build build --target help_screenshot_tool
xvfb-run -a -s "-screen 0 1280x800x24" build/tests/help_screenshot_tool docs
