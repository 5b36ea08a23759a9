// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace common
{

/**
 * Tells a host that stood still which blocks to throw away. The player keeps
 * 76 ms of sound at the output. A block that comes later than that has let the
 * output run dry, and if it is played all the same, the sound stays late from
 * then on. How late a block is, is its age (now less its time stamp) against the
 * least age there was. Pure: times are arguments (CLOCK_MONOTONIC).
 */
class LateSound
{
public:
    /// A sequence begins.
    void start()
    {
        least_us_ = kNone;
        owed_us_ = 0;
    }

    /**
     * A block was taken. @p waited: it came while the host waited for it.
     * @return whether it is to be thrown away. Not more often than once in 10 s; what was not permitted is made up for
     * when it is.
     */
    bool too_late(int64_t pts_us, int64_t duration_us, int64_t now_us, bool waited)
    {
        const int64_t age_us = now_us - pts_us;
        const bool dropping = thrown_away_us_ != kNone && now_us - thrown_away_us_ < kEpisodeUs;
        const bool may_drop = dropping || thrown_away_us_ == kNone || now_us - thrown_away_us_ >= kIntervalUs;
        const int64_t limit_us = kInHandUs + (dropping ? 0 : kBlockUs);
        const int64_t excess_us = least_us_ == kNone ? 0 : age_us - least_us_ - limit_us;
        const bool late = excess_us > 0 && !waited;
        if (may_drop && (late || owed_us_ > 0)) {
            if (!dropping)
                thrown_away_us_ = now_us;
            owed_us_ = std::max<int64_t>(late ? 0 : owed_us_ - duration_us, 0);
            return true;
        }
        if (late)
            owed_us_ = std::max(owed_us_, excess_us);
        // A block that was waited for is not late, whatever its stamp says: sound was lost before it.
        least_us_ = least_us_ == kNone || (waited && excess_us > 0) ? age_us : std::min(least_us_ + kDriftUs, age_us);
        return false;
    }

private:
    static constexpr int64_t kNone = std::numeric_limits<int64_t>::max();
    /// What the output plays before it is dry; a block may be late by its own length as well.
    static constexpr int64_t kInHandUs = 76'000;
    static constexpr int64_t kBlockUs = 20'000;
    /// Per block: by 2000 ppm the capture's clock may be slower than the host's.
    static constexpr int64_t kDriftUs = 40;
    static constexpr int64_t kIntervalUs = 10'000'000;
    /// Blocks that are thrown away follow each other at once.
    static constexpr int64_t kEpisodeUs = 500'000;

    int64_t least_us_ = kNone;       ///< age
    int64_t owed_us_ = 0;            ///< sound that was late when nothing might be thrown away
    int64_t thrown_away_us_ = kNone; ///< when blocks were thrown away last, the first of them
};

/// Joins sound across blocks that were thrown away: fades from the first of them, which would have continued what was
/// played, into the block that is played instead. Stereo, 16 bits.
class Splice
{
public:
    /// @p stereo, of @p frames, is thrown away.
    void leave_out(const int16_t* stereo, int frames)
    {
        if (from_.empty())
            from_.assign(stereo, stereo + 2 * static_cast<size_t>(std::min(frames, kFrames)));
    }

    /// @p stereo is played next.
    void join(int16_t* stereo, int frames)
    {
        const size_t samples = std::min(from_.size(), 2 * static_cast<size_t>(frames));
        for (size_t i = 0; i < samples; i++) {
            const auto weight = static_cast<int32_t>(i / 2 + 1);
            const auto all = static_cast<int32_t>(samples / 2 + 1);
            stereo[i] = static_cast<int16_t>((stereo[i] * weight + from_[i] * (all - weight)) / all);
        }
        from_.clear();
    }

private:
    static constexpr int kFrames = 240; ///< 5 ms at 48 kHz
    std::vector<int16_t> from_;
};

} // namespace common
