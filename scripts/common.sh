# SPDX-License-Identifier: MIT
# What the scripts share: the packages of Debian and Ubuntu that the build needs, and the build itself.
# To be sourced.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# depmod and modprobe are in /usr/sbin, which an ordinary account does not have on its PATH.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

build_packages=(
    g++ cmake ninja-build pkg-config
    libavutil-dev libswresample-dev libdrm-dev                          # the library
    libsndfile1-dev libavcodec-dev libavformat-dev                      # the simulated platform
    libasound2-dev                                                      # the Linux platform
    libswscale-dev libcli11-dev nlohmann-json3-dev libsdl2-dev          # the play program
    libgtest-dev                                                        # the tests
)
bench_packages=(
    libgtest-dev libbenchmark-dev libglib2.0-dev python3
    libgstreamer1.0-dev gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-libav  # the peer
    ffmpeg                                                              # makes the sound that it plays
)
test_packages=(
    clang clang-tidy clang-format binutils git
    valgrind                                                            # counts instructions
    libasound2-plugins pulseaudio                                       # a sound server for the Linux platform
    ffmpeg                                                              # makes the film files that are played
    xvfb                                                                # a desktop for its window
    'chromium-headless-shell?'                                          # a browser for its pages
)

# run_quietly COMMAND...: its output only if it fails.
run_quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    return "$status"
}

# is_installed PACKAGE: for this machine's architecture. dpkg knows a package once per architecture.
is_installed() {
    dpkg-query -W -f '${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
        grep -qxE "($(dpkg --print-architecture)|all) installed"
}

# offered PACKAGE...: their names, but of those with "?" only what apt has here: Ubuntu has not all that Debian has.
offered() {
    local package
    for package in "$@"; do
        [[ $package != *\? ]] || apt-cache show "${package%\?}" >/dev/null 2>&1 || continue
        echo "${package%\?}"
    done
}

# ensure_packages PACKAGE...: installs those that are missing, and says which. One with "?" may be left out.
ensure_packages() {
    local package missing=() install as_root=()
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        echo "No apt here: expecting what these Debian packages bring: $*" >&2
        return 0
    fi
    for package in "$@"; do
        is_installed "${package%\?}" || missing+=("$package")
    done
    mapfile -t install < <(offered "${missing[@]}")
    [ ${#install[@]} -eq 0 ] && return 0
    echo "Installing: ${install[*]}" >&2
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "That needs root, and there is no sudo. As root: apt-get install ${install[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    # One source that does not answer is enough for update to fail; the packages may come from the others.
    run_quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq update </dev/null ||
        echo "apt-get update failed: installing from the package lists that are here" >&2
    # Before that, apt may have known of none.
    mapfile -t install < <(offered "${missing[@]}")
    run_quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends \
        "${install[@]}" </dev/null
}

# build_targets FOLDER TARGET... [-- CMAKE_OPTION...]: configures FOLDER and builds the targets (all: the default ones).
build_targets() {
    local folder=$1 targets=()
    shift
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        targets+=("$1")
        shift
    done
    [ $# -gt 0 ] && shift
    [ -e "$folder/build.ninja" ] || echo "Building in $folder (the first time takes a minute or two)" >&2
    run_quietly cmake -S "$root" -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DHDMIPLAYER_WERROR=ON "$@" || return 1
    run_quietly cmake --build "$folder" --target "${targets[@]}"
}
