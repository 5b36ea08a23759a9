// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <vector>

namespace play
{

/**
 * Which of some frequencies a tone has.
 * @param stereo the left channel is looked at. Distances between the
 *        frequencies should be multiples of 1 / its duration.
 * @return index into @p frequencies; -1 when there is no tone of one of them
 *         for most of the time
 */
int find_pitch(const std::vector<int16_t>& stereo, int sample_rate, const std::vector<double>& frequencies);

} // namespace play
