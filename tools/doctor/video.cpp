// SPDX-License-Identifier: MIT
#include "findings.h"
#include "machine/access.h"
#include "machine/capture_devices.h"

namespace doctor
{
namespace
{

using namespace machine;

Finding finding_of(const CaptureDevice& device)
{
    const std::string name = device.facts.card.empty() ? "" : device.facts.card + ": ";
    if (!device.usable)
        return {device.verdict, device.path, name + device.why_not, device.remedy};
    const std::string signal = device.facts.signal.empty() ? "" : device.facts.signal + ", ";
    const std::string sound = device.sound.empty() ? "no sound of its own" : "sound " + device.sound;
    return {Verdict::ok, device.path, name + signal + sound + "; " + Device(device.path).owner(), ""};
}

} // namespace

Findings examine_video()
{
    Findings all;
    for (const CaptureDevice& device : find_capture_devices("", ask_video))
        if (device.facts.captures || device.verdict != Verdict::ok)
            all.push_back(finding_of(device));
    if (all.empty())
        all.push_back({Verdict::missing, "/dev/video*", "no video capture device",
                       "sudo modprobe vivid   # a virtual one, to try with"});
    return all;
}

} // namespace doctor
