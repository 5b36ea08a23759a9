#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# After a device was gone for a moment, or the source at another rate, sound and picture are not only back, but in sync.
# Limit: 250 s
source "$PROJECT/tests/vm/lib.sh"

bus=/sys/bus/platform/drivers/snd_aloop
connector=/sys/class/drm/card0-Virtual-1/status
receiver=/sys/class/extcon/hdmirx_aud/state
gone=0.3
trouble_s=6 # after the start of the program
judged_s=11 # from this second of the source on

unplug_cable() { echo snd_aloop.0 >$bus/unbind && sleep $gone && echo snd_aloop.0 >$bus/bind; }
unplug_speaker() { echo snd_aloop.1 >$bus/unbind && sleep $gone && echo snd_aloop.1 >$bus/bind; }
unplug_display() { echo off >$connector && sleep $gone && echo on >$connector; }
suspend() { echo devices >/sys/power/pm_test && echo freeze >/sys/power/state; }
# The cable does not follow so soon: at the announced rate the player's end does not open.
change_rate() { echo HEADDONE_PCM_48=1 >$receiver && sleep $gone && echo HEADDONE_PCM_44=1 >$receiver; }
# What the report says of each when it has met the player.
declare -A met=(
    [unplug_cable]='^  capture  *loss at'
    [unplug_speaker]='^  playback  *loss at'
    [unplug_display]='^  display  *lost at'
    [suspend]='^  playback  *suspend at'
    [change_rate]='^  player  *resets [2-9]'
)

# The program's own verdict is about the whole run and does not count: the trouble is to miss some limit.
play_through() {
    "$BUILD/tools/play/hdmi-player-play" --seconds 16 --rate 44100 --fps 59.94 \
        --feed alsa:hw:Cable,0 --capture alsa:hw:Cable,1 --playback alsa:hw:Speaker,0 --observe alsa:hw:Speaker,1 \
        --display kms --report "$OUT/resync-$1.json" >"$OUT/resync-$1.log" 2>&1
}

# offsets REPORT: those that were measured late enough, in ms.
offsets() {
    awk -v from=$judged_s '{ gsub(",", "") } $1 == "\"offset_ms\":" { offset = $2 }
        $1 == "\"source_s\":" && $2 + 0 >= from { printf "%.1f\n", offset }' "$OUT/resync-$1.json"
}

echo 0 >/sys/module/suspend/parameters/pm_test_delay
echo HEADDONE_PCM_44=1 >$receiver
for trouble in unplug_cable unplug_speaker unplug_display suspend change_rate; do
    (sleep $trouble_s && $trouble) &
    play_through $trouble
    wait
    what=${trouble//_/ }
    if grep -q '^  late  A/V offset' "$OUT/resync-$trouble.log"; then
        verdict SKIPPED "$what: A/V offset afterwards" "the host is too busy"
        continue
    fi
    check "$what: the player has met it" grep "${met[$trouble]}" "$OUT/resync-$trouble.log"
    compare "$what: A/V offsets measured afterwards" "$(offsets $trouble | wc -l)" -ge 3
    compare "$what: A/V offset afterwards, worst early sound" "$(offsets $trouble | sort -g | tail -n 1)" -le 40 ms
    compare "$what: A/V offset afterwards, worst late sound" "$(offsets $trouble | sort -g | head -n 1)" -ge -60 ms
done
