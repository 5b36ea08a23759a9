// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace common
{

/**
 * Holds sound back, in place: it begins with as much silence, and keeps its
 * time stamps, so that the player's picture does not wait with it.
 * Stereo, 16 bits. Nothing is allocated after construction, unless a rate is
 * above 48 kHz.
 */
class SoundHold
{
public:
    explicit SoundHold(int64_t hold_ns) : hold_ns_(hold_ns) { ring_.reserve(samples_at(kHighestRate)); }

    /// Sound begins, for the first time or after a pause: what is held of the sound before is forgotten.
    void start(int sample_rate)
    {
        ring_.assign(samples_at(sample_rate), 0);
        next_ = 0;
    }

    /// Whether what is held is as long as it should be at that rate. If not, it has to start again.
    bool suits(int sample_rate) const { return ring_.size() == samples_at(sample_rate); }

    /// Takes a block, and puts what has been held long enough in its place.
    void pass(int16_t* stereo, int frames)
    {
        size_t left = ring_.empty() ? 0 : 2 * static_cast<size_t>(frames);
        while (left > 0) {
            const size_t count = std::min(left, ring_.size() - next_);
            std::swap_ranges(stereo, stereo + count, ring_.begin() + static_cast<std::ptrdiff_t>(next_));
            stereo += count;
            left -= count;
            next_ = (next_ + count) % ring_.size();
        }
    }

    /// Frames that are held, and as many of silence came first.
    int frames() const { return static_cast<int>(ring_.size() / 2); }

    /// The sound has ended: what is still held, oldest first.
    std::vector<int16_t> rest() const
    {
        std::vector<int16_t> rest(ring_);
        std::rotate(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(next_), rest.end());
        return rest;
    }

private:
    static constexpr int kHighestRate = 48000;

    size_t samples_at(int sample_rate) const
    {
        return 2 * static_cast<size_t>((hold_ns_ * sample_rate + 500'000'000) / 1'000'000'000);
    }

    const int64_t hold_ns_;
    std::vector<int16_t> ring_;
    size_t next_ = 0; ///< the oldest sample
};

} // namespace common
