// SPDX-License-Identifier: MIT
#include "alsa_matching.h"

#include <cstring>

#include "internal/common.h"

namespace hdmi_linux
{

void Matching::captured(const CaptureClock& clock)
{
    mutex_guard guard(capture_mutex_);
    capture_card_ = clock.opening != 0 ? clock.card : kNoCapture;
    capture_.follow(clock, &matcher_);
}

void Matching::open(int rate, int channels, int frames)
{
    rate_ = rate;
    channels_ = channels;
    at_work_ = false;
    const auto samples = static_cast<size_t>(channels);
    input_.resize(samples * static_cast<size_t>(frames));
    output_.resize(samples * static_cast<size_t>(clocks::RatioResampler::room(frames)));
}

// Devices without a card have a clock that nobody knows: that of a sound server, or of what is behind it.
bool Matching::wanted() const
{
    if (policy_ != RateMatching::automatic)
        return policy_ == RateMatching::on;
    const int capture = capture_card_;
    return capture != kNoCapture && (capture < 0 || capture != card_);
}

void Matching::attach(RateMatching policy, int card)
{
    policy_ = policy;
    card_ = card;
    if (at_work_ && wanted())
        matcher_.playback_moved();
    else
        at_work_ = false;
}

void Matching::played(int64_t ns, int64_t position)
{
    if (at_work_)
        matcher_.played(ns, position - begun_at_);
}

void Matching::disturbed()
{
    if (at_work_)
        matcher_.disturbed();
}

bool Matching::begin(int64_t position)
{
    if (at_work_ || !wanted())
        return at_work_;
    begun_at_ = position;
    at_work_ = matcher_.playback_started(rate_, channels_);
    if (at_work_)
        log_i("playback has a clock of its own: what it plays is resampled\n");
    return at_work_;
}

void Matching::append(const uint8_t* data, int frames, int64_t now, SoundRing* ring)
{
    if (!begin(ring->end())) {
        ring->append(data, frames);
        return;
    }
    memcpy(input_.data(), data, static_cast<size_t>(frames) * static_cast<size_t>(channels_) * sizeof(int16_t));
    const int made = matcher_.convert(now, input_.data(), frames, output_.data());
    if (made > 0)
        ring->append(reinterpret_cast<const uint8_t*>(output_.data()), made);
}

} // namespace hdmi_linux
