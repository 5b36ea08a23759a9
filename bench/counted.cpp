// SPDX-License-Identifier: MIT
// Takes the paths of every block and every frame, for scripts/count-instructions to count what each costs. A stage runs
// on its own thread; what it waits for is there before it looks, so that no path depends on the machine's speed.
#include <gnu/libc-version.h>
#include <semaphore.h>
#include <sys/utsname.h>
#include <valgrind/callgrind.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

#include "internal/audio_input.h"
#include "internal/audio_output.h"
#include "internal/common.h"
#include "internal/dolby.h"
#include "internal/frame_queue.h"
#include "internal/resample.h"
#include "internal/synchronizer.h"
#include "internal/video.h"
#include "platform_hooks.h"
#include "stereo.h"

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr int kChunkBytes = 3840;
constexpr int kRate = 48000;
/// Turns of a round: fewer than a queue holds, and a multiple of the 32 chunks after which bursts begin alike.
constexpr int kTurns = 96;
/// For the small queues: that of decoded sound and that of pictures.
constexpr int kFewTurns = 8;

// --- Counting -------------------------------------------------------------------

class Signal
{
public:
    Signal() { sem_init(&semaphore_, 0, 0); }
    void give() { sem_post(&semaphore_); }
    void await()
    {
        while (sem_wait(&semaphore_) != 0) {
        }
    }

private:
    sem_t semaphore_;
};

/// What was counted since the path before goes into a file of its own, with the turns and the name in its description.
void report(const char* path, int turns)
{
    char text[128];
    snprintf(text, sizeof(text), "%d %s", turns, path);
    CALLGRIND_DUMP_STATS_AT(text);
}

/// Counts @p turn, a path of this thread.
template <typename Turn> void count(const char* path, int turns, Turn turn)
{
    for (int i = 0; i < turns; ++i)
        turn();
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < turns; ++i)
        turn();
    CALLGRIND_TOGGLE_COLLECT;
    report(path, turns);
}

/// Counts a path that a stage's thread takes again and again. The thread waits here between two rounds.
class Turns
{
public:
    explicit Turns(int turns) : turns_(turns) {}

    /// From the stage's thread, at the begin of each turn. False, at once, after end().
    bool next()
    {
        if (ended_)
            return false;
        if (left_-- > 0)
            return true;
        if (counting_)
            CALLGRIND_TOGGLE_COLLECT;
        done_.give();
        begin_.await();
        left_ = turns_ - 1;
        if (counting_)
            CALLGRIND_TOGGLE_COLLECT;
        return !ended_;
    }

    /// Waits until the thread is here for the first time.
    void await() { done_.await(); }
    void round(bool counting)
    {
        counting_ = counting;
        begin_.give();
        done_.await();
        counting_ = false;
    }
    void end()
    {
        ended_ = true;
        begin_.give();
    }
    int count() const { return turns_; }

private:
    const int turns_;
    int left_ = 0; ///< the stage's thread's
    bool counting_ = false;
    std::atomic<bool> ended_{false};
    Signal begin_, done_;
};

/// One round in which pools grow, and one that counts. @p prepare and @p clear run before and after each.
template <typename Prepare, typename Clear> void count(const char* path, Turns& turns, Prepare prepare, Clear clear)
{
    for (const bool counting : {false, true}) {
        prepare();
        turns.round(counting);
        clear();
    }
    report(path, turns.count());
}

void nothing() {}

hdmi_player_audio_frame_t block_of(Bytes& bytes, int rate)
{
    hdmi_player_audio_frame_t block = {};
    block.data = bytes.data();
    block.size = block.buf_size = static_cast<int32_t>(bytes.size());
    block.sample_rate = rate;
    block.channels = 2;
    block.pts = 1;
    return block;
}

// --- Foundation -----------------------------------------------------------------

void count_foundation()
{
    count("message that is not printed", kTurns, [] { log_as("count_foundation", LOG_LEVEL_D, "pts:%d\n", 1); });
    const int32_t id = frame_queue_init(FRAME_QUEUE_POOL_MAX, "counted");
    count("queue, 4 calls", kTurns, [id] {
        frame_queue_done_enqueue(id, frame_queue_pool_acquire(id, kChunkBytes));
        frame_queue_put(id, &frame_queue_done_dequeue(id, 0)->frame);
    });
    frame_queue_deinit(id);
}

// --- Capture --------------------------------------------------------------------

void empty(int32_t queue)
{
    while (frame_queue_get_done_counts(queue) > 0)
        frame_queue_put(queue, &frame_queue_done_dequeue(queue, 0)->frame);
}

void count_capture(const char* path, audio_input_format_e format)
{
    Turns turns(kTurns);
    g_hooks.read = [&turns](audio_config_t*, uint8_t*, int size) { return turns.next() ? size : -1; };
    audio_input_init({[](hdmi_player_event_e) {}, [](bool, bool*) {}});
    g_ai_info.original_sample_rate = kRate;
    g_ai_info.format = format;
    turns.await();
    count(path, turns, nothing, [] {
        empty(g_ai_info.pcm_frame_queue);
        empty(g_ai_info.iec61937_queue);
    });
    g_ai_info.abort_request = true; // the read that ends next did not fail
    turns.end();
    audio_input_deinit();
    g_hooks = {};
}

