// SPDX-License-Identifier: MIT
/**
 * @file
 * The video side: the queue of frames handed in by the host, their time
 * stamps, and the A/V sync reset. The synchronizer paces what is queued here.
 *
 * Every function may be called from any thread and from inside every callback,
 * except that init and deinit refuse inside one. Several threads may render at
 * once, also from inside flip, drop and event callbacks; of two frames whose
 * renders overlap, either may come first.
 * - Callbacks are called with no mutex held, only the module's read lock, which
 *   nests, and perhaps the turn to flip.
 * - One thread flips at a time. A render that has a frame to flip waits for its
 *   turn, which comes in the order of the requests; a render inside a callback
 *   of the turn's owner has the turn already and flips inside that callback.
 * - The sync thread never waits for the turn, because the owner may be joining
 *   it: while a render has the turn or waits for it, the pacing finds no frames.
 * - While one render stops or restarts the synchronizer, the others do not wait
 *   for it: they queue their frames, or show them where a reset does not wait
 *   for audio.
 * - A render on the sync thread (inside a flip or drop callback that the pacing
 *   makes) never starts a reset, for it would have to wait for its own thread.
 *   The request stays, and the next render on another thread serves it.
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

/// First-in, first-out queue over a fixed pool of slots. Never blocks, never allocates after init; before it and after
/// deinit it has no slots. frames_count + free_frames_count == pool_frames_count; a slot is in the list exactly while
/// used.
typedef struct video_frame_queue_s {
    list_head_t list_frames GUARDED_BY(mutex);              ///< slots in use, oldest first
    video_frame_info_t* arry_pool_frames GUARDED_BY(mutex); ///< null: no pool
    std::atomic<int32_t> frames_count;                      ///< written under mutex
    int32_t free_frames_count GUARDED_BY(mutex);
    int32_t pool_frames_count; ///< constant from init to deinit
    bool en_api_log;
    bool en_state_log;
    mutex_t mutex;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;         ///< reserved
    pthread_cond_t cond_acquire = PTHREAD_COND_INITIALIZER; ///< reserved
} video_frame_queue_t;

/**
 * The turn to flip, which keeps the frames in order: whoever takes a frame out
 * of the queue to flip it has the turn until the flip callback has returned. The
 * sync thread has it from get_frame to flip_frame or drop_frame.
 */
typedef struct video_flip_turn_s {
    mutex_t mutex; ///< never held over a callback
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    uint32_t tickets GUARDED_BY(mutex) = 0; ///< turns asked for
    uint32_t served GUARDED_BY(mutex) = 0;  ///< turns that are over; the turn is free where both are equal
    int32_t depth GUARDED_BY(mutex) = 0;    ///< the owner's nested turns
    pthread_t owner GUARDED_BY(mutex) = {}; ///< while depth is not 0
} video_flip_turn_t;

typedef struct video_config_s {
    int32_t video_frame_queue_size;      ///< slots
    int32_t audio_alg_max_delay_time_ms; ///< kept, not used
    int64_t fixed_delay;                 ///< ms; kept for the caller, video_set_fixed_delay() sets the one in force
    hdmi_player_drm_info_t drm_info;
    hdmi_player_video_frame_drop_cb_t video_frame_drop_cb;
    hdmi_player_video_frame_flip_cb_t video_frame_flip_cb;
    hdmi_player_event_cb_t event_cb;
    void (*notify_audio_reset_cb)(void);
    bool (*ai_read_continued_cb)(void);
} video_config_t;

