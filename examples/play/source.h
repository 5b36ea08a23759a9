// SPDX-License-Identifier: MIT
/**
 * @file
 * What a source at the other end of the HDMI cable sends: sound by sample
 * number, pictures by time. Both run on the source's one clock, whose zero is
 * the first sample.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "picture.h"

namespace play
{

struct Rational {
    int64_t num;
    int64_t den;
    double value() const { return static_cast<double>(num) / static_cast<double>(den); }
};

/// A source's clock, seen from this machine's monotonic clock.
struct SourceClock {
    int64_t start_ns = 0; ///< monotonic time of the source's zero
    double ppm = 0;       ///< the source's clock runs that much faster

    int64_t to_monotonic(int64_t source_ns) const
    {
        return start_ns + static_cast<int64_t>(static_cast<double>(source_ns) / (1 + ppm * 1e-6));
    }
    int64_t to_source(int64_t monotonic_ns) const
    {
        return static_cast<int64_t>(static_cast<double>(monotonic_ns - start_ns) * (1 + ppm * 1e-6));
    }
};

/// One picture as it comes out of the receiver.
struct VideoFrame {
    int64_t number;
    int64_t source_ns; ///< when it arrives
    Picture picture;
};

class Source
{
public:
    virtual ~Source() = default;

    virtual int audio_rate() const = 0;
    /// Stereo samples @p first and following. From any thread; does not block.
    virtual void audio(int64_t first, int16_t* stereo, int frames) const = 0;

    /// The nominal frame rate.
    virtual Rational fps() const = 0;
    /// The next picture in order, false at the end. One thread. May wait for a decoder that is behind.
    virtual bool next_video(VideoFrame* frame) = 0;
    /// When picture @p number arrives; only for numbers that next_video() has given.
    virtual int64_t frame_ns(int64_t number) const = 0;

    /// Source times at which picture and sound both change at a stroke; empty if there are none by construction.
    virtual std::vector<int64_t> marks() const = 0;
    /// How often sound or picture was asked for before it was decoded: then the source itself failed real time.
    virtual int64_t starved() const = 0;
    virtual std::string description() const = 0;
};

} // namespace play
