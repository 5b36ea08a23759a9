// SPDX-License-Identifier: MIT
#include "signal/onset.h"

#include <cstdlib>

namespace play
{
namespace
{

/// Longer than the gaps within a beep (its zero crossings), shorter than those between beeps.
constexpr int kRestMs = 100;

} // namespace

OnsetDetector::OnsetDetector(int sample_rate, int16_t beep_peak)
    : loud_(beep_peak / 2), quiet_(beep_peak / 8), rest_(static_cast<int64_t>(sample_rate) * kRestMs / 1000)
{
}

void OnsetDetector::feed(const int16_t* stereo, int frames)
{
    for (int i = 0; i < frames; i++, position_++) {
        int level = std::abs(static_cast<int>(stereo[2 * i]));
        if (level <= quiet_)
            continue;
        bool rested = last_sound_ < 0 || position_ - last_sound_ > rest_;
        // What swells below the threshold first (a resampler's ringing) belongs to the onset that follows it.
        if (level < loud_ && rested)
            continue;
        if (rested)
            onsets_.push_back(position_);
        last_sound_ = position_;
    }
}

} // namespace play
