// SPDX-License-Identifier: MIT
/**
 * @file
 * The soak: hours of play with trouble upon trouble, a line a minute, and a
 * verdict.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "process/stop_signals.h"
#include "session.h"

namespace soak
{

struct EnduranceConfig {
    SessionConfig session;
    double seconds = 3600;
    uint64_t seed = 1;
    Format format = Format::pcm48;  ///< at the beginning and at the end
    std::vector<std::string> kinds; ///< of troubles
    std::string folder;             ///< for minutes.csv, events.csv, offsets.csv and verdict.txt
    int more_memory_mb = 0;         ///< once it plays, no more than that is given; 0: as much as there is
    double slew_ppm = 0;            ///< of the wall clock
    double recovery_s = 3;          ///< in which sound and picture must be in sync again
    bool hurry = false;             ///< hardly a pause between troubles: only what is lost or left behind is judged
};

/// @return the exit status: 0 nothing to complain of, 1 something, 3 the machine does not permit it
int endure(const EnduranceConfig& config, const process::StopSignals& signals);

} // namespace soak
