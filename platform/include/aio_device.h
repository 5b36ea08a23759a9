/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The platform's audio devices: playback on the selected output and capture
 * from the HDMI receiver.
 *
 * One of the three headers that a port implements (with adecoder.h and
 * hdmi_cec.h). The player holds one playback and one capture configuration for
 * its lifetime and passes the same address to every call on that device; it
 * tells the two apart by `stream_type`, and so may the implementation.
 *
 * Threads. Playback calls are serialised by the player, except that
 * aio_device_close may be called while aio_device_write is blocked on another
 * thread. Capture calls come from one thread, except aio_device_close, which
 * another thread calls while aio_device_read may be blocked. In both cases the
 * close may also come just before the read or write: that then finds a closed
 * device and must fail at once. Playback and capture calls run at the same time.
 *
 * Units. A frame is one sample of each channel; samples are signed 16-bit
 * little-endian and interleaved. Results are 0 or a count on success and
 * negative on failure.
 */
#ifndef AIO_DEVICE_H
#define AIO_DEVICE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum audio_stream {
    E_AUDIO_STREAM_UNKNOWN = -1,
    E_AUDIO_STREAM_PLAYBACK = 0,
    E_AUDIO_STREAM_CAPTURE = 1,
    E_AUDIO_STREAM_MAX = 2,
} audio_stream_e;

typedef enum audio_io_dev {
    E_AUDIO_IO_DEV_NONE = -1,
    E_AUDIO_IO_DEV_AUTO = 0,
    E_AUDIO_IO_DEV_SPEAKER = 1,
    E_AUDIO_IO_DEV_HEADPHONE = 2,
    E_AUDIO_IO_DEV_SPDIF = 3,
    E_AUDIO_IO_DEV_HDMI_ARC = 4,
    E_AUDIO_IO_DEV_HDMI_IN = 5,
    E_AUDIO_IO_DEV_MIC01 = 6,
    E_AUDIO_IO_DEV_I2S_TXA = 7,
    E_AUDIO_IO_DEV_MAX = 8,
} audio_io_dev_e;

typedef enum audio_io_format {
    E_AUDIO_IO_FORMAT_NONE = -1,
    E_AUDIO_IO_FORMAT_PCM = 0,
    E_AUDIO_IO_FORMAT_RAW = 1,
    E_AUDIO_IO_FORMAT_MAX = 2,
} audio_io_format_e;

/** Whether the hardware carries the receiver's signal to the output by itself, past the player. */
typedef enum audio_in_bypass_mode {
    E_AUDIO_IN_BYPASS_MODE_NONE = -1,
    E_AUDIO_IN_BYPASS_MODE_TO_PCM = 0,
    E_AUDIO_IN_BYPASS_MODE_TO_RAW = 1, /**< the compressed stream, untouched */
    E_AUDIO_IN_BYPASS_MODE_MAX = 2,
} audio_in_bypass_mode_e;

/** One device. Owned by the player; the implementation keeps no pointer to it after close. */
typedef struct audio_config_s {
    audio_stream_e stream_type;
    int card_id;                           /**< 0 */
    int device_id;                         /**< an audio_io_dev_e; E_AUDIO_IO_DEV_HDMI_IN for capture */
    int output_fmt;                        /**< an audio_io_format_e; the player asks for PCM only */
    int channels;                          /**< 2 */
    int sample_rate;                       /**< Hz; a capture rate of 0 (input unknown) opens at 48000 */
    int open_mode;                         /**< 1 for capture, 0 for playback */
    bool game_mode;                        /**< always false */
    const char* pcm_name;                  /**< null: device_id names the device */
    int period_frames;                     /**< frames in one period */
    int period_count;                      /**< periods in the device's buffer: 8 for playback, 4 for capture */
    audio_in_bypass_mode_e in_bypass_mode; /**< capture only; takes effect at open */
} audio_config_t;

/**
 * Opens the device that @p config describes. May take a while, never waits for
 * a signal. A capture device starts empty: what arrived before is not read.
 * @return 0, or negative: then nothing is open.
 */
int aio_device_open(audio_config_t* config);

/**
 * Closes the device and ends, at once, a read or write that is blocked on it
 * on another thread; what is still queued for playback is discarded. The
 * player may close a device whose open failed or that is closed already: that
 * is harmless.
 * @return 0, or negative on failure: the device then counts as still open.
 */
int aio_device_close(audio_config_t* config);

/**
 * Reads @p size bytes, blocking until they have arrived. When nobody reads for
 * longer than the buffer holds, the oldest periods are lost and the call goes
 * on with what follows them.
 * @return bytes read (fewer only at the end of the device's life), or negative
 * on failure, when the device is closed meanwhile and, at once, when it is
 * closed already: a read that waited there would never end. Never sleeps after
 * a failure: the player backs off itself.
 */
int aio_device_read(audio_config_t* config, uint8_t* data, int size);

/**
 * Queues @p size bytes for playback, blocking while the device's buffer is full.
 * An empty device plays silence and counts an underrun; the next write continues.
 *
 * The call always ends: the device takes sound, or after some seconds without
 * progress the call fails or goes on as if the sound were played. While a write
 * is in progress, the player's calls for volume, mute and reselect wait up to two
 * seconds for it and then fail. aio_device_close ends it at any time.
 * @return bytes written; fewer than @p size, or negative, on failure and when
 * the device is closed meanwhile; negative, at once, when it is closed already.
 */
int aio_device_write(audio_config_t* config, const uint8_t* data, int size);

/**
 * Stores, despite the name, the number of *frames* that were written and are
 * not heard yet: the delay of the device, never negative. Does not block.
 * @return 0, or negative with @p out unchanged.
 */
int aio_device_get_write_bytes(audio_config_t* config, int* out);

/** Frames in @p bytes bytes of the device's sample format. Does not need an open device. */
int aio_device_bytes_to_frames(audio_config_t* config, int bytes);

/**
 * Bytes in @p frames frames of the device's sample format. 0 frames means one
 * period: the size in which the player reads.
 * @return a byte count, or negative: the device cannot be read at all.
 */
int aio_device_frames_to_bytes(audio_config_t* config, int frames);

/** Sets the output's volume in percent, 0 to 100, on a scale even to the ear. @return 0, or an error code. */
int aio_device_set_volume(audio_config_t* config, int volume);

/** Sets the output's volume in the mixer's own units. @return 0, or an error code. */
int aio_device_set_volume_direct(audio_config_t* config, int volume);

/** Mutes the output, or takes the mute off. @return 0, or an error code. */
int aio_device_set_mute(audio_config_t* config, bool mute);

/**
 * Moves an open playback device to another output without losing what is queued.
 * @param device_id an audio_io_dev_e
 * @param output_fmt an audio_io_format_e
 * @return 0, or negative: the device then stays where it was.
 */
int aio_device_reselect(audio_config_t* config, int device_id, int output_fmt);

#ifdef __cplusplus
}
#endif

#endif
