#!/bin/sh
# Installs, from Debian's packages, what building, running and testing Tanner Backup needs.
# Safe to run again: it only calls apt-get when a package is missing.
set -eu
PACKAGES="cmake ninja-build g++ pkg-config python3-fusepy
qt6-base-dev qt6-base-dev-tools qt6-speech-dev qt6-speech-flite-plugin libgl-dev libgtest-dev
clang libclang-rt-14-dev clang-format
util-linux mount e2fsprogs rsync time python3 xvfb xauth dbus-x11 fusefat exfat-fuse exfatprogs dosfstools ntfs-3g attr
lintian desktop-file-utils appstream man-db"

missing=""
for package in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "Missing packages:$missing. Run this script as root (or with sudo) to install them." >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
