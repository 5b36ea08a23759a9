// SPDX-License-Identifier: MIT
/**
 * @file
 * The configuration and the counters, for hosts in C.
 */
#include <cstdio>
#include <string>

#include "config.h"
#include "contained.h"
#include "hdmi_linux.h"

#define PLATFORM_EXPORT __attribute__((visibility("default")))

namespace
{

template <size_t size> void copy(const std::string& text, char (&to)[size]) { snprintf(to, size, "%s", text.c_str()); }

hdmi_linux_device_t device_of(const hdmi_linux::DeviceStats& stats)
{
    hdmi_linux_device_t device = {};
    device.open = stats.open;
    device.lost = stats.lost;
    device.opens = stats.opens;
    device.frames = stats.frames;
    device.xruns = stats.xruns;
    device.suspends = stats.suspends;
    device.losses = stats.losses;
    device.recoveries = stats.recoveries;
    device.recovery_us = stats.recovery_us;
    device.frames_lost = stats.frames_lost;
    device.rate = stats.rate;
    device.period_frames = stats.period_frames;
    device.period_count = stats.period_count;
    copy(stats.pcm, device.pcm);
    device.matched = stats.matched;
    device.matching_ppm = stats.matching_ppm;
    return device;
}

} // namespace

extern "C" {

PLATFORM_EXPORT int hdmi_linux_set_device(const char* key, const char* pcm)
{
    const bool named = hdmi_linux::contained(
        [=] { return key != nullptr && hdmi_linux::override_device(key, pcm != nullptr ? pcm : ""); }, false);
    return named ? 0 : -1;
}

PLATFORM_EXPORT bool hdmi_linux_check_config(char* error, size_t size)
{
    std::string faults;
    const bool good = hdmi_linux::check_config(&faults);
    if (error != nullptr && size > 0)
        snprintf(error, size, "%s", faults.c_str());
    return good;
}

PLATFORM_EXPORT hdmi_linux_device_t hdmi_linux_playback(void) { return device_of(hdmi_linux::playback_stats()); }
PLATFORM_EXPORT hdmi_linux_device_t hdmi_linux_capture(void) { return device_of(hdmi_linux::capture_stats()); }

PLATFORM_EXPORT hdmi_linux_bypass_t hdmi_linux_bypass(void)
{
    const hdmi_linux::BypassStats stats = hdmi_linux::bypass_stats();
    hdmi_linux_bypass_t bypass = {};
    bypass.active = stats.active;
    bypass.lost = stats.lost;
    bypass.frames = stats.frames;
    bypass.dropped = stats.dropped;
    bypass.xruns = stats.xruns;
    bypass.slips = stats.slips;
    bypass.rate = stats.rate;
    copy(stats.pcm, bypass.pcm);
    return bypass;
}

PLATFORM_EXPORT hdmi_linux_arc_t hdmi_linux_arc(void)
{
    const hdmi_linux::CecStats stats = hdmi_linux::cec_stats();
    hdmi_linux_arc_t arc = {};
    arc.adapter = stats.open;
    arc.lost = stats.lost;
    arc.active = stats.arc == hdmi_linux::ArcState::active;
    arc.activations = stats.activations;
    arc.received = stats.received;
    arc.sent = stats.sent;
    arc.undelivered = stats.undelivered;
    copy(stats.device, arc.device);
    copy(stats.note, arc.note);
    return arc;
}

} // extern "C"
