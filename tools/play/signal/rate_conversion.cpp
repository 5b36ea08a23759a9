// SPDX-License-Identifier: MIT
#include "signal/rate_conversion.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/downmix_info.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
#include <libavutil/version.h>
}

namespace play
{
namespace
{

// Channel layouts became a record with FFmpeg 5.1, and the masks went with FFmpeg 7.
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)

SwrContext* allocate(AVChannelLayout* layout_in, AVSampleFormat format_in, int rate_in, int rate_out,
                     AVSampleFormat format_out = AV_SAMPLE_FMT_S16)
{
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    SwrContext* converter = nullptr;
    if (swr_alloc_set_opts2(&converter, &stereo, format_out, rate_out, layout_in, format_in, rate_in, 0, nullptr) < 0)
        return nullptr;
    return converter;
}

SwrContext* allocate_like(const AVFrame* like, int rate_out)
{
    AVChannelLayout layout = {};
    // Files that name no positions, only a count, get the usual ones.
    if (like->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&layout, like->ch_layout.nb_channels);
    else
        av_channel_layout_copy(&layout, &like->ch_layout);
    SwrContext* converter = allocate(&layout, static_cast<AVSampleFormat>(like->format), like->sample_rate, rate_out);
    av_channel_layout_uninit(&layout);
    return converter;
}

SwrContext* allocate_stereo(int rate_in, int rate_out, AVSampleFormat format_out)
{
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    return allocate(&stereo, AV_SAMPLE_FMT_S16, rate_in, rate_out, format_out);
}

#else

SwrContext* allocate(int64_t layout_in, AVSampleFormat format_in, int rate_in, int rate_out,
                     AVSampleFormat format_out = AV_SAMPLE_FMT_S16)
{
    return swr_alloc_set_opts(nullptr, AV_CH_LAYOUT_STEREO, format_out, rate_out, layout_in, format_in, rate_in, 0,
                              nullptr);
}

SwrContext* allocate_like(const AVFrame* like, int rate_out)
{
    auto layout = static_cast<int64_t>(like->channel_layout);
    if (layout == 0)
        layout = av_get_default_channel_layout(like->channels);
    return allocate(layout, static_cast<AVSampleFormat>(like->format), like->sample_rate, rate_out);
}

SwrContext* allocate_stereo(int rate_in, int rate_out, AVSampleFormat format_out)
{
    return allocate(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, rate_in, rate_out, format_out);
}

#endif

SwrContext* started(SwrContext* converter)
{
    if (converter != nullptr && swr_init(converter) < 0)
        swr_free(&converter);
    return converter;
}

} // namespace

SwrContext* make_converter(const AVFrame* like, int rate_out)
{
    SwrContext* converter = allocate_like(like, rate_out);
    // As 16-bit sound is made: and the noise makes even a steady tone differ from place to place.
    if (converter != nullptr)
        av_opt_set_int(converter, "dither_method", SWR_DITHER_TRIANGULAR, 0);
    return started(converter);
}

SwrContext* make_downmixer(const AVFrame* like)
{
    SwrContext* converter = allocate_like(like, like->sample_rate);
    const AVFrameSideData* side = av_frame_get_side_data(like, AV_FRAME_DATA_DOWNMIX_INFO);
    if (converter != nullptr && side != nullptr) {
        const auto* info = reinterpret_cast<const AVDownmixInfo*>(side->data);
        bool matrixed = info->preferred_downmix_type == AV_DOWNMIX_TYPE_LTRT;
        av_opt_set_double(converter, "center_mix_level",
                          matrixed ? info->center_mix_level_ltrt : info->center_mix_level, 0);
        av_opt_set_double(converter, "surround_mix_level",
                          matrixed ? info->surround_mix_level_ltrt : info->surround_mix_level, 0);
        av_opt_set_double(converter, "lfe_mix_level", info->lfe_mix_level, 0);
    }
    return started(converter);
}

SwrContext* make_float_converter(int rate_in, int rate_out)
{
    return started(allocate_stereo(rate_in, rate_out, AV_SAMPLE_FMT_FLT));
}

std::vector<int16_t> convert_rate(const std::vector<int16_t>& stereo, int rate_in, int rate_out)
{
    if (rate_in == rate_out)
        return stereo;
    SwrContext* converter = started(allocate_stereo(rate_in, rate_out, AV_SAMPLE_FMT_S16));
    if (converter == nullptr)
        return {};
    auto frames_in = static_cast<int64_t>(stereo.size() / 2);
    std::vector<int16_t> out(static_cast<size_t>(2 * (frames_in * rate_out / rate_in)));
    auto capacity = static_cast<int>(out.size() / 2);
    const auto* in_bytes = reinterpret_cast<const uint8_t*>(stereo.data());
    auto* out_bytes = reinterpret_cast<uint8_t*>(out.data());
    int done = swr_convert(converter, &out_bytes, capacity, &in_bytes, static_cast<int>(frames_in));
    if (done >= 0 && done < capacity) {
        // The last frames stay in the filter until it is told that nothing follows.
        out_bytes = reinterpret_cast<uint8_t*>(out.data() + 2 * done);
        swr_convert(converter, &out_bytes, capacity - done, nullptr, 0);
    }
    swr_free(&converter);
    return out;
}

} // namespace play
