/* SPDX-License-Identifier: MIT */
/**
 * @file
 * hdmiplayer plays the signal of an HDMI input: sound and picture in sync.
 *
 * The library captures the receiver's audio, follows its format and rate,
 * decodes AC-3 and E-AC-3 and converts to the output's rate. The host
 * takes the sound block by block, processes it and writes it back; the library
 * plays it and knows, to the sample, what is being heard. The host hands in
 * every video frame as it arrives; the library calls back when the frame is to
 * be flipped, on the display's vertical blank and against the audio clock.
 *
 *      HDMI in ──audio──> capture ─> (decode) ─> resample ─> hdmi_player_get_pcm()
 *         │                                                        │ host's processing
 *         │                             playback <────── hdmi_player_write_pcm()
 *         │                                │ audio clock
 *         └──video──> hdmi_player_video_render() ─> pacing ─> video_frame_flip_cb
 *                                                     └─────> video_frame_drop_cb
 *
 * There is one player per process.
 *
 * ## A host
 *
 * This is a whole host. It calls four functions of its own: receive_frame()
 * waits for the input's next video frame (not for longer than a stop may
 * take), on_flip() shows a frame, on_drop() takes its buffer back, process()
 * changes the sound; on_flip() or process() also makes up for the panel's
 * latency, see there. A signal handler or another thread clears `running`, an
 * atomic_bool, to stop it. It needs <pthread.h>, <limits.h>, <time.h> and C11's
 * <stdatomic.h>. examples/minimal/main.c is the same host as a program.
 *
 *     static atomic_int newest_serial;   // of the blocks that were taken
 *     static atomic_int last_old_serial; // blocks up to this serial are not played
 *     static bool reset_raised;          // during this call of hdmi_player_video_render()
 *
 *     static void on_event(hdmi_player_event_e event)
 *     {
 *         if (event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET) { // only inside hdmi_player_video_render()
 *             last_old_serial = newest_serial;
 *             reset_raised = true;
 *         }
 *     }
 *
 *     static bool may_play(int32_t serial)
 *     {
 *         if (serial > newest_serial)
 *             newest_serial = serial;
 *         return serial > last_old_serial;
 *     }
 *
 *     static struct {
 *         int32_t serial;         // of the sequence
 *         int64_t least_age_us;   // of its blocks: now less pts
 *         int64_t thrown_away_us; // when late blocks were thrown away last, the first of them
 *         bool lost;              // sound is missing before a block, and sound_was_lost is still to be set
 *         int64_t reported_us;    // when it was set last
 *     } late;
 *     static atomic_bool sound_was_lost; // on its way here: only a reset brings frames and sound together again
 *
 *     static int64_t now_us(void)
 *     {
 *         struct timespec now;
 *         clock_gettime(CLOCK_MONOTONIC, &now);
 *         return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
 *     }
 *
 *     enum { IN_HAND_US = 76000 + 20000, AT_ONCE_US = 2000, EPISODE_US = 500000, INTERVAL_US = 10000000 };
 *
 *     // Not more often than once in ten seconds: the reset costs a second of frames.
 *     static void report_loss(int64_t now)
 *     {
 *         if (!late.lost || now - late.reported_us <= INTERVAL_US)
 *             return;
 *         sound_was_lost = true;
 *         late.lost = false;
 *         late.reported_us = now;
 *     }
 *
 *     // Not more often than once in ten seconds, since it is heard; then the blocks of half a second.
 *     static bool may_throw_away(int64_t now)
 *     {
 *         if (now - late.thrown_away_us > INTERVAL_US)
 *             late.thrown_away_us = now;
 *         return now - late.thrown_away_us < EPISODE_US;
 *     }
 *
 *     // Whether this thread stood still for so long that the output ran dry before this block came.
 *     static bool is_late(const hdmi_player_audio_frame_t* block, int64_t asked_us)
 *     {
 *         const int64_t now = now_us(), age = now - block->pts;
 *         const bool waited = now - asked_us > AT_ONCE_US; // then the block is new, whatever its stamp says
 *         if (block->serial != late.serial || (waited && age > late.least_age_us + IN_HAND_US)) {
 *             late.lost = block->serial == late.serial;
 *             late.serial = block->serial;
 *             late.least_age_us = age;
 *         }
 *         report_loss(now);
 *         if (age > late.least_age_us + IN_HAND_US && may_throw_away(now))
 *             return true;
 *         late.least_age_us += 40; // the clocks differ by up to 2000 ppm
 *         if (age < late.least_age_us)
 *             late.least_age_us = age;
 *         return false;
 *     }
 *
 *     static void* play_sound(void* unused)
 *     {
 *         while (running) {
 *             hdmi_player_audio_frame_t* block;
 *             const int64_t asked_us = now_us();
 *             if (hdmi_player_get_pcm(&block, 100) != 0)
 *                 continue;
 *             if (may_play(block->serial) && !is_late(block, asked_us)) {
 *                 process(block);
 *                 hdmi_player_write_pcm(block);
 *             }
 *             hdmi_player_put_pcm(block);
 *         }
 *         return unused;
 *     }
 *
 *     static void render_frames(void)
 *     {
 *         while (running) {
 *             hdmi_player_video_frame_t frame = receive_frame();
 *             reset_raised = false;
 *             if (hdmi_player_video_render(&frame) != 0 && !reset_raised)
 *                 on_drop(frame); // refused: the host keeps it
 *         }
 *     }
 *
 *     static int play(int drm_fd)
 *     {
 *         hdmi_player_config_t config = {0};
 *         config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
 *         config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
 *         config.drm_info.fd = drm_fd;
 *         config.drm_info.panel_refresh_rate = 60.0f;
 *         config.video_frame_queue_size = 16;
 *         config.event_cb = on_event;
 *         config.video_frame_flip_cb = on_flip;
 *         config.video_frame_drop_cb = on_drop;
 *         newest_serial = 0;         // the first serial of every open
 *         last_old_serial = INT_MAX; // nothing is played before the first reset
 *         late.serial = -1;
 *         if (hdmi_player_open(config) != 0)
 *             return -1;
 *         hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
 *
 *         pthread_t sound;
 *         const int error = pthread_create(&sound, NULL, play_sound, NULL);
 *         if (error == 0) {
 *             render_frames();           // stop: returns when `running` is cleared
 *             pthread_join(sound, NULL); // join: nobody holds a block any more
 *         }
 *         hdmi_player_close(); // close: frees the blocks, ends the callbacks
 *         return error;
 *     }
 *
 * One thread renders here. A host that renders from several threads makes
 * `reset_raised` thread-local: the event comes on the thread whose render
 * raised it.
 *
 * ## Starting cleanly
 *
 * The player resets at the first frame that meets running capture, and whenever
 * the time line breaks: after a second without frames, when the video queue is
 * full, when the input's format or rate changes, and when a selection changes
 * how the input is played. In a reset it
 * - raises E_HDMI_PLAYER_EVENT_AVSYNC_RESET;
 * - restarts the audio's time line with a new `serial` and pts 0;
 * - queues the frames until sound of that serial is played. The frame that
 *   fills the queue, and every further one, flips the oldest.
 *
 * The first block of a serial is held back for 76 ms, the latency of the video
 * path, before it goes to the device. From then on frames that are late against
 * the sound are dropped. Frames that are early are not held back, so sound that
 * starts later than that stays late.
 *
 * So, from hdmi_player_open() on, the host
 * - tells at once that the cable is in (hdmi_player_hotplug_status_changed());
 * - takes blocks all the time, so that none grow old in the queues;
 * - gives blocks back unwritten until the first block whose serial is newer
 *   than every serial before the latest AVSYNC_RESET. Blocks that are written
 *   before that lie in the playback device ahead of the new sequence. If they
 *   last longer than 76 ms, the sound is late by the rest and stays so.
 *
 * Frames that come before any sound was captured, or while A/V sync is off, are
 * flipped at once, from inside hdmi_player_video_render(), and start no reset.
 * A host without video, or with A/V sync switched off, therefore gets no reset:
 * it writes from the first block on.
 *
 * ## Late sound, and a clock that is set
 *
 * Sound that is late at the output stays late: the player does not catch up. If
 * the host's sound thread stands still for longer than the 76 ms that the
 * output has in hand, the output runs dry, and what comes then is late by the
 * rest. So the host throws such blocks away, not more often than once in ten
 * seconds, since that is heard. is_late() above does this. A block that is as
 * late but came while the host waited for it is played: it is new, and sound
 * before it was lost. The player counts sound, and does not notice the loss:
 * its frames stay late against the sound until it resets, which sound_was_lost
 * asks for, see below; not more often than once in ten seconds, because each
 * reset costs a second of frames, and a source may go on losing sound. Where the
 * processing delays the sound, this is decided behind it. A product also fades
 * from the first block that is thrown away into the one that is played.
 *
 * A reset does not empty the playback device. Where it holds more than 76 ms, as
 * when blocks of a machine that was busy all came at once, the new sequence is
 * late by the rest. So where a reset that the host asked for did not help, it asks
 * for another one, and gives blocks back unwritten until that has come: the
 * device has played by then what it held.
 *
 * Frames are stamped by the wall clock. Setting it while frames are in the queue
 * breaks the sync for good, unless the player resets. So the host notices it (a
 * timerfd with TFD_TIMER_CANCEL_ON_SET), renders one more frame, with which the
 * player counts from the new time, and then withholds frames for 1.1 seconds,
 * which makes the player reset. In examples/minimal/main.c, receive_frame() does,
 * and does the same when sound was lost.
 *
 * ## Stopping
 *
 * Blocks from hdmi_player_get_pcm() are memory of the player, which
 * hdmi_player_close() frees. A host therefore stops in this order:
 *
 * 1. Stop: it tells its threads to end.
 * 2. Join: it waits until none of them holds a block or takes another one.
 *    hdmi_player_get_pcm() returns after its time-out, which must not be
 *    negative here, hdmi_player_write_pcm() as soon as the device has taken a
 *    block.
 * 3. Close: hdmi_player_close().
 *
 * Close itself ends calls that are blocked in hdmi_player_get_pcm() and
 * hdmi_player_write_pcm() (they return -1), and waits for renders and callbacks
 * in progress. It may take up to 3 seconds: the platform tells the audio system
 * at the other end of the HDMI cable, over CEC, that the return channel closes.
 * Meanwhile the player shows no frame and plays no sound. The DRM descriptor
 * must stay open until close returns.
 *
 * Each buffer handle that hdmi_player_video_render() took comes back exactly
 * once: by the flip callback, by the drop callback or, without a callback, by
 * the return of hdmi_player_close().
 *
 * An output device that takes no sound at all any more blocks
 * hdmi_player_write_pcm(), and with it the join. A host that must survive that
 * joins with a time limit, closes, and joins again; between the end of the write
 * and the end of the thread it does nothing but give the block back.
 *
 * ## Volume and mute
 *
 * Volume and mute act on the playback device at once if it is open. The player
 * also remembers them, over close and open too, but it applies what it remembers
 * in hdmi_player_open() only. That has these consequences:
 *
 * - While RAW on S/PDIF or ARC keeps the playback device closed, volume and mute
 *   return 0 but reach no device. When decoding resumes, the device opens as it
 *   was before: give them again once sound is played. A mute that is given
 *   meanwhile stays remembered: taking it off returns -1, since the device is not
 *   muted, and the next open is muted.
 * - A percentage that is given while muted returns -1 and is only remembered:
 *   give it again once the mute is off.
 * - A value is remembered for the next open even if the device refuses it there,
 *   and that open fails, as does every later one. This holds for a percentage
 *   that was refused while open, and for anything given while closed. To leave
 *   that state, give a value that the device accepts (a percentage, or a mute)
 *   before the next open; for a hardware volume also a negative one, with which
 *   none is remembered.
 * - A remembered hardware volume goes before the percentage at every open, until
 *   hdmi_player_set_volume2() is called with a negative value while the player
 *   is closed.
 *
 * ## Compressed sound
 *
 * The time line of decoded sound begins with the first burst that is decoded
 * after the reset. Bursts of AC-3 and E-AC-3 last 32 ms at 48 kHz, so the first
 * one began 0 to 32 ms after the zero of the video's time line, and the sound
 * stays early by as much. A host that knows that its input is compressed adds
 * half a burst (1536 / 2 samples) to the pts of what it writes: the error is
 * then at most half a burst, to either side. On PCM input there is nothing to
 * add.
 *
 * A burst is decoded whole if its payload is not larger than one captured
 * chunk, 3840 bytes (3584 at 44.1 kHz): AC-3 at every bit rate, E-AC-3 up to
 * 960 kb/s (823 kb/s at 44.1 kHz, 640 kb/s at 32 kHz). A larger burst loses what
 * lies between its first and its last chunk, and the sound is broken. RAW on
 * S/PDIF or ARC passes such bursts on whole.
 *
 * ## The panel's latency
 *
 * The player plans for a panel that needs 76 ms from a flip to light. Around this
 * plan, starts differ by the phases of captures, bursts and vertical blanks: on
 * one the sound is 25 ms early, on another 25 ms late. Viewers notice early sound
 * much sooner (ATSC IS-191 allows 15 ms early, 45 ms late). So it is best to let
 * the sound be 15 ms later than planned, as if for 61 ms. On a panel that needs
 * L ms the host makes up for the difference:
 *
 * - L below 61: the host holds each flip for 61 - L ms. A held flip waits in a
 *   queue of the host's, first in, first out, until its time has come, and then
 *   goes to the display for the coming vertical blank. Its buffer is in use
 *   meanwhile: the host has (61 - L) x frames per second / 1000 more of them.
 *   A flip counts for the refresh in which it was made, so the even way is to
 *   hold it for whole refreshes, up to the next above 61 - L, and to hold the
 *   sound for the excess.
 *   The player leaves early frames where they are, up to 40 ms: within an hour, a
 *   frame's way from hdmi_player_video_render() to its flip may become a refresh
 *   or two shorter. A host that knows when each frame was rendered evens this
 *   out, whatever L is: it notes how long frames took to their vertical blank
 *   half a second after a reset, and from then on holds each flip for the
 *   vertical blank that is nearest to so long after its render. Of two flips for
 *   one vertical blank it shows the later one.
 * - L above 61: the host holds the sound for L - 61 ms, between
 *   hdmi_player_get_pcm() and hdmi_player_write_pcm(). It begins with as much
 *   silence, and moves behind it, while the stamps of the blocks stay as they
 *   are. If the stamps moved with the sound, the frames would wait for it, and
 *   nothing would be gained.
 *
 * A viewer's setting of X ms, positive for later sound, is made by the same two
 * means, with L + X in the place of L. In examples/minimal/main.c, on_flip() with
 * show_flips() and hold_sound() do this.
 *
 * Bursts of E-AC-3 are short: their sound is decoded before the frame of the same
 * moment arrives. A host that knows that its input is E-AC-3 plans for 46 ms
 * instead of 61.
 *
 * - Reset, change of format or rate: sound that goes on, goes on through the hold
 *   as well. After a pause it begins with silence again, and what was held is
 *   thrown away. Held flips are shown.
 * - Close: flips that are held when hdmi_player_close() returns stay the host's,
 *   to be shown or not. Held sound that is to be heard is written before.
 * - RAW on S/PDIF or ARC: the sound passes the host by and cannot be held, and
 *   frames are flipped as they come. There is no plan: on a panel that is slower
 *   than the sound, the sound stays early.
 *
 * ## Length of the video queue
 *
 * While the sound is on its way the frames wait, so `video_frame_queue_size`
 * must hold
 *
 *     2 + frames per second x (one capture period + resampler + host's processing
 *                              + decoder + backlog of the output)    [seconds]
 *
 * One capture period is 20 ms (20.3 ms at 44.1 kHz, 30 ms at 32 kHz). The
 * resampler takes less than 1 ms. The decoder takes one burst (32 ms for AC-3
 * and E-AC-3 at 48 kHz, 48 ms at 32 kHz). The backlog of the output is the 76 ms
 * for which the first block is held back. A queue that is full at a render call
 * starts a reset.
 *
 * ## Threads, locks, callbacks
 *
 * One hdmi_player_open() or hdmi_player_close() runs at a time. An open returns
 * -1 while the player is open, or is being opened or closed; a close waits for an
 * open or a close in progress. Inside a callback both return -1 and change
 * nothing. Every other function may be called from any thread at any time, from
 * inside callbacks too.
 *
 * Flip and drop callbacks come from the synchronizer's thread and from inside
 * hdmi_player_video_render(), a drop perhaps while another thread is inside a
 * flip. The event callback comes from whichever thread saw the event, inside
 * hdmi_player_video_render() and hdmi_player_open() among them.
 *
 * Two threads never flip at the same time: a render that has a frame to flip at
 * once waits until the flip callback in progress has returned. Flips overlap
 * only where the host renders from inside its flip callback: in free run, and
 * while a reset keeps the queue full, such a render flips at once, inside the
 * callback that is in progress. The host itself bounds how deep that goes.
 *
 * Callbacks must not block: they hold up the picture and the renders that wait
 * for them. So a callback must not wait for another thread's call into the
 * player, and the host must not hold a lock that its callbacks take while it
 * calls into the player.
 *
 * Buffer handles are opaque: the library never looks into them.
 *
 * ## Errors and messages
 *
 * Functions return 0 on success and -1 on failure, volume and mute also the
 * platform's error code. Failures print a message on standard output;
 * nothing aborts the process. The environment variable
 * debug_hdmiplayer_log_level sets what is printed: 0 nothing, 1 errors,
 * 2 warnings (default), 3 information, 4 debug, 5 verbose. The player does not
 * wait for who reads them: what a pipe or a terminal does not take at once is
 * printed later, and what is more than 64 KiB is counted and left out. This needs
 * a stream with a buffer of at most 4096 bytes, as the C library gives it to a
 * pipe. On a terminal, text of the host that the stream still holds comes behind
 * the player's messages: a host ends its line, or flushes, before a call.
 *
 * The capture thread asks for round-robin scheduling at priority 99
 * (CAP_SYS_NICE or RLIMIT_RTPRIO permits it). Without the permission the player
 * warns once and captures with the scheduling of the thread that opened it.
 *
 * All other threads of the player inherit the scheduling of the thread that
 * starts them: the one that calls hdmi_player_open() and, for the pacing of
 * video, also the one that calls hdmi_player_video_render(), because an A/V
 * sync reset starts the pacing anew. A host whose machine has other work to do
 * makes these calls from threads of real-time priority. Without it, flips are
 * late by milliseconds while all processors are busy.
 */
