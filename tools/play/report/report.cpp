// SPDX-License-Identifier: MIT
#include "report/report.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

namespace play
{
namespace
{

using nlohmann::json;

double share(int64_t part, int64_t whole)
{
    return whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0;
}

void print_sync(const Result& result)
{
    if (result.options.foreign_source()) {
        std::printf("\nLip sync not measured: when the captured source sent what is not known\n");
        return;
    }
    const OffsetStatistics& offset = result.offset;
    std::printf("\nLip sync at %" PRId64 " of %" PRId64 " instants (+ = sound early)\n", offset.count, result.instants);
    if (offset.count < result.instants && !result.options.file.empty())
        std::printf("  not all   where the film's sound repeats itself exactly, its place cannot be measured\n");
    std::printf("  offset    mean %+.1f ms, deviation %.1f ms, p95 %+.1f ms, worst %+.1f ms\n", offset.mean_ms,
                offset.deviation_ms, offset.p95_ms, offset.worst_ms);
    std::printf("  BT.1359   undetectable %.0f %%, acceptable %.0f %%, unacceptable %.0f %%\n",
                share(offset.undetectable, offset.count), share(offset.acceptable, offset.count),
                share(offset.unacceptable, offset.count));
    std::printf("  latency   sound %.1f ms (%.1f to %.1f), picture %.1f ms (%.1f to %.1f)\n",
                result.sound_latency.mean_ms, result.sound_latency.least_ms, result.sound_latency.most_ms,
                result.picture_latency.mean_ms, result.picture_latency.least_ms, result.picture_latency.most_ms);
}

void print_pictures(const Result& result)
{
    const FrameAccount& frames = result.frames;
    std::printf("\nPictures\n");
    std::printf("  account   rendered %" PRId64 " = flipped %" PRId64 " + dropped %" PRId64 " + held at close %" PRId64
                "; refused %" PRId64 "%s\n",
                frames.rendered, frames.flipped, frames.dropped, frames.held, frames.refused,
                frames.closes() ? "" : "  DOES NOT CLOSE");
    if (frames.foreign != 0 || frames.lost != 0 || frames.no_buffer != 0)
        std::printf("  account   callbacks for foreign frames %" PRId64 ", lost %" PRId64 ", no buffer for %" PRId64
                    "\n",
                    frames.foreign, frames.lost, frames.no_buffer);
    std::printf("  flips     at a stroke with the one before %" PRId64 ", superseded before they were seen %" PRId64
                "\n",
                frames.skipped, result.display_stats.superseded);
    std::printf("  vblank    waits %" PRId64 ", missed %" PRId64 "\n", result.vblank_waits, result.vblank_missed);
    const Cadence& cadence = result.cadence;
    std::printf("  screen    %" PRId64 " pictures on %" PRId64 " vertical blanks: unseen %" PRId64 ", repeats %" PRId64
                "; beyond the rates %" PRId64 " and %" PRId64 " (%.2f %%)\n",
                cadence.pictures, cadence.vblanks, cadence.unseen, cadence.repeats, cadence.excess_unseen,
                cadence.excess_repeats, 100 * cadence.excess());
    std::printf("  on screen");
    for (size_t vblanks = 1; vblanks < cadence.histogram.size(); vblanks++)
        if (cadence.histogram[vblanks] > 0)
            std::printf("  %zu vblank%s: %" PRId64, vblanks, vblanks == 1 ? "" : "s", cadence.histogram[vblanks]);
    std::printf("\n");
    for (const Outage& outage : result.display_stats.outages)
        std::printf("  display   lost at %.1f s: %s; back after %.2f s\n",
                    static_cast<double>(outage.began_ns - result.opened_ns) / 1e9, outage.reason.c_str(),
                    static_cast<double>(outage.lasted_ns) / 1e9);
    if (result.unreadable != 0)
        std::printf("  screen    unreadable %" PRId64 "\n", result.unreadable);
}

void print_samples(const SampleCheck& samples)
{
    std::printf("  samples   in %" PRId64 ", out %" PRId64 ", missing %.0f", samples.in, samples.out, samples.missing);
    if (samples.exact)
        std::printf("; different %" PRId64 "\n", samples.mismatches);
    else
        std::printf("; out of place by %.1f at most\n", samples.worst_place);
}

void print_sound(const Result& result)
{
    const SampleCheck& samples = result.samples;
    std::printf("\nSound\n");
    if (result.options.foreign_source())
        std::printf("  samples   not compared: the captured source is not known; written %" PRId64 "\n",
                    result.audio.written);
    else
        print_samples(samples);
    std::printf("  devices   underruns %" PRId64 " (and %" PRId64 " in the first second), overruns %" PRId64
                ", resets %" PRId64 "\n",
                result.gaps, result.early_gaps, result.overruns, result.resets);
    if (result.starved != 0)
        std::printf("  source    was not decoded in time %" PRId64 " times\n", result.starved);
}

const char* arc_name(hdmi_linux::ArcState state)
{
    switch (state) {
    case hdmi_linux::ArcState::requested: return "requested";
    case hdmi_linux::ArcState::active: return "active";
    case hdmi_linux::ArcState::terminated: return "terminated";
    case hdmi_linux::ArcState::idle: break;
    }
    return "idle";
}

void print_recoveries(const Result& result)
{
    for (const Recovery& recovery : result.recoveries) {
        const Disturbance& disturbance = recovery.disturbance;
        const Silence& silence = recovery.silence;
        std::printf("  %-9s %s at %.2f s, ", recovery.device.c_str(), disturbance_name(disturbance.kind),
                    static_cast<double>(disturbance.at_ns - result.opened_ns) / 1e9);
        if (!silence.ends())
            std::printf("sound did not come back\n");
        else
            std::printf("silent for %.0f ms\n", static_cast<double>(silence.to_ns - silence.from_ns) / 1e6);
    }
}

/// Devices of the machine, and whose word the times are.
void print_edges(const Result& result)
{
    const Options& options = result.options;
    if (options.capture.empty() && options.playback.empty() && options.cec.empty())
        return;
    std::printf("\nReal devices\n");
    if (!options.capture.empty())
        std::printf("  capture   alsa:%s\n", options.capture.c_str());
    for (const Announcement& announcement : result.stage.link.announced)
        std::printf("  announced %s at %.2f s\n", announcement.state.c_str(),
                    static_cast<double>(announcement.at_ns - result.opened_ns) / 1e9);
    for (const std::string& message : result.stage.link.rate_messages)
        std::printf("  but       %s\n", message.c_str());
    if (!options.cec.empty())
        std::printf("  CEC       %s: audio return channel %s\n", options.cec.c_str(), arc_name(result.stage.cec.arc));
    if (!options.feed.empty())
        std::printf("  source    sent into alsa:%s, whose clock is %+.1f ppm fast; breaks %" PRId64 "\n",
                    options.feed.c_str(), result.stage.link.drift_ppm, result.stage.link.breaks);
    if (!options.playback.empty())
        std::printf("  playback  alsa:%s\n", options.playback.c_str());
    if (!options.observe.empty())
        std::printf("  heard     at alsa:%s, whose clock is %+.1f ppm fast; breaks %" PRId64 "\n",
                    options.observe.c_str(), result.stage.sound.drift_ppm, result.stage.sound.observer_breaks);
    else if (!options.playback.empty())
        std::printf("  heard     when the playback device itself says so: what lies behind it is not in the figures\n");
    print_recoveries(result);
}

void print_link(const Result& result)
{
    bool coded = result.coding != Coding::pcm;
    if (!coded && !result.options.raw)
        return;
    std::printf("\nLink\n");
    if (coded)
        std::printf(
            "  time      a coded sample was sent when its burst began to pass, plus its place in the burst's sound;\n"
            "            that a burst must pass before it can be decoded is latency of the player\n");
    if (result.stage.link.chunk_phase >= 0)
        std::printf("  capture   began %d bytes before a burst\n", result.stage.link.chunk_phase);
    if (result.raw.compared)
        std::printf("  output    %" PRId64 " bursts in %" PRId64 " frames, different %" PRId64 ", gaps %" PRId64 "\n",
                    result.raw.bursts, result.raw.frames, result.raw.different, result.raw.gaps);
    const hdmi_linux::BypassStats& bypass = result.stage.bypass;
    if (result.options.raw && !result.options.playback.empty())
        std::printf("  passed on %" PRId64 " frames to %s at %d Hz, dropped %" PRId64 ", underruns %" PRId64
                    ", corrections of the clocks %" PRId64 "\n",
                    bypass.frames, bypass.pcm.c_str(), bypass.rate, bypass.dropped, bypass.xruns, bypass.slips);
}

void print_usage(const Result& result)
{
    std::printf("\nMachine\n");
    std::printf("  CPU       %.3f s per second, of it the player's threads %.3f; peak memory %.1f MB%s\n",
                result.usage.cpu_s, result.usage.player_cpu_s(),
                static_cast<double>(result.usage.peak_memory_kb) / 1024,
                result.realtime ? "" : "; without real-time priority");
}

json to_json(const OffsetStatistics& offset)
{
    return {{"count", offset.count},
            {"mean_ms", offset.mean_ms},
            {"deviation_ms", offset.deviation_ms},
            {"p95_ms", offset.p95_ms},
            {"worst_ms", offset.worst_ms},
            {"bt1359",
             {{"undetectable", offset.undetectable},
              {"acceptable", offset.acceptable},
              {"unacceptable", offset.unacceptable}}}};
}

json to_json(const Latency& latency)
{
    return {{"mean_ms", latency.mean_ms}, {"least_ms", latency.least_ms}, {"most_ms", latency.most_ms}};
}

json to_json(const std::vector<Offset>& offsets)
{
    json list = json::array();
    for (const Offset& offset : offsets)
        list.push_back({{"source_s", static_cast<double>(offset.source_ns) / 1e9},
                        {"offset_ms", offset.ms()},
                        {"sound_latency_ms", offset.sound_ms},
                        {"picture_latency_ms", offset.picture_ms}});
    return list;
}

json outages_json(const Result& result)
{
    json list = json::array();
    for (const Outage& outage : result.display_stats.outages)
        list.push_back({{"at_s", static_cast<double>(outage.began_ns - result.opened_ns) / 1e9},
                        {"lasted_s", static_cast<double>(outage.lasted_ns) / 1e9},
                        {"reason", outage.reason}});
    return list;
}

json pictures_json(const Result& result)
{
    const FrameAccount& frames = result.frames;
    const Cadence& cadence = result.cadence;
    json seen = json::array();
    for (const Sighting& sighting : result.sightings)
        seen.push_back({sighting.number, sighting.vblanks});
    return {{"rendered", frames.rendered},
            {"flipped", frames.flipped},
            {"skipped", frames.skipped},
            {"dropped", frames.dropped},
            {"refused", frames.refused},
            {"held_at_close", frames.held},
            {"foreign", frames.foreign},
            {"lost", frames.lost},
            {"no_buffer", frames.no_buffer},
            {"closes", frames.closes()},
            {"superseded", result.display_stats.superseded},
            {"display_flips", result.display_stats.flips},
            {"display_vblanks", result.display_stats.vblanks},
            {"vblank_waits", result.vblank_waits},
            {"vblank_missed", result.vblank_missed},
            {"unshown", result.display_stats.unshown},
            {"outages", outages_json(result)},
            {"unreadable", result.unreadable},
            {"settled",
             {{"pictures", cadence.pictures},
              {"vblanks", cadence.vblanks},
              {"unseen", cadence.unseen},
              {"repeats", cadence.repeats},
              {"excess_unseen", cadence.excess_unseen},
              {"excess_repeats", cadence.excess_repeats},
              {"excess", cadence.excess()},
              {"stayed_vblanks", cadence.histogram}}},
            {"off_grid_us", {{"p99", result.grid.p99_us}, {"worst", result.grid.worst_us}}},
            {"on_screen", seen}};
}

json sound_json(const Result& result)
{
    const SampleCheck& samples = result.samples;
    return {{"same_rate", samples.same_rate},
            {"exact", samples.exact},
            {"first_source_sample", samples.first_source_sample},
            {"earlier", samples.earlier},
            {"in", samples.in},
            {"out", samples.out},
            {"missing", samples.missing},
            {"mismatches", samples.mismatches},
            {"first_mismatch", samples.first_mismatch},
            {"worst_place", samples.worst_place},
            {"pulled", result.audio.pulled},
            {"discarded_at_start", result.audio.discarded},
            {"written", result.audio.written},
            {"failed_writes", result.audio.failed_writes},
            {"underruns", result.gaps},
            {"underruns_first_second", result.early_gaps},
            {"overruns", result.overruns},
            {"withheld_blocks", result.stage.withheld},
            {"observer_breaks", result.stage.sound.observer_breaks},
            {"drift_ppm", result.stage.sound.drift_ppm}};
}

json cec_json(const Result& result)
{
    const hdmi_linux::CecStats& cec = result.stage.cec;
    return {{"device", cec.device},     {"arc", arc_name(cec.arc)},
            {"note", cec.note},         {"received", cec.received},
            {"sent", cec.sent},         {"undelivered", cec.undelivered},
            {"refusals", cec.refusals}, {"activations", cec.activations}};
}

/// Null: never, or not in this run.
json recoveries_json(const Result& result)
{
    auto length_ms = [](int64_t from_ns, int64_t to_ns) {
        return to_ns < 0 ? json(nullptr) : json(static_cast<double>(to_ns - from_ns) / 1e6);
    };
    json list = json::array();
    for (const Recovery& recovery : result.recoveries) {
        const Disturbance& disturbance = recovery.disturbance;
        const Silence& silence = recovery.silence;
        // Sound may be back before the trouble is noticed.
        int64_t back_ns = silence.ends() ? std::max(silence.to_ns, disturbance.at_ns) : -1;
        list.push_back({{"device", recovery.device},
                        {"kind", disturbance_name(disturbance.kind)},
                        {"at_s", static_cast<double>(disturbance.at_ns - result.opened_ns) / 1e9},
                        {"device_back_ms", length_ms(disturbance.at_ns, disturbance.back_ns)},
                        {"sound_back_ms", length_ms(disturbance.at_ns, back_ns)},
                        {"silent_ms", silence.ends() ? length_ms(silence.from_ns, silence.to_ns) : json(nullptr)}});
    }
    return list;
}

json link_json(const Result& result)
{
    json link = {{"coding", coding_name(result.coding)},
                 {"chunk_phase", result.stage.link.chunk_phase},
                 {"breaks", result.stage.link.breaks},
                 {"drift_ppm", result.stage.link.drift_ppm}};
    json announced = json::array();
    for (const Announcement& announcement : result.stage.link.announced)
        announced.push_back({{"at_s", static_cast<double>(announcement.at_ns - result.opened_ns) / 1e9},
                             {"state", announcement.state}});
    link["announced"] = announced;
    link["rate_messages"] = result.stage.link.rate_messages;
    if (result.options.raw)
        link["raw"] = {{"compared", result.raw.compared},
                       {"frames", result.raw.frames},
                       {"bursts", result.raw.bursts},
                       {"different", result.raw.different},
                       {"gaps", result.raw.gaps},
                       {"passed_on", result.stage.bypass.frames},
                       {"dropped", result.stage.bypass.dropped},
                       {"underruns", result.stage.bypass.xruns},
                       {"corrections", result.stage.bypass.slips}};
    return link;
}

json options_json(const Result& result)
{
    const Options& options = result.options;
    return {{"file", options.file},
            {"programme", result.programme},
            {"display_rate", result.display_hz},
            {"display", result.display},
            {"capture", options.capture.empty() ? "sim" : "alsa:" + options.capture},
            {"playback", options.playback.empty() ? "sim" : "alsa:" + options.playback},
            {"cec", options.cec.empty() ? "sim" : options.cec},
            {"feed", options.feed.empty() ? "" : "alsa:" + options.feed},
            {"observe", options.observe.empty() ? "" : "alsa:" + options.observe},
            {"output", static_cast<int>(options.output)},
            {"algorithm_delay_ms", options.algorithm_delay_ms},
            {"video_start_ms", options.video_start_ms},
            {"phase_ms", options.phase_ms},
            {"receiver_ppm", options.receiver_ppm},
            {"playback_ppm", options.playback_ppm},
            {"display_latency_ms", options.display_latency_ms()},
            {"raw", options.raw},
            {"sync", !options.no_sync},
            {"withhold_block", options.withhold_block},
            {"video_queue_size", result.video_queue_size},
            {"realtime", result.realtime}};
}

} // namespace

void print_report(const Result& result, const std::vector<Verdict>& verdicts)
{
    std::printf("\n%s; display %s, %.5g Hz; %.1f s\n", result.programme.c_str(), result.display.c_str(),
                result.display_hz, result.seconds);
    if (!result.options.raw)
        print_sync(result);
    print_pictures(result);
    if (!result.options.raw)
        print_sound(result);
    print_link(result);
    print_edges(result);
    print_usage(result);
    std::printf("\nLimits\n");
    for (const Verdict& verdict : verdicts)
        std::printf("  %s  %s\n", verdict.passed ? "ok  " : "FAIL", verdict.limit.c_str());
    std::printf("\n%s\n", all_passed(verdicts) ? "PASS" : "FAIL");
    std::fflush(stdout);
}

json report_json(const Result& result, const std::vector<Verdict>& verdicts)
{
    json limits = json::array();
    for (const Verdict& verdict : verdicts)
        limits.push_back({{"limit", verdict.limit}, {"passed", verdict.passed}});
    return {{"passed", all_passed(verdicts)},
            {"limits", limits},
            {"run", options_json(result)},
            {"seconds", result.seconds},
            {"offset", to_json(result.offset)},
            {"instants", result.instants},
            {"offsets", to_json(result.offsets)},
            {"sound_latency", to_json(result.sound_latency)},
            {"picture_latency", to_json(result.picture_latency)},
            {"pictures", pictures_json(result)},
            {"sound", sound_json(result)},
            {"recoveries", recoveries_json(result)},
            {"cec", cec_json(result)},
            {"link", link_json(result)},
            {"resets", result.resets},
            {"reset_s", result.reset_s},
            {"unsupported_events", result.unsupported},
            {"source_starved", result.starved},
            {"cpu_s_per_s", result.usage.cpu_s},
            {"player_cpu_s_per_s", result.usage.player_cpu_s()},
            {"cpu_by_thread", result.usage.by_thread},
            {"peak_memory_kb", result.usage.peak_memory_kb}};
}

bool write_report(const json& report, const std::string& path, std::string* error)
{
    std::ofstream out(path);
    // A file's name may be any bytes; JSON is UTF-8.
    out << report.dump(1, ' ', false, json::error_handler_t::replace) << "\n";
    out.close();
    if (out)
        return true;
    *error = path + ": " + std::strerror(errno);
    return false;
}

} // namespace play
