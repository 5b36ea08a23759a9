# SPDX-License-Identifier: MIT
# Runs of the play program, for its tests. To be sourced, with $program and the folder $folder set; what goes wrong
# stands in $failures at the end.

failures=$folder/failures

fail() { echo "FAIL: $*" | tee -a "$failures"; }

# run NAME ARGUMENT...: leaves the exit status in $status, the output in NAME.txt and the report in NAME.json.
# 124: it hung.
run() {
    local name=$1
    shift
    status=0
    timeout --kill-after 5 60 "$program" --report "$folder/$name.json" "$@" >"$folder/$name.txt" 2>&1 || status=$?
}

# barred NAME: the machine did not permit the run. A device that it has and that was not put to use is a fault.
barred() { [ "$status" -eq 3 ] && ! grep -q 'did not open\|does not start\|cannot announce' "$folder/$1.txt"; }

# misses NAME LIMIT ARGUMENT...: the run is outside of that limit. Whether it keeps the others is the machine's affair.
misses() {
    local name=$1 limit=$2
    run "$name" "${@:3}"
    [ "$status" -eq 1 ] && grep -q "FAIL  $limit" "$folder/$name.txt" ||
        { cat "$folder/$name.txt"; fail "${*:3}: exit status $status, should miss: $limit"; }
}

# refuses STATUS ARGUMENT...: at once, in one line.
refuses() {
    local expected=$1
    shift
    run refused "$@"
    [ "$status" -eq "$expected" ] || fail "$*: exit status $status instead of $expected"
    [ "$(wc -l <"$folder/refused.txt")" -eq 1 ] || fail "$*: not one line: $(cat "$folder/refused.txt")"
}
