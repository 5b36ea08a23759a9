// SPDX-License-Identifier: MIT
// What a V4L2 node tells of itself, without changing anything.
#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "machine/access.h"
#include "machine/capture_devices.h"
#include "machine/video_signal.h"

namespace machine
{
namespace
{

constexpr uint32_t kMostInputs = 32;

void ask_inputs(int fd, VideoFacts* facts)
{
    v4l2_input input = {};
    for (; input.index < kMostInputs && ioctl(fd, VIDIOC_ENUMINPUT, &input) == 0; input.index++)
        facts->digital |= (input.capabilities & V4L2_IN_CAP_DV_TIMINGS) != 0;
    facts->analog = input.index > 0 && !facts->digital && facts->driver != "uvcvideo";
}

/// A capture card has no lens and no shutter.
bool has_camera_controls(int fd)
{
    for (uint32_t id : {V4L2_CID_EXPOSURE_AUTO, V4L2_CID_EXPOSURE_ABSOLUTE, V4L2_CID_FOCUS_ABSOLUTE,
                        V4L2_CID_FOCUS_AUTO, V4L2_CID_ZOOM_ABSOLUTE}) {
        v4l2_queryctrl control = {};
        control.id = id;
        if (ioctl(fd, VIDIOC_QUERYCTRL, &control) == 0 && (control.flags & V4L2_CTRL_FLAG_DISABLED) == 0)
            return true;
    }
    return false;
}

} // namespace

std::optional<Finding> ask_video(const std::string& path, VideoFacts* facts)
{
    const Device device(path);
    if (auto refusal = device.refusal())
        return refusal;
    if (device.in_use())
        return Finding{Verdict::refused, path, "another program has it", "sudo fuser -v " + path};
    v4l2_capability known = {};
    if (ioctl(device.fd(), VIDIOC_QUERYCAP, &known) != 0)
        return Finding{Verdict::missing, path, "is no V4L2 device", "ls -l " + path};
    const uint32_t caps = (known.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? known.device_caps : known.capabilities;
    facts->driver = reinterpret_cast<const char*>(known.driver);
    facts->card = reinterpret_cast<const char*>(known.card);
    facts->captures =
        (caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0 && (caps & V4L2_CAP_STREAMING) != 0;
    if (!facts->captures)
        return std::nullopt;
    ask_inputs(device.fd(), facts);
    facts->camera = !facts->digital && has_camera_controls(device.fd());
    if (facts->digital)
        facts->signal = describe(detect_signal(device.fd()));
    return std::nullopt;
}

} // namespace machine
