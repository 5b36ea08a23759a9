// SPDX-License-Identifier: MIT
// What the viewer is told: one line for each cause, with the command that mends it.
#pragma once

#include <string>

#include "machine/capture_devices.h"
#include "machine/finding.h"

namespace view
{

/// Prints a line, on the standard error; the same one only once until another came.
class Teller
{
public:
    void tell(const std::string& line);
    void tell(const machine::Finding& finding);
    /// The next line is printed, whatever came before.
    void forget() { last_.clear(); }
    const std::string& last() const { return last_; }

private:
    std::string last_;
};

machine::Finding black_picture(const std::string& path);
machine::Finding stalled_picture(const std::string& path);
machine::Finding no_device(const std::vector<machine::CaptureDevice>& devices);

/// For --list.
std::string list_of(const std::vector<machine::CaptureDevice>& devices);

} // namespace view
