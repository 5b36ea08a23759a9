// SPDX-License-Identifier: MIT
#include "report/records.h"

#include <algorithm>

namespace play
{

using nlohmann::json;

double after_opening_s(const Result& result, int64_t at_ns)
{
    return static_cast<double>(at_ns - result.opened_ns) / 1e9;
}

json offset_records(const Result& result)
{
    json list = json::array();
    for (const Offset& offset : result.offsets)
        list.push_back({{"source_s", static_cast<double>(offset.source_ns) / 1e9},
                        {"offset_ms", offset.ms()},
                        {"sound_latency_ms", offset.sound_ms},
                        {"picture_latency_ms", offset.picture_ms}});
    return list;
}

json loss_records(const Result& result)
{
    auto instant = [](const std::optional<Offset>& offset) {
        return offset ? json{{"offset_ms", offset->ms()}, {"sound_latency_ms", offset->sound_ms}} : json();
    };
    json list = json::array();
    for (const LossReading& reading : result.losses)
        list.push_back({{"kind", loss_name(reading.lost.loss.kind)},
                        {"bursts", reading.lost.loss.bursts},
                        {"from_s", static_cast<double>(reading.lost.from_ns) / 1e9},
                        {"to_s", static_cast<double>(reading.lost.to_ns) / 1e9},
                        {"before", instant(reading.before)},
                        {"after", instant(reading.after)},
                        {"resets", reading.resets}});
    return list;
}

json sighting_records(const Result& result)
{
    json list = json::array();
    for (const Sighting& sighting : result.sightings)
        list.push_back({sighting.number, sighting.vblanks});
    return list;
}

json outage_records(const Result& result)
{
    json list = json::array();
    for (const display::Outage& outage : result.display_stats.outages)
        list.push_back({{"at_s", after_opening_s(result, outage.began_ns)},
                        {"lasted_s", static_cast<double>(outage.lasted_ns) / 1e9},
                        {"reason", outage.reason}});
    return list;
}

/// Null: never, or not in this run.
json recovery_records(const Result& result)
{
    auto length_ms = [](int64_t from_ns, int64_t to_ns) {
        return to_ns < 0 ? json(nullptr) : json(static_cast<double>(to_ns - from_ns) / 1e6);
    };
    json list = json::array();
    for (const Recovery& recovery : result.recoveries) {
        const Disturbance& disturbance = recovery.disturbance;
        const Silence& silence = recovery.silence;
        // Sound may be back before the disturbance is noticed.
        int64_t back_ns = silence.ends() ? std::max(silence.to_ns, disturbance.at_ns) : -1;
        list.push_back({{"device", recovery.device},
                        {"kind", disturbance_name(disturbance.kind)},
                        {"at_s", after_opening_s(result, disturbance.at_ns)},
                        {"device_back_ms", length_ms(disturbance.at_ns, disturbance.back_ns)},
                        {"sound_back_ms", length_ms(disturbance.at_ns, back_ns)},
                        {"silent_ms", silence.ends() ? length_ms(silence.from_ns, silence.to_ns) : json(nullptr)}});
    }
    return list;
}

json announcement_records(const Result& result)
{
    json list = json::array();
    for (const Announcement& announcement : result.stage.link.announced)
        list.push_back({{"at_s", after_opening_s(result, announcement.at_ns)}, {"state", announcement.state}});
    return list;
}

} // namespace play
