/* SPDX-License-Identifier: MIT */
#ifndef HDMI_PLAYER_H
#define HDMI_PLAYER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HDMI_PLAYER_API __attribute__((visibility("default")))

/** Where the sound goes. */
typedef enum hdmi_player_ao_dev {
    E_HDMI_PLAYER_AO_DEV_AUTO = 0,
    E_HDMI_PLAYER_AO_DEV_SPEAKER = 1,
    E_HDMI_PLAYER_AO_DEV_HEADPHONE = 2,
    E_HDMI_PLAYER_AO_DEV_SPDIF = 3,
    E_HDMI_PLAYER_AO_DEV_HDMI_ARC = 4,
    E_HDMI_PLAYER_AO_DEV_I2S_TXA = 5,
    E_HDMI_PLAYER_AO_DEV_MAX = 6,
} hdmi_player_ao_dev_e;

typedef enum hdmi_player_ao_format {
    E_HDMI_PLAYER_AO_FORMAT_PCM = 0,
    E_HDMI_PLAYER_AO_FORMAT_RAW = 1,
    E_HDMI_PLAYER_AO_FORMAT_MAX = 2,
} hdmi_player_ao_format_e;

typedef enum hdmi_player_aio_sample_rate {
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_ORIGINAL = 0,
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K = 1,
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_32K = 2,
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K = 3,
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K = 4,
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_MAX = 5,
} hdmi_player_aio_sample_rate_e;

typedef enum hdmi_player_event {
    E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED = 0,
    E_HDMI_PLAYER_EVENT_AVSYNC_RESET = 1,
    E_HDMI_PLAYER_EVENT_MAX = 2,
} hdmi_player_event_e;

typedef enum hdmi_hotplug_status {
    E_HDMI_HOTPLUG_STATUS_OUT = 0,
    E_HDMI_HOTPLUG_STATUS_IN = 1,
    E_HDMI_HOTPLUG_STATUS_MAX = 2,
} hdmi_hotplug_status_e;

typedef struct hdmi_player_video_frame_s {
    void* buf_handle;
    int64_t pts;
} hdmi_player_video_frame_t;

typedef struct hdmi_player_pcm_frame_s {
    uint8_t* data;
    int32_t size;
    int32_t buf_size;
    int32_t sample_rate;
    int32_t channels;
    int64_t pts;
    int32_t serial;
} hdmi_player_audio_frame_t;

typedef struct hdmi_player_drm_info_s {
    int32_t fd;
    float panel_refresh_rate;
} hdmi_player_drm_info_t;

typedef void (*hdmi_player_event_cb_t)(hdmi_player_event_e event);
typedef void (*hdmi_player_video_frame_drop_cb_t)(hdmi_player_video_frame_t frame);
typedef void (*hdmi_player_video_frame_flip_cb_t)(hdmi_player_video_frame_t frame);

typedef struct hdmi_player_config_s {
    bool game_mode;
    hdmi_player_ao_dev_e ao_dev;
    hdmi_player_ao_format_e ao_format;
    hdmi_player_drm_info_t drm_info;
    hdmi_player_aio_sample_rate_e ao_sample_rate;
    int32_t audio_alg_max_delay_time_ms;
    int32_t video_frame_queue_size;
    hdmi_player_event_cb_t event_cb;
    hdmi_player_video_frame_drop_cb_t video_frame_drop_cb;
    hdmi_player_video_frame_flip_cb_t video_frame_flip_cb;
} hdmi_player_config_t;

HDMI_PLAYER_API int32_t hdmi_player_open(hdmi_player_config_t cfg);
HDMI_PLAYER_API int32_t hdmi_player_close(void);
HDMI_PLAYER_API int32_t hdmi_player_set_game_mode(bool enable);
HDMI_PLAYER_API bool hdmi_player_get_game_mode(void);
HDMI_PLAYER_API int32_t hdmi_player_select_audio_output_device(hdmi_player_ao_dev_e dev);
HDMI_PLAYER_API int32_t hdmi_player_select_audio_output_format(hdmi_player_ao_format_e format);
HDMI_PLAYER_API int32_t hdmi_player_set_volume(int32_t volume);
HDMI_PLAYER_API int32_t hdmi_player_set_volume2(int32_t volume);
HDMI_PLAYER_API int32_t hdmi_player_set_mute(bool mute);
HDMI_PLAYER_API int32_t hdmi_player_get_pcm(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);
HDMI_PLAYER_API int32_t hdmi_player_put_pcm(hdmi_player_audio_frame_t* frame);
HDMI_PLAYER_API int32_t hdmi_player_write_pcm(hdmi_player_audio_frame_t* frame);
HDMI_PLAYER_API int32_t hdmi_player_video_render(hdmi_player_video_frame_t* frame);
HDMI_PLAYER_API int32_t hdmi_player_hotplug_status_changed(hdmi_hotplug_status_e state);

#ifdef __cplusplus
}
#endif

#endif
