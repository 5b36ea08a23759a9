// SPDX-License-Identifier: MIT
/**
 * @file
 * Conversion of PCM to the output's rate and layout, on a thread of its own.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "hdmi_player.h"
#include "internal/locks.h"

struct SwrContext;

/// One audio format. The caller fills the first three fields, init derives the rest.
typedef struct audio_param_s {
    enum AVSampleFormat fmt;
    int sample_rate; ///< Hz
    int channels;
    int64_t channel_layout;
    int frame_size; ///< bytes of one sample of all channels
    int bytes_per_sec;
} audio_param_t;

typedef struct resample_config_s {
    audio_param_t src_param;
    audio_param_t tgt_param;
    hdmi_player_audio_frame_t* (*input_queue_dequeue_cb)(int32_t timeout_ms);
    int32_t (*input_queue_put_cb)(hdmi_player_audio_frame_t* frame);
} resample_config_t;

typedef struct resample_context_s {
    resample_context_s() { cond_init_monotonic(abort_cond); }

    // Without a mark below: written by init and deinit while there is no worker, otherwise the worker's own.
    struct SwrContext* audio_swr_ctx = nullptr; ///< null: frames pass through unchanged
    audio_param_t src_param = {};               ///< rate: the one the converter was built for
    audio_param_t tgt_param = {};
    int32_t frame_resample_queue GUARDED_BY(api_rwlock) = -1;        ///< "RESAMPLE"; -1: none
    pthread_t resample_thread GUARDED_BY(lifecycle_mutex) = 0;       ///< 0: none
    std::atomic<bool> abort_request{false};                          ///< written under internal_mutex
    std::atomic<bool> enable_resample{false};                        ///< constant after init
    std::atomic<bool> initialized{false};                            ///< never set: the stage answers in every state
    uint8_t enable_dummy_alg_delay GUARDED_BY(internal_mutex) = 0;   ///< 0 off, 1 fixed, 2 random
    int32_t dummy_alg_delay_interval GUARDED_BY(internal_mutex) = 0; ///< s
    int64_t dummy_alg_delay_time GUARDED_BY(internal_mutex) = 0;     ///< ms
    int64_t dummy_alg_delay_start_time_us GUARDED_BY(internal_mutex) = 0; ///< 0: no interval begun
    mutex_t internal_mutex;    ///< guards the dummy delay. The locks and the condition live as long as the process.
    pthread_cond_t abort_cond; ///< abort_request was set; on CLOCK_MONOTONIC
    rwlock_t api_rwlock;       ///< write: init and the end of deinit; read: everything else
    mutex_t lifecycle_mutex;   ///< one init or deinit at a time: each joins the worker. Taken before the other locks.
    hdmi_player_audio_frame_t* (*input_queue_dequeue_cb)(int32_t timeout_ms) = nullptr;
    int32_t (*input_queue_put_cb)(hdmi_player_audio_frame_t* frame) = nullptr;
} resample_context_t;

extern resample_context_t g_resample_ctx;

/// Starts the stage; one that runs already is ended first. 0 or -1, with nothing left behind.
int32_t audio_resample_init(resample_config_t cfg);

/// Ends the thread and frees everything; harmless without init.
int32_t audio_resample_deinit(void);

/// The oldest converted frame, waiting at most @p timeout_ms; to be given back. 0 or -1.
int32_t audio_resample_get_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);

/// Gives a converted frame back. 0, or -1 when it is not of this stage's queue.
int32_t audio_resample_put_pcm_frame(hdmi_player_audio_frame_t* frame);

/// Whether PCM goes through this stage (debug_hdmiplayer_enable_resample).
bool audio_resample_is_enable_resample(void);
