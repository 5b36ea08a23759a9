#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The whole player, in real time.
# Limit: 150 s
source "$PROJECT/tests/vm/lib.sh"

check "simulated edges, 20 s" "$BUILD/examples/play/hdmi-player-play" --seconds 20 --report "$OUT/simulated.json"
