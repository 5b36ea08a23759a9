// SPDX-License-Identifier: MIT
// The decode pipeline on its threads: captured chunks with bursts, silence and breaks, and changes of serial, channels,
// rate and strategy between them.
//
// Input: for each chunk what is special about it, its length, and its bytes; a chunk of silence has none.
#include <condition_variable>
#include <deque>
#include <mutex>

#include "decoder_avcodec.h"
#include "input.h"
#include "internal/dolby.h"

namespace
{

enum Special : uint8_t { kBreak = 1, kNewSerial = 2, kSilence = 4, kChannels = 8, kRate = 16, kStrategy = 32 };

constexpr size_t kChunksMax = 256;
constexpr size_t kChunkBytesMax = 8192;

struct Chunk {
    std::vector<uint8_t> bytes;
    hdmi_player_audio_frame_t frame;
    bool changes_strategy;
};

/// The captured stream, as the demux thread takes it.
struct Source {
    std::mutex mutex;
    std::condition_variable woken;
    std::deque<Chunk> waiting;
    std::deque<Chunk> taken;
    size_t given_back = 0;
    bool wake = false;
};
Source* g_source;

hdmi_player_audio_frame_t* dequeue(int32_t timeout_ms)
{
    std::unique_lock lock(g_source->mutex);
    if (g_source->waiting.empty()) {
        g_source->woken.wait_for(lock, std::chrono::milliseconds(timeout_ms < 0 ? 100 : timeout_ms),
                                 [] { return g_source->wake; });
        g_source->wake = false;
        return nullptr;
    }
    g_source->taken.push_back(std::move(g_source->waiting.front()));
    g_source->waiting.pop_front();
    Chunk& chunk = g_source->taken.back();
    chunk.frame.data = chunk.bytes.data();
    lock.unlock();
    if (chunk.changes_strategy)
        dolby_set_strategy(dolby_get_strategy() == DOLBY_STRATEGY_DECODE ? DOLBY_STRATEGY_HWBYPASS
                                                                         : DOLBY_STRATEGY_DECODE);
    return &chunk.frame;
}

int32_t put(hdmi_player_audio_frame_t* frame)
{
    const std::lock_guard lock(g_source->mutex);
    require(frame == &g_source->taken.back().frame);
    ++g_source->given_back;
    return 0;
}

void wake_up()
{
    const std::lock_guard lock(g_source->mutex);
    g_source->wake = true;
    g_source->woken.notify_all();
}

std::deque<Chunk> read_chunks(Input input)
{
    std::deque<Chunk> chunks;
    hdmi_player_audio_frame_t next = {};
    next.channels = 2;
    next.sample_rate = 48000;
    while (!input.empty() && chunks.size() < kChunksMax) {
        const uint8_t special = input.byte();
        const size_t bytes = input.word() % (kChunkBytesMax + 1);
        next.serial += (special & kNewSerial) != 0 ? 1 : 0;
        next.pts = (special & kBreak) != 0 ? kStreamBreakPts : 0;
        next.channels = (special & kChannels) != 0 ? static_cast<int8_t>(input.byte()) : next.channels;
        next.sample_rate = (special & kRate) != 0 ? input.word() : next.sample_rate;
        Chunk chunk = {(special & kSilence) != 0 ? std::vector<uint8_t>(bytes) : input.take(bytes), next,
                       (special & kStrategy) != 0};
        chunk.frame.size = chunk.frame.buf_size = static_cast<int32_t>(chunk.bytes.size());
        chunks.push_back(std::move(chunk));
    }
    return chunks;
}

void take_output()
{
    hdmi_player_audio_frame_t* frame = nullptr;
    if (dolby_get_output_pcm_frame(&frame, 1) != 0)
        return;
    require(frame->data != nullptr && frame->size >= 0 && frame->size <= frame->buf_size); // empty: of an empty chunk
    require(frame->sample_rate > 0 && frame->pts >= 0);
    require(dolby_put_output_pcm_frame(frame) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    setenv("debug_hdmiplayer_log_level", "0", 1);
    decoder_avcodec::set_clock([]() -> int64_t { return 0; });
    Source source;
    g_source = &source;
    source.waiting = read_chunks(Input(data, size));
    const size_t chunks = source.waiting.size();
    dolby_config_t config = {};
    config.event_cb = [](hdmi_player_event_e event) { require(event == E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED); };
    config.format_changed_cb = [](bool, bool*) {};
    config.input_queue_dequeue_cb = dequeue;
    config.input_queue_put_cb = put;
    config.input_queue_wakeup_cb = wake_up;
    require(dolby_init(config) == 0);
    dolby_set_strategy(DOLBY_STRATEGY_DECODE);
    const auto all_given_back = [&] {
        const std::lock_guard lock(source.mutex);
        return source.given_back == chunks;
    };
    while (!all_given_back())
        take_output();
    require(dolby_deinit() == 0);
    return 0;
}
