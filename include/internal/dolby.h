// SPDX-License-Identifier: MIT
/**
 * @file
 * Compressed input: finds IEC 61937 bursts in the captured stream, feeds their
 * payload to the platform's decoder and queues the decoded PCM.
 *
 * Two threads. "dolby_demux" takes the captured chunks, finds the bursts and
 * writes to the decoder, which it alone builds and replaces; "dolby_decode"
 * reads the decoder. Both queue PCM: the decode thread what was decoded, the
 * demux thread the digital silence of a link that carries no burst. Silence is
 * handed on chunk by chunk as it was captured, stamped with the decoder's rate
 * once there is one: a second of it on a link that runs at four times the
 * sample rate (E-AC-3) plays for four seconds.
 *
 * Functions may be called from any thread. The host's and the player's callbacks
 * are called with no lock held that a function of this module takes, except init
 * and deinit, which must not be called from them.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "adecoder.h"
#include "hdmi_player.h"
#include "internal/burst_parser.h"
#include "internal/frame_queue.h"
#include "internal/locks.h"

/// What the player does with compressed input.
typedef enum {
    DOLBY_STRATEGY_PCM = 0, ///< the input is PCM
    DOLBY_STRATEGY_DECODE = 1,
    DOLBY_STRATEGY_HWBYPASS = 2, ///< the hardware passes it to the output
    DOLBY_STRATEGY_UNSUPPORTED = 3,
    DOLBY_STRATEGY_MAX = 4, ///< not set yet
} dolby_strategy_e;

typedef enum {
    DOLBY_DUMP_IEC61937 = 0, ///< captured chunks
    DOLBY_DUMP_RAW = 1,      ///< burst payloads
    DOLBY_DUMP_PCM = 2,      ///< decoded PCM
    DOLBY_DUMP_MAX = 3,
} dolby_dump_e;

typedef struct dolby_config_s {
    hdmi_player_event_cb_t event_cb;
    void (*format_changed_cb)(bool force_reset, bool* restarted);
    int32_t (*get_ao_channels)(void); ///< may be null; not used
    hdmi_player_audio_frame_t* (*input_queue_dequeue_cb)(int32_t timeout_ms);
    int32_t (*input_queue_put_cb)(hdmi_player_audio_frame_t* frame);
    void (*input_queue_wakeup_cb)(void);
    int32_t output_buffer_size; ///< bytes of each decoded frame
} dolby_config_t;

/// The parser's state is the demux thread's.
typedef struct dolby_info_s : burst_state {
    std::atomic<bool> initialized{false}; ///< written under api_rwlock
    std::atomic<bool> enlog{false};
    std::atomic<bool> async_mode{false};
    std::atomic<bool> abort_request{false};
    bool need_reinit_decoder = false; ///< the channel count changed; demux thread only
    bool wait_iec61937 = false;       ///< silence went out while no burst came; demux thread only
    std::atomic<dolby_strategy_e> strategy{DOLBY_STRATEGY_MAX};
    std::atomic<dolby_iec61937_format_e> format{DOLBY_IEC61937_FORMAT_UNSET}; ///< of the latest burst sent
    std::atomic<int32_t> output_sample_rate{0};                ///< of the input chunks, Hz; set by the demux thread
    std::atomic<int32_t> output_channels{0};                   ///< of the input chunks; set by the demux thread
    int64_t output_frames GUARDED_BY(internal_mutex) = 0;      ///< PCM frames queued since the last serial change
    int32_t output_acquire_size = 0;                           ///< bytes of each decoded frame; constant after init
    int32_t output_pcm_queue = -1;                             ///< "DOLBY_OUT"; -1: none; constant after init
    std::atomic<int32_t> frame_serial{-1};                     ///< of the latest input chunk; set by the demux thread
    int32_t last_frame_serial GUARDED_BY(internal_mutex) = -1; ///< of the latest PCM frame
    /// Replaced by the demux thread only, under the mutex; the demux thread writes to it without.
    adecoder_handle_t* adecoder_handle GUARDED_BY(decoder_mutex) = nullptr;
    /// Dump folders, owned; null: no dump. Constant once a strategy is set, which the threads wait for.
    char* dump_path_iec61937 = nullptr;
    char* dump_path_raw = nullptr;
    char* dump_path_pcm = nullptr;
    pthread_t tid_demux GUARDED_BY(lifecycle_mutex) = 0;
    pthread_t tid_decode GUARDED_BY(lifecycle_mutex) = 0;
    mutex_t decoder_mutex;
    /// The decoder was rebuilt, has output, or ends; on CLOCK_MONOTONIC.
    pthread_cond_t decoder_cond = PTHREAD_COND_INITIALIZER;
    mutex_t internal_mutex;                    ///< time line of the output; never waited under
    rwlock_t api_rwlock;                       ///< write: init and the end of deinit; read: everything else
    hdmi_player_event_cb_t event_cb = nullptr; ///< constant after init, as the other callbacks
    void (*format_changed_cb)(bool force_reset, bool* restarted) = nullptr;
    hdmi_player_audio_frame_t* (*input_queue_dequeue_cb)(int32_t timeout_ms) = nullptr;
    int32_t (*input_queue_put_cb)(hdmi_player_audio_frame_t* frame) = nullptr;
    void (*input_queue_wakeup_cb)(void) = nullptr;
    uint32_t stuffing_bytes = 0;  ///< zeros that are no pause, after a break in the stream; demux thread only
    bool decoder_stalled = false; ///< it takes nothing, and that was reported; demux thread only
    std::atomic<bool> demux_acquiring{false}; ///< the demux thread takes a frame of "DOLBY_OUT", or waits for one
    mutex_t lifecycle_mutex; ///< init or deinit as a whole, the threads' end included; taken before api_rwlock
} dolby_info_t;

extern dolby_info_t g_dolby_info;

/// Starts both threads; decoding begins with dolby_set_strategy(). 0 or -1.
int32_t dolby_init(dolby_config_t cfg);

/// Ends both threads wherever they wait, and frees everything. 0, or -1 without effect before init.
int32_t dolby_deinit(void);

dolby_strategy_e dolby_get_strategy(void);

/// A change away from decoding also releases the demux thread where it waits for a free output frame.
int32_t dolby_set_strategy(dolby_strategy_e strategy);

/// "decode", "hwbypass" or "unsupported"; "unknown" for everything else, PCM included.
const char* dolby_strategy_name(dolby_strategy_e strategy);

/// Whether the stream's format is one the decoder knows, or not known yet.
bool dolby_format_support(void);

/// The oldest PCM frame, waiting at most @p timeout_ms. 0 or -1.
int32_t dolby_get_output_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);

/// Gives a PCM frame back. 0, or -1 when it is not of this module's queue.
int32_t dolby_put_output_pcm_frame(hdmi_player_audio_frame_t* frame);

/**
 * Finds a burst preamble (Pa, Pb, Pc, Pd of IEC 61937-1) in @p buffer.
 * @param filter_bytes receives the payload's offset from @p buffer
 * @param burst_bytes receives the burst's repetition period in bytes, preamble included
 * @param payload_bytes receives the payload's length as Pd states it; it may exceed the burst and the buffer
 * @return the payload's address inside @p buffer (its end, if the preamble ends there), or null. A result
 * that is not null does not imply that Pa and Pb were seen.
 */
