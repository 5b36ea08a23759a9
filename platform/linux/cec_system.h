// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

namespace hdmi_linux
{

/// The system calls, so that tests can stand in for an adapter. Results as theirs, with errno.
class CecSystem
{
public:
    virtual ~CecSystem() = default;
    /// The adapters' device files, in the order of their numbers.
    virtual std::vector<std::string> devices();
    virtual int open(const char* path);
    virtual void close(int fd);
    /// Whether @p fd has the device's advisory lock now, until it is closed (flock(2)).
    virtual bool lock(int fd);
    virtual int ioctl(int fd, unsigned long request, void* argument);
};

} // namespace hdmi_linux
