// SPDX-License-Identifier: MIT
#include "hdmi_sim.h"
#include "stage.h"

bool platform_stage::set_up(std::string* /*why*/)
{
    hdmi_sim::receiver_connect({});
    return true;
}

void platform_stage::tear_down() { hdmi_sim::receiver_disconnect(); }
bool platform_stage::may_lack_decoder() { return false; }
