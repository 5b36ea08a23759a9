#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# run_test.sh PROGRAM HOST: hdmi-player-run lets HOST, linked with simulated devices, hear a capture device, the null sink
# of a sound server of the test's own, without a change to it. 77 without that server or ffmpeg, which plays into it.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/support/sound_server.sh"

program=$1 host=$2
for needed in pulseaudio ffmpeg; do
    command -v $needed >/dev/null || { echo "No $needed here."; exit 77; }
done
folder=$(mktemp -d)
sound_server= source=
trap 'kill $source $sound_server 2>/dev/null; wait 2>/dev/null; rm -rf "$folder"' EXIT
serve_sound "$folder" cable room
[ -S "$folder/native" ] || { tail -n 3 "$folder/server.txt"; exit 77; }

# A sine of 21 dB below full scale, at a rate that the host must be told of.
ffmpeg -v error -re -f lavfi -i sine=frequency=1000:sample_rate=48000 -ac 2 -c:a pcm_s16le -f alsa cable </dev/null &
source=$!
sleep 0.5
said=$(timeout 30 "$program" --capture cable_end --playback room -- "$host" 4 2>"$folder/messages") ||
    { cat "$folder/messages"; echo "exit status $?"; exit 1; }
echo "$said"
tail -n 1 <<<"$said" | grep -qE ' frames shown, .* [1-9]\.[0-9] s of sound heard, peak -2[012]\.[0-9] dBFS$' ||
    { cat "$folder/messages"; echo "The host did not hear the sine."; exit 1; }

# What it cannot run, it says in one line.
status=0
"$program" -- "$folder/no_such_host" 2>"$folder/messages" || status=$?
[ "$status" -eq 127 ] && [ "$(wc -l <"$folder/messages")" -eq 1 ] || { cat "$folder/messages"; exit 1; }
