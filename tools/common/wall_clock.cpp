// SPDX-License-Identifier: MIT
#include "common/wall_clock.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace common
{

WallClockWatch::WallClockWatch() : timer_(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC)) { arm(); }

WallClockWatch::~WallClockWatch()
{
    if (timer_ >= 0)
        close(timer_);
}

/// A timer that never expires; it is cancelled when the clock is set.
void WallClockWatch::arm() const
{
    itimerspec never = {};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    timerfd_settime(timer_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
}

bool WallClockWatch::was_set()
{
    uint64_t expirations = 0;
    if (read(timer_, &expirations, sizeof expirations) >= 0 || errno != ECANCELED)
        return false;
    arm();
    return true;
}

} // namespace common
