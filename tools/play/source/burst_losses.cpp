// SPDX-License-Identifier: MIT
#include "source/burst_losses.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>

#include "source/programme.h"

namespace play
{
namespace
{

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr double kLookedAtAfterS = 0.5;
constexpr double kApartS = 4;
/// By then the player has seen all the bursts by which it knows their pace.
constexpr double kFirstBeginsS = 3.5;
constexpr int64_t kMostBursts = 1000;

constexpr std::array<const char*, 5> kNames = {"flag", "preamble", "length", "noise", "pause"};

// The first two frames of a burst: Pa and Pb, Pc and Pd.
constexpr int kPreambleFrames = 2;
constexpr int16_t kPa = static_cast<int16_t>(0xF872);
constexpr int16_t kPb = 0x4E1F;
constexpr int16_t kErrorFlag = 0x80;
constexpr int16_t kTooLong = -1; // 0xFFFF
constexpr int16_t kPauseType = 3;
constexpr int16_t kPauseBits = 32;
constexpr int64_t kPausePeriodFrames = 3;

/// Nowhere a preamble, nowhere zero.
int16_t noise_word(int64_t number) { return static_cast<int16_t>((number * 40503 & 0x3FFF) | 0x4001); }

int16_t pause_word(int64_t frame, int channel)
{
    int64_t in_pause = frame % kPausePeriodFrames;
    if (in_pause == 0)
        return channel == 0 ? kPa : kPb;
    return in_pause == 1 ? (channel == 0 ? kPauseType : kPauseBits) : int16_t{0};
}

/// Of frame @p frame of a burst. @p words has its two.
void damage(BurstLoss::Kind kind, int64_t frame, int16_t* words)
{
    switch (kind) {
    case BurstLoss::Kind::flag: words[0] = static_cast<int16_t>(words[0] | (frame == 1 ? kErrorFlag : 0)); return;
    case BurstLoss::Kind::preamble: words[0] = static_cast<int16_t>(words[0] ^ (frame == 0 ? 0x10 : 0)); return;
    case BurstLoss::Kind::length: words[1] = frame == 1 ? kTooLong : words[1]; return;
    case BurstLoss::Kind::noise:
        for (int channel = 0; channel < 2 && frame >= kPreambleFrames; channel++)
            words[channel] = noise_word(2 * frame + channel);
        // Its length says so too: a flag, so that the decoder is not given noise.
        words[0] = static_cast<int16_t>(words[0] | (frame == 1 ? kErrorFlag : 0));
        return;
    case BurstLoss::Kind::pause:
        for (int channel = 0; channel < 2; channel++)
            words[channel] = pause_word(frame, channel);
        return;
    }
}

bool parse_loss(const std::string& text, BurstLoss* loss)
{
    std::string numbers = text;
    size_t colon = text.find(':');
    if (colon != std::string::npos) {
        const auto* name = std::find(kNames.begin(), kNames.end(), text.substr(colon + 1));
        if (name == kNames.end())
            return false;
        loss->kind = static_cast<BurstLoss::Kind>(name - kNames.begin());
        numbers.erase(colon);
    }
    std::istringstream in(numbers);
    char at = '@';
    if (!(in >> loss->bursts) || loss->bursts < 1 || loss->bursts > kMostBursts)
        return false;
    if (in.eof())
        return true;
    return in >> at >> loss->looked_at_s && at == '@' && in.eof() && loss->looked_at_s > 0;
}

} // namespace

const char* loss_name(BurstLoss::Kind kind) { return kNames[static_cast<size_t>(kind)]; }

bool parse_losses(const std::string& text, std::vector<BurstLoss>* losses)
{
    losses->clear();
    std::istringstream in(text);
    for (std::string each; std::getline(in, each, ',');) {
        BurstLoss loss;
        if (!parse_loss(each, &loss))
            return false;
        losses->push_back(loss);
    }
    return !losses->empty();
}

bool place_losses(std::vector<BurstLoss> losses, int audio_rate, std::vector<LostBursts>* placed)
{
    double burst_s = static_cast<double>(kBurstSamples) / audio_rate;
    double free_from_s = kFirstBeginsS;
    for (BurstLoss& loss : losses) {
        double lasts_s = static_cast<double>(loss.bursts) * burst_s;
        if (loss.looked_at_s == 0)
            loss.looked_at_s = std::ceil(free_from_s + lasts_s + burst_s + kLookedAtAfterS);
        auto end = static_cast<int64_t>((loss.looked_at_s - kLookedAtAfterS) / burst_s);
        int64_t first = end - loss.bursts;
        if (static_cast<double>(first) * burst_s < free_from_s)
            return false;
        auto ns = [audio_rate](int64_t burst) { return burst * kBurstSamples * kSecondNs / audio_rate; };
        placed->push_back({loss, first, end, ns(first), ns(end)});
        free_from_s = loss.looked_at_s + kApartS - kLookedAtAfterS;
    }
    return true;
}

void LossySource::link(int64_t first, int16_t* words, int frames) const
{
    whole_->link(first, words, frames);
    int64_t period = burst_link_frames(coding());
    for (const LostBursts& lost : lost_) {
        int64_t from = std::max(first, lost.first * period);
        int64_t until = std::min(first + frames, lost.end * period);
        for (int64_t frame = from; frame < until; frame++)
            damage(lost.loss.kind, frame % period, words + 2 * (frame - first));
    }
}

void LossySource::audio(int64_t first, int16_t* stereo, int frames) const
{
    whole_->audio(first, stereo, frames);
    for (const LostBursts& lost : lost_) {
        int64_t from = std::max(first, lost.first * kBurstSamples);
        int64_t until = std::min(first + frames, lost.end * kBurstSamples);
        if (from < until)
            std::fill(stereo + 2 * (from - first), stereo + 2 * (until - first), int16_t{0});
    }
}

// The sound is as it was half a second after a loss. A beep that a loss cuts off cannot be found either.
bool LossySource::is_heard(int64_t source_ns) const
{
    constexpr auto kBackNs = static_cast<int64_t>(kLookedAtAfterS * kSecondNs);
    return std::none_of(lost_.begin(), lost_.end(), [source_ns](const LostBursts& lost) {
        return source_ns + Programme::kMarkDurationNs > lost.from_ns && source_ns < lost.to_ns + kBackNs;
    });
}

std::vector<int64_t> LossySource::heard_of(std::vector<int64_t> values) const
{
    std::vector<int64_t> marks = whole_->marks();
    std::vector<int64_t> heard;
    for (size_t i = 0; i < values.size() && i < marks.size(); i++)
        if (is_heard(marks[i]))
            heard.push_back(values[i]);
    return heard;
}

std::vector<int64_t> LossySource::marks() const { return heard_of(whole_->marks()); }
std::vector<int64_t> LossySource::onsets() const { return heard_of(whole_->onsets()); }

std::string LossySource::description() const
{
    int64_t bursts = 0;
    for (const LostBursts& lost : lost_)
        bursts += lost.loss.bursts;
    return whole_->description() + ", " + std::to_string(bursts) + " bursts of it lost";
}

} // namespace play
