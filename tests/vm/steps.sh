#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The machine's clock is set while the player plays, forth and back, by a twentieth of a second to an hour: three seconds
# later sound and picture are in sync again, also where the host's processing takes long.
# Limit: 420 s
source "$PROJECT/tests/vm/lib.sh"

seconds=15
step_s=7    # after the start of the programs
judged_s=10 # from this second of the source on, which starts later than the program
delays=(0 200)

set_clock() { date -s "@$(awk -v now="$(date +%s.%N)" -v by="$1" 'BEGIN { printf "%.6f", now + by }')"; }

# play_through NAME DELAY: the program's own verdict is about the whole run and does not count.
play_through() {
    "$BUILD/tools/play/hdmi-player-play" --seconds $seconds --rate 48000 --algorithm-delay "$2" \
        --report "$OUT/steps-$1.json" >"$OUT/steps-$1.log" 2>&1
}

# offsets NAME: those that were measured late enough, in ms.
offsets() {
    awk -v from=$judged_s '{ gsub(",", "") } $1 == "\"offset_ms\":" { offset = $2 }
        $1 == "\"source_s\":" && $2 + 0 >= from { printf "%.1f\n", offset }' "$OUT/steps-$1.json"
}

for step in -3600 -60 -1 -0.5 -0.1 -0.05 0.05 0.1 0.5 1 60 3600; do
    # Both have the same clock.
    for delay in "${delays[@]}"; do
        play_through "$step-$delay" "$delay" &
    done
    sleep $step_s
    check "set by $step s" set_clock "$step"
    wait
    for delay in "${delays[@]}"; do
        name=$step-$delay
        what="set by $step s, processing of $delay ms"
        if grep -q '^  late  A/V offset' "$OUT/steps-$name.log"; then
            verdict SKIPPED "$what: A/V offset afterwards" "the host is too busy"
            continue
        fi
        check "$what: the player has reset" grep '^  player  *resets [2-9]' "$OUT/steps-$name.log"
        compare "$what: A/V offsets measured afterwards" "$(offsets "$name" | wc -l)" -ge 3
        compare "$what: worst early sound" "$(offsets "$name" | sort -g | tail -n 1)" -le 40 ms
        compare "$what: worst late sound" "$(offsets "$name" | sort -g | head -n 1)" -ge -60 ms
    done
done
