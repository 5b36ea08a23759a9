// SPDX-License-Identifier: MIT
/**
 * @file
 * A resampler of 16-bit sound whose ratio is near 1 and moves, on libswresample.
 *
 * docs/sync.md compares it with others. The result is dithered to 16 bits (high-pass triangular, -94.5 dB of full scale
 * below 20 kHz), since a rounding error that follows the signal is heard as distortion; silence stays silence. Nothing
 * is allocated per block once the blocks have had their largest size.
 */
#pragma once

#include <cstdint>
#include <memory>

struct SwrContext;

namespace clocks
{

class RatioResampler
{
public:
    /// Frames of the future that an output frame depends on; so many of the input wait inside.
    static constexpr int kLookaheadFrames = 16;

    /// @return false: no memory, or no such rate; the resampler is not to be used then.
    bool open(int rate, int channels);
    bool is_open() const { return swr_ != nullptr; }

    /// Input frames by output frame, within 1 +- 0.002; to one part in 2^20.
    void set_step(double step);
    /// Room that @p frames input frames need at most.
    static int room(int frames) { return frames + frames / 256 + kLookaheadFrames; }
    /// Takes all of @p in. @p out has room(). @return output frames, negative: no memory; the input is lost
    int convert(const int16_t* in, int frames, int16_t* out);

    /// Input frames that were taken and are not in the output yet, to a thousandth.
    double waiting_frames() const;

private:
    struct Deleter {
        void operator()(SwrContext* context) const;
    };

    void note_silence(const int16_t* in, int frames);

    std::unique_ptr<SwrContext, Deleter> swr_;
    int rate_ = 0;
    int channels_ = 0;
    int silent_frames_ = 0; ///< zeros at the end of the input, up to some maximum
};

} // namespace clocks