void* dolby_disassemble_burst_preamble(dolby_iec61937_format_e* format, void* buffer, uint32_t bytes,
                                       uint32_t* filter_bytes, uint32_t* burst_bytes, uint32_t* payload_bytes);

/**
 * Consumes one captured chunk; demux thread only.
 * @return 0 when it was burst data; -1 when no burst was recognised in what the previous burst left of it,
 * or the start of a preamble was held back; the error of dolby_send_stream()
 */
int32_t dolby_disassemble_iec61937(dolby_info_t* info, const void* buffer, uint32_t bytes);

/**
 * Feeds one span of payload to the decoder, rebuilding it first when the format
 * or the channel count changed; demux thread only. Without a decoder the bytes
 * are dropped. When the decoder takes nothing for some milliseconds, the rest of
 * the span is dropped.
 * @return 0, or -1 when bytes were lost to a decoder
 */
int32_t dolby_send_stream(dolby_info_t* info, const void* data, uint32_t size, dolby_iec61937_format_e new_format);

/// Follows a change of format; for the format in use: rebuilds the decoder and reports no change.
void dolby_format_changed(dolby_info_t* info, dolby_iec61937_format_e new_format);

/// Stamps a filled frame of "DOLBY_OUT" with serial, format and pts, and queues it.
void dolby_pack_pcm_frame(dolby_info_t* info, frame_info_t* frame);

/// Appends to the dump file of @p type, if its path is set.
void dolby_dump(dolby_info_t* info, dolby_dump_e type, const void* data, uint32_t size);

adecoder_format_t dolby_trans_format(dolby_iec61937_format_e format);
adecoder_channel_t dolby_trans_channels(int32_t channels);
