// SPDX-License-Identifier: MIT
/**
 * @file
 * Decides when each video frame is shown: the media clock, the vertical-blank
 * thread and the pacing of frames against both.
 *
 * The synchronizer owns no frames; it takes them through five callbacks. All
 * times are microseconds, system time is get_system_time_us(). Every operation
 * refuses a null handle with false.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "internal/locks.h"

typedef enum {
    E_SYNCHRONIZER_PLAYER_SELF = 0,
    E_SYNCHRONIZER_PLAYER_ORUPLAYER = 1, ///< the one player with a pacing strategy
    E_SYNCHRONIZER_PLAYER_VAPLAYER = 2,
    E_SYNCHRONIZER_PLAYER_ZELPLAYER = 3,
    E_SYNCHRONIZER_PLAYER_MAX = 4,
} synchronizer_player_e;

typedef enum {
    E_SYNC_MODE_FREERUN = 0,
    E_SYNC_MODE_AUDIO_MASTER = 1,
    E_SYNC_MODE_VIDEO_MASTER = 2, ///< can be set; no strategy implements it
    E_SYNC_MODE_MAX = 3,          ///< unset
} synchronizer_mode_e;

typedef enum {
    E_SYNC_STATE_STOP = 0,
    E_SYNC_STATE_START = 1,
    E_SYNC_STATE_PAUSE = 2,
    E_SYNC_STATE_RESUME = 3,
    E_SYNC_STATE_MAX = 4, ///< unset
} synchronizer_state_e;

/// One frame as the synchronizer sees it.
typedef struct synchronizer_frame_info_s {
    void* buf_handle; ///< the caller's
    int32_t fd;       ///< only logged
    uint64_t pts;     ///< presentation time; all ones: no frame. Compared and subtracted as signed.
} synchronizer_frame_info_t;

typedef struct synchronizer_drm_info_s {
    int32_t fd;     ///< DRM device for vertical-blank waits; not above 0: no display
    float vrefresh; ///< Hz; not above 0: unknown
} synchronizer_drm_info_t;

/// The caller's frame queue. Called from the sync thread with no lock held; true on success.
typedef struct synchronizer_callback_s {
    bool (*get_frame_count)(void* handle, int32_t* count);
    bool (*peek_frame)(void* handle, synchronizer_frame_info_t* frame); ///< the oldest frame, left in place
    bool (*get_frame)(void* handle, synchronizer_frame_info_t* frame);  ///< takes the oldest frame out
    bool (*drop_frame)(void* handle, synchronizer_frame_info_t* frame); ///< will not be shown
    bool (*flip_frame)(void* handle, synchronizer_frame_info_t* frame); ///< show it now
} synchronizer_callback_t;

/// The handle. `mutex` guards the clock; what crosses threads without it is atomic.
typedef struct sync_strategy_info_s {
    synchronizer_player_e player_type;
    std::atomic<int64_t> base_media_time;       ///< anchor; 0: no clock yet. Written under mutex.
    int64_t base_system_time GUARDED_BY(mutex); ///< system time of the anchor
    int64_t max_media_time GUARDED_BY(mutex);   ///< the clock's upper bound; below 1: none
    float rate GUARDED_BY(mutex);
    std::atomic<synchronizer_mode_e> mode;   ///< written under mutex, or forced by the sync thread
    std::atomic<synchronizer_state_e> state; ///< written under mutex, or forced by the sync thread
    mutex_t mutex;
    void* callback_handle;
    synchronizer_callback_t* callback; ///< the caller's; outlives the synchronizer
    pthread_t sync_thread;             ///< 0: none
    mutex_t sync_thread_mutex;
    pthread_cond_t sync_thread_cond;
    std::atomic<bool> sync_thread_exit;
    bool exiting;       ///< unused
    mutex_t exit_mutex; ///< unused
    synchronizer_drm_info_t drm_info;
    pthread_t vsync_thread; ///< 0: none
    mutex_t vsync_thread_mutex;
    pthread_cond_t vsync_thread_cond;
    std::atomic<bool> vsync_thread_exit;
    std::atomic<int64_t> last_vsync_system_time; ///< written by the vsync thread and by resync; -1: unknown
    std::atomic<int64_t> last_flip_system_time;  ///< written by the sync thread and by resync; -1: none
    std::atomic<bool> low_latency_mode;
    bool enable_log;
    bool (*on_sync_logic)(void* handle);
} sync_strategy_info_t;

/// The handle of the one strategy; a pointer to it is also one to its base.
typedef struct sync_strategy_info_Oru_player_s {
    sync_strategy_info_t base;
    synchronizer_frame_info_t last_frame; ///< the frame most recently taken for display; pts -1: none
    int64_t last_frame_system_time;       ///< when it was taken; -1: never
    int64_t frame_timer;                  ///< its nominal display time; -1: unset
} sync_strategy_info_Oru_player_t;

/// A new synchronizer, or null for a player without strategy or without memory.
void* synchronizer_init(synchronizer_player_e player);

/// Frees the synchronizer; its threads must have been stopped.
bool synchronizer_deinit(void* handle);

/// Sets the frame queue; before start.
bool synchronizer_set_callback(void* handle, void* callback_handle, synchronizer_callback_t* callback);

/// Starts the sync and the vsync thread; true without effect when they run already.
bool synchronizer_start(void* handle);

/// Ends both threads and waits for them: at most one vertical blank or one fallback sleep.
bool synchronizer_stop(void* handle);

/// Wakes the sync thread: a frame was queued. Does not block; harmless while stopped.
bool synchronizer_notify_frame_done(void* handle);

/// Forgets the pacing history: the next frame is shown at once. Only while stopped or before any frame.
bool synchronizer_resync(void* handle);

bool synchronizer_set_sync_mode(void* handle, synchronizer_mode_e mode);
bool synchronizer_get_sync_mode(void* handle, synchronizer_mode_e* mode);

/// E_SYNC_STATE_RESUME also moves the clock's anchor to now.
bool synchronizer_set_sync_state(void* handle, synchronizer_state_e state);
bool synchronizer_get_sync_state(void* handle, synchronizer_state_e* state);

/// Sets the display; before start.
bool synchronizer_set_drm_info(void* handle, synchronizer_drm_info_t info);

/// In free run, low latency shows every frame as soon as it is queued; pacing by audio ignores it.
bool synchronizer_enable_low_latency_mode(void* handle, bool enable);

/// Scales the clock's extrapolation; refuses exactly 0.
bool synchronizer_set_playback_rate(void* handle, float rate);
bool synchronizer_get_playback_rate(void* handle, float* rate);

/// Anchors the clock: @p media_time holds now; it never runs past @p max_media_time (below 1: no bound).
bool synchronizer_set_base_media_time(void* handle, int64_t media_time, int64_t max_media_time);

/// The clock now; 0 before the first anchor.
bool synchronizer_get_current_media_time(void* handle, int64_t* media_time);

/// The system time at which the clock, unbounded, reaches @p media_time.
bool synchronizer_get_release_time(void* handle, int64_t media_time, int64_t* release_time);

/// One pacing step. True: call again at once; false: nothing to do. Runs on the sync thread.
bool on_Oru_sync_logic(void* handle);

/// The instant nearest to @p release_time on the grid through @p sampled_vsync_time; a tie goes to the earlier.
int64_t closest_vsync(int64_t release_time, int64_t sampled_vsync_time, int64_t vsync_duration);

/// Whether a frame with the snapped display time @p release_time is due at this vertical blank.
bool frame_render_by_vsync(int64_t release_time, int64_t sampled_vsync_time, int64_t vsync_duration);
