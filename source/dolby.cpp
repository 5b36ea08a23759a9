// SPDX-License-Identifier: MIT
#include "internal/dolby.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/common.h"

dolby_info_t g_dolby_info;

namespace
{

constexpr int32_t kOutputQueueFrames = 32;
/// Where the player names no size: a 48 kHz period of 16-bit stereo.
constexpr int32_t kDefaultOutputBytes = 960 * 4;
constexpr int32_t kDefaultSampleRate = 48000;
constexpr int32_t kDefaultChannels = 2;
constexpr int32_t kBytesPerSample = 2;
constexpr int32_t kDequeueTimeoutMs = 100;
constexpr int32_t kNoTimeout = -1;
/// How often a decoder that signals nothing is asked for output.
constexpr uint64_t kReadPollUs = 10000;
/// Pause after a source or a queue that refused at once, so that its thread does not spin.
constexpr useconds_t kRefusedPauseUs = 2000;
/// A decoder that takes no bytes is asked again so often, at this interval. Each of a burst's two spans may wait that
/// long. The demux thread still keeps up: a burst of AC-3 or E-AC-3 lasts at least 32 ms.
constexpr int kStalledWritesMax = 4;
constexpr useconds_t kStalledWritePauseUs = 1000;
constexpr size_t kDumpNameBytes = 256;

// Helpers log in the name of the operation that they are part of.
constexpr char kInit[] = "dolby_init";
constexpr char kDemux[] = "dolby_demux";
constexpr char kSearch[] = "dolby_disassemble_burst_preamble";
constexpr char kDisassemble[] = "dolby_disassemble_iec61937";
constexpr char kSend[] = "dolby_send_stream";

bool is_open() { return g_dolby_info.initialized; }

// burst_find_preamble() with the messages of every search.
burst_preamble find_preamble(byte_span bytes, const log_gate& gate)
{
    const burst_preamble found = burst_find_preamble(bytes);
    if (!found.examined)
        return found;
    if (found.synced)
        log_through(gate, kSearch, LOG_LEVEL_V, "[Pa Pb] found! filter_bytes(%d)\n", found.sync_offset());
    log_through(gate, kSearch, LOG_LEVEL_V, "Pc(%#x) found!  filter_bytes(%d)\n", found.pc, found.pc_offset);
    if (found.flagged())
        log_through(gate, kSearch, LOG_LEVEL_E,
                    "Pc error-flag indicating that the burst-payload may contain errors!\n");
    else
        log_through(gate, kSearch, LOG_LEVEL_V, "filter_bytes(%d) Pd(%d) found! data_typ(%d)\n", found.pd_offset(),
                    found.pd, found.format());
    return found;
}

void log_step(const burst_step& step, const log_gate& gate)
{
    if (step.kind == burst_step::HELD)
        return;
    const burst_preamble& preamble = step.preamble;
    const bool found = preamble.type != nullptr;
    if (!step.completes_held())
        log_through(gate, kDisassemble, LOG_LEVEL_V,
                    "need_process_bytes(%d) filter_bytes(%d) burst_bytes(%d) payload_bytes(%d)\n", step.need,
                    preamble.end(), preamble.burst_bytes(), preamble.payload_bytes());
    else if (found)
        log_through(
            gate, kDisassemble, LOG_LEVEL_V,
            "iec61937_header_size(%d) need_process_bytes(%d) filter_bytes(%d) burst_bytes(%d) payload_bytes(%d)\n",
            step.held, step.need, preamble.end(), preamble.burst_bytes(), preamble.payload_bytes());
    log_through(gate, kDisassemble, LOG_LEVEL_V, "[Pa Pb Pc Pd] %s\n", found ? "found!" : "not found!");
}

// 0 where the chunk was burst data so far, -1 where it was not, or the error of the send.
int32_t send_step(dolby_info_t* info, const burst_step& step)
{
    const byte_span& payload = step.payload;
    switch (step.kind) {
    case burst_step::WHOLE: return dolby_send_stream(info, payload.data, payload.bytes, step.preamble.format());
    case burst_step::STARTED:
        if (payload.data != nullptr)
            dolby_send_stream(info, payload.data, payload.bytes, step.preamble.format());
        if (step.preamble.payload_bytes() > step.preamble.room())
            log_as(kDisassemble, LOG_LEVEL_E, "payload_bytes(%d) cannot be greater than burst_bytes(%d)\n",
                   step.preamble.payload_bytes(), step.preamble.burst_bytes());
        return 0;
    default: return -1;
    }
}

const char* format_name(dolby_iec61937_format_e format)
{
    switch (format) {
    case DOLBY_IEC61937_FORMAT_UNSET: return "unset";
    case DOLBY_IEC61937_FORMAT_AC3: return "ac3";
    case DOLBY_IEC61937_FORMAT_DTS1:
    case DOLBY_IEC61937_FORMAT_DTS2:
    case DOLBY_IEC61937_FORMAT_DTS3: return "dts";
    case DOLBY_IEC61937_FORMAT_EAC3: return "eac3";
    default: return "unknown";
    }
}

bool is_decodable(dolby_iec61937_format_e format)
{
    return format == DOLBY_IEC61937_FORMAT_AC3 || format == DOLBY_IEC61937_FORMAT_EAC3;
}

bool is_dts(dolby_iec61937_format_e format)
{
    return format == DOLBY_IEC61937_FORMAT_DTS1 || format == DOLBY_IEC61937_FORMAT_DTS2 ||
           format == DOLBY_IEC61937_FORMAT_DTS3;
}

bool is_same_family(dolby_iec61937_format_e a, dolby_iec61937_format_e b)
{
    return a == b || (is_decodable(a) && is_decodable(b)) || (is_dts(a) && is_dts(b));
}

const char* dump_path(const dolby_info_t& info, dolby_dump_e type)
{
    switch (type) {
    case DOLBY_DUMP_IEC61937: return info.dump_path_iec61937;
    case DOLBY_DUMP_RAW: return info.dump_path_raw;
    case DOLBY_DUMP_PCM: return info.dump_path_pcm;
    default: return nullptr;
    }
}

bool is_silent(const uint8_t* data, uint32_t size)
{
    return size == 0 || (data[0] == 0 && memcmp(data, data + 1, size - 1) == 0);
}

// Frames were lost: the stream most likely goes on in the middle of a burst.
void begin_stream(dolby_info_t* info)
{
    static_cast<burst_state&>(*info) = {};
    const burst_type* type = is_decodable(info->format) ? burst_find_type(info->format) : nullptr;
    info->stuffing_bytes = type != nullptr ? type->burst_bytes : 0;
}

// A stream that begins in the middle of a burst begins with the stuffing of that burst: zeros, and less than a burst of
// them. Were they taken for a pause, the next burst would reopen the capture, which breaks the stream again.
bool is_stuffing(dolby_info_t* info, uint32_t size)
{
    const bool fits = size < info->stuffing_bytes;
    info->stuffing_bytes = fits ? info->stuffing_bytes - size : 0;
    return fits;
}

// For the demux thread, which needs no lock to read what it alone writes.
adecoder_handle_t* current_decoder(const dolby_info_t* info) NO_THREAD_SAFETY_ANALYSIS { return info->adecoder_handle; }

int32_t current_sample_rate(dolby_info_t* info)
{
    mutex_guard lock(info->decoder_mutex);
    const int32_t rate = info->adecoder_handle != nullptr ? adecoder_get_output_sample_rate(info->adecoder_handle)
                                                          : info->output_sample_rate.load();
    return rate > 0 ? rate : kDefaultSampleRate;
}

void signal_decode_thread(dolby_info_t* info)
{
    mutex_guard lock(info->decoder_mutex);
    pthread_cond_signal(&info->decoder_cond);
}

// A decoder that takes nothing is asked again for some milliseconds; what it does not take then is lost. A stall
// lasts until a span was taken to its end, and is reported once.
int32_t write_payload(dolby_info_t* info, adecoder_handle_t* decoder, byte_span left)
{
    const char* const name = format_name(info->format);
    int stalled_writes = 0;
    while (left.bytes > 0) {
        int32_t status = 0;
        const int32_t ret = adecoder_write(decoder, left.data, static_cast<int32_t>(left.bytes), 0, -1, &status);
        if (ret < 0) {
            log_as(kSend, LOG_LEVEL_E, "[%s] adecoder_write failed, left_bytes:%d ret:%d, status:0x%x\n", name,
                   left.bytes, ret, status);
            return -1;
        }
        stalled_writes = ret == 0 ? stalled_writes + 1 : 0;
        if (stalled_writes > kStalledWritesMax) {
            if (!info->decoder_stalled)
                log_as(kSend, LOG_LEVEL_W, "[%s] the decoder takes nothing, left_bytes:%d dropped, status:0x%x\n", name,
                       left.bytes, status);
            info->decoder_stalled = true;
            return -1;
        }
        left.skip(std::min(static_cast<uint32_t>(ret), left.bytes));
        if (status > 0 || info->async_mode)
            signal_decode_thread(info);
        else if (status < 0)
            log_as(kSend, LOG_LEVEL_W, "[%s] adecoder_write status:0x%x error do not send signal\n", name, status);
        if (info->enlog)
            log_as(kSend, LOG_LEVEL_I, "[%s] adecoder_write written:%d, left_bytes:%d, status:0x%x\n", name, ret,
                   left.bytes, status);
        if (ret == 0)
            usleep(kStalledWritePauseUs);
    }
    info->decoder_stalled = false;
    return 0;
}

// A wake-up ends one acquire only, which may be the decode thread's. That thread therefore repeats it after each of its
// acquires, as long as the demux thread still waits.
void release_demux_thread(dolby_info_t* info)
{
    if (info->demux_acquiring && info->strategy != DOLBY_STRATEGY_DECODE)
        frame_queue_pool_wakeup(info->output_pcm_queue);
}

// For the demux thread. Null also when decoding ends while the queue is full.
frame_info_t* acquire_silence_frame(dolby_info_t* info, int32_t size)
{
    info->demux_acquiring = true;
    // A change of strategy before the flag was set has woken nobody.
    frame_info_t* frame =
        info->strategy == DOLBY_STRATEGY_DECODE ? frame_queue_pool_acquire(info->output_pcm_queue, size) : nullptr;
    info->demux_acquiring = false;
    return frame;
}

void demux_chunk(dolby_info_t* info, hdmi_player_audio_frame_t* chunk)
{
    if (chunk->serial != info->frame_serial) {
        log_as(kDemux, LOG_LEVEL_I, "frame_serial changed: %d -> %d\n", info->frame_serial.load(), chunk->serial);
        info->wait_iec61937 = false;
        info->frame_serial = chunk->serial;
    }
    if (chunk->channels != info->output_channels) {
        log_as(kDemux, LOG_LEVEL_W, "channels: %d -> %d\n", info->output_channels.load(), chunk->channels);
        info->output_channels = chunk->channels;
        info->need_reinit_decoder = true;
    }
    if (chunk->sample_rate != info->output_sample_rate) {
        log_as(kDemux, LOG_LEVEL_W, "sample_rate: %d -> %d\n", info->output_sample_rate.load(), chunk->sample_rate);
        info->output_sample_rate = chunk->sample_rate;
    }
    if (info->enlog)
        log_as(kDemux, LOG_LEVEL_I, "IEC-61937 serial:%d pts:%lld size:%d channels:%d sample_rate:%d\n", chunk->serial,
               lli(chunk->pts), chunk->size, chunk->channels, chunk->sample_rate);

    const uint32_t size = chunk->data != nullptr && chunk->size > 0 ? static_cast<uint32_t>(chunk->size) : 0;
    dolby_dump(info, DOLBY_DUMP_IEC61937, chunk->data, size);
    if (chunk->pts == kStreamBreakPts)
        begin_stream(info);
    if (dolby_disassemble_iec61937(info, chunk->data, size) == 0) {
        info->stuffing_bytes = 0;
        return;
    }
    if (!is_silent(chunk->data, size) || is_stuffing(info, size))
        return;

    frame_info_t* silence = acquire_silence_frame(info, static_cast<int32_t>(size));
    if (silence == nullptr) {
        // That decoding ended is no failure.
        if (info->strategy == DOLBY_STRATEGY_DECODE && !info->abort_request)
            log_as(kDemux, LOG_LEVEL_E, "frame_queue_pool_acquire(size:%d) failed.\n", static_cast<int32_t>(size));
        return;
    }
    hdmi_player_audio_frame_t& frame = silence->frame;
    log_as(kDemux, LOG_LEVEL_D, "src data:%p buf_size:%d size:%d dts data:%p buf_size:%d size:%d\n",
           static_cast<void*>(chunk->data), chunk->buf_size, chunk->size, static_cast<void*>(frame.data),
           frame.buf_size, frame.size);
    std::copy_n(chunk->data, size, frame.data);
    frame.size = static_cast<int32_t>(size);
    dolby_dump(info, DOLBY_DUMP_PCM, frame.data, size);
    dolby_pack_pcm_frame(info, silence);
    info->wait_iec61937 = true;
}

// PCM comes another way: nothing is expected here, a chunk that comes all the same ends the wait, and so does a stop.
// With the log of the queue on, its time-outs go on showing.
int32_t dequeue_timeout(const dolby_info_t* info)
{
    return info->strategy == DOLBY_STRATEGY_PCM && log_level() < LOG_LEVEL_D ? kNoTimeout : kDequeueTimeoutMs;
}

// The next chunk; null when none came. A source that is not started yet answers at once: to ask it without a pause
// would be a busy loop.
hdmi_player_audio_frame_t* fetch_chunk(dolby_info_t* info, empty_answers& answers)
{
    hdmi_player_audio_frame_t* chunk = info->input_queue_dequeue_cb(dequeue_timeout(info));
    if (chunk != nullptr)
        answers.filled();
    else
        answers.empty();
    return chunk;
}

void* dolby_demux(void* arg)
{
    auto* info = static_cast<dolby_info_t*>(arg);
    set_thread_name("dolby_demux");
    log_i("thread_id: %llx\n", llu(pthread_self()));
    empty_answers answers(kRefusedPauseUs);
    while (!info->abort_request) {
        hdmi_player_audio_frame_t* chunk = fetch_chunk(info, answers);
        if (chunk == nullptr)
            continue;
        if (info->strategy == DOLBY_STRATEGY_DECODE)
            demux_chunk(info, chunk);
        else
            info->iec61937_burst_insufficient_bytes = 0;
        info->input_queue_put_cb(chunk);
    }
    log_i("exit\n");
    return nullptr;
}

void* dolby_decode(void* arg)
{
    auto* info = static_cast<dolby_info_t*>(arg);
    set_thread_name("dolby_decode");
    log_i("thread_id: %llx\n", llu(pthread_self()));
    const int32_t frame_size = info->output_acquire_size;
    frame_info_t* frame = nullptr;
    while (!info->abort_request) {
        if (frame == nullptr) {
            frame = frame_queue_pool_acquire(info->output_pcm_queue, frame_size);
            release_demux_thread(info);
            if (frame == nullptr && !info->abort_request) {
                // A wake-up that was meant for the demux thread, since decoding ended, is no failure.
                if (info->strategy == DOLBY_STRATEGY_DECODE)
                    log_e("frame_queue_pool_acquire(size:%d) failed.\n", frame_size);
                usleep(kRefusedPauseUs);
            }
            continue;
        }
        mutex_guard lock(info->decoder_mutex);
        if (info->adecoder_handle == nullptr) {
            frame_queue_put(info->output_pcm_queue, &frame->frame);
            frame = nullptr;
            while (info->adecoder_handle == nullptr && !info->abort_request)
                lock.wait(info->decoder_cond);
            continue;
        }
        memset(frame->frame.data, 0, static_cast<size_t>(frame_size));
        const int32_t size = adecoder_read(info->adecoder_handle, 0, 0, frame->frame.data, frame_size, 0);
        if (size <= 0) {
            log_v("[%s] adecoder_read size:%d\n", format_name(info->format), size);
            // Not a wait for a state: any wake reads again.
            if (!info->abort_request)
                lock.wait_until(info->decoder_cond, get_monotonic_timeout_us(kReadPollUs));
            continue;
        }
        lock.unlock();
        log_i("[%s] adecoder_read size:%d\n", format_name(info->format), size);
        frame->frame.size = std::min(size, frame_size);
        dolby_dump(info, DOLBY_DUMP_PCM, frame->frame.data, static_cast<uint32_t>(frame->frame.size));
        dolby_pack_pcm_frame(info, frame);
        frame = nullptr;
    }
    if (frame != nullptr)
        frame_queue_put(info->output_pcm_queue, &frame->frame);
    log_i("exit\n");
    return nullptr;
}

// Everything except api_rwlock, which the caller holds for writing, as after static initialisation.
void reset_record(dolby_info_t* info) NO_THREAD_SAFETY_ANALYSIS
{
    info->initialized = false;
    info->enlog = false;
    info->async_mode = false;
    info->abort_request = false;
    info->need_reinit_decoder = false;
    info->wait_iec61937 = false;
    info->strategy = DOLBY_STRATEGY_MAX;
    info->format = DOLBY_IEC61937_FORMAT_UNSET;
    static_cast<burst_state&>(*info) = {};
    info->output_sample_rate = 0;
    info->output_channels = 0;
    info->output_frames = 0;
    info->output_acquire_size = 0;
    info->output_pcm_queue = -1;
    info->frame_serial = -1;
    info->last_frame_serial = -1;
    info->stuffing_bytes = 0;
    info->decoder_stalled = false;
    info->adecoder_handle = nullptr;
    info->dump_path_iec61937 = nullptr;
    info->dump_path_raw = nullptr;
    info->dump_path_pcm = nullptr;
    info->tid_demux = 0;
    info->tid_decode = 0;
    info->event_cb = nullptr;
    info->format_changed_cb = nullptr;
    info->input_queue_dequeue_cb = nullptr;
    info->input_queue_put_cb = nullptr;
    info->input_queue_wakeup_cb = nullptr;
    info->demux_acquiring = false;
}

void set_up(dolby_info_t* info, const dolby_config_t& cfg)
{
    reset_record(info);
    info->output_acquire_size = cfg.output_buffer_size > 0 ? cfg.output_buffer_size : kDefaultOutputBytes;
    info->event_cb = cfg.event_cb;
    info->format_changed_cb = cfg.format_changed_cb;
    info->input_queue_dequeue_cb = cfg.input_queue_dequeue_cb;
    info->input_queue_put_cb = cfg.input_queue_put_cb;
    info->input_queue_wakeup_cb = cfg.input_queue_wakeup_cb;
    info->decoder_mutex.init();
    cond_init_monotonic(info->decoder_cond);
    info->internal_mutex.init();
}

// The output queue and both threads; whether all of them are there.
bool start_threads(dolby_info_t* info) REQUIRES(info->lifecycle_mutex)
{
    info->output_pcm_queue = frame_queue_init(kOutputQueueFrames, "DOLBY_OUT");
    if (info->output_pcm_queue < 0) {
        log_as(kInit, LOG_LEVEL_E, "frame_queue_init failed.\n");
        return false;
    }
    log_as(kInit, LOG_LEVEL_I, "output_pcm_queue id:%d.\n", info->output_pcm_queue);
    if (pthread_create(&info->tid_demux, nullptr, dolby_demux, info) != 0) {
        info->tid_demux = 0; // undefined after a failure
        log_as(kInit, LOG_LEVEL_E, "create dolby demux thread failed!\n");
        return false;
    }
    if (pthread_create(&info->tid_decode, nullptr, dolby_decode, info) != 0) {
        info->tid_decode = 0;
        log_as(kInit, LOG_LEVEL_E, "create dolby decode thread failed!\n");
        return false;
    }
    return true;
}

// Ends the threads that run, wherever they wait: on the input, on the decoder or on a full output queue. Their
// callbacks and the wake-up come back into modules: the caller holds no lock that those take.
void stop_threads(dolby_info_t* info) REQUIRES(info->lifecycle_mutex) EXCLUDES(info->api_rwlock)
{
    info->abort_request = true;
    if (info->output_pcm_queue >= 0)
        frame_queue_abort(info->output_pcm_queue);
    if (info->tid_demux != 0)
        info->input_queue_wakeup_cb();
    signal_decode_thread(info);
    if (info->tid_demux != 0)
        pthread_join(info->tid_demux, nullptr);
    if (info->tid_decode != 0)
        pthread_join(info->tid_decode, nullptr);
}

// Takes a record apart whose threads have ended. 0, or the decoder's error.
int32_t tear_down(dolby_info_t* info) NO_THREAD_SAFETY_ANALYSIS
{
    info->internal_mutex.destroy();
    info->decoder_mutex.destroy();
    pthread_cond_destroy(&info->decoder_cond);
    if (info->output_pcm_queue >= 0)
        frame_queue_deinit(info->output_pcm_queue);
    const int32_t ret = info->adecoder_handle != nullptr ? adecoder_deinit(info->adecoder_handle) : 0;
    free(info->dump_path_iec61937);
    free(info->dump_path_raw);
    free(info->dump_path_pcm);
    reset_record(info);
    return ret;
}

} // namespace

