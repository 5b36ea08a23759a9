// SPDX-License-Identifier: MIT
/**
 * @file
 * The video side: the queue of frames handed in by the host, their time
 * stamps, and the A/V sync reset. The synchronizer paces what is queued here.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "hdmi_player.h"
#include "internal/list.h"
#include "internal/locks.h"
#include "internal/synchronizer.h"

/// One slot of the video frame queue.
typedef struct video_frame_info_s {
    bool used;
    list_head_t node;
    hdmi_player_video_frame_t frame;
} video_frame_info_t;

/// First-in, first-out queue over a fixed pool of slots. Never blocks, never allocates after init.
typedef struct video_frame_queue_s {
    list_head_t list_frames GUARDED_BY(mutex); ///< slots in use, oldest first
    video_frame_info_t* arry_pool_frames GUARDED_BY(mutex);
    std::atomic<int32_t> frames_count; ///< written under mutex
    int32_t free_frames_count GUARDED_BY(mutex);
    int32_t pool_frames_count; ///< constant after init
    bool en_api_log;
    bool en_state_log;
    mutex_t mutex;
    pthread_cond_t cond;         ///< reserved
    pthread_cond_t cond_acquire; ///< reserved
} video_frame_queue_t;

typedef struct video_config_s {
    int32_t video_frame_queue_size;      ///< slots
    int32_t audio_alg_max_delay_time_ms; ///< kept, not used
    int64_t fixed_delay;                 ///< ms
    hdmi_player_drm_info_t drm_info;
    hdmi_player_video_frame_drop_cb_t video_frame_drop_cb;
    hdmi_player_video_frame_flip_cb_t video_frame_flip_cb;
    hdmi_player_event_cb_t event_cb;
    void (*notify_audio_reset_cb)(void);
    bool (*ai_read_continued_cb)(void);
} video_config_t;

typedef struct video_info_s {
    std::atomic<bool> initialized;
    std::atomic<bool> disable_avsync; ///< frames are flipped at once
    std::atomic<bool> avsync_reset;   ///< a reset is requested
    bool enable_log;
    bool en_fps_log;
    bool resetting; ///< render thread only
    bool wait_audio;
    void* synchronizer_handle;
    synchronizer_callback_t synchronizer_cb;
    hdmi_player_video_frame_drop_cb_t video_frame_drop_cb;
    hdmi_player_video_frame_flip_cb_t video_frame_flip_cb;
    hdmi_player_event_cb_t event_cb;
    std::atomic<int64_t> last_flip_time_ms;
    video_frame_queue_t frame_queue;
    std::atomic<int32_t> fixed_delay;  ///< ms: latency of the video path
    int64_t last_system_time;          ///< us: the previous render call; render thread only
    int64_t last_frame_pts;            ///< us: render thread only
    std::atomic<int32_t> frame_serial; ///< serial of the audio clock
    int32_t last_frame_serial;         ///< serial seen by the previous render; render thread only
    rwlock_t api_rwlock;               ///< write: init and deinit; read: everything else
    mutex_t internal_mutex;            ///< serialises the setters
    void (*notify_audio_reset_cb)(void);
    bool (*ai_read_continued_cb)(void);
} video_info_t;

extern video_info_t g_video_info;

int32_t video_init(video_config_t config);
int32_t video_deinit(void);

/// Stamps and queues a frame, or shows it at once in free run. 0 when the frame was taken; see the
/// public hdmi_player_video_render() for who owns it on -1.
int32_t video_render(hdmi_player_video_frame_t* frame);

/// Audio clock update; a new serial ends an A/V sync reset at the next render.
int32_t video_set_base_media_time(int64_t media_time, int64_t max_media_time, int32_t frame_serial);

/// Requests (or cancels) an A/V sync reset and switches A/V sync.
int32_t video_avsync_reset(bool reset, bool disable_avsync);

bool video_is_disable_avsync(void);

/// Latency of the video path in ms: where the stamps of a sequence start, negated.
int32_t video_set_fixed_delay(int32_t delay);

/// The frame queue; the push and the callbacks work on g_video_info.
int32_t video_frame_queue_init(video_frame_queue_t* q, int32_t size);
int32_t video_frame_queue_deinit(video_frame_queue_t* q);
int32_t video_frame_queue_pool_release(video_frame_queue_t* q);
int32_t video_frame_queue_push_frame(hdmi_player_video_frame_t* frame);
int32_t video_frame_queue_get_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame);
int32_t video_frame_queue_peek_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame);

/// What the synchronizer sees of the queue; @p handle is the video_info_t.
bool sync_get_frame_count_cb(void* handle, int32_t* count);
bool sync_peek_frame_cb(void* handle, synchronizer_frame_info_t* info);
bool sync_get_frame_cb(void* handle, synchronizer_frame_info_t* info);
bool sync_drop_frame_cb(void* handle, synchronizer_frame_info_t* info);
bool sync_flip_frame_cb(void* handle, synchronizer_frame_info_t* info);
