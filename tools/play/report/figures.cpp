// SPDX-License-Identifier: MIT
#include "report/figures.h"

#include <signal.h>

#include <cstdio>

#include "config/program.h"
#include "report/records.h"

namespace play
{
namespace
{

using nlohmann::json;
using R = const Result&;

// --- Which lines a run has -------------------------------------------------------

bool plays_sound(R r) { return !r.options.raw; }
bool passes_bursts(R r) { return r.options.raw; }
bool has_link(R r) { return r.coding != Coding::pcm || r.options.raw; }
bool passes_to_device(R r) { return r.options.raw && !r.options.playback.empty(); }
bool has_vblanks(R r) { return r.paced; }
bool has_feed(R r) { return !r.options.feed.empty(); }
bool has_observer(R r) { return !r.options.observe.empty(); }
bool has_cec(R r) { return !r.options.cec.empty(); }

// --- Why figures were not measured ------------------------------------------------------

std::string instants_unmeasured(R r)
{
    if (!r.options.sync_known())
        return "when the captured source sent what is not known";
    if (r.captured_bursts)
        return "the captured sound is compressed";
    if (r.audio.written == 0)
        return "no sound was played";
    return r.instants == 0 ? "the run was too short" : "";
}

std::string offsets_unmeasured(R r)
{
    std::string why = instants_unmeasured(r);
    return why.empty() && r.offset.count == 0 ? "no instant of the source was both seen and heard" : why;
}

std::string samples_unmeasured(R r)
{
    if (r.options.foreign_source())
        return "the captured source is not known";
    if (r.audio.written == 0)
        return "no sound was played";
    return r.samples.first_source_sample < 0 ? "nothing of the source was found in the sound that was played" : "";
}

std::string underruns_unmeasured(R r)
{
    if (r.options.raw && r.options.playback.empty())
        return "the simulated output takes bursts at any time";
    return !r.options.raw && r.audio.written == 0 ? "no sound was played" : "";
}

std::string cadence_unmeasured(R r) { return r.cadence.pictures == 0 ? "no picture was seen" : ""; }

std::string grid_unmeasured(R r)
{
    if (!r.paced)
        return "the display has no vertical blanks";
    return r.sightings.size() < 2 ? "no two pictures were seen" : "";
}

std::string bursts_unmeasured(R r) { return r.raw.compared ? "" : "nobody listened at the output"; }

std::string ticks_unmeasured(R r) { return r.punctuality.ticks == 0 ? "no timer ran beside the player" : ""; }

bool has_trend(R r) { return plays_sound(r) && r.course.offset.has_value(); }
bool has_chain(R r) { return r.chain.count > 0; }
bool has_outlook(R r) { return plays_sound(r) && r.course.outlook.has_value(); }
bool has_moved(R r) { return plays_sound(r) && r.course.moved.has_value(); }
bool has_light(R r) { return plays_sound(r) && r.course.light.has_value(); }
bool has_tones(R r) { return r.options.tones; }

std::string tones_unmeasured(R r)
{
    return r.fidelity.windows == 0 ? "the run was too short, or its sound was not found" : "";
}

// When a line of figures is measured.
constexpr When kAlways = {nullptr, nullptr};
constexpr When kWithInstants = {plays_sound, instants_unmeasured};
constexpr When kWithOffsets = {plays_sound, offsets_unmeasured};
constexpr When kWithChain = {has_chain, nullptr};
constexpr When kWithTrend = {has_trend, nullptr};
constexpr When kWithOutlook = {has_outlook, nullptr};
constexpr When kWithMoved = {has_moved, nullptr};
constexpr When kWithLight = {has_light, nullptr};
constexpr When kWithTones = {has_tones, tones_unmeasured};
constexpr When kWithVblanks = {has_vblanks, nullptr};
constexpr When kWithSightings = {nullptr, cadence_unmeasured};
constexpr When kWithGrid = {nullptr, grid_unmeasured};
constexpr When kWithSamples = {plays_sound, samples_unmeasured};
constexpr When kWithPlayedSound = {plays_sound, nullptr};
constexpr When kWithOutput = {nullptr, underruns_unmeasured};
constexpr When kWithLink = {has_link, nullptr};
constexpr When kWithHeardBursts = {passes_bursts, bursts_unmeasured};
constexpr When kWithBursts = {passes_bursts, nullptr};
constexpr When kWithBypass = {passes_to_device, nullptr};
constexpr When kWithTicks = {nullptr, ticks_unmeasured};
constexpr When kWithCec = {has_cec, nullptr};

// --- Words --------------------------------------------------------------------

std::string hertz(const json& value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.5g Hz", value.get<double>());
    return text;
}

std::string output_name(const json& value)
{
    constexpr const char* kNames[] = {"automatic", "speaker", "headphone", "S/PDIF", "ARC", "I2S"};
    auto output = value.get<size_t>();
    return output < std::size(kNames) ? kNames[output] : std::to_string(output);
}

std::string signal_words(const json& number)
{
    return number == SIGINT ? "SIGINT" : number == SIGTERM ? "SIGTERM" : number == SIGHUP ? "SIGHUP" : number.dump();
}

std::string account_words(const json& closes) { return closes.get<bool>() ? "closes" : "DOES NOT CLOSE"; }

/// "1 vblank: 176  2 vblanks: 3"
std::string histogram_words(const json& histogram)
{
    std::string words;
    for (size_t vblanks = 1; vblanks < histogram.size(); vblanks++)
        if (histogram[vblanks] != 0)
            words += (words.empty() ? "" : "  ") + std::to_string(vblanks) + " vblank" + (vblanks == 1 ? "" : "s") +
                     ": " + histogram[vblanks].dump();
    return words;
}

/// Of the offset's trend, with its margin.
json outlook_words(R r)
{
    switch (*r.course.outlook) {
    case Outlook::stays: return "stays inside EBU R37";
    case Outlook::leaves: return "leaves EBU R37";
    case Outlook::unknown: break;
    }
    return "may leave EBU R37: the trend is not known well enough to tell";
}

constexpr const char* arc_name(hdmi_linux::ArcState state)
{
    switch (state) {
    case hdmi_linux::ArcState::requested: return "requested";
    case hdmi_linux::ArcState::active: return "active";
    case hdmi_linux::ArcState::terminated: return "terminated";
    case hdmi_linux::ArcState::idle: break;
    }
    return "idle";
}

/// A sound device, by its option.
std::string device(const std::string& name, const char* without)
{
    return name.empty() ? without : is_port(name) ? name : "alsa:" + name;
}

constexpr Format in_words(std::string (*words)(const json& value)) { return {0, "", false, 1, nullptr, words}; }

constexpr Format kCount = {};
constexpr Format kMs1 = {1, " ms"};
constexpr Format kSignedMs1 = {1, " ms", true};
constexpr Format kSignedMs3 = {3, " ms", true};
constexpr Format kPerHour = {2, " ms/h", true};
constexpr Format kMargin = {2};
constexpr Format kDb = {2, " dB", true};
constexpr Format kWholeMs = {0, " ms"};
constexpr Format kShareOfOffsets = {0, " %", false, 1, "/offset/count"};
constexpr Format kPercent2 = {2, " %", false, 100};
constexpr Format kSeconds1 = {1, " s"};
constexpr Format kPpm = {1, " ppm", true};
constexpr Format kCpu = {3, " s per second"};

// --- The list --------------------------------------------------------------------

const std::vector<Line> kLines = {
    {Section::run,
     "",
     kAlways,
     {
         {"/run/programme", "{}", "Programme", {}, [](R r) -> json { return r.programme; }},
         {"/link/coding", "", "Sound on the link", {}, [](R r) -> json { return coding_name(r.coding); }},
         {"/run/display", "; display {}", "Display", {}, [](R r) -> json { return r.display; }},
         {"/run/display_rate", ", {}", "Vertical blanks per second", in_words(hertz),
          [](R r) -> json { return r.display_hz; }},
         {"/seconds", "; {}", "Played for", {1, " s"}, [](R r) -> json { return r.seconds; }},
         {"/run/stopped_by", ", stopped by {}", "Stopped by", in_words(signal_words),
          [](R r) -> json { return r.stopped_by; }, Shown::unless_nothing},
         {"/run/display_latency_ms", "", "Vertical blank to light", kWholeMs,
          [](R r) -> json { return r.options.display_latency_ms(); }},
         {"/run/output", "", "Output", in_words(output_name),
          [](R r) -> json { return static_cast<int>(r.options.output); }},
         {"/run/sync", "", "A/V sync", {}, [](R r) -> json { return !r.options.no_sync; }},
         {"/run/raw", "", "Raw pass-through", {}, [](R r) -> json { return r.options.raw; }, Shown::unless_nothing},
         {"/run/video_queue_size", "", "Video queue", {0, " frames"}, [](R r) -> json { return r.video_queue_size; }},
         {"/run/algorithm_delay_ms", "", "Host's processing", kWholeMs,
          [](R r) -> json { return r.options.algorithm_delay_ms; }, Shown::unless_nothing},
         {"/run/video_start_ms", "", "First picture after", kWholeMs,
          [](R r) -> json { return r.options.video_start_ms; }, Shown::unless_nothing},
         {"/run/phase_ms", "", "Source later than display", kMs1, [](R r) -> json { return r.options.phase_ms; },
          Shown::unless_nothing},
         {"/run/receiver_ppm", "", "Source's clock error", kPpm, [](R r) -> json { return r.options.receiver_ppm; },
          Shown::unless_nothing},
         {"/run/playback_ppm", "", "Sound device's clock error", kPpm,
          [](R r) -> json { return r.options.playback_ppm; }, Shown::unless_nothing},
         {"/run/withhold_block",
          "",
          "A block of sound withheld",
          {},
          [](R r) -> json { return r.options.withhold_block; },
          Shown::unless_nothing},
         {"/run/file", "", "", {}, [](R r) -> json { return r.options.file; }},
         {"/offsets", "", "", {}, offset_records},
         {"/losses", "", "", {}, loss_records},
         {"/pictures/on_screen", "", "", {}, sighting_records},
         {"/pictures/outages", "", "", {}, outage_records},
         {"/recoveries", "", "", {}, recovery_records},
         {"/link/announced", "", "", {}, announcement_records},
         {"/link/rate_messages", "", "", {}, [](R r) -> json { return r.stage.link.rate_messages; }},
     }},

    {Section::sync,
     "",
     kWithInstants,
     {
         {"/offset/count", " at {}", "", kCount, [](R r) -> json { return r.offset.count; }},
         {"/instants", " of {} instants (+ = sound early)", "", kCount, [](R r) -> json { return r.instants; }},
     }},
    {Section::sync,
     "offset",
     kWithOffsets,
     {
         {"/offset/mean_ms", "mean {}", "", kSignedMs1, [](R r) -> json { return r.offset.mean_ms; }},
         {"/offset/deviation_ms", ", deviation {}", "", kMs1, [](R r) -> json { return r.offset.deviation_ms; }},
         {"/offset/p95_ms", ", p95 {}", "", kSignedMs1, [](R r) -> json { return r.offset.p95_ms; }},
         {"/offset/worst_ms", ", worst {}", "", kSignedMs1, [](R r) -> json { return r.offset.worst_ms; }},
         {"/offset/p99_ms", "; p99 by IS-191 {}", "Offset, 99 % within (IS-191)", kSignedMs1,
          [](R r) -> json { return r.course.p99_ms; }},
         {"/run/av_offset_ms",
          "; beside the {} asked for (+ = sound later)",
          "Sound later, as asked",
          {0, " ms", true},
          [](R r) -> json { return r.options.av_offset_ms; },
          Shown::unless_nothing},
     }},
    {Section::sync,
     "chain",
     kWithChain,
     {
         {"/chain/captured_ms", "flash and beep as captured {}", "Flash and beep as captured", kSignedMs1,
          [](R r) -> json { return r.chain.captured_ms; }},
         {"/chain/shown_ms", ", as seen and heard {}", "Flash and beep as seen and heard", kSignedMs1,
          [](R r) -> json { return r.chain.shown_ms; }},
         {"/chain/count", " (of {}, + = sound early)", "Flashes with a beep", kCount,
          [](R r) -> json { return r.chain.count; }},
     }},
    {Section::sync,
     "held",
     kAlways,
     {
         {"/run/flips_held_ms", "flips {}", "Flips held", kMs1,
          [](R r) -> json { return static_cast<double>(r.holds.flip_ns) / 1e6; }, Shown::unless_nothing},
         {"/run/sound_held_ms", ", sound {}", "Sound held", kMs1,
          [](R r) -> json { return static_cast<double>(r.holds.sound_ns) / 1e6; }, Shown::unless_nothing},
     }},
    {Section::sync,
     "trend",
     kWithTrend,
     {
         {"/trend/offset/ms_per_hour", "offset {}", "Trend of the offset", kPerHour,
          [](R r) -> json { return r.course.offset->per_hour; }},
         {"/trend/offset/margin", " +- {}", "Known to within, 95 %", kMargin,
          [](R r) -> json { return r.course.offset->margin; }},
         {"/trend/offset/of_phase", "", "Of it for the pictures' phase", kMargin,
          [](R r) -> json { return r.course.phase_slope; }},
         {"/trend/flight/ms_per_hour", ", time in flight {}", "Trend of the sound's time in flight", kPerHour,
          [](R r) -> json { return r.course.flight->per_hour; }},
         {"/trend/flight/margin", " +- {}", "Known to within, 95 %", kMargin,
          [](R r) -> json { return r.course.flight->margin; }},
         {"/trend/fill/ms_per_hour", ", fill of the output {}", "Trend of the output's fill", kPerHour,
          [](R r) -> json { return r.course.fill ? json(r.course.fill->per_hour) : json(); }},
         {"/trend/fill/margin", " +- {}", "Known to within, 95 %", kMargin,
          [](R r) -> json { return r.course.fill ? json(r.course.fill->margin) : json(); }},
     }},
    {Section::sync,
     "outlook",
     kWithOutlook,
     {
         {"/trend/outlook", "in 24 h the offset {}", "In 24 h the offset", {}, outlook_words},
     }},
    {Section::sync,
     "moved",
     kWithMoved,
     {
         {"/moved/offset_ms", "last minute by the second one: offset {}", "Last minute by the second: offset",
          kSignedMs3, [](R r) -> json { return r.course.moved->offset_ms; }},
         {"/moved/sound_ms", ", sound {}", "Last minute by the second: sound", kSignedMs3,
          [](R r) -> json { return r.course.moved->sound_ms; }},
     }},
    {Section::sync,
     "to light",
     kWithLight,
     {
         {"/light/within_ms", "99 % of the pictures within {} of one time", "Pictures beside one time, 99 %", kMs1,
          [](R r) -> json { return r.course.light->within_ms; }},
         {"/light/allowed_ms", " (allowed: {})", "Half a refresh and 2 ms", kMs1,
          [](R r) -> json { return r.course.light->allowed_ms; }},
         {"/light/beat_s", "; phase comes round in {}", "Their phase comes round in", kSeconds1,
          [](R r) -> json { return r.course.light->beat_s; }, Shown::unless_nothing},
         {"/light/moved_ms", "; last by first: {}", "Last beats, or minute, by the first ones", kSignedMs3,
          [](R r) -> json { return r.course.light->moved_ms ? json(*r.course.light->moved_ms) : json(); }},
     }},
    {Section::sync,
     "BT.1359",
     kWithOffsets,
     {
         {"/offset/bt1359/undetectable", "undetectable {}", "", kShareOfOffsets,
          [](R r) -> json { return r.offset.undetectable; }},
         {"/offset/bt1359/acceptable", ", acceptable {}", "", kShareOfOffsets,
          [](R r) -> json { return r.offset.acceptable; }},
         {"/offset/bt1359/unacceptable", ", unacceptable {}", "", kShareOfOffsets,
          [](R r) -> json { return r.offset.unacceptable; }},
     }},
    {Section::sync,
     "latency",
     kWithOffsets,
     {
         {"/sound_latency/mean_ms", "sound {}", "", kMs1, [](R r) -> json { return r.sound_latency.mean_ms; }},
         {"/sound_latency/least_ms", " ({}", "", {1}, [](R r) -> json { return r.sound_latency.least_ms; }},
         {"/sound_latency/most_ms", " to {})", "", {1}, [](R r) -> json { return r.sound_latency.most_ms; }},
         {"/picture_latency/mean_ms", ", picture {}", "", kMs1, [](R r) -> json { return r.picture_latency.mean_ms; }},
         {"/picture_latency/least_ms", " ({}", "", {1}, [](R r) -> json { return r.picture_latency.least_ms; }},
         {"/picture_latency/most_ms", " to {})", "", {1}, [](R r) -> json { return r.picture_latency.most_ms; }},
     }},

    {Section::pictures,
     "account",
     kAlways,
     {
         {"/pictures/rendered", "rendered {}", "Given to the player", kCount,
          [](R r) -> json { return r.frames.rendered; }},
         {"/pictures/flipped", " = flipped {}", "Flipped", kCount, [](R r) -> json { return r.frames.flipped; }},
         {"/pictures/dropped", " + dropped {}", "Dropped", kCount, [](R r) -> json { return r.frames.dropped; }},
         {"/pictures/held_at_close", " + held at close {}", "Held when it closed", kCount,
          [](R r) -> json { return r.frames.held; }},
         {"/pictures/refused", "; refused {}", "Refused", kCount, [](R r) -> json { return r.frames.refused; }},
         {"/pictures/closes", "  DOES NOT CLOSE", "Account", in_words(account_words),
          [](R r) -> json { return r.frames.closes(); }, Shown::if_false},
     }},
    {Section::pictures,
     "astray",
     kAlways,
     {
         {"/pictures/foreign", "callbacks for foreign frames {}", "Callbacks for foreign frames", kCount,
          [](R r) -> json { return r.frames.foreign; }, Shown::unless_nothing},
         {"/pictures/lost", ", lost {}", "Lost", kCount, [](R r) -> json { return r.frames.lost; },
          Shown::unless_nothing},
         {"/pictures/withheld", ", withheld {}", "Withheld, since the wall clock was set", kCount,
          [](R r) -> json { return r.frames.withheld; }, Shown::unless_nothing},
         {"/pictures/no_buffer", ", no buffer for {}", "No buffer left", kCount,
          [](R r) -> json { return r.frames.no_buffer; }, Shown::unless_nothing},
     }},
    {Section::pictures,
     "flips",
     kAlways,
     {
         {"/pictures/skipped", "coalesced with another flip {}", "Coalesced with another flip", kCount,
          [](R r) -> json { return r.frames.skipped; }},
         {"/pictures/superseded", ", superseded before they were seen {}", "Superseded before they were seen", kCount,
          [](R r) -> json { return r.display_stats.superseded; }},
         {"/pictures/display_flips", "", "", kCount, [](R r) -> json { return r.display_stats.flips; }},
         {"/pictures/display_vblanks", "", "", kCount, [](R r) -> json { return r.display_stats.vblanks; }},
         {"/pictures/unshown", ", unshown {}", "Unshown: the display was lost", kCount,
          [](R r) -> json { return r.display_stats.unshown; }, Shown::unless_nothing},
     }},
    {Section::pictures,
     "vblank",
     kWithVblanks,
     {
         {"/pictures/vblank_waits", "waits {}", "The player's waits for vertical blanks", kCount,
          [](R r) -> json { return r.vblank_waits; }},
         {"/pictures/vblank_missed", ", missed {}", "Vertical blanks it was not woken for", kCount,
          [](R r) -> json { return r.vblank_missed; }},
     }},
    {Section::pictures,
     "screen",
     kWithSightings,
     {
         {"/pictures/settled/pictures", "{} pictures", "", kCount, [](R r) -> json { return r.cadence.pictures; }},
         {"/pictures/settled/vblanks", " on {} vertical blanks", "", kCount,
          [](R r) -> json { return r.cadence.vblanks; }},
         {"/pictures/settled/unseen", ": unseen {}", "", kCount, [](R r) -> json { return r.cadence.unseen; }},
         {"/pictures/settled/repeats", ", repeats {}", "", kCount, [](R r) -> json { return r.cadence.repeats; }},
         {"/pictures/settled/excess_unseen", "; beyond the rates {}", "", kCount,
          [](R r) -> json { return r.cadence.excess_unseen; }},
         {"/pictures/settled/excess_repeats", " and {}", "", kCount,
          [](R r) -> json { return r.cadence.excess_repeats; }},
         {"/pictures/settled/excess", " ({})", "", kPercent2, [](R r) -> json { return r.cadence.excess(); }},
         {"/pictures/unreadable", "; unreadable {}", "Unreadable on screen", kCount,
          [](R r) -> json { return r.unreadable; }, Shown::unless_nothing},
     }},
    {Section::pictures,
     "on screen",
     kWithSightings,
     {
         {"/pictures/settled/stayed_vblanks", " {}", "", in_words(histogram_words),
          [](R r) -> json { return r.cadence.histogram; }},
     }},
    {Section::pictures,
     "grid",
     kWithGrid,
     {
         {"/pictures/off_grid_us/p99", "", "", kCount, [](R r) -> json { return r.grid.p99_us; }},
         {"/pictures/off_grid_us/worst", "", "", kCount, [](R r) -> json { return r.grid.worst_us; }},
     }},

    {Section::sound,
     "samples",
     kWithSamples,
     {
         {"/sound/in", "in {}", "Captured", kCount, [](R r) -> json { return r.samples.in; }},
         {"/sound/out", ", out {}", "Played", kCount, [](R r) -> json { return r.samples.out; }},
         {"/sound/missing", ", missing {}", "Missing", kCount, [](R r) -> json { return r.samples.missing; }},
         {"/sound/missing_limit", " (the end is known to within {})", "End known to within, frames", kCount,
          [](R r) -> json { return r.samples.block; }},
         {"/sound/mismatches", "; different {}", "Different from the source's", kCount,
          [](R r) -> json { return r.samples.exact ? json(r.samples.mismatches) : json(); }},
         {"/sound/worst_place",
          "; out of place by {} at most",
          "Out of place by, frames",
          {1},
          [](R r) -> json { return r.samples.exact ? json() : json(r.samples.worst_place); }},
         {"/sound/same_rate", "", "", {}, [](R r) -> json { return r.samples.same_rate; }},
         {"/sound/exact", "", "", {}, [](R r) -> json { return r.samples.exact; }},
         {"/sound/first_source_sample", "", "", {1}, [](R r) -> json { return r.samples.first_source_sample; }},
         {"/sound/earlier", "", "", kCount, [](R r) -> json { return r.samples.earlier; }},
         {"/sound/first_mismatch", "", "", kCount,
          [](R r) -> json { return r.samples.first_mismatch >= 0 ? json(r.samples.first_mismatch) : json(); }},
     }},
    {Section::sound,
     "tones",
     kWithTones,
     {
         {"/tones/noise_db", "997 Hz: noise and distortion {}", "997 Hz: noise and distortion", kDb,
          [](R r) -> json { return r.fidelity.noise_db; }},
         {"/tones/least_db",
          "; sweep {}",
          "20 Hz to 20 kHz, least",
          {3, "", true},
          [](R r) -> json { return r.fidelity.least_db; }},
         {"/tones/most_db",
          " to {}",
          "20 Hz to 20 kHz, most",
          {3, " dB", true},
          [](R r) -> json { return r.fidelity.most_db; }},
         {"/tones/pitch_ppm", "; pitch off by {}", "Pitch off by, after a minute", kPpm,
          [](R r) -> json { return r.fidelity.pitch_ppm ? json(*r.fidelity.pitch_ppm) : json(); }},
         {"/tones/disturbed", "; disturbed {}", "Tenths of a second with a click, or samples lost or doubled", kCount,
          [](R r) -> json { return r.fidelity.disturbed; }},
         {"/tones/windows", " of {} tenths of a second", "Tenths of a second compared", kCount,
          [](R r) -> json { return r.fidelity.windows; }},
         {"/tones/first_disturbed_s",
          "",
          "The first one disturbed",
          {1, " s"},
          [](R r) -> json { return r.fidelity.disturbed > 0 ? json(r.fidelity.first_disturbed_s) : json(); }},
         {"/tones/worst_jump",
          ", out of place by {} frames at most",
          "Out of place by, frames",
          {3},
          [](R r) -> json { return r.fidelity.worst_jump; }},
     }},
    {Section::sound,
     "host",
     kWithPlayedSound,
     {
         {"/sound/pulled", "", "Taken by the host", kCount, [](R r) -> json { return r.audio.pulled; }},
         {"/sound/thrown_away",
          ", late sound thrown away {}",
          "Of it thrown away, since the host was late",
          {0, " frames"},
          [](R r) -> json { return r.audio.late; },
          Shown::unless_nothing},
         {"/sound/cut_off",
          ", cut off by a later reset {}",
          "Of it discarded at a reset in its middle",
          {0, " frames"},
          [](R r) -> json { return r.audio.cut_off; },
          Shown::unless_nothing},
         {"/sound/discarded_at_start", "", "Of it discarded at a reset", kCount,
          [](R r) -> json { return r.audio.discarded; }},
         {"/sound/written", "", "Written by the host", kCount, [](R r) -> json { return r.audio.written; }},
         {"/sound/failed_writes", "failed writes {}", "Failed writes", kCount,
          [](R r) -> json { return r.audio.failed_writes; }, Shown::unless_nothing},
         {"/sound/withheld_blocks", "", "", kCount, [](R r) -> json { return r.stage.withheld; }},
     }},
    {Section::sound,
     "devices",
     kWithOutput,
     {
         {"/sound/underruns", "underruns {}", "Underruns after the first second", kCount,
          [](R r) -> json { return r.gaps; }},
         {"/sound/underruns_first_second", " (and {} in the first second)", "Underruns in the first second", kCount,
          [](R r) -> json { return r.early_gaps; }},
         {"/sound/matching_ppm", "; resampled from a clock {} faster", "Resampled from a clock faster by", kPpm,
          [](R r) -> json { return r.stage.sound.matched ? json(r.stage.sound.matching_ppm) : json(); }},
     }},
    {Section::sound,
     "player",
     kAlways,
     {
         {"/resets", "resets {}", "Resets", kCount, [](R r) -> json { return r.resets; }},
         {"/sound/overruns", ", overruns of the capture {}", "Overruns of the capture", kCount,
          [](R r) -> json { return r.overruns; }},
         {"/sound/overruns_first_second", " (and {} in the first second)", "Overruns in the first second", kCount,
          [](R r) -> json { return r.early_overruns; }, Shown::unless_nothing},
         {"/reset_s",
          "",
          "Last reset after the first picture",
          {3, " s"},
          [](R r) -> json { return r.resets > 0 ? json(r.reset_s) : json(); }},
         {"/unsupported_events", ", sound reported as not supported {}", "Sound reported as not supported", kCount,
          [](R r) -> json { return r.unsupported; }, Shown::unless_nothing},
     }},
    {Section::sound,
     "source",
     kAlways,
     {
         {"/source_starved", "not decoded in time {} times", "Source not decoded in time, times", kCount,
          [](R r) -> json { return r.source.starved; }, Shown::unless_nothing},
         {"/source/damaged_sound", ", damaged packets of sound {}", "Damaged packets of sound", kCount,
          [](R r) -> json { return r.source.damaged_sound; }, Shown::unless_nothing},
         {"/source/damaged_pictures", ", damaged pictures {}", "Damaged pictures", kCount,
          [](R r) -> json { return r.source.damaged_pictures; }, Shown::unless_nothing},
         {"/source/picture_gaps", ", gaps between pictures {}", "Gaps between pictures", kCount,
          [](R r) -> json { return r.source.picture_gaps; }, Shown::unless_nothing},
         {"/source/largest_burst_bytes",
          ", largest burst {}",
          "Largest burst",
          {0, " bytes"},
          [](R r) -> json { return r.source.largest_burst; },
          Shown::unless_nothing},
     }},

    {Section::link,
     "capture",
     kWithLink,
     {
         {"/link/chunk_phase", "began {} bytes before a burst", "Capture began before a burst, bytes", kCount,
          [](R r) -> json { return r.stage.link.chunk_phase >= 0 ? json(r.stage.link.chunk_phase) : json(); }},
     }},
    {Section::link,
     "output",
     kWithHeardBursts,
     {
         {"/link/raw/bursts", "{} bursts", "Bursts at the output", kCount, [](R r) -> json { return r.raw.bursts; }},
         {"/link/raw/frames", " in {} frames", "Frames at the output", kCount,
          [](R r) -> json { return r.raw.frames; }},
         {"/link/raw/different", ", different {}", "Different from the source's", kCount,
          [](R r) -> json { return r.raw.different; }},
         {"/link/raw/gaps", ", gaps {}", "Gaps", kCount, [](R r) -> json { return r.raw.gaps; }},
     }},
    {Section::link,
     "compared",
     kWithBursts,
     {
         {"/link/raw/compared", "", "", {}, [](R r) -> json { return r.raw.compared; }},
     }},
    {Section::link,
     "passed on",
     kWithBypass,
     {
         {"/link/raw/passed_on", "{} frames", "Frames passed on", kCount,
          [](R r) -> json { return r.stage.bypass.frames; }},
         {"/link/raw/device", " to {}", "Passed on to", {}, [](R r) -> json { return r.stage.bypass.pcm; }},
         {"/link/raw/device_rate", " at {} Hz", "", kCount, [](R r) -> json { return r.stage.bypass.rate; }},
         {"/link/raw/dropped", ", dropped {}", "Dropped", kCount, [](R r) -> json { return r.stage.bypass.dropped; }},
         {"/link/raw/underruns", ", underruns {}", "Underruns of the output", kCount,
          [](R r) -> json { return r.stage.bypass.xruns; }},
         {"/link/raw/corrections", ", corrections of the clocks {}", "Corrections of the clocks", kCount,
          [](R r) -> json { return r.stage.bypass.slips; }},
     }},

    {Section::devices,
     "capture",
     kAlways,
     {
         {"/run/capture", "{}", "Captured from", {}, [](R r) -> json { return device(r.options.capture, "sim"); }},
         {"/run/video",
          "; pictures from {}",
          "Pictures from",
          {},
          [](R r) -> json { return r.options.video; },
          Shown::unless_nothing},
     }},
    {Section::devices,
     "CEC",
     kAlways,
     {
         {"/run/cec", "{}", "CEC", {}, [](R r) -> json { return r.options.cec.empty() ? "sim" : r.options.cec; }},
     }},
    {Section::devices,
     "return",
     kWithCec,
     {
         {"/cec/arc",
          "audio return channel {}",
          "Audio return channel",
          {},
          [](R r) -> json { return arc_name(r.stage.cec.arc); }},
         {"/cec/note", ": {}", "Note", {}, [](R r) -> json { return r.stage.cec.note; }, Shown::unless_nothing},
         {"/cec/device", "", "", {}, [](R r) -> json { return r.stage.cec.device; }},
         {"/cec/received", "", "", kCount, [](R r) -> json { return r.stage.cec.received; }},
         {"/cec/sent", "", "", kCount, [](R r) -> json { return r.stage.cec.sent; }},
         {"/cec/undelivered", "", "", kCount, [](R r) -> json { return r.stage.cec.undelivered; }},
         {"/cec/refusals", "", "", kCount, [](R r) -> json { return r.stage.cec.refusals; }},
         {"/cec/activations", "", "", kCount, [](R r) -> json { return r.stage.cec.activations; }},
     }},
    {Section::devices,
     "source",
     kAlways,
     {
         {"/run/feed",
          "sent into {}",
          "Source sent into",
          {},
          [](R r) -> json { return device(r.options.feed, ""); },
          Shown::unless_nothing},
         {"/link/drift_ppm", "; clock {} fast", "Source's device, fast by", kPpm,
          [](R r) -> json { return has_feed(r) ? json(r.stage.link.drift_ppm) : json(); }},
         {"/link/breaks", "; breaks {}", "Source's device, breaks", kCount,
          [](R r) -> json { return has_feed(r) ? json(r.stage.link.breaks) : json(); }},
     }},
    {Section::devices,
     "playback",
     kAlways,
     {
         {"/run/playback", "{}", "Played on", {}, [](R r) -> json { return device(r.options.playback, "sim"); }},
     }},
    {Section::devices,
     "heard",
     kAlways,
     {
         {"/run/observe",
          "at {}",
          "Heard at",
          {},
          [](R r) -> json { return device(r.options.observe, ""); },
          Shown::unless_nothing},
         {"/sound/drift_ppm", "; clock {} fast", "Heard by a clock, fast by", kPpm,
          [](R r) -> json { return r.options.playback.empty() ? json() : json(r.stage.sound.drift_ppm); }},
         {"/sound/observer_breaks", "; breaks {}", "Observer, breaks", kCount,
          [](R r) -> json { return has_observer(r) ? json(r.stage.sound.observer_breaks) : json(); }},
     }},

    {Section::machine,
     "CPU",
     kAlways,
     {
         {"/cpu_s_per_s", "{}", "", kCpu, [](R r) -> json { return r.usage.cpu_s; }},
         {"/player_cpu_s_per_s",
          ", of it the player's threads {}",
          "",
          {3},
          [](R r) -> json { return r.usage.player_cpu_s(); }},
         {"/peak_memory_kb",
          "; peak memory {}",
          "",
          {1, " MB", false, 1.0 / 1024},
          [](R r) -> json { return r.usage.peak_memory_kb; }},
         {"/run/realtime",
          "; without real-time priority",
          "Real-time priority",
          {},
          [](R r) -> json { return r.realtime; },
          Shown::if_false},
         {"/cpu_by_thread", "", "", {}, [](R r) -> json { return r.usage.by_thread; }},
     }},
    {Section::machine,
     "timers",
     kWithTicks,
     {
         {"/timers/p99_ms", "beside the player, late by p99 {}", "Timers beside the player, late by p99", kMs1,
          [](R r) -> json { return r.punctuality.p99_ms; }},
         {"/timers/worst_ms", ", worst {}", "Worst", kMs1, [](R r) -> json { return r.punctuality.worst_ms; }},
         {"/timers/worst_at_s", " after {}", "After the opening", kSeconds1,
          [](R r) -> json { return static_cast<double>(r.punctuality.worst_at_ns - r.opened_ns) / 1e9; }},
         {"/timers/late_limit_ms", "; by more than {}", "Late for a picture is more than", kMs1,
          [](R r) -> json { return r.punctuality.late_limit_ms; }},
         {"/timers/late", " at {}", "Ticks that late", kCount, [](R r) -> json { return r.punctuality.late; }},
         {"/timers/ticks", " of {} ticks", "Ticks", kCount, [](R r) -> json { return r.punctuality.ticks; }},
     }},
    {Section::machine,
     "program",
     kAlways,
     {
         {"/program/version",
          "hdmi-player-play {}",
          "Version of hdmi-player-play",
          {},
          [](R) -> json { return this_program().version; }},
         {"/program/revision",
          ", revision {}",
          "Source revision",
          {},
          [](R) -> json { return this_program().revision; }},
         {"/program/platform", ", platform {}", "Platform", {}, [](R) -> json { return this_program().platform; }},
     }},
};

} // namespace

const std::vector<Line>& report_lines() { return kLines; }

const Figure* find_figure(const std::string& key)
{
    for (const Line& line : kLines)
        for (const Figure& figure : line.figures)
            if (figure.key == key)
                return &figure;
    return nullptr;
}

bool is_nothing(const json& value)
{
    return value.is_null() || value == false || value == 0 || value == "" || (value.is_structured() && value.empty());
}

} // namespace play