void* dolby_disassemble_burst_preamble(dolby_iec61937_format_e* format, void* buffer, uint32_t bytes,
                                       uint32_t* filter_bytes, uint32_t* burst_bytes, uint32_t* payload_bytes)
{
    *filter_bytes = 0;
    *burst_bytes = 0;
    *payload_bytes = 0;
    if (buffer == nullptr)
        return nullptr;
    auto* const data = static_cast<uint8_t*>(buffer);
    const burst_preamble found = find_preamble({data, bytes}, log_gate());
    *filter_bytes = found.end();
    *burst_bytes = found.burst_bytes();
    *payload_bytes = found.payload_bytes();
    if (found.examined && !found.flagged())
        *format = found.format();
    return found.type != nullptr ? data + found.end() : nullptr;
}

int32_t dolby_disassemble_iec61937(dolby_info_t* info, const void* buffer, uint32_t bytes)
{
    bytes = buffer != nullptr ? bytes : 0;
    byte_span chunk = {static_cast<const uint8_t*>(buffer), bytes};
    int32_t ret = 0;
    log_gate gate;
    for (;;) {
        log_through(gate, kDisassemble, LOG_LEVEL_V,
                    "burst_insufficient_bytes(%d) info->iec61937_payload_insufficient_bytes(%d)\n",
                    info->iec61937_burst_insufficient_bytes, info->iec61937_payload_insufficient_bytes);
        const bool owing = info->owes();
        const byte_span owed = burst_take_owed(info, &chunk);
        if (owed.bytes > 0) {
            ret = dolby_send_stream(info, owed.data, owed.bytes, info->format);
            gate.look_again();
        }
        if (ret != 0) {
            // The rest of this chunk is lost, and with it the place in the burst: search afresh.
            info->iec61937_burst_insufficient_bytes = 0;
            break;
        }
        // A chunk that ends inside a burst, or exactly with it, is burst data.
        if (chunk.bytes == 0 && (bytes > 0 || owing))
            break;
        const burst_step step =
            burst_take_next(info, &chunk, [&gate](byte_span span) { return find_preamble(span, gate); });
        log_step(step, gate);
        ret = send_step(info, step);
        if (step.payload.data != nullptr)
            gate.look_again();
        if (ret != 0 || step.kind != burst_step::WHOLE)
            break;
    }
    log_through(gate, kDisassemble, LOG_LEVEL_V, "bytes(%d) ret(%d)\n", bytes, ret);
    return ret;
}

