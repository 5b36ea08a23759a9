#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Two cards with clocks that are 300 ppm apart: with rate matching the sound keeps its age and its quality, without it
# does not. In the long form the other sign as well, and beside each alsaloop on the same cards; clocks.txt has all
# figures.
# Limit: 180 + 8 * CLOCKS s
source "$PROJECT/tests/vm/lib.sh"

seconds=$CLOCKS # of each run; from two minutes on it is the long form
settling=17           # lock-in, and what the machine takes to start
shift_ppm=300
queue_ms=40           # the shortest one on the way: of the capture device, less a period
table=$OUT/clocks.txt

is_long() { [ "$seconds" -ge 120 ]; }

# apart PPM: the loudspeaker's clock against the cable's. The control counts in 10 ppm.
apart() { amixer -q -D hw:Speaker cset "iface=PCM,name='PCM Rate Shift 100000',device=1" $((100000 + $1 / 10)); }

# The smallest host, on the kernel's cards: no picture, only sound.
host() {
    SETTLING=$settling HDMIPLAYER_RATE_MATCHING=$1 \
        HDMIPLAYER_ALSA_HDMI_IN=hw:Cable,1 HDMIPLAYER_ALSA_SPEAKER=hw:Speaker,0 \
        "$BUILD/tests/clocks_host" $((seconds + 5))
}
# Its own means of adapting to two clocks: libsamplerate.
loop() {
    timeout --preserve-status -s INT $((seconds + 5)) chrt -r 50 alsaloop -v -C hw:Cable,1 -P hw:Speaker,0 -r 48000 \
        -f S16_LE -c 2 -t 100000 -S samplerate -A sincmedium
}

# figure NAME: of the present run.
figure() { sed -n "s/^$1 //p" "$figures"; }

# measure NAME COMMAND...: figures of COMMAND, which plays from the one card to the other.
measure() {
    local name=$1 log=$OUT/clocks-$1.log
    shift
    figures=$OUT/clocks-$name.figures
    (
        TIMEFORMAT='cpu_s %U %S'
        time "$@"
    ) >"$log" 2>&1 &
    "$BUILD/tests/clocks_probe" "$seconds" "$settling" >"$figures" 2>>"$log"
    wait $!
    sed -n 's/^cpu_s \([0-9.]*\) \([0-9.]*\)$/\1 \2/p' "$log" |
        awk -v s="$seconds" '{ printf "cpu_percent %.1f\n", 100 * ($1 + $2) / (s + 5) }' >>"$figures"
    # The platform's counters; of alsaloop its words, those of its start among them.
    grep -E '^xruns(_at_start)? [0-9]+$' "$log" >>"$figures" ||
        printf 'xruns %s\n' "$(grep -c 'underrun for' "$log")" >>"$figures"
    printf '%-22s' "$name" | tee -a "$table"
    tr '\n' ' ' <"$figures" | sed 's/$/\n/' | tee -a "$table"
}

# in_time WHAT: whether the machine stood still for less than any queue lasts.
in_time() {
    awk -v late="$(figure late_ms)" -v breaks="$(figure breaks)" -v most=$queue_ms \
        'BEGIN { exit !(late != "" && late < most && breaks == 0) }' && return
    verdict SKIPPED "$1" "the host is too busy: late by $(figure late_ms) ms"
    return 1
}

# keeps_age NAME: of a run with rate matching.
keeps_age() {
    in_time "$1" || return
    compare "$1: windows heard" "$(figure windows)" -ge $((2 * (seconds - settling) - 10))
    compare "$1: age of the sound moves" "$(figure wander_ms)" -le 1.5 ms
    compare "$1: THD+N of 997 Hz" "$(figure thdn_db)" -le -90 dB
    compare "$1: underruns and overruns, once settled" "$(figure xruns)" -eq 0
}

echo HEADDONE_PCM_48=1 >/sys/class/extcon/hdmirx_aud/state
signs=+
is_long && signs="+ -"
: >"$table"
for sign in $signs; do
    apart "$sign$shift_ppm"
    measure "matched$sign" host auto
    keeps_age "$sign$shift_ppm ppm"
    measure "unmatched$sign" host off
    what="$sign$shift_ppm ppm, no rate matching"
    # Three quarters of what the clocks drift apart meanwhile.
    in_time "$what" && compare "$what: age of the sound moves" \
        "$(figure wander_ms)" -ge "$(awk "BEGIN { print 0.75 * $shift_ppm * ($seconds - $settling - 2) / 1000 }")" ms
    is_long && measure "alsaloop$sign" loop
done
apart 0
