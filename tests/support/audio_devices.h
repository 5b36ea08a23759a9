// SPDX-License-Identifier: MIT
#pragma once

#include "aio_device.h"

/// A device as the player opens it at 48 kHz: the speaker, or the HDMI input.
inline audio_config_t audio_device(audio_stream_e stream)
{
    const bool capture = stream == E_AUDIO_STREAM_CAPTURE;
    audio_config_t config = {};
    config.stream_type = stream;
    config.device_id = capture ? E_AUDIO_IO_DEV_HDMI_IN : E_AUDIO_IO_DEV_SPEAKER;
    config.channels = 2;
    config.sample_rate = 48000;
    config.open_mode = capture ? 1 : 0;
    config.period_frames = 960;
    config.period_count = capture ? 4 : 8;
    config.in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_NONE;
    return config;
}
