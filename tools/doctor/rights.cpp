// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "findings.h"
#include "hdmi_sim.h"
#include "machine/access.h"

namespace doctor
{
namespace
{

using namespace machine;

constexpr int kPlayerPriority = 99;

// Runs @p attempt in a process of its own, which it may change as it likes. @return why it failed, empty on success
std::string attempt_in_child(const std::function<std::string()>& attempt)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return strerror(errno);
    const pid_t child = fork();
    if (child == 0) {
        const std::string text = attempt();
        _exit(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string text = child < 0 ? strerror(errno) : "";
    char part[512];
    for (ssize_t size; (size = read(ends[0], part, sizeof(part))) > 0;)
        text.append(part, static_cast<size_t>(size));
    close(ends[0]);
    if (child > 0)
        waitpid(child, nullptr, 0);
    return text;
}

std::string try_priority()
{
    sched_param param = {};
    param.sched_priority = kPlayerPriority;
    return sched_setscheduler(0, SCHED_RR, &param) == 0 ? "" : strerror(errno);
}

} // namespace

Findings examine_priority()
{
    const std::string what = "real-time priority " + std::to_string(kPlayerPriority);
    const std::string fault = attempt_in_child(try_priority);
    if (fault.empty())
        return {{Verdict::ok, what, "what the player asks for its capture thread", ""}};
    rlimit limit = {};
    getrlimit(RLIMIT_RTPRIO, &limit);
    return {
        {Verdict::refused, what, fault + ", the limit (ulimit -r) is " + std::to_string(limit.rlim_cur),
         "echo '" + user() + " - rtprio 99' | sudo tee /etc/security/limits.d/hdmiplayer.conf   # then log in again"}};
}

Finding examine_namespaces()
{
    const std::string fault = attempt_in_child([] {
        std::string error;
        return hdmi_sim::enter_private_namespaces(&error) ? "" : error.substr(0, error.find(';'));
    });
    if (fault.empty())
        return {Verdict::ok, "private namespaces", "for the simulated receiver's announcements", ""};
    return {Verdict::missing, "private namespaces", fault + ": announcements stay inside the process", ""};
}

Findings examine_receiver()
{
    constexpr char kState[] = "/sys/class/extcon/hdmirx_aud/state";
    if (access(kState, R_OK) == 0)
        return {{Verdict::ok, kState, first_line(kState), ""}};
    if (errno == EACCES)
        return {{Verdict::refused, kState, strerror(errno), "sudo chmod a+r " + std::string(kState)}};
    return {{Verdict::missing, kState, "no driver announces formats: what is captured tells them",
             "hdmi-player-play --capture alsa:NAME"}};
}

} // namespace doctor