// --- Resampler ------------------------------------------------------------------

Turns* g_source; ///< of the resampler's and of the demultiplexer's thread
hdmi_player_audio_frame_t g_block;

hdmi_player_audio_frame_t* give_block(int32_t) { return g_source->next() ? &g_block : nullptr; }
int32_t take_block_back(hdmi_player_audio_frame_t*) { return 0; }

void count_resampler(const char* path, int rate)
{
    Turns turns(kTurns);
    Bytes sound(static_cast<size_t>(convert_sample_rate_to_frames(rate)) * 4, 3);
    g_source = &turns;
    g_block = block_of(sound, rate);
    resample_config_t config = {};
    config.src_param = stereo(rate);
    config.tgt_param = stereo(kRate);
    config.input_queue_dequeue_cb = give_block;
    config.input_queue_put_cb = take_block_back;
    audio_resample_init(config);
    turns.await();
    const auto take = [] {
        hdmi_player_audio_frame_t* block = nullptr;
        if (audio_resample_get_pcm_frame(&block, 0) == 0)
            audio_resample_put_pcm_frame(block);
    };
    count(path, turns, nothing, [take] {
        for (int i = 0; i < kTurns; ++i)
            take();
    });
    turns.end();
    audio_resample_deinit();
}

// --- Compressed sound -----------------------------------------------------------

dolby_config_t decoding(hdmi_player_audio_frame_t* (*source)(int32_t))
{
    static int decoder;
    g_hooks.decoder_init = [](adecoder_format_t, adecoder_channel_t, bool) {
        return reinterpret_cast<adecoder_handle_t*>(&decoder);
    };
    dolby_config_t config = {};
    config.event_cb = [](hdmi_player_event_e) {};
    config.format_changed_cb = [](bool, bool*) {};
    config.input_queue_dequeue_cb = source;
    config.input_queue_put_cb = take_block_back;
    config.input_queue_wakeup_cb = nothing;
    return config;
}

Bytes bursts(dolby_iec61937_format_e format)
{
    const burst_type* const type = burst_find_type(format);
    const auto payload = static_cast<uint16_t>(768 * type->pd_units_per_byte); // of 192 kb/s
    const uint8_t preamble[] = {0x72,
                                0xF8,
                                0x1F,
                                0x4E,
                                static_cast<uint8_t>(format),
                                0,
                                static_cast<uint8_t>(payload),
                                static_cast<uint8_t>(payload >> 8)};
    Bytes stream(static_cast<size_t>(kTurns) * kChunkBytes);
    for (size_t at = 0; at < stream.size(); at += type->burst_bytes) {
        std::fill_n(stream.begin() + static_cast<ptrdiff_t>(at), 776, uint8_t{0x55});
        memcpy(&stream[at], preamble, sizeof(preamble));
    }
    return stream;
}

Bytes g_stream;
size_t g_stream_at;

hdmi_player_audio_frame_t* give_chunk(int32_t)
{
    if (!g_source->next())
        return nullptr;
    g_block.data = &g_stream[g_stream_at];
    g_stream_at = (g_stream_at + kChunkBytes) % g_stream.size();
    return &g_block;
}

// The decoder takes all and gives nothing.
void count_demultiplexer(const char* path, dolby_iec61937_format_e format, dolby_strategy_e strategy)
{
    Turns turns(kTurns);
    g_source = &turns;
    g_stream = bursts(format);
    g_stream_at = 0;
    g_block = block_of(g_stream, kRate);
    g_block.size = kChunkBytes;
    dolby_init(decoding(give_chunk));
    turns.await();
    dolby_set_strategy(strategy);
    // Without a free frame the decode thread sleeps.
    std::vector<frame_info_t*> taken;
    for (int i = 0; i < 32; ++i)
        taken.push_back(frame_queue_pool_acquire(g_dolby_info.output_pcm_queue, kChunkBytes));
    count(path, turns, nothing, nothing);
    g_dolby_info.abort_request = true;
    turns.end();
    dolby_deinit();
    g_hooks = {};
}

void count_decoder()
{
    constexpr int kFrameBytes = 6144;
    Turns turns(kFewTurns);
    static Signal ended;
    g_hooks.decoder_read = [&turns](adecoder_handle_t*, void*, int32_t) { return turns.next() ? kFrameBytes : 0; };
    dolby_config_t config = decoding([](int32_t) -> hdmi_player_audio_frame_t* {
        ended.await();
        return nullptr;
    });
    config.output_buffer_size = 7680;
    dolby_init(config);
    dolby_set_strategy(DOLBY_STRATEGY_DECODE);
    dolby_format_changed(&g_dolby_info, DOLBY_IEC61937_FORMAT_AC3);
    turns.await();
    count("decoded block", turns, nothing, [] { empty(g_dolby_info.output_pcm_queue); });
    g_dolby_info.abort_request = true;
    ended.give();
    turns.end();
    dolby_deinit();
    g_hooks = {};
}

