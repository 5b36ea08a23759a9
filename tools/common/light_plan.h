// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "common/frame_loop.h"

namespace common
{

/// A flip reaches the display before a vertical blank if it comes so long before it.
constexpr int64_t kFlipLeadNs = 1'000'000;

/**
 * How long frames shall take from their arrival to the vertical blank at which they are seen. The player flips early
 * frames at any time within 40 ms of their sound, and its clock for them runs with the sound's; so a frame's latency
 * wanders by a refresh or two within the hour. The plan is what the latency was when the player had settled: when two
 * windows of frames in a row had the same one.
 *
 * A busy machine may take seconds to settle, and may seem to have settled before. So for five seconds the plan follows
 * latencies that become shorter. From then on it is never shorter than it was by then: what shortens the latency later
 * is a player's clock that ran ahead while the output was empty, or drifted, and the sound did not move with it. Frames
 * that come too late for the plan make it longer; it becomes as short as before when they come in time again. It moves
 * not more often than once in a second.
 *
 * On a display that has a clock of its own, frames then are half a refresh beside it at the most: they can only be seen
 * at vertical blanks. Pure: times are arguments (CLOCK_MONOTONIC, nanoseconds).
 */
class LightPlan
{
public:
    explicit LightPlan(double refresh_ns) : refresh_ns_(refresh_ns), loop_(kHysteresis * refresh_ns) {}

    /// The player places frames anew; the plan is taken when they have settled.
    void start(int64_t now_ns)
    {
        shortest_ns_ = follows_until_ns_ = kNone;
        learn_anew(now_ns);
    }

    bool known() const { return plan_ns_ != kNone; }
    bool started() const { return learns_from_ns_ != kNone; }

    /// A frame that arrived at @p arrived_ns was flipped at @p flipped_ns: without a plan it would be seen at @p
    /// light_ns.
    void learn(int64_t arrived_ns, int64_t flipped_ns, int64_t light_ns)
    {
        if (!started() || flipped_ns < learns_from_ns_)
            return;
        if (frames_ == 0) {
            window_ns_ = flipped_ns;
            longest_to_flip_ns_ = 0;
        }
        if (!known())
            period_.add(arrived_ns);
        latencies_[frames_++ % latencies_.size()] = light_ns - arrived_ns;
        longest_to_flip_ns_ = std::max(longest_to_flip_ns_, flipped_ns - arrived_ns);
        if (flipped_ns - window_ns_ < kWindowNs)
            return;
        const size_t frames = std::exchange(frames_, 0);
        const int64_t latency_ns = median(std::min(frames, latencies_.size()));
        const int64_t before_ns = std::exchange(previous_latency_ns_, latency_ns);
        if (before_ns == kNone || static_cast<double>(std::abs(latency_ns - before_ns)) > kSameLatency * refresh_ns_)
            return;
        adopt(flipped_ns, latency_ns);
    }

    /**
     * With a plan: the vertical blank at which a frame is to be seen, in refreshes after @p vblank_ns. Where frames and
     * refreshes go on in step, a frame goes on with the one before while both are a little nearer to another one:
     * otherwise frames that arrive to and fro around the middle between two of them would be shown twice or not at all.
     */
    double place_frame(int64_t arrived_ns, int64_t vblank_ns)
    {
        const bool goes_on = loop_.runs();
        const double before_ns = loop_.due_ns();
        loop_.follow(static_cast<double>(arrived_ns + plan_ns_));
        due_refresh_ = (loop_.due_ns() - static_cast<double>(vblank_ns)) / refresh_ns_;
        double refresh = std::round(due_refresh_);
        if (goes_on) {
            const double step = (loop_.due_ns() - before_ns) / refresh_ns_;
            const double shift = shift_ + std::round(step) - step;
            const double most = arrived_ns < stays_late_until_ns_ ? 1 : 0.5;
            if (std::abs(step - std::round(step)) < kHysteresis && shift >= -0.5 - kHysteresis &&
                shift <= most + kHysteresis)
                refresh = std::round(due_refresh_ + shift);
        }
        shift_ = refresh - due_refresh_;
        return refresh;
    }

