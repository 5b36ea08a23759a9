#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The machine itself, before the player is judged on it: vertical blanks at the mode's rate, and a real-time thread
# that is woken for them.
# Limit: 60 s
source "$PROJECT/tests/vm/lib.sh"

card=$(card_of vkms)
check "a display is there" test -c "$card"
check "vertical blanks come" "$BUILD/tests/vblank_probe" "$card" 10 || exit 0
figures=$OUT/vblank-vertical-blanks-come.log
figure() { awk -v name="$1" '$1 == name { print $2 }' "$figures"; }
compare "rate, off the mode's" "$(awk "BEGIN { d = $(figure rate_hz) - 59.94; print d < 0 ? -d : d }")" -le 0.01 Hz
compare "stamps off the mode's period, p99" "$(figure stamp_error_us_p99)" -le 100 us
compare "periods without a wake-up" "$(figure missed_percent)" -le 1 %
