#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# play_clocks_test.sh PROGRAM: plays for a minute with a source and an output that have clocks of their own. With rate
# matching the sound keeps its age, without it does not. Beside that, bursts are lost on compressed links.
# scripts/test-clocks is the long form.
# 77 if the machine does not permit the program to run, or is too late each time to measure.
set -euo pipefail

program=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
source "$(dirname "${BASH_SOURCE[0]}")/support/play_runs.sh"
patience=100
tries=2

# keeps_age NAME ARGUMENT...: passes, and at no instant the sound is 3 ms older than at another one.
keeps_age() {
    local latency
    passes "$@"
    latency=$(sed -n 's/.*latency  *sound [0-9.]* ms (\([0-9.]*\) to \([0-9.]*\)).*/\1 \2/p' "$folder/$1.txt")
    awk -v text="$latency" 'BEGIN { exit !(split(text, age, " ") == 2 && age[2] - age[1] < 3) }' ||
        { cat "$folder/$1.txt"; fail "${*:2}: sound of $latency ms"; }
}

run start --seconds 2
if barred start; then
    cat "$folder/start.txt"
    exit 77
fi
minute=(--seconds 65) # the pitch is judged from the end of a minute on
keeps_age fast "${minute[@]}" --receiver-ppm 1000 --rate 48000 --tones &
keeps_age slow "${minute[@]}" --receiver-ppm -1000 &
keeps_age coded "${minute[@]}" --playback-ppm 1000 --bitstream ac3 &
# What fills the output is left out.
misses unmatched 'A/V offset p95|samples complete' "${minute[@]}" --receiver-ppm 1000 --playback-ppm -1000 \
    --rate-matching off &
passes flagged --seconds 30 --bitstream ac3 --lose-bursts 1,10:noise,10:pause &
passes damaged --seconds 20 --bitstream eac3 --lose-bursts 1:noise,10:noise &
# The host sees that so much sound is missing, and has the player reset.
misses uncounted 'sound back in its place|samples complete|no underrun|A/V offset|one reset|at most 2 % of frames' \
    --seconds 20 --bitstream ac3 --lose-bursts 1,10 --no-loss-filling &
misses lost 'samples complete and in place' --seconds 10 --receiver-ppm 1000 --withhold-block &
wait
finish
