// SPDX-License-Identifier: MIT
// The displays of the play program: real ones, and those without a screen.
#pragma once

#include <memory>
#include <string>

#include "config/options.h"
#include "display/display.h"

namespace play
{

/// The display that the options name, not started yet; null, with one line in @p error, if the machine has none such.
std::unique_ptr<display::Display> open_display(const Options& options, std::string* error);

std::unique_ptr<display::Display> open_simulated_display(const Options& options);
std::unique_ptr<display::Display> open_no_display(const Options& options);

} // namespace play
