/* SPDX-License-Identifier: MIT */
/*
 * A port's playback that is nothing but a clock: it takes sound at the rate that was asked for. It captures nothing,
 * has no decoder and no CEC.
 */
#include <aio_device.h>
#include <pthread.h>
#include <time.h>

enum { kBytesPerFrame = 4, kPeriods = 8 };
#define SEAM __attribute__((visibility("default")))
#define UNUSED __attribute__((unused))

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; /* what follows */
static bool is_open;
static double written; /* frames; what ran empty counts too */
static double began;   /* seconds */

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

/* Frames that wait to be heard. */
static double queued(const audio_config_t* config)
{
    const double heard = (now() - began) * config->sample_rate;
    if (heard > written)
        written = heard;
    return written - heard;
}

SEAM int aio_device_open(audio_config_t* config)
{
    if (config->stream_type != E_AUDIO_STREAM_PLAYBACK)
        return -1;
    pthread_mutex_lock(&mutex);
    is_open = true;
    written = 0;
    began = now();
    pthread_mutex_unlock(&mutex);
    return 0;
}

SEAM int aio_device_close(UNUSED audio_config_t* config)
{
    pthread_mutex_lock(&mutex);
    is_open = false;
    pthread_mutex_unlock(&mutex);
    return 0;
}

SEAM int aio_device_read(UNUSED audio_config_t* config, UNUSED uint8_t* data, UNUSED int size) { return -1; }

SEAM int aio_device_write(audio_config_t* config, UNUSED const uint8_t* data, int size)
{
    const struct timespec pause = {0, 1000000};
    const int frames = size / kBytesPerFrame;
    pthread_mutex_lock(&mutex);
    while (is_open && queued(config) + frames > kPeriods * config->period_frames) {
        pthread_mutex_unlock(&mutex);
        nanosleep(&pause, NULL);
        pthread_mutex_lock(&mutex);
    }
    if (is_open)
        written += frames;
    const int result = is_open ? size : -1;
    pthread_mutex_unlock(&mutex);
    return result;
}

SEAM int aio_device_get_write_bytes(audio_config_t* config, int* out)
{
    pthread_mutex_lock(&mutex);
    *out = (int)queued(config);
    pthread_mutex_unlock(&mutex);
    return 0;
}

SEAM int aio_device_bytes_to_frames(UNUSED audio_config_t* config, int bytes) { return bytes / kBytesPerFrame; }
SEAM int aio_device_frames_to_bytes(audio_config_t* config, int frames)
{
    return (frames != 0 ? frames : config->period_frames) * kBytesPerFrame;
}
SEAM int aio_device_set_volume(UNUSED audio_config_t* config, UNUSED int volume) { return 0; }
SEAM int aio_device_set_volume_direct(UNUSED audio_config_t* config, UNUSED int volume) { return 0; }
SEAM int aio_device_set_mute(UNUSED audio_config_t* config, UNUSED bool mute) { return 0; }
SEAM int aio_device_reselect(UNUSED audio_config_t* config, UNUSED int device_id, UNUSED int output_fmt) { return 0; }
