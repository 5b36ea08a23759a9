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

status=0
output=$(HDMIPLAYER_SIM_SIGNAL=tone,rate=44100,ppm=50 timeout --preserve-status --signal INT 3 "$program") || status=$?
echo "$output"
[ "$status" -eq 0 ] || exit "$status"
# The tone's peak: 12 dB below full scale.
tail -n 1 <<<"$output" | grep -qE '[1-9][0-9]* frames shown, .* [1-9]\.[0-9] s of sound heard, peak -1[12]\.[0-9] dBFS$'
