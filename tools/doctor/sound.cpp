// SPDX-License-Identifier: MIT
#include <alsa/asoundlib.h>

#include <filesystem>
#include <fstream>

#include "findings.h"
#include "machine/access.h"

namespace doctor
{
namespace
{

using namespace machine;

constexpr int kDevicesOfACard = 32; ///< the kernel's limit

// The value behind "key: " in the kernel's description of a PCM.
std::string value_of(const std::string& path, const std::string& key)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line.compare(0, key.size() + 2, key + ": ") == 0)
            return line.substr(key.size() + 2);
    return {};
}

// @p folder: such as /proc/asound/card0/pcm0p. Everybody may read that, whoever may open the device.
Finding examine_pcm(const std::string& folder, const std::string& card_id, bool capture)
{
    const std::string info = folder + "/info";
    const std::string number = value_of(info, "device");
    const std::string name = "hw:CARD=" + card_id + ",DEV=" + number;
    const std::string node = "/dev/snd/pcmC" + value_of(info, "card") + "D" + number + (capture ? "c" : "p");
    const Device device(node);
    const std::string what = (capture ? "capture   " : "playback  ") + name;
    if (const auto refusal = device.refusal())
        return {refusal->verdict, what, refusal->what + ": " + refusal->detail, refusal->remedy};
    return {Verdict::ok, what, value_of(info, "name") + (device.in_use() ? ", in use" : "") + "; " + device.owner(),
            device.in_use() ? "sudo fuser -v " + node + "   # who has it" : ""};
}

void quiet(const char*, int, const char*, int, const char*, ...) {}

Finding examine_default()
{
    snd_lib_error_set_handler(quiet);
    snd_pcm_t* pcm = nullptr;
    const int error = snd_pcm_open(&pcm, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (error >= 0)
        snd_pcm_close(pcm);
    if (error >= 0 || error == -EBUSY || error == -EAGAIN)
        return {Verdict::ok, "playback  default", "the speaker, unless the configuration names another", ""};
    return {Verdict::missing, "playback  default", snd_strerror(error),
            "aplay -L   # lists names; then: export HDMIPLAYER_ALSA_SPEAKER=NAME"};
}

} // namespace

Findings examine_sound()
{
    Findings all;
    bool any_of[2] = {false, false};
    for (const bool capture : {true, false})
        for (const std::string& card : numbered("/proc/asound", "card"))
            for (int device = 0; device < kDevicesOfACard; ++device) {
                const std::string folder = card + "/pcm" + std::to_string(device) + (capture ? "c" : "p");
                if (!std::filesystem::exists(folder + "/info"))
                    continue;
                all.push_back(examine_pcm(folder, first_line(card + "/id"), capture));
                any_of[capture] = true;
            }
    constexpr char kLoopback[] = "sudo modprobe snd-aloop   # a loopback, to try with";
    if (!any_of[true])
        all.push_back({Verdict::missing, "capture", "no device", kLoopback});
    if (!any_of[false])
        all.push_back({Verdict::missing, "playback", "no device", kLoopback});
    all.push_back(examine_default());
    return all;
}

} // namespace doctor
