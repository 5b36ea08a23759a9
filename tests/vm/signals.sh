#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What the sample account of a resampled run cannot show: sound that passes bit for bit, and compressed sound, decoded
# and passed on as it is, over the kernel's sound cards.
# Limit: 300 s
source "$PROJECT/tests/vm/lib.sh"

seconds=10
receiver=/sys/class/extcon/hdmirx_aud/state

options=(--seconds $seconds --feed alsa:hw:Cable,0 --capture alsa:hw:Cable,1 --playback alsa:hw:Speaker,0
    --observe alsa:hw:Speaker,1)

# plays WHAT STATE LIMIT OPTION...: within its limits, LIMIT among them.
plays() {
    local what=$1 state=$2 limit=$3 report
    shift 3
    report=$OUT/signals-$(tr ' ' - <<<"$what").json
    echo "$state" >$receiver
    play "$OUT/signals.log" "${options[@]}" --report "$report" "$@"
    if [ "$played" -eq 4 ]; then
        verdict SKIPPED "$what" "the host is too busy"
    else
        check "$what" kept "$limit"
    fi
}
kept() { cat "$OUT/signals.log" && [ "$played" -eq 0 ] && grep -q "^  ok *$1" "$OUT/signals.log"; }

plays "48 kHz" HEADDONE_PCM_48=1 "output bit for bit the input" --rate 48000
plays "AC-3 decoded" HEADDONE_COMP_48=1 "output bit for bit a decode" --rate 48000 --bitstream ac3
plays "AC-3 passed on" HEADDONE_COMP_48=1 "bursts at the output bit for bit the source's" --rate 48000 \
    --bitstream ac3 --raw --output spdif
