// SPDX-License-Identifier: MIT
#include "sim.h"

#include "rate_matcher.h"

namespace sim
{

clocks::RateMatcher& rate_matcher()
{
    static auto* instance = new clocks::RateMatcher;
    return *instance;
}

} // namespace sim

namespace hdmi_sim
{

int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * sim::kNsPerSecond + now.tv_nsec;
}

void reset()
{
    sim::faults_reset();
    decoder_fills_losses(true);
    sim::capture_reset();
    sim::playback_reset();
    sim::display_reset();
    sim::cec_reset();
    sim::rate_matcher().reset();
}

} // namespace hdmi_sim
