// SPDX-License-Identifier: MIT
// What the paths of every block cost beside what they cannot go below, and beside what a user would take instead. The
// rows take turns, so that what disturbs the machine disturbs all. Prints a line "row;who;median;lowest;highest;ratio"
// each, in nanoseconds of processor time. The ratio is the player's time by this one, the median of those of the
// rounds: it is steadier than the times.
#include <glib.h>
#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "../stereo.h"
#include "coded_audio.h"
#include "internal/common.h"
#include "internal/dolby.h"
#include "internal/frame_queue.h"
#include "internal/resample.h"
#include "platform_hooks.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
}

namespace
{

constexpr int kRounds = 15;
constexpr int kChunkBytes = 3840;
constexpr int kOutputRate = 48000;

using Bytes = std::vector<uint8_t>;

int64_t cpu_ns(clockid_t clock) { return static_cast<int64_t>(system_time(clock)); }

/// ns of this thread for each of @p count calls.
template <typename Call> double per_call(int count, Call call)
{
    const int64_t begin = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < count; ++i)
        call();
    return static_cast<double>(cpu_ns(CLOCK_THREAD_CPUTIME_ID) - begin) / count;
}

template <typename T> void keep(const T& value) { asm volatile("" : : "g"(&value) : "memory"); }

// --- Queue --------------------------------------------------------------------

double queue_calls()
{
    const int32_t id = frame_queue_init(FRAME_QUEUE_POOL_MAX, "bench");
    const double ns = per_call(100000, [id] {
        frame_queue_done_enqueue(id, frame_queue_pool_acquire(id, kChunkBytes));
        frame_queue_put(id, &frame_queue_done_dequeue(id, 0)->frame);
    });
    frame_queue_deinit(id);
    return ns;
}

double lock_calls()
{
    static pthread_rwlock_t life = PTHREAD_RWLOCK_INITIALIZER;
    static pthread_mutex_t content = PTHREAD_MUTEX_INITIALIZER;
    return per_call(100000, [] {
        for (int i = 0; i < 4; ++i) {
            pthread_rwlock_rdlock(&life);
            pthread_mutex_lock(&content);
            pthread_mutex_unlock(&content);
            pthread_rwlock_unlock(&life);
        }
    });
}

double async_queue_calls()
{
    GAsyncQueue* const free_blocks = g_async_queue_new();
    GAsyncQueue* const filled = g_async_queue_new();
    int block = 0;
    g_async_queue_push(free_blocks, &block);
    const double ns = per_call(100000, [=] {
        g_async_queue_push(filled, g_async_queue_try_pop(free_blocks));
        g_async_queue_push(free_blocks, g_async_queue_try_pop(filled));
    });
    g_async_queue_unref(free_blocks);
    g_async_queue_unref(filled);
    return ns;
}

constexpr int kHandedOver = 20000;

/// ns of both threads for each block from @p produce to @p consume.
double two_threads(const std::function<void(const uint8_t*)>& produce, const std::function<void(uint8_t*)>& consume)
{
    const Bytes in(kChunkBytes, 1);
    Bytes out(kChunkBytes);
    const int64_t begin = cpu_ns(CLOCK_PROCESS_CPUTIME_ID);
    std::thread producer([&] {
        for (int i = 0; i < kHandedOver; ++i)
            produce(in.data());
    });
    for (int i = 0; i < kHandedOver; ++i)
        consume(out.data());
    producer.join();
    return static_cast<double>(cpu_ns(CLOCK_PROCESS_CPUTIME_ID) - begin) / kHandedOver;
}

double queue_two_threads()
{
    const int32_t id = frame_queue_init(FRAME_QUEUE_POOL_MAX, "bench");
    const double ns = two_threads(
        [id](const uint8_t* block) {
            frame_info_t* const record = frame_queue_pool_acquire(id, kChunkBytes);
            memcpy(record->frame.data, block, kChunkBytes);
            frame_queue_done_enqueue(id, record);
        },
        [id](uint8_t* block) {
            frame_info_t* const record = frame_queue_done_dequeue(id, -1);
            memcpy(block, record->frame.data, kChunkBytes);
            frame_queue_put(id, &record->frame);
        });
    frame_queue_deinit(id);
    return ns;
}

