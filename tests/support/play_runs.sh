# SPDX-License-Identifier: MIT
# Runs of the play program, for its tests. To be sourced, with $program and the folder $folder set; ends with finish.

failures=$folder/failures
undecided=$folder/undecided

fail() { echo "FAIL: $*" | tee -a "$failures"; }

# run NAME ARGUMENT...: leaves the exit status in $status, the output in NAME.txt and the report in NAME.json.
# 124: it hung.
patience=60 # seconds
run() {
    local name=$1
    shift
    status=0
    timeout --kill-after 5 "$patience" "$program" --report "$folder/$name.json" "$@" >"$folder/$name.txt" 2>&1 || status=$?
}

# machine_was_late NAME LIMITS: whether the run says so, as a whole or of one of the LIMITS (a pattern).
machine_was_late() {
    [ "$status" -eq 4 ] || grep -qE "^  late  ($2)" "$folder/$1.txt" || return 1
    echo "$1: the machine was late:$(sed -n 's/^  timers  *beside the player, late//p' "$folder/$1.txt")"
}

# decide LIMITS NAME ARGUMENT...: runs until the machine was not late. @return 1 if it was each time; finish tells
tries=5
decide() {
    local limits=$1
    shift
    for _ in $(seq "$tries"); do
        run "$@"
        machine_was_late "$1" "$limits" || return 0
    done
    echo "$*" >>"$undecided"
    return 1
}

# passes NAME ARGUMENT...: inside its limits.
passes() {
    decide 'none' "$@" || return 0
    [ "$status" -eq 0 ] || { cat "$folder/$1.txt"; fail "${*:2}: exit status $status"; }
}

# misses NAME LIMIT[|LIMIT...] ARGUMENT...: outside of the first limit, at most of the others too, and of none else.
misses() {
    local name=$1 limits=$2 missed
    decide "$limits" "$name" "${@:3}" || return 0
    missed=$(sed -n 's/^  FAIL  //p' "$folder/$name.txt")
    [ "$status" -eq 1 ] && grep -q "^${limits%%|*}" <<<"$missed" && ! grep -qvE "^($limits)" <<<"$missed" ||
        { cat "$folder/$name.txt"; fail "${*:3}: exit status $status, should miss: $limits"; }
}

# finish: the test's own exit status.
finish() {
    [ ! -e "$failures" ] || exit 1
    if [ -e "$undecided" ]; then
        echo "The machine was too late for these:"
        cat "$undecided"
        exit 77
    fi
    echo "All as expected."
    exit 0
}

# barred NAME: the machine did not permit the run. A device that it has and that was not put to use is a fault.
barred() { [ "$status" -eq 3 ] && ! grep -q 'did not open\|does not start\|cannot announce' "$folder/$1.txt"; }

# refuses STATUS ARGUMENT...: at once, in one line.
refuses() {
    local expected=$1
    shift
    run refused "$@"
    [ "$status" -eq "$expected" ] || fail "$*: exit status $status instead of $expected"
    [ "$(wc -l <"$folder/refused.txt")" -eq 1 ] || fail "$*: not one line: $(cat "$folder/refused.txt")"
}