int32_t dolby_send_stream(dolby_info_t* info, const void* data, uint32_t size, dolby_iec61937_format_e new_format)
{
    if (data == nullptr || size == 0) {
        log_e("[%s] invalid data:%p size:%d\n", format_name(info->format), data, size);
        return -1;
    }
    dolby_dump(info, DOLBY_DUMP_RAW, data, size);
    // Before the first burst there is nothing to rebuild, and nothing unsupported to report.
    if (new_format != info->format || (info->need_reinit_decoder && new_format != DOLBY_IEC61937_FORMAT_UNSET))
        dolby_format_changed(info, new_format);

    // Only this thread replaces the decoder, so it stays valid; writing must not keep the decode thread from reading.
    adecoder_handle_t* const decoder = current_decoder(info);
    if (decoder == nullptr)
        return 0;
    if (write_payload(info, decoder, {static_cast<const uint8_t*>(data), size}) != 0)
        return -1;
    if (info->wait_iec61937) {
        info->wait_iec61937 = false;
        info->format_changed_cb(true, nullptr);
    }
    return 0;
}

void dolby_format_changed(dolby_info_t* info, dolby_iec61937_format_e new_format)
{
    const dolby_iec61937_format_e old_format = info->format;
    const char* const name = format_name(new_format);
    const bool rebuild_only = new_format == old_format;
    const bool changed = !is_same_family(old_format, new_format);
    if (!rebuild_only)
        log_w("dolby format changed [%s -> %s]\n", format_name(old_format), name);

    bool supported = true;
    if (changed || rebuild_only) {
        mutex_guard lock(info->decoder_mutex);
        if (info->adecoder_handle != nullptr)
            adecoder_deinit(info->adecoder_handle);
        info->adecoder_handle = nullptr;
        info->decoder_stalled = false;
        if (is_decodable(new_format)) {
            const adecoder_format_t format = dolby_trans_format(new_format);
            const adecoder_channel_t num_channel = dolby_trans_channels(info->output_channels);
            info->adecoder_handle = adecoder_init(format, 1, 0, num_channel, 0, info->async_mode);
            if (info->adecoder_handle == nullptr)
                log_e("[%s] adecoder_init failed. format:%d num_channel:%d\n", name, format, num_channel);
            else
                log_i("[%s] dolby init success. format:%d num_channel:%d\n", name, format, num_channel);
        }
        supported = info->adecoder_handle != nullptr;
    }
    // The callbacks reach into the player and the host: no mutex is held here.
    if (!supported) {
        info->event_cb(E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED);
        log_w("dolby format [%s] not supported\n", name);
    }
    info->format = new_format;
    if (changed) {
        info->format_changed_cb(info->wait_iec61937, nullptr);
        info->wait_iec61937 = false;
    }
    info->need_reinit_decoder = false;
    signal_decode_thread(info);
}

