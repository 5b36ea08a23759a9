// SPDX-License-Identifier: MIT
/**
 * @file
 * What a host holds back so that light and sound leave together on its panel:
 * see "The panel's latency" in hdmi_player.h.
 */
#pragma once

#include <cstdint>

namespace common
{

/// What the player plans for, from a flip's vertical blank to light.
constexpr int64_t kPlannedLatencyNs = 76'000'000;
/// By so much the sound is wanted later than that plan. From start to start it is up to 25 ms early or late, with the
/// phases of capture, bursts and vertical blanks; viewers tolerate 15 ms early, but 45 ms late (ATSC IS-191).
constexpr int64_t kAimNs = 15'000'000;
/// To be added to the wanted offset for E-AC-3: a payload of it takes less time on the link, and its sound is early by
/// as much.
constexpr int64_t kEarlyPayloadNs = 15'000'000;

/// How long flips and sound wait. Of a display whose vertical blanks are known, flips wait for whole refreshes: then
/// each of them reaches the screen as evenly as without.
struct Holds {
    int refreshes = 0;    ///< for which flips wait; 0: see flip_ns
    int64_t flip_ns = 0;  ///< for which flips wait, as time
    int64_t sound_ns = 0; ///< for which the sound waits
    bool even = false;    ///< flips wait until all take equally long from arrival to light: see FlipHold

    bool holds_flips() const { return flip_ns > 0 || even; }
};

/**
 * For a panel that needs @p latency_ns from a flip's vertical blank to light, and sound that is wanted later by
 * @p offset_ns (negative: earlier). What whole refreshes are too many is held from the sound as well.
 */
Holds plan_holds(int64_t latency_ns, int64_t offset_ns, double refresh_hz, bool vblanks_known);

} // namespace common
