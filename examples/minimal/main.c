/* SPDX-License-Identifier: MIT */
/*
 * The smallest host: opens the player, passes the sound through, hands in a
 * frame every sixtieth of a second, closes. It leaves out what a real host
 * adds: a picture, a display, processing of the sound. tools/play shows
 * those, and how to measure them.
 */
#include <hdmi_player.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { FPS = 60, QUEUE_FRAMES = 16, NO_SERIAL = -1 };

static atomic_bool g_running = true;
static atomic_long g_flipped, g_dropped;
/* The newest serial pulled, and the one that was the newest when the time line last broke. */
static atomic_int g_serial = NO_SERIAL, g_serial_at_reset = NO_SERIAL;
static atomic_bool g_was_reset;

static void on_event(hdmi_player_event_e event)
{
    if (event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET) {
        g_serial_at_reset = g_serial;
        g_was_reset = true;
    } else {
        printf("event %d\n", event);
    }
}

static void on_flip(hdmi_player_video_frame_t frame)
{
    (void)frame; /* a real host queues frame.buf_handle for the coming vertical blank */
    g_flipped++;
}

static void on_drop(hdmi_player_video_frame_t frame)
{
    (void)frame;
    g_dropped++;
}

static void* play_sound(void* arg)
{
    (void)arg;
    while (g_running) {
        hdmi_player_audio_frame_t* block;
        if (hdmi_player_get_pcm(&block, 100) != 0)
            continue;
        g_serial = block->serial;
        /* Blocks from before the reset would only make the sound late. */
        if (g_was_reset && block->serial != g_serial_at_reset)
            hdmi_player_write_pcm(block);
        hdmi_player_put_pcm(block);
    }
    return NULL;
}

int main(int argc, char** argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 10;

    hdmi_player_config_t config = {0};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.video_frame_queue_size = QUEUE_FRAMES;
    config.event_cb = on_event;
    config.video_frame_flip_cb = on_flip;
    config.video_frame_drop_cb = on_drop;
    if (hdmi_player_open(config) != 0)
        return EXIT_FAILURE;
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);

    pthread_t sound;
    pthread_create(&sound, NULL, play_sound, NULL);

    struct timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (long i = 0; i < (long)seconds * FPS; i++) {
        hdmi_player_video_frame_t frame = {&g_flipped, 0}; /* any handle of the host's */
        hdmi_player_video_render(&frame);
        next.tv_nsec += 1000000000 / FPS;
        if (next.tv_nsec >= 1000000000) {
            next.tv_nsec -= 1000000000;
            next.tv_sec++;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, NULL);
    }

    g_running = false;
    pthread_join(sound, NULL); /* before close: blocks die there */
    hdmi_player_close();
    printf("%ld frames shown, %ld dropped\n", g_flipped, g_dropped);
    return EXIT_SUCCESS;
}
