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
    double tone_hz = 300;      ///< of the first channel; 170 Hz more in each further one
    bool extended_7_1 = false; ///< E-AC-3 5.1 at 48 kHz: with a dependent frame of noise in the four channels around
};

/// @p count packets of one frame each, or of one and its dependent one: a tone per channel and a little noise.
std::vector<Bytes> encode(const Format& format, int count);

/// Interleaved 16-bit PCM of @p packets, decoded one by one with consistent noise and mixed down with the stream's own
/// levels.
std::vector<int16_t> decode(const Format& format, const std::vector<Bytes>& packets, int channels);

/// The bursts of all packets, each filled up to its repetition period.
Bytes mux_bursts(const Format& format, const std::vector<Bytes>& packets);

/// Makes the check sum at the end of a frame of E-AC-3 right.
void set_check_sum(Bytes* frame);

Bytes join(const std::vector<Bytes>& packets);

} // namespace coded_audio
