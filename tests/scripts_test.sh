#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# How the scripts install packages: on a made-up dpkg database, with an apt-get and a sudo that only note what they are
# asked for; and what scripts do without a build. 77 without dpkg.
set -euo pipefail
command -v dpkg-query >/dev/null || { echo "No dpkg here."; exit 77; }

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

native=$(dpkg --print-architecture)
foreign=armhf
[ "$native" != armhf ] || foreign=arm64
mkdir -p "$folder/bin" "$folder/dpkg/updates" "$folder/dpkg/info"
# entry PACKAGE ARCHITECTURE STATUS
entry() {
    printf 'Package: %s\nStatus: %s\nArchitecture: %s\nMulti-Arch: same\nVersion: 1\nMaintainer: nobody\nDescription: x\n\n' \
        "$1" "$3" "$2"
}
{
    entry libtwice-dev "$native" 'install ok installed'
    entry libtwice-dev "$foreign" 'install ok installed'
    entry libforeign-dev "$foreign" 'install ok installed'
    entry libremoved-dev "$native" 'deinstall ok config-files'
} >"$folder/dpkg/status"
printf '%s\n' "$native" "$foreign" >"$folder/dpkg/arch"

cat >"$folder/bin/apt-get" <<'END'
#!/bin/sh
echo "apt-get $*" >>"$ASKED"
case "$*" in
*update*) exit "${UPDATE_STATUS:-0}" ;;
*) exit "${INSTALL_STATUS:-0}" ;;
esac
END
printf '#!/bin/sh\nexec "$@"\n' >"$folder/bin/sudo"
chmod +x "$folder/bin/"*

# asks STATUS PATTERN PACKAGE...: ensure_packages ends so, and what apt-get was last asked for looks like that.
asks() {
    local expected=$1 pattern=$2 status=0 last
    shift 2
    : >"$folder/asked"
    PATH=$folder/bin:/usr/bin:/bin ASKED=$folder/asked DPKG_ADMINDIR=$folder/dpkg \
        bash -euc 'source "$0/../scripts/common.sh"; ensure_packages "$@"' "$here" "$@" 2>"$folder/said" || status=$?
    last=$(tail -n 1 "$folder/asked")
    [ "$status" -eq "$expected" ] || fail "$*: status $status instead of $expected: $(cat "$folder/said")"
    [[ $last =~ ^$pattern$ ]] || fail "$*: apt-get was asked for '$last', not '$pattern'"
}

asks 0 '' libtwice-dev 'libnowhere-dev?'
asks 0 'apt-get .*install .* libforeign-dev libremoved-dev libnone-dev' libforeign-dev libtwice-dev libremoved-dev libnone-dev
UPDATE_STATUS=100 asks 0 'apt-get .*install .* libnone-dev' libnone-dev
grep -q 'update failed' "$folder/said" || fail "a failed update is not told"
INSTALL_STATUS=100 asks 100 'apt-get .*install .* libnone-dev' libnone-dev

# An ordinary account's PATH has no folder of the system's tools.
PATH=/usr/bin:/bin bash -c 'source "$0/../scripts/common.sh"; command -v chroot' "$here" >/dev/null ||
    fail "chroot is not found, which is in /usr/sbin"

# Before the first build, `play` knows its version; the report of no run is an error, and begins none.
mkdir -p "$folder/tree/include"
cp -r "$here/../scripts" "$folder/tree/"
cp "$here/../include/hdmi_player.h" "$folder/tree/include/"
said=$("$folder/tree/scripts/play" --version)
[[ $said =~ ^"hdmi-player-play "([0-9]+\.[0-9]+\.[0-9]+), ]] || fail "--version says '$said'"
# A release, or a candidate for one, is tagged with the version that the header says.
for tag in $(git -C "$here/.." tag --points-at HEAD 'v[0-9]*' 2>/dev/null); do
    [ "${tag%-rc*}" = "v${BASH_REMATCH[1]}" ] || fail "the tag $tag is at version ${BASH_REMATCH[1]}"
done
status=0
timeout 20 "$here/../scripts/soak" --report "$folder/none" >"$folder/said" 2>&1 || status=$?
[ "$status" -ne 0 ] && [ "$status" -ne 124 ] || fail "soak --report: status $status, $(cat "$folder/said")"

# Counts of code that has changed since the tests ran are neither shown nor a traceback.
# counts STATUS TEXT: coverage quick ends so, and says that.
counts() {
    local status=0
    "$folder/tree/scripts/coverage" quick >"$folder/said" 2>&1 || status=$?
    { [ "$status" -eq "$1" ] && grep -qF "$2" "$folder/said" && ! grep -q Traceback "$folder/said"; } ||
        fail "coverage quick, expected '$2': status $status, $(cat "$folder/said")"
}
if command -v g++ gcov >/dev/null; then
    mkdir -p "$folder/tree/source" "$folder/tree/tests/coverage" "$folder/tree/build-coverage/source"
    cp "$here/coverage/"* "$folder/tree/tests/coverage/"
    echo 'int main() { return 0; }' >"$folder/tree/source/one.cpp"
    built=$folder/tree/build-coverage/source/one
    counts 1 'nothing is built here'
    g++ --coverage -o "$built.o" -c "$folder/tree/source/one.cpp"
    g++ --coverage -o "$built" "$built.o" && "$built"
    counts 1 'source/one.cpp: lines 100.0 %'
    g++ --coverage -O1 -DANOTHER -o "$built.o" -c "$folder/tree/source/one.cpp"
    counts 1 'Changed since the tests ran'
    g++ --coverage -o "$built" "$built.o" && rm "$built.gcda" && "$built"
    counts 1 'source/one.cpp: lines 100.0 %'
    touch -d '1 minute' "$folder/tree/source/one.cpp"
    counts 1 'Changed since the tests ran'
fi

[ "$failures" -eq 0 ] || exit 1
echo "All as expected."
