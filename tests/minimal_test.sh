#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# minimal_test.sh SOURCE_DIR PROGRAM: the host shown in hdmi_player.h and in README.md is the one of examples/minimal,
# line for line; and PROGRAM, which is that one, hears the source that the environment names, and comes to its end when
# it is interrupted.
set -euo pipefail
source_dir=$1
program=$2

# Blank lines do not count.
example=$(sed '1,/^\/\* --- The host /d; /^\/\* --- End of the host /,$d' "$source_dir/examples/minimal/main.c" | grep .)
manual=$(sed '1,/^ \* ## A host$/d; /^ \* ## /,$d' "$source_dir/include/hdmi_player.h" | sed -n 's/^ \*     //p')
readme=$(sed '1,/^```c$/d; /^```$/,$d' "$source_dir/README.md" | grep .)
diff <(echo "$example") <(echo "$manual") || { echo "hdmi_player.h shows another host than examples/minimal"; exit 1; }
diff <(echo "$example") <(echo "$readme") || { echo "README.md shows another host than examples/minimal"; exit 1; }

# hears PATTERN SIGNAL: the source's peak, by the host's last line.
hears() {
    local output status=0
    output=$(HDMIPLAYER_SIM_SIGNAL=$2 timeout --preserve-status --signal INT 3 "$program" 2>&1) || status=$?
    echo "$2: $output"
    [ "$status" -eq 0 ] &&
        tail -n 1 <<<"$output" | grep -qE "[1-9][0-9]* frames shown, .* [1-9]\.[0-9] s of sound heard, peak $1 dBFS\$"
}

# The tone, 12 dB below full scale; and files of a sine 21 dB below it, as they would come over the cable.
runs=()
hears '-1[12]\.[0-9]' tone,rate=44100,ppm=50 &
runs+=($!)
if command -v ffmpeg >/dev/null; then
    folder=$(mktemp -d)
    trap 'rm -rf "$folder"' EXIT
    for file in sine.wav sine.ac3 sine.eac3; do
        ffmpeg -v error -f lavfi -i sine=frequency=1000:sample_rate=48000:duration=5 -ac 2 "$folder/$file" </dev/null
        hears '-2[012]\.[0-9]' "$folder/$file" &
        runs+=($!)
    done
else
    echo "No ffmpeg here: no files are played."
fi
for run in "${runs[@]}"; do
    wait "$run"
done
