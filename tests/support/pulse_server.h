// SPDX-License-Identifier: MIT
/**
 * @file
 * A sound server of the test's own: null sinks that take sound in real time,
 * whose monitors give it back, reached through ALSA's names "NAME" and
 * "NAME_monitor". Nothing of the machine's or the user's sound is touched.
 */
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class PulseServer
{
public:
    /// Makes a temporary folder with the ALSA configuration, to which @p more(folder) adds, and sets the environment.
    /// Call it before any thread starts.
    PulseServer(std::vector<std::string> sinks, std::string (*more)(const std::string& folder));
    ~PulseServer();
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    /// @return whether the sinks can be opened; if not, why() has the reason.
    bool start();
    /// Ends the server as a crash would.
    void kill();
    const std::string& why() const { return why_; }
    const std::string& folder() const { return folder_; }

private:
    bool reachable() const;
    std::string log_tail() const;

    std::vector<std::string> sinks_;
    std::string folder_;
    std::string why_;
    pid_t pid_ = -1;
};
