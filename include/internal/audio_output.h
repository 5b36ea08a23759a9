// SPDX-License-Identifier: MIT
/**
 * @file
 * The playback device and the thread that feeds it and publishes the audio clock.
 *
 * Functions return 0 on success and -1 on failure unless stated, and may be
 * called from any thread. Before init and after deinit they fail, getters with
 * a fixed default.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "aio_device.h"
#include "hdmi_player.h"
#include "internal/locks.h"

typedef enum {
    AUDIO_OUTPUT_DEV_OP_NONE = 0,
    AUDIO_OUTPUT_DEV_OP_REOPEN = 1, ///< at the next block of a new serial
    AUDIO_OUTPUT_DEV_OP_CLOSE = 2,  ///< at the next selection of a device or format
    AUDIO_OUTPUT_DEV_OP_MAX = 3,
} audio_output_dev_op_e;

/// Receives the media time being heard, the media time written so far (both us) and their serial.
typedef void (*audio_output_update_avsync_clock_cb_t)(int64_t time_us, int64_t max_time_us, int32_t serial);

typedef struct audio_output_config_s {
    bool mute;
    int32_t volume;    ///< percent; negative: not set
    int32_t hw_volume; ///< the device's units; negative: not set; goes before `volume`
    hdmi_player_ao_dev_e dev;
    hdmi_player_ao_format_e format;
    hdmi_player_aio_sample_rate_e sample_rate;
    audio_output_update_avsync_clock_cb_t update_avsync_clock_cb;
    void (*changed_cb)(bool force_reset, bool* restarted);
} audio_output_config_t;

/// The module's state. What is not guarded or atomic is constant from init to deinit.
typedef struct audio_output_info_s {
    audio_output_info_s()
    {
        cond_init_monotonic(device_cond);
        cond_init_monotonic(fixed_delay_cond);
    }

    std::atomic<bool> initialized{false}; ///< written under api_rwlock
    bool write_continued GUARDED_BY(mutex) = false;
    bool enable_log = false;
    std::atomic<bool> abort_request{false}; ///< the writer ends, nothing is opened or written any more
    std::atomic<bool> mute_status{false};   ///< written under mutex
    bool interval_log = false;
    std::atomic<int32_t> target_sample_rate{0}; ///< Hz
    int32_t frame_queue = -1;                   ///< "OUT"; -1: none
    std::atomic<int32_t> init_state{-1};        ///< 0: the device is open; negative: it is not. Written under mutex.
    std::atomic<int32_t> fixed_delay{0};        ///< ms the writer holds the first block of a serial
    /// The selection, written under mutex, or before there is a writer. The device follows at the end of the select
    /// call, or at a reopen.
    std::atomic<hdmi_player_ao_dev_e> dev{E_HDMI_PLAYER_AO_DEV_AUTO};
    std::atomic<hdmi_player_ao_format_e> format{E_HDMI_PLAYER_AO_FORMAT_PCM};
    audio_output_dev_op_e dev_op GUARDED_BY(mutex) = AUDIO_OUTPUT_DEV_OP_NONE;
    audio_config_t audio_cfg GUARDED_BY(mutex) = {};   ///< the writer's aio_device_write takes it without the mutex
    pthread_t write_thread GUARDED_BY(api_rwlock) = 0; ///< 0: none
    /**
     * Serialises calls into the device. Not held inside aio_device_write, which
     * blocks: `writing` keeps everybody but a close out meanwhile.
     */
    mutex_t mutex;
    bool writing GUARDED_BY(mutex) = false;   ///< the writer is inside aio_device_write
    int32_t waiting GUARDED_BY(mutex) = 0;    ///< callers that wait for the write to end; they go before the next one
    pthread_cond_t device_cond;               ///< `writing` or `waiting` fell; on CLOCK_MONOTONIC
    bool left_open GUARDED_BY(mutex) = false; ///< a close failed at the end; the next init repeats it
    rwlock_t api_rwlock;                      ///< write: init and the end of deinit; read: everything else
    /**
     * Held through a whole select call: another one must not answer from, store
     * over or restore a selection that is not decided yet. Taken before
     * api_rwlock, since the change handler runs with that lock released.
     */
    mutex_t select_mutex;
    mutex_t fixed_delay_mutex;       ///< abort_request is set before it is taken to signal the condition
    pthread_cond_t fixed_delay_cond; ///< abort_request was set; on CLOCK_MONOTONIC
    audio_output_update_avsync_clock_cb_t update_avsync_clock_cb = nullptr;
    void (*changed_cb)(bool force_reset, bool* restarted) GUARDED_BY(api_rwlock) = nullptr;
} audio_output_info_t;

extern audio_output_info_t g_ao_info;

int32_t audio_output_init(audio_output_config_t cfg);
int32_t audio_output_deinit(void);
/// Without a lock.
bool audio_output_initialized(void);

/// Percent, 0 to 100. The platform's error code on failure; -ETIMEDOUT, after two seconds, while the device
/// is stuck in a write; 0 without effect while it is closed. The same holds for the next two.
int32_t audio_output_set_volume(int volume);
/// In the device's own units.
int32_t audio_output_set_volume_direct(int volume);
int32_t audio_output_set_mute(bool mute);
bool audio_output_mute_status(void);
void audio_output_set_write_continued(bool enable);

int32_t audio_output_get_sample_rate(void); ///< Hz
int32_t audio_output_get_channels(void);
hdmi_player_ao_dev_e audio_output_get_device(void);
hdmi_player_ao_format_e audio_output_get_format(void);
int32_t audio_output_get_alsa_buffer_size(void); ///< frames

/// Milliseconds that the first block of every serial is held back.
int32_t audio_output_set_video_delay(int32_t delay);
/// Leaves an operation on the device to the writer thread (reopen) or to the next selection (close).
void audio_output_set_dev_operation(audio_output_dev_op_e op);

/// Both run `changed_cb` without a lock of the module held. They fail, after two seconds, while the device is
/// stuck in a write, unless the selection closes it. One runs at a time.
int32_t audio_output_select_device(hdmi_player_ao_dev_e dev);
int32_t audio_output_select_format(hdmi_player_ao_format_e format);

/// Copies a block into the output queue; blocks while all its frames are in use. 1 when it was refused.
int32_t audio_output_write_pcm_frame(hdmi_player_audio_frame_t* frame);

const char* audio_output_dev_name(hdmi_player_ao_dev_e dev);
const char* audio_output_format_name(hdmi_player_ao_format_e format);
bool trans_dev_player_to_alsa(hdmi_player_ao_dev_e dev, int* dev_id);
bool trans_format_player_to_alsa(hdmi_player_ao_format_e format, int* format_index);
