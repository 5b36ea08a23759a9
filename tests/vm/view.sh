#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The viewer on the kernel's devices: pictures of vivid's HDMI input on vkms without a copy, at each rate, with sound
# beside them; a signal that changes, goes and comes back, a device that is unplugged; what is said of all that; a
# window, told by its colour.
# Limit: 600 s
source "$PROJECT/tests/vm/lib.sh"

input=/dev/video0
program=$BUILD/tools/view/hdmi-player-view
card=$(card_of vkms)
kms=(--display "kms:$card" --video "v4l2:$input")
sound=(--capture alsa:hw:Cable,1 --playback alsa:hw:Speaker,0)
unseen_percent=2
seen_percent=70

control() { v4l2-ctl -d "$input" "$@"; }
# sends TIMINGS: what comes in from now on, such as 1280x720p60; the first whose name begins so.
sends() {
    control -c "dv_timings=$(control -L | awk -v name="$1" '/dv_timings / { inside = 1 } inside && index($2, name) == 1 { print int($1); exit }')" \
        -c dv_timings_signal_mode=4
}
# figure LOG WORDS: the number before them, in the last line of figures.
figure() { sed -n "s/.*[^0-9]\([0-9]\{1,\}\) $2.*/\1/p" "$OUT/view-$1.log" | tail -n 1; }
# watches LOG SECONDS OPTION...: shows the signal for that long.
watches() {
    local log=$OUT/view-$1.log seconds=$2
    shift 2
    "$program" "${kms[@]}" "$@" --seconds "$seconds" >"$log" 2>&1 </dev/null || cat "$log"
}
# every_frame WHAT LOG: as they lie, in order; each is seen, or it is known what took its place. How many are late is the
# emulated machine's affair, up to a limit.
every_frame() {
    local captured late
    captured=$(figure "$2" captured)
    late=$(($(figure "$2" dropped) + $(figure "$2" skipped) + $(figure "$2" superseded)))
    check "$1: frames are not copied" grep -q 'XR24 at .* not copied' "$OUT/view-$2.log" || tail -n 5 "$OUT/view-$2.log"
    compare "$1: frames that were copied" "$(figure "$2" copied)" -eq 0
    compare "$1: frames out of order" "$(figure "$2" 'out of order')" -eq 0
    compare "$1: frames unseen for no known reason" \
        "$(awk "BEGIN { print 100 * ($(figure "$2" unseen) - $late) / ($captured + 1) }")" -le "$unseen_percent" %
    compare_in_time "$2" "$1: frames seen" "$(awk "BEGIN { print 100 * $(figure "$2" seen) / ($captured + 1) }")" -ge \
        "$seen_percent" %
}
# compare_in_time LOG WHAT...: as compare, unless the device itself was too late for more than one frame in twenty.
compare_in_time() {
    local log=$1
    shift
    if [ $((20 * $(figure "$log" 'lost before'))) -gt "$(figure "$log" captured)" ]; then
        verdict SKIPPED "$1" "the host is too busy"
    else
        compare "$@"
    fi
}
says() { grep -q -- "$2" "$OUT/view-$1.log" || { cat "$OUT/view-$1.log"; return 1; }; }

# Silence would do; a tone shows that something is played.
speaker-test -D hw:Cable,0 -c 2 -r 48000 -F S16_LE -t sine >"$OUT/view-tone.log" 2>&1 &
tone=$!
echo HEADDONE_PCM_48=1 >/sys/class/extcon/hdmirx_aud/state
trap 'kill $tone 2>/dev/null' EXIT

sends 1280x720p60
check "the list tells of the input" bash -c "'$program' --list | tee '$OUT/view-list.log' | grep -q '^\* $input .*1280x720 at 60 fps'"
check "and why the output is not used" grep -q '/dev/video1 .*not used: does not capture' "$OUT/view-list.log"

