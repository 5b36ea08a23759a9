// SPDX-License-Identifier: MIT
/**
 * @file
 * The display's latch. Pure: times are arguments. So which buffer a vertical
 * blank takes depends on when it was flipped, not on when the display's thread
 * ran.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

namespace sim
{

class Latch
{
public:
    /// A buffer that the display is done with.
    struct Release {
        void* buffer;
        bool superseded; ///< it was never on the screen
    };
    struct Result {
        void* buffer = nullptr; ///< on the screen from this vertical blank on; null: none yet
        bool repeated = false;
        std::vector<Release> released;
    };

    /// @p at_ns does not decrease from call to call.
    void flip(void* buffer, int64_t at_ns) { flips_.push_back({buffer, at_ns}); }

    /// The vertical blank at @p vblank_ns: shows the oldest of the buffers flipped before it.
    Result vblank(int64_t vblank_ns)
    {
        Result result;
        while (!flips_.empty() && flips_.front().at_ns < vblank_ns)
            queue_next(result.released);
        catching_up_ = false;
        if (!pending_.empty()) {
            if (screen_.used)
                result.released.push_back({screen_.buffer, false});
            screen_ = {pending_.front(), true};
            pending_.pop_front();
        } else {
            result.repeated = screen_.used;
        }
        result.buffer = screen_.buffer;
        return result;
    }

    /// The display ends. @return all buffers, in the order of their flips.
    std::vector<Release> clear()
    {
        std::vector<Release> released;
        if (screen_.used)
            released.push_back({screen_.buffer, false});
        while (!flips_.empty())
            queue_next(released);
        for (void* buffer : pending_)
            released.push_back({buffer, true});
        pending_.clear();
        screen_ = {};
        return released;
    }

private:
    static constexpr size_t kMaxPending = 2;

    // More flips than can be pending before a vertical blank are a burst: the host works off a backlog. Only the newest
    // buffer of a burst is shown. With the others, every buffer after them would be late.
    void queue_next(std::vector<Release>& released)
    {
        if (pending_.size() == kMaxPending || catching_up_) {
            for (void* buffer : pending_)
                released.push_back({buffer, true});
            pending_.clear();
            catching_up_ = true;
        }
        pending_.push_back(flips_.front().buffer);
        flips_.pop_front();
    }

    struct Flip {
        void* buffer;
        int64_t at_ns;
    };
    struct Screen {
        void* buffer = nullptr;
        bool used = false;
    };
    std::deque<Flip> flips_;    ///< not queued for a vertical blank yet
    std::deque<void*> pending_; ///< for the next vertical blanks
    Screen screen_;
    bool catching_up_ = false; ///< a burst has come since the latest vertical blank
};

} // namespace sim
