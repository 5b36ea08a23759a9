#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# play_test.sh PROGRAM [quick]: runs the play program as a whole. Good runs pass, the controls that prove its
# measurement fail for the reason that they were built for, bad input is refused, and a late machine is told from a
# fault. Quick: one good run.
# 77 if the machine does not permit the program to run, or is too late each time to measure.
set -euo pipefail

program=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
source "$(dirname "${BASH_SOURCE[0]}")/support/play_runs.sh"

# wait_until PROCESS COMMAND...: the command succeeds, or the process has ended.
wait_until() {
    until "${@:2}" || ! kill -0 "$1" 2>/dev/null; do sleep 0.01; done
}
plays() { grep -qs host_video /proc/"$1"/task/*/comm; } # the player has opened

# stands_still STATUS NAME ARGUMENT...: stops the program for 300 ms in the middle of its run.
stands_still() {
    local expected=$1 name=$2 status=0
    "$program" --report "$folder/$name.json" "${@:3}" >"$folder/$name.txt" 2>&1 &
    wait_until $! plays $!
    sleep 2
    kill -STOP $! || true
    sleep 0.3
    kill -CONT $! || true
    wait $! || status=$?
    [ "$status" -eq "$expected" ] || { cat "$folder/$name.txt"; fail "stopped, ${*:3}: exit status $status"; }
}

# begin NAME ARGUMENT...: plays for a minute, beside. A shell starts that with SIGINT ignored.
begin() {
    mkdir "$folder/$1.tmp"
    TMPDIR=$folder/$1.tmp env --default-signal=INT "$program" --seconds 60 --report "$folder/$1.json" \
        --html "$folder/$1.html" "${@:2}" >"$folder/$1.txt" 2>&1 &
}

# ended NAME STATUSES: it ended so, and left no temporary folder.
ended() {
    local status=0
    wait $! || status=$?
    [[ $status =~ ^($2)$ ]] || { cat "$folder/$1.txt"; fail "$1: exit status $status"; }
    [ -z "$(ls -A "$folder/$1.tmp")" ] || fail "$1: left $(ls -A "$folder/$1.tmp")"
}

# stops SIGNAL: in the middle of a run; one that comes twice at a time is one.
stops() {
    local name=stopped_$1
    begin "$name"
    wait_until $! plays $!
    sleep 3
    kill -s "$1" $! || true
    kill -s "$1" $! 2>/dev/null || true
    ended "$name" '0|4'
    grep -q "stopped by SIG$1" "$folder/$name.txt" && grep -q '"outcome": "[pi]' "$folder/$name.json" &&
        grep -q '</html>' "$folder/$name.html" || { cat "$folder/$name.txt"; fail "SIG$1: no report"; }
}

# stops_early SIGNAL: before there was anything to measure; as soon as there is a temporary folder.
stops_early() {
    local name=early_$1
    begin "$name"
    wait_until $! compgen -G "$folder/$name.tmp/*" >"$folder/$name.seen"
    kill -s "$1" $! || true
    ended "$name" $((128 + $(kill -l "$1")))
    [ ! -e "$folder/$name.json" ] || ! grep -q '"passed": true' "$folder/$name.json" || fail "$name: passed"
}

# stops_at_once: the second signal does not wait for the sound that is still on its way.
stops_at_once() {
    begin twice --algorithm-delay 1000
    wait_until $! plays $!
    sleep 2
    kill $! || true
    sleep 0.6
    kill $! || true
    wait $! || status=$?
    [ "$status" -eq 143 ] && [ ! -e "$folder/twice.json" ] || { cat "$folder/twice.txt"; fail "twice: exit status $status"; }
}

# offsets NAME: those of the report, in ms, in order.
offsets() { sed -n 's/^ *"offset_ms": \([-0-9.e]*\),\{0,1\}$/\1/p' "$folder/$1.json"; }

# in_sync_again NAME ARGUMENT...: the host stood still for a second, three seconds after the start. From three seconds
# later on sound and picture are together as they were. How much was lost meanwhile is not judged.
in_sync_again() {
    local first last
    for _ in $(seq "$tries"); do
        run "$1" --stall-host 1000 --seconds 8 "${@:2}"
        first=$(offsets "$1" | head -n 1) last=$(offsets "$1" | tail -n 1)
        awk -v a="$first" -v b="$last" 'BEGIN { exit !(a != "" && b - a < 25 && a - b < 25) }' &&
            grep -q 'late sound thrown away [1-9]' "$folder/$1.txt" && return
        machine_was_late "$1" 'A/V offset' || break
    done
    cat "$folder/$1.txt"
    fail "${*:2}: offset $first ms before the host stood still, $last ms after it"
}

# blames_film NAME CAUSE: the film NAME.mkv is the reason of what was missed.
blames_film() {
    run "$1" "$folder/$1.mkv"
    [ "$status" -eq 4 ] && grep -q "^  .*$2" "$folder/$1.txt" && grep -q '^  film  ' "$folder/$1.txt" ||
        { cat "$folder/$1.txt"; fail "$1: exit status $status, should say: $2"; }
}

decide none start --seconds 2 || true
if barred start; then
    cat "$folder/start.txt"
    exit 77
fi
if [ "$status" -ne 4 ] && ! { [ "$status" -eq 0 ] && grep -q '"passed": true' "$folder/start.json"; }; then
    cat "$folder/start.txt"
    fail "--seconds 2: exit status $status"
fi
version=$("$program" --version)
for part in "${version#hdmi-player-play }" "$(sed -n 's/^ *"revision": "\(.*\)",\{0,1\}$/\1/p' "$folder/start.json")"; do
    grep -q "^  program   hdmi-player-play .*${part:?}" "$folder/start.txt" || fail "the report does not name: $part"
done

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
    misses unsynced_processed 'A/V offset p95|one reset' "${processed[@]}" --no-sync &
    misses late 'A/V offset p95' --seconds 2 --display-latency 150 --no-hold &
    misses lost 'output bit for bit the input' --seconds 2 --rate 48000 --withhold-block &
    misses lost_resampled 'samples complete and in place' --seconds 2 --withhold-block &
    wait

    # Any panel, any taste: what is held makes up for it.
    passes panel_0 --seconds 2 --display-latency 0 --rate 48000 &
    passes panel_30 --seconds 2 --display-latency 30 --display-rate 50 --bitstream ac3 &
    passes panel_150 --seconds 2 --display-latency 150 --rate 48000 &
    wait
    passes earlier --seconds 2 --av-offset -200 --display none --display-latency 0 &
    passes later --seconds 2 --av-offset 200 --bitstream eac3 --algorithm-delay 100 &
    misses unheld 'A/V offset p95' --seconds 2 --av-offset 100 --no-hold &
    wait
    in_sync_again still --rate 48000 &
    in_sync_again still_coded --bitstream ac3 --algorithm-delay 100 --display-latency 150 &
    wait

    # A machine that stands still for a moment is no fault of the player's; it hides none either.
    stands_still 4 stalled --seconds 6 --rate 48000 &
    stands_still 1 stalled_lost --seconds 6 --rate 48000 --withhold-block &
    wait
    grep -q '"outcome": "inconclusive"' "$folder/stalled.json" || fail "the report does not tell of the machine"
    grep -q 'FAIL  output bit for bit the input' "$folder/stalled_lost.txt" || fail "a lost block is put down to the machine"

    stops INT &
    stops TERM &
    stops HUP &
    wait
    stops_at_once &
    for signal in INT TERM HUP; do
        stops_early $signal &
    done
    wait

    : >"$folder/empty.mp4"
    echo "This is no film." >"$folder/text.mp4"
    for file in "$folder/missing.mp4" "$folder/empty.mp4" "$folder/text.mp4" "$folder" ""; do
        refuses 2 "$file"
    done
    for arguments in '--fps 0' '--seconds nan' '--html-at 3' '--no-such-option' '--display beamer' '--display kms:' \
        '--display sim:/dev/dri/card0' '--page-flips' '--bitstream eac3 --raw' '--bitstream ac3 --chunk-phase 6' \
        '--bitstream ac3 --raw --output spdif --playback alsa:null' '--bitstream ac3 --raw --output arc --av-offset 20' \
        '--av-offset 201'; do
        refuses 2 $arguments
    done
    for file in /proc/x "$folder" "$folder/missing/x"; do
        refuses 2 --html "$file"
        refuses 2 --wav "$file"
        status=0
        "$program" --report "$file" 2>"$folder/refused.txt" || status=$?
        [ "$status" -eq 2 ] && grep -q "$file: " "$folder/refused.txt" || fail "--report $file: exit status $status"
    done
    [ ! -e "$folder/refused.json" ] || fail "a refused run leaves a report"
    run no_card --display kms:/dev/null
    [ "$status" -eq 3 ] && grep -q '/dev/null' "$folder/no_card.txt" || fail "no card: exit status $status instead of 3"
    TMPDIR=$folder/missing refuses 3

    if command -v ffmpeg >/dev/null; then
        film=(-f lavfi -i testsrc=size=320x240:rate=25:duration=3 -f lavfi -i anoisesrc=duration=3
            -c:v libx264 -movflags +faststart)
        ffmpeg -v error "${film[@]}" -c:a aac "$folder/film.mp4" </dev/null
        ffmpeg -v error "${film[@]}" -c:a eac3 -ac 6 "$folder/coded.mp4" </dev/null
        passes film "$folder/film.mp4" &
        passes coded "$folder/coded.mp4" &
        wait
        grep -q 'sent as E-AC-3' "$folder/coded.txt" || fail "a film's E-AC-3 is not sent as it is"
        # Films that the player, or this machine, cannot be asked to play: the report puts it down to them.
        ffmpeg -v error "${film[@]}" -c:a eac3 -ac 6 -b:a 1536k "$folder/large.mkv" </dev/null
        ffmpeg -v error "${film[@]}" -c:a ac3 "$folder/slow.mkv" </dev/null
        bytes=$(stat -c %s "$folder/slow.mkv")
        cp "$folder/slow.mkv" "$folder/damaged.mkv"
        head -c 500 /dev/zero | dd of="$folder/damaged.mkv" bs=1 seek=$((bytes * 5 / 8)) conv=notrunc status=none
        mkfifo "$folder/trickle.mkv"
        timeout 20 sh -c 'exec >"$3"; head -c "$1" "$2"; sleep 4' sh $((bytes * 4 / 5)) "$folder/slow.mkv" \
            "$folder/trickle.mkv" &
        blames_film large "bursts of 6144 bytes, beyond the player's documented 3840" &
        blames_film damaged "the film's sound is damaged" &
        blames_film trickle 'did not decode the film in time' &
        wait
        head -c 12000 "$folder/film.mp4" >"$folder/cut.mp4"
        refuses 2 "$folder/cut.mp4"
    else
        echo "No ffmpeg here: no film played."
    fi
fi

finish