    /**
     * The frame of the latest place_frame() can be seen at @p refresh at the soonest. Where several come so late within
     * a short time, those between them are seen later as well, until none was late for a second: without a hold, the
     * player's own choice between two vertical blanks goes to and fro for a while when the phase comes round. Where all
     * come too late for a second, another plan is needed.
     */
    void seen_from(int64_t now_ns, double soonest)
    {
        const bool late = soonest > due_refresh_ + shift_ + 0.5;
        lateness_ = std::max(late ? lateness_ + 1 : lateness_ - kForgiven, 0.0);
        if (!late) {
            late_since_ns_ = kNone;
            return;
        }
        if (lateness_ > kMostLate) {
            lateness_ = kMostLate;
            stays_late_until_ns_ = now_ns + kStaysLateNs;
            shift_ = soonest - due_refresh_;
        }
        if (late_since_ns_ == kNone)
            late_since_ns_ = now_ns;
        if (now_ns - late_since_ns_ > kPatienceNs)
            learn_anew(now_ns);
    }

    /// Whether a frame may be seen one vertical blank later than it should. Not with about as many frames as vertical
    /// blanks: all behind it would be late as well.
    bool has_room() const { return !known() || loop_.period_ns() > kSparse * refresh_ns_; }

private:
    void learn_anew(int64_t now_ns)
    {
        learns_from_ns_ = now_ns + kSettlingNs;
        plan_ns_ = previous_latency_ns_ = late_since_ns_ = stays_late_until_ns_ = kNone;
        frames_ = 0;
        period_ = FramePeriod();
        lateness_ = 0;
        loop_.lock_in_anew();
    }

    int64_t median(size_t count)
    {
        const auto middle = latencies_.begin() + static_cast<std::ptrdiff_t>(count / 2);
        std::nth_element(latencies_.begin(), middle, latencies_.begin() + static_cast<std::ptrdiff_t>(count));
        return *middle;
    }

    /// Frames have settled on @p latency_ns: it becomes the plan, if there is none or a longer one.
    void adopt(int64_t now_ns, int64_t latency_ns)
    {
        const bool shorter = static_cast<double>(latency_ns_ - latency_ns) >= kShorter * refresh_ns_;
        if (known() && (!shorter || now_ns < next_change_ns_))
            return;
        if (follows_until_ns_ == kNone)
            follows_until_ns_ = now_ns + kFollowsNs;
        // Without a hold, a plan that is shorter cannot be kept when frames come late in a refresh.
        const int64_t spread_ns = std::llround((0.5 + kHysteresis) * refresh_ns_) + kFlipLeadNs;
        const int64_t needed_ns = std::clamp(longest_to_flip_ns_ + spread_ns, latency_ns, latency_ns + spread_ns);
        int64_t plan_ns = beside_middle(needed_ns, latency_ns);
        if (now_ns >= follows_until_ns_)
            plan_ns = recall(now_ns, std::max(plan_ns, shortest_ns_));
        else if (shortest_ns_ == kNone || plan_ns < shortest_ns_)
            shortest_ns_ = plan_ns;
        latency_ns_ = latency_ns;
        if (plan_ns == plan_ns_)
            return;
        loop_.restart(known() ? loop_.period_ns() : period_.value());
        plan_ns_ = plan_ns;
        next_change_ns_ = now_ns + kChangeIntervalNs;
    }

    /// A machine that stood still for a while makes the player give up a plan that can be kept again: what is longer by
    /// less than a refresh becomes what it was, so that the pictures are where they were. Once in a while, since it may
    /// be too short now.
    int64_t recall(int64_t now_ns, int64_t plan_ns)
    {
        const int64_t longer_ns = plan_ns - shortest_ns_;
        if (longer_ns == 0 || static_cast<double>(longer_ns) >= refresh_ns_ || now_ns < no_recall_until_ns_)
            return plan_ns;
        no_recall_until_ns_ = now_ns + kNoRecallNs;
        return shortest_ns_;
    }

