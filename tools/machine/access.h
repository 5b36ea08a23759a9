// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

#include "machine/finding.h"

namespace machine
{

/// A device file, opened for reading and writing without waiting; closed at the end of the scope.
class Device
{
public:
    explicit Device(const std::string& path);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    int fd() const { return fd_; }
    bool in_use() const { return in_use_; }
    /// Owner, group and mode, like "root:audio 0660".
    std::string owner() const;
    /// What is to be said of it where it could not be opened.
    std::optional<Finding> refusal() const;

private:
    std::string path_;
    int fd_;
    int error_;
    bool in_use_;
};

/// The entries of @p folder that are @p prefix and a number, by number.
std::vector<std::string> numbered(const std::string& folder, const std::string& prefix);
/// The user's name, for commands.
std::string user();
/// The first line of a file; empty without one.
std::string first_line(const std::string& path);

} // namespace machine
