// SPDX-License-Identifier: MIT
#include "ratio_resampler.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace clocks
{
namespace
{

constexpr int kFilterFrames = 2 * RatioResampler::kLookaheadFrames;
/// libswresample keeps the step in units of 2^-20, and takes it as a change over so many output frames.
constexpr double kStepUnits = 1 << 20;
constexpr int kUnitScale = 1 << 10;
constexpr int kCompensationFrames = 1 << 30;
/// Zeros of the input that make an output frame zero: the whole filter, and what one call converts.
constexpr int kSilenceMax = 1 << 24;
constexpr int64_t kDelayParts = 1000;

} // namespace

void RatioResampler::Deleter::operator()(SwrContext* context) const { swr_free(&context); }

bool RatioResampler::open(int rate, int channels)
{
    rate_ = rate;
    channels_ = channels;
    silent_frames_ = 0;
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, channels);
    SwrContext* swr = nullptr;
    swr_alloc_set_opts2(&swr, &layout, AV_SAMPLE_FMT_S16, rate, &layout, AV_SAMPLE_FMT_S16, rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    swr_.reset(swr);
    if (swr == nullptr)
        return false;
    // Also where the ratio is 1, and between the filter's phases: without interpolation they are heard.
    av_opt_set_int(swr, "flags", SWR_FLAG_RESAMPLE, 0);
    av_opt_set_int(swr, "exact_rational", 0, 0);
    av_opt_set_int(swr, "linear_interp", 1, 0);
    av_opt_set_int(swr, "filter_size", kFilterFrames, 0);
    av_opt_set_sample_fmt(swr, "internal_sample_fmt", AV_SAMPLE_FMT_FLTP, 0);
    av_opt_set_int(swr, "dither_method", SWR_DITHER_TRIANGULAR_HIGHPASS, 0);
    if (swr_init(swr) < 0)
        swr_.reset();
    return is_open();
}

void RatioResampler::set_step(double step)
{
    const auto units = static_cast<int>(std::lround((1 - step) * kStepUnits));
    swr_set_compensation(swr_.get(), units * kUnitScale, kCompensationFrames);
}

void RatioResampler::note_silence(const int16_t* in, int frames)
{
    const int samples = frames * channels_;
    int zeros = 0;
    while (zeros < samples && in[samples - 1 - zeros] == 0)
        ++zeros;
    const int before = zeros == samples ? silent_frames_ : 0;
    silent_frames_ = std::min(before + zeros / channels_, kSilenceMax);
}

int RatioResampler::convert(const int16_t* in, int frames, int16_t* out)
{
    const auto* from = reinterpret_cast<const uint8_t*>(in);
    auto* to = reinterpret_cast<uint8_t*>(out);
    const int made = swr_convert(swr_.get(), &to, room(frames), &from, frames);
    note_silence(in, frames);
    // The dither would be all that is left.
    if (made > 0 && silent_frames_ >= made + kFilterFrames + kLookaheadFrames)
        std::fill_n(out, static_cast<size_t>(made) * static_cast<size_t>(channels_), int16_t{0});
    return made;
}

double RatioResampler::waiting_frames() const
{
    if (!is_open())
        return 0;
    return static_cast<double>(swr_get_delay(swr_.get(), rate_ * kDelayParts)) / kDelayParts;
}

} // namespace clocks
