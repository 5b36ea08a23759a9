#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The audio return channel between the kernel's two CEC adapters: the Linux platform is the TV at one end of the cable,
# cec-follower the audio system at the other. Opening, cec-compliance's tests of the TV's role, closing.
# Limit: 420 s
source "$PROJECT/tests/vm/lib.sh"

tv=/dev/cec0
audio_system=/dev/cec1
seconds_of_random=15
seconds_to_open=30 # programs start slowly on an emulated machine under load; the exchange itself takes 0.6 s
starts=0

# What the channel is now.
state() { sed -n 's/.* state \([a-z]*\) .*/\1/p' "$told" | tail -n 1; }
is() { [ "$(state)" = "$1" ]; }
threads() { ls "/proc/$probe/task" | wc -l; }

start_probe() {
    told=$OUT/cec-probe-$((++starts)).log
    HDMIPLAYER_CEC_DEVICE=$1 debug_hdmiplayer_log_level=3 "$BUILD/tests/arc_probe" >"$told" 2>&1 &
    probe=$!
}
end_probe() { kill "$probe" && wait "$probe"; }
set_audio_system() { cec-ctl -d "$audio_system" --audio --feat-source-has-arc-rx; }

# Until it has found something to complain of, or the time is over.
random_messages() {
    local status=0
    timeout "$seconds_of_random" cec-compliance -d "$audio_system" -r0 --test-fuzzing || status=$?
    [ "$status" -eq 124 ] && kill -0 "$probe"
}
in_order() { # LOG MESSAGE...: each after the one before
    local file=$1 line=0 found message
    shift
    for message in "$@"; do
        found=$(tail -n +$((line + 1)) "$file" | grep -n -m 1 -E "$message\$" | cut -d : -f 1)
        [ -n "$found" ] || { echo "no $message after line $line"; return 1; }
        line=$((line + found))
    done
}

set_audio_system >"$OUT/cec-audio-system.log" 2>&1
cec-follower -d "$audio_system" -w >"$OUT/cec-follower.log" 2>&1 &
follower=$!

start_probe ""
check "the channel is opened" wait_for "$seconds_to_open" is active || cat "$told"
compare "it takes" "$(sed -n 's/.* \([0-9.]*\) state active.*/\1/p' "$told" | head -n 1)" -le 5 s
compare "vendor_hdmi_cec_init takes" "$(sed -n 's/.*init 0 in \([0-9]*\) us.*/\1/p' "$told")" -le 250000 us
compare "vendor_hdmi_cec_open_arc takes" "$(sed -n 's/.*open_arc 0 in \([0-9]*\) us.*/\1/p' "$told")" -le 100000 us
check "cec-compliance: the TV's role in ARC" cec-compliance -d "$audio_system" -r0 \
    --test-audio-return-channel-control
compare "tests that cec-compliance ran" \
    "$(grep -c "(TX): OK\$" "$OUT"/cec-cec-compliance--the-TV-s-role-in-ARC.log)" -eq 2
check "random messages" random_messages
compare "threads at the end" "$(threads)" -eq 2
end_probe
# Random messages may have closed the channel.
start_probe ""
check "opened after them" wait_for "$seconds_to_open" is active
end_probe
check "closed at the end" is terminated
compare "vendor_hdmi_cec_deinit takes" "$(sed -n 's/.*deinit 0 in \([0-9]*\) us.*/\1/p' "$told")" -le 1500000 us
check "the whole exchange" in_order "$told" 'sent 05:c3' 'received 50:c0' 'sent 05:c1' 'sent 05:c4' 'received 50:c5' \
    'sent 05:c2'
check "the adapter is as it was" bash -c "cec-ctl -d $tv | grep -q 'Logical Address Mask *: 0x0000'"

start_probe ""
check "opened again" wait_for "$seconds_to_open" is active
first=$probe
start_probe ""
check "another player leaves the adapter alone" wait_for 15 grep -q "$tv cannot be used: another player has it" "$told"
wait "$probe" || true
kill -KILL "$first"
wait "$first" 2>/dev/null
check "a player that is killed leaves its configuration" bash -c "cec-ctl -d $tv | grep -q 'Logical Address Mask *: 0x0001'"
start_probe ""
check "opened with what was left by a player that was killed" wait_for "$seconds_to_open" is active
end_probe
check "which is taken back" bash -c "cec-ctl -d $tv | grep -q 'Logical Address Mask *: 0x0000'"

cec-ctl -d "$tv" --tv >"$OUT/cec-tv.log" 2>&1
start_probe "$tv"
check "opened on an adapter that another program has set up" wait_for "$seconds_to_open" is active
kill "$follower"
end_probe
compare "with an audio system that answers no more deinit takes" "$(sed -n 's/.*deinit 0 in \([0-9]*\) us.*/\1/p' "$told")" -le 2500000 us
check "and leaves it so" bash -c "cec-ctl -d $tv | grep -q 'Logical Address Mask *: 0x0001'"

cec-ctl -d "$audio_system" --clear >"$OUT/cec-clear.log" 2>&1
start_probe ""
check "without an audio system one message" wait_for 40 grep -q 'no audio system on the CEC bus' "$told"
sleep 2
compare "no more than one" "$(grep -c 'W \[' "$told")" -eq 1
set_audio_system >>"$OUT/cec-audio-system.log" 2>&1
cec-follower -d "$audio_system" -w >>"$OUT/cec-follower.log" 2>&1 &
check "opened when one appears" wait_for "$seconds_to_open" is active
end_probe
kill %+ 2>/dev/null
