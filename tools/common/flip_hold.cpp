// SPDX-License-Identifier: MIT
#include "common/flip_hold.h"

#include <pthread.h>

#include <chrono>

#include "common/clock.h"

namespace common
{
namespace
{

/// CLOCK_MONOTONIC is the clock behind it.
using Clock = std::chrono::steady_clock;

Clock::time_point at(int64_t time_ns) { return Clock::time_point(std::chrono::nanoseconds(time_ns)); }

} // namespace

HeldFlips::HeldFlips(const Holds& holds, double refresh_hz, Show show)
    : show_(std::move(show)), hold_(holds, refresh_hz)
{
    if (holds.holds_flips())
        thread_ = std::thread(&HeldFlips::run, this);
}

void HeldFlips::flip(void* buffer, int64_t now_ns, int64_t vblank_ns)
{
    if (!thread_.joinable()) {
        show_(buffer);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hold_.push(buffer, now_ns, vblank_ns);
    }
    changed_.notify_one();
}

void HeldFlips::run()
{
    pthread_setname_np(pthread_self(), "held_flips");
    std::unique_lock<std::mutex> lock(mutex_);
    while (!finished_ || hold_.due_ns()) {
        const std::optional<int64_t> due_ns = hold_.due_ns();
        if (!due_ns) {
            changed_.wait(lock);
            continue;
        }
        void* buffer = hold_.pop(now_ns());
        if (buffer == nullptr) {
            changed_.wait_until(lock, at(*due_ns));
            continue;
        }
        // Without the lock: a display may take its own.
        lock.unlock();
        show_(buffer);
        lock.lock();
    }
}

void HeldFlips::finish()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

} // namespace common
