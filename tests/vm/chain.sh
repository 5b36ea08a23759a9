#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# A source that is not the play program's: flashes at vivid's HDMI input and beeps on the cable, each found as it comes
# in and as it comes out, on vkms and at the loudspeaker.
# Limit: 90 s
source "$PROJECT/tests/vm/lib.sh"

control() { v4l2-ctl -d /dev/video0 "$@"; }
flashes() {
    while sleep 0.5; do
        control -c test_pattern=6
        sleep 0.5
        control -c test_pattern=5
    done
}
# figure KEY: a number of the report, the first of that name.
figure() { sed -n "s/^ *\"$1\": \([-0-9.e]*\),\{0,1\}\$/\1/p" "$OUT/chain.json" | head -n 1; }

control -c "dv_timings=$(control -L | awk '/dv_timings / { inside = 1 } inside && $2 ~ /^640x480p59/ { print int($1); exit }')" \
    -c dv_timings_signal_mode=4
echo HEADDONE_PCM_48=1 >/sys/class/extcon/hdmirx_aud/state
flashes &
flashing=$!
"$BUILD/tests/beeps_probe" 120 >"$OUT/chain-beeps.log" 2>&1 &
beeping=$!
trap 'kill $flashing $beeping 2>/dev/null; control -c test_pattern=0 -c dv_timings_signal_mode=0' EXIT

"$BUILD/tools/play/hdmi-player-play" --seconds 25 --video v4l2:/dev/video0 --capture alsa:hw:Cable,1 \
    --playback alsa:hw:Speaker,0 --observe alsa:hw:Speaker,1 --display kms --report "$OUT/chain.json" \
    >"$OUT/chain.log" 2>&1
[ -e "$OUT/chain.json" ] || { tail -n 20 "$OUT/chain.log"; verdict FAILED "plays"; exit 0; }
own_limits "$OUT/chain.log"
if grep -q '^  late ' "$OUT/chain.log"; then
    verdict SKIPPED "flash and beep as they come in and go out" "the host is too busy"
    exit 0
fi
compare "flashes with a beep" "$(sed -n '/"chain": {/,/}/s/.*"count": \([0-9]*\).*/\1/p' "$OUT/chain.json")" -ge 10
added=$(awk "BEGIN { print $(figure shown_ms) - ($(figure captured_ms)) }")
compare "added between flash and beep" "$added" -le 40 ms
compare "added between flash and beep" "$added" -ge -60 ms
