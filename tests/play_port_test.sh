#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# play_port_test.sh PROGRAM PORT: the play program as it is built where alsa-lib is missing measures a port that it knows
# by its seams alone.
set -euo pipefail
program=$1 port=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
source "$(dirname "${BASH_SOURCE[0]}")/support/play_runs.sh"

! readelf -d "$program" | grep -E "NEEDED.*(asound|hdmiplayer_linux)" || fail "it needs alsa-lib"
passes port --seconds 3 --playback "port:$port" --display-rate 50
grep -q "ok    A/V offset p95" "$folder/port.txt" || fail "lip sync is not measured"
refuses 3 --playback alsa:default
finish
