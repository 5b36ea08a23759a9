// SPDX-License-Identifier: MIT
#pragma once

#include <xf86drmMode.h>

#include <optional>
#include <string>
#include <vector>

namespace play
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

/// "HDMI-A-1"
std::string connector_name(const drmModeConnector& connector);

} // namespace play