double async_queue_two_threads()
{
    GAsyncQueue* const free_blocks = g_async_queue_new();
    GAsyncQueue* const filled = g_async_queue_new();
    std::vector<Bytes> blocks(FRAME_QUEUE_POOL_MAX, Bytes(kChunkBytes));
    for (Bytes& block : blocks)
        g_async_queue_push(free_blocks, block.data());
    const double ns = two_threads(
        [=](const uint8_t* block) {
            void* const to = g_async_queue_pop(free_blocks);
            memcpy(to, block, kChunkBytes);
            g_async_queue_push(filled, to);
        },
        [=](uint8_t* block) {
            void* const from = g_async_queue_pop(filled);
            memcpy(block, from, kChunkBytes);
            g_async_queue_push(free_blocks, from);
        });
    g_async_queue_unref(free_blocks);
    g_async_queue_unref(filled);
    return ns;
}

// --- Resampler ----------------------------------------------------------------

constexpr int kBlocks = 100;                    ///< fewer than the stage's queue holds: it never waits
constexpr std::chrono::milliseconds kPause{10}; ///< of the stage, while there is no block

// The stage's own thread, for blocks that are all there, with nobody to wake: the source counts the blocks and the
// thread's time.
struct Source {
    hdmi_player_audio_frame_t block = {};
    std::atomic<int> left{0};
    int64_t begin_ns = 0;
    std::atomic<int64_t> spent_ns{0};
} g_source;

hdmi_player_audio_frame_t* give_block(int32_t)
{
    if (g_source.left > 0) {
        if (g_source.left-- == kBlocks)
            g_source.begin_ns = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
        return &g_source.block;
    }
    if (g_source.begin_ns != 0)
        g_source.spent_ns = cpu_ns(CLOCK_THREAD_CPUTIME_ID) - g_source.begin_ns;
    g_source.begin_ns = 0;
    return nullptr;
}

/// For each 960 frames of output.
double stage(int rate)
{
    Bytes sound(static_cast<size_t>(960 * rate / kOutputRate) * 4, 3);
    g_source.block.data = sound.data();
    g_source.block.size = g_source.block.buf_size = static_cast<int32_t>(sound.size());
    g_source.block.sample_rate = rate;
    g_source.block.channels = 2;
    g_source.block.pts = 1;
    resample_config_t config = {};
    config.src_param = stereo(rate);
    config.tgt_param = stereo(kOutputRate);
    config.input_queue_dequeue_cb = give_block;
    config.input_queue_put_cb = [](hdmi_player_audio_frame_t*) { return 0; };
    audio_resample_init(config);
    double ns = 0;
    for (int turn = 0; turn < 2; ++turn) { // in the first the pool grows
        g_source.spent_ns = 0;
        g_source.left = kBlocks;
        while (g_source.spent_ns == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ns = static_cast<double>(g_source.spent_ns) / kBlocks;
        for (int i = 0; i < kBlocks; ++i) {
            hdmi_player_audio_frame_t* frame = nullptr;
            if (audio_resample_get_pcm_frame(&frame, 0) == 0)
                audio_resample_put_pcm_frame(frame);
        }
    }
    audio_resample_deinit();
    return ns;
}

/// As many outputs as the stage's queue gives by turns: what is written to one does not find it in a near cache. One:
/// it does.
class Outputs
{
public:
    Outputs(int count, size_t bytes) : buffers_(static_cast<size_t>(count), Bytes(bytes)) {}
    uint8_t* next() { return buffers_[at_++ % buffers_.size()].data(); }

private:
    std::vector<Bytes> buffers_;
    size_t at_ = 0;
};

/// A stage finds its blocks after a pause, in which others have used the processor and its caches.
void before_turn(bool as_stage)
{
    if (as_stage)
        std::this_thread::sleep_for(kPause);
}

double converter_alone(bool as_stage)
{
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, 2);
    SwrContext* converter = nullptr;
    swr_alloc_set_opts2(&converter, &layout, AV_SAMPLE_FMT_S16, kOutputRate, &layout, AV_SAMPLE_FMT_S16, 44100, 0,
                        nullptr);
    swr_init(converter);
    const Bytes in(882 * 4, 3);
    Outputs out(as_stage ? kBlocks : 1, 1100 * 4);
    const uint8_t* from = in.data();
    double ns = 0;
    for (int turn = 0; turn < 2; ++turn) {
        before_turn(as_stage);
        ns = per_call(kBlocks, [&] {
            uint8_t* to = out.next();
            swr_convert(converter, &to, 1100, &from, 882);
        });
    }
    swr_free(&converter);
    return ns;
}

