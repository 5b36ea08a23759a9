// SPDX-License-Identifier: MIT
#include "host/algorithm.h"

namespace play
{
namespace
{

constexpr int kHighestRate = 48000;
/// Beyond what is held back: more than a block.
constexpr int kRoomMs = 100;

} // namespace

/// Who processes sound is a real-time thread as a rule: the line does not grow on it.
DelayLine::DelayLine(int delay_ms) : delay_ms_(delay_ms)
{
    line_.reserve(static_cast<size_t>(2 * (delay_ms + kRoomMs)) * kHighestRate / 1000);
}

void DelayLine::start(int64_t pts_us, int sample_rate)
{
    sample_rate_ = sample_rate;
    start_pts_us_ = pts_us;
    emitted_ = 0;
    hold_ = static_cast<size_t>(sample_rate) * static_cast<size_t>(delay_ms_) / 1000;
    line_.clear();
}

void DelayLine::push(const int16_t* stereo, int frames) { line_.insert(line_.end(), stereo, stereo + 2 * frames); }

int DelayLine::pop(std::vector<int16_t>* stereo, int64_t* pts_us)
{
    stereo->clear();
    size_t held = line_.size() / 2;
    if (held <= hold_)
        return 0;
    auto end = line_.begin() + static_cast<std::ptrdiff_t>(2 * (held - hold_));
    stereo->assign(line_.begin(), end);
    line_.erase(line_.begin(), end);
    *pts_us = start_pts_us_ + emitted_ * 1'000'000 / sample_rate_;
    auto frames = static_cast<int>(stereo->size() / 2);
    emitted_ += frames;
    return frames;
}

} // namespace play
