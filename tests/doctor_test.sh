#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# doctor_test.sh DOCTOR: what it says of a bare machine, of devices that it may not open, of a wrong configuration.
# Runs itself again in a mount namespace, where /dev is empty but for what is put there; 77 where there are none.
set -euo pipefail
doctor=$1
if [ $# -eq 1 ]; then
    new=(unshare --mount)
    "${new[@]}" true 2>/dev/null || new=(unshare --user --map-root-user --mount)
    "${new[@]}" true 2>/dev/null || { echo "no mount namespaces here"; exit 77; }
    exec "${new[@]}" "$0" "$doctor" inside
fi

failures=0
said=$(mktemp)
trap 'rm -f "$said"' EXIT
# run STATUS COMMAND...: keeps what it says.
run() {
    local expected=$1 status=0
    shift
    "$@" >"$said" 2>&1 || status=$?
    [ "$status" -eq "$expected" ] || { echo "FAILED: status $status, not $expected: $*"; failures=$((failures + 1)); }
}
# says LINE...: regular expressions of whole lines, each of which must be there.
says() {
    local line
    for line in "$@"; do
        grep -qxE " *$line" "$said" || { echo "FAILED: no line '$line' in:"; cat "$said"; failures=$((failures + 1)); }
    done
}

mount -t tmpfs tmpfs /sys/class
mount -t tmpfs tmpfs /dev
[ ! -d /proc/asound ] || mount -t tmpfs tmpfs /proc/asound
: >/dev/null # an ordinary file: enough for a shell
export HDMIPLAYER_LINUX_CONFIG=/dev/linux.conf HOME=/dev
: >"$HDMIPLAYER_LINUX_CONFIG"

run 0 "$doctor"
says 'missing +capture +no device' 'missing +playback +no device' 'sudo modprobe snd-aloop .*' \
    'missing +/sys/class/extcon/hdmirx_aud/state .*' 'missing +/dev/video\* +no video capture device' \
    'sudo modprobe vivid   # a virtual one, to try with' 'missing +/dev/dri/card\* .*' 'missing +/dev/cec\* .*' \
    'ok +private namespaces .*' 'ok +/dev/linux.conf' 'Simulated play is possible\.'

# Devices that are there and are none; that are others' or nobody's, for a user without rights.
mkdir /dev/dri
mkdir -p /sys/class/video4linux/video{2,3}
: >/dev/video2
: >/dev/video3
chmod 000 /dev/video3
: >/dev/cec11
: >/dev/cec0
: >/dev/dri/card3
chmod 000 /dev/cec0
chmod 060 /dev/dri/card3
run 0 "$doctor"
says 'missing +/dev/cec11 +is no CEC adapter' 'missing +/dev/video2 +is no V4L2 device' 'ls -l /dev/video2'
nobody=(setpriv --reuid 65534 --regid 65534 --clear-groups)
if chgrp video /dev/dri/card3 2>/dev/null && "${nobody[@]}" test -x "$doctor"; then
    run 0 "${nobody[@]}" "$doctor"
    says 'refused +/dev/cec0 +Permission denied, it is root:root 0000' 'sudo setfacl -m u:[a-z]+:rw /dev/cec0' \
        'refused +/dev/video3 +Permission denied, it is root:root 0000' 'sudo setfacl -m u:[a-z]+:rw /dev/video3' \
        'refused +/dev/dri/card3 +Permission denied, it is root:video 0060' 'sudo usermod -aG video [a-z]+ .*' \
        'refused +real-time priority 99 .*' "echo '[a-z]+ - rtprio 99' .*"
else
    echo "no other user here: nothing refused to one"
fi

printf 'speaker = null\nspeeker = hw:1\n' >"$HDMIPLAYER_LINUX_CONFIG"
run 2 "$doctor"
says 'refused +/dev/linux.conf:2: speeker: unknown key' '.*EDITOR.* /dev/linux.conf'
: >"$HDMIPLAYER_LINUX_CONFIG"
HDMIPLAYER_CEC_DEVICE=/dev/cec7 run 2 "$doctor"
says 'refused +HDMIPLAYER_CEC_DEVICE: .*/dev/cec7.*' 'unset HDMIPLAYER_CEC_DEVICE'
run 2 "$doctor" --no-such-option
run 2 "$doctor" argument

# Without the right to make namespaces, announcements stay inside the process.
run 0 unshare --user --map-root-user sh -c 'echo 0 >/proc/sys/user/max_user_namespaces &&
    exec setpriv --bounding-set=-all --inh-caps=-all "$1"' sh "$doctor"
says 'missing +private namespaces .*inside the process' 'Simulated play is possible\.'

[ "$failures" -eq 0 ]
