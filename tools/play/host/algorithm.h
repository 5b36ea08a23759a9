// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace play
{

/**
 * Stands for a host's audio processing that delays: a line through which the
 * samples of one sequence pass. It puts out real samples only, never silence
 * of its own, so that the first block it emits carries the time stamp of the
 * sequence's first sample.
 */
class DelayLine
{
public:
    explicit DelayLine(int delay_ms);

    /// A new sequence begins with @p pts_us: what is left of the old one is forgotten.
    void start(int64_t pts_us, int sample_rate);
    /// Appends stereo samples.
    void push(const int16_t* stereo, int frames);
    /// Takes what has been in the line long enough. @return frames in @p stereo; *pts_us is that of the first
    int pop(std::vector<int16_t>* stereo, int64_t* pts_us);
    /// From now on nothing is held back: the end of the sound.
    void drain() { hold_ = 0; }
    bool empty() const { return line_.empty(); }

private:
    int delay_ms_;
    int sample_rate_ = 0;
    int64_t start_pts_us_ = 0;
    int64_t emitted_ = 0; ///< frames since start
    size_t hold_ = 0;     ///< frames that stay in the line
    std::vector<int16_t> line_;
};

} // namespace play
