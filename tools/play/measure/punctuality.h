// SPDX-License-Identifier: MIT
/**
 * @file
 * Whether the machine let a run keep time: timers that tick beside the player,
 * with its scheduling and nothing to do with it, write down how late they came.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace play
{

/// How late the ticks of one timer or more came.
struct Punctuality {
    int64_t ticks = 0;
    int64_t late = 0; ///< ticks later than a limit
    double late_limit_ms = 0;
    double p99_ms = 0;
    double worst_ms = 0;
    int64_t worst_at_ns = 0; ///< CLOCK_MONOTONIC
};

/// What a timer writes down. Allocates at its construction only.
class TickRecord
{
public:
    TickRecord();
    /// @p at_ns: when the tick came
    void add(int64_t late_ns, int64_t at_ns = 0);
    void add(const TickRecord& other);
    /// Exact but for p99_ms and late, which are rounded to a step of 0.1 ms.
    Punctuality figures(double late_limit_ms) const;

private:
    std::vector<int64_t> steps_; ///< ticks by lateness; the last: all that came later
    int64_t ticks_ = 0;
    int64_t worst_ns_ = 0;
    int64_t worst_at_ns_ = 0;
};

/**
 * Timers that tick on absolute deadlines, one bound to each processor that the
 * process may use: a thread of the player may have to wait for any of them. A
 * tick whose deadline has passed comes at once, so that a machine that stands
 * still makes late ticks in proportion to the time that it lost.
 *
 * They have the scheduling of the thread that starts them, and run from
 * construction to finish().
 */
class TickingTimers
{
public:
    TickingTimers();
    ~TickingTimers() { finish(); }
    TickingTimers(const TickingTimers&) = delete;
    TickingTimers& operator=(const TickingTimers&) = delete;

    /// Stops them. @return what they wrote down, together
    TickRecord finish();

private:
    static void tick(int processor, const std::atomic<bool>* stop, TickRecord* record);

    std::atomic<bool> stop_{false};
    std::vector<TickRecord> records_;
    std::vector<std::thread> threads_;
};

} // namespace play
