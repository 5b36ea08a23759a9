// SPDX-License-Identifier: MIT
#include "sim.h"

#include "extcon/extcon.h"
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

bool enter_private_namespaces(std::string* error) { return extcon::use_namespaces(error); }
bool prepare_announcements(std::string* error) { return extcon::use_either(error); }
std::string announce_text(bool compressed, int sample_rate) { return extcon::state_text(compressed, sample_rate); }
bool write_state_file(const std::string& text) { return extcon::write_state(text); }
bool announce(const std::string& state) { return extcon::announce(state); }
bool send_uevent(const std::string& message) { return extcon::send_uevent(message); }

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
