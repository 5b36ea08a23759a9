// SPDX-License-Identifier: MIT
/**
 * @file
 * The decoder of a platform that has none: compressed input stays silent.
 */
#include "adecoder.h"

#include "sim.h"

extern "C" {

SIM_EXPORT adecoder_handle_t* adecoder_init(adecoder_format_t, int32_t, int32_t, adecoder_channel_t, int32_t, bool)
{
    return nullptr;
}
SIM_EXPORT int32_t adecoder_write(adecoder_handle_t*, const void*, int32_t, int32_t, int32_t, int32_t*)
{
    return -ENOSYS;
}
SIM_EXPORT int32_t adecoder_read(adecoder_handle_t*, int32_t, int32_t, void*, int32_t, int32_t) { return -ENOSYS; }
SIM_EXPORT int32_t adecoder_get_output_sample_rate(adecoder_handle_t*) { return 0; }
SIM_EXPORT int32_t adecoder_deinit(adecoder_handle_t*) { return -ENOSYS; }

} // extern "C"
