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
 * sound behind the picture for good: what goes beyond the plan is left out. Lost sound: frames come as time goes by.
 * Played as they come, they would be early, with nothing in reserve: silence is put before them. Sound is left out once
 * in two seconds at most, or a source in bursts longer than the reserve would be cut to pieces.
 *
 * The plan is what the device holds when a block comes: of each half a second the most, since a late block finds less,
 * and of the last seconds in which it did not run empty the median, so that neither a bad start nor a slow source
 * changes it.
 *
 * The sound comes back to within what the device's windows differed by, 2 to 10 ms. What is left of it then is no part
 * of the next plan, so that it does not add up.
 *
 * A device that is full for a second, or holds 40 ms more than is usual, has late sound in it although it did not run
 * empty: a sequence began late, or more came than time went by. That is left out too, and never becomes the plan. What
 * is usual follows the plan slowly: while sound is lost, the decoder gives silence 50 ms late, the device holds that
 * much less, and what comes back behind it is no excess.
 *
 * A device that is opened again at once keeps what was usual until its own plan is known. Its first blocks count
 * neither as late nor as lost, since each sequence begins with another phase.
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
        plan_ = usual_;
        if (usual_ != kUnknown)
            forget_level();
        refilling_ = written_ = false;
        excess_ = high_ = 0;
        begin_window();
    }

    void closed(int64_t now_ns) { closed_ns_ = now_ns; }

    /// @p frames are to be written at @p now_ns, to a device that holds @p queued; 0: it ran empty.
    Advice before_write(int64_t now_ns, int frames, int queued)
    {
        const int64_t half_ns = frames * kNsPerSecond / rate_ / 2;
        const int64_t paused_ns = now_ns - returned_ns_;
        waits_from_ns_ = now_ns + half_ns;
        // After a pause, what has gathered meanwhile is still to follow.
        if (queued <= 0 && (!refilling_ || paused_ns > 3 * half_ns)) {
            refilling_ = plan_ != kUnknown && written_;
            excess_ = since_empty_ = 0;
            begin_window();
        }
        if (excess_ > 0)
            return leave_out(std::min(frames, excess_));
        even_ = even_ && (!refilling_ || frames == block_);
        block_ = refilling_ ? block_ : frames;
        const bool at_once = paused_ns < half_ns;
        // What is written in one or two blocks was not late: a host lets out what it held.
        const bool late = ++since_empty_ > 2 && at_once;
        if (refilling_ && late && queued > plan_ + tolerance() && may_leave_out(now_ns)) {
            begin_window();
            return {std::min(frames, queued - plan_), 0};
        }
        most_ = std::max(most_, queued);
        // What is late, and still to follow, does not tell what is held then.
        writes_ += refilling_ && at_once ? 0 : 1;
        if (refilling_ && writes_ >= kSettlingWrites)
            return settle(now_ns, frames);
        if (!refilling_ && writes_ >= kPlanWrites)
            learn();
        return {};
    }

    void after_write(int64_t now_ns)
    {
        returned_ns_ = now_ns;
        written_ = true;
        waited_ += now_ns > waits_from_ns_ ? 1 : 0;
    }

