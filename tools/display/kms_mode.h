// SPDX-License-Identifier: MIT
#pragma once

#include <xf86drmMode.h>

#include <optional>
#include <string>
#include <vector>

#include "display/canvas.h"

namespace display
{

/// Vertical blanks per second of a mode: fields, if it is interlaced. 0 for one without timings.
double refresh_hz(const drmModeModeInfo& mode);

/**
 * The mode to show in: of those with the wanted rate (any, if none is wanted) the preferred one, else the first of the
 * preferred one's size, else the first.
 * @return null, with one line in @p error, if there is none
 */
const drmModeModeInfo* choose_mode(const std::vector<drmModeModeInfo>& modes, std::optional<double> wanted_hz,
                                   std::string* error);

/// What is wanted of a mode.
struct ModeWish {
    std::optional<double> refresh_hz; ///< must be so
    Size size = {0, 0};               ///< preferred; 0: the display's own preference
    double fps = 0;                   ///< of what is shown: a refresh rate that is a multiple of it is preferred
};

/// As above; in a mode of the wished size, if there is one.
const drmModeModeInfo* choose_mode(const std::vector<drmModeModeInfo>& modes, const ModeWish& wish, std::string* error);

/// "HDMI-A-1"
std::string connector_name(const drmModeConnector& connector);

} // namespace display
