// SPDX-License-Identifier: MIT
#pragma once

#include <utility>
#include <vector>

namespace play
{

struct FrameBuffer;

/**
 * The flips of a display that takes one at a time: handed over, a buffer is on
 * its way until the device tells that it is on the screen, and cannot be called
 * back. One more may wait behind it, so two are pending at most, first in,
 * first out. A third means that a backlog is being worked off, of which only
 * the newest is worth showing: it takes the place of the waiting one, and
 * the next flip that would have to wait is left out, or every picture after it
 * would be late. Pure: who calls, locks.
 */
class FlipQueue
{
public:
    /// The host flips. @return the buffer that will not be shown for that, null if all will
    FrameBuffer* flip(FrameBuffer* buffer)
    {
        if (m_waiting != nullptr) {
            m_behind = true;
            return std::exchange(m_waiting, buffer);
        }
        if (m_on_its_way == nullptr)
            m_behind = false;
        else if (m_behind) {
            m_behind = false;
            return buffer;
        }
        m_waiting = buffer;
        return nullptr;
    }

    /// What the device is to be given now; null while one is on its way, and if none waits.
    FrameBuffer* next() const { return m_on_its_way == nullptr ? m_waiting : nullptr; }
    /// The device has taken next().
    void taken() { m_on_its_way = std::exchange(m_waiting, nullptr); }

    FrameBuffer* on_its_way() const { return m_on_its_way; }
    /// The device shows on_its_way(). @return the buffer that was on the screen before, null at first
    FrameBuffer* shown() { return std::exchange(m_screen, std::exchange(m_on_its_way, nullptr)); }
    FrameBuffer* on_screen() const { return m_screen; }

    /// The display ends or is lost: every buffer, in the order in which they were flipped.
    std::vector<FrameBuffer*> clear()
    {
        std::vector<FrameBuffer*> all;
        for (FrameBuffer** buffer : {&m_screen, &m_on_its_way, &m_waiting})
            if (*buffer != nullptr)
                all.push_back(std::exchange(*buffer, nullptr));
        m_behind = false;
        return all;
    }

private:
    FrameBuffer* m_screen = nullptr;
    FrameBuffer* m_on_its_way = nullptr;
    FrameBuffer* m_waiting = nullptr;
    bool m_behind = false; ///< a backlog came: the device is one refresh late with what it was given
};

} // namespace play
