// SPDX-License-Identifier: MIT
#pragma once

#include <string>

namespace play
{

/// What a run uses of the configuration of real devices.
struct ConfigUse {
    std::string playback; ///< key of the output that is played to; empty: a simulated one
    bool capture = false;
    bool cec = false;
};

/// The environment variable that overrides the key of a device.
std::string variable_of(const std::string& key);

/**
 * Whether a run with that use has to do with @p fault, a line of the check of the configuration: "file:line: key:
 * what", "variable: what" or "file: what". A device that it does not use may be missing; what names no device at all is
 * a mistake in the file itself. The mixer of an output whose PCM the command line names is that of another card.
 */
bool concerns(const std::string& fault, const ConfigUse& use);

} // namespace play
