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

/// Mean of what was measured in that time, if anything was.
std::optional<double> mean_between(const std::vector<Offset>& offsets, double from_s, double until_s,
                                   double (*value)(const Offset&))
{
    double sum = 0;
    int count = 0;
    for (const Offset& offset : offsets)
        if (at_s(offset) >= from_s && at_s(offset) < until_s) {
            sum += value(offset);
            count++;
        }
    return count > 0 ? std::optional<double>(sum / count) : std::nullopt;
}

/// Mean of the last @p window_s less that of as many from the second minute on, if both are known.
std::optional<double> difference_of(const std::vector<Offset>& offsets, double window_s, double (*value)(const Offset&))
{
    // The last instant is within its window.
    const double end_s = std::nextafter(at_s(offsets.back()), 1e9);
    const std::optional<double> last = mean_between(offsets, end_s - window_s, end_s, value);
    const std::optional<double> first = mean_between(offsets, kMinuteS, kMinuteS + window_s, value);
    return last && first ? std::optional<double>(*last - *first) : std::nullopt;
}

bool has_minutes(const std::vector<Offset>& offsets)
{
    return !offsets.empty() && at_s(offsets.back()) >= kMovedFromMinutes * kMinuteS;
}

std::optional<Moved> moved_of(const std::vector<Offset>& offsets)
{
    if (!has_minutes(offsets))
        return {};
    const auto offset_ms = difference_of(offsets, kMinuteS, [](const Offset& offset) { return offset.ms(); });
    const auto sound_ms = difference_of(offsets, kMinuteS, [](const Offset& offset) { return offset.sound_ms; });
    if (!offset_ms || !sound_ms)
        return {};
    return Moved{*offset_ms, *sound_ms};
}

double picture_ms(const Offset& offset) { return offset.picture_ms; }

/// Half of the least width in which 99 % of the pictures are, from the second minute on.
double nearest_99(const std::vector<Offset>& offsets)
{
    std::vector<double> values;
    for (const Offset& offset : offsets)
        if (at_s(offset) >= kMinuteS)
            values.push_back(offset.picture_ms);
    std::sort(values.begin(), values.end());
    const auto count = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(values.size())));
    double width = values.back() - values.front();
    for (size_t first = 0; first + count <= values.size(); first++)
        width = std::min(width, values[first + count - 1] - values[first]);
    return width / 2;
}

std::optional<LightPath> light_of(const std::vector<Offset>& offsets, const Terms& terms)
{
    if (!terms.vblanks || !has_minutes(offsets))
        return {};
    const double refresh_ms = 1e3 / terms.refresh_hz;
    const double lasted_s = at_s(offsets.back()) - kMinuteS;
    // There is an instant in each second: by so many refreshes its phase moves on.
    const double refreshes = terms.refresh_hz * terms.second_s;
    const double moves = std::abs(refreshes - std::round(refreshes));
    constexpr double kStillMs = 0.5;
    LightPath light;
    light.beat_s = moves * lasted_s * refresh_ms < kStillMs ? 0 : 1 / moves;
    light.whole_minutes = light.beat_s <= kShortBeatS;
    light.within_ms = nearest_99(offsets);
    light.allowed_ms = refresh_ms / 2 + kMostBesideMs;
    const double window_s = light.whole_minutes ? kMinuteS : std::ceil(kMinuteS / light.beat_s) * light.beat_s;
    if (light.whole_minutes || 2 * window_s <= lasted_s)
        light.moved_ms = difference_of(offsets, window_s, picture_ms);
    return light;
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
    course.light = light_of(offsets, terms);
    if (!course.offset)
        return course;
    course.phase_slope = phase_slope(terms.fps, terms.refresh_hz, course.offset->lasted_s);
    course.offset->margin += course.phase_slope;
    if (course.offset->lasted_s >= kTrendFromS)
        course.outlook = outlook_of(*course.offset, kTrendHours, kR37LateMs, kR37EarlyMs);
    return course;
}

} // namespace play
