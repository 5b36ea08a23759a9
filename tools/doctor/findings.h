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
    std::string remedy; ///< a command for a shell; empty when nothing is to be mended
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
