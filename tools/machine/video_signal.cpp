// SPDX-License-Identifier: MIT
#include "machine/video_signal.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>

namespace machine
{
namespace
{

/// Blanking of both fields, where there are two.
uint64_t total_lines(const v4l2_bt_timings& timings)
{
    uint64_t lines = uint64_t{timings.height} + timings.vfrontporch + timings.vsync + timings.vbackporch;
    if (timings.interlaced != V4L2_DV_PROGRESSIVE)
        lines += uint64_t{timings.il_vfrontporch} + timings.il_vsync + timings.il_vbackporch;
    return lines;
}

} // namespace

VideoSignal signal_of(const v4l2_bt_timings& timings)
{
    constexpr double kReduced = 1000.0 / 1001;
    VideoSignal signal;
    signal.state = VideoSignal::State::present;
    signal.width = static_cast<int>(timings.width);
    signal.height = static_cast<int>(timings.height);
    signal.interlaced = timings.interlaced != V4L2_DV_PROGRESSIVE;
    const uint64_t columns = uint64_t{timings.width} + timings.hfrontporch + timings.hsync + timings.hbackporch;
    const uint64_t pixels = columns * total_lines(timings);
    if (pixels > 0)
        signal.fps = static_cast<double>(timings.pixelclock) / static_cast<double>(pixels);
    // The clock is the nominal one; whether the source runs a thousandth slower is a flag beside it.
    if ((timings.flags & V4L2_DV_FL_REDUCED_FPS) != 0)
        signal.fps *= kReduced;
    return signal;
}

VideoSignal signal_of_error(int error)
{
    VideoSignal signal;
    switch (error) {
    case ENOLINK: signal.state = VideoSignal::State::none; break;
    case ENOLCK: signal.state = VideoSignal::State::unstable; break;
    case ERANGE: signal.state = VideoSignal::State::unsupported; break;
    default: signal.state = VideoSignal::State::untold; break;
    }
    return signal;
}

VideoSignal detect_signal(int fd, v4l2_dv_timings* timings)
{
    v4l2_dv_timings found = {};
    if (ioctl(fd, VIDIOC_QUERY_DV_TIMINGS, &found) != 0)
        return signal_of_error(errno);
    if (timings != nullptr)
        *timings = found;
    return signal_of(found.bt);
}

std::string describe(const VideoSignal& signal)
{
    switch (signal.state) {
    case VideoSignal::State::none: return "no signal";
    case VideoSignal::State::unstable: return "a signal without stable timings";
    case VideoSignal::State::unsupported: return "a signal beyond what the device receives";
    case VideoSignal::State::untold: return "";
    case VideoSignal::State::present: break;
    }
    char text[96];
    std::snprintf(text, sizeof text, "%dx%d%s at %.5g fps", signal.width, signal.height,
                  signal.interlaced ? " interlaced" : "", signal.fps);
    return text;
}

Finding objection_to(const VideoSignal& signal, const std::string& path)
{
    const std::string control = "v4l2-ctl -d " + path;
    switch (signal.state) {
    case VideoSignal::State::none:
        return {Verdict::missing, path, "no signal (no cable, a source that is off, or an input without an EDID)",
                control + " --set-edid=type=hdmi"};
    case VideoSignal::State::unstable:
        return {Verdict::missing, path,
                "a signal that cannot be locked to (a bad cable, or a source that insists on HDCP)",
                control + " --log-status"};
    case VideoSignal::State::unsupported:
        return {Verdict::missing, path, "a signal beyond what the device receives: choose a smaller mode at the source",
                control + " --get-dv-timings-cap"};
    case VideoSignal::State::untold: return {};
    case VideoSignal::State::present: break;
    }
    if (!signal.interlaced)
        return {};
    return {Verdict::missing, path,
            describe(signal) + " is not shown: choose a progressive mode at the source, such as 1080p",
            control + " --query-dv-timings"};
}

} // namespace machine
