// SPDX-License-Identifier: MIT
#include <linux/cec.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "findings.h"
#include "machine/access.h"

namespace doctor
{
namespace
{

using namespace machine;

bool is_tv(const cec_log_addrs& logical)
{
    const auto* end = logical.log_addr_type + std::min<size_t>(logical.num_log_addrs, CEC_MAX_LOG_ADDRS);
    return std::find(logical.log_addr_type, end, CEC_LOG_ADDR_TYPE_TV) != end;
}

std::string use_of(const cec_log_addrs& logical, uint16_t address)
{
    if (is_tv(logical) && std::strncmp(logical.osd_name, "hdmiplayer", sizeof logical.osd_name) == 0)
        return "a player's, or left by one that was killed";
    if (is_tv(logical))
        return "set up as a TV's by another program, which is respected";
    if (logical.num_log_addrs != 0)
        return "another device's than a TV's";
    if (address == 0 || address == CEC_PHYS_ADDR_INVALID)
        return "free to be a TV's";
    return "of a source: there is a TV at its other end";
}

Finding examine_adapter(const std::string& path)
{
    const Device device(path);
    if (const auto refusal = device.refusal())
        return *refusal;
    cec_caps caps = {};
    cec_log_addrs logical = {};
    uint16_t address = 0;
    if (ioctl(device.fd(), CEC_ADAP_G_CAPS, &caps) != 0 || ioctl(device.fd(), CEC_ADAP_G_LOG_ADDRS, &logical) != 0 ||
        ioctl(device.fd(), CEC_ADAP_G_PHYS_ADDR, &address) != 0)
        return {Verdict::missing, path, "is no CEC adapter", "ls -l " + path};
    char place[32] = "no cable";
    if (address != CEC_PHYS_ADDR_INVALID)
        snprintf(place, sizeof(place), "%x.%x.%x.%x", address >> 12, address >> 8 & 0xF, address >> 4 & 0xF,
                 address & 0xF);
    return {Verdict::ok, path,
            std::string(caps.name) + ", " + place + ", " + use_of(logical, address) + "; " + device.owner(), ""};
}

} // namespace

Findings examine_cec()
{
    Findings all;
    for (const std::string& path : numbered("/dev", "cec"))
        all.push_back(examine_adapter(path));
    if (all.empty())
        all.push_back({Verdict::missing, "/dev/cec*", "no adapter: no audio return channel",
                       "sudo modprobe vivid   # virtual ones, to try with"});
    return all;
}

} // namespace doctor
