// SPDX-License-Identifier: MIT
/**
 * @file
 * Watch and hear an HDMI input on an ordinary Linux machine.
 */
#include <cstdio>
#include <cstdlib>

#include "hdmi_linux.h"
#include "machine/capture_devices.h"
#include "process/realtime.h"
#include "process/stop_signals.h"
#include "session/messages.h"
#include "session/options.h"
#include "session/outputs.h"
#include "session/viewer.h"

namespace
{

/// Sends all outputs to one ALSA device. Empty: each to that of the platform's configuration.
void send_outputs_to(const std::string& playback)
{
    for (const view::Output& output : view::kOutputs)
        hdmi_linux_set_device(output.key, playback.c_str());
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
    setenv("debug_hdmiplayer_log_level", "1", 0); // before the first thread
    send_outputs_to(options.playback);
    signals.start_thread();
    process::keep_in_memory();
    return view::Viewer(options, signals).run();
}
