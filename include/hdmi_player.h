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
 *     static hdmi_player_config_t cfg;                   // zero-initialised
 *     cfg.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
 *     cfg.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
 *     cfg.drm_info.fd = drm_fd;
 *     cfg.drm_info.panel_refresh_rate = 60.0f;
 *     cfg.video_frame_queue_size = 16;
 *     cfg.event_cb = on_event;                           // notes AVSYNC_RESET
 *     cfg.video_frame_flip_cb = on_flip;
 *     cfg.video_frame_drop_cb = on_drop;
 *     if (hdmi_player_open(cfg) != 0)
 *         return -1;
 *     hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
 *
 *     // audio thread
 *     while (running) {
 *         hdmi_player_audio_frame_t* block;
 *         if (hdmi_player_get_pcm(&block, 100) != 0)
 *             continue;
 *         if (may_play(block->serial)) {                 // see "Starting cleanly"
 *             process(block->data, block->size);
 *             hdmi_player_write_pcm(block);
 *         }
 *         hdmi_player_put_pcm(block);
 *     }
 *
 *     // video thread, for every frame at the moment at which it arrives
 *     hdmi_player_video_frame_t frame = { buffer, 0 };
 *     if (hdmi_player_video_render(&frame) != 0 && !reset_raised_by_this_call)
 *         release(buffer);                               // the host kept it
 *
 *     hdmi_player_close();                               // buffers neither flipped nor dropped come back here
 *
 * ## Starting cleanly
 *
 * At the first frame that meets running capture, and whenever the time line
 * breaks (a second without frames, a full video queue, a change of the input's
 * format or rate, a selection that changes how the input is played), the
 * player resets: it raises E_HDMI_PLAYER_EVENT_AVSYNC_RESET, restarts the
 * audio's time line with a new `serial` and pts 0, and queues the frames until
 * sound of that serial is played; once the queue is full, every further frame
 * flips the oldest. The first block of a serial is held back by the latency of
 * the video path, 76 ms, and the picture follows the sound from then on: late
 * frames are dropped, but early ones are never held back for the sound, so the
 * sound must not be later than that plan.
 *
 * So, from hdmi_player_open() on, the host
 * - tells at once that the cable is in (hdmi_player_hotplug_status_changed());
 * - pulls blocks all the time, so that none grow old in the queues;
 * - gives blocks straight back, unwritten, until the first block whose serial
 *   is new since the latest AVSYNC_RESET. What is written before stays ahead of
 *   the new sequence in the playback device, and more than 76 ms of it
 *   remain as late sound for good.
 *
 * Frames that come before any sound was captured, or while A/V sync is off, are
 * flipped at once, from inside hdmi_player_video_render(), and start no reset.
 * A host without video, or with A/V sync switched off, gets no reset at all and
 * writes from the first block on.
 *
 * ## Compressed sound
 *
 * The time line of decoded sound begins with the first burst that is decoded
 * after the reset. Bursts of AC-3 and E-AC-3 last 32 ms at 48 kHz, so that one
 * began between 0 and 32 ms after the picture's zero, and by as much the sound
 * would be early for good. A host that knows its input to be compressed adds
 * half a burst (1536 / 2 samples) to the pts of what it writes: the error is
 * then at most half a burst, to either side. On PCM input there is nothing to
 * add.
 *
 * A burst is decoded whole if its payload is not larger than one captured
 * chunk, 3840 bytes (3584 at 44.1 kHz): AC-3 at every bit rate, E-AC-3 up to
 * 960 kb/s (823 kb/s at 44.1 kHz, 640 kb/s at 32 kHz). Of a larger one what
 * lies between its first and its last chunk is lost, and the sound is broken;
 * RAW on S/PDIF or ARC passes it on whole.
 *
 * ## Length of the video queue
 *
 * While the sound is on its way the frames wait, so `video_frame_queue_size`
 * must hold
 *
 *     2 + frames per second x (one capture period + resampler + host's processing
 *                              + decoder + backlog of the output)    [seconds]
 *
 * One capture period is 20 ms (20.3 ms at 44.1 kHz, 30 ms at 32 kHz), the
 * resampler below 1 ms, the decoder one burst (32 ms for AC-3 and E-AC-3 at
 * 48 kHz, 48 ms at 32 kHz), the backlog of the output the 76 ms for which it is
 * held at the start. A queue that is full at a render call starts a reset.
 *
 * ## Threads, locks, callbacks
 *
 * hdmi_player_open() and hdmi_player_close() must not run at the same time as
 * each other, nor inside a callback. Every other function may be called from
 * any thread at any time, from inside callbacks too. Flip and drop callbacks
 * come from the synchronizer's thread and from inside
 * hdmi_player_video_render(); at a change to free run even from both at the
 * same time. The event callback comes from whichever thread saw the event,
 * inside hdmi_player_video_render() and hdmi_player_open() among them.
 * Callbacks must not block: they hold up the picture. The host must not hold a
 * lock that its callbacks take while it calls into the player. A host that
 * renders from inside its flip callback bounds that itself: in free run, and
 * while a reset keeps the queue full, every render flips at once.
 *
 * Buffer handles are opaque: the library never looks into them. Each handle
 * that hdmi_player_video_render() took comes back exactly once, by the flip
 * callback, by the drop callback or by the return of hdmi_player_close().
 *
 * ## Errors and messages
 *
 * Functions return 0 on success and -1 on failure (volume and mute: the
 * platform's error code), with a message on standard output; nothing aborts the
 * process. Environment variable debug_hdmiplayer_log_level sets what is
 * printed: 0 nothing, 1 errors, 2 warnings (default), 3 information, 4 debug,
 * 5 verbose.
 *
 * The process should have permission for round-robin scheduling at priority 99
 * (CAP_SYS_NICE or RLIMIT_RTPRIO) for the capture thread; without it the player
 * warns once and captures with the scheduling of the thread that opened it.
 */
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
    E_HDMI_PLAYER_AO_DEV_AUTO = 0, /**< the platform's choice */
    E_HDMI_PLAYER_AO_DEV_SPEAKER = 1,
    E_HDMI_PLAYER_AO_DEV_HEADPHONE = 2,
    E_HDMI_PLAYER_AO_DEV_SPDIF = 3,
    E_HDMI_PLAYER_AO_DEV_HDMI_ARC = 4, /**< the audio return channel to a soundbar or receiver */
    E_HDMI_PLAYER_AO_DEV_I2S_TXA = 5,
    E_HDMI_PLAYER_AO_DEV_MAX = 6, /**< count of the values above; invalid itself */
} hdmi_player_ao_dev_e;

