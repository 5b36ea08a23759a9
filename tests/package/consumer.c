/* SPDX-License-Identifier: MIT */
/* A host that knows the installed package alone, in C99 and in C++: it hears the simulated source for a moment. */
#include <hdmi_linux.h>
#include <hdmi_player.h>
#include <hdmi_sim_control.h>
#include <stdio.h>
#include <string.h>

#if HDMI_PLAYER_VERSION < HDMI_PLAYER_MAKE_VERSION(1, 0, 0)
#error "the header's version is not comparable"
#endif

static void on_event(hdmi_player_event_e event) { (void)event; }
static void on_frame(hdmi_player_video_frame_t frame) { (void)frame; }

int main(void)
{
    enum { BLOCKS = 10, TRIES = 100 };
    char error[128];
    hdmi_player_config_t config;
    int heard = 0;
    int tries;
    memset(&config, 0, sizeof config);
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.video_frame_queue_size = 5;
    config.event_cb = on_event;
    config.video_frame_flip_cb = on_frame;
    config.video_frame_drop_cb = on_frame;
    if (hdmi_sim_connect("tone,rate=44100", error, sizeof error) != 0 || hdmi_player_open(config) != 0) {
        fprintf(stderr, "cannot play: %s\n", error);
        return 1;
    }
    hdmi_sim_trouble(HDMI_SIM_CAPTURE_READ, -5, 2);
    for (tries = 0; heard < BLOCKS && tries < TRIES; tries++) {
        hdmi_player_audio_frame_t* block;
        if (hdmi_player_get_pcm(&block, 100) != 0)
            continue;
        heard += block->size > 4 && ((const short*)block->data)[2] != 0;
        hdmi_player_put_pcm(block);
    }
    hdmi_player_close();
    printf("%d of %d blocks; %lld frames captured, %lld reads failed\n", heard, BLOCKS,
           (long long)hdmi_sim_counters().captured_frames, (long long)hdmi_sim_troubled(HDMI_SIM_CAPTURE_READ));
    return heard == BLOCKS && hdmi_sim_troubled(HDMI_SIM_CAPTURE_READ) == 2 ? 0 : 1;
}
