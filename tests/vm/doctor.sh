#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What the doctor says of a machine that has everything.
# Limit: 60 s
source "$PROJECT/tests/vm/lib.sh"

said=$OUT/doctor.txt
says() { grep -xE " *ok +$1" "$said" || { cat "$said"; return 1; }; }

check "simulated play is possible" bash -c '"$BUILD/tools/doctor/hdmi-player-doctor" >"$1"' sh "$said"
check "a device to capture from" says 'capture +hw:CARD=Cable,DEV=1 .*'
check "a device to play to" says 'playback +hw:CARD=Speaker,DEV=0 .*'
check "a display, and its vertical blanks" says "$(card_of vkms) +vkms: [0-9]+x[0-9]+, (59|60)\.[0-9]+ vertical blanks.*"
check "an HDMI input and its signal" says '/dev/video0 +vivid: [0-9]+x[0-9]+ at [0-9.]+ fps, no sound of its own; .*'
check "the TV's CEC adapter" says '/dev/cec0 +vivid-000-vid-cap0, 0\.0\.0\.0, .*'
check "the CEC adapter of a source" says '/dev/cec1 +vivid-000-vid-out0, 1\.0\.0\.0, .*'
check "real-time priority" says 'real-time priority 99 .*'
check "it fits a screen" test "$(wc -l <"$said")" -le 50
