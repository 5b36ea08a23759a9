#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# consumers.sh PREFIX: hosts that know the package installed in PREFIX alone. Each of pkg-config and CMake, of C, C++17
# and C++20, of gcc and clang builds the consumer, and each program plays; so do the archives. Then the tools.
set -euo pipefail
prefix=$1
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export LD_LIBRARY_PATH=$prefix/lib PKG_CONFIG_PATH=$prefix/lib/pkgconfig
cp "$here/consumer.c" "$folder/consumer.cpp"
strict=(-Wall -Wextra -Wpedantic -Werror -O1)

# by_pkg_config MODULE NAME COMPILER... SOURCE: as a makefile would.
by_pkg_config() {
    local module=$1 name=$2
    shift 2
    # shellcheck disable=SC2046
    "${@:1:$#-1}" "${strict[@]}" "${!#}" -o "$folder/$name" -Wl,--as-needed \
        $(pkg-config --cflags --libs "$module") || echo "FAIL: $name"
}
# as_archives NAME COMPILER: nothing of the package is left to load.
as_archives() {
    # shellcheck disable=SC2046
    "$2" "${strict[@]}" "$here/consumer.c" -o "$folder/$1" $(pkg-config --cflags --libs hdmi_player_sim_static) || echo "FAIL: $1"
    ! ldd "$folder/$1" | grep hdmiplayer || echo "FAIL: $1 loads a library of the package"
}
# by_cmake COMPILER C++COMPILER
by_cmake() {
    cmake -S "$here" -B "$folder/cmake_$1" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$1" \
        -DCMAKE_CXX_COMPILER="$2" >"$folder/cmake_$1.log" 2>&1 &&
        cmake --build "$folder/cmake_$1" >>"$folder/cmake_$1.log" 2>&1 ||
        { cat "$folder/cmake_$1.log"; echo "FAIL: CMake with $1"; }
}

build() {
    local compiler=$1 cpp=$2 standard
    by_pkg_config hdmi_player_sim "pc_${compiler}_c" "$compiler" -std=c99 "$here/consumer.c"
    for standard in c++17 c++20; do
        by_pkg_config hdmi_player_sim "pc_${compiler}_$standard" "$cpp" -std=$standard "$folder/consumer.cpp"
    done
    as_archives "archives_$compiler" "$compiler"
    by_cmake "$compiler" "$cpp"
}

{
    build gcc g++
    ! command -v clang++ >/dev/null || build clang clang++
    # On this machine's platform, as far as that goes without a device.
    echo '#include <hdmi_linux.h>
#include <hdmi_player.h>
int main(void) { return hdmi_player_set_mute(true) | hdmi_linux_set_device("hdmi_in", "null") | hdmi_linux_capture().open; }' \
        >"$folder/linux.c"
    for module in hdmi_player_linux hdmi_player_linux_static; do
        by_pkg_config $module pc_$module gcc -std=c99 "$folder/linux.c"
    done
    for program in "$folder"/pc_* "$folder"/archives_* "$folder"/cmake_*/{c,cpp17,cpp20,static}; do
        "$program" >"$folder/said" 2>&1 || { cat "$folder/said"; echo "FAIL: ${program#"$folder"/}"; }
    done
    # The seams' headers compile by themselves.
    echo '#include <adecoder.h>
#include <aio_device.h>
#include <hdmi_cec.h>' | gcc -std=c99 "${strict[@]}" -x c -fsyntax-only \
        -I"$(pkg-config --variable=platformdir hdmi_player)" - || echo "FAIL: seams"
    for library in hdmiplayer hdmiplayer_linux hdmiplayer_sim; do
        readelf -d "$prefix/lib/lib$library.so" | grep -q "SONAME.*\[lib$library\.so\.1\]" || echo "FAIL: $library has no version"
    done
    ! readelf -d "$prefix"/lib/lib*.so | grep -E '\((RUN|R)PATH\)' || echo "FAIL: a library names folders to look in"
    for document in README.md docs/first-steps.md docs/porting.md docs/sync.md; do
        [ -s "$prefix/share/doc/hdmiplayer/$document" ] || echo "FAIL: $document"
    done
    # The tools, and what goes with them.
    for tool in play view doctor run; do
        LD_LIBRARY_PATH= "$prefix/bin/hdmi-player-$tool" --help >"$folder/help" || echo "FAIL: $tool --help"
        LD_LIBRARY_PATH= "$prefix/bin/hdmi-player-$tool" --version | grep -q "^hdmi-player-$tool [0-9]" ||
            echo "FAIL: $tool --version"
        page=$prefix/share/man/man1/hdmi-player-$tool.1
        grep -q "^hdmi-player-$tool" "$page" && grep -qF "Usage: hdmi\\-player\\-$tool " "$page" ||
            echo "FAIL: $tool's page"
        grep -q -- "--help" "$prefix/share/bash-completion/completions/hdmi-player-$tool" || echo "FAIL: completion"
    done
    ! grep -e --fullscreen "$prefix/share/bash-completion/completions/hdmi-player-run" ||
        echo "FAIL: the completion has an option of the host"
    # The documents lead to each other as in the source tree.
    (cd "$prefix/share/doc/hdmiplayer" && grep -oh '](docs/[^)#]*' README.md | cut -c 3- | xargs ls >/dev/null) ||
        echo "FAIL: links of README.md"
    # The examples; one of them, linked with one platform, on another.
    for example in minimal screen; do
        cmake -S "$prefix/share/doc/hdmiplayer/examples/$example" -B "$folder/$example" -G Ninja \
            -DCMAKE_PREFIX_PATH="$prefix" -DHDMIPLAYER_PLATFORM_LIBRARY=hdmi_player::linux >"$folder/said" 2>&1 &&
            cmake --build "$folder/$example" >>"$folder/said" 2>&1 || { cat "$folder/said"; echo "FAIL: $example"; }
    done
    "$prefix/bin/hdmi-player-run" --signal tone -- "$folder/minimal/minimal" 2 >"$folder/said" 2>&1 &&
        grep -q 'peak -12.0 dBFS' "$folder/said" || { cat "$folder/said"; echo "FAIL: hdmi-player-run"; }
} | tee "$folder/failures"
! grep -q FAIL "$folder/failures"
