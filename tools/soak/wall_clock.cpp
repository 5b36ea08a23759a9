// SPDX-License-Identifier: MIT
#include "wall_clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

#include "common/clock.h"

namespace soak
{
namespace
{

std::atomic<int64_t> offset_us{0};
std::atomic<bool> was_set{false};
std::atomic<int64_t> reads{0};
std::atomic<int64_t> slewed_from_ns{0}; ///< 0: it is not slewed
std::atomic<double> slew_ppm{0};

int64_t slewed_us()
{
    const int64_t from_ns = slewed_from_ns;
    return from_ns == 0 ? 0 : static_cast<int64_t>(static_cast<double>(common::now_ns() - from_ns) * slew_ppm / 1e9);
}

} // namespace

void step_wall_clock(int64_t us)
{
    offset_us += us;
    was_set = true;
}

void slew_wall_clock(double ppm)
{
    offset_us += slewed_us();
    slew_ppm = ppm;
    slewed_from_ns = common::now_ns();
}

bool wall_clock_was_set() { return was_set.exchange(false); }
int64_t wall_clock_reads() { return reads; }

} // namespace soak

extern "C" __attribute__((visibility("default"))) int gettimeofday(struct timeval* __restrict now,
                                                                   void* __restrict /*zone*/) noexcept
{
    constexpr int64_t kUsPerSecond = 1'000'000;
    timespec real = {};
    clock_gettime(CLOCK_REALTIME, &real);
    const int64_t us = int64_t{real.tv_sec} * kUsPerSecond + real.tv_nsec / 1000 + soak::offset_us + soak::slewed_us();
    now->tv_sec = static_cast<time_t>(us / kUsPerSecond);
    now->tv_usec = static_cast<suseconds_t>(us % kUsPerSecond);
    soak::reads++;
    return 0;
}