private:
    static constexpr int64_t kNsPerSecond = 1'000'000'000;
    static constexpr int kUnknown = -1;
    static constexpr int64_t kPauseNs = 2 * kNsPerSecond;
    /// What is left out in that time counts as once.
    static constexpr int64_t kEpisodeNs = kNsPerSecond / 2;
    /// About half a second.
    static constexpr int kPlanWrites = 25;
    static constexpr size_t kWindows = 15;
    static constexpr size_t kWindowsToKnow = 3;
    /// After as many it is seen what the device holds again.
    static constexpr int kSettlingWrites = 10;
    /// More than sequences differ by.
    static constexpr int kHighMs = 40;
    /// What clocks that are not matched drift apart by in one window.
    static constexpr int kRisePerRate = 1000;
    /// Much slower, because sound may go on being lost for a minute.
    static constexpr int kFallPerRate = 10000;
    /// The player opens the device again at once; one that was closed for longer may have another host.
    static constexpr int64_t kReopenedNs = kNsPerSecond / 200;

    /// What blocks differ by in length and time.
    int tolerance() const { return rate_ / 100; }

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
        most_ = writes_ = waited_ = 0;
        even_ = true;
    }

    // A window ends. The first one that is too high may have begun with a block that the player held back.
    void learn()
    {
        // For most of the blocks there was no room.
        const bool full = 2 * waited_ >= writes_;
        const int limit = full ? tolerance() : rate_ * kHighMs / 1000;
        const bool high = usual_ != kUnknown && most_ > usual_ + limit;
        high_ = high ? high_ + 1 : 0;
        refilling_ = high_ > 1;
        plan_ = refilling_ ? usual_ : plan_;
        if (!high)
            note_window(full);
        begin_window();
    }

    // What a full device holds is the plan of who always writes ahead, until there is a better one.
    void note_window(bool full)
    {
        if (full != full_)
            forget_level();
        full_ = full;
        windows_[known_++ % kWindows] = most_;
        const size_t count = std::min(known_, kWindows);
        if (count < kWindowsToKnow)
            return;
        std::array<int, kWindows> sorted = windows_;
        std::sort(sorted.begin(), sorted.begin() + ptrdiff(count));
        const int level = sorted[count / 2];
        if (!put_back_)
            plan_ = level_ == kUnknown ? level : plan_ + level - level_;
        put_back_ = false;
        level_ = level;
        if (!full)
            usual_ = usual_ == kUnknown
                         ? plan_
                         : std::clamp(plan_, usual_ - rate_ / kFallPerRate, usual_ + rate_ / kRisePerRate);
    }

    void forget_level()
    {
        known_ = 0;
        level_ = kUnknown;
        put_back_ = false;
    }

    bool may_leave_out(int64_t now_ns)
    {
        const bool pause_over = now_ns - began_ns_ >= kPauseNs;
        const bool may = pause_over || now_ns - began_ns_ < kEpisodeNs;
        began_ns_ = pause_over ? now_ns : began_ns_;
        return may;
    }

    Advice settle(int64_t now_ns, int frames)
    {
        const int excess = most_ - plan_;
        int limit = even_ ? spread() : tolerance();
        begin_window();
        if (excess > limit && !may_leave_out(now_ns)) {
            if (excess > tolerance())
                return {};
            limit = tolerance();
        }
        refilling_ = false;
        // By what it is beside the plan now, the plan does not move.
        forget_level();
        put_back_ = true;
        if (excess < -limit)
            return {0, -excess};
        excess_ = excess > limit ? excess : 0;
        return leave_out(std::min(frames, excess_));
    }

    Advice leave_out(int frames)
    {
        excess_ -= frames;
        begin_window();
        return {frames, 0};
    }

    int rate_ = 48000;
    int plan_ = kUnknown;  ///< frames
    int usual_ = kUnknown; ///< frames, of all openings
    std::array<int, kWindows> windows_ = {};
    size_t known_ = 0;       ///< windows so far
    int level_ = kUnknown;   ///< frames: their median, with which the plan moves
    bool put_back_ = false;  ///< there was a plan, and the first level belongs to it
    bool full_ = false;      ///< the device was, in these
    bool refilling_ = false; ///< the device ran empty or holds too much, and is not known to hold the plan again
    int high_ = 0;           ///< windows in a row in which it held too much
    int since_empty_ = 0;    ///< writes
    int excess_ = 0;         ///< frames that are still to be left out
    int most_ = 0;           ///< that the device held before one of the present writes
    int writes_ = 0;
    int block_ = 0;                ///< frames of the last one before it ran empty
    bool even_ = true;             ///< all of the present ones are as long
    int waited_ = 0;               ///< of these, for which there was no room
    bool written_ = false;         ///< since the opening
    int64_t waits_from_ns_ = 0;    ///< a write that returns later had to wait for room
    int64_t closed_ns_ = 0;        ///< when the device was
    int64_t returned_ns_ = 0;      ///< when the last write did
    int64_t began_ns_ = -kPauseNs; ///< when something was left out last, the first of it
};

} // namespace clocks
