// SPDX-License-Identifier: MIT
/**
 * @file
 * The decoder of compressed audio on libavcodec, for platforms whose vendor has
 * none. The functions keep the promises of adecoder.h, without the parameters
 * that they do not need.
 */
#pragma once

#include "adecoder.h"

namespace decoder_avcodec
{

adecoder_handle_t* open(adecoder_format_t format, adecoder_channel_t num_channel, bool async_mode);
int32_t write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t* status);
int32_t read(adecoder_handle_t* handle, void* buffer, int32_t buffer_size);
int32_t output_sample_rate(adecoder_handle_t* handle);
int32_t close(adecoder_handle_t* handle);

using Clock = int64_t (*)();
/// For tests: the clock by which decoders find what is missing, in microseconds; null: the monotonic one. One that
/// stands still finds nothing.
void set_clock(Clock clock);

} // namespace decoder_avcodec
