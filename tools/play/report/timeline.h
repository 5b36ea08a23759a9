// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "report/trace_view.h"

namespace play
{

/// A part of the run as a chart: what happened when, a row for each kind.
std::string timeline_chart(const Timeline& timeline);

} // namespace play
