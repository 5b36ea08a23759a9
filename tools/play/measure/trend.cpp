// SPDX-License-Identifier: MIT
#include "measure/trend.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace play
{
namespace
{

constexpr size_t kFewest = 10;
constexpr double kShortestS = 10;
/// More are averaged first, in groups: the margin takes their square.
constexpr size_t kMost = 4000;
/// Huber's constant, in standard deviations: 95 % as good as least squares where nothing is astray.
constexpr double kFarAway = 1.345;
constexpr double kDeviationOfMedian = 1.4826;
constexpr int kRounds = 20;
/// Of the readings: those that far apart may still be alike.
constexpr double kBandwidth = 0.25;
/// 97.5 % of the slope's Newey-West statistic with that bandwidth, found by simulation: 3.7 for independent readings,
/// 4.4 for readings that are alike (autoregressive, 0.9). That of a mean (Kiefer and Vogelsang, 2005) is 2.7.
constexpr double kCriticalValue = 4.2;
constexpr double kSecondsPerHour = 3600;

double median(std::vector<double> values)
{
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::vector<Reading> thin_out(std::vector<Reading> readings)
{
    size_t group = (readings.size() + kMost - 1) / kMost;
    if (group <= 1)
        return readings;
    std::vector<Reading> thin;
    for (size_t first = 0; first + group <= readings.size(); first += group) {
        std::vector<double> values;
        for (size_t i = first; i < first + group; i++)
            values.push_back(readings[i].value);
        thin.push_back({readings[first + group / 2].at_s, median(std::move(values))});
    }
    return thin;
}

struct Line {
    double centre_s = 0;
    double level = 0; ///< at the centre
    double slope = 0; ///< per second
    double at(double s) const { return level + slope * (s - centre_s); }
};

Line weighted_line(const std::vector<Reading>& readings, const std::vector<double>& weights)
{
    double sum = 0;
    Line line;
    for (size_t i = 0; i < readings.size(); i++) {
        sum += weights[i];
        line.centre_s += weights[i] * readings[i].at_s;
        line.level += weights[i] * readings[i].value;
    }
    line.centre_s /= sum;
    line.level /= sum;
    double products = 0;
    double squares = 0;
    for (size_t i = 0; i < readings.size(); i++) {
        double x = readings[i].at_s - line.centre_s;
        products += weights[i] * x * (readings[i].value - line.level);
        squares += weights[i] * x * x;
    }
    line.slope = squares > 0 ? products / squares : 0;
    return line;
}

/// The slope's standard deviation times the critical value.
double margin_of(const std::vector<Reading>& readings, const std::vector<double>& weights, const Line& line)
{
    std::vector<double> scores;
    double squares = 0;
    for (size_t i = 0; i < readings.size(); i++) {
        double x = readings[i].at_s - line.centre_s;
        scores.push_back(weights[i] * (readings[i].value - line.at(readings[i].at_s)) * x);
        // A reading whose weight is cut does not move the line when it moves.
        squares += weights[i] >= 1 ? x * x : 0;
    }
    auto bandwidth = static_cast<size_t>(kBandwidth * static_cast<double>(scores.size()));
    double variance = 0;
    for (size_t lag = 0; lag <= bandwidth; lag++) {
        double products = 0;
        for (size_t i = lag; i < scores.size(); i++)
            products += scores[i] * scores[i - lag];
        double weight = 1 - static_cast<double>(lag) / static_cast<double>(bandwidth + 1);
        variance += (lag == 0 ? 1 : 2) * weight * products;
    }
    return squares > 0 ? kCriticalValue * std::sqrt(std::max(variance, 0.0)) / squares : 0;
}

} // namespace

std::optional<Trend> fit_trend(std::vector<Reading> readings)
{
    std::sort(readings.begin(), readings.end(), [](const Reading& a, const Reading& b) { return a.at_s < b.at_s; });
    readings = thin_out(std::move(readings));
    if (readings.size() < kFewest || readings.back().at_s - readings.front().at_s < kShortestS)
        return {};
    std::vector<double> weights(readings.size(), 1);
    Line line = weighted_line(readings, weights);
    for (int round = 0; round < kRounds; round++) {
        std::vector<double> distances;
        for (const Reading& reading : readings)
            distances.push_back(std::abs(reading.value - line.at(reading.at_s)));
        double far = kFarAway * kDeviationOfMedian * median(distances);
        for (size_t i = 0; i < readings.size(); i++)
            weights[i] = distances[i] > far && far > 0 ? far / distances[i] : 1;
        line = weighted_line(readings, weights);
    }
    Trend trend;
    trend.count = static_cast<int64_t>(readings.size());
    trend.lasted_s = readings.back().at_s - readings.front().at_s;
    trend.middle = line.at((readings.back().at_s + readings.front().at_s) / 2);
    trend.per_hour = line.slope * kSecondsPerHour;
    trend.margin = margin_of(readings, weights, line) * kSecondsPerHour;
    return trend;
}

double phase_slope(double fps, double refresh_hz, double lasted_s)
{
    // Pictures whose phases repeat after some pictures have as many phases within one refresh.
    constexpr int kMostPhases = 6;
    // After so many rounds of the phases, what is left of the last one does not count.
    constexpr double kRoundsEnough = 3;
    double slope = 0;
    for (int phases = 1; phases <= kMostPhases; phases++) {
        double blanks = std::round(phases * refresh_hz / fps);
        double rounds = std::abs(phases * refresh_hz - blanks * fps) * lasted_s;
        if (rounds < kRoundsEnough)
            slope = std::max(slope, std::min(rounds, 1.0) * 1e3 / refresh_hz / phases / lasted_s * kSecondsPerHour);
    }
    return slope;
}

Outlook outlook_of(const Trend& trend, double hours, double least, double most)
{
    double low = trend.after_h(hours, trend.slowest());
    double high = trend.after_h(hours, trend.fastest());
    if (low > most || high < least)
        return Outlook::leaves;
    return low >= least && high <= most ? Outlook::stays : Outlook::unknown;
}

} // namespace play
