#!/bin/sh
# Builds the Debian package (cpack in build-package) and checks it as a user would get it: lintian
# finds no errors, the menu entry and the AppStream metainfo validate, apt can resolve its
# dependencies, and the program installed into a scratch root (dpkg -x) runs from there: its
# version, its manual page, its window's module, its completion and, when the build has a help
# package and the program a `help --check`, the installed help.
# Usage: scripts/package-test.sh [--apt]   (--apt also installs it with apt-get and removes it again)
set -eu
cd "$(dirname "$0")/.."
build=build-package
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTANNER_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)"
rm -f "$build"/tanner-backup_*.deb
(cd "$build" && cpack >/dev/null)
deb=$(ls "$PWD/$build"/tanner-backup_*.deb)
echo "== $deb"

fail() {
    echo "package-test: $*" >&2
    exit 1
}

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

echo "== lintian"
# (The module in /usr/lib/tanner-backup/ makes cpack add ldconfig calls, which lintian warns of.)
lintian_status=0
lintian --fail-on error --suppress-tags maintscript-calls-ldconfig "$deb" >"$root/lintian.txt" 2>&1 || lintian_status=$?
grep -v "running with root privileges" "$root/lintian.txt" || true
[ "$lintian_status" = 0 ] || fail "lintian found errors"
dpkg -x "$deb" "$root"
usr="$root/usr"

echo "== desktop-file-validate, appstreamcli validate"
desktop-file-validate "$usr/share/applications/com.tannerwick.backup.desktop"
appstreamcli validate --no-net --pedantic "$usr/share/metainfo/com.tannerwick.backup.metainfo.xml"

echo "== apt-get install --simulate"
apt-get install --simulate --no-install-recommends "$deb" >/dev/null || fail "apt can't resolve the package's dependencies"

# The installed program, with a state of its own.
export XDG_CONFIG_HOME="$root/home/config" XDG_STATE_HOME="$root/home/state" XDG_DATA_HOME="$root/home/data"
export XDG_RUNTIME_DIR="$root/home/run" TANNER_VOLUMES_ROOT="$root/home/volumes"
mkdir -p "$XDG_RUNTIME_DIR" "$TANNER_VOLUMES_ROOT" && chmod 700 "$XDG_RUNTIME_DIR"
program="$usr/bin/tanner-backup"

echo "== tanner-backup --version"
version=$("$program" --version)
echo "$version"
project=$(sed -n 's/^project(TannerBackup VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$version" = "Tanner Backup $project" ] || fail "the installed program says \"$version\", the project is $project"
grep -q "<release version=\"$project\"" "$usr/share/metainfo/com.tannerwick.backup.metainfo.xml" ||
    fail "the metainfo has no release $project"

echo "== the manual page lists every command of --help"
commands=$("$program" --help | sed -n '/^Commands:/,/^$/p' | grep -E '^  [^ ]' | awk '{print $1}' | sort -u)
page=$(zcat "$usr/share/man/man1/tanner-backup.1.gz" | MANWIDTH=200 man -l - 2>/dev/null)
for command in $commands; do
    echo "$page" | grep -qE "^ +$command( |$)" || fail "the manual page lacks \"$command\""
done
echo "$(echo "$commands" | wc -l) commands"

echo "== the window's module is found beside the installed program"
# With the module found the window opens (and stays until stopped); without it the program ends
# at once with status 69.
status=0
QT_QPA_PLATFORM=offscreen timeout 5 "$program" >/dev/null 2>"$root/window.err" || status=$?
[ "$status" = 124 ] || fail "the installed window did not open (status $status): $(cat "$root/window.err")"

echo "== bash completion"
# shellcheck disable=SC1091
out=$(bash -c '. "$1/share/bash-completion/completions/tanner-backup"; export PATH="$1/bin:$PATH"
    COMP_WORDS=(tanner-backup ru); COMP_CWORD=1; _tanner_backup; echo "${COMPREPLY[*]}"' sh "$usr")
[ "$out" = "rules" ] || fail "completing \"ru\" gave \"$out\""

echo "== help --check on the installed help"
if [ ! -d "$usr/share/tanner-backup/Help.TWwrite" ]; then
    echo "skipped: the package has no help package (the build made no Help.TWwrite)"
elif ! "$program" --help | grep -q -- "help --check"; then
    echo "skipped: the program has no \"help --check\" command yet"
else
    "$program" help --check "$usr/share/tanner-backup/Help.TWwrite"
fi

if [ "${1:-}" = "--apt" ]; then
    echo "== apt-get install"
    apt-get install -y -qq --no-install-recommends "$deb"
    /usr/bin/tanner-backup --version
    apt-get remove -y -qq tanner-backup
fi
echo "== the package passed"
