// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <utility>

#include "common/retry.h"

namespace common
{

/**
 * Tells a host that the time stamps of the sound do not fit those of the frames
 * any more. The player stamps frames by their arrival, and sound by counting from
 * the reset. So it does not notice that sound was lost on its way to the host, that
 * silence was put in for sound which came after all, that a sequence began with
 * sound from before the reset, or that none came for a while. A reset puts this
 * right, which a host gets by withholding frames (FrameBreak).
 *
 * A block's lag is the time that passed since the reset, less the block's time
 * stamp; the least lag of several blocks shows what is not the fault of threads. On
 * a busy machine these may be late for longer: the least lag of the first two
 * seconds is the usual one.
 * Pure: times are arguments (CLOCK_MONOTONIC, microseconds).
 */
class SoundPlan
{
public:
    /// A sequence begins: the first block behind the reset at @p reset_us.
    void start(int64_t reset_us)
    {
        reset_us_ = reset_us;
        usual_us_ = window_us_ = kNone;
    }

    /// A block was taken at @p now_us. @return whether sound and frames have just left the plan
    bool left(int64_t pts_us, int64_t now_us)
    {
        if (window_us_ == kNone) {
            window_us_ = now_us;
            least_us_ = kNone;
        }
        least_us_ = std::min(least_us_, now_us - reset_us_ - pts_us);
        const bool first = usual_us_ == kNone;
        if (now_us - window_us_ < (first ? kFirstWindowUs : kWindowUs))
            return false;
        window_us_ = kNone;
        return first ? began_badly(now_us) : moved(now_us);
    }

private:
    bool began_badly(int64_t now_us)
    {
        usual_us_ = before_us_ = least_us_;
        settled_us_ = now_us + kSettlingUs;
        const bool bad = least_us_ < -kOldUs || least_us_ > kLateUs;
        const int64_t bad_before_us = std::exchange(bad_us_, bad ? least_us_ : kNone);
        // What is so again behind the reset is how it has to be, or a machine that was busy made it so both times.
        const bool again = bad && bad_before_us != kNone && std::abs(least_us_ - bad_before_us) < kAgainUs;
        if (again)
            retry_.gave_up(now_us);
        else
            retry_.kept();
        return bad && !again;
    }

    bool moved(int64_t now_us)
    {
        if (retry_.is_due(now_us))
            return true;
        const int64_t before_us = std::exchange(before_us_, least_us_);
        if (now_us < settled_us_)
            usual_us_ = std::min(usual_us_, least_us_);
        const int64_t by_us = least_us_ - usual_us_;
        // While sound goes on being lost, a reset would not help.
        const bool steady = std::abs(least_us_ - before_us) < kSteadyUs;
        const bool left = steady && std::abs(by_us) > kMovedUs;
        if (left)
            usual_us_ = least_us_;
        else if (std::abs(by_us) < kSteadyUs)
            usual_us_ += by_us / kSlowly; // the clocks may drift apart
        return left;
    }

    static constexpr int64_t kNone = std::numeric_limits<int64_t>::max();
    static constexpr int64_t kFirstWindowUs = 100'000;
    static constexpr int64_t kWindowUs = 500'000;
    static constexpr int64_t kSettlingUs = 2'000'000;
    /// Captures, bursts and what has gathered in a capture device make less of a difference.
    static constexpr int64_t kMovedUs = 35'000;
    static constexpr int64_t kOldUs = 30'000;
    static constexpr int64_t kLateUs = 200'000;
    /// By which sequences differ that begin the same way.
    static constexpr int64_t kAgainUs = 50'000;
    /// From one window to the next.
    static constexpr int64_t kSteadyUs = 10'000;
    static constexpr int64_t kSlowly = 8;

    int64_t reset_us_ = 0;
    int64_t usual_us_ = kNone;  ///< lag in this sequence
    int64_t settled_us_ = 0;    ///< when it is known
    int64_t bad_us_ = kNone;    ///< lag with which the sequence before began badly, while the present one begins
    int64_t window_us_ = kNone; ///< begin
    int64_t least_us_ = kNone;
    int64_t before_us_ = 0; ///< least lag of the window before
    Retry retry_{1'000'000};
};

} // namespace common
