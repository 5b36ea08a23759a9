// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace clocks
{

/**
 * Keeps as much sound in an output as it held before it ran empty, neither more nor less.
 *
 * Late sound: the writing thread stood still, and the frames of that time follow at once. Played, they would keep the
 * sound behind the picture for good: what goes beyond the target is left out. Lost sound: frames come as time goes by.
 * Played as they come, they would be early, with nothing in reserve: silence is put before them. Sound is left out once
 * in two seconds at most, or a source in bursts longer than the reserve would be cut to pieces.
 *
 * The target is what the device holds when a block comes. Of each window of half a second the highest value counts,
 * since a late block finds less. The target is the median of the last windows in which the device did not run empty, so
 * that neither a bad start nor a slow source changes it.
 *
 * The sound comes back to within what the device's windows differed by, 2 to 10 ms. What is left of it then is no part
 * of the next target, so that it does not add up.
 *
 * A device that is full for a second, or holds 40 ms more than the usual target, has late sound in it although it did
 * not run empty: a sequence began late, or more came than time went by. That is left out too, and never becomes the
 * target. The usual target follows the target slowly: while sound is lost, the decoder gives silence 50 ms late, the
 * device holds that much less, and what comes back behind it is no excess.
 *
 * A device that was full from the start on either belongs to a host that writes ahead, or to one that was late at
 * first. Nothing tells them apart, and nothing is left out. When it runs empty, no silence fills it: the former fills
 * it by itself, and the latter is in its place again.
 *
 * Where the writing thread stands still before anything is known, as when a codec powers up in the first writes, what
 * follows is late by no more than that time. Of it is left out what goes beyond the 76 ms for which the player holds
 * back a sequence, and which the device holds in its place.
 *
 * A device that is opened again at once keeps its usual target until it has its own. Its first blocks count neither as
 * late nor as lost, since each sequence begins with another phase.
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

    /// The device was opened at @p now_ns.
    void start(int rate, int64_t now_ns)
    {
        if (rate != rate_ || now_ns - closed_ns_ > kReopenedNs)
            *this = {};
        rate_ = rate;
        target_ = usual_target_;
        if (usual_target_ != kUnknown)
            forget_median();
        refilling_ = written_ = false;
        to_leave_out_ = late_at_start_ = windows_too_high_ = 0;
        begin_window();
    }

    void closed(int64_t now_ns) { closed_ns_ = now_ns; }

    /// @p frames are to be written at @p now_ns, to a device that holds @p queued; 0: it ran empty.
    Advice before_write(int64_t now_ns, int frames, int queued)
    {
        const int64_t half_ns = frames * kNsPerSecond / rate_ / 2;
        const int64_t paused_ns = now_ns - write_returned_ns_;
        has_room_until_ns_ = now_ns + half_ns;
        note_stall(now_ns, 2 * half_ns, queued);
        // After a pause, what has gathered meanwhile is still to follow.
        if (queued <= 0 && (!refilling_ || paused_ns > 3 * half_ns)) {
            forget_full();
            refilling_ = target_ != kUnknown && written_;
            to_leave_out_ = writes_since_empty_ = 0;
            begin_window();
        }
        if (to_leave_out_ > 0)
            return leave_out(std::min(frames, to_leave_out_));
        if (late_at_start_ > 0 && now_ns < stall_noted_until_ns_ && queued > held_back() + frames + tolerance()) {
            const int late = std::min({frames, queued - held_back(), late_at_start_});
            late_at_start_ -= late;
            begin_window();
            return {late, 0};
        }
        blocks_equal_ = blocks_equal_ && (!refilling_ || frames == block_frames_);
        block_frames_ = refilling_ ? block_frames_ : frames;
        const bool at_once = paused_ns < half_ns;
        // What is written in one or two blocks was not late: a host lets out what it held.
        const bool late = ++writes_since_empty_ > 2 && at_once;
        if (refilling_ && late && queued > target_ + tolerance() && may_leave_out(now_ns)) {
            begin_window();
            return {std::min(frames, queued - target_), 0};
        }
        highest_ = std::max(highest_, queued);
        // What is late, and still to follow, does not tell what is held then.
        writes_ += refilling_ && at_once ? 0 : 1;
        if (refilling_ && writes_ >= kSettlingWrites)
            return settle(now_ns, frames);
        if (!refilling_ && writes_ >= kWindowWrites)
            end_window();
        return {};
    }

    void after_write(int64_t now_ns)
    {
        write_returned_ns_ = now_ns;
        written_ = true;
        full_writes_ += now_ns > has_room_until_ns_ ? 1 : 0;
    }

private:
    static constexpr int64_t kNsPerSecond = 1'000'000'000;
    static constexpr int kUnknown = -1;
    static constexpr int64_t kLeaveOutIntervalNs = 2 * kNsPerSecond;
    /// What is left out in that time counts as once.
    static constexpr int64_t kEpisodeNs = kNsPerSecond / 2;
    /// About half a second.
    static constexpr int kWindowWrites = 25;
    static constexpr size_t kWindows = 15;
    static constexpr size_t kWindowsToKnow = 3;
    /// After as many it is seen what the device holds again.
    static constexpr int kSettlingWrites = 10;
    /// The player, each sequence.
    static constexpr int kHeldBackMs = 76;
    /// More than the player holds back the next sequence by.
    static constexpr int64_t kStallNs = kNsPerSecond / 10;
    /// More than sequences differ by.
    static constexpr int kTooHighMs = 40;
    /// What clocks that are not matched drift apart by in one window.
    static constexpr int kUsualRisePerRate = 1000;
    /// Much slower, because sound may go on being lost for a minute.
    static constexpr int kUsualFallPerRate = 10000;
    /// The player opens the device again at once; one that was closed for longer may have another host.
    static constexpr int64_t kReopenedNs = kNsPerSecond / 200;

    /// What blocks differ by in length and time.
    int tolerance() const { return rate_ / 100; }

    int held_back() const { return rate_ * kHeldBackMs / 1000; }

    /// The same, as far as the latest windows tell it: with a steady source much less.
    int spread() const
    {
        const size_t count = std::min(known_, kWindows);
        if (count < kWindowsToKnow)
            return tolerance();
        const auto [least, most] = std::minmax_element(windows_.begin(), windows_.begin() + ptrdiff(count));
        return std::clamp(*most - *least + rate_ / 1000, rate_ / 500, tolerance());
    }

    static constexpr std::ptrdiff_t ptrdiff(size_t count) { return static_cast<std::ptrdiff_t>(count); }

    void begin_window()
    {
        highest_ = writes_ = full_writes_ = 0;
        blocks_equal_ = true;
    }

    // The first window that is too high may have begun with a block that the player held back.
    void end_window()
    {
        const bool full = 2 * full_writes_ >= writes_;
        const int limit = full ? tolerance() : rate_ * kTooHighMs / 1000;
        const bool too_high = usual_target_ != kUnknown && highest_ > usual_target_ + limit;
        windows_too_high_ = too_high ? windows_too_high_ + 1 : 0;
        refilling_ = windows_too_high_ > 1;
        target_ = refilling_ ? usual_target_ : target_;
        if (!too_high)
            note_window(full);
        begin_window();
    }

    // A host that always writes ahead keeps the device full: that is its target, until there is a better one.
    void note_window(bool full)
    {
        if (full != was_full_)
            forget_median();
        was_full_ = full;
        windows_[known_++ % kWindows] = highest_;
        const size_t count = std::min(known_, kWindows);
        if (count < kWindowsToKnow)
            return;
        std::array<int, kWindows> sorted = windows_;
        std::sort(sorted.begin(), sorted.begin() + ptrdiff(count));
        const int median = sorted[count / 2];
        if (!target_kept_)
            target_ = median_ == kUnknown ? median : target_ + median - median_;
        target_kept_ = false;
        median_ = median;
        if (!full)
            usual_target_ = usual_target_ == kUnknown ? target_
                                                      : std::clamp(target_, usual_target_ - rate_ / kUsualFallPerRate,
                                                                   usual_target_ + rate_ / kUsualRisePerRate);
    }

    // A write that found the device empty, and the one after it, tell how long the writer stood still in or behind it.
    void note_stall(int64_t now_ns, int64_t block_ns, int queued)
    {
        const int64_t stood_ns = now_ns - asked_ns_;
        const bool empty = queued <= 0 || was_empty_;
        asked_ns_ = now_ns;
        was_empty_ = queued <= 0;
        const bool writes_ahead = was_full_ || full_writes_ > 1;
        if (target_ != kUnknown || writes_ahead || !written_ || !empty || stood_ns < kStallNs + block_ns)
            return;
        late_at_start_ = static_cast<int>(std::min(stood_ns, kNsPerSecond) * rate_ / kNsPerSecond);
        stall_noted_until_ns_ = now_ns + kEpisodeNs;
    }

    // Who writes ahead fills the device again. Where others did not, silence would only make late what follows.
    void forget_full()
    {
        if (!was_full_)
            return;
        target_ = usual_target_;
        was_full_ = false;
        forget_median();
    }

    void forget_median()
    {
        known_ = 0;
        median_ = kUnknown;
        target_kept_ = false;
    }

    bool may_leave_out(int64_t now_ns)
    {
        const bool pause_over = now_ns - left_out_ns_ >= kLeaveOutIntervalNs;
        const bool may = pause_over || now_ns - left_out_ns_ < kEpisodeNs;
        left_out_ns_ = pause_over ? now_ns : left_out_ns_;
        return may;
    }

    Advice settle(int64_t now_ns, int frames)
    {
        const int excess = highest_ - target_;
        int limit = blocks_equal_ ? spread() : tolerance();
        begin_window();
        if (excess > limit && !may_leave_out(now_ns)) {
            if (excess > tolerance())
                return {};
            limit = tolerance();
        }
        refilling_ = false;
        // What remains between the device and the target does not move the target.
        forget_median();
        target_kept_ = true;
        if (excess < -limit)
            return {0, -excess};
        to_leave_out_ = excess > limit ? excess : 0;
        return leave_out(std::min(frames, to_leave_out_));
    }

    Advice leave_out(int frames)
    {
        to_leave_out_ -= frames;
        begin_window();
        return {frames, 0};
    }

    int rate_ = 48000;
    int target_ = kUnknown;       ///< frames
    int usual_target_ = kUnknown; ///< frames, kept over openings
    std::array<int, kWindows> windows_ = {};
    size_t known_ = 0;         ///< windows so far
    int median_ = kUnknown;    ///< frames: of the windows; the target moves with it
    bool target_kept_ = false; ///< the next median belongs to the target that there is
    bool was_full_ = false;    ///< the device, in these windows
    bool refilling_ = false;   ///< the device ran empty or holds too much, and is not known to hold its target again
    int windows_too_high_ = 0; ///< in a row
    int writes_since_empty_ = 0;
    int to_leave_out_ = 0;                       ///< frames that are still to be left out
    int highest_ = 0;                            ///< frames that the device held before a write of this window
    int writes_ = 0;                             ///< of this window
    int block_frames_ = 0;                       ///< frames of the last block before it ran empty
    bool blocks_equal_ = true;                   ///< all blocks of this window are as long
    int full_writes_ = 0;                        ///< of this window, those for which there was no room
    bool written_ = false;                       ///< since the opening
    int64_t asked_ns_ = 0;                       ///< when the last write began
    bool was_empty_ = false;                     ///< the device, then
    int late_at_start_ = 0;                      ///< frames that may be late, while no target is known
    int64_t stall_noted_until_ns_ = 0;           ///< and for how long that holds
    int64_t has_room_until_ns_ = 0;              ///< a write that returns later had to wait for room
    int64_t closed_ns_ = 0;                      ///< when the device was
    int64_t write_returned_ns_ = 0;              ///< when the last write did
    int64_t left_out_ns_ = -kLeaveOutIntervalNs; ///< when something was left out last, the first of it
};

} // namespace clocks
