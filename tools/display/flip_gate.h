// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "display/event_log.h"

namespace display
{

/**
 * Coalesces flips that come in a burst. The display shows flips first in, first
 * out, and up to two may be pending: one that comes just before a vertical
 * blank, and the one before it. When the player catches up (when its sound clock
 * starts, or with more pictures than vertical blanks), it flips several in one
 * refresh. If all were queued, the display would stay one picture behind for
 * good, since from then on each vertical blank takes one flip and brings one.
 */
class FlipGate
{
public:
    /// @p vblanks: where vertical blanks are written down, if anywhere; outlives it.
    explicit FlipGate(double refresh_hz, EventLog<int64_t>* vblanks = nullptr)
        : refresh_ns_(static_cast<int64_t>(1e9 / refresh_hz)), vblanks_(vblanks)
    {
    }

    /// Whether a picture flipped now goes to the display. If not, it is coalesced with the previous flip. Called by the
    /// player's pacing thread and by the one that renders, possibly both at once: only one of them is let through.
    bool admit(int64_t now_ns)
    {
        const int64_t vblank_ns = vblank_ns_;
        int64_t last_ns = last_ns_;
        do {
            // Flips closer than half a refresh, with no vertical blank between them, are meant for the same one.
            if (now_ns - last_ns < refresh_ns_ / 2 && refresh_of(now_ns, vblank_ns) == refresh_of(last_ns, vblank_ns))
                return false;
        } while (!last_ns_.compare_exchange_weak(last_ns, now_ns));
        return true;
    }

    /// There was a vertical blank at @p at_ns, @p passed vertical blanks after the one of the previous call. Called by
    /// the display's thread.
    void vblank(int64_t at_ns, int64_t passed = 1)
    {
        vblank_ns_ = at_ns;
        if (vblanks_ == nullptr)
            return;
        // A display that stood still for longer did not show anything.
        constexpr int64_t kLongestNs = 1'000'000'000;
        for (int64_t before = std::min(passed - 1, (kLongestNs - 1) / refresh_ns_); before > 0; before--)
            vblanks_->add(at_ns - before * refresh_ns_);
        vblanks_->add(at_ns);
    }

    /// The latest known vertical blank; 0: none.
    int64_t vblank_ns() const { return vblank_ns_; }

    /// Of a display that does not tell of its vertical blanks: a picture was shown at @p at_ns, as if by one. From the
    /// display's thread.
    void shown(int64_t at_ns) { vblank_ns_ = at_ns; }

private:
    /// Number of the refresh, counted from a known vertical blank, in which an instant lies.
    int64_t refresh_of(int64_t at_ns, int64_t vblank_ns) const
    {
        // Counted from far before, so that the division rounds down.
        constexpr int64_t kMany = 1000;
        return (at_ns - vblank_ns + kMany * refresh_ns_) / refresh_ns_;
    }

    const int64_t refresh_ns_;
    EventLog<int64_t>* const vblanks_;
    std::atomic<int64_t> last_ns_{0};
    std::atomic<int64_t> vblank_ns_{0};
};

} // namespace display
