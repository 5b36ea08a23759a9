// SPDX-License-Identifier: MIT
/**
 * @file
 * The functions of adecoder.h: the decoder on libavcodec, with faults on demand.
 */
#include "adecoder.h"

#include "decoder_avcodec.h"
#include "sim.h"
#include "time_line.h"

namespace
{
constexpr int kPcmFrameBytes = 2 * sim::kBytesPerSample; ///< the player asks for stereo
}

extern "C" {

SIM_EXPORT adecoder_handle_t* adecoder_init(adecoder_format_t format, int32_t, int32_t, adecoder_channel_t num_channel,
                                            int32_t, bool async_mode)
{
    if (sim::fault_verdict(hdmi_sim::Op::decoder_init).fail)
        return nullptr;
    return decoder_avcodec::open(format, num_channel, async_mode);
}

SIM_EXPORT int32_t adecoder_write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t, int32_t,
                                  int32_t* status)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_write);
    if (!verdict.fail && !verdict.withhold)
        return decoder_avcodec::write(handle, data, sim::brief_size(verdict, bytes, 1), status);
    if (status != nullptr)
        *status = 0;
    return verdict.fail ? verdict.result : bytes;
}

SIM_EXPORT int32_t adecoder_read(adecoder_handle_t* handle, int32_t, int32_t, void* buffer, int32_t buffer_size,
                                 int32_t)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_read);
    if (verdict.fail)
        return verdict.result;
    return decoder_avcodec::read(handle, buffer, sim::brief_size(verdict, buffer_size, kPcmFrameBytes));
}

SIM_EXPORT int32_t adecoder_get_output_sample_rate(adecoder_handle_t* handle)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_rate);
    return verdict.fail ? verdict.result : decoder_avcodec::output_sample_rate(handle);
}

SIM_EXPORT int32_t adecoder_deinit(adecoder_handle_t* handle)
{
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::decoder_deinit);
    return verdict.fail ? verdict.result : decoder_avcodec::close(handle);
}

} // extern "C"

namespace hdmi_sim
{

void decoder_fills_losses(bool on)
{
    decoder_avcodec::set_clock(on ? nullptr : decoder_avcodec::Clock([]() -> int64_t { return 0; }));
}

void note_capture(CaptureNews news)
{
    switch (news) {
    case CaptureNews::opened: return time_line::begin();
    case CaptureNews::delivered: return time_line::delivered();
    case CaptureNews::closed: return time_line::end();
    }
}

} // namespace hdmi_sim
