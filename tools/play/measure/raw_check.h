// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

namespace play
{

class Recording;
class Source;

/// Raw pass-through: what arrived at the output, against what the source sent.
struct RawCheck {
    bool compared = false; ///< false: nobody listened, or the source is not ours
    int64_t frames = 0;    ///< link frames that arrived at the output
    int64_t bursts = 0;    ///< whole ones among them
    int64_t different = 0; ///< frames that are not the source's
    int64_t gaps = 0;      ///< places at which frames are missing
    int64_t began_ns = 0;  ///< when the first frame came
    int64_t ended_ns = 0;  ///< when the last one did
};

/**
 * The bursts of @p heard, at the output of a real device, against those of the coded @p source. Stuffing between two
 * bursts may be longer or shorter than the source's: two clocks are at work. What comes before the first burst, or
 * after the last whole one, is not judged.
 */
RawCheck check_bursts(const Recording& heard, const Source& source);

} // namespace play
