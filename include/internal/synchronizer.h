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

/// What the sync thread sleeps for.
typedef enum {
    E_SYNC_WAIT_NONE = 0, ///< it does not sleep
    E_SYNC_WAIT_FRAME,    ///< a frame: there is none
    E_SYNC_WAIT_TIME,     ///< the time of the oldest frame
    E_SYNC_WAIT_AUDIO,    ///< an audio clock that is far behind
} sync_wait_e;

/**
 * The handle. `mutex` guards the clock and the settings; what crosses threads
 * without it is atomic. Everything lives as long as the handle, so that the
 * caller may notify and feed the clock whether the threads run or not.
 * Lock order: `vsync_thread_mutex`, `sync_thread_mutex`, `mutex`.
 */
typedef struct sync_strategy_info_s {
    synchronizer_player_e player_type = E_SYNCHRONIZER_PLAYER_SELF;
    std::atomic<int64_t> base_media_time{0};                   ///< anchor; 0: no clock yet. Written under mutex.
    int64_t base_system_time GUARDED_BY(mutex) = 0;            ///< system time of the anchor
    int64_t max_media_time GUARDED_BY(mutex) = 0;              ///< the clock's upper bound; below 1: none
    float rate GUARDED_BY(mutex) = 1.0F;                       ///< media time per system time
    std::atomic<synchronizer_mode_e> mode{E_SYNC_MODE_MAX};    ///< written under mutex, or forced by the sync thread
    std::atomic<synchronizer_state_e> state{E_SYNC_STATE_MAX}; ///< as mode
    mutex_t mutex;
    void* callback_handle = nullptr;
    synchronizer_callback_t* callback = nullptr;         ///< the caller's; outlives the synchronizer
    pthread_t sync_thread GUARDED_BY(control_mutex) = 0; ///< 0: none
    mutex_t sync_thread_mutex;
    pthread_cond_t sync_thread_cond;                             ///< on the monotonic clock
    std::atomic<bool> sync_thread_exit{false};                   ///< written under sync_thread_mutex
    bool sync_thread_wake GUARDED_BY(sync_thread_mutex) = false; ///< news that the sync thread has not looked at
    sync_wait_e sync_thread_wait GUARDED_BY(sync_thread_mutex) = E_SYNC_WAIT_NONE;
    uint64_t sync_thread_asleep_ns GUARDED_BY(sync_thread_mutex) = 0; ///< monotonic: when it fell asleep
    bool exiting = false;                                             ///< unused
    mutex_t exit_mutex;                                               ///< unused
    synchronizer_drm_info_t drm_info GUARDED_BY(mutex) = {0, 0};
    pthread_t vsync_thread GUARDED_BY(control_mutex) = 0; ///< 0: none
    mutex_t vsync_thread_mutex;
    pthread_cond_t vsync_thread_cond;                ///< on the monotonic clock
    std::atomic<bool> vsync_thread_exit{false};      ///< written under vsync_thread_mutex
    std::atomic<bool> vsync_thread_idle{false};      ///< it sleeps, since nobody needs vertical blanks
    std::atomic<int64_t> last_vsync_system_time{-1}; ///< latest vertical blank; -1: unknown
    std::atomic<int64_t> last_flip_system_time{-1};  ///< latest paced flip; -1: none
    std::atomic<bool> low_latency_mode{false};
    bool enable_log = false; ///< constant after init
    bool (*on_sync_logic)(void* handle) = nullptr;
    mutex_t control_mutex;                     ///< serialises start, stop and resync
    std::atomic<bool> resync_requested{false}; ///< the next step forgets the pacing history
} sync_strategy_info_t;

/**
 * The handle of the one strategy; a pointer to it is also one to its base. The
 * pacing history belongs to the sync thread while there is one; while that
 * sleeps for a frame's time, others read it under `sync_thread_mutex`.
 */
typedef struct sync_strategy_info_Oru_player_s {
    sync_strategy_info_t base;
    synchronizer_frame_info_t last_frame = {nullptr, 0, UINT64_MAX}; ///< most recently taken for display; pts -1: none
    int64_t last_frame_system_time = -1;                             ///< when it was taken; -1: never
    int64_t frame_timer = -1;                                        ///< its nominal display time; -1: unset
    int64_t waiting_pts = 0;   ///< of the frame whose time the sync thread sleeps for
    int64_t waiting_until = 0; ///< system time at which it looks again by itself
} sync_strategy_info_Oru_player_t;

/// A new synchronizer, or null for a player without strategy or without memory.
void* synchronizer_init(synchronizer_player_e player);

/// Frees the synchronizer, after stopping it if the caller did not. Nobody else may use the handle any more.
bool synchronizer_deinit(void* handle);

/// Sets the frame queue; before start.
bool synchronizer_set_callback(void* handle, void* callback_handle, synchronizer_callback_t* callback);

/// Starts the sync and the vsync thread; true without effect when they run already. Not from a callback.
bool synchronizer_start(void* handle);

/// Ends both threads and waits for them: at most the callback that runs and one vertical blank. Not from a callback.
bool synchronizer_stop(void* handle);

/// A frame was queued, or can be taken again: wakes a sync thread that sleeps without one. Does not block; harmless
/// while stopped.
bool synchronizer_notify_frame_done(void* handle);

/// Frames were taken that the sync thread may wait with: it looks at the queue again. Does not block; harmless while
/// stopped.
bool synchronizer_notify_frames_taken(void* handle);

/// The display reached a vertical blank at @p time: wakes a sync thread whose frame goes out now.
bool synchronizer_notify_vblank(void* handle, int64_t time);

/// Forgets the pacing history: the next frame is shown at once. While the threads run, the next step does so. Not from
/// a callback.
bool synchronizer_resync(void* handle);

bool synchronizer_set_sync_mode(void* handle, synchronizer_mode_e mode);
bool synchronizer_get_sync_mode(void* handle, synchronizer_mode_e* mode);

/// E_SYNC_STATE_RESUME also sets the anchor's system time, to the monotonic clock's microseconds.
bool synchronizer_set_sync_state(void* handle, synchronizer_state_e state);
bool synchronizer_get_sync_state(void* handle, synchronizer_state_e* state);

/// Sets the display; before start. A descriptor of 0 or less ends a vsync thread that runs.
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
