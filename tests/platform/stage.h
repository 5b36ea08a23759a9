// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// What a platform needs around it before its contract can be checked: a signal that arrives, an output that plays.
namespace platform_stage
{

/// Before the first thread. @return false with the reason in @p why: nothing can be checked here
bool set_up(std::string* why);
void tear_down();
/// Whether the platform is free to have no decoder.
bool may_lack_decoder();

} // namespace platform_stage