void dolby_pack_pcm_frame(dolby_info_t* info, frame_info_t* frame)
{
    if (info == nullptr) {
        log_e("info is null.\n");
        return;
    }
    const int32_t sample_rate = current_sample_rate(info);
    const int32_t channels = info->output_channels;
    // Held to the end: both threads queue, and time stamps must ascend in the queue.
    mutex_guard lock(info->internal_mutex);
    const int32_t serial = info->frame_serial;
    if (serial != info->last_frame_serial) {
        log_i("[flush] done, frame_serial:%d -> %d\n", info->last_frame_serial, serial);
        info->last_frame_serial = serial;
        info->output_frames = 0;
        frame_queue_done_release(info->output_pcm_queue);
    }
    frame->frame.serial = serial;
    frame->frame.channels = channels;
    frame->frame.sample_rate = sample_rate;
    frame->frame.pts = info->output_frames * 1000000 / sample_rate;
    info->output_frames += frame->frame.size / kBytesPerSample / (channels > 0 ? channels : kDefaultChannels);
    log_d("serial:%d output_frames:%lld frame_pts:%lld sample_rate:%d\n", serial, lli(info->output_frames),
          lli(frame->frame.pts), sample_rate);
    frame_queue_done_enqueue(info->output_pcm_queue, frame);
}

