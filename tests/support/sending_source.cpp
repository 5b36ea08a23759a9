// SPDX-License-Identifier: MIT
// Linked into a host on the simulated platform: a source is connected, and sends, before main() runs.
#include <unistd.h>

#include <cstdio>

#include "hdmi_sim.h"

namespace
{

__attribute__((constructor)) void connect_source()
{
    std::string error;
    if (!hdmi_sim::enter_private_namespaces(&error)) {
        fprintf(stderr, "SKIPPED: %s\n", error.c_str());
        _exit(77);
    }
    hdmi_sim::announce(hdmi_sim::announce_text(false, 48000));
    hdmi_sim::Signal silence;
    hdmi_sim::receiver_connect(silence);
}

} // namespace
