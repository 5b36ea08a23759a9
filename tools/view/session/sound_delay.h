// SPDX-License-Identifier: MIT
// By how much the sound is to be heard later than the player plans for a panel.
#pragma once

#include <algorithm>
#include <cmath>

#include "common/holds.h"

namespace view
{

constexpr int kMostSoundDelayMs = 1000;
/// By the viewer. Earlier than that, flips would have to wait for longer than there are buffers.
constexpr int kLeastWantedDelayMs = -500;

/// Why the sound has to wait.
struct Lateness {
    double frames_later_ms = 0; ///< by which frames are older than their sound when they come
    bool eac3 = false;          ///< its payloads pass the player too soon
    int wanted_ms = 0;          ///< by the viewer
};

/// The delay that follows from it. A player keeps the one that it was opened with.
class SoundDelay
{
public:
    SoundDelay() = default;
    explicit SoundDelay(const Lateness& lateness) : lateness_(lateness) {}

    /// Whether @p now needs no other delay: opening the player again is heard, so small differences do not count.
    bool suits(const Lateness& now) const
    {
        constexpr double kToleranceMs = 15;
        return std::abs(now.frames_later_ms - lateness_.frames_later_ms) < kToleranceMs && now.eac3 == lateness_.eac3 &&
               now.wanted_ms == lateness_.wanted_ms;
    }

    /// Negative: the flips wait instead, for @p most_held_ms at most. @p display_latency_ms: from the vertical blank to
    /// light. The aim (common::kAimNs) is in it, as it is in what is wanted.
    double ms(int display_latency_ms, double most_held_ms) const
    {
        const double least_ms = in_ms(common::kPlannedLatencyNs) - display_latency_ms - most_held_ms;
        const double early_ms = lateness_.eac3 ? in_ms(common::kEarlyPayloadNs) : 0;
        return std::clamp<double>(lateness_.frames_later_ms + early_ms + lateness_.wanted_ms, least_ms,
                                  kMostSoundDelayMs);
    }

private:
    static constexpr double in_ms(int64_t ns) { return static_cast<double>(ns) / 1e6; }

    Lateness lateness_;
};

} // namespace view