#ifndef HDMI_PLAYER_H
#define HDMI_PLAYER_H

#include <stdbool.h>
#include <stdint.h>

/** The version of this header; the library's file name carries the first number, which changes with the interface. */
#define HDMI_PLAYER_VERSION_MAJOR 1
#define HDMI_PLAYER_VERSION_MINOR 0
#define HDMI_PLAYER_VERSION_PATCH 0
/** For comparisons: `#if HDMI_PLAYER_VERSION >= HDMI_PLAYER_MAKE_VERSION(1, 2, 0)`. */
#define HDMI_PLAYER_MAKE_VERSION(major, minor, patch) (1000000 * (major) + 1000 * (minor) + (patch))
#define HDMI_PLAYER_VERSION \
    HDMI_PLAYER_MAKE_VERSION(HDMI_PLAYER_VERSION_MAJOR, HDMI_PLAYER_VERSION_MINOR, HDMI_PLAYER_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

#define HDMI_PLAYER_API __attribute__((visibility("default")))

/* The type of the enumerations. C++ must be told: a value outside the list would be undefined behaviour otherwise. */
#if defined(__cplusplus) && __cplusplus >= 201103L
#define HDMI_PLAYER_ENUM_TYPE : int32_t
#else
#define HDMI_PLAYER_ENUM_TYPE
#endif

/** Where the sound goes. */
typedef enum hdmi_player_ao_dev HDMI_PLAYER_ENUM_TYPE {
    E_HDMI_PLAYER_AO_DEV_AUTO = 0, /**< the platform's choice */
    E_HDMI_PLAYER_AO_DEV_SPEAKER = 1,
    E_HDMI_PLAYER_AO_DEV_HEADPHONE = 2,
    E_HDMI_PLAYER_AO_DEV_SPDIF = 3,
    E_HDMI_PLAYER_AO_DEV_HDMI_ARC = 4, /**< the audio return channel to a soundbar or receiver */
    E_HDMI_PLAYER_AO_DEV_I2S_TXA = 5,
    E_HDMI_PLAYER_AO_DEV_MAX = 6, /**< count of the values above; invalid itself */
} hdmi_player_ao_dev_e;

/** What goes to the output. */
typedef enum hdmi_player_ao_format HDMI_PLAYER_ENUM_TYPE {
    E_HDMI_PLAYER_AO_FORMAT_PCM = 0, /**< decoded sound */
    E_HDMI_PLAYER_AO_FORMAT_RAW = 1, /**< a compressed input untouched, on S/PDIF and ARC; PCM input is played as PCM */
    E_HDMI_PLAYER_AO_FORMAT_MAX = 2,
} hdmi_player_ao_format_e;

/** Sample rate of the output device. */
typedef enum hdmi_player_aio_sample_rate HDMI_PLAYER_ENUM_TYPE {
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_ORIGINAL = 0, /**< 48 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K = 1,      /**< 16 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_32K = 2,      /**< 32 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K = 3,      /**< 44.1 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K = 4,      /**< 48 kHz, as any value outside this list */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_MAX = 5,
} hdmi_player_aio_sample_rate_e;

/** What the player tells the host through hdmi_player_event_cb_t. */
typedef enum hdmi_player_event HDMI_PLAYER_ENUM_TYPE {
    /** The source sends nothing that can be played: no known format at open or
     *  for a second, or a compressed format without decoder. The picture goes
     *  on without A/V sync. */
    E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED = 0,
    /** The time line restarts; see "Starting cleanly". Raised inside
     *  hdmi_player_video_render(). */
    E_HDMI_PLAYER_EVENT_AVSYNC_RESET = 1,
    E_HDMI_PLAYER_EVENT_MAX = 2, /**< stands for an event that this header does not know */
} hdmi_player_event_e;

/** The cable of the HDMI input. */
typedef enum hdmi_hotplug_status HDMI_PLAYER_ENUM_TYPE {
    E_HDMI_HOTPLUG_STATUS_OUT = 0,
    E_HDMI_HOTPLUG_STATUS_IN = 1,
    E_HDMI_HOTPLUG_STATUS_MAX = 2,
} hdmi_hotplug_status_e;

/** One video frame. */
typedef struct hdmi_player_video_frame_s {
    void* buf_handle; /**< the host's; the library never dereferences it */
    int64_t pts; /**< microseconds. Replaced by the player's own stamp, made from the arrival times, where the frame
                    is synchronised; given back as it was where it is flipped at once. */
} hdmi_player_video_frame_t;

/**
 * One block of sound: interleaved signed 16-bit samples, little-endian on every
 * supported machine. Blocks that hdmi_player_get_pcm() hands out belong to the
 * player; a block given to hdmi_player_write_pcm() may be one of these or the
 * host's own.
 */
typedef struct hdmi_player_pcm_frame_s {
    uint8_t* data;    /**< size bytes: size / 2 / channels samples of each channel. In the player's blocks the samples
                         are the host's to change, data and buf_size are not. */
    int32_t size;     /**< bytes of sound in data */
    int32_t buf_size; /**< bytes allocated at data; size may grow up to it in place */
    int32_t sample_rate; /**< Hz */
    int32_t channels;    /**< 2 */
    int64_t pts;    /**< microseconds since the latest A/V sync reset: media time of the first sample. Processing that
                       delays the sound moves the stamp with it. Decoded sound counts from the first burst after the
                       reset, which began up to one burst later: see "Compressed sound". */
    int32_t serial; /**< number of the sequence, one more after each A/V sync reset; kept by the host as it is */
} hdmi_player_audio_frame_t;

/** The display that shows the frames. */
typedef struct hdmi_player_drm_info_s {
    int32_t fd; /**< open DRM device for vertical-blank waits; stays the host's and open until close. Not above 0: no
                   display, frames are paced by time alone. */
    float panel_refresh_rate; /**< Hz; not above 0: 60 is assumed */
} hdmi_player_drm_info_t;

/** Receives an event. May call any function of the player but open and close. */
typedef void (*hdmi_player_event_cb_t)(hdmi_player_event_e event);

/** Takes back a frame that will not be shown. */
typedef void (*hdmi_player_video_frame_drop_cb_t)(hdmi_player_video_frame_t frame);

/**
 * Shows a frame at the coming vertical blank. Flips are first in, first out: no
 * frame is ever flipped after a newer one. Of two frames that are rendered at the
 * same time, either may count as the newer one. Where frames still wait when one
 * is to be flipped at once, as when A/V sync is switched off, they are flipped
 * before it, oldest first. Flips come near the edge of a vertical blank, so that
 * up to two may be pending at a time; frames flipped at once come when they come.
 * When the buffer may be reused is between host and display.
 */
typedef void (*hdmi_player_video_frame_flip_cb_t)(hdmi_player_video_frame_t frame);

/** What the player is opened with. */
typedef struct hdmi_player_config_s {
    bool game_mode;                    /**< not used at open; see hdmi_player_set_game_mode() */
    hdmi_player_ao_dev_e ao_dev;       /**< output device at start */
    hdmi_player_ao_format_e ao_format; /**< output format at start */
    hdmi_player_drm_info_t drm_info;
    hdmi_player_aio_sample_rate_e ao_sample_rate; /**< rate of the output for the player's lifetime */
    int32_t audio_alg_max_delay_time_ms; /**< milliseconds; kept, but nothing uses it. What the host's processing delays
                                            counts in video_frame_queue_size. */
    int32_t video_frame_queue_size;  /**< frames, 5 at least (fewer are raised to 5 with a warning); see "Length of the
                                        video queue" */
    hdmi_player_event_cb_t event_cb; /**< may be null */
    hdmi_player_video_frame_drop_cb_t video_frame_drop_cb; /**< required */
    hdmi_player_video_frame_flip_cb_t video_frame_flip_cb; /**< required */
} hdmi_player_config_t;

/**
 * Opens the player: opens the devices and starts eight threads. Volume and mute
 * given earlier are applied. Blocks for as long as the devices take to open.
 * Other functions that are called before it returns may fail.
 * @return 0; -1 when it is open already, the flip or the drop callback is
 * missing, ao_dev or ao_format is out of range, a device does not open or the
 * output refuses the remembered volume or mute (see "Volume and mute"), or
 * memory or threads are short. After a failure everything is as before.
 */
HDMI_PLAYER_API int32_t hdmi_player_open(hdmi_player_config_t cfg);

/**
 * Closes the player: ends its threads and every call that is blocked in it,
 * closes the devices. Blocks from hdmi_player_get_pcm() are freed while it runs,
 * so no thread of the host may hold one: see "Stopping". On return no callback
 * runs or will run, and buffers that were neither flipped nor dropped are the
 * host's again. May take up to 3 seconds.
 * @return 0; -1 when it is not open, or inside a callback.
 */
HDMI_PLAYER_API int32_t hdmi_player_close(void);

/** Asks for low-latency capture, which is not supported. @return -1. */
HDMI_PLAYER_API int32_t hdmi_player_set_game_mode(bool enable);

/** @return whether game mode is on: false; true when the player is not open. */
HDMI_PLAYER_API bool hdmi_player_get_game_mode(void);

/**
 * Selects the output device while playing. If a compressed input goes past the
 * player from now on (RAW on S/PDIF or ARC), the playback device closes at once;
 * blocks that are written meanwhile are discarded without a wait, and volume and
 * mute reach no device. On the way back to decoding the device reopens at the
 * first block of a new serial. A new serial needs video frames: a host without
 * them stays silent.
 * @return 0, also when it is selected already; -1 for an unknown device, when
 * the platform refuses or the device is stuck in a write for two seconds (the
 * old one stays), or when the player is not open.
 */
HDMI_PLAYER_API int32_t hdmi_player_select_audio_output_device(hdmi_player_ao_dev_e dev);

/** Selects the output format while playing; as hdmi_player_select_audio_output_device(). */
HDMI_PLAYER_API int32_t hdmi_player_select_audio_output_format(hdmi_player_ao_format_e format);

/**
 * Sets the volume. The value is remembered, also while the player is closed or
 * muted and when the device refuses it, and applied at the next open unless a
 * hardware volume was set: see "Volume and mute".
 * @param volume percent, 0 to 100
 * @return 0, also when it was only remembered for the next open; -1 out of
 * range or while muted; -ETIMEDOUT when the device is stuck in a write for two
 * seconds; the platform's error otherwise. This holds for the next two as well.
 */
HDMI_PLAYER_API int32_t hdmi_player_set_volume(int32_t volume);

/**
 * Sets the volume in the output device's own units. The value is remembered and
 * goes before the percentage at the next open; while the player is open, not if
 * it is muted or the device refuses the value.
 * @param volume the device's units, not checked; negative, while the player is
 *        closed: none is remembered
 * @return 0, also when it was only remembered for the next open; -1 while
 * muted; the platform's error otherwise.
 */
HDMI_PLAYER_API int32_t hdmi_player_set_volume2(int32_t volume);

/**
 * Mutes the output or takes the mute off. Remembered over close and open; while
 * the player is open, not if the device refuses it.
 * @return 0, also when it was only remembered for the next open; -1 when it is
 * as asked already; the platform's error otherwise.
 */
HDMI_PLAYER_API int32_t hdmi_player_set_mute(bool mute);

/**
 * Takes the oldest block of input sound, at the output's rate, 2 channels.
 * @param frame receives the block, which stays the player's: to be given
 *        back with hdmi_player_put_pcm(), in any order; 128 exist
 * @param timeout_ms how long to wait for one, milliseconds; 0: not at all, negative: without limit
 * @return 0; -1 when none came, the player is not open or is being closed.
 */
HDMI_PLAYER_API int32_t hdmi_player_get_pcm(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);

/** Gives a block back to the player. Does not block. @return 0; -1 when it is not one of the player's. */
HDMI_PLAYER_API int32_t hdmi_player_put_pcm(hdmi_player_audio_frame_t* frame);

/**
 * Queues a block for playback; its content is copied. The sound is played as it
 * is: it must have the output's rate and 2 channels. While 128 blocks wait to be
 * played the call waits, which paces the host to the device.
 * @return 0; -1 for a block without data, when the player is not open or is
 * being closed; 1 when the queue refused the block.
 */
HDMI_PLAYER_API int32_t hdmi_player_write_pcm(hdmi_player_audio_frame_t* frame);

/**
 * Hands in one video frame, to be called when the frame arrives: the time of
 * the call is the frame's time. Does not wait for the display, with one
 * exception: a call that starts a reset waits for a flip or drop callback in
 * progress and for the vertical blank. A call that flips at once waits for a
 * flip callback in progress on another thread. May call flip, drop and event
 * callbacks itself.
 * @param frame copied; its pts may be overwritten
 * @return 0: the player has the frame, and it comes back by a callback or by
 * close. -1 and E_HDMI_PLAYER_EVENT_AVSYNC_RESET was raised on this thread during
 * the call: the player has the frame all the same (not so with
 * debug_hdmiplayer_video_wait_audio=0: the host keeps it). -1 without that event:
 * the host keeps the frame (no cable, no room, not open).
 */
HDMI_PLAYER_API int32_t hdmi_player_video_render(hdmi_player_video_frame_t* frame);

/**
 * Tells that the cable was plugged in or pulled out. Every open starts with the
 * cable out. While it is out and A/V sync is on, frames are refused. A value
 * outside the enumeration is stored as it is and refuses frames as well.
 * @return 0; -1 without effect when the player is not open, or is being opened or
 * closed. Report the cable after hdmi_player_open() has returned.
 */
HDMI_PLAYER_API int32_t hdmi_player_hotplug_status_changed(hdmi_hotplug_status_e state);

#ifdef __cplusplus
}
#endif

#endif