/// The module's state. What is not guarded or atomic is constant from init to deinit.
typedef struct video_info_s {
    std::atomic<bool> initialized;    ///< set under the write lock, cleared by deinit before it takes that lock
    std::atomic<bool> disable_avsync; ///< frames are flipped at once; written under internal_mutex
    std::atomic<bool> avsync_reset;   ///< a reset is requested
    bool enable_log;
    bool en_fps_log;
    bool resetting GUARDED_BY(internal_mutex);
    bool wait_audio;
    void* synchronizer_handle; ///< outlives `initialized`: deinit is not over while it is set
    synchronizer_callback_t synchronizer_cb;
    hdmi_player_video_frame_drop_cb_t video_frame_drop_cb;
    hdmi_player_video_frame_flip_cb_t video_frame_flip_cb;
    hdmi_player_event_cb_t event_cb;
    std::atomic<int64_t> last_flip_time_ms;
    video_frame_queue_t frame_queue;
    video_flip_turn_t flip_turn;
    std::atomic<int32_t> fixed_delay;                     ///< ms: latency of the video path
    int64_t last_system_time GUARDED_BY(internal_mutex);  ///< us: the previous render call but in free run
    int64_t last_frame_pts GUARDED_BY(internal_mutex);    ///< us: the last stamp given
    std::atomic<int32_t> frame_serial;                    ///< serial of the audio clock; written under internal_mutex
    int32_t last_frame_serial GUARDED_BY(internal_mutex); ///< serial seen by the previous render
    rwlock_t api_rwlock;                                  ///< write: init and deinit; read: everything else
    mutex_t internal_mutex;                               ///< never held over a callback or a stop of the synchronizer
    void (*notify_audio_reset_cb)(void);
    bool (*ai_read_continued_cb)(void);
    bool sync_changing GUARDED_BY(internal_mutex); ///< a render is stopping or restarting the synchronizer
    bool sync_stopped GUARDED_BY(internal_mutex);  ///< by a reset that has not restarted it
} video_info_t;

extern video_info_t g_video_info;

/// Whether this thread is inside a callback of the module, or inside a render.
bool video_in_callback(void);

/// 0, or -1 with everything undone: a callback is missing, no memory or threads, or it runs already.
int32_t video_init(video_config_t config);

/// Waits for calls in progress, ends the synchronizer, discards queued frames without callbacks. 0 or -1.
int32_t video_deinit(void);

/// Stamps and queues a frame, or shows it at once in free run. 0 when the frame was taken; see the
/// public hdmi_player_video_render() for who owns it on -1. With debug_hdmiplayer_video_wait_audio
/// off, the call that starts a reset does not take the frame.
int32_t video_render(hdmi_player_video_frame_t* frame);

/// Audio clock update; a new serial ends an A/V sync reset at the next render.
int32_t video_set_base_media_time(int64_t media_time, int64_t max_media_time, int32_t frame_serial);

/// Requests (or cancels) an A/V sync reset and switches A/V sync.
int32_t video_avsync_reset(bool reset, bool disable_avsync);

bool video_is_disable_avsync(void);

/// Latency of the video path in ms: where the stamps of a sequence start, negated.
int32_t video_set_fixed_delay(int32_t delay);

/// A queue of @p size slots (at least 1). 0, or -1 without memory.
int32_t video_frame_queue_init(video_frame_queue_t* q, int32_t size);

/// Discards every frame and frees the pool: nothing can be pushed any more. 0; harmless without a pool.
int32_t video_frame_queue_deinit(video_frame_queue_t* q);
int32_t video_frame_queue_pool_release(video_frame_queue_t* q); ///< what deinit does

/// Appends a copy of @p frame to the module's queue. 0, or -1 when it is null or the queue is full.
int32_t video_frame_queue_push_frame(hdmi_player_video_frame_t* frame);

/// Takes the oldest frame out. 0, or -1 when there is none.
int32_t video_frame_queue_get_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame);

/// Copies the oldest frame without taking it. 0, or -1 when there is none.
int32_t video_frame_queue_peek_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame);

/// What the synchronizer sees of the queue; @p handle is the video_info_t. On failure nothing is stored.
bool sync_get_frame_count_cb(void* handle, int32_t* count); ///< may be stale; 0 while a render has the turn
bool sync_peek_frame_cb(void* handle, synchronizer_frame_info_t* info);
bool sync_get_frame_cb(void* handle, synchronizer_frame_info_t* info);
bool sync_drop_frame_cb(void* handle, synchronizer_frame_info_t* info); ///< calls the host
bool sync_flip_frame_cb(void* handle, synchronizer_frame_info_t* info); ///< calls the host
