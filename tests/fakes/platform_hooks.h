// SPDX-License-Identifier: MIT
/**
 * @file
 * The platform seams as hooks: a test replaces the functions it cares about,
 * the others succeed and do nothing. For tests of one module with results and
 * order under the test's control; whole-player tests use the simulated platform.
 *
 * Set hooks before the module under test is initialised, or under a lock of
 * the test's own: the hooks themselves are not locked.
 */
#pragma once

#include <xf86drm.h>

#include <functional>

#include "adecoder.h"
#include "aio_device.h"
#include "hdmi_cec.h"

struct PlatformHooks {
    std::function<int(audio_config_t*)> open;
    std::function<int(audio_config_t*)> close;
    std::function<int(audio_config_t*, uint8_t*, int)> read;
    std::function<int(audio_config_t*, const uint8_t*, int)> write;
    std::function<int(audio_config_t*, int*)> get_write_bytes; ///< default: 0 frames queued
    std::function<int(audio_config_t*, int)> frames_to_bytes;  ///< default: 4 bytes a frame, 0 is one period
    std::function<int(audio_config_t*, int)> set_volume;
    std::function<int(audio_config_t*, int)> set_volume_direct;
    std::function<int(audio_config_t*, bool)> set_mute;
    std::function<int(audio_config_t*, int, int)> reselect;

    std::function<adecoder_handle_t*(adecoder_format_t, adecoder_channel_t, bool)> decoder_init; ///< default: null
    std::function<int32_t(adecoder_handle_t*, const void*, int32_t, int32_t*)> decoder_write;
    std::function<int32_t(adecoder_handle_t*, void*, int32_t)> decoder_read;
    std::function<int32_t(adecoder_handle_t*)> decoder_rate;
    std::function<int32_t(adecoder_handle_t*)> decoder_deinit;

    std::function<int(hdmi_cec_config_t*)> cec_init;
    std::function<int()> cec_open_arc;
    std::function<int()> cec_deinit;

    std::function<int(int, drmVBlank*)> wait_vblank; ///< default: fails
};

/// The hooks in force.
extern PlatformHooks g_hooks;
