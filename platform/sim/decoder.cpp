// SPDX-License-Identifier: MIT
/**
 * @file
 * The decoder of platform/linux, with faults on demand. Its functions are
 * built here under other names (see CMakeLists.txt).
 */
#include "adecoder.h"

#include "sim.h"

namespace
{
constexpr int kPcmFrameBytes = 2 * sim::kBytesPerSample; ///< the player asks for stereo
}

extern "C" {

adecoder_handle_t* sound_adecoder_init(adecoder_format_t format, int32_t arg1, int32_t arg2,
                                       adecoder_channel_t num_channel, int32_t arg4, bool async_mode);
int32_t sound_adecoder_write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t arg3,
                             int32_t timeout_ms, int32_t* status);
int32_t sound_adecoder_read(adecoder_handle_t* handle, int32_t arg1, int32_t arg2, void* buffer, int32_t buffer_size,
                            int32_t arg5);
int32_t sound_adecoder_get_output_sample_rate(adecoder_handle_t* handle);
int32_t sound_adecoder_deinit(adecoder_handle_t* handle);

SIM_EXPORT adecoder_handle_t* adecoder_init(adecoder_format_t format, int32_t arg1, int32_t arg2,
                                            adecoder_channel_t num_channel, int32_t arg4, bool async_mode)
{
    if (sim::fault_verdict(hdmi_sim::Op::decoder_init).fail)
        return nullptr;
    return sound_adecoder_init(format, arg1, arg2, num_channel, arg4, async_mode);
}

SIM_EXPORT int32_t adecoder_write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t arg3,
                                  int32_t timeout_ms, int32_t* status)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_write);
    if (!verdict.fail && !verdict.withhold)
        return sound_adecoder_write(handle, data, sim::brief_size(verdict, bytes, 1), arg3, timeout_ms, status);
    if (status != nullptr)
        *status = 0;
    return verdict.fail ? verdict.result : bytes;
}

SIM_EXPORT int32_t adecoder_read(adecoder_handle_t* handle, int32_t arg1, int32_t arg2, void* buffer,
                                 int32_t buffer_size, int32_t arg5)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_read);
    if (verdict.fail)
        return verdict.result;
    return sound_adecoder_read(handle, arg1, arg2, buffer, sim::brief_size(verdict, buffer_size, kPcmFrameBytes), arg5);
}

SIM_EXPORT int32_t adecoder_get_output_sample_rate(adecoder_handle_t* handle)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_rate);
    return verdict.fail ? verdict.result : sound_adecoder_get_output_sample_rate(handle);
}

SIM_EXPORT int32_t adecoder_deinit(adecoder_handle_t* handle)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_deinit);
    return verdict.fail ? verdict.result : sound_adecoder_deinit(handle);
}

} // extern "C"
