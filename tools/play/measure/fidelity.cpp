// SPDX-License-Identifier: MIT
#include "measure/fidelity.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <optional>
#include <utility>

#include "signal/windowed_sinc.h"
#include "source/programme.h"
#include "source/reference.h"

namespace play
{
namespace
{

constexpr int kWindowsPerS = 10;
/// The fit looks at every fourth frame: noise and tones have enough of them.
constexpr int kFitStep = 4;
constexpr int kFitRounds = 3;
/// A round that moves a window by less, in frames, is the last: its error is of the order of this times itself.
constexpr double kFitEnough = 0.005;
/// And a search at fewer, since it tries many places.
constexpr int kSearchStep = 16;
/// Where a window may be sought, in frames beside the place that the one before told.
constexpr int kNear = 16;
constexpr int kFar = 1600;
/// How far from a beep its place is asked for, and by how much it may differ from that of the window before.
constexpr double kBeepReachS = 1.5;
constexpr double kFarthestS = 5;
/// Far searches take half a second.
constexpr int kMostFarSearches = 30;
/// What may be left of the faint noise, whose highest part no resampler passes on.
constexpr double kNoiseLeft = 0.6;
/// What may be left of tone and sweep, and beside that of their rounding.
constexpr double kToneLeft = 0.01;
constexpr double kRoundingLeft = 4;
/// What is left is judged up to 20 kHz, as instruments do (AES17). Above lie the images of a source of 44.1 kHz, which
/// each converter on the way passes on in its own measure.
constexpr double kHearingHz = 20000;
constexpr double kBeyondHearingHz = 22500;
/// A click stands out of what else is left.
constexpr double kClickFactor = 8;
constexpr double kFaintestClick = 16;
/// The same beside a tone, as a part of it.
constexpr double kClickInTone = 0.002;
/// RMS below which there is no sweep to speak of.
constexpr double kFaintestSweep = 1000;
/// A jump by less is no sample.
constexpr double kHalfSample = 0.5;
/// Rate matching may take a minute to find the pitch.
constexpr double kPitchFromS = 60;
/// What is lower than any noise of 16 bits stands for nothing at all.
constexpr double kNothingDb = -150;

/// Where a window's middle lies in the source, in reference frames, and how many of them pass with each frame heard.
struct Place {
    double middle;
    double speed;
};

using Levels = std::array<double, 2>; ///< by channel

/// What is left of a window.
struct Rest {
    Levels sent{}; ///< mean square of the source
    Levels left{}; ///< mean square of what was added
    Levels peak{}; ///< its highest sample
    Levels gain{{1, 1}};
};

double ratio_db(double a, double b)
{
    return a > 0 && b > 0 ? std::max(10 * std::log10(a / b), kNothingDb) : kNothingDb;
}

/// Mean square of what is left beside the tone: behind a notch as wide as those of instruments (AES17: Q of 1.2 to 3),
/// which removes the sidebands of a pitch that moves slowly.
double beside_tone(const std::vector<double>& left, int rate)
{
    constexpr double kQ = 2;
    constexpr size_t kRingingMs = 10;
    double turn = 2 * M_PI * Programme::kToneHz / rate;
    double width = std::sin(turn) / (2 * kQ);
    double x1 = 0;
    double x2 = 0;
    double y1 = 0;
    double y2 = 0;
    double sum = 0;
    size_t skipped = static_cast<size_t>(rate) * kRingingMs / 1000;
    for (size_t i = 0; i < left.size(); i++) {
        double x = left[i];
        double y = (x - 2 * std::cos(turn) * (x1 - y1) + x2 - (1 - width) * y2) / (1 + width);
        x2 = std::exchange(x1, x);
        y2 = std::exchange(y1, y);
        sum += i >= skipped ? y * y : 0;
    }
    return sum / static_cast<double>(left.size() - skipped);
}

/// @p out becomes as long as @p in without the margins of @p taps.
void filter(const std::vector<float>& taps, const std::vector<float>& in, std::vector<double>& out)
{
    // So many sums that the compiler can keep them side by side.
    constexpr size_t kLanes = 8;
    out.clear();
    const size_t count = in.size() - taps.size() + 1;
    for (size_t i = 0; i < count; i += kLanes) {
        const size_t lanes = std::min(kLanes, count - i);
        float sums[kLanes] = {};
        if (lanes == kLanes)
            for (size_t tap = 0; tap < taps.size(); tap++)
                for (size_t lane = 0; lane < kLanes; lane++)
                    sums[lane] += taps[tap] * in[i + tap + lane];
        else
            for (size_t lane = 0; lane < lanes; lane++)
                sums[lane] = std::inner_product(taps.begin(), taps.end(),
                                                in.begin() + static_cast<std::ptrdiff_t>(i + lane), 0.0F);
        out.insert(out.end(), sums, sums + lanes);
    }
}

class SoundComparison
{
public:
    SoundComparison(const Recording& recording, const Source& source, const std::vector<SoundMatch>& matches,
                    const Comparison& comparison)
        : recording_(recording), source_(source), matches_(matches), comparison_(comparison),
          length_(recording.sample_rate() / kWindowsPerS),
          audible_(low_pass_taps(kHearingHz / recording.sample_rate(), kBeyondHearingHz / recording.sample_rate())),
          margin_(static_cast<int>(audible_.size() / 2)), heard_(2 * static_cast<size_t>(length_ + 2 * margin_))
    {
    }

