#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# as_nobody.sh PROGRAM [ARGUMENT...]: runs it as a user without rights; 77 where that user cannot reach it.
set -euo pipefail
[ "$(id -u)" -eq 0 ] || exec "$@"
nobody=(setpriv --reuid 65534 --regid 65534 --clear-groups)
"${nobody[@]}" test -x "$1" 2>/dev/null || { echo "nobody cannot reach $1"; exit 77; }
exec "${nobody[@]}" "$@"
