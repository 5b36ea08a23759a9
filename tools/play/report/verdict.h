// SPDX-License-Identifier: MIT
/**
 * @file
 * What decides the exit status. The limits are fixed: a run is judged by what
 * the system promises, not by what a machine happens to reach.
 */
#pragma once

#include <string>
#include <vector>

#include "report/result.h"

namespace play
{

struct Verdict {
    std::string limit;
    bool passed;
};

/// Pictures that may be unseen or held beyond what the rates dictate.
constexpr double kExcessLimit = 0.02;
/// The reset comes with the first picture that meets captured sound.
constexpr double kLatestResetS = 1;

std::vector<Verdict> judge(const Result& result);
bool all_passed(const std::vector<Verdict>& verdicts);

} // namespace play
