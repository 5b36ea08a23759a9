# SPDX-License-Identifier: MIT
# For the check scripts, which run as root inside the virtual machine. To be sourced.
#
# $PROJECT, $BUILD   the project and its build, at the same paths as on the host, read-only
# $OUT               the folder that comes out: reports, logs
# $CHECK             the name of the script that runs

results=$OUT/results

# verdict ok|FAILED|SKIPPED WHAT [DETAIL]: one line for the summary.
verdict() {
    printf '%-7s %s: %s%s\n' "$1" "$CHECK" "$2" "${3:+ ($3)}" | tee -a "$results"
}

# check WHAT COMMAND...: good if the command succeeds. Its output goes to $OUT, and to the console if it fails.
check() {
    local what=$1 log
    shift
    log=$OUT/$CHECK-$(tr -c 'a-zA-Z0-9\n' - <<<"$what").log
    if "$@" >"$log" 2>&1; then
        verdict ok "$what"
    else
        tail -n 40 "$log" | sed '$a\'
        verdict FAILED "$what"
        return 1
    fi
}

# compare WHAT VALUE OPERATOR LIMIT [UNIT]: e.g. compare "missed wake-ups" 0.4 -le 1 %; numbers may have decimals.
compare() {
    local what=$1 value=$2 operator=$3 limit=$4 unit=${5:-} sign
    case $operator in
    -le) sign='<=' ;;
    -ge) sign='>=' ;;
    -eq) sign='==' ;;
    esac
    if awk -v value="$value" -v limit="$limit" "BEGIN { exit !(value ~ /^[-+0-9.e]+\$/ && value + 0 $sign limit + 0) }"; then
        verdict ok "$what" "$value $unit, limit $sign $limit"
    else
        verdict FAILED "$what" "$value $unit, limit $sign $limit"
        return 1
    fi
}

# wait_for SECONDS COMMAND...: until it succeeds.
wait_for() {
    local end
    end=$(($(date +%s%3N) + $1 * 1000))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$(date +%s%3N)" -lt "$end" ] || return 1
        sleep 0.05
    done
}

# play LOG OPTION...: the play program. It is tried again only where it says itself that the machine was too late to tell;
# what else runs on the host takes time from this machine. Leaves its exit status in $played, 4 if it was so each time.
play() {
    local log=$1
    shift
    for _ in 1 2 3 4; do
        played=0
        "$BUILD/tools/play/hdmi-player-play" "$@" >"$log" 2>&1 || played=$?
        [ "$played" -eq 4 ] || return 0
        echo "-- the machine was late:$(sed -n 's/^  timers  *beside the player, late//p' "$log")"
    done
}

# own_limits LOG: what the play program judged itself. Where a limit is missed, all that it reports is shown.
own_limits() {
    local mark limit
    grep -q '^  FAIL ' "$1" && sed 's/^/    /' "$1"
    while read -r mark limit; do
        case $mark in
        ok) verdict ok "$limit" ;;
        late) verdict SKIPPED "$limit" "the host is too busy" ;;
        card) verdict SKIPPED "$limit" "the host is too busy for the device" ;;
        *) verdict FAILED "$limit" ;;
        esac
    done < <(sed -n 's/^  \(ok\|late\|card\|FAIL\)  */\1 /p' "$1")
}

# card_of DRIVER: the device node of its DRM card.
card_of() {
    local link
    for link in /sys/class/drm/card[0-9]/device; do
        # vkms has a device, but no driver on a bus: its name is the device's own.
        if [ "$(basename "$(readlink -f "$link")")" = "$1" ] ||
            [ "$(basename "$(readlink -f "$link/driver")")" = "$1" ]; then
            echo "/dev/dri/$(basename "$(dirname "$link")")"
            return 0
        fi
    done
    return 1
}
