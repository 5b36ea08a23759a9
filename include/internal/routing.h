// SPDX-License-Identifier: MIT
/**
 * @file
 * The routing decision: how the pipeline runs for an input format and an output
 * selection. A function of its argument alone.
 */
#pragma once

#include "aio_device.h"
#include "hdmi_player.h"
#include "internal/audio_input.h"
#include "internal/audio_output.h"
#include "internal/dolby.h"

struct routing_state {
    hdmi_player_ao_dev_e ao_dev;
    hdmi_player_ao_format_e ao_format;
    audio_input_format_e ai_format;
    audio_in_bypass_mode_e ai_bypass_mode;
    dolby_strategy_e strategy;
    bool disable_avsync;
    bool decodable;          ///< of compressed input: the decoder knows its format
    bool pcm_avsync_off;     ///< debug_hdmiplayer_disable_avsync
    bool decoded_avsync_off; ///< debug_hdmiplayer_dolby_disable_avsync
};

struct routing_decision {
    audio_in_bypass_mode_e ai_bypass_mode;
    audio_output_dev_op_e ao_op;
    dolby_strategy_e strategy;
    bool disable_avsync;
};

/// Whether the input's bursts go past the player to a digital output.
bool passes_bursts_on(const routing_state& state);

routing_decision decide_routing(const routing_state& state);
