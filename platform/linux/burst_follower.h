// SPDX-License-Identifier: MIT
/**
 * @file
 * Where the stuffing between bursts of coded data (IEC 61937) is. Pure.
 */
#pragma once

#include <cstdint>

namespace hdmi_linux
{

/// Follows the bursts of a link word by word. Zeros after a payload are stuffing, zeros inside a payload are not.
class BurstFollower
{
public:
    /// Takes the next @p frames frames of two words. @return the first frame of a run of at least @p run frames of
    /// stuffing; -1: there is none.
    int find_stuffing(const int16_t* words, int frames, int run);

private:
    enum class Expected { sync_a, sync_b, info, length };

    bool is_stuffing(uint16_t word);

    Expected expected_ = Expected::sync_a;
    int type_ = 0;         ///< of the burst
    int payload_left_ = 0; ///< words
    bool seen_ = false;    ///< a burst; before the first one, zeros may be the end of a payload
};

} // namespace hdmi_linux
