/* SPDX-License-Identifier: MIT */
/* The public header stands alone in C99 and in C++, with the same record layouts: compiled as both, strictly. */
#include "hdmi_player.h"

#include <stddef.h>

/* Refuses to compile where the condition does not hold. C99 has no assertion for that. */
#define HOLDS(name, condition) typedef char holds_##name[(condition) ? 1 : -1]
#define POINTER sizeof(void*)

HOLDS(enumerations, sizeof(hdmi_player_ao_dev_e) == 4 && sizeof(hdmi_player_ao_format_e) == 4 &&
                        sizeof(hdmi_player_aio_sample_rate_e) == 4 && sizeof(hdmi_player_event_e) == 4 &&
                        sizeof(hdmi_hotplug_status_e) == 4);
HOLDS(video_frame, offsetof(hdmi_player_video_frame_t, pts) == 8 && sizeof(hdmi_player_video_frame_t) == 16);
HOLDS(audio_frame, offsetof(hdmi_player_audio_frame_t, size) == POINTER &&
                       offsetof(hdmi_player_audio_frame_t, channels) == POINTER + 12 &&
                       offsetof(hdmi_player_audio_frame_t, pts) == 24 &&
                       offsetof(hdmi_player_audio_frame_t, serial) == 32 && sizeof(hdmi_player_audio_frame_t) == 40);
HOLDS(drm_info, offsetof(hdmi_player_drm_info_t, panel_refresh_rate) == 4 && sizeof(hdmi_player_drm_info_t) == 8);
HOLDS(config_start, offsetof(hdmi_player_config_t, ao_dev) == 4 && offsetof(hdmi_player_config_t, drm_info) == 12 &&
                        offsetof(hdmi_player_config_t, video_frame_queue_size) == 28);
HOLDS(config_callbacks, offsetof(hdmi_player_config_t, event_cb) == 32 &&
                            offsetof(hdmi_player_config_t, video_frame_flip_cb) == 32 + 2 * POINTER &&
                            sizeof(hdmi_player_config_t) == 32 + 3 * POINTER);

int main(void)
{
    hdmi_player_video_frame_t frame = {0, 0};
    return hdmi_player_video_render(&frame) == -1 ? 0 : 1;
}
