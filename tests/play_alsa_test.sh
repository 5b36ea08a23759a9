#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# play_alsa_test.sh PROGRAM: the play program on real ALSA devices, the null sinks of a sound server of its own. What is
# played into one is heard at its monitor, what is sent into another one is captured there. 77 without that server, if the
# program is not permitted to run, and if the machine is too late each time to measure.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/support/sound_server.sh"

program=$1
command -v pulseaudio >/dev/null || { echo "No pulseaudio here."; exit 77; }
folder=$(mktemp -d)
sound_server=
trap '[ -z "$sound_server" ] || { kill "$sound_server"; wait "$sound_server"; } 2>/dev/null || true; rm -rf "$folder"' EXIT
source "$(dirname "${BASH_SOURCE[0]}")/support/play_runs.sh"

# The cable from the source to the player, and the room in which the player is heard.
serve_sound "$folder" cable room
run start --seconds 2 --playback alsa:room
if barred start; then
    cat "$folder/start.txt"
    tail -n 3 "$folder/server.txt"
    exit 77
fi

# plays: the run came to its end, inside the limits or not.
plays() { [[ $status =~ ^[014]$ ]]; }

played=(--playback alsa:room)
heard=("${played[@]}" --observe alsa:room_end)
captured=(--capture alsa:cable_end)
sent=("${captured[@]}" --feed alsa:cable)

passes played --seconds 3 "${played[@]}" --display-rate 50
passes heard --seconds 4 "${heard[@]}"
passes real --seconds 4 "${sent[@]}" "${heard[@]}" --rate 48000
grep -q '"exact": false' "$folder/real.json" || fail "bits are demanded of a device that may convert them"
passes coded --seconds 4 "${sent[@]}" "${played[@]}" --bitstream ac3
passes foreign --seconds 3 "${captured[@]}" "${played[@]}"
grep -q 'A/V offset' "$folder/foreign.txt" && fail "an offset to a source that is not known"
grep -q 'Lip sync not measured' "$folder/foreign.txt" || fail "the report does not tell that lip sync was not measured"

# A platform that the program knows by its seams alone.
library=$(realpath "$(dirname "$program")/../../platform/linux/libhdmiplayer_linux.so")
HDMIPLAYER_ALSA_SPEAKER=room passes port --seconds 3 --playback "port:$library" --display-rate 50
refuses 3 --playback port:/no_such_library.so
refuses 2 "${captured[@]}" --playback "port:$library"
refuses 2 --playback port:/no_such_library.so --output arc --cec /dev/cec0

# A source that goes on compressed is announced anew.
if command -v ffmpeg >/dev/null; then
    {
        sleep 2
        ffmpeg -v error -f lavfi -i anoisesrc=duration=4:sample_rate=48000 -ac 2 -c:a ac3 -f spdif - </dev/null |
            ffmpeg -v error -f s16le -ar 48000 -ac 2 -i - -c:a pcm_s16le -f alsa cable
    } &
    run changing --seconds 5 "${captured[@]}" "${played[@]}"
    wait $!
    plays && grep -q 'announced HEADDONE_PCM_48=1' "$folder/changing.txt" &&
        grep -q 'announced HEADDONE_COMP_48=1' "$folder/changing.txt" ||
        { cat "$folder/changing.txt"; fail "a source that becomes compressed: exit status $status"; }
else
    echo "No ffmpeg here: no source that changes its format."
fi

# All devices go at once, and come back: so do sound and picture, together. The rest of the limits is missed.
comes_back() {
    run gone --seconds 9 "${sent[@]}" "${heard[@]}" &
    local playing=$!
    status=0
    sleep 4
    kill -9 "$sound_server"
    { wait "$sound_server" || true; } 2>/dev/null
    rm -f "$folder/native"
    sleep 0.5
    serve_sound "$folder" cable room
    wait "$playing"
    grep -q '"kind": "loss"' "$folder/gone.json" && ! grep -q '"sound_back_ms": null' "$folder/gone.json" &&
        grep -q 'ok    A/V offset p95' "$folder/gone.txt" && grep -q 'ok    frame account closed' "$folder/gone.txt"
}
for attempt in 1 2 3 4 5; do
    comes_back && break
    machine_was_late gone 'A/V offset' || { cat "$folder/gone.txt"; fail "sound and picture are not back together"; break; }
    [ "$attempt" -lt 5 ] || echo "gone" >>"$undecided"
done

# The measurement still tells a lost block, and sound and picture that do not belong together.
misses lost 'samples complete and in place' --seconds 4 "${sent[@]}" "${heard[@]}" --withhold-block
misses late 'A/V offset p95' --seconds 4 "${sent[@]}" "${heard[@]}" --display-latency 160 --no-hold

for option in '--playback alsa:' '--capture alsa:' '--cec /dev/' "${captured[*]} --video v4l2:/dev/"; do
    refuses 3 ${option}no_such_device
done
# Devices that are there, and cannot be used: what opens takes A-law alone.
echo 'pcm.narrow { type alaw slave { pcm { type null } format S16_LE } }' >>"$ALSA_CONFIG_PATH"
refuses 3 "${played[@]}" --observe alsa:narrow
refuses 3 "${captured[@]}" --feed alsa:narrow
echo 'speaker.frames = 3' >"$folder/wrong.conf"
HDMIPLAYER_LINUX_CONFIG=$folder/wrong.conf refuses 2 "${played[@]}"
# What is wrong with devices that are not in use is told, and the run goes on.
printf 'headphone.frames = 3\nspdif = no_such_device\ncec = /dev/no_such_device\nspeaker.mixer = no_such_control\n' \
    >"$folder/unused.conf"
HDMIPLAYER_LINUX_CONFIG=$folder/unused.conf run unused --seconds 2 "${played[@]}"
plays && [ "$(grep -c 'warning: .*/unused.conf:' "$folder/unused.txt")" -eq 4 ] ||
    { cat "$folder/unused.txt"; fail "faults of devices that are not in use: exit status $status"; }
HDMIPLAYER_LINUX_CONFIG=$folder/unused.conf run used --seconds 2 "${played[@]}" --output headphone
[ "$status" -eq 2 ] || { cat "$folder/used.txt"; fail "a fault of the device in use: exit status $status"; }
for arguments in '--playback room' '--feed alsa:cable' '--observe alsa:room_end' "${captured[*]} --receiver-ppm 50" \
    '--video v4l2:/dev/video0' "${captured[*]} --video /dev/video0" "${captured[*]} --flash-at 50,50" \
    "${captured[*]} --bitstream ac3" "${sent[*]} --bitstream eac3"; do
    refuses 2 $arguments
done

finish
