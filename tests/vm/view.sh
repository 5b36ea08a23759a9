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
    "$program" "${kms[@]}" "$@" --seconds "$seconds" --frames "${log%.log}.csv" >"$log" 2>&1 </dev/null || cat "$log"
}
# median: of the numbers on the standard input.
median() { sort -g | awk '{ all[NR] = $1 } END { if (NR > 0) print all[int((NR + 1) / 2)] }'; }
# account LOG: of the frames that were to be seen, how many there are, and how many of them were not seen once and in
# order. Of frames that come less than a refresh apart, one may take the other's place, or both that of the frame behind
# them; the rest are to be seen. Where a frame comes at another time than the driver stamped it, or the driver's count
# leaves some out, the emulated machine stood still: what the player held then, and two refreshes beside it, is not
# judged, nor are the first two seconds, in which it begins, or begins anew behind frames that were withheld, nor what it
# held when it moved the flips to the sound.
account() {
    local log=$OUT/view-$1.csv usual latency
    usual=$(awk -F, 'NR > 1 { print ($5 - $4) / 1e6 }' "$log" | median)
    latency=$(awk -F, 'NR > 1 && $8 != "" { print ($8 - $5) / 1e6 }' "$log" | median)
    awk -F, -v usual="$usual" -v refresh=16.7 -v latency="$latency" '
        BEGIN { queue = latency + 2 * refresh }
        NR == 1 { next }
        { n++; run[n] = $1; came[n] = $5 / 1e6; seen[n] = $8 / 1e6; times[n] = $8 == "" ? 0 : NF - 7
          late = ($5 - $4) / 1e6 - usual
          still[n] = late > 8 || late < -8 || ($1 == run[n - 1] && ($3 != sequence + 1 || $6 != moves))
          # Left out on purpose, so that the player resets: what it held until then is gone.
          if ($1 == run[n - 1] && $3 != sequence + 1) still[n - 1] = 1
          sequence = $3
          moves = $6
          if ($1 != run[n - 1] || $2 != number + 1) begin = came[n]
          number = $2
          began[n] = begin
          ended[$1] = came[n] }
        END {
            for (i = n; i > 0; i--) {
                if (still[i]) after = came[i]
                calm[i] = !after || after - came[i] > queue
            }
            for (i = 2; i < n; i++) {
                if (still[i]) before = came[i]
                if (!calm[i] || came[i] - before < queue || came[i] - began[i] < 2000 || ended[run[i]] - came[i] < 400)
                    continue
                if (times[i] > 1 || (times[i] > 0 && seen[i] <= last)) wrong++
                if (times[i] > 0) last = seen[i]
                if (came[i] - came[i - 1] < refresh || came[i + 1] - came[i] < refresh) continue
                if (came[i - 1] - came[i - 2] < refresh) continue
                judged++
                if (times[i] == 0) wrong++
            }
            print judged + 0, wrong + 0, n
        }' "$log"
}
# every_frame WHAT LOG: as they lie, in order; each that has a refresh of its own is seen once. Where fewer than one in
# fifty frames came evenly enough to be judged, the emulated machine had no time for the device.
every_frame() {
    local judged wrong all
    check "$1: frames are not copied" grep -q 'XR24 at .* not copied' "$OUT/view-$2.log" || tail -n 5 "$OUT/view-$2.log"
    compare "$1: frames that were copied" "$(figure "$2" copied)" -eq 0
    compare "$1: frames out of order" "$(figure "$2" 'out of order')" -eq 0
    read -r judged wrong all < <(account "$2")
    echo "-- $1: $all frames delivered, $judged of them a refresh apart and while the machine was in time"
    if [ "${judged:-0}" -lt 25 ] || [ $((50 * judged)) -lt "$all" ]; then
        verdict SKIPPED "$1: frames not seen once" "the host is too busy"
    else
        compare "$1: of $judged frames delivered in time, not seen once and in order" "$wrong" -eq 0
    fi
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
# pauses LOG: how often the machine stood still for three refreshes: no frame came, and none was withheld.
pauses() {
    awk -F, '
        NR > 1 && $1 == run && $2 == number + 1 && $5 - came > 50e6 { n++ }
        { run = $1; number = $2; came = $5 }
        END { print n + 0 }' "$OUT/view-$1.csv"
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
# A pause may make sound late for good, which the player mends by a reset.
compare_in_time sound "resets" "$(figure sound resets)" -le $((3 + $(pauses sound)))
for rate in 25 30 50; do
    sends 1280x720p$rate
    watches $rate 8 "${sound[@]}"
    every_frame "720p$rate" $rate
done
# A flash a second beside the beeps: what the player adds to each, from the devices to the screen and to the cable.
flashes() {
    while sleep 0.5; do
        control -c test_pattern=6
        sleep 0.5
        control -c test_pattern=5
    done
}
kill "$tone"
sends 640x480p59
control -c osd_text_mode=2
flashes &
flashing=$!
"$BUILD/tests/beeps_probe" 30 "$OUT/view-beeps.wav" >"$OUT/view-beeps.log" 2>&1 &
beeping=$!
watches sync 25 "${sound[@]}"
wait "$beeping"
kill "$flashing"
control -c test_pattern=0
sound_ms=$(awk '$1 == "beep" { print $2 }' "$OUT/view-beeps.log" | median)
picture_ms=$(awk -F, '$7 == 1 && $8 != "" { print ($8 - $5) / 1e6 }' "$OUT/view-sync.csv" | median)
echo "-- sound takes $sound_ms ms, pictures $picture_ms ms (medians)"
sed -n 's/.*; \(sound takes .*\)/-- by its own calculation: \1/p' "$OUT/view-sync.log" | tail -n 1
compare "sound before its picture" "$(awk "BEGIN { print $picture_ms - $sound_ms }")" -le 40 ms
compare "sound before its picture" "$(awk "BEGIN { print $picture_ms - $sound_ms }")" -ge -60 ms
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
watches mode 4 --capture none --size 111x111
check "a mode that it does not have: one line" says mode 'has no mode such as was asked for: v4l2-ctl -d /dev/video0'

# --- A window ---------------------------------------------------------------------------

Xvfb :7 -screen 0 640x480x24 -nolisten tcp >/dev/null 2>&1 &
desktop=$!
colour() {
    ffmpeg -v error -f x11grab -video_size 640x480 -i :7 -frames:v 1 -vf crop=200:100:220:300,scale=1:1:flags=area \
        -f rawvideo -pix_fmt rgb24 - </dev/null | od -An -tu1
}
has_desktop() { [ -n "$(colour)" ]; }
# shows RED GREEN BLUE: the desktop is about that colour.
shows() {
    local red green blue
    read -r red green blue < <(colour)
    echo "$red $green $blue"
    [ $(((red - $1) ** 2 + (green - $2) ** 2 + (blue - $3) ** 2)) -lt 1500 ]
}
sends 640x480p60
control -c test_pattern=7
# A program that comes before the desktop ends at once.
wait_for 60 has_desktop || echo "-- no desktop after a minute"
# Without OpenGL: what Mesa compiles at run time does not survive the emulated processor.
DISPLAY=:7 SDL_VIDEODRIVER=x11 SDL_RENDER_DRIVER=software SDL_FRAMEBUFFER_ACCELERATION=0 \
    "$program" --display window --video "v4l2:$input" --capture none --seconds 90 >"$OUT/view-window.log" 2>&1 </dev/null &
viewer=$!
check "a window shows the input's red" wait_for 60 shows 255 0 0 || cat "$OUT/view-window.log"
control -c test_pattern=9
check "and its blue" wait_for 30 shows 0 0 255 || cat "$OUT/view-window.log"
# bash starts what runs beside it with SIGINT ignored.
kill -TERM "$viewer"
told=$SECONDS
check "the window ends at a signal" wait "$viewer"
compare "after" $((SECONDS - told)) -le 20 s
check "its frames are not copied before they are uploaded" says window 'not copied'
kill "$desktop"
control -c test_pattern=0 -c dv_timings_signal_mode=0
