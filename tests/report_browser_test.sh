#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# report_browser_test.sh PROGRAM [PICTURES]: opens the play program's pages in a headless browser: no word on its
# console, nothing wider than the screen, a name for every chart. Pictures of them are left in the folder PICTURES.
# 77 without a browser, if the machine does not permit the program to run, and if it is too late each time to measure.
set -euo pipefail

program=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
pictures=${2:-$folder}
mkdir -p "$pictures"
source "$(dirname "${BASH_SOURCE[0]}")/support/play_runs.sh"

browser=$(command -v chromium-headless-shell || command -v chromium) ||
    { echo "No browser here (apt-get install chromium-headless-shell): pages not looked at."; exit 77; }

# browse WIDTH HEIGHT FILE OPTION...: the browser's own output goes to browser.txt.
browse() {
    timeout --kill-after 5 90 "$browser" --headless --no-sandbox --disable-gpu --hide-scrollbars --no-first-run \
        --user-data-dir="$folder/profile" --enable-logging=stderr --window-size="$1,$2" "${@:4}" "file://$3" \
        2>"$folder/browser.txt"
}

# Says in its title: as wide as the screen or wider, charts, charts without a name, numbers of the report in the page.
probe='<script>
const root = document.documentElement, charts = [...document.querySelectorAll("svg[role=img]")];
const report = JSON.parse(document.getElementById("report").textContent);
document.title = [root.scrollWidth > root.clientWidth ? "wide" : "fits", charts.length,
    charts.filter(chart => !chart.getAttribute("aria-label")).length,
    document.querySelectorAll("data[data-key]").length, report.passed].join(" ");
</script>'

# look NAME CHARTS PASSED
look() {
    local page=$folder/$1.html title
    browse 1100 3400 "$page" --screenshot="$pictures/$1.png" >/dev/null || fail "$1: the browser failed"
    ! grep CONSOLE "$folder/browser.txt" || fail "$1: the console is not empty"
    [ "$(stat -c %s "$pictures/$1.png")" -gt 50000 ] || fail "$1: there is hardly anything in the picture"
    { cat "$page"; echo "$probe"; } >"$folder/probe.html"
    # A phone's width, where space is short. Marks in the charts have titles too: the page's own comes first.
    title=$(browse 390 900 "$folder/probe.html" --dump-dom | sed -n 's:.*<title>\(.*\)</title>.*:\1:p')
    title=${title%%$'\n'*}
    [[ $title =~ ^"fits $2 0 "[0-9]{2,}" $3"$ ]] || fail "$1 on a phone: $title"
    [ "$pictures" = "$folder" ] || browse 390 6800 "$page" --screenshot="$pictures/$1-phone.png" >/dev/null
}

# play NAME STATUS ARGUMENT...: @return 1 if the machine was late each time
play() {
    decide none "$1" --html "$folder/$1.html" "${@:3}" || return 1
    ! barred "$1" || { cat "$folder/$1.txt"; exit 77; }
    [ "$status" -eq "$2" ] || { cat "$folder/$1.txt"; fail "$1: exit status $status"; }
}

# The browser tells of what is wrong at all.
echo '<!DOCTYPE html><title>x</title><script>console.error("wrong")</script>' >"$folder/control.html"
browse 800 600 "$folder/control.html" --dump-dom >/dev/null || fail "the browser does not run: $(cat "$folder/browser.txt")"
grep -q CONSOLE "$folder/browser.txt" || fail "the browser does not tell of errors"

play programme 0 --seconds 4 && look programme 4 true
play unsynced 1 --seconds 4 --rate 32000 --fps 25 --algorithm-delay 100 --no-sync --html-at 2.25 &&
    look unsynced 4 false
play raw 0 --seconds 2 --bitstream ac3 --raw --output arc && look raw 1 true
if command -v ffmpeg >/dev/null; then
    film="$folder/a <film> & \"more\" of it.mkv"
    ffmpeg -v error -f lavfi -i testsrc=size=320x240:rate=24000/1001:duration=5 -f lavfi -i anoisesrc=duration=5 \
        -c:v libx264 -c:a aac "$film" </dev/null
    play film 0 "$film" && look film 4 true
fi
finish
