// SPDX-License-Identifier: MIT
#include <time.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "access.h"

namespace doctor
{
namespace
{

struct Release {
    void operator()(drmModeRes* resources) const { drmModeFreeResources(resources); }
    void operator()(drmModeCrtc* crtc) const { drmModeFreeCrtc(crtc); }
    void operator()(drmVersion* version) const { drmFreeVersion(version); }
};

constexpr timespec kLook = {0, 200000000};

// Vertical blanks a second, by the kernel's counter and stamps; 0 with errno where there are none.
double blank_rate(int fd, uint32_t crtc)
{
    uint64_t first = 0;
    uint64_t last = 0;
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    if (drmCrtcGetSequence(fd, crtc, &first, &first_ns) != 0)
        return 0;
    nanosleep(&kLook, nullptr);
    if (drmCrtcGetSequence(fd, crtc, &last, &last_ns) != 0)
        return 0;
    errno = ETIME;
    return last_ns > first_ns ? static_cast<double>(last - first) * 1e9 / static_cast<double>(last_ns - first_ns) : 0;
}

Finding look_at_card(const std::string& path)
{
    const Device device(path);
    if (const auto refusal = device.refusal())
        return *refusal;
    const std::unique_ptr<drmVersion, Release> version(drmGetVersion(device.fd()));
    const std::string driver = version != nullptr ? version->name : "?";
    const std::unique_ptr<drmModeRes, Release> resources(drmModeGetResources(device.fd()));
    if (resources == nullptr || resources->count_crtcs == 0)
        return {Verdict::missing, path, driver + ": draws, but has no display", "hdmi-player-play --display window"};
    for (int i = 0; i < resources->count_crtcs; ++i) {
        const std::unique_ptr<drmModeCrtc, Release> crtc(drmModeGetCrtc(device.fd(), resources->crtcs[i]));
        if (crtc == nullptr || crtc->mode_valid == 0)
            continue;
        const double rate = blank_rate(device.fd(), crtc->crtc_id);
        if (rate == 0)
            return {Verdict::missing, path, driver + ": no vertical blanks: " + strerror(errno),
                    "hdmi-player-play --display none   # its own clock instead"};
        char text[64];
        snprintf(text, sizeof(text), ": %ux%u, %.2f vertical blanks a second", crtc->mode.hdisplay, crtc->mode.vdisplay,
                 rate);
        return {Verdict::ok, path, driver + text, ""};
    }
    return {Verdict::missing, path, driver + ": is dark; vertical blanks come with a mode",
            "hdmi-player-play --display kms:" + path + "   # sets one"};
}

} // namespace

Findings look_at_displays()
{
    Findings all;
    for (const std::string& path : numbered("/dev/dri", "card"))
        all.push_back(look_at_card(path));
    if (all.empty())
        all.push_back({Verdict::missing, "/dev/dri/card*", "no display of the kernel's",
                       "sudo modprobe vkms   # a virtual one, to try with"});
    return all;
}

} // namespace doctor
