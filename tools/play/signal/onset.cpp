// SPDX-License-Identifier: MIT
#include "signal/onset.h"

#include <cstdlib>

namespace play
{
namespace
{

/// Longer than the gaps within a beep (its zero crossings), shorter than those between beeps.
constexpr int rest_ms = 100;

} // namespace

OnsetDetector::OnsetDetector(int sample_rate, int16_t beep_peak)
    : m_loud(beep_peak / 2), m_quiet(beep_peak / 8), m_rest(static_cast<int64_t>(sample_rate) * rest_ms / 1000)
{
}

void OnsetDetector::feed(const int16_t* stereo, int frames)
{
    for (int i = 0; i < frames; i++, m_position++) {
        int level = std::abs(static_cast<int>(stereo[2 * i]));
        if (level <= m_quiet)
            continue;
        bool rested = m_last_sound < 0 || m_position - m_last_sound > m_rest;
        // What swells below the threshold first (a resampler's ringing) belongs to the onset that follows it.
        if (level < m_loud && rested)
            continue;
        if (rested)
            m_onsets.push_back(m_position);
        m_last_sound = m_position;
    }
}

} // namespace play