    Fidelity run();

private:
    bool judge(int64_t first, Place predicted);
    bool read(int64_t first);
    double source_s(double place) const { return reference_->source_s(place); }
    std::optional<Place> fit(Place place, int rounds);
    std::optional<Place> fit_near(Place place, int range);
    std::optional<Place> fit_by_beeps(int64_t first, Place predicted);
    std::optional<Place> find_again(int64_t first, Place predicted, bool beep);
    const int16_t* heard(int frame) const { return &heard_[2 * static_cast<size_t>(frame + margin_)]; }
    Rest rest_of(Place place, int step);
    Rest audible_rest_of(Place place);
    bool has_beep(Place place) const;
    bool fits(const Rest& rest, bool beep) const;
    bool clicks(const Rest& rest, bool beep) const;
    void note_pitch(Place place);
    void note_tones(Place place, const Rest& rest);
    void end_second();

    const Recording& recording_;
    const Source& source_;
    const std::vector<SoundMatch>& matches_;
    const Comparison& comparison_;
    const int length_;                       ///< frames in a window
    const std::vector<float> audible_;       ///< taps that pass on what can be heard
    const int margin_;                       ///< frames that they need before and behind a window
    std::vector<int16_t> heard_;             ///< a window and its margins
    std::vector<std::array<float, 2>> sent_; ///< the source's frames, by the latest rest_of()
    std::vector<float> full_;                ///< what is left of a channel, of every frequency, with the margins
    std::vector<double> left_;               ///< of the right channel, what can be heard
    std::optional<Reference> reference_;
    Fidelity result_;
    Place place_{};
    int far_searches_ = 0;
    std::vector<double> middles_; ///< of the latest windows that fitted, without a gap
    int64_t second_ = -1;         ///< of the source, whose tone is being added up
    double disturbed_s_ = -1;     ///< of the source: the latest window that was disturbed
    int tone_windows_ = 0;
    double tone_ = 0;
    double noise_ = 0;
    bool any_tone_ = false;
};

bool SoundComparison::read(int64_t first)
{
    const int frames = length_ + 2 * margin_;
    return recording_.read(first - margin_, heard_.data(), frames) == frames;
}

/// Gains and what they leave, over every @p step frames.
Rest SoundComparison::rest_of(Place place, int step)
{
    Levels products{};
    Levels squares{};
    Levels own{};
    sent_.clear();
    for (int i = 0; i < length_; i += step) {
        sent_.push_back(reference_->at(place.middle + (i - length_ / 2.0) * place.speed));
        for (size_t c = 0; c < 2; c++) {
            double x = sent_.back()[c];
            double y = heard(i)[c];
            products[c] += x * y;
            squares[c] += x * x;
            own[c] += y * y;
        }
    }
    Rest rest;
    auto count = static_cast<double>(sent_.size());
    for (size_t c = 0; c < 2; c++) {
        rest.gain[c] = squares[c] > 0 ? products[c] / squares[c] : 1;
        rest.sent[c] = squares[c] / count;
        rest.left[c] = std::max(own[c] - rest.gain[c] * products[c], 0.0) / count;
    }
    return rest;
}

/// The same over every frame, of which only what can be heard is left.
Rest SoundComparison::audible_rest_of(Place place)
{
    Rest rest = rest_of(place, 1);
    for (size_t c = 0; c < 2; c++) {
        full_.clear();
        for (int i = -margin_; i < length_ + margin_; i++) {
            bool inside = i >= 0 && i < length_;
            double sent = inside ? sent_[static_cast<size_t>(i)][c]
                                 : reference_->at(place.middle + (i - length_ / 2.0) * place.speed)[c];
            full_.push_back(static_cast<float>(heard(i)[c] - rest.gain[c] * sent));
        }
        filter(audible_, full_, left_);
        double left = 0;
        for (double r : left_) {
            left += r * r;
            rest.peak[c] = std::max(rest.peak[c], std::abs(r));
        }
        rest.left[c] = left / length_;
    }
    return rest;
}

/// Gauss and Newton, over both channels. @return nothing where the source does not reach
std::optional<Place> SoundComparison::fit(Place place, int rounds)
{
    for (int round = 0; round < rounds; round++) {
        if (!reference_->reach(place.middle - length_, place.middle + length_))
            return {};
        Rest rest = rest_of(place, kFitStep);
        double dd = 0;
        double ds = 0;
        double ss = 0;
        double rd = 0;
        double rs = 0;
        for (int i = 0; i < length_; i += kFitStep) {
            double from_middle = i - length_ / 2.0;
            const std::array<float, 2>& sent = sent_[static_cast<size_t>(i / kFitStep)];
            std::array<float, 2> slope = reference_->slope_at(place.middle + from_middle * place.speed);
            for (size_t c = 0; c < 2; c++) {
                double r = heard(i)[c] - rest.gain[c] * sent[c];
                double d = rest.gain[c] * slope[c];
                double s = d * from_middle / length_;
                dd += d * d;
                ds += d * s;
                ss += s * s;
                rd += r * d;
                rs += r * s;
            }
        }
        double determinant = dd * ss - ds * ds;
        // Silence fits everywhere.
        if (!(determinant > 0))
            break;
        const double moved = std::clamp((rd * ss - rs * ds) / determinant, -1.0, 1.0);
        const double faster = std::clamp((rs * dd - rd * ds) / determinant / length_, -1e-3, 1e-3);
        place.middle += moved;
        place.speed += faster;
        if (std::abs(moved) < kFitEnough && std::abs(faster) * length_ < kFitEnough)
            break;
    }
    return place;
}

/// From the whole frame at which least is left of the left channel, whose noise is nowhere like itself. At the speed of
/// the clocks: a window that did not fit tells nothing of it. Not where a beep is, which is like itself each half
/// period.
std::optional<Place> SoundComparison::fit_near(Place place, int range)
{
    double best = -1;
    Place from = place;
    for (int shift = -range; shift <= range; shift++) {
        Place tried = {place.middle + shift, 1 / comparison_.clocks};
        if (!reference_->reach(tried.middle - length_, tried.middle + length_))
            return {};
        Rest rest = rest_of(tried, kSearchStep);
        if (best < 0 || rest.left[0] < best) {
            best = rest.left[0];
            from = tried;
        }
    }
    return fit(from, 2 * kFitRounds);
}

/// From the beeps before and behind the window at @p first, which are in place whatever was lost or added beyond them.
/// @return nothing where it does not fit either
std::optional<Place> SoundComparison::fit_by_beeps(int64_t first, Place predicted)
{
    const int rate = recording_.sample_rate();
    const double speed = 1 / comparison_.clocks;
    const auto behind =
        std::find_if(matches_.begin(), matches_.end(), [=](const SoundMatch& match) { return match.position > first; });
    for (auto match = behind != matches_.begin() ? behind - 1 : behind; match != matches_.end(); ++match) {
        const double from_beep = static_cast<double>(first - match->position) + length_ / 2.0;
        const Place place = {reference_->place_of(match->source_sample) + from_beep * speed, speed};
        const bool near =
            std::abs(from_beep) < kBeepReachS * rate && std::abs(place.middle - predicted.middle) < kFarthestS * rate;
        if (near && !has_beep(place)) {
            std::optional<Place> found = fit_near(place, kNear);
            if (found && fits(audible_rest_of(*found), false))
                return found;
        }
        if (match == behind)
            break;
    }
    return {};
}

/// A window did not fit at @p predicted.
std::optional<Place> SoundComparison::find_again(int64_t first, Place predicted, bool beep)
{
    std::optional<Place> found = fit_by_beeps(first, predicted);
    if (!found && !beep && far_searches_++ < kMostFarSearches)
        found = fit_near(predicted, kFar);
    return found;
}

/// The beginning and the end of a beep are steep: of them, too, no resampler passes everything on.
bool SoundComparison::has_beep(Place place) const
{
    constexpr double kMarginS = 0.02;
    constexpr double kBeepS = Programme::kMarkDurationNs / 1e9;
    double from_s = source_s(place.middle - length_ / 2.0) - kMarginS;
    double until_s = source_s(place.middle + length_ / 2.0) + kMarginS;
    double second = std::floor(until_s);
    // A mark comes with the first picture of its second.
    constexpr double kLatestS = 0.1;
    return from_s < second + kLatestS + kBeepS;
}

bool SoundComparison::fits(const Rest& rest, bool beep) const
{
    bool left = rest.left[0] <= kNoiseLeft * kNoiseLeft * rest.sent[0] + (beep ? rest.sent[0] : 0) + 1;
    double limit = kToneLeft * std::sqrt(rest.sent[1]) + kRoundingLeft;
    return left && (!comparison_.tones || std::sqrt(rest.left[1]) <= limit);
}

bool SoundComparison::clicks(const Rest& rest, bool beep) const
{
    bool any = false;
    for (size_t c = 0; c < 2; c++) {
        bool judged = !beep || (c == 1 && comparison_.tones);
        double least = std::max(kFaintestClick + kClickInTone * std::sqrt(2 * rest.sent[c]),
                                kClickFactor * std::sqrt(rest.left[c]));
        any = any || (judged && rest.peak[c] > least);
    }
    return any;
}

void SoundComparison::note_pitch(Place place)
{
    middles_.push_back(place.middle);
    if (middles_.size() <= kWindowsPerS)
        return;
    double passed = place.middle - middles_[middles_.size() - 1 - kWindowsPerS];
    double ppm = (passed / (kWindowsPerS * length_) * comparison_.clocks - 1) * 1e6;
    if (source_s(place.middle) - 1 >= kPitchFromS && std::abs(ppm) >= std::abs(result_.pitch_ppm.value_or(0)))
        result_.pitch_ppm = ppm;
}

/// A second that is disturbed, or next to it, has been judged as that: a little of it may be left in other windows.
void SoundComparison::end_second()
{
    constexpr double kMarginS = 0.2;
    const auto second = static_cast<double>(second_);
    const bool disturbed = disturbed_s_ > second - kMarginS && disturbed_s_ < second + 1 + kMarginS;
    if (!disturbed && (tone_windows_ == kWindowsPerS - 1 || tone_windows_ == kWindowsPerS)) {
        double db = ratio_db(noise_, tone_);
        result_.noise_db = any_tone_ ? std::max(result_.noise_db, db) : db;
        any_tone_ = true;
    }
    tone_windows_ = 0;
    tone_ = noise_ = 0;
}

void SoundComparison::note_tones(Place place, const Rest& rest)
{
    double begin_s = source_s(place.middle - length_ / 2.0);
    double end_s = source_s(place.middle + length_ / 2.0);
    Programme::Tone tone = Programme::tone_at(begin_s);
    bool whole = Programme::tone_at(end_s) == tone;
    auto second = static_cast<int64_t>(begin_s);
    if (second != second_)
        end_second();
    second_ = second;
    if (!whole || tone == Programme::Tone::changing)
        return;
    if (tone == Programme::Tone::steady) {
        result_.tone_windows++;
        tone_windows_++;
        tone_ += rest.gain[1] * rest.gain[1] * rest.sent[1];
        noise_ += beside_tone(left_, recording_.sample_rate());
        return;
    }
    // A coder may leave nothing of the highest frequencies.
    if (std::sqrt(rest.sent[1]) < kFaintestSweep)
        return;
    double db = 20 * std::log10(std::max(std::abs(rest.gain[1]), 1e-6));
    bool first = result_.sweep_windows++ == 0;
    result_.least_db = first ? db : std::min(result_.least_db, db);
    result_.most_db = first ? db : std::max(result_.most_db, db);
}

/// @return false: the source ends
bool SoundComparison::judge(int64_t first, Place predicted)
{
    if (!read(first))
        return false;
    std::optional<Place> found = fit(predicted, kFitRounds);
    if (!found)
        return false;
    bool beep = has_beep(*found);
    Rest rest = audible_rest_of(*found);
    bool good = fits(rest, beep);
    if (!good) {
        if (std::optional<Place> elsewhere = find_again(first, predicted, beep)) {
            found = elsewhere;
            beep = has_beep(*found);
            rest = audible_rest_of(*found);
            good = fits(rest, beep);
        }
    }
    double jump = good ? std::abs(found->middle - predicted.middle) : 0;
    bool whole = good && jump < kHalfSample && !clicks(rest, beep);
    result_.windows++;
    result_.worst_jump = std::max(result_.worst_jump, jump);
    if (!whole) {
        result_.disturbed++;
        disturbed_s_ = source_s(predicted.middle);
        if (result_.disturbed == 1)
            result_.first_disturbed_s = disturbed_s_;
        middles_.clear();
    } else
        note_pitch(*found);
    place_ = good ? *found : predicted;
    if (whole && comparison_.tones)
        note_tones(*found, rest);
    return true;
}

Fidelity SoundComparison::run()
{
    int rate = source_.audio_rate();
    auto begin = std::find_if(matches_.begin(), matches_.end(), [&](const SoundMatch& match) {
        return static_cast<double>(match.source_sample) >= comparison_.from_s * rate;
    });
    if (begin == matches_.end())
        return result_;
    reference_.emplace(source_, begin->source_sample - rate, recording_.sample_rate());
    int64_t first = begin->position;
    Place predicted = {reference_->place_of(begin->source_sample) + length_ / 2.0, 1 / comparison_.clocks};
    // Behind the beep: see fit_near().
    for (int window = 0; window < kWindowsPerS && has_beep(predicted); window++) {
        first += length_;
        predicted.middle += length_ * predicted.speed;
    }
    if (!read(first))
        return result_;
    std::optional<Place> found = fit_near(predicted, kNear);
    for (predicted = found.value_or(predicted); source_s(predicted.middle) < comparison_.until_s; first += length_) {
        if (!judge(first, predicted))
            break;
        predicted = {place_.middle + length_ * place_.speed, place_.speed};
    }
    end_second();
    return result_;
}

} // namespace

Fidelity compare_sound(const Recording& recording, const Source& source, const std::vector<SoundMatch>& matches,
                       const Comparison& comparison)
{
    return SoundComparison(recording, source, matches, comparison).run();
}

} // namespace play
