// SPDX-License-Identifier: MIT
#include <time.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "findings.h"
#include "machine/access.h"

namespace doctor
{
namespace
{

using namespace machine;

struct Release {
    void operator()(drmModeRes* resources) const { drmModeFreeResources(resources); }
    void operator()(drmModeCrtc* crtc) const { drmModeFreeCrtc(crtc); }
    void operator()(drmVersion* version) const { drmFreeVersion(version); }
};

using Controller = std::unique_ptr<drmModeCrtc, Release>;

Controller examine_controller(int fd, uint32_t id) { return Controller(drmModeGetCrtc(fd, id)); }

bool is_lit(const Controller& controller) { return controller != nullptr && controller->mode_valid != 0; }

// The display in use hangs there: a mode on the first controller would take it away from who has it.
bool another_is_lit(int fd, const drmModeRes& resources)
{
    return std::any_of(resources.crtcs + 1, resources.crtcs + resources.count_crtcs,
                       [fd](uint32_t id) { return is_lit(examine_controller(fd, id)); });
}

constexpr timespec kWatchTime = {0, 200000000};

// The first controller's count of vertical blanks; false with errno where it has none.
bool count_blanks(int fd, drmVBlankReply* reply)
{
    drmVBlank now = {};
    now.request.type = DRM_VBLANK_RELATIVE;
    if (drmWaitVBlank(fd, &now) != 0)
        return false;
    *reply = now.reply;
    return true;
}

// Vertical blanks a second of the first controller, which is the one that the player waits for; 0 with errno where
// there are none.
double blank_rate(int fd)
{
    drmVBlankReply first = {};
    drmVBlankReply last = {};
    if (!count_blanks(fd, &first))
        return 0;
    nanosleep(&kWatchTime, nullptr);
    if (!count_blanks(fd, &last))
        return 0;
    errno = ETIME;
    const double seconds = static_cast<double>(last.tval_sec - first.tval_sec) +
                           static_cast<double>(last.tval_usec - first.tval_usec) / 1e6;
    return seconds > 0 ? (last.sequence - first.sequence) / seconds : 0;
}

Finding examine_card(const std::string& path)
{
    const Device device(path);
    if (const auto refusal = device.refusal())
        return *refusal;
    const std::unique_ptr<drmVersion, Release> version(drmGetVersion(device.fd()));
    const std::string driver = version != nullptr ? version->name : "?";
    const std::unique_ptr<drmModeRes, Release> resources(drmModeGetResources(device.fd()));
    if (resources == nullptr || resources->count_crtcs == 0)
        return {Verdict::missing, path, driver + ": draws, but has no display", "hdmi-player-play --display window"};
    const Controller first = examine_controller(device.fd(), resources->crtcs[0]);
    if (!is_lit(first))
        return {Verdict::missing, path,
                driver + ": its first controller is dark, and the player waits for that one's vertical blanks",
                another_is_lit(device.fd(), *resources)
                    ? "hdmi-player-play --display window   # or none: the display in use hangs on another controller"
                    : "hdmi-player-play --display kms:" + path + "   # sets a mode"};
    const double rate = blank_rate(device.fd());
    if (rate == 0)
        return {Verdict::missing, path, driver + ": no vertical blanks: " + strerror(errno),
                "hdmi-player-play --display none   # its own clock instead"};
    char text[64];
    snprintf(text, sizeof(text), ": %ux%u, %.2f vertical blanks a second", first->mode.hdisplay, first->mode.vdisplay,
             rate);
    return {Verdict::ok, path, driver + text + "; " + device.owner(), ""};
}

} // namespace

Findings examine_displays()
{
    Findings all;
    for (const std::string& path : numbered("/dev/dri", "card"))
        all.push_back(examine_card(path));
    if (all.empty())
        all.push_back({Verdict::missing, "/dev/dri/card*", "no display of the kernel's",
                       "sudo modprobe vkms   # a virtual one, to try with"});
    return all;
}

} // namespace doctor
