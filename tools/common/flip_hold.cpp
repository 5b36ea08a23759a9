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

HeldFlips::HeldFlips(const Holds& holds, double refresh_hz, Pass show, Pass leave_out)
    : show_(std::move(show)), leave_out_(std::move(leave_out)), hold_(holds, refresh_hz)
{
    if (holds.holds_flips())
        thread_ = std::thread(&HeldFlips::run, this);
}

void HeldFlips::flip(void* buffer, const FlipTimes& times)
{
    if (!thread_.joinable()) {
        (times.coalesced ? leave_out_ : show_)(buffer);
        return;
    }
    void* unseen = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        unseen = hold_.push(buffer, times);
    }
    changed_.notify_one();
    if (unseen != nullptr)
        leave_out_(unseen);
}

void HeldFlips::start(int64_t now_ns)
{
    std::lock_guard<std::mutex> lock(mutex_);
    hold_.start(now_ns);
}

void HeldFlips::shift(int refreshes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    hold_.shift(refreshes);
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
        const FlipHold::Due due = hold_.pop(now_ns());
        if (due.buffer == nullptr) {
            changed_.wait_until(lock, at(*due_ns));
            continue;
        }
        // Without the lock: a display may take its own.
        lock.unlock();
        (due.unseen ? leave_out_ : show_)(due.buffer);
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
