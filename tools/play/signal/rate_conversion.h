// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <vector>

extern "C" {
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

struct AVFrame;

namespace play
{

/// A dithering converter to 16-bit stereo at @p rate_out from frames like @p like. Null if there is none. The caller
/// frees it.
SwrContext* make_converter(const AVFrame* like, int rate_out);

/// A converter to 16-bit stereo at the same rate, without dither, that mixes down with the levels that the stream
/// brings with @p like. Null if there is none. The caller frees it.
SwrContext* make_downmixer(const AVFrame* like);

/// A converter from 16-bit stereo to floats of full scale 1, interleaved too. Null if there is none. The caller frees
/// it.
SwrContext* make_float_converter(int rate_in, int rate_out);

/// Stereo samples of another rate, of the same length in time.
std::vector<int16_t> convert_rate(const std::vector<int16_t>& stereo, int rate_in, int rate_out);

} // namespace play
