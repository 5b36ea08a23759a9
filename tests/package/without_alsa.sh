#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# without_alsa.sh [FOLDER]: a machine that has all but ALSA's development files gets the simulated player, and is told
# what is left out. Configured only, unless FOLDER is named: it is built and tested there, which takes as long as any
# other build and test.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
build=${1:-$folder/build}

fail() { echo "FAIL: $*"; cat "$folder/said"; exit 1; }

mkdir "$folder/modules"
while read -r path; do
    find "$path" -maxdepth 1 -name '*.pc' ! -name 'alsa*.pc' -exec cp -nt "$folder/modules" {} + 2>/dev/null || true
done < <(pkg-config --variable pc_path pkg-config | tr : '\n')
export PKG_CONFIG_LIBDIR=$folder/modules PKG_CONFIG_PATH= # also for a build that configures again
cmake -S "$root" -B "$build" -G Ninja >"$folder/said" 2>&1 ||
    fail "it does not configure"
grep -q 'not found: no Linux platform, no hdmi-player-view' "$folder/said" || fail "it does not say what is left out"
targets=$(cmake --build "$build" --target help)
for target in hdmi-player-play minimal_host failure_sim_test; do
    grep -q "^$target: " <<<"$targets" || fail "$target is left out as well"
done
! grep -q '^hdmiplayer_linux: ' <<<"$targets" || fail "the Linux platform is there"
[ -n "${1:-}" ] || exit 0
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure --parallel "$((2 * $(nproc)))"