void dolby_dump(dolby_info_t* info, dolby_dump_e type, const void* data, uint32_t size)
{
    const char* const path = dump_path(*info, type);
    if (path == nullptr || data == nullptr || size == 0)
        return;
    char name[kDumpNameBytes] = {};
    int length = 0;
    if (type == DOLBY_DUMP_IEC61937)
        length = snprintf(name, sizeof(name), "%s/dump_dolby_iec61937.raw", path);
    else if (type == DOLBY_DUMP_RAW)
        length = snprintf(name, sizeof(name), "%s/dump_dolby_decode_in.%s", path, format_name(info->format));
    else
        length = snprintf(name, sizeof(name), "%s/dump_dolby_decode_out_ch%d_rate_%d.pcm", path,
                          info->output_channels.load(), info->output_sample_rate.load());

    const bool fits = length > 0 && static_cast<size_t>(length) < sizeof(name);
    FILE* const file = fits ? fopen(name, "a+e") : nullptr;
    if (file == nullptr) {
        log_e("fopen %s fail\n", name);
        return;
    }
    // One write for each block: both threads append to the PCM dump.
    setvbuf(file, nullptr, _IONBF, 0);
    fwrite(data, size, 1, file);
    fclose(file);
}

adecoder_format_t dolby_trans_format(dolby_iec61937_format_e format)
{
    switch (format) {
    case DOLBY_IEC61937_FORMAT_AC3: return ADECODER_FORMAT_AC3;
    case DOLBY_IEC61937_FORMAT_EAC3: return ADECODER_FORMAT_EAC3;
    default: log_w("%s invalid format:%d - %s\n", __func__, format, format_name(format)); return ADECODER_FORMAT_AC3;
    }
}

