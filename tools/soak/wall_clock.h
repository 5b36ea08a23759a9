// SPDX-License-Identifier: MIT
/**
 * @file
 * A wall clock of the program's own. The player reads it by gettimeofday(), which
 * this program exports in the place of the C library's: so the clock can be set
 * without the machine's being touched. Nothing else in the player asks for the
 * time of day, and none of its waits depends on it.
 */
#pragma once

#include <cstdint>

namespace soak
{

/// Sets the clock forward by @p us, or back.
void step_wall_clock(int64_t us);
/// From now on the clock runs that much faster, without a step.
void slew_wall_clock(double ppm);
/// Whether it was set since the last call, as a timerfd would tell a host.
bool wall_clock_was_set();
/// How often it was read: none means that the player does not see this clock.
int64_t wall_clock_reads();

} // namespace soak
