// SPDX-License-Identifier: MIT
#include "report/verdict.h"

#include <algorithm>
#include <cmath>

namespace play
{
namespace
{

/**
 * Losses that leave a chunk of zeros on the link: the player takes it for silence, and begins anew with the next burst.
 * An E-AC-3 burst is mostly stuffing.
 */
bool taken_for_silence(const Result& result, const LossReading& reading)
{
    return result.coding == Coding::eac3 && reading.lost.loss.kind != BurstLoss::Kind::noise;
}

int64_t begun_anew(const Result& result)
{
    return std::count_if(result.losses.begin(), result.losses.end(),
                         [&result](const LossReading& reading) { return taken_for_silence(result, reading); });
}

/// A programme is measured at every mark, but where it begins anew. In a film, silence and steady tones hide some
/// seconds: half must remain.
bool measured_enough(const Result& result)
{
    auto measured = static_cast<int64_t>(result.offsets.size());
    bool programme = result.options.file.empty() && !result.options.captured_pictures();
    return measured > 0 &&
           (programme ? measured + begun_anew(result) >= result.instants : 2 * measured >= result.instants);
}

bool anything_measured(const Result& result)
{
    bool instants = result.options.raw || !result.options.sync_known() || result.instants > 0;
    return instants && result.cadence.pictures > 0;
}

/// A flash or a beep can be lost to each tick that came late.
bool machine_hid_instants(const Result& result)
{
    return result.instants - static_cast<int64_t>(result.offsets.size()) <= result.punctuality.late;
}

/// The machine was as late as sound and picture are outside of the limit.
bool machine_moved_sound_or_picture(const Result& result)
{
    double p95_ms = result.offset.p95_ms;
    double outside_ms = std::max(p95_ms - kR37EarlyMs, kR37LateMs - p95_ms);
    return result.offset.count > 0 && outside_ms <= result.punctuality.worst_ms;
}

bool machine_moved_some(const Result& result)
{
    double p99_ms = result.course.p99_ms;
    return std::max(p99_ms - kIs191EarlyMs, kIs191LateMs - p99_ms) <= result.punctuality.worst_ms;
}

/// A payload that is larger than one captured chunk is not decoded whole, see hdmi_player.h.
int64_t largest_decoded_burst(int sample_rate) { return sample_rate == 44100 ? 3584 : 3840; }

bool machine_missed_a_period(const Result& result) { return result.punctuality.worst_ms > kOutputPeriodMs; }

constexpr double kOutputRate = 48000;

/// The edges themselves count sound that nobody took or gave in time, host and simulated device what they threw away
/// since it came late, or at the reset that followed: what comes behind is out of place by that, and no more.
bool machine_lost_sound(const Result& result)
{
    bool counted = result.overruns > 0 || result.gaps > 0 || result.audio.late > 0 || result.audio.cut_off > 0 ||
                   result.stage.link.breaks > 0 || result.stage.sound.observer_breaks > 0;
    // Elsewhere nobody knows how much sound an overrun or a lost burst is, nor what an output left out that ran empty.
    bool in_periods = result.options.capture.empty() && result.coding == Coding::pcm;
    auto block = static_cast<double>(result.samples.block);
    const auto not_written = static_cast<double>(result.audio.late + result.audio.cut_off);
    double thrown_away = not_written * kOutputRate / result.source_rate;
    const SoundAccount& output = result.stage.sound;
    double most =
        (static_cast<double>(result.overruns) + 0.5) * block + thrown_away + static_cast<double>(output.left_out);
    double missing = result.samples.missing + static_cast<double>(output.refilled);
    return counted && machine_missed_a_period(result) && (!in_periods || missing <= most);
}

/// Pictures that the host withheld so that the player resets, because the machine lost sound: nobody read the capture
/// device, and timers beside the reader, with its priority, were late as well. Where the wall clock was set, or the
/// player lost its place without a loss, it is not the machine's fault. Each loss has one reset.
double withheld_by_machine(const Result& result)
{
    constexpr double kWithheldS = 1.1;
    if (!machine_missed_a_period(result))
        return 0;
    return std::min(static_cast<double>(result.frames.withheld),
                    static_cast<double>(result.overruns) * kWithheldS * result.fps);
}

/// Such a capture may see the zeros at that burst's end first; the player takes them for silence, and the first burst
/// after a silence resets it once more.
bool begins_inside_of_burst(const Result& result)
{
    return result.coding != Coding::pcm && (!result.options.capture.empty() || result.stage.link.chunk_phase > 0);
}

int64_t most_resets(const Result& result) { return 1 + (begins_inside_of_burst(result) ? 1 : 0) + begun_anew(result); }

/// A machine that is late while it starts lets the capture card overrun; the player resets once more behind each.
bool machine_overran_at_start(const Result& result)
{
    return result.punctuality.late > 0 && result.early_overruns > 0 && result.resets > most_resets(result) &&
           result.resets <= most_resets(result) + result.early_overruns;
}

/// The machine was as late as the last reset is, or made the player reset once more.
bool machine_reset_late(const Result& result)
{
    if (result.resets == 0)
        return false;
    bool late = (result.reset_s - kLatestResetS) * 1e3 <= result.punctuality.worst_ms;
    return machine_overran_at_start(result) ||
           (machine_missed_a_period(result) && (result.resets > most_resets(result) || late));
}

/// Each late tick can cost two vertical blanks, each of them a picture that is not seen and one that is held for it; so
/// does each picture withheld, and half as much until the pictures behind the reset are shown. A late reset may leave
/// none to be judged.
bool machine_missed_vblanks(const Result& result)
{
    constexpr double kPicturesPerTick = 4;
    constexpr double kPicturesPerWithheld = 3;
    const Cadence& cadence = result.cadence;
    if (cadence.pictures == 0)
        return cadence.due == 0 && machine_reset_late(result);
    double beyond = (cadence.excess() - kExcessLimit) * static_cast<double>(cadence.pictures);
    return cadence.vblanks > 0 && result.unreadable == 0 &&
           beyond <= kPicturesPerTick * static_cast<double>(result.punctuality.late) +
                         kPicturesPerWithheld * withheld_by_machine(result);
}

/// The player resets when the first picture meets captured sound.
Verdict judge_resets(const Result& result)
{
    bool few = result.resets >= 1 && result.resets <= most_resets(result);
    bool at_start = result.reset_s < kLatestResetS;
    const char* text = begins_inside_of_burst(result) ? "one reset or two, at start" : "one reset, at start";
    if (begun_anew(result) > 0)
        text = "one reset at start, and one at a loss that leaves silence";
    return {text, few && at_start, machine_reset_late(result), Subject::sound};
}

/// What was passed on, where nothing else tells how long that went on: all of the run but its beginning and end.
bool passed_on_throughout(const Result& result)
{
    constexpr double kMarginS = 2;
    const hdmi_linux::BypassStats& bypass = result.stage.bypass;
    double seconds = static_cast<double>(result.signal_end_ns - result.opened_ns) / 1e9 - kMarginS;
    return static_cast<double>(bypass.frames) >= seconds * bypass.rate;
}

// The bursts bypass the player, and its pictures run without regard to the sound.
void judge_raw(const Result& result, std::vector<Verdict>* verdicts)
{
    constexpr int64_t kStartNs = 1'000'000'000;
    const hdmi_linux::BypassStats& bypass = result.stage.bypass;
    bool counted = bypass.dropped > 0 || bypass.xruns > 0;
    bool broken = result.stage.link.breaks > 0 || result.stage.sound.observer_breaks > 0;
    bool whole = result.raw.bursts > 0 && result.raw.gaps == 0 && result.raw.different == 0;
    bool lasted =
        result.raw.began_ns < result.opened_ns + kStartNs && result.raw.ended_ns >= result.signal_end_ns - kStartNs;
    bool interrupted = result.raw.different == 0 && (counted || broken) && machine_missed_a_period(result);
    if (result.raw.compared)
        verdicts->push_back(
            {"bursts at the output bit for bit the source's", whole && lasted, interrupted, Subject::sound});
    bool took = bypass.frames > 0 && !counted;
    if (!result.options.playback.empty())
        verdicts->push_back({"the output took what was passed on",
                             took && (result.raw.compared || passed_on_throughout(result)),
                             bypass.frames > 0 && counted && machine_missed_a_period(result)});
    verdicts->push_back({"nothing played beside them", result.stage.sound.frames == 0});
    verdicts->push_back({"no reset", result.resets == 0});
}

/// What begins anew has a place of its own, where sound and picture must be together.
bool back_in_place(const Result& result, const LossReading& reading)
{
    if (!reading.measured())
        return false;
    if (reading.resets == 1 && taken_for_silence(result, reading))
        return reading.after->ms() <= kIs191EarlyMs && reading.after->ms() >= kIs191LateMs;
    bool pause = reading.lost.loss.kind == BurstLoss::Kind::pause;
    return std::abs(reading.sound_moved_ms()) <= (pause ? kMostMovedByPauseMs : kMostMovedByLossMs);
}

void judge_losses(const Result& result, std::vector<Verdict>* verdicts)
{
    if (!result.losses.empty())
        verdicts->push_back(
            {"sound back in its place half a second after each loss",
             std::all_of(result.losses.begin(), result.losses.end(),
                         [&result](const LossReading& reading) { return back_in_place(result, reading); })});
}

/// The lateness of the machine explains what the pictures are beside their time.
bool machine_moved_pictures(const Result& result)
{
    const LightPath& light = *result.course.light;
    return light.within_ms - light.allowed_ms <= result.punctuality.worst_ms;
}

constexpr double kReserveMs = 10;

/// The machine let the output run empty. What that holds afterwards is as much as before only to 10 ms, and the
/// pictures follow the sound.
bool machine_moved(const Result& result, double moved_ms)
{
    return result.gaps > 0 && machine_missed_a_period(result) && std::abs(moved_ms) <= kReserveMs;
}

/// Sound and pictures each by themselves, since the mean of a minute says nothing of pictures whose phase against the
/// display takes longer to come round. Where it does not, the offset as well.
void judge_moved(const Result& result, std::vector<Verdict>* verdicts)
{
    const Moved& moved = *result.course.moved;
    const std::optional<LightPath>& light = result.course.light;
    const bool offset_too = !light || light->whole_minutes;
    verdicts->push_back(
        {offset_too ? "last minute within 2 ms of the second one"
                    : "sound of the last minute within 2 ms of the second one",
         std::abs(moved.sound_ms) <= kMostMovedMs && (!offset_too || std::abs(moved.offset_ms) <= kMostMovedMs),
         machine_moved(result, moved.sound_ms) && (!offset_too || machine_moved(result, moved.offset_ms)),
         Subject::sound});
    if (!light)
        return;
    if (light->moved_ms)
        verdicts->push_back({light->whole_minutes ? "pictures of the last minute within 2 ms of the second one"
                                                  : "pictures of the last whole beats within 2 ms of the first ones",
                             std::abs(*light->moved_ms) <= kMostMovedMs, machine_moved(result, *light->moved_ms),
                             Subject::pictures});
    verdicts->push_back({"99 % of the pictures within half a refresh and 2 ms of one time",
                         light->within_ms <= light->allowed_ms, machine_moved_pictures(result), Subject::pictures});
}

/// A line through a step rises over its length by one and a half times the step, if that is in the middle.
bool machine_bent_trend(const Result& result)
{
    const std::optional<Trend>& trend = result.course.offset;
    return trend && machine_moved(result, trend->per_hour * trend->lasted_s / 3600 / 1.5);
}

/// What a system that plays for days needs beside the rest.
void judge_course(const Result& result, std::vector<Verdict>* verdicts)
{
    const Course& course = result.course;
    if (course.outlook)
        verdicts->push_back({"trend inside EBU R37 for 24 h", *course.outlook != Outlook::leaves,
                             machine_bent_trend(result), Subject::sync});
    if (!result.options.strict)
        return;
    verdicts->push_back({"A/V offset p99 inside ATSC IS-191 (+15/-45 ms)",
                         !result.offsets.empty() && course.p99_inside(), machine_moved_some(result), Subject::sync});
    if (course.moved)
        judge_moved(result, verdicts);
}

void judge_tones(const Result& result, std::vector<Verdict>* verdicts)
{
    const Fidelity& fidelity = result.fidelity;
    if (fidelity.windows == 0)
        return;
    verdicts->push_back({"no click, no sample lost or doubled", fidelity.disturbed == 0,
                         machine_missed_a_period(result), Subject::sound});
    // Of a source at another rate, this is the noise of the library's own conversion.
    if (fidelity.tone_windows > 0 && result.samples.same_rate)
        verdicts->push_back({"997 Hz: noise and distortion at most -90 dB", fidelity.noise_db <= kMostNoiseDb});
    if (fidelity.pitch_ppm)
        verdicts->push_back({"pitch within 10 ppm after a minute", std::abs(*fidelity.pitch_ppm) <= kMostPitchPpm});
    if (fidelity.sweep_windows > 0)
        verdicts->push_back({"20 Hz to 20 kHz within 0.1 dB",
                             std::max(std::abs(fidelity.least_db), std::abs(fidelity.most_db)) <= kMostRippleDb});
}

void judge_played(const Result& result, std::vector<Verdict>* verdicts)
{
    // Of a source that is not ours, nobody knows when it sent what.
    bool known = !result.options.foreign_source();
    if (result.options.sync_known()) {
        verdicts->push_back(
            {"A/V offset measured", measured_enough(result), machine_hid_instants(result), Subject::sync});
        verdicts->push_back(
            {"A/V offset p95 inside EBU R37 (+40/-60 ms)", result.offset.p95_inside_r37(),
             result.offset.count > 0 ? machine_moved_sound_or_picture(result) : machine_hid_instants(result),
             Subject::sync});
    }
    verdicts->push_back(judge_resets(result));
    verdicts->push_back({"no underrun after the first second", result.gaps <= begun_anew(result),
                         machine_missed_a_period(result), Subject::sound});
    if (!known)
        return;
    // With each new beginning, sound that waits is discarded.
    if (begun_anew(result) > 0)
        return judge_losses(result, verdicts);
    const char* exact = result.coding == Coding::pcm ? "output bit for bit the input" : "output bit for bit a decode";
    verdicts->push_back({result.samples.exact ? exact : "samples complete and in place", result.samples.passed(),
                         machine_lost_sound(result), Subject::sound});
    judge_losses(result, verdicts);
    judge_course(result, verdicts);
    judge_tones(result, verdicts);
}

/// Of the devices at the far ends: their breaks look like the player's.
void judge_ends(const Result& result, std::vector<Verdict>* verdicts)
{
    bool machine = machine_missed_a_period(result);
    if (!result.options.feed.empty())
        verdicts->push_back({"the source was sent without a break", result.stage.link.breaks == 0, machine});
    if (!result.options.observe.empty())
        verdicts->push_back({"the observer heard without a break", result.stage.sound.observer_breaks == 0, machine});
}

} // namespace

std::string fault_of_source(const Result& result, Subject subject)
{
    const SourceFaults& source = result.source;
    bool of_sound = subject == Subject::sound || subject == Subject::sync;
    // Decoded here, damaged sound is silence to the player, and silence it must play as it is.
    bool coded = result.coding != Coding::pcm;
    if (subject == Subject::player)
        return "";
    if (source.starved > 0)
        return "this machine did not decode the film in time (times: " + std::to_string(source.starved) + ")";
    if (of_sound && source.damaged_sound > 0 && (coded || subject == Subject::sync))
        return "the film's sound is damaged (places: " + std::to_string(source.damaged_sound) + ")";
    int64_t most = largest_decoded_burst(result.source_rate);
    if (of_sound && !result.options.raw && source.largest_burst > most)
        return "the film has bursts of " + std::to_string(source.largest_burst) +
               " bytes, beyond the player's documented " + std::to_string(most) + " (E-AC-3 of 960 kb/s at 48 kHz)";
    if (subject == Subject::pictures && source.picture_gaps > 0 && result.options.captured_pictures())
        return "the capture device lost pictures before the player (times: " + std::to_string(source.picture_gaps) +
               ")";
    if (subject == Subject::pictures && source.picture_gaps > 0)
        return "the film lacks pictures, or its frame rate varies (gaps: " + std::to_string(source.picture_gaps) + ")";
    return "";
}

std::vector<Verdict> judge(const Result& result)
{
    std::vector<Verdict> verdicts;
    if (result.stopped_by != 0 && !anything_measured(result))
        return verdicts;
    if (result.options.raw)
        judge_raw(result, &verdicts);
    else
        judge_played(result, &verdicts);
    judge_ends(result, &verdicts);
    verdicts.push_back({"no overrun", result.overruns == 0, machine_missed_a_period(result)});
    bool real_arc = !result.options.cec.empty() && result.options.output == E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
    if (real_arc)
        verdicts.push_back({"audio return channel open", result.stage.cec.arc == hdmi_linux::ArcState::active});
    verdicts.push_back({"frame account closed", result.frames.closes() && result.frames.no_buffer == 0});
    if (result.paced)
        verdicts.push_back({"at most 2 % of frames unseen or held beyond the rates",
                            result.cadence.excess() <= kExcessLimit && result.unreadable == 0,
                            machine_missed_vblanks(result), Subject::pictures});
    for (Verdict& verdict : verdicts) {
        verdict.machine = verdict.machine && !verdict.passed;
        verdict.source = verdict.passed ? "" : fault_of_source(result, verdict.subject);
    }
    return verdicts;
}

bool all_passed(const std::vector<Verdict>& verdicts)
{
    return !verdicts.empty() &&
           std::all_of(verdicts.begin(), verdicts.end(), [](const Verdict& verdict) { return verdict.passed; });
}

Outcome outcome_of(const std::vector<Verdict>& verdicts)
{
    if (verdicts.empty())
        return Outcome::nothing;
    if (all_passed(verdicts))
        return Outcome::pass;
    bool explained = std::all_of(verdicts.begin(), verdicts.end(),
                                 [](const Verdict& verdict) { return verdict.passed || verdict.explained(); });
    return explained ? Outcome::inconclusive : Outcome::fail;
}

} // namespace play
