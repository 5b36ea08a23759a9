// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "common/holds.h"
#include "common/light_plan.h"

namespace common
{

/// A frame's times: when the host gave it to the player, when the player flipped it, and a recent vertical blank.
struct FlipTimes {
    int64_t arrived_ns;
    int64_t flipped_ns;
    int64_t vblank_ns; ///< 0: none is known
    /// For the same vertical blank as the flip before, as it seems without a plan for frames (FlipGate).
    bool coalesced = false;
};

/**
 * The flips that are held, first in, first out. At first, each is held for as
 * long as the plan of the panel says. When the player has placed the frames, each
 * is held so that it takes as long from its arrival to its vertical blank as those
 * did (LightPlan), if that is wanted. Pure: times are arguments (CLOCK_MONOTONIC),
 * nothing blocks.
 */
class FlipHold
{
public:
    FlipHold(const Holds& holds, double refresh_hz) : holds_(holds), refresh_ns_(1e9 / refresh_hz), plan_(refresh_ns_)
    {
    }

    /// The player places frames anew: see LightPlan.
    void start(int64_t now_ns)
    {
        if (holds_.even)
            plan_.start(now_ns);
    }

    /// From now on flips are held for @p refreshes more; fewer if negative, but not for less than nothing.
    void shift(int refreshes)
    {
        const int64_t flip_ns = holds_.flip_ns + std::llround(refreshes * refresh_ns_);
        if (flip_ns < 0)
            return;
        holds_.flip_ns = flip_ns;
        if (holds_.refreshes > 0)
            holds_.refreshes = std::max(holds_.refreshes + refreshes, 1);
    }

    /// The player flips @p buffer. @return a buffer that will not be shown, this one or one that is held: both are for
    /// the same vertical blank; null: none. A plan knows better than the flip when a frame is to be seen: a player that
    /// flips some frames as they come and others at the vertical blank behind flips two in one refresh by turns.
    void* push(void* buffer, const FlipTimes& times)
    {
        Held held = {buffer, times.flipped_ns + holds_.flip_ns, kNone};
        const bool placed = times.vblank_ns != 0 && (holds_.refreshes > 0 || plan_.started());
        if (placed)
            place(times, &held);
        if (times.coalesced && !plan_.known())
            return buffer;
        void* unseen = placed ? make_room_for(times, &held) : nullptr;
        if (unseen == buffer)
            return unseen;
        if (!held_.empty())
            held.due_ns = std::max(held.due_ns, held_.back().due_ns);
        held_.push_back(held);
        return unseen;
    }

    /// When the oldest one is to be given to the display; nothing: none is held.
    std::optional<int64_t> due_ns() const
    {
        return held_.empty() ? std::nullopt : std::optional<int64_t>(held_.front().due_ns);
    }

    struct Due {
        void* buffer = nullptr; ///< null: none is due
        bool unseen = false;    ///< too late for its vertical blank, and another one has the next: not to be shown
    };
    /// Takes the oldest one out if its time has come.
    Due pop(int64_t now_ns)
    {
        if (held_.empty() || now_ns < held_.front().due_ns)
            return {};
        const Held held = held_.front();
        held_.pop_front();
        if (held.light_ns == kNone)
            return {held.buffer, false};
        // With two flips for one vertical blank, a display would be late by one for good.
        const double late = std::max(std::ceil(static_cast<double>(now_ns - held.light_ns) / refresh_ns_), 0.0);
        const int64_t light_ns = held.light_ns + std::llround(late * refresh_ns_);
        if (same_vblank(light_ns, given_ns_))
            return {held.buffer, true};
        given_ns_ = light_ns;
        return {held.buffer, false};
    }

private:
    static constexpr int64_t kNone = -1;
    /// Each hold ends early in a refresh, far from both vertical blanks: that a thread runs late, or flips come near a
    /// vertical blank, then does not matter.
    static constexpr double kIntoRefresh = 0.2;
    /// Refreshes by which the latest flip may be ahead. More than so many flips do not wait: the display's vertical
    /// blanks began elsewhere, and nothing that was before counts.
    static constexpr double kMostQueued = 8;

    struct Held {
        void* buffer;
        int64_t due_ns;
        int64_t light_ns; ///< the vertical blank that it is for; none: whichever comes
    };

