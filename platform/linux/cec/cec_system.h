// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

namespace hdmi_linux
{

/// The system calls on adapters, for tests to replace. Results and errno are those of the calls.
class CecSystem
{
public:
    virtual ~CecSystem() = default;
    /// The device files of all adapters, in the order of their numbers.
    virtual std::vector<std::string> devices();
    virtual int open(const char* path);
    virtual void close(int fd);
    /// Takes the device's advisory lock (flock(2)), which @p fd holds until it is closed. @return whether it has it.
    virtual bool lock(int fd);
    virtual int ioctl(int fd, unsigned long request, void* argument);
};

} // namespace hdmi_linux
