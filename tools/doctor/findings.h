// SPDX-License-Identifier: MIT
/**
 * @file
 * What the doctor looks at. Each function looks at one part of the machine and
 * changes nothing: devices are opened for a moment, without waiting.
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
    std::string what;   ///< a device, a right
    std::string detail; ///< what is known of it, or why not
    std::string mend;   ///< a command for a shell; empty when nothing is to be mended
};
using Findings = std::vector<Finding>;

Findings look_at_sound();
Findings look_at_displays();
Findings look_at_cec();
Findings look_at_receiver();
Findings look_at_priority();
/// Private namespaces, in which the simulated receiver makes its announcements.
Finding look_at_namespaces();

} // namespace doctor
