// SPDX-License-Identifier: MIT
/**
 * @file
 * Watch and hear an HDMI input on an ordinary Linux machine.
 */
#include <cstdio>
#include <cstdlib>

#include "machine/capture_devices.h"
#include "process/stop_signals.h"
#include "session/options.h"
#include "session/viewer.h"
#include "session/words.h"

namespace
{

/// Before the first thread: the environment that the player and its platform read.
void set_environment(const view::Options& options)
{
    setenv("debug_hdmiplayer_log_level", "1", 0);
    // A capture card has no driver that announces formats.
    setenv("HDMIPLAYER_LINUX_RECEIVER", "1", 0);
    if (!options.playback.empty())
        for (const char* output : {"SPEAKER", "HEADPHONE", "SPDIF", "HDMI_ARC", "I2S_TXA"})
            setenv((std::string("HDMIPLAYER_ALSA_") + output).c_str(), options.playback.c_str(), 1);
    if (!options.capture.empty() && options.capture != "none")
        setenv("HDMIPLAYER_ALSA_HDMI_IN", options.capture.c_str(), 1);
}

} // namespace

int main(int argc, char** argv)
{
    view::Options options;
    const view::ParseResult parsed = view::parse_options(argc, argv, &options);
    if (!parsed.go_on)
        return parsed.code;
    if (options.list) {
        std::fputs(view::list_of(machine::find_capture_devices("", machine::ask_video)).c_str(), stdout);
        return 0;
    }
    process::StopSignals signals;
    set_environment(options);
    signals.start_thread();
    return view::Viewer(options, signals).run();
}
