#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The Linux platform's sound devices on the kernel's cards: overruns, rates, the mixer.
# Limit: 120 s
source "$PROJECT/tests/vm/lib.sh"

modprobe snd-dummy index=2 id=Dummy
check "sound on kernel cards" "$BUILD/tests/sound_probe"
