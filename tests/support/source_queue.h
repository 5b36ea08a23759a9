// SPDX-License-Identifier: MIT
/**
 * @file
 * The queue of the stage before the module under test, and what the module did with it.
 */
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "eventually.h"
#include "internal/frame_queue.h"

inline int32_t g_source = -1;
inline std::atomic<int> g_pushed, g_asked, g_taken, g_returned;

inline void open_source()
{
    g_pushed = g_asked = g_taken = g_returned = 0;
    g_source = frame_queue_init(128, "SOURCE");
}
inline void close_source()
{
    EXPECT_EQ(g_returned, g_taken);
    EXPECT_EQ(frame_queue_deinit(g_source), 0);
}

inline hdmi_player_audio_frame_t* dequeue_source(int32_t timeout_ms)
{
    ++g_asked;
    frame_info_t* record = frame_queue_done_dequeue(g_source, timeout_ms);
    if (record == nullptr)
        return nullptr;
    ++g_taken;
    return &record->frame;
}

inline int32_t put_source(hdmi_player_audio_frame_t* frame)
{
    EXPECT_EQ(frame_queue_put(g_source, frame), 0) << "a frame came back that was not out";
    ++g_returned;
    return 0;
}

/// Queues a frame; the buffer is exactly as large as the data when the pool is new.
inline void push(const std::vector<uint8_t>& bytes, int32_t rate = 48000, int64_t pts = 0, int32_t serial = 0,
                 int32_t channels = 2)
{
    frame_info_t* record = frame_queue_pool_acquire(g_source, static_cast<int32_t>(bytes.size()));
    ASSERT_NE(record, nullptr);
    std::copy(bytes.begin(), bytes.end(), record->frame.data);
    record->frame.size = static_cast<int32_t>(bytes.size());
    record->frame.sample_rate = rate;
    record->frame.channels = channels;
    record->frame.pts = pts;
    record->frame.serial = serial;
    ++g_pushed;
    ASSERT_EQ(frame_queue_done_enqueue(g_source, record), 0);
}

/// Whether the module gives back all that was pushed; waits until it has.
inline bool source_drains()
{
    return eventually([] { return g_returned == g_pushed; });
}
