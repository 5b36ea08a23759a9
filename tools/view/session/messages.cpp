// SPDX-License-Identifier: MIT
#include "session/messages.h"

#include <cstdio>

namespace view
{

using machine::CaptureDevice;
using machine::Finding;
using machine::Verdict;

void Messages::print(const std::string& line)
{
    if (line == last_)
        return;
    last_ = line;
    std::fprintf(stderr, "hdmi-player-view: %s\n", line.c_str());
}

void Messages::print(const Finding& finding)
{
    print(finding.what + ": " + finding.detail + (finding.remedy.empty() ? "" : ": " + finding.remedy));
}

Finding black_picture(const std::string& path)
{
    return {Verdict::missing, path,
            "the picture is black (a dark scene, a source that sleeps, or one that insists on HDCP)",
            "v4l2-ctl -d " + path + " --log-status"};
}

Finding stalled_picture(const std::string& path)
{
    return {Verdict::missing, path, "sends no frames any more", "sudo dmesg | tail"};
}

Finding no_device(const std::vector<CaptureDevice>& devices)
{
    if (devices.empty())
        return {Verdict::missing, "/dev/video*", "no video capture device; waiting for one", "lsusb"};
    for (const CaptureDevice& device : devices)
        if (device.verdict == Verdict::refused)
            return {device.verdict, device.path, device.why_not, device.remedy};
    return {Verdict::missing, "/dev/video*", "none that is used by itself; waiting for one", "hdmi-player-view --list"};
}

std::string list_of(const std::vector<CaptureDevice>& devices)
{
    if (devices.empty())
        return "No video capture device: lsusb; sudo dmesg | tail\n";
    const CaptureDevice* chosen = machine::choose_device(devices);
    std::string list;
    for (const CaptureDevice& device : devices) {
        list += (&device == chosen ? "* " : "  ") + device.path + "  " + device.facts.card;
        if (device.usable) {
            list += device.facts.signal.empty() ? "" : ": " + device.facts.signal;
            list += device.sound.empty() ? "; no sound of its own: --capture alsa:NAME (arecord -L lists names)"
                                         : "; sound from alsa:" + device.sound;
        } else {
            list += ": not used: " + device.why_not;
        }
        list += "\n";
        if (!device.remedy.empty())
            list += "      " + device.remedy + "\n";
    }
    return list;
}

} // namespace view
