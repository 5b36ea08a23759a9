// SPDX-License-Identifier: MIT
#include "report/trace_view.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>

namespace play
{
namespace
{

using nlohmann::json;

/// More than a chart has room for side by side.
constexpr size_t kCurvePoints = 600;
/// Blocks that the player may discard between two that it plays: its output queue.
constexpr size_t kLongestDiscard = 256;
/// Least time of a slope that a few more readings would not reverse.
constexpr double kShortestDriftS = 5;
constexpr double kTimelineS = 1;

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

Spread spread_of(const std::vector<double>& values)
{
    if (values.empty())
        return {};
    auto [least, most] = std::minmax_element(values.begin(), values.end());
    return {static_cast<int64_t>(values.size()), *least, median(values), *most};
}

int rate_at(const std::vector<OpenedEvent>& opened, int64_t at_ns)
{
    int rate = 0;
    for (const OpenedEvent& event : opened)
        if (rate == 0 || event.at_ns <= at_ns)
            rate = event.rate;
    return rate;
}

/// Both lists are in order; what the player discarded is in the first one only.
std::vector<const HandedEvent*> match(const std::vector<HandedEvent>& handed, const std::vector<WrittenEvent>& written)
{
    std::vector<const HandedEvent*> origins;
    auto next = handed.begin();
    for (const WrittenEvent& block : written) {
        auto end = next + std::min<std::ptrdiff_t>(kLongestDiscard, handed.end() - next);
        auto found = std::find_if(next, end, [&block](const HandedEvent& event) {
            return event.mark == block.mark && event.frames == block.frames && event.at_ns <= block.at_ns;
        });
        origins.push_back(found != end ? &*found : nullptr);
        if (found != end)
            next = found + 1;
    }
    return origins;
}

std::vector<BlockView> view_blocks(const Trace& trace, const TraceScope& scope, int64_t* unmatched)
{
    std::vector<HandedEvent> handed = trace.handed.events();
    std::vector<WrittenEvent> written = trace.written.events();
    std::vector<OpenedEvent> opened = trace.opened.events();
    std::vector<const HandedEvent*> origins = match(handed, written);
    std::vector<BlockView> blocks;
    for (size_t i = 0; i < written.size(); i++) {
        const WrittenEvent& block = written[i];
        int rate = rate_at(opened, block.at_ns);
        if (rate <= 0)
            continue;
        BlockView view = {scope.source_s(block.at_ns), block.frames * 1e3 / rate, {}, {}, {}, -1};
        if (block.delay_frames >= 0)
            view.queue_ms = block.delay_frames * 1e3 / rate;
        if (origins[i] != nullptr) {
            view.serial = origins[i]->serial;
            if (view.queue_ms)
                view.clock_s = static_cast<double>(origins[i]->pts_us) / 1e6 + (view.length_ms - *view.queue_ms) / 1e3;
        }
        *unmatched += origins[i] == nullptr ? 1 : 0;
        blocks.push_back(view);
    }
    return blocks;
}

/// Each serial has a zero of its own: its clock is compared with the median of its own readings, of the settled ones
/// if there are any.
void find_deviations(std::vector<BlockView>* blocks, const TraceScope& scope)
{
    std::map<int32_t, std::vector<double>> all;
    std::map<int32_t, std::vector<double>> settled;
    for (const BlockView& block : *blocks) {
        if (!block.clock_s)
            continue;
        double lead_ms = (*block.clock_s - block.at_s) * 1e3;
        all[block.serial].push_back(lead_ms);
        if (block.at_s >= scope.settled_s && block.at_s < scope.end_s)
            settled[block.serial].push_back(lead_ms);
    }
    std::map<int32_t, double> usual;
    for (const auto& [serial, leads] : all)
        usual[serial] = median(settled.count(serial) > 0 ? settled[serial] : leads);
    for (BlockView& block : *blocks)
        if (block.clock_s)
            block.deviation_ms = (*block.clock_s - block.at_s) * 1e3 - usual[block.serial];
}

/// Least squares through the deviations of the serial that was played last.
std::optional<double> drift_of(const std::vector<BlockView>& blocks, const TraceScope& scope)
{
    double n = 0;
    double sum_x = 0;
    double sum_y = 0;
    double sum_xx = 0;
    double sum_xy = 0;
    double first_s = scope.end_s;
    double last_s = scope.settled_s;
    int32_t serial = blocks.empty() ? 0 : blocks.back().serial;
    for (const BlockView& block : blocks) {
        if (!block.deviation_ms || block.serial != serial || block.at_s < scope.settled_s || block.at_s >= scope.end_s)
            continue;
        double x = block.at_s - scope.settled_s;
        n++;
        sum_x += x;
        sum_y += *block.deviation_ms;
        sum_xx += x * x;
        sum_xy += x * *block.deviation_ms;
        first_s = std::min(first_s, block.at_s);
        last_s = std::max(last_s, block.at_s);
    }
    double divisor = n * sum_xx - sum_x * sum_x;
    if (last_s - first_s < kShortestDriftS || !(divisor > 0))
        return std::nullopt;
    // From ms per second to parts per million.
    return (n * sum_xy - sum_x * sum_y) / divisor * 1e3;
}

/// @p value: what to take from a block, if it has it.
template <typename Value> std::vector<CurvePoint> curve_of(const std::vector<BlockView>& blocks, Value value)
{
    std::vector<CurvePoint> curve;
    if (blocks.empty())
        return curve;
    double step_s = (blocks.back().at_s - blocks.front().at_s) / static_cast<double>(kCurvePoints);
    bool thin = blocks.size() > kCurvePoints;
    for (const BlockView& block : blocks) {
        std::optional<double> y = value(block);
        if (!y)
            continue;
        if (thin && !curve.empty() && block.at_s < curve.back().at_s + step_s) {
            curve.back().least = std::min(curve.back().least, *y);
            curve.back().most = std::max(curve.back().most, *y);
        } else {
            curve.push_back({block.at_s, *y, *y});
        }
    }
    return curve;
}

std::vector<double> seconds_of(const std::vector<int64_t>& times_ns, const TraceScope& scope)
{
    std::vector<double> times_s;
    for (int64_t at_ns : times_ns)
        times_s.push_back(scope.source_s(at_ns));
    std::sort(times_s.begin(), times_s.end());
    return times_s;
}

std::vector<FlipView> view_flips(const Trace& trace, const TraceScope& scope)
{
    std::vector<FlipView> flips;
    for (const FlipEvent& flip : trace.flips.events())
        flips.push_back({scope.source_s(flip.at_ns), flip.number, flip.shown});
    std::sort(flips.begin(), flips.end(), [](const FlipView& a, const FlipView& b) { return a.at_s < b.at_s; });
    return flips;
}

/// Each picture until the next one takes its place.
std::vector<PictureView> view_pictures(const std::vector<Sighting>& sightings, const TraceScope& scope)
{
    std::vector<PictureView> pictures;
    for (const Sighting& sighting : sightings) {
        double from_s = scope.source_s(sighting.seen_ns - scope.display_latency_ns);
        if (!pictures.empty())
            pictures.back().to_s = from_s;
        pictures.push_back({from_s, from_s, sighting.number, scope.flashes && sighting.flash});
    }
    return pictures;
}

/// In some ten ranges of a round length, and one for what stayed longer than twice as long as most.
std::vector<StayBin> view_stays(const std::vector<PictureView>& pictures, const TraceScope& scope)
{
    constexpr double kMostBins = 16;
    constexpr double kRounding = 1e-6; // what stayed for a bin's very beginning belongs there
    std::vector<double> stays_ms;
    for (const PictureView& picture : pictures)
        if (picture.from_s >= scope.settled_s && picture.to_s > picture.from_s && picture.to_s < scope.end_s)
            stays_ms.push_back((picture.to_s - picture.from_s) * 1e3);
    if (stays_ms.empty())
        return {};
    double wanted_ms = 2 * median(stays_ms) / kMostBins;
    double width_ms = std::pow(10, std::max(0.0, std::ceil(std::log10(wanted_ms))));
    for (double part : {5.0, 2.0})
        if (width_ms / part >= std::max(wanted_ms, 1.0)) {
            width_ms /= part;
            break;
        }
    std::map<int64_t, int64_t> counts;
    auto last_bin = static_cast<int64_t>(kMostBins);
    for (double stay_ms : stays_ms)
        counts[std::min(static_cast<int64_t>(stay_ms / width_ms + kRounding), last_bin)]++;
    std::vector<StayBin> bins;
    for (auto [bin, count] : counts) {
        double from_ms = static_cast<double>(bin) * width_ms;
        bins.push_back({from_ms, from_ms + width_ms, bin == last_bin, count});
    }
    return bins;
}

std::vector<MeetingView> view_meetings(const std::vector<Offset>& offsets)
{
    std::vector<MeetingView> meetings;
    for (const Offset& offset : offsets) {
        double source_s = static_cast<double>(offset.source_ns) / 1e9;
        meetings.push_back({source_s + offset.picture_ms / 1e3, source_s + offset.sound_ms / 1e3, offset.ms()});
    }
    return meetings;
}

template <typename Item, typename Place>
std::vector<Item> inside(const std::vector<Item>& items, double from_s, double to_s, Place place)
{
    std::vector<Item> chosen;
    std::copy_if(items.begin(), items.end(), std::back_inserter(chosen),
                 [&](const Item& item) { return place(item) >= from_s && place(item) < to_s; });
    return chosen;
}

/// How many of @p times lie in each of @p seconds seconds from @p from_s on.
std::vector<double> counts_by_second(const std::vector<double>& times, double from_s, size_t seconds)
{
    std::vector<double> counts(seconds);
    for (double at_s : times)
        if (at_s >= from_s && at_s < from_s + static_cast<double>(seconds))
            counts[static_cast<size_t>(at_s - from_s)]++;
    return counts;
}

/// A settled second with the most common number of events; of several, the one nearest to the middle.
double typical_second(const std::vector<std::vector<double>>& kinds, const TraceScope& scope)
{
    double from_s = std::ceil(scope.settled_s);
    if (!(scope.end_s - from_s >= kTimelineS))
        return scope.settled_s;
    auto seconds = static_cast<size_t>(scope.end_s - from_s);
    std::vector<double> strangeness(seconds);
    for (const std::vector<double>& times : kinds) {
        std::vector<double> counts = counts_by_second(times, from_s, seconds);
        double usual = median(counts);
        for (size_t i = 0; i < seconds; i++)
            strangeness[i] += std::abs(counts[i] - usual);
    }
    size_t best = seconds / 2;
    for (size_t i = 0; i < seconds; i++) {
        auto from_middle = [seconds](size_t second) {
            return std::abs(static_cast<double>(second) - static_cast<double>(seconds) / 2);
        };
        if (strangeness[i] < strangeness[best] ||
            (strangeness[i] == strangeness[best] && from_middle(i) < from_middle(best)))
            best = i;
    }
    return from_s + static_cast<double>(best);
}

template <typename Item, typename Place> std::vector<double> places(const std::vector<Item>& items, Place place)
{
    std::vector<double> result;
    std::transform(items.begin(), items.end(), std::back_inserter(result), place);
    return result;
}

json to_json(const std::vector<CurvePoint>& curve)
{
    json list = json::array();
    for (const CurvePoint& point : curve)
        list.push_back({point.at_s, point.least, point.most});
    return list;
}

json to_json(const Spread& spread)
{
    if (spread.count == 0)
        return nullptr;
    return {{"count", spread.count}, {"least", spread.least}, {"median", spread.median}, {"most", spread.most}};
}

json to_json(const std::vector<StayBin>& bins)
{
    json list = json::array();
    for (const StayBin& bin : bins)
        list.push_back(
            {{"from_ms", bin.from_ms}, {"to_ms", bin.last ? json(nullptr) : json(bin.to_ms)}, {"count", bin.count}});
    return list;
}

json or_null(const std::optional<double>& value) { return value ? json(*value) : json(nullptr); }

json to_json(const Timeline& timeline)
{
    json flips = json::array();
    for (const FlipView& flip : timeline.flips)
        flips.push_back({{"s", flip.at_s}, {"picture", flip.number}, {"shown", flip.shown}});
    json pictures = json::array();
    for (const PictureView& picture : timeline.pictures)
        pictures.push_back({{"from_s", picture.from_s},
                            {"to_s", picture.to_s},
                            {"picture", picture.number},
                            {"flash", picture.flash}});
    json blocks = json::array();
    for (const BlockView& block : timeline.blocks)
        blocks.push_back({{"s", block.at_s},
                          {"length_ms", block.length_ms},
                          {"queue_ms", or_null(block.queue_ms)},
                          {"clock_s", or_null(block.clock_s)},
                          {"deviation_ms", or_null(block.deviation_ms)}});
    json meetings = json::array();
    for (const MeetingView& meeting : timeline.meetings)
        meetings.push_back(
            {{"seen_s", meeting.seen_s}, {"heard_s", meeting.heard_s}, {"offset_ms", meeting.offset_ms}});
    return {{"from_s", timeline.from_s}, {"to_s", timeline.to_s}, {"vblanks_s", timeline.vblanks_s}, {"flips", flips},
            {"pictures", pictures},      {"blocks", blocks},      {"seen_and_heard", meetings}};
}

} // namespace

TraceView view_trace(const Trace& trace, const TraceScope& scope, const std::vector<Sighting>& sightings,
                     const std::vector<Offset>& offsets)
{
    TraceView view;
    view.settled_s = scope.settled_s;
    view.end_s = scope.end_s;
    view.player_opened_s = scope.source_s(scope.player_opened_ns);
    view.lost = trace.lost();
    for (const OpenedEvent& event : trace.opened.events())
        view.opened_s.push_back(scope.source_s(event.at_ns));

    std::vector<BlockView> blocks = view_blocks(trace, scope, &view.unmatched);
    find_deviations(&blocks, scope);
    view.queue_ms = curve_of(blocks, [](const BlockView& block) { return block.queue_ms; });
    view.deviation_ms = curve_of(blocks, [](const BlockView& block) { return block.deviation_ms; });
    auto block_place = [](const BlockView& block) { return block.at_s; };
    std::vector<double> queue;
    std::vector<double> deviation;
    for (const BlockView& block : inside(blocks, scope.settled_s, scope.end_s, block_place)) {
        if (block.queue_ms)
            queue.push_back(*block.queue_ms);
        if (block.deviation_ms)
            deviation.push_back(*block.deviation_ms);
    }
    view.queue = spread_of(queue);
    view.deviation = spread_of(deviation);
    view.drift_ppm = drift_of(blocks, scope);

    std::vector<double> vblanks = seconds_of(trace.vblanks.events(), scope);
    std::vector<FlipView> flips = view_flips(trace, scope);
    auto flip_place = [](const FlipView& flip) { return flip.at_s; };
    Timeline& timeline = view.timeline;
    timeline.chosen = scope.timeline_s.has_value();
    timeline.from_s = timeline.chosen
                          ? *scope.timeline_s
                          : typical_second({vblanks, places(flips, flip_place), places(blocks, block_place)}, scope);
    timeline.to_s = timeline.from_s + kTimelineS;
    auto of_timeline = [&timeline](const auto& items, auto place) {
        return inside(items, timeline.from_s, timeline.to_s, place);
    };
    timeline.vblanks_s = of_timeline(vblanks, [](double at_s) { return at_s; });
    timeline.flips = of_timeline(flips, flip_place);
    timeline.blocks = of_timeline(blocks, block_place);
    timeline.meetings = of_timeline(view_meetings(offsets), [](const MeetingView& meeting) { return meeting.seen_s; });
    std::vector<PictureView> pictures = view_pictures(sightings, scope);
    if (!scope.paced)
        view.stayed = view_stays(pictures, scope);
    for (const PictureView& picture : pictures)
        if (picture.to_s > timeline.from_s && picture.from_s < timeline.to_s)
            timeline.pictures.push_back(picture);
    return view;
}

json to_json(const TraceView& view)
{
    return {{"settled_s", view.settled_s},
            {"end_s", view.end_s},
            {"queue_ms", to_json(view.queue)},
            {"clock_deviation_ms", to_json(view.deviation)},
            {"clock_drift_ppm", or_null(view.drift_ppm)},
            {"player_opened_s", view.player_opened_s},
            {"opened_s", view.opened_s},
            {"stayed", to_json(view.stayed)},
            {"lost_events", view.lost},
            {"unmatched_blocks", view.unmatched},
            {"queue_over_time", to_json(view.queue_ms)},
            {"clock_deviation_over_time", to_json(view.deviation_ms)},
            {"timeline", to_json(view.timeline)}};
}

} // namespace play
