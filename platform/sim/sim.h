// SPDX-License-Identifier: MIT
/**
 * @file
 * What the simulated devices share, and their functions for the platform's C
 * functions.
 */
#pragma once

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <limits>

#include "aio_device.h"
#include "hdmi_sim.h"
#include "internal/locks.h"
#include "pacing.h"

#define SIM_EXPORT __attribute__((visibility("default")))

namespace clocks
{
class RateMatcher;
}

namespace sim
{

constexpr int kBytesPerSample = 2;
constexpr int kClosed = -EBADF; ///< result of a call on a device that is not open (any more)
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

/// A condition variable whose deadlines are CLOCK_MONOTONIC nanoseconds.
class Condition
{
public:
    Condition() { cond_init_monotonic(native_); }
    ~Condition() { pthread_cond_destroy(&native_); }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    void notify_all() { pthread_cond_broadcast(&native_); }
    /// May wake early: test a predicate.
    void wait_until(mutex_guard& guard, int64_t deadline_ns)
    {
        if (deadline_ns == kNever) {
            guard.wait(native_);
            return;
        }
        const timespec deadline = {static_cast<time_t>(deadline_ns / kNsPerSecond),
                                   static_cast<long>(deadline_ns % kNsPerSecond)};
        guard.wait_until(native_, deadline);
    }

private:
    pthread_cond_t native_;
};

/// What a call has to do. Without a fault it is the default.
struct Verdict {
    bool fail = false;
    int result = 0; ///< of the call, if fail
    bool brief = false;
    bool odd = false;
    bool withhold = false;
};
/**
 * Every operation calls this first. A blocking fault holds it until the fault is
 * cleared or replaced, or until @p ended returns true after a faults_wake().
 */
Verdict fault_verdict(hdmi_sim::Op op, const std::function<bool()>& ended = nullptr);
void faults_wake();
void faults_reset();
/// How many of @p size bytes a transfer moves: fewer with a brief fault.
int brief_size(const Verdict& verdict, int size, int bytes_per_frame);

/// Numbers the openings of a device, so that a call which began in one of them ends with it.
class Openings
{
public:
    /// The number of the present opening. While the device is closed, it is a number that has ended().
    uint64_t present() const { return count_; }
    bool ended(uint64_t number) const { return number % 2 == 0 || count_ != number; }
    bool is_open() const { return !ended(count_); }

    /// For the device's open and close, which hold its mutex.
    void begin() { count_++; }
    void end() { count_++; }

private:
    std::atomic<uint64_t> count_{0}; ///< opens and closes so far: odd while open
};

/// A read or write: calls @p move(opening, verdict) to move the data, unless a fault fails it or the device is closed.
template <typename Move>
int transfer(hdmi_sim::Op op, const Openings& openings, const void* data, int size, const Move& move)
{
    const uint64_t opening = openings.present();
    const auto ended = [&openings, opening] { return openings.ended(opening); };
    const Verdict verdict = fault_verdict(op, ended);
    if (verdict.fail)
        return verdict.result;
    if (data == nullptr || size < 0)
        return -EINVAL;
    return ended() ? kClosed : move(opening, verdict);
}

/// Of the two audio devices' clocks. The receiver always tells it of its own, the playback device if it is matched.
clocks::RateMatcher& rate_matcher();
/// Of the signal on the link; 0 without one.
double link_clock_error_ppm();
bool has_signal();

int capture_open(const audio_config_t& config);
int capture_close();
int capture_read(uint8_t* data, int size);
void capture_reset();

int playback_open(const audio_config_t& config);
int playback_close();
int playback_write(const uint8_t* data, int size);
int playback_delay(int* frames);
int playback_set_volume(int percent);
int playback_set_volume_direct(int level);
int playback_set_mute(bool mute);
int playback_reselect(int device_id, int output_fmt);
void playback_reset();

void display_reset();
void cec_reset();

} // namespace sim
