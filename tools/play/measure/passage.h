// SPDX-License-Identifier: MIT
/**
 * @file
 * Sound and pictures of a source that is not ours, from their capture to ear
 * and eye. What came in says what must come out.
 */
#pragma once

#include <cstdint>
#include <vector>

#include "measure/measure.h"
#include "signal/recording.h"
#include "source/captured_pictures.h"

namespace play
{

/// An instant of the sound.
struct Passage {
    int64_t captured_ns; ///< CLOCK_MONOTONIC, here and below
    int64_t heard_ns;    ///< -1: it was not found in what was heard

    bool found() const { return heard_ns >= 0; }
};

struct Passages {
    bool beeps = false; ///< instants are the onsets of beeps; otherwise full seconds
    std::vector<Passage> all;
};

/// By the beeps, where the captured sound has some; else by the waveform at each full second.
Passages find_passages(const Recording& captured, const Recording& heard);

/// What the player and the devices behind the capture add: the latency of each instant of the sound that was heard, and
/// of the picture that was captured last before it.
std::vector<Offset> measure_passages(const std::vector<Passage>& passages, const std::vector<Sighting>& sightings,
                                     const Source& pictures, SourceClock clock);

/// Flashes and the beeps beside them: by how much the sound came first, on average.
struct Chain {
    int64_t count = 0;
    double captured_ms = 0; ///< at the capture devices
    double shown_ms = 0;    ///< at eye and ear
};
Chain measure_chain(const Passages& passages, const std::vector<Flash>& flashes, const std::vector<Sighting>& sightings,
                    SourceClock clock);

} // namespace play
