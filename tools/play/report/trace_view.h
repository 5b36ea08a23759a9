// SPDX-License-Identifier: MIT
/**
 * @file
 * From the events of a run to what its charts show. Times are seconds of the
 * source's clock: instants of the source, and what became of them, share one
 * axis.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

#include "host/trace.h"
#include "measure/measure.h"
#include "report/chart.h"
#include "screen/screen.h"

namespace play
{

/// A block that the playback device took.
struct BlockView {
    double at_s;
    double length_ms;
    std::optional<double> queue_ms; ///< what the device had to play then
    std::optional<double> clock_s;  ///< the time stamp being heard then: at the end of what was written, less the queue
    /// How far the clock was ahead of the source's, compared with the median of its serial.
    std::optional<double> deviation_ms;
    int32_t serial;
};

struct FlipView {
    double at_s;
    int64_t number;
    bool shown;
};

struct PictureView {
    double from_s; ///< the vertical blank that took it
    double to_s;
    int64_t number;
    bool flash;
};

/// An instant of the source, seen and heard.
struct MeetingView {
    double seen_s;
    double heard_s;
    double offset_ms; ///< positive: the sound came first
};

/// A part of the run in all its detail.
struct Timeline {
    double from_s = 0;
    double to_s = 0;
    bool chosen = false; ///< by the user
    std::vector<double> vblanks_s;
    std::vector<FlipView> flips;
    std::vector<PictureView> pictures;
    std::vector<BlockView> blocks;
    std::vector<MeetingView> meetings;
};

/// Pictures that stayed on the screen for a time in that range.
struct StayBin {
    double from_ms;
    double to_ms;
    bool last; ///< and those that stayed longer
    int64_t count;
};

struct Spread {
    int64_t count = 0;
    double least = 0;
    double median = 0;
    double most = 0;
};

struct TraceView {
    std::vector<CurvePoint> queue_ms;
    std::vector<CurvePoint> deviation_ms;
    Spread queue;                    ///< ms, settled
    Spread deviation;                ///< ms, settled
    std::optional<double> drift_ppm; ///< by which the clock gains on the source, settled; nothing: too short to tell
    std::vector<StayBin> stayed;     ///< settled, where there are no vertical blanks to count
    double settled_s = 0;
    double end_s = 0;
    double player_opened_s = 0;
    std::vector<double> opened_s; ///< the playback device
    int64_t lost = 0;             ///< events for which there was no room
    int64_t unmatched = 0;        ///< blocks at the device that are none of the host's
    Timeline timeline;
};

/// What of a run the charts show, and how its times are read.
struct TraceScope {
    std::function<double(int64_t monotonic_ns)> source_s;
    int64_t player_opened_ns = 0;
    double settled_s = 0;             ///< from then on figures count
    double end_s = 0;                 ///< to there
    std::optional<double> timeline_s; ///< where the timeline is to begin; nothing: at a typical second
    bool flashes = false;             ///< the source marks its instants with flashes
    bool paced = true;                ///< the display has vertical blanks
    int64_t display_latency_ns = 0;   ///< from the vertical blank to light
};

TraceView view_trace(const Trace& trace, const TraceScope& scope, const std::vector<Sighting>& sightings,
                     const std::vector<Offset>& offsets);

nlohmann::json to_json(const TraceView& view);

} // namespace play
