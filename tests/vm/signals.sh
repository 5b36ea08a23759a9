#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What the sample account of a resampled run cannot show: sound that passes bit for bit, and compressed sound, decoded
# and passed on as it is, over the kernel's sound cards.
# Limit: 300 s
source "$PROJECT/tests/vm/lib.sh"

seconds=10
attempts=2 # what else runs on the host takes time from this machine
receiver=/sys/class/extcon/hdmirx_aud/state

play() {
    "$BUILD/tools/play/hdmi-player-play" --seconds $seconds --feed alsa:hw:Cable,0 --capture alsa:hw:Cable,1 \
        --playback alsa:hw:Speaker,0 --observe alsa:hw:Speaker,1 --report "$OUT/signals.json" "$@"
}
# plays STATE LIMIT OPTION...: within its limits, LIMIT among them.
plays() {
    local state=$1 limit=$2 attempt
    shift 2
    echo "$state" >$receiver
    for ((attempt = 1; attempt <= attempts; attempt++)); do
        echo "attempt $attempt"
        play "$@" >"$OUT/signals.log" 2>&1 && cat "$OUT/signals.log" && grep -q "^  ok *$limit" "$OUT/signals.log" && return
        cat "$OUT/signals.log"
    done
    return 1
}

check "48 kHz" plays HEADDONE_PCM_48=1 "output bit for bit the input" --rate 48000
check "AC-3 decoded" plays HEADDONE_COMP_48=1 "output bit for bit a decode" --rate 48000 --bitstream ac3
check "AC-3 passed on" plays HEADDONE_COMP_48=1 "bursts at the output bit for bit the source's" --rate 48000 \
    --bitstream ac3 --raw --output spdif
