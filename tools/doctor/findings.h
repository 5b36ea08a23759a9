// SPDX-License-Identifier: MIT
/**
 * @file
 * Each function examines one part of the machine. It opens devices for a moment,
 * does not wait for them, and changes nothing.
 */
#pragma once

#include "machine/finding.h"

namespace doctor
{

using machine::Finding;
using machine::Findings;
using machine::Verdict;

Findings examine_sound();
Findings examine_video();
Findings examine_displays();
Findings examine_cec();
Findings examine_receiver();
Findings examine_priority();
/// Private namespaces, in which the simulated receiver makes its announcements.
Finding examine_namespaces();

} // namespace doctor
