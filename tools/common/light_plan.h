// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>

namespace common
{

/**
 * How long frames shall take from their arrival to the vertical blank at which
 * they are seen. The player flips early frames at any time within 40 ms of their
 * sound, and its clock for them runs with the sound's; so a frame's way wanders
 * by a refresh or two within the hour. The plan is what the way was at first. When
 * it becomes shorter at once, frames had not settled by then, and the plan follows.
 *
 * On a display that has a clock of its own, frames then are half a refresh beside
 * it at the most: they can only be seen at vertical blanks. Pure: times are
 * arguments (CLOCK_MONOTONIC, nanoseconds).
 */
class LightPlan
{
public:
    explicit LightPlan(double refresh_ns) : refresh_ns_(refresh_ns) {}

    /// The player places frames anew; the plan is taken when they have settled.
    void start(int64_t now_ns)
    {
        settled_ns_ = now_ns + kSettlingNs;
        plan_ns_ = late_since_ns_ = window_ns_ = stays_until_ns_ = kNone;
        lateness_ = 0;
        followed_ = false;
    }

    bool known() const { return plan_ns_ != kNone; }
    bool started() const { return settled_ns_ != kNone; }

    /// A frame that arrived at @p arrived_ns was flipped at @p flipped_ns: without a plan it would be seen at @p
    /// light_ns.
    void learn(int64_t arrived_ns, int64_t flipped_ns, int64_t light_ns)
    {
        if (!started() || flipped_ns < settled_ns_)
            return;
        if (window_ns_ == kNone) {
            window_ns_ = flipped_ns;
            first_arrived_ns_ = arrived_ns;
            sum_ns_ = longest_ns_ = frames_ = 0;
        }
        sum_ns_ += light_ns - arrived_ns;
        longest_ns_ = std::max(longest_ns_, flipped_ns - arrived_ns);
        frames_++;
        if (flipped_ns - window_ns_ < kWindowNs)
            return;
        window_ns_ = kNone;
        const int64_t mean_ns = sum_ns_ / frames_;
        if (known() && static_cast<double>(usual_ns_ - mean_ns) < kStep * refresh_ns_) {
            if (flipped_ns - settled_ns_ > kFreshNs)
                usual_ns_ += (mean_ns - usual_ns_) / kSlowly;
            return;
        }
        usual_ns_ = mean_ns;
        // Without a hold, a plan that is shorter cannot be kept when frames come late in a refresh.
        const int64_t spread_ns = std::llround((0.5 + kSticky) * refresh_ns_) + kLeadNs;
        plan_ns_ = std::clamp(longest_ns_ + spread_ns, mean_ns, mean_ns + spread_ns);
        if (frames_ > 1)
            period_ns_ = static_cast<double>(arrived_ns - first_arrived_ns_) / static_cast<double>(frames_ - 1);
        followed_ = false;
    }

    /**
     * With a plan: the vertical blank at which a frame is to be seen, in refreshes after @p vblank_ns. Where frames and
     * refreshes go on in step, a frame goes on with the one before while both are a little nearer to another one:
     * otherwise frames that arrive to and fro around the middle between two of them would be shown twice or not at all.
     */
    double refresh_for(int64_t arrived_ns, int64_t vblank_ns)
    {
        const double before_ns = wanted_ns_;
        follow(static_cast<double>(arrived_ns + plan_ns_));
        place_ = (wanted_ns_ - static_cast<double>(vblank_ns)) / refresh_ns_;
        double refresh = std::round(place_);
        if (followed_) {
            const double step = (wanted_ns_ - before_ns) / refresh_ns_;
            const double error = error_ + std::round(step) - step;
            const double most = arrived_ns < stays_until_ns_ ? 1 : 0.5;
            if (std::abs(step - std::round(step)) < kSticky && error >= -0.5 - kSticky && error <= most + kSticky)
                refresh = std::round(place_ + error);
        }
        followed_ = true;
        error_ = refresh - place_;
        return refresh;
    }

    /**
     * The frame of the latest refresh_for() can be seen at @p refresh at the soonest. Where several come so late within
     * a short time, those between them are seen later as well, until none was late for a second: without a hold, the
     * player's own choice between two vertical blanks goes to and fro for a while when the phase comes round.
     * @return whether frame after frame was too late, so that another plan is needed
     */
    bool outlived(int64_t now_ns, double soonest)
    {
        const bool late = soonest > place_ + error_ + 0.5;
        lateness_ = std::max(late ? lateness_ + 1 : lateness_ - kForgiven, 0.0);
        if (!late) {
            late_since_ns_ = kNone;
            return false;
        }
        if (lateness_ > kMostLate) {
            lateness_ = kMostLate;
            stays_until_ns_ = now_ns + kStaysNs;
            error_ = soonest - place_;
        }
        if (late_since_ns_ == kNone)
            late_since_ns_ = now_ns;
        return now_ns - late_since_ns_ > kPatienceNs;
    }

private:
    /// A delay-locked loop: a thread that comes late with a frame does not move the frame's light. One that comes early
    /// shows that those before it were late.
    void follow(double wanted_ns)
    {
        constexpr double kPart = 1.0 / 8;
        constexpr double kPartOfPeriod = 1.0 / 128;
        if (!followed_ || !(period_ns_ > 0)) {
            wanted_ns_ = wanted_ns;
            return;
        }
        const double frames = std::max(std::round((wanted_ns - wanted_ns_) / period_ns_), 1.0);
        const double error_ns = wanted_ns - (wanted_ns_ + frames * period_ns_);
        const bool early = error_ns < -kSticky * refresh_ns_;
        wanted_ns_ = early ? wanted_ns : wanted_ns - (1 - kPart) * error_ns;
        if (!early)
            period_ns_ += kPartOfPeriod * error_ns / frames;
    }

    static constexpr int64_t kNone = -1;
    /// By then the sound's clock has placed the frames.
    static constexpr int64_t kSettlingNs = 350'000'000;
    static constexpr int64_t kWindowNs = 300'000'000;
    /// Of a refresh: shorter by more at once is none of what clocks do. For some seconds from the start: not at once
    /// either.
    static constexpr double kStep = 1.5;
    static constexpr int64_t kFreshNs = 5'000'000'000;
    static constexpr int64_t kSlowly = 8;
    /// So many frames in a row, or more with some between them.
    static constexpr double kMostLate = 4;
    static constexpr double kForgiven = 0.25;
    static constexpr int64_t kStaysNs = 1'000'000'000;
    static constexpr int64_t kPatienceNs = 1'000'000'000;
    /// To reach the display before the vertical blank.
    static constexpr int64_t kLeadNs = 1'000'000;
    /// Of a refresh: more than frames arrive to and fro.
    static constexpr double kSticky = 0.1;

    const double refresh_ns_;
    int64_t settled_ns_ = kNone; ///< none: the player has placed no frames
    int64_t plan_ns_ = kNone;
    int64_t usual_ns_ = 0; ///< the way without a plan, which may change slowly
    int64_t window_ns_ = kNone;
    int64_t first_arrived_ns_ = 0;
    int64_t sum_ns_ = 0;
    int64_t longest_ns_ = 0;
    int64_t frames_ = 0;
    int64_t late_since_ns_ = kNone;
    double lateness_ = 0; ///< of the latest frames
    int64_t stays_until_ns_ = kNone;
    bool followed_ = false; ///< what follows is the last frame's
    double wanted_ns_ = 0;
    double place_ = 0;     ///< in refreshes, as refresh_for()
    double error_ = 0;     ///< refreshes by which it is seen later
    double period_ns_ = 0; ///< from frame to frame
};

} // namespace common
