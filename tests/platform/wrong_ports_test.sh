#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# wrong_ports_test.sh PROGRAM: the contract program finds out each port that breaks a promise, and has no word against
# the one that keeps them.
set -euo pipefail
program=$1

devices='*DelayFalls*:*RateThatWasAskedFor*:*WithoutAKnownRate*'
decoder='*TheDecoderKeepsTheCount*'

# judge STATUS CHECKS WRONG: how the contract program ends on that port. Where it says itself that the machine was too busy
# to tell, it is asked again. 77 if it says so each time.
judge() {
    local said status
    for _ in 1 2 3; do
        status=0
        said=$(WRONG=$3 "$program" --gtest_filter="$2" 2>&1) || status=$?
        grep -q 'the machine was busy' <<<"$said" && [ "$status" -eq 0 ] && continue
        [ "$status" -eq "$1" ] && return
        echo "$said"
        echo "WRONG='$3': status $status, not $1"
        return 1
    done
    echo "SKIPPED: WRONG='$3': the machine was busy each time"
    return 77
}

# At once: they wait for their devices most of the time.
judges=()
judge 0 "$devices:$decoder" '' &
judges+=($!)
for wrong in delay_in_bytes delay_halved delay_negative rate_0_refused rate_ignored old_sound; do
    judge 1 "$devices" $wrong &
    judges+=($!)
done
for wrong in losses_not_filled pauses_not_filled eac3_not_known; do
    judge 1 "$decoder" $wrong &
    judges+=($!)
done
failed=0
skipped=0
for judge in "${judges[@]}"; do
    status=0
    wait "$judge" || status=$?
    case $status in
    0) ;;
    77) skipped=77 ;;
    *) failed=1 ;;
    esac
done
[ "$failed" -eq 0 ] && exit "$skipped"
exit 1
