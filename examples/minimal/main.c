/* SPDX-License-Identifier: MIT */
/*
 * The smallest host: passes the sound through and hands in a frame every
 * sixtieth of a second, until it is interrupted or its time is over.
 *
 *     minimal [SECONDS]
 *
 * On the simulated platform HDMIPLAYER_SIM_SIGNAL=programme gives it a source
 * (hdmi_sim_control.h); on Linux `hdmi-player-run -- minimal` lets it hear the
 * capture card.
 *
 * The part marked as the host is the one of hdmi_player.h and README.md, line
 * for line. What stands before it is a product's own: where frames come from,
 * what shows them, what is done to the sound. Here that is next to nothing, but
 * for what the panel's latency needs, which is PANEL_MS here.
 */
#include <errno.h>
#include <hdmi_player.h>
#include <limits.h>
#include <math.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

enum { FPS = 60, NS_PER_S = 1000000000, NO_DISPLAY = 0 };

/* The player plans for 76 ms from a flip to light; 15 ms less put the sound into the middle of what viewers tolerate.
 * On a faster panel the flips are held, on a slower one the sound. */
enum { PANEL_MS = 20, PLANNED_MS = 76 - 15 };
enum { FLIPS_HELD_MS = PANEL_MS < PLANNED_MS ? PLANNED_MS - PANEL_MS : 0 };
enum { SOUND_HELD_MS = PANEL_MS > PLANNED_MS ? PANEL_MS - PLANNED_MS : 0 };

static atomic_long received, shown, dropped;
static atomic_bool running = true;
static double seconds_heard, loudest; /* of full scale */

/* Whether the wall clock was set since the last call. */
static bool clock_was_set(void)
{
    static int timer = -1;
    uint64_t unused;
    if (timer >= 0 && (read(timer, &unused, sizeof unused) >= 0 || errno != ECANCELED))
        return false;
    const bool first = timer < 0;
    const struct itimerspec never = {.it_value = {.tv_sec = (time_t)1 << (8 * sizeof(time_t) - 2)}};
    if (first)
        timer = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    timerfd_settime(timer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, NULL);
    return !first;
}

static atomic_bool sound_was_lost; /* the host tells, below */

/* Waits for the input's next frame. When the wall clock was set, or sound was lost: one more, and then none for 1.1 s.
 */
static hdmi_player_video_frame_t receive_frame(void)
{
    enum { BREAK_NS = 1100000000 };
    static struct timespec next;
    static bool broken;
    if (received == 0)
        clock_gettime(CLOCK_MONOTONIC, &next);
    next.tv_nsec += NS_PER_S / FPS + (broken ? BREAK_NS : 0);
    next.tv_sec += next.tv_nsec / NS_PER_S;
    next.tv_nsec %= NS_PER_S;
    const bool lost = atomic_exchange(&sound_was_lost, false);
    broken = clock_was_set() || lost;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, NULL);
    received++;
    return (hdmi_player_video_frame_t){&received, 0}; /* any handle of the host's */
}

/* The flips that are held: first in, first out. There are no more than the product has buffers. */
enum { BUFFERS = 32 };
static struct {
    hdmi_player_video_frame_t frame;
    struct timespec due;
} held[BUFFERS];
static unsigned long held_first, held_end;
static bool flips_ended;
static pthread_mutex_t held_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t held_changed = PTHREAD_COND_INITIALIZER;

/* Shows the frame FLIPS_HELD_MS later. */
static void on_flip(hdmi_player_video_frame_t frame)
{
    struct timespec due;
    clock_gettime(CLOCK_MONOTONIC, &due);
    due.tv_nsec += FLIPS_HELD_MS * 1000000L;
    if (due.tv_nsec >= NS_PER_S) {
        due.tv_nsec -= NS_PER_S;
        due.tv_sec++;
    }
    pthread_mutex_lock(&held_mutex);
    held[held_end % BUFFERS].frame = frame;
    held[held_end % BUFFERS].due = due;
    held_end++;
    pthread_cond_signal(&held_changed);
    pthread_mutex_unlock(&held_mutex);
}

