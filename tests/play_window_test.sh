#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# play_window_test.sh PROGRAM [silent]: a film in a window of a desktop that nobody sees: what it shows is the film, in
# its colours and in its order, with every picture told from the others, and its sound comes out of an ALSA device (where
# there is a sound server to offer one; silent: of a program that was built without alsa-lib). 77 without Xvfb or ffmpeg,
# and if the program was built without windows or is not permitted to run.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/support/sound_server.sh"

program=$1
for tool in Xvfb ffmpeg; do
    command -v "$tool" >/dev/null || { echo "No $tool here."; exit 77; }
done
folder=$(mktemp -d)
server=
sound_server=
trap 'kill $server $sound_server 2>/dev/null || true; wait; rm -rf "$folder"' EXIT

fail() {
    echo "FAIL: $*"
    cat "$folder/out.txt"
    exit 1
}

# colour: red, green and blue of the desktop's mean, 0 to 255 each.
colour() {
    ffmpeg -v error -f x11grab -video_size 1280x720 -i ":$display" -frames:v 1 -vf scale=1:1:flags=area \
        -f rawvideo -pix_fmt rgb24 - </dev/null | od -An -tu1
}

# shows WHAT RED GREEN BLUE: waits until the desktop is about that colour.
shows() {
    local red green blue end=$((SECONDS + 30))
    while [ "$SECONDS" -lt "$end" ]; do
        read -r red green blue < <(colour)
        if [ $(((red - $2) ** 2 + (green - $3) ** 2 + (blue - $4) ** 2)) -lt 1500 ]; then
            echo "$1: $red $green $blue"
            return 0
        fi
        kill -0 "$player" 2>/dev/null || break
    done
    fail "$1 was not seen, but $red $green $blue"
}

# heard: at how many instants of the film its sound was found in what came out.
heard() { awk '$1 == "\"offset\":" { inside = 1 } inside && $1 == "\"count\":" { print int($2); exit }' "$folder/report.json"; }

Xvfb -displayfd 3 -screen 0 1280x720x24 -nolisten tcp 3>"$folder/display" 2>/dev/null &
server=$!
for _ in $(seq 100); do
    [ -s "$folder/display" ] && break
    sleep 0.1
done
display=$(cat "$folder/display")
[ -n "$display" ] || { echo "Xvfb does not start."; exit 77; }

ffmpeg -v error -f lavfi -i "color=0xD02010:size=320x180:rate=25:duration=4" \
    -f lavfi -i "color=0x1020D0:size=320x180:rate=25:duration=3" -f lavfi -i "anoisesrc=duration=7" \
    -filter_complex '[0][1]concat' -c:v libx264 -pix_fmt yuv420p -c:a aac "$folder/film.mp4" </dev/null

sound=()
if [ "${2:-}" = silent ]; then
    echo "Built without alsa-lib: sound is left out."
elif command -v pulseaudio >/dev/null; then
    serve_sound "$folder" room
    sound=(--playback alsa:room --observe alsa:room_end)
else
    echo "No pulseaudio here: sound is left out."
fi
DISPLAY=:$display SDL_VIDEODRIVER=x11 timeout --kill-after 5 60 "$program" "$folder/film.mp4" --display window \
    "${sound[@]}" --report "$folder/report.json" >"$folder/out.txt" 2>&1 &
player=$!
sleep 0.5
if ! kill -0 "$player" 2>/dev/null; then
    status=0
    wait "$player" || status=$?
    cat "$folder/out.txt"
    [ "$status" -eq 3 ] && ! grep -q 'did not open\|does not start' "$folder/out.txt" && exit 77 || exit 1
fi
shows "the film's first part" 208 32 16
shows "the film's second part" 16 32 208
status=0
wait "$player" || status=$?
# Whether sound and picture were within limits on a busy machine is the other tests' affair.
[[ $status =~ ^[014]$ ]] || fail "exit status $status"
grep -q '"display": "window (x11' "$folder/report.json" || fail "the report does not tell of the window"
grep -q '"closes": true' "$folder/report.json" || fail "the frame account does not close"
grep -q '"unreadable": 0' "$folder/report.json" || fail "there were pictures without a number"
grep -qE '"pictures": [1-9][0-9]' "$folder/report.json" || fail "the report tells of no pictures"
if [ ${#sound[@]} -gt 0 ]; then
    # What the observer heard of the film, and where.
    [ "$(heard)" -ge 1 ] || fail "no sound was heard"
fi
echo "All as expected."
