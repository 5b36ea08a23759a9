// SPDX-License-Identifier: MIT
#include "measure/course.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace play
{
namespace
{

constexpr double kMinuteS = 60;
constexpr double kMovedFromMinutes = 3;

double at_s(const Offset& offset) { return static_cast<double>(offset.source_ns) / 1e9; }

double p99_of(std::vector<Reading> offsets)
{
    auto share = [](double ms) { return ms >= 0 ? ms / kIs191EarlyMs : ms / kIs191LateMs; };
    std::sort(offsets.begin(), offsets.end(),
              [&share](const Reading& a, const Reading& b) { return share(a.value) < share(b.value); });
    // Nearest rank, as everywhere here.
    auto rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(offsets.size())));
    return rank > 0 ? offsets[rank - 1].value : 0;
}

/// Mean of what was measured in that minute from @p from_s on.
double minute_mean(const std::vector<Offset>& offsets, double from_s, double (*value)(const Offset&))
{
    double sum = 0;
    int count = 0;
    for (const Offset& offset : offsets)
        if (at_s(offset) >= from_s && at_s(offset) < from_s + kMinuteS) {
            sum += value(offset);
            count++;
        }
    return count > 0 ? sum / count : 0;
}

std::optional<Moved> moved_of(const std::vector<Offset>& offsets)
{
    if (offsets.empty() || at_s(offsets.back()) < kMovedFromMinutes * kMinuteS)
        return {};
    // The last instant is within its minute.
    double last_s = std::nextafter(at_s(offsets.back()) - kMinuteS, 1e9);
    auto difference = [&](double (*value)(const Offset&)) {
        return minute_mean(offsets, last_s, value) - minute_mean(offsets, kMinuteS, value);
    };
    return Moved{difference([](const Offset& offset) { return offset.ms(); }),
                 difference([](const Offset& offset) { return offset.sound_ms; })};
}

} // namespace

std::vector<LossReading> read_losses(const std::vector<LostBursts>& lost, const std::vector<Offset>& offsets,
                                     const std::vector<int64_t>& resets_ns)
{
    std::vector<LossReading> readings;
    for (const LostBursts& each : lost) {
        LossReading reading = {each, {}, {}, 0};
        for (const Offset& offset : offsets) {
            if (offset.source_ns < each.from_ns)
                reading.before = offset;
            else if (!reading.after)
                reading.after = offset;
        }
        for (int64_t reset_ns : resets_ns)
            if (reading.measured() && reset_ns > reading.before->source_ns && reset_ns < reading.after->source_ns)
                reading.resets++;
        readings.push_back(reading);
    }
    return readings;
}

Course measure_course(const std::vector<Offset>& offsets, std::vector<Reading> fills, const Terms& terms)
{
    std::vector<Reading> offset;
    std::vector<Reading> flight;
    for (const Offset& each : offsets) {
        offset.push_back({at_s(each), each.ms() + terms.sound_later_ms});
        flight.push_back({at_s(each), each.sound_ms});
    }
    Course course;
    course.p99_ms = p99_of(offset);
    course.offset = fit_trend(std::move(offset));
    course.flight = fit_trend(std::move(flight));
    course.fill = fit_trend(std::move(fills));
    course.moved = moved_of(offsets);
    if (!course.offset)
        return course;
    course.phase_slope = phase_slope(terms.fps, terms.refresh_hz, course.offset->lasted_s);
    course.offset->margin += course.phase_slope;
    if (course.offset->lasted_s >= kTrendFromS)
        course.outlook = outlook_of(*course.offset, kTrendHours, kR37LateMs, kR37EarlyMs);
    return course;
}

} // namespace play
