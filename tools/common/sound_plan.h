// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <utility>

namespace common
{

/**
 * Tells a host that the time stamps of the sound do not fit those of the frames
 * any more. The player stamps frames by their arrival, and sound by counting from
 * the reset. So it does not notice that sound was lost on its way to the host, that
 * a sequence began with sound from before the reset, or that none came for a while.
 * A reset puts this right, which a host gets by withholding frames (FrameBreak).
 *
 * A block's lag is the time that passed since the reset, less the block's time
 * stamp; the least lag of several blocks shows what is not the fault of threads.
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
        before_us_ = 0;
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
        const int64_t before_us = std::exchange(before_us_, least_us_);
        // While sound goes on being lost, a reset would not help.
        const bool steady = std::abs(least_us_ - before_us) < kSteadyUs;
        const bool left =
            first ? least_us_ < -kOldUs || least_us_ > kLateUs : steady && least_us_ > usual_us_ + kLostUs;
        // What is so again behind the reset is how it has to be.
        const bool again = first && left && begun_badly_;
        begun_badly_ = first ? left : begun_badly_;
        if (first || left)
            usual_us_ = least_us_;
        else if (std::abs(least_us_ - usual_us_) < kSteadyUs)
            usual_us_ += (least_us_ - usual_us_) / kSlowly; // the clocks may drift apart
        return left && !again;
    }

private:
    static constexpr int64_t kNone = std::numeric_limits<int64_t>::max();
    static constexpr int64_t kFirstWindowUs = 100'000;
    static constexpr int64_t kWindowUs = 500'000;
    /// Captures, bursts and what has gathered in a capture device make less of a difference.
    static constexpr int64_t kLostUs = 35'000;
    static constexpr int64_t kOldUs = 30'000;
    static constexpr int64_t kLateUs = 200'000;
    /// From one window to the next.
    static constexpr int64_t kSteadyUs = 10'000;
    static constexpr int64_t kSlowly = 8;

    int64_t reset_us_ = 0;
    int64_t usual_us_ = kNone; ///< lag in this sequence
    bool begun_badly_ = false; ///< by the sequence before, while the present one begins
    int64_t window_us_ = kNone;
    int64_t least_us_ = kNone;
    int64_t before_us_ = 0; ///< least lag of the window before
};

} // namespace common
