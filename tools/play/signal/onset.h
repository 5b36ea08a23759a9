// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace play
{

/**
 * Finds where beeps start in a stream of stereo samples: the first sample of
 * the left channel at half of the beep's peak or more, after a time in
 * which none came near it.
 */
class OnsetDetector
{
public:
    OnsetDetector(int sample_rate, int16_t beep_peak);

    /// The next @p frames samples of the stream.
    void feed(const int16_t* stereo, int frames);
    /// Sample numbers, counted from the first one fed.
    const std::vector<int64_t>& onsets() const { return onsets_; }
    /// The same, and forgets them: for streams without end.
    std::vector<int64_t> take() { return std::exchange(onsets_, {}); }

private:
    int loud_;
    int quiet_;
    int64_t rest_; ///< samples of quiet that separate two beeps
    int64_t position_ = 0;
    int64_t last_sound_ = -1; ///< last sample that was not quiet
    std::vector<int64_t> onsets_;
};

} // namespace play