double copy_alone(bool as_stage)
{
    const Bytes in(kChunkBytes, 3);
    Outputs out(as_stage ? kBlocks : 1, kChunkBytes);
    double ns = 0;
    for (int turn = 0; turn < 2; ++turn) {
        before_turn(as_stage);
        ns = per_call(kBlocks, [&] {
            uint8_t* const to = out.next();
            memcpy(to, in.data(), kChunkBytes);
            keep(to[0]);
        });
    }
    return ns;
}

// --- Bursts -------------------------------------------------------------------

const Bytes& bursts(int kilobits)
{
    const auto make = [](int rate) {
        coded_audio::Format format;
        format.bit_rate = rate * 1000;
        return coded_audio::mux_bursts(format, coded_audio::encode(format, 100));
    };
    static const Bytes slow = make(192), fast = make(448);
    return kilobits == 192 ? slow : fast;
}

/// For each chunk, by the parser with its messages' guards, into no decoder.
double parse(int kilobits)
{
    const Bytes& stream = bursts(kilobits);
    static dolby_info_t info;
    info.event_cb = [](hdmi_player_event_e) {};
    info.format_changed_cb = [](bool, bool*) {};
    info.format = DOLBY_IEC61937_FORMAT_AC3;
    size_t at = 0;
    return per_call(20000, [&] {
        if (at + kChunkBytes > stream.size())
            at = 0;
        dolby_disassemble_iec61937(&info, stream.data() + at, kChunkBytes);
        at += kChunkBytes;
    });
}

struct Reader {
    const Bytes* stream;
    size_t at = 0;
    int left; ///< times that the stream is read
};

int read_bytes(void* opaque, uint8_t* to, int size)
{
    auto& reader = *static_cast<Reader*>(opaque);
    if (reader.at == reader.stream->size() && reader.left > 0) {
        reader.at = 0;
        --reader.left;
    }
    if (reader.left == 0)
        return AVERROR_EOF;
    const size_t count = std::min(static_cast<size_t>(size), reader.stream->size() - reader.at);
    memcpy(to, reader.stream->data() + reader.at, count);
    reader.at += count;
    return static_cast<int>(count);
}

double demux(int kilobits)
{
    Reader reader = {&bursts(kilobits), 0, 100};
    AVFormatContext* context = avformat_alloc_context();
    context->pb = avio_alloc_context(static_cast<uint8_t*>(av_malloc(kChunkBytes)), kChunkBytes, 0, &reader, read_bytes,
                                     nullptr, nullptr);
    if (avformat_open_input(&context, nullptr, av_find_input_format("spdif"), nullptr) < 0)
        return 0;
    AVPacket* const packet = av_packet_alloc();
    const int64_t begin = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
    while (av_read_frame(context, packet) >= 0)
        av_packet_unref(packet);
    const double ns = static_cast<double>(cpu_ns(CLOCK_THREAD_CPUTIME_ID) - begin);
    av_packet_free(const_cast<AVPacket**>(&packet));
    av_freep(&context->pb->buffer);
    avio_context_free(&context->pb);
    avformat_close_input(&context);
    return ns / (static_cast<double>(bursts(kilobits).size()) * 100 / kChunkBytes);
}

