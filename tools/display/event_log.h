// SPDX-License-Identifier: MIT
/**
 * @file
 * What happened when. The threads that did it write it down, real-time threads
 * among them; it is read when they have ended.
 */
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace display
{

/**
 * Events in the order in which they were added. All memory is there, and was
 * touched, from the beginning; an event that finds it full is counted as lost.
 * Any number of threads may add at the same time: none waits.
 */
template <typename Event> class EventLog
{
public:
    explicit EventLog(size_t capacity) : capacity_(capacity), slots_(new Slot[capacity]) {}

    void add(const Event& event)
    {
        size_t at = claimed_.fetch_add(1, std::memory_order_relaxed);
        if (at >= capacity_)
            return;
        slots_[at].event = event;
        slots_[at].written.store(true, std::memory_order_release);
    }

    /// Those that are written by now.
    std::vector<Event> events() const
    {
        std::vector<Event> all;
        size_t end = std::min(claimed_.load(), capacity_);
        all.reserve(end);
        for (size_t i = 0; i < end; i++)
            if (slots_[i].written.load(std::memory_order_acquire))
                all.push_back(slots_[i].event);
        return all;
    }

    int64_t lost() const
    {
        size_t claimed = claimed_;
        return claimed > capacity_ ? static_cast<int64_t>(claimed - capacity_) : 0;
    }

private:
    struct Slot {
        Event event = {};
        std::atomic<bool> written{false};
    };

    const size_t capacity_;
    std::unique_ptr<Slot[]> slots_;
    std::atomic<size_t> claimed_{0};
};

} // namespace display
