// SPDX-License-Identifier: MIT
// What the benchmarks have the resample stage take and make.
#pragma once

#include "internal/resample.h"

/// Interleaved stereo of 16 bits at @p rate Hz.
inline audio_param_t stereo(int rate)
{
    audio_param_t param = {};
    param.fmt = AV_SAMPLE_FMT_S16;
    param.sample_rate = rate;
    param.channels = 2;
    return param;
}
