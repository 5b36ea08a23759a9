#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# port.sh PREFIX: docs/porting.md walked through on this machine: "Building", steps 1 and 3 of "Trying a port", and the
# lines of "Two clocks". The ports are an empty library, examples/port, and the simulated platform of the package in
# PREFIX.
set -euo pipefail
prefix=$1
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
port=$folder/port
mkdir -p "$port/lib"
cp -r "$root/platform/include" "$port/include"

fail() { echo "FAIL: $*"; exit 1; }
# quietly COMMAND...: its output only if it fails.
quietly() { "$@" >"$folder/said" 2>&1 || { tail -n 40 "$folder/said"; fail "$*"; }; }
# makes_library NAME SOURCE OPTION...: $port/lib/libNAME.so
makes_library() { gcc -shared -fPIC -I"$port/include" -x c "$2" "${@:3}" -o "$port/lib/lib$1.so"; }

# The document's command, with this machine's compiler instead of the board's.
command=$(sed -n 's/^    \(cmake .*-DHDMIPLAYER_PLATFORM_ROOT=.*\)/\1/p' "$root/docs/porting.md")
command=${command/--preset armv7 -DCMAKE_SYSROOT=\/path\/to\/tree/--preset default}
command=${command/\/path\/to\/port/$port}
[[ $command == "cmake --preset default -DHDMIPLAYER_PLATFORM_ROOT=$port -DHDMIPLAYER_TESTS=ON" ]] ||
    fail "the document's command is another one: $command"
configure() {
    (cd "$root" && quietly $command -B "$folder/build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_INSTALL_PREFIX="$folder/installed")
}
build() { cmake --build "$folder/build" "$@"; }

# A library without a function: the link names all of them.
makes_library port /dev/null
configure
! build >"$folder/said" 2>&1 || fail "an empty library is enough"
for function in $(grep -hoE '\b(aio_device|adecoder|vendor_hdmi_cec)_[a-z_]+\(' "$port"/include/*.h | tr -d '(' | sort -u); do
    grep -q "undefined reference to .$function" "$folder/said" || fail "the link does not name $function"
done

# One that refuses everything, with another library of its folder behind it: the link finds both, the contract program
# names what is to be done.
echo 'int port_helper(void) { return 0; }' >"$folder/helper.c"
makes_library helper "$folder/helper.c"
makes_library port "$root/examples/port/port.c" -Wl,--no-as-needed -L"$port/lib" -lhelper
configure
quietly build
contract() {
    LD_LIBRARY_PATH=$port/lib timeout 120 "$folder/build/tests/platform/platform_contract" >"$folder/said" 2>&1
}
! contract || fail "a port that refuses everything keeps the contract"
grep -q '\[  FAILED  \].*Capture' "$folder/said" && grep -q '\[  FAILED  \].*Playback' "$folder/said" ||
    { tail -n 30 "$folder/said"; fail "the contract program does not say what is missing"; }

# A port that is complete, with a source that sends.
rm "$port"/lib/*
cp "$prefix"/lib/libhdmiplayer_sim.so* "$port/lib/"
configure
quietly build
# The simulated receiver announces its source to a player in the process.
LD_PRELOAD=$folder/build/app/libhdmiplayer.so.1 HDMIPLAYER_SIM_SIGNAL=programme contract || { tail -n 30 "$folder/said"; fail "a complete port breaks the contract"; }

# The player on it: linked with the player, and beside one that was built without any port.
quietly cmake --install "$folder/build"
link_option=$(grep -o -- '-DCMAKE_EXE_LINKER_FLAGS=[^`]*' "$root/docs/porting.md") ||
    fail "the document has no option for the link"
# plays NAME PREFIX LIBRARY [OPTION]: the minimal host, with that package and that library.
plays() {
    quietly cmake -S "$root/examples/minimal" -B "$folder/$1" -G Ninja -DCMAKE_PREFIX_PATH="$2" \
        -DHDMIPLAYER_PLATFORM_LIBRARY="$3" "${@:4}"
    quietly cmake --build "$folder/$1"
    LD_LIBRARY_PATH=$2/lib:$port/lib HDMIPLAYER_SIM_SIGNAL=programme quietly "$folder/$1/minimal" 2
    grep -qE '[1-9][0-9]* frames shown, .* [1-9]\.[0-9] s of sound heard' "$folder/said" ||
        { cat "$folder/said"; fail "the minimal host heard nothing"; }
}
plays with "$folder/installed" "" "${link_option/\/path\/to\/port/$port}"
plays beside "$prefix" "$port/lib/libhdmiplayer_sim.so"

# The lines by which a port matches two clocks, in a program of their own: compiled, linked, and run.
{
    echo '#include "rate_matcher.h"'
    echo 'int main() {'
    echo 'const int64_t now_ns = 0, stamp_ns = 0, frames_captured = 0, frames_given_to_device = 0, device_delay = 0;'
    echo 'const int link_rate = 48000, sample_rate = 48000, channels = 2, frames = 960, made_and_not_heard = 0;'
    echo 'static int16_t data[2 * frames], out[4 * frames];'
    echo 'int result, *write_bytes_result = &result;'
    sed -n '/^```cpp/,/^```/{/^```/!p}' "$root/docs/porting.md"
    echo 'return made <= clocks::RatioResampler::room(frames) && result >= 0 ? 0 : 1; }'
} >"$folder/matching.cpp"
grep -q 'matcher.convert' "$folder/matching.cpp" || fail "docs/porting.md has no lines that match two clocks"
matching=("$root"/platform/common/{clock_estimator,rate_controller,ratio_resampler,rate_matcher}.cpp)
quietly g++ -std=c++17 -Wall -Wextra -Werror -I"$root/include" -I"$root/platform/common" "$folder/matching.cpp" \
    "${matching[@]}" $(pkg-config --cflags --libs libswresample libavutil) -pthread -o "$folder/matching"
quietly "$folder/matching"
