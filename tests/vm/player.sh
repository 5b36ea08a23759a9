#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The whole player on the kernel's devices, in real time: sound captured from one loopback card and played to another,
# pictures on vkms, the source announced by kernel events, the audio return channel over CEC.
# Limit: 300 s
source "$PROJECT/tests/vm/lib.sh"

seconds=45
receiver=/sys/class/extcon/hdmirx_aud/state

start_audio_system() {
    v4l2-ctl -d /dev/video0 --set-edid=type=hdmi &&
        cec-ctl -d /dev/cec1 --audio --feat-source-has-arc-rx
    cec-follower -d /dev/cec1 >"$OUT/player-follower.log" 2>&1 &
    follower=$!
}

options=(--rate 44100 --fps 59.94 --output arc --cec /dev/cec0 --display kms
    --feed alsa:hw:Cable,0 --capture alsa:hw:Cable,1 --playback alsa:hw:Speaker,0 --observe alsa:hw:Speaker,1
    --report "$OUT/player.json" --html "$OUT/player.html")

# figure KEY: a number of the report, the first of that name.
figure() { sed -n "s/^ *\"$1\": \([-0-9.e]*\),\{0,1\}\$/\1/p" "$OUT/player.json" | head -n 1; }

check "an audio system at the other end" start_audio_system
echo HEADDONE_PCM_44=1 >$receiver
# Code comes over the shared folders, and is translated, when it is first used.
timeout --foreground --signal=TERM 10 "$BUILD/tools/play/hdmi-player-play" --seconds 60 "${options[@]}" \
    >"$OUT/player-stopped.log" 2>&1
check "stopped by a signal: the CEC adapter is as it was" \
    bash -c "cec-ctl -d /dev/cec0 | grep -q 'Logical Address Mask *: 0x0000'" || tail -n 20 "$OUT/player-stopped.log"
rm -f "$OUT/player.json"
play "$OUT/player.log" --seconds $seconds "${options[@]}"
kill "$follower"
[ -e "$OUT/player.json" ] || { tail -n 20 "$OUT/player.log"; verdict FAILED "plays"; exit 0; }

# Offset, samples, resets, underruns, overruns, return channel, frames.
own_limits "$OUT/player.log"
[ "$played" -ne 4 ] || exit 0
compare "A/V offset, p95" "$(figure p95_ms)" -le 40 ms
compare "A/V offset, p95" "$(figure p95_ms)" -ge -60 ms
compare "vertical blanks missed" "$(awk "BEGIN { print 100 * $(figure vblank_missed) / ($(figure vblank_waits) + $(figure vblank_missed)) }")" -le 1 %
compare "pictures unseen or held too long" "$(awk "BEGIN { print 100 * $(figure excess) }")" -le 1 %
