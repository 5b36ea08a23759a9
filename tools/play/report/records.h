// SPDX-License-Identifier: MIT
/**
 * @file
 * The lists of a report for programs: what happened, one record for each time.
 */
#pragma once

#include <nlohmann/json.hpp>

#include "report/result.h"

namespace play
{

nlohmann::json offset_records(const Result& result);
nlohmann::json loss_records(const Result& result);
/// Pairs: number of the picture, vertical blanks for which it stayed.
nlohmann::json sighting_records(const Result& result);
nlohmann::json outage_records(const Result& result);
nlohmann::json recovery_records(const Result& result);
nlohmann::json announcement_records(const Result& result);

/// Seconds after the player was opened.
double after_opening_s(const Result& result, int64_t at_ns);

} // namespace play
