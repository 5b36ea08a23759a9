#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Each device is taken away and given back, and the rate changed, while the player runs.
# Limit: 1800 s
source "$PROJECT/tests/vm/lib.sh"

export HDMIPLAYER_ALSA_HDMI_IN=hw:Cable,1 HDMIPLAYER_ALSA_SPEAKER=hw:Speaker,0
# The kernel would keep everything suspended for 5 s.
echo 0 >/sys/module/suspend/parameters/pm_test_delay
check "sound and picture back each time, nothing leaked" "$BUILD/tests/disturb" "$ROUNDS" "$SEED" "$OUT/disturb.json"
sed -n 's/.*\(seed [0-9]*\)$/-- \1/p; s/.*RECOVERY/--/p' "$OUT"/disturb-sound-*.log
