// SPDX-License-Identifier: MIT
// What is found of one device or right of this machine, and the command that mends it.
#pragma once

#include <string>
#include <vector>

namespace machine
{

enum class Verdict {
    ok,
    missing, ///< not there
    refused, ///< there, but this user may not
};

struct Finding {
    Verdict verdict;
    std::string what;   ///< a device or a right
    std::string detail; ///< what is known of it, or why it cannot be used
    std::string remedy; ///< a command for a shell; empty when there is nothing to repair
};
using Findings = std::vector<Finding>;

} // namespace machine
