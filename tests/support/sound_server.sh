# SPDX-License-Identifier: MIT
# A sound server of a test's own, with null sinks as ALSA devices. To be sourced.

# serve_sound FOLDER SINK...: starts it, its process in $sound_server. What is played into the ALSA device SINK is
# captured from SINK_end. Its settings and those of whoever runs from here on lie in FOLDER.
serve_sound() {
    local folder=$1 sink modules=()
    shift
    export HOME=$folder XDG_RUNTIME_DIR=$folder ALSA_CONFIG_PATH=$folder/asound.conf
    unset DBUS_SESSION_BUS_ADDRESS PULSE_SERVER DISPLAY
    echo "</usr/share/alsa/alsa.conf>" >"$ALSA_CONFIG_PATH"
    for sink in "$@"; do
        echo "pcm.${sink} { type pulse server \"unix:$folder/native\" device $sink }"
        echo "pcm.${sink}_end { type pulse server \"unix:$folder/native\" device $sink.monitor }"
        # Without rewinds a sink mixes 50 ms ahead at most, and with the priority of sound it does so in time.
        modules+=(-L "module-null-sink norewinds=1 rate=48000 channels=2 sink_name=$sink")
    done >>"$ALSA_CONFIG_PATH"
    pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=yes \
        -L "module-native-protocol-unix auth-anonymous=1 socket=$folder/native" "${modules[@]}" \
        >"$folder/server.txt" 2>&1 &
    sound_server=$!
    for _ in $(seq 200); do
        [ -S "$folder/native" ] && break
        sleep 0.05
    done
    chrt --all-tasks --rr --pid 10 "$sound_server" 2>/dev/null || true
}
