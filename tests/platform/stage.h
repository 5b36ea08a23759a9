// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// What a platform needs before its contract can be checked: a signal at its input, and an output that plays.
namespace platform_stage
{

/// Called before the first thread starts. @return false, with the reason in @p why, if nothing can be checked here.
bool set_up(std::string* why);
void tear_down();
/// Whether the platform may have no decoder.
bool may_lack_decoder();

} // namespace platform_stage
