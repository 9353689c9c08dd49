#!/usr/bin/env bash
# The Debian package, as a user gets it: built with ./build.sh package, checked (lintian errors,
# the desktop entry, the metainfo, the udev rule, the file list, the man pages against every
# option of the programs' --help), installed with apt-get, run from /usr/bin, and purged, after
# which none of its files may remain. Needs root for the install; CI is root.
# Usage: scripts/ci-package.sh
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD_DIR=${BUILD_DIR:-build}
APP_ID=example.dravinel.Configurator

step() { printf '\n=== %s (%s)\n' "$1" "$(date +%T)"; }
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

step "Package: build"
rm -f "$BUILD_DIR"/dravinel_*.deb
bash build.sh package >/dev/null
debs=("$BUILD_DIR"/dravinel_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "expected one $BUILD_DIR/dravinel_*.deb"
deb=$(realpath "${debs[0]}")
echo "$(basename "$deb"): $(stat -c %s "$deb") bytes, $(dpkg-deb -f "$deb" Installed-Size) KiB installed"
dpkg-deb -f "$deb" Package Version Architecture Depends Recommends
[ -n "$(dpkg-deb -f "$deb" Depends)" ] || fail "no Depends: is dpkg-dev (dpkg-shlibdeps) installed?"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
dpkg-deb -x "$deb" "$work/root"
dpkg-deb -c "$deb" | awk '{print $NF}' | sed 's|^\./|/|' >"$work/list"

step "Package: lintian"
# Errors fail; warnings and notes are shown for the reader.
lintian --info --display-info --fail-on error "$deb" || fail "lintian reported an error"
echo "lintian: no error"

step "Package: file list"
expected=(/usr/bin/dravinel /usr/bin/dravinel-cli /usr/bin/dravinel-sim
    /usr/share/man/man1/dravinel.1.gz /usr/share/man/man1/dravinel-cli.1.gz
    /usr/share/man/man1/dravinel-sim.1.gz
    "/usr/share/applications/$APP_ID.desktop" "/usr/share/metainfo/$APP_ID.metainfo.xml"
    "/usr/share/icons/hicolor/scalable/apps/$APP_ID.svg"
    "/usr/share/icons/hicolor/48x48/apps/$APP_ID.png"
    /usr/lib/udev/rules.d/60-dravinel.rules
    /usr/share/doc/dravinel/copyright /usr/share/doc/dravinel/changelog.gz)
for path in "${expected[@]}"; do
    grep -qx "$path" "$work/list" || fail "the package lacks $path"
done
# (Output captured first: grep -q leaving early would fail the pipe under pipefail.)
for program in dravinel dravinel-cli dravinel-sim; do
    [[ $(file "$work/root/usr/bin/$program") == *", stripped"* ]] || fail "$program is not stripped"
done
[[ $(file "$work/root/usr/share/icons/hicolor/48x48/apps/$APP_ID.png") == *"48 x 48"* ]] ||
    fail "the PNG icon is not 48x48"
grep -v '/$' "$work/list"

step "Package: desktop entry, metainfo, udev rule"
desktop-file-validate "$work/root/usr/share/applications/$APP_ID.desktop"
appstreamcli validate --no-net "$work/root/usr/share/metainfo/$APP_ID.metainfo.xml"
rule="$work/root/usr/lib/udev/rules.d/60-dravinel.rules"
bash scripts/check-udev-rules.sh "$rule"
# The checker itself must catch a match written where an assignment was meant.
sed 's/GROUP="dialout"/GROUP=="dialout"/' "$rule" >"$work/60-broken.rules"
if bash scripts/check-udev-rules.sh "$work/60-broken.rules" 2>/dev/null; then
    fail "the udev rule checker passed a broken rule"
fi
echo "udev rule: every key and operator known"

step "Package: install, run, purge"
[ "$(id -u)" -eq 0 ] || fail "installing needs root"
# A package left by an earlier run would make this a reinstall.
if [[ $(dpkg-query -W -f='${Status}' dravinel 2>/dev/null || true) == *" installed" ]]; then
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq dravinel >/dev/null
fi
[[ $(apt-cache policy qt6-wayland) =~ Candidate:\ [0-9] ]] ||
    echo "note: no candidate for the recommended qt6-wayland in this machine's package lists"
# Recommends would fetch qt6-wayland; the check is that the Depends alone suffice.
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$deb" >/dev/null
echo "\$ dravinel-cli --version"
/usr/bin/dravinel-cli --version
echo "\$ dravinel --version"
QT_QPA_PLATFORM=offscreen /usr/bin/dravinel --version
echo "\$ dravinel-cli --demo info"
/usr/bin/dravinel-cli --demo info
/usr/bin/dravinel-cli setup-access | cmp -s - /usr/lib/udev/rules.d/60-dravinel.rules ||
    fail "setup-access prints another rule than the package installs"

# udevadm test loads every rule file; where it runs at all, ours must load without a complaint.
tty=$(ls -d /sys/class/tty/* 2>/dev/null | head -1 || true)
if command -v udevadm >/dev/null && [ -n "$tty" ] &&
    udevadm test --action=add "$tty" >"$work/udevadm-test" 2>&1; then
    grep -q "Reading rules file: .*/60-dravinel.rules" "$work/udevadm-test" ||
        fail "udevadm test did not read 60-dravinel.rules"
    if grep -i '60-dravinel.rules' "$work/udevadm-test" | grep -iE 'invalid|error|fail|ignor'; then
        fail "udevadm test complains about 60-dravinel.rules"
    fi
    echo "udevadm test $tty: 60-dravinel.rules loaded without a complaint"
else
    echo "udevadm test does not run here; skipped"
fi

# Each man page names every option its program's --help shows, and the CLI's page every command.
man_text() { zcat "/usr/share/man/man1/$1.1.gz" | sed 's/\\-/-/g'; }
check_man() {
    local page=$1 help=$2 text options option
    text=$(man_text "$page")
    options=$(grep -oE '(^|[][ ,|])--?[a-zA-Z][a-zA-Z-]*' <<<"$help" | sed 's/^[][ ,|]//' | sort -u)
    [ -n "$options" ] || fail "no options found in the --help of $page"
    for option in $options; do
        grep -qF -- "$option" <<<"$text" || fail "man page $page lacks $option"
    done
}
check_man dravinel "$(QT_QPA_PLATFORM=offscreen /usr/bin/dravinel --help)"
check_man dravinel-sim "$(/usr/bin/dravinel-sim --help)"
cli_help=$(/usr/bin/dravinel-cli --help)
check_man dravinel-cli "$cli_help"
commands=$(sed -n '/^[A-Za-z]*[Cc]ommands:$/,/^$/p' <<<"$cli_help" | awk 'NF > 1 {print $1}')
[ -n "$commands" ] || fail "no commands found in dravinel-cli --help"
cli_page=$(man_text dravinel-cli)
for command in $commands; do
    check_man dravinel-cli "$(/usr/bin/dravinel-cli "$command" --help)"
    grep -qE "^\.B[IR]? $command( |$)" <<<"$cli_page" ||
        fail "man page dravinel-cli lacks the command $command"
done
echo "man pages: every option and command of --help named"

DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq dravinel >/dev/null
left=0
while read -r path; do
    [[ $path == */ ]] && continue
    if [ -e "$path" ] || [ -L "$path" ]; then
        echo "left after purge: $path"
        left=1
    fi
done <"$work/list"
[ -e /usr/share/doc/dravinel ] && { echo "left after purge: /usr/share/doc/dravinel"; left=1; }
[ $left -eq 0 ] || fail "files remain after apt-get purge"
echo "purged: none of the package's files remain"
