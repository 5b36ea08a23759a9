// SPDX-License-Identifier: MIT
/**
 * @file
 * What decides the exit status. The limits are fixed: a run is judged by what
 * the system promises, not by what a machine happens to reach. But a miss says
 * nothing of the player if the machine came so late itself, or the source is
 * such, that even a perfect player would have missed.
 */
#pragma once

#include <string>
#include <vector>

#include "report/result.h"

namespace play
{

/// What a limit judges.
enum class Subject { player, sound, pictures, sync };

struct Verdict {
    std::string limit;
    bool passed;
    bool machine = false; ///< missed in a way that the lateness of the machine explains
    Subject subject = Subject::player;
    std::string source = ""; ///< missed, and this fault of the source explains it

    bool explained() const { return machine || !source.empty(); }
};

/// What is wrong with the source, in so far as it shows in @p subject; empty: nothing.
std::string fault_of_source(const Result& result, Subject subject);

/// Pictures that may be unseen or held beyond what the rates dictate.
constexpr double kExcessLimit = 0.02;
/// The reset comes with the first picture that meets captured sound.
constexpr double kLatestResetS = 1;

/// By which sound may be out of its place after lost bursts: a sample at 48 kHz; after pauses, which may last any time.
constexpr double kMostMovedByLossMs = 1.5 / 48;
constexpr double kMostMovedByPauseMs = 5;

/// Of what the player adds to tones.
constexpr double kMostNoiseDb = -90;
constexpr double kMostPitchPpm = 10;
constexpr double kMostRippleDb = 0.1;

/// Lateness that costs sound: a period of the output, which is written while the one before it plays.
constexpr double kOutputPeriodMs = 20;

/// None for a run that was stopped before there was anything to judge.
std::vector<Verdict> judge(const Result& result);
bool all_passed(const std::vector<Verdict>& verdicts);

/// inconclusive: limits were missed, and machine or source explain each of them. nothing: there were none.
enum class Outcome { pass, fail, inconclusive, nothing };
Outcome outcome_of(const std::vector<Verdict>& verdicts);

} // namespace play
