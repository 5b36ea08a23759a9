// SPDX-License-Identifier: MIT
/**
 * @file
 * The sound devices of this machine.
 */
#pragma once

#include <string>

namespace hdmi_linux
{

/// "hw:CARD,DEVICE" of the kernel's first capture device; "default" when there is none.
std::string first_capture_device();

} // namespace hdmi_linux
