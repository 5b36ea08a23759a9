// SPDX-License-Identifier: MIT
#include "machine/capture_devices.h"

#include <algorithm>
#include <filesystem>

#include "machine/access.h"

namespace machine
{
namespace
{

namespace fs = std::filesystem;

/// The USB device or PCI function behind an entry of /sys/class; the entry's own device where there is neither.
fs::path hardware_of(const fs::path& entry)
{
    std::error_code none;
    fs::path device = fs::canonical(entry / "device", none);
    for (fs::path at = device; at.has_relative_path(); at = at.parent_path()) {
        const bool usb = fs::exists(at / "idVendor", none);
        const bool pci = fs::exists(at / "vendor", none) && fs::exists(at / "class", none);
        if (usb || pci)
            return at;
    }
    return device;
}

/// ALSA's name of the first device that captures on the card at @p hardware.
std::string sound_of(const std::string& root, const fs::path& hardware)
{
    constexpr int kDevicesOfACard = 32;
    const std::string sound = root + "/sys/class/sound";
    for (const std::string& card : numbered(sound, "card")) {
        if (hardware.empty() || hardware_of(card) != hardware)
            continue;
        const std::string number = card.substr(sound.size() + sizeof("/card") - 1);
        for (int device = 0; device < kDevicesOfACard; device++)
            if (fs::exists(sound + "/pcmC" + number + "D" + std::to_string(device) + "c"))
                return "hw:CARD=" + first_line(card + "/id") + ",DEV=" + std::to_string(device);
    }
    return "";
}

/// @return why it is not used, or nothing
std::string objection_to(const VideoFacts& facts)
{
    if (!facts.captures)
        return "does not capture video: an output, metadata or a codec";
    if (facts.digital)
        return "";
    if (facts.analog)
        return "has analog inputs only";
    return facts.camera ? "is a camera, by its controls" : "";
}

CaptureDevice examine(const std::string& root, const std::string& entry, const AskVideo& ask)
{
    CaptureDevice device;
    device.path = "/dev/" + fs::path(entry).filename().string();
    device.facts.card = first_line(entry + "/name");
    if (const std::optional<Finding> refusal = ask(device.path, &device.facts)) {
        device.verdict = refusal->verdict;
        device.why_not = refusal->detail;
        device.remedy = refusal->remedy;
        return device;
    }
    device.why_not = objection_to(device.facts);
    device.usable = device.why_not.empty();
    if (device.facts.captures)
        device.sound = sound_of(root, hardware_of(entry));
    if (!device.usable && device.facts.captures)
        device.remedy = "hdmi-player-view --video v4l2:" + device.path + "   # all the same";
    return device;
}

} // namespace

std::vector<CaptureDevice> find_capture_devices(const std::string& root, const AskVideo& ask)
{
    std::vector<CaptureDevice> devices;
    for (const std::string& entry : numbered(root + "/sys/class/video4linux", "video"))
        devices.push_back(examine(root, entry, ask));
    return devices;
}

const CaptureDevice* choose_device(const std::vector<CaptureDevice>& devices)
{
    auto rank = [](const CaptureDevice& device) {
        return device.usable ? 1 + 2 * (device.facts.digital ? 1 : 0) + (device.sound.empty() ? 0 : 1) : 0;
    };
    const CaptureDevice* best = nullptr;
    for (const CaptureDevice& device : devices)
        if (rank(device) > (best != nullptr ? rank(*best) : 0))
            best = &device;
    return best;
}

} // namespace machine
