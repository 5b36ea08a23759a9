#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The Linux platform's sound devices on the kernel's cards: overruns, rates, the mixer, what a platform promises.
# Limit: 150 s
source "$PROJECT/tests/vm/lib.sh"

modprobe snd-dummy index=2 id=Dummy
check "sound on kernel cards" "$BUILD/tests/sound_probe"

# The source that the contract asks for.
aplay -q -D hw:Cable,0 -t raw -f S16_LE -r 48000 -c 2 /dev/zero &
HDMIPLAYER_ALSA_SPEAKER=hw:Speaker,0 HDMIPLAYER_ALSA_HDMI_IN=hw:Cable,1 \
    check "the platform's contract" chrt -r 50 "$BUILD/tests/platform/platform_contract_cards" || true
kill %1
