// SPDX-License-Identifier: MIT
#include "display/kms_mode.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace play
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

std::string connector_name(const drmModeConnector& connector)
{
    const char* type = drmModeGetConnectorTypeName(connector.connector_type);
    return std::string(type != nullptr ? type : "connector") + "-" + std::to_string(connector.connector_type_id);
}

} // namespace play
