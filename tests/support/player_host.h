// SPDX-License-Identifier: MIT
/**
 * @file
 * The callbacks of a host of the whole player, and its main().
 */
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>

#include "hdmi_player.h"
#include "hdmi_sim.h"

/// What the callbacks of player_config() saw.
inline std::atomic<int> g_unsupported, g_resets, g_flipped, g_dropped;
inline std::function<void()> g_in_event = [] {}; ///< inside the event callback; to be set while the player is closed

inline void forget_callbacks()
{
    g_unsupported = g_resets = g_flipped = g_dropped = 0;
    g_in_event = [] {};
}

inline hdmi_player_config_t player_config()
{
    hdmi_player_config_t config = {};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.video_frame_queue_size = 24;
    config.event_cb = [](hdmi_player_event_e event) {
        ++(event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET ? g_resets : g_unsupported);
        g_in_event();
    };
    config.video_frame_drop_cb = [](hdmi_player_video_frame_t) { ++g_dropped; };
    config.video_frame_flip_cb = [](hdmi_player_video_frame_t) { ++g_flipped; };
    return config;
}

inline int32_t render_frame(uintptr_t handle = 1)
{
    hdmi_player_video_frame_t frame = {reinterpret_cast<void*>(handle), 0};
    return hdmi_player_video_render(&frame);
}

/// Runs all tests in private namespaces; 77 on a machine without them.
inline int run_in_namespaces(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::string error;
    if (hdmi_sim::prepare_announcements(&error))
        return RUN_ALL_TESTS();
    printf("SKIPPED: %s\n", error.c_str());
    return 77;
}