// --- Output ---------------------------------------------------------------------

void* g_synchronizer;

void count_output()
{
    Turns turns(kTurns);
    Bytes sound(kChunkBytes, 3);
    hdmi_player_audio_frame_t block = block_of(sound, kRate);
    g_synchronizer = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    g_hooks.write = [&turns](audio_config_t*, const uint8_t*, int size) { return turns.next() ? size : -1; };
    audio_output_config_t config = {};
    config.volume = config.hw_volume = -1;
    config.dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.format = E_HDMI_PLAYER_AO_FORMAT_PCM;
    config.sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.update_avsync_clock_cb = [](int64_t time, int64_t most, int32_t) {
        synchronizer_set_base_media_time(g_synchronizer, time, most);
    };
    config.changed_cb = [](bool, bool*) {};
    audio_output_init(config);
    audio_output_write_pcm_frame(&block);
    turns.await();
    const auto write = [&block] {
        for (int i = 0; i < kTurns; ++i)
            audio_output_write_pcm_frame(&block);
    };
    count("block to the output, its clock", turns, write, nothing);
    CALLGRIND_TOGGLE_COLLECT;
    write();
    CALLGRIND_TOGGLE_COLLECT;
    report("block written by the host", kTurns);
    g_ao_info.abort_request = true;
    turns.end();
    audio_output_deinit();
    synchronizer_deinit(g_synchronizer);
    g_hooks = {};
}

// --- Pictures -------------------------------------------------------------------

// Every other look finds a second frame: the late check of the step is another path.
bool one_frame(void*, int32_t* count)
{
    static int32_t looks = 0;
    return *count = ++looks % 2, true;
}
// All of one time, which has come.
bool due_frame(void*, synchronizer_frame_info_t* frame) { return frame->pts = 1, true; }
bool ignore(void*, synchronizer_frame_info_t*) { return true; }

void count_shown_frames()
{
    static synchronizer_callback_t callback = {one_frame, due_frame, due_frame, ignore, ignore};
    void* const handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    synchronizer_set_callback(handle, handle, &callback);
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER);
    synchronizer_set_sync_state(handle, E_SYNC_STATE_START);
    synchronizer_set_drm_info(handle, {0, 60.0F});
    synchronizer_set_base_media_time(handle, 1, 1);
    int64_t vblank = 1;
    on_Oru_sync_logic(handle);
    count("frame shown by the audio clock", kFewTurns, [handle, &vblank] {
        synchronizer_notify_vblank(handle, vblank++);
        on_Oru_sync_logic(handle);
    });
    synchronizer_deinit(handle);
}

Signal g_flipping, g_flip_ends;

// The sync thread stays in the flip of the first frame.
void count_rendered_frames()
{
    video_config_t config = {};
    config.video_frame_queue_size = 4 * kFewTurns;
    config.video_frame_drop_cb = [](hdmi_player_video_frame_t) {};
    config.video_frame_flip_cb = [](hdmi_player_video_frame_t) {
        g_flipping.give();
        g_flip_ends.await();
    };
    config.event_cb = [](hdmi_player_event_e) {};
    config.notify_audio_reset_cb = nothing;
    config.ai_read_continued_cb = [] { return true; };
    video_init(config);
    hdmi_player_video_frame_t frame = {&frame, 0};
    video_render(&frame); // begins a reset
    video_set_base_media_time(1, 1, 1);
    video_render(&frame); // ends it
    g_flipping.await();
    count("frame rendered", kFewTurns, [&frame] { video_render(&frame); });
    for (int i = 0; i < 4 * kFewTurns; ++i)
        g_flip_ends.give();
    video_deinit();
}

} // namespace

int main()
{
    struct utsname machine = {};
    uname(&machine);
    printf("compiler %s, %s, glibc %s\n", __VERSION__, machine.machine, gnu_get_libc_version());
    fflush(stdout);
    count_foundation();
    count_capture("PCM chunk captured", AUDIO_INPUT_FORMAT_PCM);
    count_capture("compressed chunk captured", AUDIO_INPUT_FORMAT_COMP_IEC61937);
    count_resampler("PCM block passed on", kRate);
    count_resampler("PCM block resampled", 44100);
    count_demultiplexer("AC-3 chunk", DOLBY_IEC61937_FORMAT_AC3, DOLBY_STRATEGY_DECODE);
    count_demultiplexer("E-AC-3 chunk", DOLBY_IEC61937_FORMAT_EAC3, DOLBY_STRATEGY_DECODE);
    count_demultiplexer("RAW chunk", DOLBY_IEC61937_FORMAT_AC3, DOLBY_STRATEGY_HWBYPASS);
    count_decoder();
    count_output();
    count_rendered_frames();
    count_shown_frames();
    return 0;
}
