// SPDX-License-Identifier: MIT
/**
 * @file
 * Compressed input: finds IEC 61937 bursts in the captured stream, feeds their
 * payload to the platform's decoder and queues the decoded PCM.
 */
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "adecoder.h"
#include "hdmi_player.h"
#include "internal/locks.h"

/// What the player does with compressed input.
typedef enum {
    DOLBY_STRATEGY_PCM = 0, ///< the input is PCM
    DOLBY_STRATEGY_DECODE = 1,
    DOLBY_STRATEGY_HWBYPASS = 2, ///< the hardware passes it to the output
    DOLBY_STRATEGY_UNSUPPORTED = 3,
    DOLBY_STRATEGY_MAX = 4, ///< not set yet
} dolby_strategy_e;

/// Burst data types, IEC 61937-2.
typedef enum {
    DOLBY_IEC61937_FORMAT_UNSET = -1,
    DOLBY_IEC61937_FORMAT_NONE = 0,
    DOLBY_IEC61937_FORMAT_AC3 = 1,
    DOLBY_IEC61937_FORMAT_DTS1 = 11,
    DOLBY_IEC61937_FORMAT_DTS2 = 12,
    DOLBY_IEC61937_FORMAT_DTS3 = 13,
    DOLBY_IEC61937_FORMAT_EAC3 = 21,
    DOLBY_IEC61937_FORMAT_MAX = 22,
} dolby_iec61937_format_e;

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

typedef struct dolby_info_s {
    std::atomic<bool> initialized;
    std::atomic<bool> enlog;
    std::atomic<bool> async_mode;
    std::atomic<bool> abort_request;
    bool need_reinit_decoder; ///< demux thread only
    bool wait_iec61937;       ///< silence went out while no burst came; demux thread only
    std::atomic<dolby_strategy_e> strategy;
    std::atomic<dolby_iec61937_format_e> format;          ///< of the stream being decoded
    uint32_t iec61937_burst_insufficient_bytes;           ///< stuffing of the burst still to skip; demux thread only
    uint32_t iec61937_payload_insufficient_bytes;         ///< payload of the burst still to come; demux thread only
    std::atomic<int32_t> output_sample_rate;              ///< of the input chunks, Hz
    std::atomic<int32_t> output_channels;                 ///< of the input chunks
    int64_t output_frames GUARDED_BY(internal_mutex);     ///< PCM frames queued since the last serial change
    int32_t output_acquire_size;                          ///< bytes of each decoded frame
    int32_t output_pcm_queue;                             ///< "DOLBY_OUT"; -1: none
    std::atomic<int32_t> frame_serial;                    ///< of the latest input chunk
    int32_t last_frame_serial GUARDED_BY(internal_mutex); ///< of the latest PCM frame
    int32_t iec61937_header_size;                         ///< demux thread only
    uint8_t iec61937_header[8];                           ///< preamble cut by the end of a chunk; demux thread only
    adecoder_handle_t* adecoder_handle GUARDED_BY(decoder_mutex);
    char* dump_path_iec61937;
    char* dump_path_raw;
    char* dump_path_pcm;
    pthread_t tid_demux;
    pthread_t tid_decode;
    mutex_t decoder_mutex;
    pthread_cond_t decoder_cond; ///< the decoder was rebuilt, or has output, or ends
    mutex_t internal_mutex;
    rwlock_t api_rwlock; ///< write: init and deinit; read: everything else
    hdmi_player_event_cb_t event_cb;
    void (*format_changed_cb)(bool force_reset, bool* restarted);
    hdmi_player_audio_frame_t* (*input_queue_dequeue_cb)(int32_t timeout_ms);
    int32_t (*input_queue_put_cb)(hdmi_player_audio_frame_t* frame);
    void (*input_queue_wakeup_cb)(void);
} dolby_info_t;

extern dolby_info_t g_dolby_info;

int32_t dolby_init(dolby_config_t cfg);
int32_t dolby_deinit(void);

dolby_strategy_e dolby_get_strategy(void);
int32_t dolby_set_strategy(dolby_strategy_e strategy);
const char* dolby_strategy_name(dolby_strategy_e strategy);

/// Whether the stream's format is one the decoder knows, or not known yet.
bool dolby_format_support(void);

int32_t dolby_get_output_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms);
int32_t dolby_put_output_pcm_frame(hdmi_player_audio_frame_t* frame);

/**
 * Finds a burst preamble (Pa, Pb, Pc, Pd of IEC 61937-1) in @p buffer.
 * @return the payload's address inside @p buffer, or null. A result that is
 * not null does not imply that Pa and Pb were seen.
 */
void* dolby_disassemble_burst_preamble(dolby_iec61937_format_e* format, void* buffer, uint32_t bytes,
                                       uint32_t* filter_bytes, uint32_t* burst_bytes, uint32_t* payload_bytes);

/// Consumes one captured chunk: 0 when it was burst data, -1 when no burst was recognised in it.
int32_t dolby_disassemble_iec61937(dolby_info_t* info, const void* buffer, uint32_t bytes);

/// Feeds one stretch of payload to the decoder, rebuilding it first when the format changed.
int32_t dolby_send_stream(dolby_info_t* info, const void* data, uint32_t size, dolby_iec61937_format_e new_format);

void dolby_format_changed(dolby_info_t* info, dolby_iec61937_format_e new_format);
void dolby_pack_pcm_frame(dolby_info_t* info, hdmi_player_audio_frame_t* frame);
void dolby_dump(dolby_info_t* info, dolby_dump_e type, const void* data, uint32_t size);
adecoder_format_t dolby_trans_format(dolby_iec61937_format_e format);
adecoder_channel_t dolby_trans_channels(int32_t channels);
