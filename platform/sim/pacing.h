// SPDX-License-Identifier: MIT
/**
 * @file
 * The arithmetic of a free-running clock: how many ticks (frames, vertical
 * blanks) lie in a time, and how long a number of ticks takes.
 */
#pragma once

#include <cmath>
#include <cstdint>

namespace sim
{

constexpr int64_t kNsPerSecond = 1'000'000'000;

/**
 * A clock that ticks a given number of times a second. It computes in exact
 * integers, so that it does not drift in days, and without 128-bit types, which
 * 32-bit targets lack. It is valid for centuries.
 */
class Pace
{
public:
    Pace() = default;
    /// @p per_second between 1 and 1e6; @p error_ppm is resolved to a billionth of a tick per second.
    Pace(double per_second, double error_ppm)
    {
        const int64_t billionths = std::llround(per_second * (1 + error_ppm / 1e6) * 1e9);
        whole_ = billionths / kNsPerSecond;
        part_ = billionths % kNsPerSecond;
    }

    /// Whole ticks within @p elapsed_ns; 0 for negative times.
    int64_t count_at(int64_t elapsed_ns) const
    {
        if (elapsed_ns <= 0)
            return 0;
        const int64_t seconds = elapsed_ns / kNsPerSecond;
        const int64_t rest = elapsed_ns % kNsPerSecond;
        // Billionths of ticks; truncating the last product cannot change the whole ticks.
        const int64_t billionths = seconds * part_ + rest * whole_ + rest * part_ / kNsPerSecond;
        return seconds * whole_ + billionths / kNsPerSecond;
    }

    /// The smallest elapsed time within which @p count ticks lie: count_at() of it is @p count.
    int64_t time_of(int64_t count) const
    {
        if (count <= 0)
            return 0;
        const int64_t per_second = whole_ * kNsPerSecond + part_;
        auto seconds = static_cast<int64_t>(static_cast<double>(count) / (static_cast<double>(per_second) / 1e9));
        while (rest_after(seconds, count) < 0)
            seconds--;
        while (rest_after(seconds, count) >= per_second)
            seconds++;
        // rest / per_second in nanoseconds by long division, three digits at a time: the product would overflow.
        int64_t rest = rest_after(seconds, count);
        int64_t ns = 0;
        for (int group = 0; group < 3; group++) {
            ns = ns * 1000 + rest * 1000 / per_second;
            rest = rest * 1000 % per_second;
        }
        return seconds * kNsPerSecond + ns + (rest > 0 ? 1 : 0);
    }

private:
    // Billionths of ticks left of @p count after @p seconds.
    int64_t rest_after(int64_t seconds, int64_t count) const
    {
        return (count - seconds * whole_) * kNsPerSecond - seconds * part_;
    }

    int64_t whole_ = 1; ///< ticks per second
    int64_t part_ = 0;  ///< and billionths of a tick
};

} // namespace sim
