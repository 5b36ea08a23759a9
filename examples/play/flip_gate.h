// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>

namespace play
{

/**
 * Keeps bursts of flips from the display's queue. The display shows flips first
 * in, first out, and up to two may be pending: one that comes just before a
 * vertical blank, and the one before it. But when the player catches up (when
 * its sound clock starts, or with more pictures than vertical blanks) it flips
 * several at a stroke. Queued, they would leave the display one picture behind
 * for good, since from then on each vertical blank takes one and brings one.
 */
class FlipGate
{
public:
    explicit FlipGate(double refresh_hz) : m_stroke_ns(static_cast<int64_t>(1e9 / refresh_hz / 2)) {}

    /// Whether a picture flipped now goes to the display. If not, its time has gone to the one before it.
    bool admit(int64_t now_ns)
    {
        if (m_pending > 0 && now_ns - m_last_ns < m_stroke_ns)
            return false;
        m_last_ns = now_ns;
        m_pending++;
        return true;
    }

    /// The display has taken one of its pending pictures, or given it up.
    void done() { m_pending--; }

private:
    const int64_t m_stroke_ns; ///< half a refresh: flips closer than this are meant for the same vertical blank
    std::atomic<int64_t> m_last_ns{0};
    std::atomic<int> m_pending{0};
};

} // namespace play
