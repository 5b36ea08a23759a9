// SPDX-License-Identifier: MIT
#pragma once

#include <utility>
#include <vector>

namespace display
{

struct FrameBuffer;

/**
 * The flips of a display that takes one at a time. A buffer that was given to
 * the device is on its way until the device reports that it is on the screen; it
 * cannot be taken back. One more may wait behind it: two are pending at most,
 * first in, first out. A third one means a backlog, of which only the newest
 * picture is worth showing: it replaces the waiting one. The next flip that
 * would have to wait is then left out, since otherwise every later picture would
 * be one refresh late. The caller locks.
 */
class FlipQueue
{
public:
    /// The host flips. @return the buffer that will not be shown for that, null if all will
    FrameBuffer* flip(FrameBuffer* buffer)
    {
        if (waiting_ != nullptr) {
            behind_ = true;
            return std::exchange(waiting_, buffer);
        }
        if (on_its_way_ == nullptr)
            behind_ = false;
        else if (behind_) {
            behind_ = false;
            return buffer;
        }
        waiting_ = buffer;
        return nullptr;
    }

    /// What the device is to be given now; null while one is on its way, and if none waits.
    FrameBuffer* next() const { return on_its_way_ == nullptr ? waiting_ : nullptr; }
    /// The device has taken next().
    void taken() { on_its_way_ = std::exchange(waiting_, nullptr); }

    FrameBuffer* on_its_way() const { return on_its_way_; }
    /// The device shows on_its_way(). @return the buffer that was on the screen before, null at first
    FrameBuffer* shown() { return std::exchange(screen_, std::exchange(on_its_way_, nullptr)); }
    FrameBuffer* on_screen() const { return screen_; }

    /// The display ends or is lost: every buffer, in the order in which they were flipped.
    std::vector<FrameBuffer*> clear()
    {
        std::vector<FrameBuffer*> all;
        for (FrameBuffer** buffer : {&screen_, &on_its_way_, &waiting_})
            if (*buffer != nullptr)
                all.push_back(std::exchange(*buffer, nullptr));
        behind_ = false;
        return all;
    }

private:
    FrameBuffer* screen_ = nullptr;
    FrameBuffer* on_its_way_ = nullptr;
    FrameBuffer* waiting_ = nullptr;
    bool behind_ = false; ///< there was a backlog: the device is one refresh late
};

} // namespace display