const Bytes& bytes_of(bool random)
{
    static const Bytes zeros(kChunkBytes);
    static const Bytes noise = [] {
        Bytes bytes(kChunkBytes);
        uint32_t seed = 1;
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>((seed = seed * 1664525 + 1013904223) >> 24);
        return bytes;
    }();
    return random ? noise : zeros;
}

double scan(bool random)
{
    const Bytes& bytes = bytes_of(random);
    return per_call(20000, [&] { keep(burst_find_preamble({bytes.data(), kChunkBytes})); });
}

double scan_alone(bool random)
{
    const Bytes& bytes = bytes_of(random);
    return per_call(20000, [&] {
        // All of them, as a search for more than one byte has to look at.
        const uint8_t* at = bytes.data();
        const uint8_t* const end = at + bytes.size();
        while (at < end &&
               (at = static_cast<const uint8_t*>(memchr(at, 0x72, static_cast<size_t>(end - at)))) != nullptr)
            ++at;
        keep(at);
    });
}

// --- Rounds -------------------------------------------------------------------

struct Row {
    std::string name;
    std::string who;
    std::function<double()> run;
    std::vector<double> ns = {};
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// The median of @p player's times by @p other's of the same rounds.
double median_ratio(const Row& player, const Row& other)
{
    std::vector<double> ratios;
    for (size_t round = 0; round < other.ns.size(); ++round)
        ratios.push_back(player.ns[round] / other.ns[round]);
    return median(ratios);
}

} // namespace

int main()
{
    setenv("debug_hdmiplayer_log_level", "0", 1);
    av_log_set_level(AV_LOG_QUIET);
    std::vector<Row> rows = {
        {"queue, 4 calls, one thread, no copy", "player", queue_calls},
        {"queue, 4 calls, one thread, no copy", "4 x (rdlock + mutex)", lock_calls},
        {"queue, 4 calls, one thread, no copy", "GAsyncQueue x 2", async_queue_calls},
        {"queue, two threads, 3840 B in and out", "player", queue_two_threads},
        {"queue, two threads, 3840 B in and out", "GAsyncQueue x 2", async_queue_two_threads},
        {"resample stage 44.1 -> 48 kHz, 960 frames", "player", [] { return stage(44100); }},
        {"resample stage 44.1 -> 48 kHz, 960 frames", "swr_convert alone", [] { return converter_alone(false); }},
        {"resample stage 44.1 -> 48 kHz, 960 frames", "swr_convert, outputs and pause as the stage",
         [] { return converter_alone(true); }},
        {"pass-through 48 -> 48 kHz, 960 frames", "player", [] { return stage(kOutputRate); }},
        {"pass-through 48 -> 48 kHz, 960 frames", "memcpy alone", [] { return copy_alone(false); }},
        {"pass-through 48 -> 48 kHz, 960 frames", "memcpy, outputs and pause as the stage",
         [] { return copy_alone(true); }},
        {"scan of zeros, 3840 B", "player", [] { return scan(false); }},
        {"scan of zeros, 3840 B", "memchr", [] { return scan_alone(false); }},
        {"scan of random bytes, 3840 B", "player", [] { return scan(true); }},
        {"scan of random bytes, 3840 B", "memchr", [] { return scan_alone(true); }},
    };
    for (const int kilobits : {192, 448}) {
        const std::string name = "bursts, AC-3 " + std::to_string(kilobits) + " kb/s, 3840 B";
        rows.push_back({name, "player", [kilobits] { return parse(kilobits); }});
        rows.push_back({name, "FFmpeg's demuxer", [kilobits] { return demux(kilobits); }});
    }
    for (int round = 0; round < kRounds; ++round)
        for (Row& row : rows)
            row.ns.push_back(row.run());
    const Row* player = nullptr; // the first row of each name
    for (const Row& row : rows) {
        player = player != nullptr && player->name == row.name ? player : &row;
        const auto [lowest, highest] = std::minmax_element(row.ns.begin(), row.ns.end());
        printf("%s;%s;%.0f;%.0f;%.0f;%.2f\n", row.name.c_str(), row.who.c_str(), median(row.ns), *lowest, *highest,
               median_ratio(*player, row));
    }
    return 0;
}