    /// Where frames and refreshes go on in step, a frame that is due right between two vertical blanks stays so for
    /// good, and a little more or less moves the pictures by a refresh. The plan is moved to the side on which it is:
    /// the vertical blank is the same. @p latency_ns ends at a vertical blank.
    int64_t beside_middle(int64_t plan_ns, int64_t latency_ns) const
    {
        const double refreshes = static_cast<double>(plan_ns - latency_ns) / refresh_ns_;
        const double beside = refreshes - std::floor(refreshes) - 0.5;
        if (std::abs(beside) >= kBesideMiddle)
            return plan_ns;
        return plan_ns + std::llround((std::copysign(kBesideMiddle, beside) - beside) * refresh_ns_);
    }

    static constexpr int64_t kNone = -1;
    /// By then the sound's clock has placed the frames, as a rule.
    static constexpr int64_t kSettlingNs = 350'000'000;
    static constexpr int64_t kWindowNs = 300'000'000;
    /// Enough for a window on any display; of more, the latest count.
    static constexpr size_t kMostFrames = 128;
    /// Of a refresh: by which windows differ when frames have settled. On one side of a vertical blank or the other is
    /// a whole one.
    static constexpr double kSameLatency = 1.25;
    /// Of a refresh: the phase does not shorten the latency by as much.
    static constexpr double kShorter = 1.5;
    /// From the first plan on. Clocks that run apart by 2000 ppm make the latency shorter by 10 ms meanwhile.
    static constexpr int64_t kFollowsNs = 5'000'000'000;
    static constexpr int64_t kChangeIntervalNs = 1'000'000'000;
    /// As long as the phase of frames and refreshes takes to come round, as a rule.
    static constexpr int64_t kNoRecallNs = 20'000'000'000;
    /// So many frames in a row, or more with some between them.
    static constexpr double kMostLate = 4;
    static constexpr double kForgiven = 0.25;
    static constexpr int64_t kStaysLateNs = 1'000'000'000;
    static constexpr int64_t kPatienceNs = 1'000'000'000;
    /// Of a refresh: more than arrivals jitter by.
    static constexpr double kHysteresis = 0.1;
    /// Of a refresh: so far from the middle between two vertical blanks.
    static constexpr double kBesideMiddle = 0.2;
    /// Refreshes from frame to frame: with more there are vertical blanks without a frame.
    static constexpr double kSparse = 1.1;

    const double refresh_ns_;
    int64_t learns_from_ns_ = kNone; ///< none: the player has placed no frames
    int64_t plan_ns_ = kNone;
    int64_t latency_ns_ = 0;      ///< without a hold, when the plan was taken
    int64_t shortest_ns_ = kNone; ///< plan, of those taken while it followed
    int64_t follows_until_ns_ = kNone;
    int64_t next_change_ns_ = 0;     ///< no other plan before
    int64_t no_recall_until_ns_ = 0; ///< the shortest one is not tried again before
    FramePeriod period_;             ///< of the frames from which the plan is learnt
    // The window.
    std::array<int64_t, kMostFrames> latencies_ = {};
    size_t frames_ = 0;
    int64_t window_ns_ = 0;               ///< begin
    int64_t longest_to_flip_ns_ = 0;      ///< from arrival to flip
    int64_t previous_latency_ns_ = kNone; ///< of the window before

    int64_t late_since_ns_ = kNone;
    double lateness_ = 0; ///< of the latest frames
    int64_t stays_late_until_ns_ = kNone;
    FrameLoop loop_;
    double due_refresh_ = 0; ///< of the latest frame, as place_frame() returns it, but not rounded
    double shift_ = 0;       ///< refreshes by which that frame is seen later
};

} // namespace common
