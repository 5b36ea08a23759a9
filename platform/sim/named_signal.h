// SPDX-License-Identifier: MIT
/**
 * @file
 * Sources by name: what a host plays that knows nothing of the simulation.
 */
#pragma once

#include <string>

#include "hdmi_sim.h"

namespace sim
{

/// A source and what the receiver's driver announces of it.
struct NamedSignal {
    hdmi_sim::Signal signal;
    bool compressed = false;
    int sample_rate = 48000; ///< Hz, of the sound
};

/// What @p text stands for (hdmi_sim_control.h). @return false with one line in @p error
bool find_signal(const std::string& text, NamedSignal* found, std::string* error);

/// Connects the source that the environment names, once, unless there is one.
void connect_if_asked();

} // namespace sim
