// SPDX-License-Identifier: MIT
/**
 * @file
 * What the resample stage does with a source frame: which converter it needs,
 * and how large its output frame must be. Pure: nothing here logs, locks or
 * keeps state.
 */
#pragma once

#include <algorithm>
#include <cstdint>

#include "internal/resample.h"

/// The source is taken as 16-bit samples where output is sized.
constexpr int32_t RESAMPLE_SOURCE_SAMPLE_BYTES = 2;
/// Samples of headroom in each output frame: what the converter held back earlier comes out on top.
constexpr int64_t RESAMPLE_HEADROOM_SAMPLES = 64;
/// Channels the converter library can handle at most.
constexpr int RESAMPLE_MAX_CHANNELS = 64;
/// Stands for the converter's rate after it was freed by a failure. No frame has this rate.
constexpr int RESAMPLE_RATE_NONE = 0;

struct conversion_plan_t {
    bool usable = false;       ///< false: the frame can neither be converted nor copied
    bool rate_changed = false; ///< the converter was built for another rate: it is freed, and built anew if `converts`
    bool converts = false;     ///< false: the bytes are copied as they are
    int nb_frames = 0;         ///< source samples, taken as 16-bit
    int buf_size = 0;          ///< bytes that the output frame must hold
};

/// Whether frames of @p rate need a converter; @p has_converter: there is one, built for src.sample_rate.
inline bool needs_converter(const audio_param_t& src, const audio_param_t& tgt, bool has_converter, int rate)
{
    if (rate == src.sample_rate)
        return has_converter;
    // A change of rate compares rates only. But a converter that was lost may have been there for the layout.
    const bool layout_lost = src.sample_rate == RESAMPLE_RATE_NONE && src.channel_layout != tgt.channel_layout;
    return rate != tgt.sample_rate || layout_lost;
}

/// Bytes of the output frame for @p nb_frames samples of @p rate; 0 or less when there can be none.
inline int output_size(const audio_param_t& tgt, int nb_frames, int rate)
{
    const int64_t samples = int64_t{tgt.sample_rate} * nb_frames / rate + RESAMPLE_HEADROOM_SAMPLES;
    if (samples < RESAMPLE_HEADROOM_SAMPLES || samples > INT32_MAX)
        return 0;
    return av_samples_get_buffer_size(nullptr, tgt.channels, static_cast<int>(samples), tgt.fmt, 1);
}

/// The plan for @p frame: the converter is chosen first, since the size depends on it.
inline conversion_plan_t plan_conversion(const audio_param_t& src, const audio_param_t& tgt, bool has_converter,
                                         const hdmi_player_audio_frame_t& frame)
{
    const auto holds_samples = [](const audio_param_t& param) {
        return param.frame_size > 0 && param.channels <= RESAMPLE_MAX_CHANNELS;
    };
    conversion_plan_t plan;
    if (frame.data == nullptr || frame.size < 0 || frame.channels <= 0 || frame.sample_rate <= 0 ||
        !holds_samples(src) || !holds_samples(tgt))
        return plan;
    plan.rate_changed = frame.sample_rate != src.sample_rate;
    plan.converts = needs_converter(src, tgt, has_converter, frame.sample_rate);
    plan.nb_frames = frame.size / RESAMPLE_SOURCE_SAMPLE_BYTES / frame.channels;
    plan.buf_size = output_size(tgt, plan.nb_frames, frame.sample_rate);
    plan.usable = plan.buf_size > 0;
    // A copy needs room for every byte, also where the target's samples are smaller than the source's.
    if (plan.usable && !plan.converts)
        plan.buf_size = std::max(plan.buf_size, frame.size);
    return plan;
}
