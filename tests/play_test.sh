#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# play_test.sh PROGRAM [quick]: runs the play program as a whole. Good runs pass, the controls that prove its
# measurement fail for the reason that they were built for, and bad input is refused. Quick: one good run.
# 77 if the machine does not permit the program to run.
set -euo pipefail

program=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
source "$(dirname "${BASH_SOURCE[0]}")/support/play_runs.sh"

# passes NAME ARGUMENT...: inside its limits. In two seconds a shared machine that stands still twice for some
# milliseconds is outside: one good run of two will do, and a bad one is shown.
passes() {
    local attempt
    for attempt in 1 2; do
        run "$@"
        [ "$status" -ne 0 ] || return 0
        echo "attempt $attempt:"
        cat "$folder/$1.txt"
        [ "$status" -eq 1 ] || break
    done
    fail "${*:2}: exit status $status"
}

run start --seconds 2
if barred start; then
    cat "$folder/start.txt"
    exit 77
fi
[ "$status" -eq 0 ] || { cat "$folder/start.txt"; passes start --seconds 2; }
version=$("$program" --version)
for part in "${version#hdmi-player-play }" "$(sed -n 's/^ *"revision": "\(.*\)",\{0,1\}$/\1/p' "$folder/start.json")"; do
    grep -q "^  program   hdmi-player-play .*${part:?}" "$folder/start.txt" || fail "the report does not name: $part"
done
grep -q '"passed": true' "$folder/start.json" || fail "the report does not say that the run passed"

if [ "${2:-}" != quick ]; then
    # In real time, but hardly busy: a few at once.
    processed=(--seconds 2 --rate 32000 --algorithm-delay 100 --video-start 200 --fps 25)
    passes exact --seconds 2 --rate 48000 --fps 59.94 --display-rate 50 &
    passes processed "${processed[@]}" &
    passes ac3 --seconds 2 --bitstream ac3 --chunk-phase 772 &
    wait
    passes eac3 --seconds 2 --bitstream eac3 --chunk-phase 12288 --rate 44100 &
    passes raw --seconds 2 --bitstream eac3 --raw --output arc &
    misses unsynced 'one reset, at start' --seconds 2 --no-sync &
    wait
    grep -q '"gaps": 0' "$folder/raw.json" || fail "the report does not tell of the bursts at the output"
    # Without processing a free run happens to be in sync. With it, nothing but the player makes the picture wait.
    misses unsynced_processed 'A/V offset p95' "${processed[@]}" --no-sync &
    misses late 'A/V offset p95' --seconds 2 --display-latency 150 &
    misses lost 'output bit for bit the input' --seconds 2 --rate 48000 --withhold-block &
    misses lost_resampled 'samples complete and in place' --seconds 2 --withhold-block &
    wait

    : >"$folder/empty.mp4"
    echo "This is no film." >"$folder/text.mp4"
    refuses 2 "$folder/missing.mp4"
    refuses 2 "$folder/empty.mp4"
    refuses 2 "$folder/text.mp4"
    refuses 2 "$folder"
    refuses 2 ""
    refuses 2 --fps 0
    refuses 2 --seconds nan
    for file in /proc/x "$folder" "$folder/missing/x"; do
        refuses 2 --html "$file"
        refuses 2 --wav "$file"
        status=0
        "$program" --report "$file" 2>"$folder/refused.txt" || status=$?
        [ "$status" -eq 2 ] && grep -q "$file: " "$folder/refused.txt" || fail "--report $file: exit status $status"
    done
    [ ! -e "$folder/refused.json" ] || fail "a refused run leaves a report"
    refuses 2 --html-at 3
    refuses 2 --no-such-option
    refuses 2 --display beamer
    refuses 2 --display kms:
    refuses 2 --display sim:/dev/dri/card0
    run no_card --display kms:/dev/null
    [ "$status" -eq 3 ] && grep -q '/dev/null' "$folder/no_card.txt" || fail "no card: exit status $status instead of 3"
    TMPDIR=$folder/missing refuses 3
    refuses 2 --page-flips
    refuses 2 --bitstream eac3 --raw
    refuses 2 --bitstream ac3 --raw --output spdif --playback alsa:null
    refuses 2 --bitstream ac3 --chunk-phase 6

    if command -v ffmpeg >/dev/null; then
        film=(-f lavfi -i testsrc=size=320x240:rate=25:duration=3 -f lavfi -i anoisesrc=duration=3
            -c:v libx264 -movflags +faststart)
        ffmpeg -v error "${film[@]}" -c:a aac "$folder/film.mp4" </dev/null
        ffmpeg -v error "${film[@]}" -c:a eac3 -ac 6 "$folder/coded.mp4" </dev/null
        passes film "$folder/film.mp4" &
        passes coded "$folder/coded.mp4" &
        wait
        grep -q 'sent as E-AC-3' "$folder/coded.txt" || fail "a film's E-AC-3 is not sent as it is"
        head -c 12000 "$folder/film.mp4" >"$folder/cut.mp4"
        refuses 2 "$folder/cut.mp4"
    else
        echo "No ffmpeg here: no film played."
    fi
fi

[ ! -e "$failures" ] || exit 1
echo "All as expected."
