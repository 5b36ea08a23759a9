#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Each device is taken away and given back, and the rate changed, while the player runs.
# Limit: 2400 s
source "$PROJECT/tests/vm/lib.sh"

start_audio_system() {
    v4l2-ctl -d /dev/video0 --set-edid=type=hdmi &&
        cec-ctl -d /dev/cec1 --audio --feat-source-has-arc-rx
    cec-follower -d /dev/cec1 >"$OUT/disturb-follower.log" 2>&1 &
    follower=$!
}

# What a thread keeps of the memory that it gave back would count as in use.
disturb() { GLIBC_TUNABLES=glibc.malloc.tcache_count=0 "$BUILD/tests/disturb" "$@"; }

export HDMIPLAYER_ALSA_HDMI_IN=hw:Cable,1 HDMIPLAYER_ALSA_HDMI_ARC=hw:Speaker,0 HDMIPLAYER_CEC_DEVICE=/dev/cec0
# The kernel would keep everything suspended for 5 s.
echo 0 >/sys/module/suspend/parameters/pm_test_delay
check "an audio system at the other end" start_audio_system
check "each time noticed, sound, picture and return channel back, nothing leaked" \
    disturb "$ROUNDS" "$SEED" "$OUT/disturb.json"
kill "$follower"
sed -n 's/.*\(seed [0-9]*\)$/-- \1/p; s/.*RECOVERY/--/p' "$OUT"/disturb-each-*.log
