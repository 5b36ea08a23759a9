// SPDX-License-Identifier: MIT
/**
 * @file
 * The display's latch. Pure: times come in as arguments, so that what a
 * vertical blank takes depends on when a buffer was flipped and not on when the
 * display's thread came to run.
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

    /// The vertical blank at @p vblank_ns: takes the oldest of the buffers flipped before it.
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

    /// The display ends: everything is released, in the order in which it was flipped.
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

    // One flip too many before a vertical blank means that a backlog is being worked off: of such a burst only the
    // newest is worth showing. Kept in turn, the rest would make every picture after it late.
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
    std::deque<Flip> flips_;    ///< not decided yet
    std::deque<void*> pending_; ///< for the vertical blanks to come
    Screen screen_;
    bool catching_up_ = false; ///< more flips than can be pending came since the latest vertical blank
};

} // namespace sim
