#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Pictures on a DRM/KMS device: every flip reaches the screen at a vertical blank of its own, atomically and by page
# flips; a display that another program has is refused.
# Limit: 240 s
source "$PROJECT/tests/vm/lib.sh"

card=$(card_of vkms)
options=(--display "kms:$card")

# figure REPORT KEY: a number of it, by its name.
figure() { sed -n "s/^ *\"$2\": \([-0-9.e]*\),\{0,1\}\$/\1/p" "$OUT/$1.json" | head -n 1; }

excess_limit=0.02

# judge_pace WHAT REPORT: what is measured is judged here: the program's own verdict is about more than the display.
judge_pace() {
    local what="$1: pictures unseen or held beyond the rates"
    if grep -q '^  late  at most 2 % of frames unseen' "$OUT/$2.log"; then
        verdict SKIPPED "$what" "the host is too busy"
    else
        compare "$what" "$(figure "$2" excess)" -le "$excess_limit"
    fi
}

for way in atomic page; do
    [ "$way" = page ] && flips=(--page-flips) || flips=()
    play "$OUT/kms-$way.log" "${options[@]}" "${flips[@]}" --seconds 8 --report "$OUT/kms-$way.json"
    check "$way flips: plays" test -e "$OUT/kms-$way.json" || { tail -n 20 "$OUT/kms-$way.log"; continue; }
    check "$way flips in use" grep -q "Virtual-1.*, $way flips" "$OUT/kms-$way.json"
    judge_pace "$way flips" "kms-$way"
    compare "$way flips: pictures not readable" "$(figure "kms-$way" unreadable)" -le 0
    # The kernel's stamps follow each other in whole refreshes.
    compare "$way flips: seen off the grid, p99" "$(figure "kms-$way" p99)" -le 200 us
    check "$way flips: every buffer came back" grep -q '"closes": true' "$OUT/kms-$way.json"
done

card_in_use() { ls -l /proc/[0-9]*/fd 2>/dev/null | grep -q "$card\$"; } # whatever the root of the one that has it

program=("$BUILD/tools/play/hdmi-player-play" "${options[@]}")
"${program[@]}" --seconds 60 --report "$OUT/kms-stopped.json" >"$OUT/kms-stopped.log" 2>&1 &
first=$!
wait_for 30 card_in_use
status=0
"${program[@]}" --seconds 2 >"$OUT/kms-second.log" 2>&1 || status=$?
compare "a display in use is refused, exit status" "$status" -eq 3
check "and the message says why" grep -q 'another program shows on it' "$OUT/kms-second.log"
kill "$first"
wait "$first"
check "stopped by a signal: every buffer came back" grep -q '"closes": true' "$OUT/kms-stopped.json"

# The example with a display, which takes the sound of the cable along.
export HDMIPLAYER_ALSA_HDMI_IN=hw:Cable,1 HDMIPLAYER_ALSA_SPEAKER=hw:Speaker,0
echo HEADDONE_PCM_48=1 >/sys/class/extcon/hdmirx_aud/state
check "the example plays" bash -c '"$BUILD/tests/screen_host" "$1" 6 >"$OUT/kms-example.log"' sh "$card"
compare "frames that it shows" "$(grep -oE '[0-9]+ frames shown' "$OUT/kms-example.log" | cut -d ' ' -f 1)" -ge 60
