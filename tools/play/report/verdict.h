// SPDX-License-Identifier: MIT
/**
 * @file
 * What decides the exit status. The limits are fixed: a run is judged by what
 * the system promises, not by what a machine happens to reach. But a miss says
 * nothing of the player if the machine came so late itself that even a perfect
 * player would have missed.
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
    bool machine = false; ///< missed in a way that the lateness of the machine explains
};

/// Pictures that may be unseen or held beyond what the rates dictate.
constexpr double kExcessLimit = 0.02;
/// The reset comes with the first picture that meets captured sound.
constexpr double kLatestResetS = 1;

/// Lateness that costs sound: a period of the output, which is written while the one before it plays.
constexpr double kOutputPeriodMs = 20;

/// None for a run that was stopped before there was anything to judge.
std::vector<Verdict> judge(const Result& result);
bool all_passed(const std::vector<Verdict>& verdicts);

/// inconclusive: limits were missed, and the machine explains each of them. nothing: there were none.
enum class Outcome { pass, fail, inconclusive, nothing };
Outcome outcome_of(const std::vector<Verdict>& verdicts);

} // namespace play
