// SPDX-License-Identifier: MIT
/**
 * @file
 * The hand-over between two audio stages: a pool of at most 128 audio frames
 * and the list of those that are filled ("done"), addressed by a small id.
 *
 * Producer: pool_acquire, fill `frame`, done_enqueue (or put, to give it back
 * unused). Consumer: done_dequeue, use, put. Shutdown: abort, join the threads,
 * deinit. Every function may be called from any thread; deinit waits for calls
 * in progress, which its abort ends.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "hdmi_player.h"
#include "internal/list.h"
#include "internal/locks.h"
#include "internal/resource_manager.h"

/// Frames in a queue at most.
constexpr int32_t FRAME_QUEUE_POOL_MAX = 128;
/// Queues that can exist at a time.
constexpr uint32_t FRAME_QUEUE_MAX = 16;

/// The pts of a captured compressed chunk that does not continue the one before it: the capture was opened anew, or
/// chunks were discarded. Other compressed chunks have pts 0.
constexpr int64_t kStreamBreakPts = INT64_MIN;

typedef enum {
    E_FRAME_NODE_STATE_FREE = 0,     ///< in the pool; its buffer, if any, is kept for reuse
    E_FRAME_NODE_STATE_DEQUEUED = 1, ///< held by the consumer
    E_FRAME_NODE_STATE_QUEUED = 2,   ///< in the done list
    E_FRAME_NODE_STATE_ACQUIRED = 3, ///< held by the producer
    E_FRAME_NODE_STATE_MAX = 4,
} frame_node_state_e;

typedef struct frame_info_s {
    list_head_t node; ///< link in the done list
    frame_node_state_e state;
    hdmi_player_audio_frame_t frame; ///< `data` and `buf_size` are the queue's
} frame_info_t;

/// The queue of a slot. Its lock and what is waited on live as long as the process, so that a call needs no second lock
/// to keep the queue in existence. What init and deinit build and free is the pool, the slot's payload.
typedef struct frame_queue_s {
    frame_queue_s()
    {
        // A consumer may wait on another stage's queue. Its own stop does not wake it there: only the time limit ends
        // that wait, so the limit must not depend on the wall clock.
        cond_init_monotonic(cond);
        cond_init_monotonic(cond_acquire);
        cond_init_monotonic(cond_memory);
        cond_init_monotonic(cond_left);
    }

    mutex_t mutex;
    std::atomic<bool> open{false};                       ///< between init and deinit; written under mutex
    std::atomic<int32_t> done_frames_count{0};           ///< written under mutex
    list_head_t list_done_frames GUARDED_BY(mutex) = {}; ///< oldest first
    /// FRAME_QUEUE_POOL_MAX of them.
    frame_info_t* arry_pool_frames GUARDED_BY(mutex) PT_GUARDED_BY(mutex) = nullptr;
    int32_t free_frames_count GUARDED_BY(mutex) = 0;
    int32_t pool_frames_count GUARDED_BY(mutex) = 0; ///< records brought into use
    int32_t none_free_below GUARDED_BY(mutex) = 0;   ///< record from which on there may be free ones
    int32_t pool_frames_max GUARDED_BY(mutex) = 0;
    int32_t count_waiters GUARDED_BY(mutex) = 0;  ///< calls in frame_queue_wait_done_frame()
    int32_t done_waiters GUARDED_BY(mutex) = 0;   ///< calls that wait on cond, those of count_waiters included
    int32_t pool_waiters GUARDED_BY(mutex) = 0;   ///< calls that wait on cond_acquire
    int32_t memory_waiters GUARDED_BY(mutex) = 0; ///< calls that wait on cond_memory
    bool done_wakeup GUARDED_BY(mutex) = false;   ///< one-shot: stop waiting for a done frame
    bool pool_wakeup GUARDED_BY(mutex) = false;   ///< one-shot: stop waiting for a pool frame
    bool abort GUARDED_BY(mutex) = false;
    bool en_api_log GUARDED_BY(mutex) = false;
    bool en_state_log GUARDED_BY(mutex) = false;
    const char* name GUARDED_BY(mutex) = ""; ///< the caller's string; outlives the queue
    pthread_cond_t cond;                     ///< the done list gained a frame
    pthread_cond_t cond_acquire;             ///< the pool gained a free frame
    pthread_cond_t cond_memory;              ///< paused on between attempts to allocate; signalled by abort only
    pthread_cond_t cond_left;                ///< a call that waited while deinit began has ended
} frame_queue_t;

extern resource_manager_t g_fq_resource_map[FRAME_QUEUE_MAX];

/// A new queue of at most @p max_frames frames (128 at most); its id, or -1. @p name must outlive it.
int32_t frame_queue_init(int32_t max_frames, const char* name);

/// Aborts the queue, waits for calls in progress, frees every frame, held ones included. 0 or -1.
int32_t frame_queue_deinit(int32_t id);

/// A frame in state ACQUIRED whose `data` is not null and holds at least @p frame_size bytes. Blocks until
/// there is one; null on abort, and on a pool wake-up while the pool is empty. While memory is short it keeps
/// trying, which only an abort ends.
frame_info_t* frame_queue_pool_acquire(int32_t id, int32_t frame_size);

/// Appends an acquired frame to the done list. 0, or -1 when it is not in state ACQUIRED.
int32_t frame_queue_done_enqueue(int32_t id, frame_info_t* frame);

/// The oldest done frame, or null after @p timeout_ms without one (0: at once, negative: no limit in
/// practice), on abort and on a done wake-up. Every wake-up of the wait starts the limit again.
frame_info_t* frame_queue_done_dequeue(int32_t id, int32_t timeout_ms);

/// Gives a frame back to the pool: the `frame` member of one of this queue's records. 0; for any other
/// address -1, and nothing changes.
int32_t frame_queue_put(int32_t id, hdmi_player_audio_frame_t* frame);

/// Ends every blocked call and refuses acquire and dequeue from now on.
void frame_queue_abort(int32_t id);

/// Discards every done frame. Does not wake a producer blocked in acquire. 0 or -1.
int32_t frame_queue_done_release(int32_t id);

/// Discards every frame and frees its buffer, held frames included: whoever holds one must be stopped. 0 or -1.
int32_t frame_queue_pool_release(int32_t id);

/// Waits, without limit, until @p count frames are done or the queue is aborted. 0 or -1.
int32_t frame_queue_wait_done_frame(int32_t id, int32_t count);

/// Number of done frames, or -1. Does not wait for the queue's mutex.
int32_t frame_queue_get_done_counts(int32_t id);

/// Ends the wait for a done frame in progress; else the next dequeue does not wait.
void frame_queue_done_wakeup(int32_t id);

/// Ends the wait for a pool frame in progress; else the next acquire does not wait.
void frame_queue_pool_wakeup(int32_t id);
