// SPDX-License-Identifier: MIT
#include "source/programme.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace play
{
namespace
{

constexpr int64_t kSecondNs = 1'000'000'000;
/// A tone's turn, and its fading in and out.
constexpr double kTurnS = 10;
constexpr double kFadeS = 0.05;
static_assert(Programme::kComesRoundS % Programme::kBeepPitches == 0 &&
              Programme::kComesRoundS % static_cast<int>(2 * kTurnS) == 0);
/// One decibel below full scale.
constexpr double kTonePeak = 32767 * 0.891;
constexpr double kSweepFromHz = 20;
constexpr double kSweepToHz = 20000;
/// The sweep stays at its ends for that long.
constexpr double kStayS = 0.4;

/// A well mixed 32-bit value for each input (the finaliser of a common hash).
uint32_t mix(uint32_t x)
{
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    x ^= x >> 16;
    return x;
}

double sweep_cycles(double since_s)
{
    constexpr double kRisesS = kTurnS - 2 * kStayS;
    double rise = std::log(kSweepToHz / kSweepFromHz) / kRisesS;
    double rising_s = std::clamp(since_s - kStayS, 0.0, kRisesS);
    return kSweepFromHz * std::min(since_s, kStayS) + kSweepFromHz * (std::exp(rise * rising_s) - 1) / rise +
           kSweepToHz * std::max(since_s - kStayS - kRisesS, 0.0);
}

} // namespace

Programme::Programme(int audio_rate, Rational fps, int64_t length_ns, bool tones)
    : Programme(audio_rate, fps, length_ns, tones, Marks{})
{
}

Programme::Programme(int audio_rate, Rational fps, int64_t length_ns, bool tones, Marks marks)
    : audio_rate_(audio_rate), fps_(fps), length_ns_(length_ns), tones_(tones), marks_(marks)
{
    for (int64_t mark = 0; mark * marks_.period_ns <= length_ns; mark++)
        beeps_.push_back(
            std::llround(static_cast<double>(Programme::frame_ns(mark_frame(mark))) * audio_rate / kSecondNs));
}

/// The first picture at the mark's time or after it.
int64_t Programme::mark_frame(int64_t mark) const
{
    // Seconds apart, as in frame_ns().
    const int64_t at_ns = mark * marks_.period_ns;
    const int64_t den_ns = fps_.den * kSecondNs;
    const int64_t whole = at_ns / den_ns;
    return whole * fps_.num + (at_ns % den_ns * fps_.num + den_ns - 1) / den_ns;
}

Programme::Tone Programme::tone_at(double source_s)
{
    double since = std::fmod(source_s, 2 * kTurnS);
    double in_turn = std::fmod(since, kTurnS);
    if (in_turn < kFadeS || in_turn > kTurnS - kFadeS)
        return Tone::changing;
    return since < kTurnS ? Tone::steady : Tone::sweep;
}

int16_t Programme::tone_sample(int64_t number) const
{
    auto turn = static_cast<int64_t>(kTurnS * audio_rate_);
    double since = static_cast<double>(number % turn) / audio_rate_;
    double cycles = number / turn % 2 == 0 ? kToneHz * since : sweep_cycles(since);
    double from_end = std::min({since, kTurnS - since, kFadeS});
    double fade = (1 - std::cos(M_PI * from_end / kFadeS)) / 2;
    return static_cast<int16_t>(std::lrint(kTonePeak * fade * std::sin(2 * M_PI * cycles)));
}

int16_t Programme::sample(int64_t number, int channel) const
{
    if (tones_ && channel == 1)
        return number >= 0 ? tone_sample(number) : int16_t{0};
    uint32_t hash = mix(static_cast<uint32_t>(number * 2 + channel));
    int value = static_cast<int>(hash % (2 * kNoisePeak + 1)) - kNoisePeak;
    const int64_t at_ns = number / audio_rate_ * kSecondNs + number % audio_rate_ * kSecondNs / audio_rate_;
    auto mark = static_cast<size_t>(at_ns / marks_.period_ns);
    // The mark's frame may come a little after its time: then this sample may be the beep of the one before.
    if (mark >= beeps_.size() || number < beeps_[mark]) {
        if (mark == 0 || mark > beeps_.size())
            return static_cast<int16_t>(value);
        mark--;
    }
    int64_t since = number - beeps_[mark];
    // Sound and picture of mark 0 come while the player starts.
    if (mark > 0 && since * kSecondNs < kMarkDurationNs * audio_rate_) {
        double frequency =
            kLowestBeepHz + kBeepStepHz * static_cast<double>(mark % static_cast<size_t>(marks_.pitches));
        double phase = 2 * M_PI * frequency * static_cast<double>(since) / audio_rate_;
        value += static_cast<int>(std::lrint(kBeepPeak * std::cos(phase)));
    }
    return static_cast<int16_t>(value);
}

void Programme::audio(int64_t first, int16_t* stereo, int frames) const
{
    for (int i = 0; i < frames; i++) {
        stereo[2 * i] = sample(first + i, 0);
        stereo[2 * i + 1] = sample(first + i, 1);
    }
}

int64_t Programme::frame_ns(int64_t number) const
{
    // Full seconds apart: the product of all would overflow after some hours.
    int64_t ticks = number * fps_.den;
    return ticks / fps_.num * kSecondNs + ticks % fps_.num * kSecondNs / fps_.num;
}

bool Programme::next_video(VideoFrame* frame)
{
    frame->number = next_frame_;
    frame->source_ns = frame_ns(next_frame_);
    if (frame->source_ns >= length_ns_)
        return false;
    int64_t mark = frame->source_ns / marks_.period_ns;
    int64_t since_mark = frame->source_ns - frame_ns(mark_frame(mark));
    bool flash = mark > 0 && since_mark >= 0 && since_mark < kMarkDurationNs;
    write_number(&frame->picture, frame->number);
    fill_field(&frame->picture, flash ? Picture::kWhite : Picture::kBlack);
    next_frame_++;
    return true;
}

std::vector<int64_t> Programme::marks() const
{
    std::vector<int64_t> marks;
    for (size_t mark = 1; mark < beeps_.size(); mark++)
        marks.push_back(frame_ns(mark_frame(static_cast<int64_t>(mark))));
    return marks;
}

std::string Programme::description() const
{
    char text[96];
    std::snprintf(text, sizeof text, "flash and beep each second%s, %d Hz, %.5g fps", tones_ ? " beside tones" : "",
                  audio_rate_, fps_.value());
    return text;
}

} // namespace play
