// SPDX-License-Identifier: MIT
#include "display/kms_mode.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>

namespace display
{
namespace
{

/// A mode's clock is in kHz, so that 59.94 may be 59.939; and 59.94 must not be taken for 60.
constexpr double kRateTolerance = 0.0004;

bool same_size(const drmModeModeInfo& a, const drmModeModeInfo& b)
{
    return a.hdisplay == b.hdisplay && a.vdisplay == b.vdisplay;
}

std::string rates_of(const std::vector<drmModeModeInfo>& modes)
{
    std::vector<std::string> rates;
    for (const drmModeModeInfo& mode : modes) {
        char text[32];
        std::snprintf(text, sizeof text, "%.5g", refresh_hz(mode));
        if (std::find(rates.begin(), rates.end(), text) == rates.end())
            rates.emplace_back(text);
    }
    std::string list;
    for (const std::string& rate : rates)
        list += (list.empty() ? "" : ", ") + rate;
    return list;
}

} // namespace

double refresh_hz(const drmModeModeInfo& mode)
{
    double total = static_cast<double>(mode.htotal) * mode.vtotal;
    if (total <= 0)
        return 0;
    double hz = mode.clock * 1000.0 / total;
    if ((mode.flags & DRM_MODE_FLAG_INTERLACE) != 0)
        hz *= 2;
    if ((mode.flags & DRM_MODE_FLAG_DBLSCAN) != 0)
        hz /= 2;
    return mode.vscan > 1 ? hz / mode.vscan : hz;
}

const drmModeModeInfo* choose_mode(const std::vector<drmModeModeInfo>& modes, std::optional<double> wanted_hz,
                                   std::string* error)
{
    if (modes.empty()) {
        *error = "has no mode";
        return nullptr;
    }
    auto of_type = [&modes](uint32_t type) {
        return std::find_if(modes.begin(), modes.end(),
                            [type](const drmModeModeInfo& mode) { return (mode.type & type) != 0; });
    };
    // What the administrator asked for (video= on the kernel's command line) goes before what the display does.
    auto preferred = of_type(DRM_MODE_TYPE_USERDEF);
    if (preferred == modes.end())
        preferred = of_type(DRM_MODE_TYPE_PREFERRED);
    const drmModeModeInfo& favourite = preferred != modes.end() ? *preferred : modes.front();
    auto fits = [wanted_hz](const drmModeModeInfo& mode) {
        double hz = refresh_hz(mode);
        return hz > 0 && (!wanted_hz || std::abs(hz / *wanted_hz - 1) <= kRateTolerance);
    };
    if (fits(favourite))
        return &favourite;
    const drmModeModeInfo* chosen = nullptr;
    for (const drmModeModeInfo& mode : modes)
        if (fits(mode) && (chosen == nullptr || (same_size(mode, favourite) && !same_size(*chosen, favourite))))
            chosen = &mode;
    if (chosen == nullptr) {
        char text[32];
        std::snprintf(text, sizeof text, "%.5g", wanted_hz.value_or(0));
        *error = std::string("has no mode of ") + text + " Hz, but " + rates_of(modes);
    }
    return chosen;
}

const drmModeModeInfo* choose_mode(const std::vector<drmModeModeInfo>& modes, const ModeWish& wish, std::string* error)
{
    // Below that, a display flickers or does not follow.
    constexpr double kLeastHz = 40;
    auto rank = [&wish](const drmModeModeInfo& mode) {
        const double hz = refresh_hz(mode);
        const double per_frame = wish.fps > 0 ? hz / wish.fps : 1;
        const bool multiple =
            std::round(per_frame) >= 1 && std::abs(per_frame / std::round(per_frame) - 1) <= kRateTolerance;
        const bool preferred = (mode.type & DRM_MODE_TYPE_PREFERRED) != 0;
        // The slowest of several multiples costs least.
        return std::make_tuple(hz >= kLeastHz, multiple, preferred, multiple ? -hz : hz);
    };
    const drmModeModeInfo* best = nullptr;
    for (const drmModeModeInfo& mode : modes) {
        const bool same = mode.hdisplay == wish.size.width && mode.vdisplay == wish.size.height;
        const bool progressive = (mode.flags & DRM_MODE_FLAG_INTERLACE) == 0;
        if (same && progressive && refresh_hz(mode) > 0 && (best == nullptr || rank(mode) > rank(*best)))
            best = &mode;
    }
    if (best != nullptr && !wish.refresh_hz)
        return best;
    return choose_mode(modes, wish.refresh_hz, error);
}

std::string connector_name(const drmModeConnector& connector)
{
    const char* type = drmModeGetConnectorTypeName(connector.connector_type);
    return std::string(type != nullptr ? type : "connector") + "-" + std::to_string(connector.connector_type_id);
}

} // namespace display
