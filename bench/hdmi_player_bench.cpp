// SPDX-License-Identifier: MIT
// The cost of the paths that run for every block of sound, every frame and every vertical blank.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "internal/common.h"
#include "internal/dolby.h"
#include "internal/frame_queue.h"
#include "internal/resample.h"
#include "internal/synchronizer.h"
#include "platform_hooks.h"
#include "stereo.h"

namespace
{

constexpr int kBytesPerFrame = 4;

// A message that is not printed: one look into the environment.
void suppressed_message(benchmark::State& state)
{
    for ([[maybe_unused]] auto _ : state)
        log_d("pts:%d\n", 1);
}
BENCHMARK(suppressed_message);

// One block through a queue: acquire, enqueue, dequeue, put.
void queue_hand_over(benchmark::State& state)
{
    const int32_t id = frame_queue_init(FRAME_QUEUE_POOL_MAX, "bench");
    for ([[maybe_unused]] auto _ : state) {
        frame_queue_done_enqueue(id, frame_queue_pool_acquire(id, 3840));
        frame_queue_put(id, &frame_queue_done_dequeue(id, 0)->frame);
    }
    frame_queue_deinit(id);
}
BENCHMARK(queue_hand_over);

// Source of the resample stage: the same block again and again, as fast as it is taken.
hdmi_player_audio_frame_t g_block;
hdmi_player_audio_frame_t* give_block(int32_t) { return &g_block; }
int32_t take_block_back(hdmi_player_audio_frame_t*) { return 0; }

// One period of 44.1 kHz or 48 kHz stereo to 48 kHz through the stage, its thread and its queue.
void resample_period(benchmark::State& state)
{
    const int rate = static_cast<int>(state.range(0));
    std::vector<uint8_t> sound(static_cast<size_t>(convert_sample_rate_to_frames(rate)) * kBytesPerFrame);
    g_block = {};
    g_block.data = sound.data();
    g_block.size = g_block.buf_size = static_cast<int32_t>(sound.size());
    g_block.sample_rate = rate;
    g_block.channels = 2;
    g_block.pts = 1;
    resample_config_t config = {};
    config.src_param = stereo(rate);
    config.tgt_param = stereo(48000);
    config.input_queue_dequeue_cb = give_block;
    config.input_queue_put_cb = take_block_back;
    audio_resample_init(config);
    for ([[maybe_unused]] auto _ : state) {
        hdmi_player_audio_frame_t* out = nullptr;
        if (audio_resample_get_pcm_frame(&out, 1000) == 0)
            audio_resample_put_pcm_frame(out);
    }
    audio_resample_deinit();
}
BENCHMARK(resample_period)->Arg(44100)->Arg(48000)->UseRealTime();

// One pacing step that finds its frame too early: what most wake-ups come to.
bool one_frame(void*, int32_t* count)
{
    *count = 1;
    return true;
}
bool early_frame(void*, synchronizer_frame_info_t* frame)
{
    static uint64_t pts = 0;
    frame->pts = pts += 16667;
    return true;
}
bool ignore(void*, synchronizer_frame_info_t*) { return true; }

void pacing_step(benchmark::State& state)
{
    static synchronizer_callback_t callback = {one_frame, early_frame, early_frame, ignore, ignore};
    void* handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    synchronizer_set_callback(handle, handle, &callback);
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    for ([[maybe_unused]] auto _ : state)
        on_Oru_sync_logic(handle);
    synchronizer_deinit(handle);
}
BENCHMARK(pacing_step);

void media_clock(benchmark::State& state)
{
    void* handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    synchronizer_set_base_media_time(handle, 1000000, 2000000);
    for ([[maybe_unused]] auto _ : state) {
        int64_t now = 0;
        synchronizer_get_current_media_time(handle, &now);
        benchmark::DoNotOptimize(now);
    }
    synchronizer_deinit(handle);
}
BENCHMARK(media_clock);

// The search for a preamble through a chunk without one: the dearest case, byte by byte.
void burst_search(benchmark::State& state)
{
    std::vector<uint8_t> chunk(3840, 0x55);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(burst_find_preamble({chunk.data(), static_cast<uint32_t>(chunk.size())}));
    }
}
BENCHMARK(burst_search);

} // namespace

BENCHMARK_MAIN();