adecoder_channel_t dolby_trans_channels(int32_t channels)
{
    if (channels < 1 || channels > ADECODER_CHANNEL_MAX)
        return ADECODER_CHANNEL_STEREO;
    return static_cast<adecoder_channel_t>(channels - 1);
}

int32_t dolby_init(dolby_config_t cfg)
{
    if (cfg.event_cb == nullptr || cfg.format_changed_cb == nullptr || cfg.input_queue_dequeue_cb == nullptr ||
        cfg.input_queue_put_cb == nullptr || cfg.input_queue_wakeup_cb == nullptr) {
        log_e("invalid callback function\n");
        return -1;
    }
    dolby_info_t* const info = &g_dolby_info;
    mutex_guard lifecycle(info->lifecycle_mutex);
    // Before the write_guard, which would wait for a consumer that is blocked in the open module and would make it
    // refuse every call meanwhile.
    if (info->initialized) {
        log_w("module has been initialized\n");
        return -1;
    }
    write_guard lock(info->api_rwlock);
    set_up(info, cfg);
    if (!start_threads(info)) {
        lock.unlock();
        stop_threads(info);
        write_guard again(info->api_rwlock);
        tear_down(info);
        log_i("dolby init failed\n");
        return -1;
    }
    info->initialized = true;
    // The threads look at these only after the strategy was set, which publishes them.
    info->dump_path_iec61937 = env_get_string("debug_hdmiplayer_dolby_dumppath_iec61937");
    info->dump_path_raw = env_get_string("debug_hdmiplayer_dolby_dumppath_in");
    info->dump_path_pcm = env_get_string("debug_hdmiplayer_dolby_dumppath_out");
    info->enlog = env_get_value("debug_hdmiplayer_dolby_log", 0) != 0;
    info->async_mode = env_get_value("debug_hdmiplayer_dolby_async", 0) != 0;
    log_i("dolby init success\n");
    return 0;
}

