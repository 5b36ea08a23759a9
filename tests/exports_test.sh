#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The built library exports the functions of its version script, not one symbol more, under soname 1.
# Usage: exports_test.sh LIBRARY VERSION_SCRIPT
set -euo pipefail
library=$1
script=$2

wanted=$(grep -oE 'hdmi_player_[a-z0-9_]+' "$script" | sort)
exported=$(nm -D --defined-only "$library" | awk '{ print $NF }' | sed 's/@.*//' | sort)
if [ "$(wc -l <<<"$wanted")" != 14 ] || [ "$wanted" != "$exported" ]; then
    echo "exports differ from the interface:"
    diff <(echo "$wanted") <(echo "$exported") || true
    exit 1
fi
readelf -d "$library" | grep -q 'SONAME.*\[libhdmiplayer\.so\.1\]'
echo "14 functions, soname libhdmiplayer.so.1"
