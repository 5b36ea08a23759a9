// SPDX-License-Identifier: MIT
/**
 * @file
 * AC-3 and E-AC-3 made at test time with libavcodec's encoders, decoded with
 * its decoders and packed into IEC 61937 bursts with libavformat's muxer.
 */
#pragma once

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace coded_audio
{

using Bytes = std::vector<uint8_t>;

struct Format {
    AVCodecID codec = AV_CODEC_ID_AC3;
    int rate = 48000;
    int channels = 2;
    int64_t bit_rate = 192000;
    double tone_hz = 300; ///< of the first channel; 170 Hz more in each further one
};

/// @p count packets of one frame each: a tone per channel and a little noise.
std::vector<Bytes> encode(const Format& format, int count);

/// Interleaved 16-bit PCM of @p packets, decoded one by one with consistent noise and mixed down with the stream's own
/// levels.
std::vector<int16_t> decode(const Format& format, const std::vector<Bytes>& packets, int channels);

/// The bursts of all packets, each filled up to its repetition period.
Bytes mux_bursts(const Format& format, const std::vector<Bytes>& packets);

Bytes join(const std::vector<Bytes>& packets);

} // namespace coded_audio