int32_t dolby_deinit(void)
{
    dolby_info_t* const info = &g_dolby_info;
    mutex_guard lifecycle(info->lifecycle_mutex);
    {
        const entry_guard api(info->api_rwlock, is_open);
        if (!api)
            return -1;
    }
    stop_threads(info);
    write_guard lock(info->api_rwlock);
    if (tear_down(info) != 0)
        log_e("adecoder_deinit failedt\n");
    return 0;
}

dolby_strategy_e dolby_get_strategy(void)
{
    const entry_guard api(g_dolby_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return DOLBY_STRATEGY_PCM;
    return g_dolby_info.strategy;
}

int32_t dolby_set_strategy(dolby_strategy_e strategy)
{
    const entry_guard api(g_dolby_info.api_rwlock, is_open);
    if (!api)
        return -1;
    g_dolby_info.strategy = strategy;
    release_demux_thread(&g_dolby_info);
    // From now on sound comes from elsewhere. A consumer that went on waiting here, at open for a tenth of a second,
    // would take the first block late, and the sound would stay that much later.
    if (strategy == DOLBY_STRATEGY_PCM)
        frame_queue_done_wakeup(g_dolby_info.output_pcm_queue);
    return 0;
}

const char* dolby_strategy_name(dolby_strategy_e strategy)
{
    switch (strategy) {
    case DOLBY_STRATEGY_DECODE: return "decode";
    case DOLBY_STRATEGY_HWBYPASS: return "hwbypass";
    case DOLBY_STRATEGY_UNSUPPORTED: return "unsupported";
    default: return "unknown";
    }
}

bool dolby_format_support(void)
{
    const entry_guard api(g_dolby_info.api_rwlock, is_open);
    if (!api)
        return false;
    const dolby_iec61937_format_e format = g_dolby_info.format;
    return format == DOLBY_IEC61937_FORMAT_UNSET || is_decodable(format);
}

int32_t dolby_get_output_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms)
{
    if (frame == nullptr)
        return -1;
    const entry_guard api(g_dolby_info.api_rwlock, is_open);
    if (!api)
        return -1;
    frame_info_t* done = frame_queue_done_dequeue(g_dolby_info.output_pcm_queue, timeout_ms);
    if (done == nullptr) {
        log_d("frame_queue_done_dequeue failed.\n");
        return -1;
    }
    *frame = &done->frame;
    return 0;
}

int32_t dolby_put_output_pcm_frame(hdmi_player_audio_frame_t* frame)
{
    if (frame == nullptr)
        return -1;
    const entry_guard api(g_dolby_info.api_rwlock, is_open);
    if (!api)
        return -1;
    return frame_queue_put(g_dolby_info.output_pcm_queue, frame);
}
