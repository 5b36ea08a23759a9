// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

namespace clocks
{

/**
 * What an output that ran empty does so that it soon holds as much sound again as
 * before, neither more nor less.
 *
 * When the thread that writes stood still, the frames of that time follow at
 * once. If all were played, the sound would stay behind the picture for good: what
 * goes beyond the reserve is left out. When sound was lost before it came here, or
 * could not be written, frames come as time goes by. Played as they come, they
 * would be early, with nothing in reserve: silence is put before them.
 *
 * Pure: times are arguments, in nanoseconds, of any steady clock.
 */
class OutputReserve
{
public:
    struct Advice {
        int leave_out = 0; ///< frames at the beginning of what is to be written
        int silence = 0;   ///< frames, before what is to be written
    };

    /// The device was opened.
    void start(int rate)
    {
        *this = {};
        rate_ = rate;
    }

    /// Before what is written now, the device played so many frames of silence. 0: it did not run empty.
    void ran_empty(int64_t frames)
    {
        if (frames <= 0 || mean_ == 0)
            return;
        if (!refilling_) {
            refilling_ = first_ = true;
            waited_ = 0;
            owed_ = 0;
        }
        owed_ += frames;
    }

    /// @p frames are to be written at @p now_ns, to a device that holds @p queued.
    Advice before_write(int64_t now_ns, int frames, int queued)
    {
        if (!refilling_)
            return {};
        if (first_) {
            first_ = false;
            return {};
        }
        if (now_ns - returned_ns_ < frames * kNsPerSecond / rate_ / 2) {
            waited_ = 0;
            const auto excess = std::clamp<int64_t>(queued + frames - mean_, 0, std::min<int64_t>(frames, owed_));
            owed_ -= excess;
            return {static_cast<int>(excess), 0};
        }
        // It was waited for. Twice, and nothing is late any more: once, the thread that writes may just be slow.
        if (++waited_ < 2)
            return {};
        refilling_ = false;
        const auto late = std::min<int64_t>(frames, std::exchange(owed_, 0));
        const int missing = mean_ - (queued + frames);
        if (missing < 0)
            return {static_cast<int>(std::min<int64_t>(late, -missing)), 0};
        return {0, missing > frames / 2 ? missing : 0};
    }

    /// The write returned; the device holds @p queued.
    void after_write(int64_t now_ns, int queued)
    {
        returned_ns_ = now_ns;
        if (refilling_)
            return;
        sum_ += queued;
        if (++writes_ < kWrites)
            return;
        mean_ = static_cast<int>(sum_ / writes_);
        sum_ = 0;
        writes_ = 0;
    }

private:
    static constexpr int64_t kNsPerSecond = 1'000'000'000;
    /// By which it is known what the device usually holds behind a write: about a second of them.
    static constexpr int kWrites = 50;

    int64_t rate_ = 48000;
    bool refilling_ = false;
    bool first_ = false; ///< the device ran empty, and nothing was written yet
    int waited_ = 0;     ///< writes in a row
    int64_t owed_ = 0;   ///< frames of silence that were played in the place of what is late
    int64_t returned_ns_ = 0;
    int64_t sum_ = 0; ///< of the present writes
    int writes_ = 0;
    int mean_ = 0; ///< of the last ones; 0: not known yet
};

} // namespace clocks
