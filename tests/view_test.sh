#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# view_test.sh PROGRAM: the viewer on a machine without capture device: what it says of what is there, its keys, and how
# it ends.
set -euo pipefail
program=$1
folder=$(mktemp -d)
viewer=
trap 'kill $viewer 2>/dev/null || true; rm -rf "$folder"' EXIT
said=$folder/said
options=(--capture none --display window --seconds 60)

fail() { echo "FAILED: $*"; cat "$said"; exit 1; }
# says TEXT: within the time that the machine may need.
says() {
    for _ in $(seq 300); do
        ! grep -qF -- "$1" "$said" || return 0
        sleep 0.1
    done
    fail "does not say '$1'"
}
# watch DEVICE: in the background.
watch() {
    : >"$said"
    "${as[@]}" "$program" --video "v4l2:$1" "${options[@]}" >"$said" 2>&1 </dev/null &
    viewer=$!
}
# ends: at a signal, and well.
ends() {
    kill -"$1" "$viewer"
    wait "$viewer" || fail "exit status $? after $1"
    viewer=
}

as=()
watch "$folder/none"
says "$folder/none: No such file or directory: sudo dmesg | tail"
ends TERM
: >"$folder/file"
watch "$folder/file"
says "$folder/file: is no V4L2 device: hdmi-player-view --list"
ends HUP
chmod 711 "$folder"
chmod 600 "$folder/file"
as=(setpriv --reuid 65534 --regid 65534 --clear-groups)
if "${as[@]}" test -x "$program" 2>/dev/null; then
    watch "$folder/file"
    says "$folder/file: Permission denied, it is $(stat -c '%U:%G 0%a' "$folder/file"): sudo setfacl -m u:"
    ends TERM
else
    echo "no other user here: nothing refused to one"
fi

# Keys, from a terminal. It is as it was afterwards.
command -v script >/dev/null || { echo "no script here: no keys"; exit 0; }
: >"$said"
mkfifo "$folder/keys"
script -qefc "before=\$(stty -g); '$program' --video 'v4l2:$folder/none' ${options[*]}; echo status \$?
    [ \"\$before\" = \"\$(stty -g)\" ] && echo as before" /dev/null <"$folder/keys" >"$said" 2>&1 &
viewer=$!
exec {keys}>"$folder/keys"
# key NAME TEXT: what pressing it makes the viewer say.
key() {
    printf %s "$1" >&"$keys"
    says "$2"
}
says "No such file"
key 9 'volume 98 %'
key m ': muted'
key 9 'volume 96 %'
key m 'not muted'
key o 'sound to headphone'
key + 'sound 10 ms later'
key - 'sound 0 ms later'
key i 'no picture yet'
key q 'status 0'
says 'as before'
exec {keys}>&-
wait "$viewer" || fail "the terminal's session ends with $?"
viewer=
