// SPDX-License-Identifier: MIT
/**
 * @file
 * Capture from the HDMI receiver, and the detection of what the source sends.
 *
 * Functions may be called from any thread. Before init and after deinit they
 * fail, getters with a fixed default, and do not block.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "aio_device.h"
#include "hdmi_player.h"
#include "internal/locks.h"

typedef enum {
    AUDIO_INPUT_FORMAT_NONE = 0,
    AUDIO_INPUT_FORMAT_PCM = 1,
    AUDIO_INPUT_FORMAT_COMP_IEC61937 = 2,
    AUDIO_INPUT_FORMAT_MAX = 3,
} audio_input_format_e;

typedef struct audio_input_config_s {
    hdmi_player_event_cb_t event_cb;
    void (*changed_cb)(bool changed, bool* restarted);
} audio_input_config_t;

typedef struct audio_input_info_s {
    std::atomic<bool> initialized;
    std::atomic<bool> avsync_reset;   ///< request to the read thread: restart the time line
    std::atomic<bool> read_continued; ///< capture delivers while the cable is in
    bool enable_log;
    std::atomic<bool> abort_request;
    std::atomic<bool> reopen_device;           ///< request to the read thread
    std::atomic<int32_t> hotplug_status;       ///< hdmi_hotplug_status_e, stored as given
    std::atomic<int32_t> original_sample_rate; ///< Hz: the rate on the link
    audio_config_t audio_cfg;                  ///< the device's; read thread only after init
    int32_t pcm_frame_queue;                   ///< "IN"; -1: none
    pthread_t read_thread;
    pthread_t format_detect_thread;
    std::atomic<audio_input_format_e> format;
    hdmi_player_event_cb_t event_cb;
    int64_t read_frames;  ///< since the last A/V sync reset; read thread only
    int32_t acquire_size; ///< bytes of every read; read thread only
    pthread_attr_t attr;
    int32_t iec61937_queue; ///< "IEC61937"; -1: none
    int32_t frame_serial;   ///< read thread only
    mutex_t internal_mutex; ///< serialises the setters
    rwlock_t api_rwlock;    ///< write: init and the end of deinit; read: everything else
    void (*changed_cb)(bool changed, bool* restarted);
    std::atomic<audio_in_bypass_mode_e> in_bypass_mode; ///< goes into audio_cfg at the next open
    mutex_t device_mutex;                               ///< open and close of the device; not held during reads
} audio_input_info_t;

extern audio_input_info_t g_ai_info;

int32_t audio_input_init(audio_input_config_t cfg);
int32_t audio_input_deinit(void);

int32_t audio_input_get_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);
int32_t audio_input_put_pcm_frame(hdmi_player_audio_frame_t* frame);
int32_t audio_input_get_iec61937_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);
int32_t audio_input_put_iec61937_frame(hdmi_player_audio_frame_t* frame);
/// Releases a consumer blocked in audio_input_get_iec61937_frame().
void audio_input_wakeup_iec61937_queue(void);

/// Game mode is refused on capture: always -1.
int32_t audio_input_set_game_mode(bool enable);
bool audio_input_get_game_mode(void);
int32_t audio_input_get_original_sample_rate(void); ///< Hz
bool audio_input_read_continued(void);
int32_t audio_input_set_read_continued(bool enable);
/// Restarts the time line at the next chunk: a new serial, pts 0, waiting chunks discarded.
int32_t audio_input_avsync_reset(bool enable);
audio_input_format_e audio_input_get_format(void);
hdmi_hotplug_status_e audio_input_get_hotplug_status(void);
int32_t audio_input_set_hotplug_status(hdmi_hotplug_status_e status);
audio_in_bypass_mode_e audio_input_get_bypass_mode(void);
/// Reaches the device with its next reopen.
int32_t audio_input_set_bypass_mode(audio_in_bypass_mode_e mode);
/// Has the read thread close and reopen the device, and wakes it where it waits for a frame.
int32_t audio_input_set_reopen_device(bool enable);
const char* audio_input_format_name(audio_input_format_e format);
