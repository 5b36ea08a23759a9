// SPDX-License-Identifier: MIT
/**
 * @file
 * Watch and hear an HDMI input on an ordinary Linux machine.
 */
#include <cstdio>
#include <cstdlib>

#include "hdmi_linux.h"
#include "machine/capture_devices.h"
#include "process/stop_signals.h"
#include "session/messages.h"
#include "session/options.h"
#include "session/viewer.h"

namespace
{

void name_outputs(const std::string& playback)
{
    for (const char* output : {"speaker", "headphone", "spdif", "hdmi_arc", "i2s_txa"})
        hdmi_linux_set_device(output, playback.c_str());
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
    name_outputs(options.playback);
    signals.start_thread();
    return view::Viewer(options, signals).run();
}