/** What goes to the output. */
typedef enum hdmi_player_ao_format {
    E_HDMI_PLAYER_AO_FORMAT_PCM = 0, /**< decoded sound */
    E_HDMI_PLAYER_AO_FORMAT_RAW = 1, /**< a compressed input untouched, on S/PDIF and ARC; PCM input is played as PCM */
    E_HDMI_PLAYER_AO_FORMAT_MAX = 2,
} hdmi_player_ao_format_e;

/** Sample rate of the output device. */
typedef enum hdmi_player_aio_sample_rate {
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_ORIGINAL = 0, /**< 48 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K = 1,      /**< 16 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_32K = 2,      /**< 32 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K = 3,      /**< 44.1 kHz */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K = 4,      /**< 48 kHz, as any value outside this list */
    E_HDMI_PLAYER_AIO_SAMPLE_RATE_MAX = 5,
} hdmi_player_aio_sample_rate_e;

/** What the player tells the host through hdmi_player_event_cb_t. */
typedef enum hdmi_player_event {
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
typedef enum hdmi_hotplug_status {
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
 * Shows a frame at the coming vertical blank. Flips are first in, first out;
 * they come near the edge of a vertical blank, so that up to two may be pending
 * at a time. When the buffer may be reused is between host and display.
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
 * output refuses volume or mute: then everything is as before.
 */
HDMI_PLAYER_API int32_t hdmi_player_open(hdmi_player_config_t cfg);

/**
 * Closes the player: ends its threads and every call that is blocked in it,
 * closes the devices. On return no callback runs or will run, buffers neither
 * flipped nor dropped are the host's again, and blocks from
 * hdmi_player_get_pcm() no longer exist: they must not be touched.
 * @return 0; -1 when it is not open.
 */
HDMI_PLAYER_API int32_t hdmi_player_close(void);

/** Asks for low-latency capture, which is not supported. @return -1. */
HDMI_PLAYER_API int32_t hdmi_player_set_game_mode(bool enable);

/** @return whether game mode is on: false; true when the player is not open. */
HDMI_PLAYER_API bool hdmi_player_get_game_mode(void);

/**
 * Selects the output device while playing. Where the change sends a compressed
 * input past the player (RAW on S/PDIF or ARC) the device closes at once, and
 * what is written meanwhile is discarded without a wait; on the way back to
 * decoding it reopens at the first block of a new serial, and a new serial
 * needs video: a host without frames stays silent.
 * @return 0, also when it is selected already; -1 for an unknown device, when
 * the platform refuses (the old one stays) or when the player is not open.
 */
HDMI_PLAYER_API int32_t hdmi_player_select_audio_output_device(hdmi_player_ao_dev_e dev);

/** Selects the output format while playing; as hdmi_player_select_audio_output_device(). */
HDMI_PLAYER_API int32_t hdmi_player_select_audio_output_format(hdmi_player_ao_format_e format);

/**
 * Sets the volume. Remembered, also while the player is closed or muted, and
 * applied at the next open unless a hardware volume was set.
 * @param volume percent, 0 to 100
 * @return 0, also when it was only remembered for the next open; -1 out of
 * range or while muted; the platform's error otherwise.
 */
HDMI_PLAYER_API int32_t hdmi_player_set_volume(int32_t volume);

/**
 * Sets the volume in the output device's own units, which goes before the
 * percentage at the next open. Not remembered while muted or when the device refuses it.
 * @param volume the device's units, not checked; negative: none remembered
 * @return 0, also when it was only remembered for the next open; -1 while
 * muted; the platform's error otherwise.
 */
HDMI_PLAYER_API int32_t hdmi_player_set_volume2(int32_t volume);

/**
 * Mutes the output or takes the mute off; remembered over close and open.
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
 * Queues a block for playback; its content is copied. The sound must have the
 * output's rate and 2 channels: it is played as it is. Blocks while 128 blocks
 * wait to be played, which paces the host to the device.
 * @return 0; -1 for a block without data, when the player is not open or is
 * being closed; 1 when the queue refused the block.
 */
HDMI_PLAYER_API int32_t hdmi_player_write_pcm(hdmi_player_audio_frame_t* frame);

/**
 * Hands in one video frame, to be called when the frame arrives: the time of
 * the call is the frame's time. Does not wait for the display, except that a
 * call that starts a reset waits for the synchronizer's threads: for a flip or
 * drop callback in progress and for the vertical blank.
 * May call flip, drop and event callbacks itself.
 * @param frame copied; its pts may be overwritten
 * @return 0: the player has the frame, and it comes back by a callback or by
 * close. -1: if E_HDMI_PLAYER_EVENT_AVSYNC_RESET was raised during this call,
 * on the calling thread, the player has the frame all the same; otherwise the
 * host keeps it (no cable, no room, not open). With
 * debug_hdmiplayer_video_wait_audio=0 the host keeps it in either case.
 */
HDMI_PLAYER_API int32_t hdmi_player_video_render(hdmi_player_video_frame_t* frame);

/**
 * Tells that the cable was plugged in or pulled out. Frames are refused while
 * it is out and A/V sync is on; every open starts with the cable out. A value
 * outside the enumeration is stored as it is, and frames are refused as well.
 * @return 0; -1 when the player is not open.
 */
HDMI_PLAYER_API int32_t hdmi_player_hotplug_status_changed(hdmi_hotplug_status_e state);

#ifdef __cplusplus
}
#endif

#endif
