/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The platform's decoder of compressed audio (AC-3, E-AC-3).
 *
 * Threads. One thread writes, another reads; init, write, read, rate and
 * deinit may come from different threads. The player never calls deinit while
 * another call on the same decoder runs, and serialises read against deinit;
 * write and read run at the same time, so the implementation locks its state.
 *
 * The count. The player knows the time of decoded sound by counting it alone.
 * A frame that never reaches the decoder (a burst with the error flag, a broken
 * preamble, a pause) would move all sound behind it ahead of the picture, for
 * good. So the implementation keeps the count true to the time that passes:
 * - It compares when frames come with how long those before them last. What is
 *   missing, more than a frame, is filled with silence of that length. Half a
 *   second after the loss the sound is where it would have been: to the sample
 *   when frames are lost, within 5 ms after a pause of any length up to 2 s.
 * - Frames that come late are not lost. They come in captured chunks of 5 to
 *   20 ms, and all at once when the machine was busy: what is missing is judged
 *   when the next frames are there.
 * - The player has 76 ms of sound in hand. After some 50 ms without a frame,
 *   read gives the silence as time goes by. Where the frames come after all, as
 *   much is left out of them.
 * - Frames that come faster than they last miss nothing, nor do those before
 *   the decoder has known the pace for a quarter of a second.
 * - The player keeps the time itself, and what was lost is forgotten, when the
 *   capture device is opened (aio_device.h), and while it queues silence of its
 *   own: see adecoder_get_output_sample_rate(). Where the capture device
 *   delivers nothing there is no signal, and no silence either.
 * platform/common/frame_clock.h does this for any decoder.
 */
#ifndef ADECODER_H
#define ADECODER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum adecoder_format {
    ADECODER_FORMAT_PCM = 0,
    ADECODER_FORMAT_AC3 = 1,
    ADECODER_FORMAT_EAC3 = 2,
    ADECODER_FORMAT_DTS = 3,
} adecoder_format_t;

/** Channels of the decoded PCM. */
typedef enum adecoder_channel {
    ADECODER_CHANNEL_MONO = 0,
    ADECODER_CHANNEL_STEREO = 1,
    ADECODER_CHANNEL_3 = 2,
    ADECODER_CHANNEL_4 = 3,
    ADECODER_CHANNEL_5 = 4,
    ADECODER_CHANNEL_5_1 = 5,
    ADECODER_CHANNEL_7 = 6,
    ADECODER_CHANNEL_7_1 = 7,
    ADECODER_CHANNEL_MAX = 8,
} adecoder_channel_t;

/** A decoder; what is in it is the implementation's. */
typedef struct adecoder_handle adecoder_handle_t;

/**
 * Creates a decoder whose output is interleaved signed 16-bit PCM in the
 * channel count that @p num_channel stands for, mixed down where the stream
 * has more. A decoder of either AC-3 or E-AC-3 accepts both.
 * @param arg1 always 1
 * @param arg2 always 0
 * @param arg4 always 0
 * @param async_mode the implementation may decode on a thread of its own; then
 *        a write's status need not tell of output that becomes ready later
 * @return the decoder, or null. Does not block.
 */
adecoder_handle_t* adecoder_init(adecoder_format_t format, int32_t arg1, int32_t arg2, adecoder_channel_t num_channel,
                                 int32_t arg4, bool async_mode);

/**
 * Feeds @p bytes bytes of the elementary stream, cut anywhere. They come as the
 * link carries them: in 16-bit words whose low byte is first (the sync of AC-3
 * reads 77 0B), so both byte orders must be understood. A frame ends with the
 * size that its header states; it must not wait for the next one's header.
 * A damaged frame is to cost its own duration and nothing after it, one that
 * never came as well (see above).
 * @param arg3 always 0
 * @param timeout_ms always -1
 * @param status receives a positive value exactly when decoded PCM is ready to
 *        be read; else a negative one when decoding failed (the stream goes on
 *        with the next frame), else 0
 * @return bytes accepted, 0 while nothing can be taken because decoded PCM waits
 *         to be read, negative on error. Does not wait for the reader.
 */
int32_t adecoder_write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t arg3, int32_t timeout_ms,
                       int32_t* status);

/**
 * Takes decoded PCM: whole frames, at most @p buffer_size bytes. Called at
 * least every 10 ms while the player takes sound.
 * @param arg1 always 0
 * @param arg2 always 0
 * @param arg5 always 0
 * @return bytes stored, 0 or less when none is ready. Does not block.
 */
int32_t adecoder_read(adecoder_handle_t* handle, int32_t arg1, int32_t arg2, void* buffer, int32_t buffer_size,
                      int32_t arg5);

/**
 * Sample rate in Hz of the decoded PCM; 0 before the first frame was decoded.
 * The player asks once for each block that it queues: after every read that
 * gave PCM, and for every block of silence that it makes itself of zeros on the
 * link. A call that follows no read is therefore news: the player keeps the
 * time while the link is silent.
 */
int32_t adecoder_get_output_sample_rate(adecoder_handle_t* handle);

/** Ends the decoder and frees everything. @return 0, or negative on failure. */
int32_t adecoder_deinit(adecoder_handle_t* handle);

#ifdef __cplusplus
}
#endif

#endif
