#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What the sample account of a resampled run cannot show: sound that passes bit for bit, and compressed sound, decoded
# and passed on as it is, over the kernel's sound cards; passed on from one clock to another as well.
# Limit: 500 s
source "$PROJECT/tests/vm/lib.sh"

seconds=10
receiver=/sys/class/extcon/hdmirx_aud/state

options=(--feed alsa:hw:Cable,0 --capture alsa:hw:Cable,1 --playback alsa:hw:Speaker,0
    --observe alsa:hw:Speaker,1)

# plays WHAT STATE LIMIT OPTION...: within its limits, LIMIT among them.
plays() {
    local what=$1 state=$2 limit=$3 report
    shift 3
    report=$OUT/signals-$(tr ' ' - <<<"$what").json
    echo "$state" >$receiver
    play "$OUT/signals.log" "${options[@]}" --seconds $seconds --report "$report" "$@"
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

# Bursts cannot be resampled. The set point is taken after four seconds, and the first millisecond is never made up for;
# four frames are left out or put in at a time. In the long form of `clocks` the other sign as well.
seconds=20 signs=+
[ "$CLOCKS" -lt 120 ] || seconds=60 signs="+ -"
shift_ppm=300
asked_for=$(((seconds - 4) * 48 * shift_ppm / 1000 / 4 - 12))
for sign in $signs; do
    what="AC-3 passed on, $sign$shift_ppm ppm"
    amixer -q -D hw:Speaker cset "iface=PCM,name='PCM Rate Shift 100000',device=1" $((100000 + $sign$shift_ppm / 10))
    plays "$what" HEADDONE_COMP_48=1 "bursts at the output bit for bit the source's" --rate 48000 --bitstream ac3 --raw \
        --output spdif
    [ "$played" -eq 4 ] && continue
    slips=$(sed -n 's/.*corrections of the clocks \([0-9]*\).*/\1/p' "$OUT/signals.log")
    compare "$what: slips" "$slips" -ge $((asked_for * 8 / 10))
    compare "$what: slips" "$slips" -le $((asked_for * 12 / 10 + 4))
done
amixer -q -D hw:Speaker cset "iface=PCM,name='PCM Rate Shift 100000',device=1" 100000
