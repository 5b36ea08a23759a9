// SPDX-License-Identifier: MIT
/**
 * @file
 * What the player adds to the sound. The recording is compared with the source tenth by tenth of a second, each where
 * and how fast it fits best: what is left is noise, distortion, clicks, and samples that were lost or doubled. Sound
 * that is resampled between two clocks can be judged in no other way.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "measure/measure.h"

namespace play
{

struct Fidelity {
    int64_t windows = 0; ///< compared, a tenth of a second each
    /// Of these: with a click, or not the source's sound. Samples that are lost or doubled make a window so.
    int64_t disturbed = 0;
    double first_disturbed_s = -1;   ///< of the source
    double worst_jump = 0;           ///< frames by which one is not where the one before said
    std::optional<double> pitch_ppm; ///< worst deviation of a second's speed from the clocks', after a minute
    int64_t tone_windows = 0;        ///< with the tone of 997 Hz
    double noise_db = 0;             ///< of the tone's worst second: what was added, against the tone
    int64_t sweep_windows = 0;       ///< with the sweep
    double least_db = 0;             ///< level of the sweep against the source's
    double most_db = 0;
};

/// The two clocks, and where to look.
struct Comparison {
    double clocks = 1; ///< the output's clock by the source's
    double from_s = 0; ///< of the source
    double until_s = 0;
    bool tones = false; ///< the source's right channel has tone and sweep
};

/// @p matches give the place to begin at, and to go on from where sound was lost or added. windows is 0 without any.
Fidelity compare_sound(const Recording& recording, const Source& source, const std::vector<SoundMatch>& matches,
                       const Comparison& comparison);

} // namespace play
