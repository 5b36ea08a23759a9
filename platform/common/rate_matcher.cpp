// SPDX-License-Identifier: MIT
#include "rate_matcher.h"

#include <cmath>

namespace clocks
{

void RateMatcher::capture_started(double rate)
{
    mutex_guard guard(mutex_);
    in_flight_.capture_started(rate);
    controller_.start();
}

void RateMatcher::capture_ended()
{
    mutex_guard guard(mutex_);
    in_flight_.capture_ended();
}

void RateMatcher::captured(int64_t now_ns, int64_t frames)
{
    mutex_guard guard(mutex_);
    in_flight_.captured(now_ns, frames);
}

bool RateMatcher::playback_started(int rate, int channels)
{
    mutex_guard guard(mutex_);
    rate_ = rate;
    in_flight_.playback_started(rate);
    controller_.start();
    in_frames_ = out_frames_ = 0;
    return resampler_.open(rate, channels);
}

void RateMatcher::playback_moved()
{
    mutex_guard guard(mutex_);
    in_flight_.playback_started(rate_);
    controller_.start();
}

void RateMatcher::played(int64_t now_ns, int64_t frames)
{
    mutex_guard guard(mutex_);
    in_flight_.played(now_ns, frames);
}

void RateMatcher::disturbed()
{
    mutex_guard guard(mutex_);
    in_flight_.disturbed();
}

int RateMatcher::convert(int64_t now_ns, const int16_t* in, int frames, int16_t* out)
{
    mutex_guard guard(mutex_);
    const double in_end = static_cast<double>(in_frames_) - resampler_.waiting_frames();
    const Flow flow = {in_end, static_cast<double>(out_frames_), controller_.step()};
    const bool knew = state_.excess.has_value();
    state_.excess = in_flight_.excess(now_ns, flow);
    state_.set_points += state_.excess && !knew ? 1 : 0;
    state_.step = controller_.update(now_ns, state_.excess, in_flight_.speed_ratio());
    resampler_.set_step(state_.step);
    const int made = resampler_.convert(in, frames, out);
    if (made < 0)
        return made;
    in_frames_ += frames;
    out_frames_ += made;
    return made;
}

int RateMatcher::delay(int queued) const
{
    mutex_guard guard(mutex_);
    return static_cast<int>(std::lround(resampler_.waiting_frames() + queued * state_.step));
}

void RateMatcher::reset()
{
    mutex_guard guard(mutex_);
    in_flight_ = {};
    controller_ = {};
    resampler_ = {};
    state_ = {};
    in_frames_ = out_frames_ = 0;
}

MatchState RateMatcher::state() const
{
    mutex_guard guard(mutex_);
    return state_;
}

} // namespace clocks
