// SPDX-License-Identifier: MIT
#include "extcon/extcon.h"

#include <cerrno>
#include <cstdint>

#include "internal/locks.h"

namespace extcon
{
namespace
{

constexpr const char* kDevicePath = "/devices/platform/hdmirx_aud/extcon/hdmirx_aud";

struct Driver {
    mutex_t mutex;
    std::unique_ptr<Channel> channel GUARDED_BY(mutex);
    uint64_t sequence GUARDED_BY(mutex) = 0;
};

Driver& driver()
{
    static auto* instance = new Driver;
    return *instance;
}

bool use(std::unique_ptr<Channel> (*open)(std::string*), std::string* error)
{
    Driver& d = driver();
    mutex_guard guard(d.mutex);
    std::string why;
    if (d.channel == nullptr)
        d.channel = open(&why);
    if (error != nullptr)
        *error = why;
    return d.channel != nullptr;
}

bool refused(const Driver& d) REQUIRES(d.mutex)
{
    if (d.channel == nullptr)
        errno = EPERM;
    return d.channel == nullptr;
}

// In the kernel's form: the header, then the environment; each string ends with a NUL.
std::string uevent_text(const std::string& state, uint64_t sequence)
{
    const std::string device = kDevicePath;
    std::string text;
    for (const std::string& line :
         {"change@" + device, std::string("ACTION=change"), "DEVPATH=" + device, std::string("SUBSYSTEM=extcon"),
          std::string("NAME=hdmirx_aud"), "STATE=" + state, "SEQNUM=" + std::to_string(sequence)})
        text.append(line).push_back('\0');
    return text;
}

} // namespace

bool use_namespaces(std::string* error) { return use(open_namespaces, error); }
bool use_process(std::string* error) { return use(open_process, error); }

bool use_either(std::string* error)
{
    std::string forbidden;
    if (use_namespaces(&forbidden) || use_process(error))
        return true;
    if (error != nullptr)
        *error += "; " + forbidden;
    return false;
}

std::string state_text(bool compressed, int sample_rate)
{
    const char* rate = sample_rate == 48000   ? "48"
                       : sample_rate == 44100 ? "44"
                       : sample_rate == 32000 ? "32"
                                              : nullptr;
    if (rate == nullptr)
        return "";
    return std::string(compressed ? "HEADDONE_COMP_" : "HEADDONE_PCM_") + rate + "=1";
}

bool write_state(const std::string& text)
{
    Driver& d = driver();
    mutex_guard guard(d.mutex);
    return !refused(d) && d.channel->write_state(text);
}

bool announce(const std::string& state)
{
    Driver& d = driver();
    mutex_guard guard(d.mutex);
    return !refused(d) && d.channel->write_state(state) && d.channel->send(uevent_text(state, ++d.sequence));
}

bool send_uevent(const std::string& message)
{
    Driver& d = driver();
    mutex_guard guard(d.mutex);
    return !refused(d) && d.channel->send(message);
}

} // namespace extcon
