// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "common/picture_plan.h"
#include "common/sound_plan.h"

namespace common
{

/// Watches whether frames and sound keep to the plan, from the threads of a host. Times are CLOCK_MONOTONIC, in
/// nanoseconds. Its lock is held over no call.
class PlanWatch
{
public:
    /// The player raised a reset.
    void reset(int64_t now_ns)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        pictures_.start(now_ns);
        reset_ns_ = now_ns;
        sound_known_ = left_ = false;
        silent_until_ns_ = 0;
    }

    /// A block that may be played was taken, of a sequence that was @p begun by it.
    void block(int64_t pts_us, int64_t now_ns, bool begun)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (reset_ns_ == 0)
            return;
        if (begun)
            sound_.start(reset_ns_ / 1000);
        sound_known_ = sound_known_ || begun;
        if (sound_known_ && sound_.left(pts_us, now_ns / 1000))
            left_ = true;
    }

    /// A block was written.
    void wrote(int64_t now_ns) { written_ns_ = now_ns; }

    /// A frame was flipped @p waited_ns after it was rendered.
    void flip(int64_t now_ns, int64_t waited_ns)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (reset_ns_ != 0 && pictures_.left(now_ns, waited_ns, now_ns - written_ns_ < kPauseNs))
            left_ = true;
    }

    /// Whether the plan was left, and a reset is to put it right: a reason for FrameBreak. From one thread. Each costs
    /// a second of frames: where resets do not help, there is one in ten seconds.
    bool left(int64_t now_ns)
    {
        if (!left_ || now_ns < paid_ns_ - kAtOnce * kEachNs)
            return false;
        if (now_ns < paid_ns_)
            silent_until_ns_ = now_ns + kSilenceNs;
        paid_ns_ = std::max(paid_ns_, now_ns) + kEachNs;
        return left_.exchange(false);
    }

    /// Whether blocks are to be thrown away: a reset did not help a few seconds ago, and there will be another one.
    /// Sound that waits in the output lies ahead of each new sequence, and delays it by what goes beyond the 76 ms for
    /// which the player holds its first block. Without new sound it has been played by then.
    bool silences(int64_t now_ns) const { return now_ns < silent_until_ns_; }

private:
    /// Sound that was not written for longer has paused.
    static constexpr int64_t kPauseNs = 200'000'000;
    /// There is one in that time, and so many more at once.
    static constexpr int64_t kEachNs = 10'000'000'000;
    static constexpr int64_t kAtOnce = 3;
    /// In that time a reset comes that is asked for.
    static constexpr int64_t kSilenceNs = 1'500'000'000;

    int64_t paid_ns_ = 0; ///< when their time is over
    std::atomic<int64_t> silent_until_ns_{0};
    std::atomic<bool> left_{false};
    std::atomic<int64_t> written_ns_{0};
    std::mutex mutex_;
    PicturePlan pictures_;
    SoundPlan sound_;
    int64_t reset_ns_ = 0;     ///< 0: there was none
    bool sound_known_ = false; ///< a sequence began behind it
};

} // namespace common
