// SPDX-License-Identifier: MIT
#pragma once

#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "common/holds.h"

namespace common
{

/**
 * The flips that are held, first in, first out. Pure: times are arguments
 * (CLOCK_MONOTONIC), nothing blocks.
 */
class FlipHold
{
public:
    FlipHold(const Holds& holds, double refresh_hz) : holds_(holds), refresh_ns_(1e9 / refresh_hz) {}

    /// The player flips @p buffer at @p now_ns. @p vblank_ns: a recent vertical blank; 0: none is known
    void push(void* buffer, int64_t now_ns, int64_t vblank_ns)
    {
        int64_t due_ns = due_of(now_ns, vblank_ns);
        if (!held_.empty() && due_ns < held_.back().due_ns)
            due_ns = held_.back().due_ns;
        held_.push_back({buffer, due_ns});
    }

    /// When the oldest one is to be given to the display; nothing: none is held.
    std::optional<int64_t> due_ns() const
    {
        return held_.empty() ? std::nullopt : std::optional<int64_t>(held_.front().due_ns);
    }

    /// Takes the oldest one out if its time has come. @return null if not
    void* pop(int64_t now_ns)
    {
        if (held_.empty() || now_ns < held_.front().due_ns)
            return nullptr;
        void* buffer = held_.front().buffer;
        held_.pop_front();
        return buffer;
    }

private:
    struct Held {
        void* buffer;
        int64_t due_ns;
    };

    /// A flip decides for the refresh in which it lies, wherever in it. Its hold ends early in a later refresh, far
    /// from both vertical blanks: that a thread runs late, or flips come near a vertical blank, then does not matter.
    int64_t due_of(int64_t now_ns, int64_t vblank_ns) const
    {
        constexpr double kIntoRefresh = 0.2;
        if (holds_.refreshes == 0 || vblank_ns == 0)
            return now_ns + holds_.flip_ns;
        const double refresh = std::floor(static_cast<double>(now_ns - vblank_ns) / refresh_ns_);
        return vblank_ns + std::llround((refresh + holds_.refreshes + kIntoRefresh) * refresh_ns_);
    }

    const Holds holds_;
    const double refresh_ns_;
    std::deque<Held> held_;
};

/// Holds flips and gives each to the display when its time has come, on a thread of its own. Without a hold they pass
/// straight through.
class HeldFlips
{
public:
    using Show = std::function<void(void* buffer)>;

    HeldFlips(const Holds& holds, double refresh_hz, Show show);
    ~HeldFlips() { finish(); }
    HeldFlips(const HeldFlips&) = delete;
    HeldFlips& operator=(const HeldFlips&) = delete;

    /// From any thread; as FlipHold::push().
    void flip(void* buffer, int64_t now_ns, int64_t vblank_ns);

    /// No flip comes any more: returns when the last one was given to the display.
    void finish();

private:
    void run();

    const Show show_;
    std::mutex mutex_; ///< what follows
    std::condition_variable changed_;
    FlipHold hold_;
    bool finished_ = false;

    std::thread thread_; ///< none without a hold
};

} // namespace common