    bool same_vblank(int64_t a_ns, int64_t b_ns) const
    {
        return static_cast<double>(std::abs(a_ns - b_ns)) < refresh_ns_ / 2;
    }

    void place(const FlipTimes& times, Held* held)
    {
        const auto time_of = [&](double refresh) { return times.vblank_ns + std::llround(refresh * refresh_ns_); };
        const auto refresh_at = [&](int64_t at_ns) {
            return std::floor(static_cast<double>(at_ns - times.vblank_ns) / refresh_ns_);
        };
        // A flip decides for the refresh in which it lies, wherever in it.
        const double refresh = refresh_at(times.flipped_ns) + holds_.refreshes;
        plan_.learn(times.arrived_ns, times.flipped_ns, time_of(refresh + 1));
        if (plan_.known()) {
            const double wanted = plan_.place_frame(times.arrived_ns, times.vblank_ns);
            const double soonest = refresh_at(times.flipped_ns + kFlipLeadNs) + 1;
            aim(times, time_of(std::max(wanted, soonest)), held);
            plan_.seen_from(times.flipped_ns, soonest);
            return;
        }
        aim(times, time_of(refresh + 1), held);
        if (!plan_.started())
            held->light_ns = kNone;
    }

    void aim(const FlipTimes& times, int64_t light_ns, Held* held) const
    {
        held->light_ns = light_ns;
        const int64_t lead_ns = std::llround((1 - kIntoRefresh) * refresh_ns_);
        held->due_ns = std::max(times.flipped_ns, light_ns - lead_ns);
    }

    /// One frame for each vertical blank, first in, first out. @return what is not shown since @p held is for the same
    /// vertical blank, or @p held itself; null: nothing
    void* make_room_for(const FlipTimes& times, Held* held)
    {
        const int64_t own_ns = held->light_ns;
        const double ahead_ns = static_cast<double>(newest_ns_ - own_ns);
        const bool taken = own_ns != kNone && newest_ns_ != kNone && ahead_ns > -refresh_ns_ / 2 &&
                           ahead_ns < kMostQueued * refresh_ns_;
        if (!taken) {
            newest_ns_ = own_ns;
            return nullptr;
        }
        // The next one, as in a display's own queue: frames have their own again behind the first vertical blank that
        // none is for.
        if (same_vblank(newest_ns_, own_ns) && plan_.has_room()) {
            newest_ns_ += std::llround(refresh_ns_);
            aim(times, newest_ns_, held);
            return nullptr;
        }
        aim(times, newest_ns_, held);
        // The display has the one before already.
        if (held_.empty() || !same_vblank(held_.back().light_ns, newest_ns_))
            return held->buffer;
        // The newer one is shown: if a scene begins with it, the scene is not seen later than planned.
        void* unseen = held_.back().buffer;
        held_.pop_back();
        return unseen;
    }

    Holds holds_;
    const double refresh_ns_;
    LightPlan plan_;
    int64_t newest_ns_ = kNone; ///< vertical blank of the latest flip
    int64_t given_ns_ = kNone;  ///< likewise of the latest that was given to the display
    std::deque<Held> held_;
};

/// Holds flips and gives each to the display when its time has come, on a thread of its own. Without a hold they pass
/// straight through.
class HeldFlips
{
public:
    using Pass = std::function<void(void* buffer)>;

    /// @p show gives a buffer to the display; @p leave_out takes one back that will not be shown. Both come from the
    /// thread that flips, or from one of its own.
    HeldFlips(const Holds& holds, double refresh_hz, Pass show, Pass leave_out);
    ~HeldFlips() { finish(); }
    HeldFlips(const HeldFlips&) = delete;
    HeldFlips& operator=(const HeldFlips&) = delete;

    /// From any thread; as FlipHold::push().
    void flip(void* buffer, const FlipTimes& times);

    /// Likewise; as FlipHold::start().
    void start(int64_t now_ns);

    /// Likewise; as FlipHold::shift(). Without effect where nothing is held.
    void shift(int refreshes);

    /// No flip comes any more: returns when the last one was given to the display.
    void finish();

private:
    void run();

    const Pass show_;
    const Pass leave_out_;
    std::mutex mutex_; ///< what follows
    std::condition_variable changed_;
    FlipHold hold_;
    bool finished_ = false;

    std::thread thread_; ///< none without a hold
};

} // namespace common