/* A thread of the product: gives the display each held frame when its time has come, for the coming vertical blank. */
static void* show_flips(void* unused)
{
    pthread_mutex_lock(&held_mutex);
    while (held_first != held_end || !flips_ended) {
        if (held_first == held_end) {
            pthread_cond_wait(&held_changed, &held_mutex);
            continue;
        }
        const struct timespec due = held[held_first % BUFFERS].due;
        pthread_mutex_unlock(&held_mutex);
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, NULL);
        shown++; /* here held[held_first % BUFFERS].frame goes to the display */
        pthread_mutex_lock(&held_mutex);
        held_first++;
    }
    pthread_mutex_unlock(&held_mutex);
    return unused;
}

/* Takes the frame's buffer back. */
static void on_drop(hdmi_player_video_frame_t frame)
{
    (void)frame;
    dropped++;
}

/* Holds the sound for SOUND_HELD_MS: it begins with as much silence, again after a pause. The stamps stay as they are.
 */
static void hold_sound(hdmi_player_audio_frame_t* block)
{
    enum { HELD_SAMPLES = SOUND_HELD_MS * 48 * 2 }; /* 48 kHz, 2 channels */
    static int16_t line[HELD_SAMPLES + 1];
    static time_t last_s;
    static int next;
    struct timespec now;
    if (HELD_SAMPLES == 0)
        return;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec > last_s + 1)
        memset(line, 0, sizeof line);
    last_s = now.tv_sec;
    int16_t* samples = (int16_t*)block->data;
    for (int i = 0; i < block->size / 2; i++) {
        const int16_t oldest = line[next];
        line[next] = samples[i];
        samples[i] = oldest;
        next = next + 1 < HELD_SAMPLES ? next + 1 : 0;
    }
}

/* Listens, and holds the sound. */
static void process(hdmi_player_audio_frame_t* block)
{
    const int16_t* samples = (const int16_t*)block->data;
    const int count = block->size / (int)sizeof(samples[0]);
    seconds_heard += (double)count / block->channels / block->sample_rate;
    for (int i = 0; i < count; i++)
        loudest = fmax(loudest, abs(samples[i]) / 32768.0);
    hold_sound(block);
}

/* --- The host ------------------------------------------------------------- */

static atomic_int newest_serial;   // of the blocks that were taken
static atomic_int last_old_serial; // blocks up to this serial are not played
static bool reset_raised;          // during this call of hdmi_player_video_render()

static void on_event(hdmi_player_event_e event)
{
    if (event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET) { // only inside hdmi_player_video_render()
        last_old_serial = newest_serial;
        reset_raised = true;
    }
}

static bool may_play(int32_t serial)
{
    if (serial > newest_serial)
        newest_serial = serial;
    return serial > last_old_serial;
}

static struct {
    int32_t serial;         // of the sequence
    int64_t least_age_us;   // of its blocks: now less pts
    int64_t thrown_away_us; // when late blocks were thrown away last, the first of them
    bool lost;              // sound is missing before a block, and sound_was_lost is still to be set
    int64_t reported_us;    // when it was set last
} late;
static atomic_bool sound_was_lost; // on its way here: only a reset brings frames and sound together again

static int64_t now_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

enum { IN_HAND_US = 76000 + 20000, AT_ONCE_US = 2000, EPISODE_US = 500000, INTERVAL_US = 10000000 };

// Not more often than once in ten seconds: the reset costs a second of frames.
static void report_loss(int64_t now)
{
    if (!late.lost || now - late.reported_us <= INTERVAL_US)
        return;
    sound_was_lost = true;
    late.lost = false;
    late.reported_us = now;
}

