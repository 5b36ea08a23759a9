// SPDX-License-Identifier: MIT
/**
 * @file
 * Where a run is heading: a straight line through what was measured, and how well its slope is known.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace play
{

struct Reading {
    double at_s;
    double value;
};

/// The value moves by per_hour, give or take margin (with 95 % confidence).
struct Trend {
    int64_t count = 0;
    double lasted_s = 0;
    double middle = 0; ///< of the line, half way through
    double per_hour = 0;
    double margin = 0;

    double after_h(double hours, double slope) const { return middle + hours * slope; }
    double slowest() const { return per_hour - margin; }
    double fastest() const { return per_hour + margin; }
};

/**
 * A line by iterated weighted least squares with Huber's weights, so that a few readings far away do not turn it.
 * Readings that follow each other are alike (a picture's phase takes minutes to come round); so the margin is that of
 * Newey and West, with a bandwidth of a quarter of the readings, and the critical value that belongs to so wide a one.
 * @return nothing for fewer than ten readings, or less than ten seconds
 */
std::optional<Trend> fit_trend(std::vector<Reading> readings);

/**
 * A picture is seen at a vertical blank. If the source's clock moves against the display's by few pictures in a run,
 * that alone makes a slope, which ends with the next whole picture. @return its greatest possible size, in ms per hour
 */
double phase_slope(double fps, double refresh_hz, double lasted_s);

/// Whether a value stays within limits for that long if its trend goes on.
enum class Outlook { stays, leaves, unknown };
Outlook outlook_of(const Trend& trend, double hours, double least, double most);

} // namespace play
