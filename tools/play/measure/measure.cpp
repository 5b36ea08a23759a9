// SPDX-License-Identifier: MIT
#include "measure/measure.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "signal/correlate.h"
#include "signal/onset.h"
#include "signal/pitch.h"
#include "signal/rate_conversion.h"
#include "source/programme.h"

namespace play
{
namespace
{

constexpr int64_t kSecondNs = 1'000'000'000;
/// A film's sound is searched for up to this long after the source sent it.
constexpr int64_t kLongestLatencyNs = kSecondNs;
/// The same for a beep: not as long as until another one of its pitch.
constexpr int64_t kLatestBeepNs = (Programme::kBeepPitches - 1) * kSecondNs;
/// The part of a beep by which its pitch is told.
constexpr int64_t kPitchMs = 40;
/// Length of the sound that is searched for: long enough to be unique, short enough for the clocks not to drift.
constexpr int64_t kNeedleMs = 500;
/// Places at which a film is measured: each takes some hundredths of a second to find.
constexpr int64_t kMostInstants = 600;
/// Frames by which a match may be out of place: a resampler's phase and the onset's threshold move it.
constexpr double kPlaceTolerance = 4;
/// The same where a device in software may convert the rate: a millisecond at 48 kHz, far below a lost block.
constexpr double kConvertedTolerance = 48;
/// Rate matching begins with a ratio of 1, until the clocks are known.
constexpr double kUnmatchedSeconds = 5;
constexpr int kChunkFrames = 4096;
/// The coder overlaps its blocks: the first one of a decoder that begins in the middle of a stream is incomplete.
constexpr int64_t kDecoderSettling = 256;

double to_ms(int64_t ns) { return static_cast<double>(ns) / 1e6; }

/// How far an offset goes towards the limit on its side; beyond 1 it is outside.
double share_of_r37(double ms) { return ms >= 0 ? ms / kR37EarlyMs : ms / kR37LateMs; }

bool inside(double ms, double early, double late) { return ms <= early && ms >= late; }

int64_t source_time_of(int64_t sample, int rate) { return sample * kSecondNs / rate; }

std::vector<float> mono(const std::vector<int16_t>& stereo)
{
    std::vector<float> samples(stereo.size() / 2);
    for (size_t i = 0; i < samples.size(); i++)
        samples[i] = static_cast<float>(stereo[2 * i]) + static_cast<float>(stereo[2 * i + 1]);
    return samples;
}

std::vector<int16_t> source_audio(const Source& source, int64_t first, int64_t frames)
{
    std::vector<int16_t> stereo(static_cast<size_t>(2 * frames));
    source.audio(first, stereo.data(), static_cast<int>(frames));
    return stereo;
}

std::vector<double> beep_frequencies()
{
    std::vector<double> frequencies;
    for (int pitch = 0; pitch < Programme::kBeepPitches; pitch++)
        frequencies.push_back(Programme::kLowestBeepHz + Programme::kBeepStepHz * pitch);
    return frequencies;
}

int sent_pitch(const Source& source, int64_t onset)
{
    int rate = source.audio_rate();
    return find_pitch(source_audio(source, onset, rate * kPitchMs / 1000), rate, beep_frequencies());
}

/// A beep in the recording.
struct Beep {
    int64_t position;
    int pitch; ///< -1: cut off, or disturbed
};

std::vector<Beep> find_beeps(const Recording& recording)
{
    OnsetDetector detector(recording.sample_rate(), Programme::kBeepPeak);
    std::vector<int16_t> stereo(2 * kChunkFrames);
    for (int64_t first = 0; first < recording.frames(); first += kChunkFrames) {
        int64_t frames = std::min<int64_t>(kChunkFrames, recording.frames() - first);
        recording.read(first, stereo.data(), frames);
        detector.feed(stereo.data(), static_cast<int>(frames));
    }
    std::vector<Beep> beeps;
    int64_t frames = recording.sample_rate() * kPitchMs / 1000;
    stereo.resize(static_cast<size_t>(2 * frames));
    for (int64_t onset : detector.onsets()) {
        recording.read(onset, stereo.data(), frames);
        beeps.push_back({onset, find_pitch(stereo, recording.sample_rate(), beep_frequencies())});
    }
    return beeps;
}

const Sighting* find_flash(const std::vector<Sighting>& sightings, const Source& source, int64_t source_ns)
{
    for (const Sighting& sighting : sightings) {
        int64_t since = source.frame_ns(sighting.number) - source_ns;
        if (sighting.flash && since >= 0 && since < Programme::kMarkDurationNs)
            return &sighting;
    }
    return nullptr;
}

} // namespace

const Sighting* find_picture(const std::vector<Sighting>& sightings, const Source& source, int64_t source_ns)
{
    auto after =
        std::upper_bound(sightings.begin(), sightings.end(), source_ns, [&source](int64_t t, const Sighting& sighting) {
            return t < source.frame_ns(sighting.number);
        });
    return after == sightings.begin() ? nullptr : &*(after - 1);
}

// --- Offsets ------------------------------------------------------------------

OffsetStatistics summarise(const std::vector<Offset>& offsets, int sound_later_ms)
{
    OffsetStatistics result;
    if (offsets.empty())
        return result;
    std::vector<double> values;
    double sum = 0;
    for (const Offset& offset : offsets) {
        double ms = offset.ms() + sound_later_ms;
        values.push_back(ms);
        sum += ms;
        if (inside(ms, kDetectableEarlyMs, kDetectableLateMs))
            result.undetectable++;
        else if (inside(ms, kAcceptableEarlyMs, kAcceptableLateMs))
            result.acceptable++;
        else
            result.unacceptable++;
    }
    result.count = static_cast<int64_t>(values.size());
    result.mean_ms = sum / static_cast<double>(values.size());
    double squares = 0;
    for (double ms : values)
        squares += (ms - result.mean_ms) * (ms - result.mean_ms);
    result.deviation_ms = std::sqrt(squares / static_cast<double>(values.size()));
    std::sort(values.begin(), values.end(), [](double a, double b) { return share_of_r37(a) < share_of_r37(b); });
    // Nearest rank: the smallest value that at least 95 % of all do not exceed.
    auto rank = static_cast<size_t>(std::ceil(0.95 * static_cast<double>(values.size())));
    result.p95_ms = values[rank - 1];
    result.worst_ms = values.back();
    return result;
}

Latency summarise_latency(const std::vector<double>& values_ms)
{
    Latency latency;
    if (values_ms.empty())
        return latency;
    auto [least, most] = std::minmax_element(values_ms.begin(), values_ms.end());
    latency.least_ms = *least;
    latency.most_ms = *most;
    for (double ms : values_ms)
        latency.mean_ms += ms / static_cast<double>(values_ms.size());
    return latency;
}

std::vector<SoundMatch> match_beeps(const Recording& recording, const Source& source, SourceClock clock)
{
    const std::vector<Beep> beeps = find_beeps(recording);
    std::vector<SoundMatch> matches;
    size_t first = 0;
    for (int64_t sample : source.onsets()) {
        int64_t sent_ns = clock.to_monotonic(source_time_of(sample, source.audio_rate()));
        auto latency = [&](size_t beep) { return recording.heard_ns(beeps[beep].position) - sent_ns; };
        while (first < beeps.size() && latency(first) < 0)
            first++;
        int pitch = sent_pitch(source, sample);
        for (size_t beep = first; beep < beeps.size() && latency(beep) < kLatestBeepNs; beep++) {
            if (beeps[beep].pitch != pitch)
                continue;
            matches.push_back({sample, beeps[beep].position});
            break;
        }
    }
    return matches;
}

std::vector<int64_t> waveform_instants(int64_t length_ns)
{
    int64_t step = std::max<int64_t>(1, length_ns / kSecondNs / kMostInstants) * kSecondNs;
    std::vector<int64_t> instants;
    for (int64_t at_ns = kSecondNs; at_ns + kNeedleMs * 1'000'000 < length_ns; at_ns += step)
        instants.push_back(at_ns);
    return instants;
}

std::optional<int64_t> find_waveform(const Recording& recording, const std::vector<int16_t>& stereo, int64_t begin)
{
    const int64_t frames = recording.sample_rate() * kLongestLatencyNs / kSecondNs;
    std::vector<int16_t> haystack(static_cast<size_t>(2 * frames) + stereo.size());
    recording.read(begin, haystack.data(), static_cast<int64_t>(haystack.size() / 2));
    const std::optional<int64_t> place = find_in(mono(haystack), mono(stereo));
    return place && recording.heard_ns(begin + *place) >= 0 ? std::optional<int64_t>(begin + *place) : std::nullopt;
}

std::vector<SoundMatch> match_waveform(const Recording& recording, const Source& source, SourceClock clock,
                                       int64_t length_ns)
{
    std::vector<SoundMatch> matches;
    int rate = recording.sample_rate();
    for (int64_t at_ns : waveform_instants(length_ns)) {
        int64_t begin = recording.position_at(clock.to_monotonic(at_ns));
        if (begin < 0)
            continue;
        int64_t sample = at_ns / kSecondNs * source.audio_rate();
        std::vector<int16_t> sent = source_audio(source, sample, source.audio_rate() * kNeedleMs / 1000);
        if (std::optional<int64_t> place =
                find_waveform(recording, convert_rate(sent, source.audio_rate(), rate), begin))
            matches.push_back({sample, *place});
    }
    return matches;
}

std::vector<Offset> measure_offsets(const std::vector<SoundMatch>& matches, const Recording& recording,
                                    const std::vector<Sighting>& sightings, const Source& source, SourceClock clock,
                                    bool flashes)
{
    std::vector<Offset> offsets;
    std::vector<int64_t> marks = source.marks();
    for (const SoundMatch& match : matches) {
        int64_t sound_ns = source_time_of(match.source_sample, source.audio_rate());
        int64_t picture_ns = sound_ns;
        if (flashes) {
            // A mark's beep starts at the next sample, at most one sample after the mark.
            auto mark = std::lower_bound(marks.begin(), marks.end(), sound_ns - Programme::kMarkDurationNs / 2);
            if (mark == marks.end())
                continue;
            picture_ns = *mark;
        }
        const Sighting* seen =
            flashes ? find_flash(sightings, source, picture_ns) : find_picture(sightings, source, picture_ns);
        if (seen == nullptr)
            continue;
        // A flash counts from its mark on, whichever of its pictures is seen first; another picture from its own time
        // on.
        int64_t sent_ns = flashes ? picture_ns : source.frame_ns(seen->number);
        offsets.push_back({sound_ns, to_ms(recording.heard_ns(match.position) - clock.to_monotonic(sound_ns)),
                           to_ms(seen->seen_ns - clock.to_monotonic(sent_ns))});
    }
    return offsets;
}

// --- Pictures -------------------------------------------------------------------

Cadence measure_cadence(const std::vector<Sighting>& sightings, PictureRange due, double vblanks_per_picture)
{
    Cadence cadence;
    cadence.due = std::max<int64_t>(0, due.last - due.first + 1);
    if (sightings.empty())
        return cadence;
    auto longest = static_cast<int64_t>(std::ceil(vblanks_per_picture - 1e-6));
    int64_t held_too_long = 0;
    for (const Sighting& sighting : sightings) {
        cadence.vblanks += sighting.vblanks;
        held_too_long += std::max<int64_t>(0, sighting.vblanks - longest);
        if (cadence.histogram.size() <= static_cast<size_t>(sighting.vblanks))
            cadence.histogram.resize(static_cast<size_t>(sighting.vblanks) + 1);
        cadence.histogram[static_cast<size_t>(sighting.vblanks)]++;
    }
    auto seen = static_cast<int64_t>(sightings.size());
    cadence.pictures = std::max(due.last, sightings.back().number) - std::min(due.first, sightings.front().number) + 1;
    cadence.unseen = cadence.pictures - seen;
    cadence.repeats = cadence.vblanks - seen;
    // More pictures than vertical blanks: some cannot be seen. Fewer: some must stay.
    auto beyond = [&cadence](double per_picture) {
        return static_cast<int64_t>(
            std::ceil(static_cast<double>(cadence.pictures) * std::max(per_picture, 0.0) - 1e-6));
    };
    int64_t must_hide = beyond(1 - vblanks_per_picture);
    int64_t must_repeat = beyond(vblanks_per_picture - 1);
    cadence.excess_unseen = std::max<int64_t>(0, cadence.unseen - must_hide);
    cadence.excess_repeats = std::max(held_too_long, cadence.repeats - must_repeat);
    return cadence;
}

// --- Samples ---------------------------------------------------------------------

namespace
{

/// Samples that are complete with @p link_frames on the link; of coded ones, those of whole bursts.
int64_t samples_until(Coding coding, int64_t link_frames)
{
    return coding == Coding::pcm ? link_frames : link_frames / burst_link_frames(coding) * kBurstSamples;
}

/// Samples from @p sample to the first burst that begins with it or later.
int64_t samples_to_burst(int64_t sample) { return ((-sample) % kBurstSamples + kBurstSamples) % kBurstSamples; }

/// Compares the frames that were written before number @p end with the source's.
void compare_until(int64_t end, const Recording& recording, const Source& source, SampleCheck* check)
{
    std::vector<int16_t> played(2 * kChunkFrames);
    std::vector<int16_t> sent(2 * kChunkFrames);
    auto next = static_cast<int64_t>(check->first_source_sample) - check->earlier;
    for (const HeardBlock& block : recording.blocks()) {
        for (int64_t done = 0; done < block.frames && !block.silence; done += kChunkFrames) {
            int64_t frames = std::min<int64_t>(kChunkFrames, block.frames - done);
            recording.read(block.first_frame + done, played.data(), frames);
            source.audio(next, sent.data(), static_cast<int>(frames));
            int64_t before = recording.written_before(block.first_frame) + done;
            int64_t compared = std::clamp<int64_t>(end - before, 0, frames);
            for (int64_t i = std::max<int64_t>(check->earlier + check->settling - before, 0); i < compared; i++) {
                bool equal = played[2 * i] == sent[2 * i] && played[2 * i + 1] == sent[2 * i + 1];
                if (!equal && check->first_mismatch < 0)
                    check->first_mismatch = before + i;
                check->mismatches += equal ? 0 : 1;
            }
            next += frames;
        }
    }
}

} // namespace

bool SampleCheck::passed() const
{
    return out > 0 && first_source_sample >= 0 && std::abs(missing) <= static_cast<double>(block) &&
           (exact ? mismatches == 0 : worst_place <= place_tolerance);
}

GridError measure_grid(const std::vector<Sighting>& sightings, double refresh_hz)
{
    std::vector<double> errors_us;
    for (size_t i = 1; i < sightings.size(); i++) {
        auto passed_us = static_cast<double>(sightings[i].seen_ns - sightings[i - 1].seen_ns) / 1e3;
        double refresh_us = 1e6 / refresh_hz;
        errors_us.push_back(std::abs(passed_us - std::round(passed_us / refresh_us) * refresh_us));
    }
    if (errors_us.empty())
        return {};
    std::sort(errors_us.begin(), errors_us.end());
    return {errors_us[(errors_us.size() - 1) * 99 / 100], errors_us.back()};
}

SampleCheck check_samples(const Recording& recording, const Source& source, const std::vector<SoundMatch>& matches,
                          const CapturePath& path)
{
    SampleCheck check;
    check.same_rate = source.audio_rate() == recording.sample_rate();
    check.exact = check.same_rate && path.transparent && !path.matched;
    check.place_tolerance = path.transparent && !path.matched ? kPlaceTolerance : kConvertedTolerance;
    const int64_t reopened_at = recording.written_before(recording.last_opening());
    check.earlier = std::max(reopened_at, path.cut_off) + path.silence;
    check.out = recording.written() - check.earlier;
    check.block = recording.sample_rate() / 50;
    if (matches.empty())
        return check;
    double clocks = path.matched.value_or(1);
    double unmatched = std::abs(clocks - 1) * kUnmatchedSeconds * recording.sample_rate();
    check.place_tolerance += unmatched;
    double ratio = clocks * recording.sample_rate() / source.audio_rate();
    if (source.coding() != Coding::pcm)
        check.block = std::max<int64_t>(check.block, std::llround(kBurstSamples * ratio));
    check.block += std::llround(unmatched);
    auto played = [&recording, &check](const SoundMatch& match) {
        return static_cast<double>(recording.written_before(match.position) - check.earlier);
    };
    check.first_source_sample = static_cast<double>(matches.front().source_sample) - played(matches.front()) / ratio;
    int64_t sent = samples_until(source.coding(), path.captured_end);
    if (path.captured_end < 0) {
        sent = matches.back().source_sample;
        check.out = static_cast<int64_t>(played(matches.back()));
    }
    if (source.coding() != Coding::pcm) {
        // The player hands the zeros behind the last burst on as silence.
        double end = static_cast<double>(source.coded_end());
        sent = std::min(sent, source.coded_end());
        check.out = std::min<int64_t>(check.out, std::llround((end - check.first_source_sample) * ratio));
        check.settling = samples_to_burst(std::llround(check.first_source_sample)) + kDecoderSettling;
    }
    check.in = sent - std::llround(check.first_source_sample);
    // A device that is opened anew discards what waits behind the first block.
    if (reopened_at > 0)
        check.settling += check.block;
    check.missing = static_cast<double>(check.in) * ratio - static_cast<double>(check.out);
    for (const SoundMatch& match : matches) {
        double belongs = (static_cast<double>(match.source_sample) - check.first_source_sample) * ratio;
        check.worst_place = std::max(check.worst_place, std::abs(played(match) - belongs));
    }
    if (check.exact)
        // What comes after the last match may come from behind the source's end.
        compare_until(path.captured_end < 0 ? check.earlier + check.out : recording.written(), recording, source,
                      &check);
    return check;
}

} // namespace play
