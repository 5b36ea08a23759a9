// SPDX-License-Identifier: MIT
#include "host/algorithm.h"

namespace play
{
namespace
{

constexpr int highest_rate = 48000;
/// Beyond what is held back: more than a block.
constexpr int room_ms = 100;

} // namespace

/// Who processes sound is a real-time thread as a rule: the line does not grow on it.
DelayLine::DelayLine(int delay_ms) : m_delay_ms(delay_ms)
{
    m_line.reserve(static_cast<size_t>(2 * (delay_ms + room_ms)) * highest_rate / 1000);
}

void DelayLine::start(int64_t pts_us, int sample_rate)
{
    m_sample_rate = sample_rate;
    m_start_pts_us = pts_us;
    m_emitted = 0;
    m_hold = static_cast<size_t>(sample_rate) * static_cast<size_t>(m_delay_ms) / 1000;
    m_line.clear();
}

void DelayLine::push(const int16_t* stereo, int frames) { m_line.insert(m_line.end(), stereo, stereo + 2 * frames); }

int DelayLine::pop(std::vector<int16_t>* stereo, int64_t* pts_us)
{
    stereo->clear();
    size_t held = m_line.size() / 2;
    if (held <= m_hold)
        return 0;
    auto end = m_line.begin() + static_cast<std::ptrdiff_t>(2 * (held - m_hold));
    stereo->assign(m_line.begin(), end);
    m_line.erase(m_line.begin(), end);
    *pts_us = m_start_pts_us + m_emitted * 1'000'000 / m_sample_rate;
    auto frames = static_cast<int>(stereo->size() / 2);
    m_emitted += frames;
    return frames;
}

} // namespace play
