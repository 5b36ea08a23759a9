// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "common/retry.h"

namespace common
{

/**
 * Tells a host that frames do not wait in the player as they did before. They
 * wait for their sound from the reset on. When the output failed for a while, the
 * player's clock ran ahead, frames were flipped before their time, and the player
 * does not hold early frames: they stay early. When the capture device did not
 * open at once, the sound's time began later than the frames', and these wait too
 * long. A reset puts both right, which a host gets by withholding frames
 * (FrameBreak). What is the same after two such resets is how it has to be: the
 * first one may have come while the output still failed. A machine that was busy for
 * minutes may have made it so, too: whether frames wait as before is tried again
 * (Retry). Pure: times are arguments (CLOCK_MONOTONIC, nanoseconds).
 */
class PicturePlan
{
public:
    /// A reset was raised.
    void start(int64_t now_ns)
    {
        settled_ns_ = now_ns + kSettlingNs;
        fresh_ = true;
        window_ns_ = before_ns_ = kNone;
    }

    /**
     * A frame was flipped @p waited_ns after it was rendered, at @p now_ns. @p with_sound: sound is being written.
     * @return whether frames have left the plan; not again before the pause is over
     */
    bool left(int64_t now_ns, int64_t waited_ns, bool with_sound)
    {
        if (!with_sound)
            window_ns_ = kNone;
        if (!with_sound || now_ns < settled_ns_)
            return false;
        if (window_ns_ == kNone) {
            window_ns_ = now_ns;
            sum_ns_ = frames_ = 0;
        }
        sum_ns_ += waited_ns;
        frames_++;
        if (now_ns - window_ns_ < kWindowNs)
            return false;
        const int64_t mean_ns = sum_ns_ / frames_;
        window_ns_ = kNone;
        const bool settled = is_near(mean_ns, std::exchange(before_ns_, mean_ns));
        const bool fresh = std::exchange(fresh_, false);
        if (fresh && is_near(mean_ns, doubted_ns_))
            confirmed_++;
        if (usual_ns_ == kNone && settled)
            usual_ns_ = mean_ns;
        if (usual_ns_ == kNone)
            return false;
        if (confirmed_ == kResetsThatConfirm)
            give_up(now_ns, mean_ns);
        else if (fresh && is_near(mean_ns, wanted_ns_))
            take_up();
        const bool tries = retry_.is_due(now_ns);
        return is_near(mean_ns, usual_ns_) ? keeps(now_ns, mean_ns, tries) : leaves(now_ns, mean_ns);
    }

private:
    /// It has to be so, as it seems.
    void give_up(int64_t now_ns, int64_t mean_ns)
    {
        if (wanted_ns_ == kNone)
            wanted_ns_ = usual_ns_;
        usual_ns_ = mean_ns;
        retry_.gave_up(now_ns);
    }

    /// Behind a reset, frames wait again as they did before the plan was given up.
    void take_up()
    {
        usual_ns_ = std::exchange(wanted_ns_, kNone);
        retry_.kept();
    }

    bool keeps(int64_t now_ns, int64_t mean_ns, bool tries)
    {
        // The clocks may drift apart.
        usual_ns_ += (mean_ns - usual_ns_) / kSlowly;
        doubted_ns_ = kNone;
        confirmed_ = 0;
        if (tries)
            retry_.gave_up(now_ns); // unless it helps
        return tries;
    }

    bool leaves(int64_t now_ns, int64_t mean_ns)
    {
        if (now_ns < again_ns_)
            return false;
        if (!is_near(mean_ns, doubted_ns_))
            confirmed_ = 0;
        again_ns_ = now_ns + kPauseNs;
        doubted_ns_ = mean_ns;
        return true;
    }

    bool is_near(int64_t a_ns, int64_t b_ns) const { return b_ns != kNone && std::abs(a_ns - b_ns) <= kFarNs; }

    static constexpr int64_t kNone = -1;
    static constexpr int64_t kSettlingNs = 500'000'000;
    static constexpr int64_t kWindowNs = 400'000'000;
    /// More than starts differ by, with 25 frames a second as well; less than the 76 ms by which an output that lost
    /// all that it held makes frames early.
    static constexpr int64_t kFarNs = 65'000'000;
    static constexpr int64_t kSlowly = 8;
    /// A reset takes a second and a half to come and to settle.
    static constexpr int64_t kPauseNs = 1'900'000'000;
    static constexpr int kResetsThatConfirm = 2;

    int64_t settled_ns_ = 0;
    int64_t usual_ns_ = kNone;   ///< for which frames wait
    int64_t wanted_ns_ = kNone;  ///< likewise, before the plan was given up
    int64_t doubted_ns_ = kNone; ///< for which they waited when the plan was left
    int confirmed_ = 0;          ///< resets that did not change that
    bool fresh_ = true;          ///< nothing was judged since the reset
    int64_t before_ns_ = kNone;  ///< for which they waited in the window before
    int64_t window_ns_ = kNone;
    int64_t sum_ns_ = 0;
    int64_t frames_ = 0;
    int64_t again_ns_ = 0;
    Retry retry_{1'000'000'000};
};

} // namespace common