sends 640x480p59
watches sound 60 "${sound[@]}"
every_frame "480p with sound, 60 s" sound
compare_in_time sound "frames captured" "$(figure sound captured)" -ge 2500
compare_in_time sound "sound beside it" "$(sed -n 's/.*; \([0-9]*\)\.[0-9]* s of sound.*/\1/p' "$OUT/view-sound.log" | tail -n 1)" -ge 45 s
compare_in_time sound "resets" "$(figure sound resets)" -le 3
for rate in 25 30 50; do
    sends 1280x720p$rate
    watches $rate 12 "${sound[@]}"
    every_frame "720p$rate" $rate
done
watches copied 6 --capture none --format NV12
check "what the card does not read is copied, with the reason" says copied 'NV12 .*copied (the display does not read NV12)'
compare "and shown" "$(figure copied seen)" -ge 30

sends 1280x720p60
"$program" "${kms[@]}" --capture none --seconds 100 >"$OUT/view-changes.log" 2>&1 </dev/null &
viewer=$!
check "plays" wait_for 30 says changes '1280x720 XR24 at 60 fps'
sends 1024x768p60
check "follows the signal's change" wait_for 20 says changes '1024x768 XR24 at 60'
control -c dv_timings_signal_mode=1
check "no signal: one line, and what mends it" wait_for 20 says changes 'no signal (.*): v4l2-ctl -d /dev/video0 --set-edid'
control -c dv_timings_signal_mode=2
check "no lock: one line" wait_for 20 says changes 'insists on HDCP): v4l2-ctl'
sends 1920x1080i
check "interlaced: refused" wait_for 20 says changes '1920x1080 interlaced at .* not shown'
sends 800x600p60
check "back" wait_for 20 says changes '800x600 XR24 at 60'
control -c disconnect=1
check "unplugged: one line" wait_for 20 says changes 'was unplugged'
check "and taken back" wait_for 30 bash -c "sed '1,/was unplugged/d' '$OUT/view-changes.log' | grep -q '800x600 XR24'"
kill -TERM "$viewer"
check "ends at a signal" wait "$viewer"
compare "frames out of order" "$(figure changes 'out of order')" -eq 0

v4l2-ctl -d "$input" --stream-mmap >/dev/null 2>&1 &
stream=$!
sleep 2
watches busy 4 --capture none
kill "$stream"
check "another program has it: one line" says busy 'another program captures from it: sudo fuser'

# --- A window ---------------------------------------------------------------------------

Xvfb :7 -screen 0 640x480x24 -nolisten tcp >/dev/null 2>&1 &
desktop=$!
colour() {
    ffmpeg -v error -f x11grab -video_size 640x480 -i :7 -frames:v 1 -vf crop=200:100:220:300,scale=1:1:flags=area \
        -f rawvideo -pix_fmt rgb24 - </dev/null | od -An -tu1
}
# shows RED GREEN BLUE: the desktop is about that colour.
shows() {
    local red green blue
    read -r red green blue < <(colour)
    echo "$red $green $blue"
    [ $(((red - $1) ** 2 + (green - $2) ** 2 + (blue - $3) ** 2)) -lt 1500 ]
}
sends 640x480p60
control -c test_pattern=7
DISPLAY=:7 SDL_VIDEODRIVER=x11 SDL_RENDER_DRIVER=software "$program" --display window --video "v4l2:$input" \
    --capture none --seconds 90 >"$OUT/view-window.log" 2>&1 </dev/null &
viewer=$!
check "a window shows the input's red" wait_for 60 shows 255 0 0 || cat "$OUT/view-window.log"
control -c test_pattern=9
check "and its blue" wait_for 30 shows 0 0 255 || cat "$OUT/view-window.log"
kill -INT "$viewer"
check "the window ends at a signal" wait "$viewer"
check "its frames are not copied before they are uploaded" says window 'not copied'
kill "$desktop"
control -c test_pattern=0 -c dv_timings_signal_mode=0
