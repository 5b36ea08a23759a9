// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "config/options.h"

namespace play
{

/// Files that a run writes because the options ask for them.
std::vector<std::string> wanted_files(const Options& options);

/// Whether a file can be written at @p path, so that nobody learns it at the end of a film. Leaves no file behind that
/// was not there, and changes none. @return false with one line in @p error
bool is_writable(const std::string& path, std::string* error);

} // namespace play
