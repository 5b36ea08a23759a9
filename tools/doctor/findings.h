// SPDX-License-Identifier: MIT
/**
 * @file
 * Each function examines one part of the machine. It opens devices for a moment,
 * does not wait for them, and changes nothing.
 */
#pragma once

#include <string>
#include <vector>

namespace doctor
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

Findings examine_sound();
Findings examine_displays();
Findings examine_cec();
Findings examine_receiver();
Findings examine_priority();
/// Private namespaces, in which the simulated receiver makes its announcements.
Finding examine_namespaces();

} // namespace doctor
