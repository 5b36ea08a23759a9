// SPDX-License-Identifier: MIT
#include <cstdlib>
#include <memory>

#include "pulse_server.h"
#include "stage.h"

namespace
{
std::unique_ptr<PulseServer> g_server;
}

// The monitor of one sink is the signal.
bool platform_stage::set_up(std::string* why)
{
    g_server = std::make_unique<PulseServer>(std::vector<std::string>{"contract_out", "contract_in"},
                                             [](const std::string&) { return std::string(); });
    setenv("HDMIPLAYER_ALSA_SPEAKER", "contract_out", 1);
    setenv("HDMIPLAYER_ALSA_HDMI_IN", "contract_in_monitor", 1);
    if (g_server->start())
        return true;
    *why = g_server->why();
    return false;
}

void platform_stage::tear_down() { g_server.reset(); }

bool platform_stage::may_lack_decoder() { return false; }
