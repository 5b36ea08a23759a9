/* SPDX-License-Identifier: MIT */
/* The public header stands alone in C99 and in C++: compiled as both, strictly. */
#include "hdmi_player.h"

int main(void)
{
    hdmi_player_video_frame_t frame = {0, 0};
    return hdmi_player_video_render(&frame) == -1 ? 0 : 1;
}
