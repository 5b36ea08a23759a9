#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The built library exports the functions of its version script, not one symbol more, and a platform's library the
# seams' functions and names of its own, under soname 1. On a machine of 32 bits they ask the C library for no time that
# ends in 2038.
# Usage: exports_test.sh LIBRARY VERSION_SCRIPT PLATFORM_LIBRARY...
set -euo pipefail
library=$1
script=$2
platforms=("${@:3}")
fail() { echo "FAIL: $*"; exit 1; }

exports() { nm -D --defined-only "$1" | awk '{ print $NF }' | sed 's/@.*//' | sort; }
wanted=$(grep -oE 'hdmi_player_[a-z0-9_]+' "$script" | sort)
exported=$(exports "$library")
if [ "$(wc -l <<<"$wanted")" != 14 ] || [ "$wanted" != "$exported" ]; then
    diff <(echo "$wanted") <(echo "$exported") || true
    fail "exports differ from the interface"
fi
for file in "${platforms[@]}"; do
    name=$(basename "$file" | sed -E 's/^libhdmiplayer_([a-z]+)\.so.*/\1/')
    own="(aio_device|adecoder|vendor_hdmi_cec|hdmi_$name)_[a-z0-9_]+|_ZN$((5 + ${#name}))hdmi_$name[0-9]+[a-z].*"
    [ "$name" != sim ] || own+="|drmWaitVBlank"
    foreign=$(exports "$file" | grep -vxE "$own" || true)
    [ -z "$foreign" ] || fail "$(basename "$file") exports $(c++filt <<<"$foreign")"
done

# Those that have a second form for times of 64 bits; the C++ library asks for the system's clock in its own way.
ending='time|clock_.*|nanosleep|[gs]ettimeofday|adjtimex?|ntp_.*|(c|gm|local)time(_r)?|mktime|timegm|difftime'
ending+='|timespec_get(res)?|timerf?d?_[gs]ettime|[gs]etitimer|pthread_(cond|mutex|rwlock|)_?(timed|clock).*'
ending+='|sem_(timed|clock)wait|(mtx|cnd)_timed.*|thrd_sleep|sigtimedwait|p?select|ppoll|[fl]?stat(at)?(64)?|__f?l?xstat.*'
ending+='|(f|l|)u?timesa?t?|futimens|utimensat|utime|ioctl|fcntl(64)?|prctl|(recv|send)m?msg|[gs]etsockopt|getrusage'
ending+='|wait[34]|sched_rr_get_interval|semtimedop|(sem|msg|shm)ctl|glob(64)?|n?ftw(64)?|_ZNSt6chrono.*system_clock3nowEv'
for file in "$library" "${platforms[@]}"; do
    readelf -d "$file" | grep -qE 'SONAME.*\[libhdmiplayer(_[a-z]+)?\.so\.1\]' || fail "$(basename "$file") has no version"
    if readelf -h "$file" | grep -q 'Class: *ELF32'; then
        ends=$(nm -D --undefined-only "$file" | awk '{ print $NF }' | sed 's/@.*//' | grep -xE "$ending" || true)
        [ -z "$ends" ] || fail "$(basename "$file"): times that end in 2038:" $ends
    fi
done
echo "14 functions, soname libhdmiplayer.so.1; own names of ${#platforms[@]} platforms"
