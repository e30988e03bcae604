#!/bin/sh
# Takes the screenshots shown in the README (docs/*.png) of the real window under Xvfb.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target screenshot_tool
xvfb-run -a -s "-screen 0 1280x800x24" build/tests/screenshot_tool docs

# The real program under a window manager, to show the application icon in its title bar
# (docs/screenshot-icon.png). Needs openbox, xwd (x11-apps) and netpbm, installed here if missing.
for package in openbox x11-apps netpbm; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" ||
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$package"
done
cmake --build build --target tanner-backup tanner-backup-desktop
home=$(mktemp -d)
mkdir -p "$home/Documents" "$home/run" "$home/volumes"
chmod 700 "$home/run"
HOME="$home/Documents" XDG_CONFIG_HOME="$home/config" XDG_STATE_HOME="$home/state" XDG_DATA_HOME="$home/data" \
    XDG_RUNTIME_DIR="$home/run" TANNER_VOLUMES_ROOT="$home/volumes" \
    xvfb-run -a -s "-screen 0 1280x800x24" sh -c '
        openbox >/dev/null 2>&1 & wm=$!
        sleep 1
        build/tanner-backup & app=$!
        sleep 5
        xwd -root -silent | xwdtopnm 2>/dev/null | pamcut -left 84 -top 42 -width 1112 -height 714 | pnmtopng >docs/screenshot-icon.png
        kill $app; wait $app; kill $wm' || true
rm -rf "$home"
echo docs/screenshot-icon.png
