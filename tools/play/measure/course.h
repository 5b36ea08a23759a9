// SPDX-License-Identifier: MIT
/**
 * @file
 * How a run went from its beginning to its end, where its figures are heading, and what bursts that were lost have
 * left behind.
 */
#pragma once

#include <optional>
#include <vector>

#include "measure/measure.h"
#include "measure/trend.h"
#include "source/burst_losses.h"

namespace play
{

/// ATSC IS-191, for what a receiver may add: sound up to 15 ms early or 45 ms late.
constexpr double kIs191EarlyMs = 15;
constexpr double kIs191LateMs = -45;
/// From this length on, a run's trend is judged.
constexpr double kTrendFromS = 300;
/// A trend must stay within the limits for as long as this.
constexpr double kTrendHours = 24;
/// The last minute by the second one.
constexpr double kMostMovedMs = 2;
/// A picture is seen at a vertical blank, up to half a refresh beside its time; and by so much more.
constexpr double kMostBesideMs = 2;
/// Where the pictures' phase comes round sooner, a minute has all of it.
constexpr double kShortBeatS = 20;

/// Means of the last minute less means of the second one.
struct Moved {
    double offset_ms;
    double sound_ms;
};

/**
 * The pictures' way to the light. They come by the source's clock and are seen at vertical blanks; so their latency is
 * a sawtooth as high as a refresh, and the mean of a part of it is no measure.
 */
struct LightPath {
    double beat_s = 0;              ///< in which the sawtooth comes round; 0: it stands still
    double within_ms = 0;           ///< 99 % are that near to one time, from the second minute on
    double allowed_ms = 0;          ///< half a refresh and kMostBesideMs
    std::optional<double> moved_ms; ///< mean of the last whole beats less that of the first ones, from the second
                                    ///< minute on, a minute or more each; nothing: the run has no two of them
    bool whole_minutes = true;      ///< a minute has all phases: then the offset's minutes can be compared as well
};

/// One loss of bursts: an instant before it, and the first one half a second behind it.
struct LossReading {
    LostBursts lost;
    std::optional<Offset> before;
    std::optional<Offset> after;
    int64_t resets = 0; ///< between the two

    bool measured() const { return before && after; }
    double sound_moved_ms() const { return after->sound_ms - before->sound_ms; }
};
/// @p offsets in their order; @p resets_ns of the source.
std::vector<LossReading> read_losses(const std::vector<LostBursts>& lost, const std::vector<Offset>& offsets,
                                     const std::vector<int64_t>& resets_ns);

struct Course {
    std::optional<Trend> offset;    ///< sound against picture
    std::optional<Trend> flight;    ///< of the sound, from the capture device to the output's cable
    std::optional<Trend> fill;      ///< of the output device after each block, in ms
    double phase_slope = 0;         ///< see there; it widens the margin of the offset
    std::optional<Outlook> outlook; ///< of the offset, within EBU R37; nothing: the run is too short
    double p99_ms = 0;              ///< 99 % do not exceed it, ordered by their share of the IS-191 limit on their side
    std::optional<Moved> moved;     ///< of a run of three minutes and more
    std::optional<LightPath> light; ///< likewise, on a display with vertical blanks

    bool p99_inside() const { return p99_ms <= kIs191EarlyMs && p99_ms >= kIs191LateMs; }
};

/// What the run was to be.
struct Terms {
    double fps; ///< pictures per second, by the display's clock
    double refresh_hz;
    int sound_later_ms = 0; ///< on purpose: it does not count
    double second_s = 1;    ///< of the source, by the display's clock
    bool vblanks = true;
};
/// @p fills by the source's clock.
Course measure_course(const std::vector<Offset>& offsets, std::vector<Reading> fills, const Terms& terms);

} // namespace play
