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
#include "internal/input_state.h"
#include "internal/locks.h"

/// Both are required. They are called with no lock of this module held and may call its getters and setters,
/// which refuse until init has succeeded; init and deinit must not be called from them.
typedef struct audio_input_config_s {
    /// Raised from the detection thread, and once from within audio_input_init(), before it opens the device,
    /// when the state that it finds is not supported - also when that init then fails for another reason.
    hdmi_player_event_cb_t event_cb;
    /// From the detection thread, after init: a supported state was announced, or none for too long.
    /// @p changed: it differs from the last one announced.
    void (*changed_cb)(bool changed, bool* restarted);
} audio_input_config_t;

typedef struct audio_input_info_s {
    std::atomic<bool> initialized{false};    ///< written under api_rwlock
    std::atomic<bool> avsync_reset{false};   ///< request to the read thread: restart the time line
    std::atomic<bool> read_continued{false}; ///< capture delivers while the cable is in
    bool enable_log = false;                 ///< constant after init
    std::atomic<bool> abort_request{false};  ///< both threads end; the call that sets it joins them
    std::atomic<bool> reopen_device{false};  ///< request to the read thread
    std::atomic<int32_t> hotplug_status{E_HDMI_HOTPLUG_STATUS_OUT}; ///< hdmi_hotplug_status_e, stored as given
    /// Hz: the rate on the link. The detection thread writes it before `format`: a reader that sees a new
    /// format sees its rate.
    std::atomic<int32_t> original_sample_rate{0};
    /// The device's. After init only the read thread writes it, under device_mutex, and never `game_mode`.
    audio_config_t audio_cfg = {};
    int32_t pcm_frame_queue = -1; ///< "IN"; -1: none; constant while the threads run
    pthread_t read_thread GUARDED_BY(api_rwlock) = 0;
    pthread_t format_detect_thread GUARDED_BY(api_rwlock) = 0;
    std::atomic<audio_input_format_e> format{AUDIO_INPUT_FORMAT_NONE}; ///< written by the detection thread
    hdmi_player_event_cb_t event_cb = nullptr;                         ///< constant after init
    int64_t read_frames = 0;  ///< since the last A/V sync reset; read thread only
    int32_t acquire_size = 0; ///< bytes of every read; negative ends the read thread, its only user
    pthread_attr_t attr GUARDED_BY(api_rwlock) = {};
    int32_t iec61937_queue = -1; ///< "IEC61937"; -1: none; constant while the threads run
    int32_t frame_serial = 0;    ///< read thread only
    bool stream_broken = false;  ///< chunks were lost since the last one queued; read thread only
    mutex_t internal_mutex;      ///< serialises the setters
    rwlock_t api_rwlock;         ///< write: init and the end of deinit; read: everything else
    void (*changed_cb)(bool changed, bool* restarted) = nullptr;                     ///< constant after init
    std::atomic<audio_in_bypass_mode_e> in_bypass_mode{E_AUDIO_IN_BYPASS_MODE_NONE}; ///< into audio_cfg at a reopen
    mutex_t device_mutex; ///< open and close of the device; not held during reads, which a close ends
    bool device_opened GUARDED_BY(device_mutex) = false;
    std::atomic<bool> starting{false}; ///< an init is under way, which releases api_rwlock at times
    std::atomic<bool> reading{false};  ///< the read thread may be blocked in the device
    bool read_failing = false;         ///< reads fail, and that was reported; read thread only
    int uevent_fd = -1;                ///< opened by init, then the detection thread's
    int stop_fd = -1;                  ///< an eventfd that ends the detection thread's wait; -1: none; as uevent_fd
    mutex_t deinit_mutex;              ///< one deinit at a time; taken before every other lock
} audio_input_info_t;

extern audio_input_info_t g_ai_info;

/// Reads the input's state, opens the device and starts both threads. 0, or -1 with nothing left behind but a device
/// that failed to close, which the next init closes.
int32_t audio_input_init(audio_input_config_t cfg);
/// Ends both threads, blocked or not, then frees every frame, those that consumers hold included. 0, or -1
/// when there is nothing to end.
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
