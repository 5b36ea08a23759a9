// SPDX-License-Identifier: MIT
/**
 * @file
 * The functions of adecoder.h, for platforms that use the decoder on libavcodec.
 */
#include "adecoder.h"

#include "decoder_avcodec.h"

#define ADECODER_EXPORT __attribute__((visibility("default")))

extern "C" {

ADECODER_EXPORT adecoder_handle_t* adecoder_init(adecoder_format_t format, int32_t, int32_t,
                                                 adecoder_channel_t num_channel, int32_t, bool async_mode)
{
    return decoder_avcodec::open(format, num_channel, async_mode);
}

ADECODER_EXPORT int32_t adecoder_write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t, int32_t,
                                       int32_t* status)
{
    return decoder_avcodec::write(handle, data, bytes, status);
}

ADECODER_EXPORT int32_t adecoder_read(adecoder_handle_t* handle, int32_t, int32_t, void* buffer, int32_t buffer_size,
                                      int32_t)
{
    return decoder_avcodec::read(handle, buffer, buffer_size);
}

ADECODER_EXPORT int32_t adecoder_get_output_sample_rate(adecoder_handle_t* handle)
{
    return decoder_avcodec::output_sample_rate(handle);
}

ADECODER_EXPORT int32_t adecoder_deinit(adecoder_handle_t* handle) { return decoder_avcodec::close(handle); }

} // extern "C"
