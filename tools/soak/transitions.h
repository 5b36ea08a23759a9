// SPDX-License-Identifier: MIT
/**
 * @file
 * From each format to each other one, with and without the cable being pulled
 * out in between: how long it takes until there is sound, and until it is in
 * sync with the pictures.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "process/stop_signals.h"
#include "session.h"

namespace soak
{

struct TransitionsConfig {
    SessionConfig session;
    std::vector<Format> formats;
    int way = 0;      ///< 0: both, 1: the source changes what it sends, 2: through the cable
    std::string file; ///< for the table, as CSV; empty: standard output
};

struct Step {
    Format from;
    Format to;
    bool cable;
};
/// A way that takes each ordered pair of @p formats once with the cable in, and, the pairs of equal ones among them,
/// once with the cable out in between; it starts and ends with the first.
std::vector<Step> way_through(const std::vector<Format>& formats, int way);

/// @return as endure()
int make_transitions(const TransitionsConfig& config, const process::StopSignals& signals);

} // namespace soak
