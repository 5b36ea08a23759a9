// SPDX-License-Identifier: MIT
// Messages on the terminal: one line for each cause, with the command that mends it.
#pragma once

#include <string>
#include <vector>

#include "machine/capture_devices.h"
#include "machine/finding.h"

namespace view
{

/// Prints lines on the standard error. A line that repeats the one before it is left out.
class Messages
{
public:
    void print(const std::string& line);
    void print(const machine::Finding& finding);
    /// The next line is printed, also if it is the same.
    void allow_repetition() { last_.clear(); }

private:
    std::string last_;
};

machine::Finding black_picture(const std::string& path);
machine::Finding stalled_picture(const std::string& path);
machine::Finding no_device(const std::vector<machine::CaptureDevice>& devices);

/// For --list.
std::string list_of(const std::vector<machine::CaptureDevice>& devices);

} // namespace view