// Not more often than once in ten seconds, since it is heard; then the blocks of half a second.
static bool may_throw_away(int64_t now)
{
    if (now - late.thrown_away_us > INTERVAL_US)
        late.thrown_away_us = now;
    return now - late.thrown_away_us < EPISODE_US;
}

// Whether this thread stood still for so long that the output ran dry before this block came.
static bool is_late(const hdmi_player_audio_frame_t* block, int64_t asked_us)
{
    const int64_t now = now_us(), age = now - block->pts;
    const bool waited = now - asked_us > AT_ONCE_US; // then the block is new, whatever its stamp says
    if (block->serial != late.serial || (waited && age > late.least_age_us + IN_HAND_US)) {
        late.lost = block->serial == late.serial;
        late.serial = block->serial;
        late.least_age_us = age;
    }
    report_loss(now);
    if (age > late.least_age_us + IN_HAND_US && may_throw_away(now))
        return true;
    late.least_age_us += 40; // the clocks differ by up to 2000 ppm
    if (age < late.least_age_us)
        late.least_age_us = age;
    return false;
}

static void* play_sound(void* unused)
{
    while (running) {
        hdmi_player_audio_frame_t* block;
        const int64_t asked_us = now_us();
        if (hdmi_player_get_pcm(&block, 100) != 0)
            continue;
        if (may_play(block->serial) && !is_late(block, asked_us)) {
            process(block);
            hdmi_player_write_pcm(block);
        }
        hdmi_player_put_pcm(block);
    }
    return unused;
}

static void render_frames(void)
{
    while (running) {
        hdmi_player_video_frame_t frame = receive_frame();
        reset_raised = false;
        if (hdmi_player_video_render(&frame) != 0 && !reset_raised)
            on_drop(frame); // refused: the host keeps it
    }
}

static int play(int drm_fd)
{
    hdmi_player_config_t config = {0};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.drm_info.fd = drm_fd;
    config.drm_info.panel_refresh_rate = 60.0f;
    config.video_frame_queue_size = 16;
    config.event_cb = on_event;
    config.video_frame_flip_cb = on_flip;
    config.video_frame_drop_cb = on_drop;
    newest_serial = 0;         // the first serial of every open
    last_old_serial = INT_MAX; // nothing is played before the first reset
    late.serial = -1;
    if (hdmi_player_open(config) != 0)
        return -1;
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);

    pthread_t sound;
    const int error = pthread_create(&sound, NULL, play_sound, NULL);
    if (error == 0) {
        render_frames();           // stop: returns when `running` is cleared
        pthread_join(sound, NULL); // join: nobody holds a block any more
    }
    hdmi_player_close(); // close: frees the blocks, ends the callbacks
    return error;
}

/* --- End of the host ------------------------------------------------------ */

static void stop(int signal_number)
{
    (void)signal_number;
    running = false;
}

int main(int argc, char** argv)
{
    const struct sigaction action = {.sa_handler = stop};
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGALRM, &action, NULL);
    if (argc > 1)
        alarm((unsigned)atoi(argv[1]));
    /* Where the machine permits it. Threads inherit it, the player's as well. */
    const struct sched_param realtime = {.sched_priority = 10};
    sched_setscheduler(0, SCHED_RR, &realtime);
    pthread_t display;
    if (pthread_create(&display, NULL, show_flips, NULL) != 0)
        return EXIT_FAILURE;
    const int error = play(NO_DISPLAY);
    pthread_mutex_lock(&held_mutex);
    flips_ended = true;
    pthread_cond_signal(&held_changed);
    pthread_mutex_unlock(&held_mutex);
    pthread_join(display, NULL);
    if (error != 0)
        return EXIT_FAILURE;
    printf("%ld frames shown, %ld not shown, %ld back at close; %.1f s of sound heard, peak %.1f dBFS\n", shown,
           dropped, received - shown - dropped, seconds_heard, 20 * log10(loudest));
    return EXIT_SUCCESS;
}
