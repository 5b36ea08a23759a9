// SPDX-License-Identifier: MIT
#include "internal/dolby.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "internal/common.h"
#include "platform_hooks.h"

namespace
{

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

constexpr auto kPatience = 10s;
constexpr uint32_t kPreamble = 8;
constexpr int32_t kChunk = 3840;

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

void append_words(Bytes& to, std::initializer_list<uint16_t> words)
{
    for (uint16_t word : words) {
        to.push_back(static_cast<uint8_t>(word & 0xFF));
        to.push_back(static_cast<uint8_t>(word >> 8));
    }
}

// A payload that names its bytes and holds neither zeros nor anything like a preamble.
Bytes make_payload(size_t bytes, uint8_t seed = 0)
{
    Bytes payload(bytes);
    for (size_t i = 0; i < bytes; ++i)
        payload[i] = static_cast<uint8_t>(0x80 | ((i + seed) * 7 & 0x7F));
    return payload;
}

Bytes make_burst(uint16_t pc, uint16_t pd, const Bytes& payload, size_t burst_bytes)
{
    Bytes burst;
    append_words(burst, {0xF872, 0x4E1F, pc, pd});
    append(burst, payload);
    burst.resize(burst_bytes);
    return burst;
}

Bytes ac3_burst(const Bytes& payload)
{
    return make_burst(1, static_cast<uint16_t>(payload.size() * 8), payload, 6144);
}
Bytes eac3_burst(const Bytes& payload) { return make_burst(21, static_cast<uint16_t>(payload.size()), payload, 24576); }
Bytes dts_burst() { return make_burst(11, 1000 * 8, make_payload(1000), 2048); }

template <typename Predicate> bool eventually(Predicate predicate)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A decoder that records what it is given and gives out what the test prepares.
struct FakeDecoder {
    std::mutex mutex;
    Bytes written;
    std::vector<uint32_t> writes;
    std::deque<Bytes> output;
    int32_t rate = 48000;
    int32_t accept = INT32_MAX; ///< bytes of each write; 0 or negative: the result
    int32_t status = 0;
    bool refuse_init = false;
    int inits = 0;
    int deinits = 0;
    int reads = 0;
    adecoder_format_t format = ADECODER_FORMAT_PCM;
    adecoder_channel_t channels = ADECODER_CHANNEL_MAX;
    bool async_mode = false;

    void install()
    {
        g_hooks = PlatformHooks();
        g_hooks.decoder_init = [this](adecoder_format_t new_format, adecoder_channel_t new_channels, bool async) {
            std::lock_guard<std::mutex> lock(mutex);
            format = new_format;
            channels = new_channels;
            async_mode = async;
            inits += refuse_init ? 0 : 1;
            return refuse_init ? nullptr : reinterpret_cast<adecoder_handle_t*>(this);
        };
        g_hooks.decoder_deinit = [this](adecoder_handle_t*) {
            std::lock_guard<std::mutex> lock(mutex);
            ++deinits;
            return 0;
        };
        g_hooks.decoder_write = [this](adecoder_handle_t*, const void* data, int32_t bytes, int32_t* out_status) {
            std::lock_guard<std::mutex> lock(mutex);
            *out_status = status;
            const int32_t taken = std::min(bytes, accept);
            if (taken > 0) {
                const auto* from = static_cast<const uint8_t*>(data);
                written.insert(written.end(), from, from + taken);
                writes.push_back(static_cast<uint32_t>(taken));
            }
            return taken;
        };
        g_hooks.decoder_read = [this](adecoder_handle_t*, void* buffer, int32_t size) {
            std::lock_guard<std::mutex> lock(mutex);
            ++reads;
            if (output.empty())
                return 0;
            const Bytes block = output.front();
            output.pop_front();
            const auto count = std::min(static_cast<int32_t>(block.size()), size);
            memcpy(buffer, block.data(), static_cast<size_t>(count));
            return count;
        };
        g_hooks.decoder_rate = [this](adecoder_handle_t*) {
            std::lock_guard<std::mutex> lock(mutex);
            return rate;
        };
    }

    template <typename Value> Value get(Value FakeDecoder::*field)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return this->*field;
    }
    template <typename Value> void set(Value FakeDecoder::*field, Value value)
    {
        std::lock_guard<std::mutex> lock(mutex);
        this->*field = value;
    }
    void decode_to(const Bytes& block)
    {
        std::lock_guard<std::mutex> lock(mutex);
        output.push_back(block);
    }
    size_t blocks_left()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return output.size();
    }
};

// The parser on a record of its own, without threads.
class BurstParser : public testing::Test
{
protected:
    void SetUp() override
    {
        decoder.install();
        info.event_cb = [](hdmi_player_event_e) {};
        info.format_changed_cb = [](bool, bool*) {};
        info.format = DOLBY_IEC61937_FORMAT_UNSET;
    }
    void TearDown() override { g_hooks = PlatformHooks(); }

    // From a copy of exactly its size, so that a sanitizer sees every step over its end.
    int32_t feed(const uint8_t* data, size_t bytes)
    {
        const std::unique_ptr<uint8_t[]> chunk(new uint8_t[bytes]);
        std::copy_n(data, bytes, chunk.get());
        return dolby_disassemble_iec61937(&info, chunk.get(), static_cast<uint32_t>(bytes));
    }
    int32_t feed(const Bytes& chunk) { return feed(chunk.data(), chunk.size()); }

    FakeDecoder decoder;
    dolby_info_t info;
};

struct Found {
    const void* payload;
    dolby_iec61937_format_e format;
    uint32_t filter_bytes, burst_bytes, payload_bytes;
};

Found search(Bytes bytes)
{
    Found found = {};
    found.payload = dolby_disassemble_burst_preamble(&found.format, bytes.data(), static_cast<uint32_t>(bytes.size()),
                                                     &found.filter_bytes, &found.burst_bytes, &found.payload_bytes);
    return found;
}

TEST(BurstPreamble, EachTypeHasItsUnitOfLengthAndItsPeriod)
{
    const struct {
        uint16_t pc;
        uint32_t burst_bytes, payload_bytes;
    } types[] = {{1, 6144, 1536}, {11, 2048, 1536}, {12, 4096, 1536}, {13, 8192, 1536}, {21, 24576, 12288 + 5}};
    for (const auto& type : types) {
        Bytes bytes = {0, 0, 0};
        append_words(bytes, {0xF872, 0x4E1F, type.pc, 12288 + 5});
        const Found found = search(bytes);
        ASSERT_NE(nullptr, found.payload) << type.pc;
        EXPECT_EQ(11u, found.filter_bytes);
        EXPECT_EQ(type.pc, found.format);
        EXPECT_EQ(type.burst_bytes, found.burst_bytes);
        EXPECT_EQ(type.payload_bytes, found.payload_bytes);
    }
}

TEST(BurstPreamble, OnlyTheErrorFlagAndTheSevenLowBitsOfPcCount)
{
    const auto payload_of = [](uint16_t pc) { return search(make_burst(pc, 800, make_payload(100), 108)).payload; };
    EXPECT_NE(nullptr, payload_of(0x0101));
    EXPECT_EQ(nullptr, payload_of(0x0021)) << "a type-dependent bit";
    EXPECT_EQ(nullptr, payload_of(0x0003)) << "a pause burst";
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, payload_of(0x0081));
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, log.find("[dolby_disassemble_burst_preamble"));
    EXPECT_NE(std::string::npos, log.find("Pc error-flag indicating that the burst-payload may contain errors!"));
}

TEST(BurstPreamble, WithoutSyncTheWordsSevenBytesBeforeTheEndAreTakenForPcAndPd)
{
    Bytes bytes(100);
    bytes[93] = 21;
    bytes[95] = 40;
    const Found found = search(bytes);
    ASSERT_NE(nullptr, found.payload);
    EXPECT_EQ(97u, found.filter_bytes);
    EXPECT_EQ(40u, found.payload_bytes);
    EXPECT_EQ(nullptr, search(Bytes(100)).payload);
    EXPECT_EQ(nullptr, search(Bytes(7)).payload);
}

TEST_F(BurstParser, PayloadOfAnUncutBurstIsSentAndItsStuffingSkipped)
{
    const Bytes payload = make_payload(1536);
    const Bytes burst = ac3_burst(payload);
    EXPECT_EQ(0, feed(burst.data(), kChunk));
    EXPECT_EQ(payload, decoder.written);
    EXPECT_EQ(2304u, info.iec61937_burst_insufficient_bytes);
    // The chunk ends exactly where the stuffing does: burst data to its last byte.
    EXPECT_EQ(0, feed(burst.data() + kChunk, 2304));
    EXPECT_EQ(0u, info.iec61937_burst_insufficient_bytes);
    EXPECT_EQ(1u, decoder.writes.size());
}

TEST_F(BurstParser, SeveralBurstsInOneChunkAreSentInTurn)
{
    Bytes chunk, expected;
    for (uint8_t i = 0; i < 3; ++i) {
        append(chunk, ac3_burst(make_payload(1000, i)));
        append(expected, make_payload(1000, i));
    }
    EXPECT_EQ(0, feed(chunk));
    EXPECT_EQ(expected, decoder.written);
    EXPECT_EQ(3u, decoder.writes.size());
    // The start of a fourth preamble is held back; so nothing is wrong, but the result is that of no burst.
    append(chunk, Bytes(chunk.begin(), chunk.begin() + 5));
    EXPECT_EQ(-1, feed(chunk));
    EXPECT_EQ(5, info.iec61937_header_size);
}

TEST_F(BurstParser, CutPreambleIsCompletedFromTheFollowingChunks)
{
    const Bytes payload = make_payload(1536);
    const Bytes burst = ac3_burst(payload);
    for (size_t cut = 1; cut < kPreamble; ++cut) {
        decoder.written.clear();
        EXPECT_EQ(-1, feed(burst.data(), cut));
        EXPECT_EQ(static_cast<int32_t>(cut), info.iec61937_header_size);
        EXPECT_EQ(0, feed(burst.data() + cut, burst.size() - cut));
        EXPECT_EQ(payload, decoder.written) << cut;
        EXPECT_EQ(0u, info.iec61937_burst_insufficient_bytes);
    }
    decoder.written.clear();
    for (size_t i = 0; i < kPreamble; ++i)
        EXPECT_EQ(i + 1 < kPreamble ? -1 : 0, feed(burst.data() + i, 1));
    EXPECT_EQ(0, feed(burst.data() + kPreamble, burst.size() - kPreamble));
    EXPECT_EQ(payload, decoder.written);
}

TEST_F(BurstParser, OnlyTheStartAndACompletingTailOfALongPayloadArrive)
{
    const Bytes payload = make_payload(10000);
    const Bytes burst = eac3_burst(payload);
    for (size_t at = 0; at < burst.size(); at += kChunk)
        EXPECT_EQ(0, feed(burst.data() + at, std::min<size_t>(kChunk, burst.size() - at))) << at;
    Bytes expected(payload.begin(), payload.begin() + kChunk - kPreamble);
    expected.insert(expected.end(), payload.begin() + 2 * kChunk - kPreamble, payload.end());
    EXPECT_EQ(expected, decoder.written);
    EXPECT_EQ(0u, info.iec61937_burst_insufficient_bytes);
}

TEST_F(BurstParser, NoBurstInAChunkAndNoChunkAreReported)
{
    EXPECT_EQ(-1, feed(Bytes(kChunk)));
    EXPECT_EQ(-1, feed(Bytes()));
    EXPECT_EQ(-1, dolby_disassemble_iec61937(&info, nullptr, kChunk));
    EXPECT_EQ(0, info.iec61937_header_size);
    info.iec61937_burst_insufficient_bytes = 4;
    EXPECT_EQ(0, feed(Bytes())) << "inside a burst an empty chunk is burst data";
    EXPECT_TRUE(decoder.written.empty());
}

TEST_F(BurstParser, PayloadLongerThanItsBurstIsClampedToTheChunk)
{
    // Sent through AC-3's decoder, which is open, by a type of the same shape.
    const Bytes burst = make_burst(1, 0xFFFF, make_payload(6136), 6144);
    EXPECT_EQ(0, feed(burst));
    EXPECT_EQ(6136u, decoder.written.size());
    EXPECT_EQ(8191u - 6136u, info.iec61937_payload_insufficient_bytes);
    EXPECT_EQ(0u, info.iec61937_burst_insufficient_bytes);

    info.iec61937_payload_insufficient_bytes = 0;
    decoder.written.clear();
    Bytes longer = burst;
    longer.push_back(0xAA);
    EXPECT_EQ(-1, feed(longer)) << "one byte of what follows is held";
    EXPECT_EQ(6137u, decoder.written.size());
    EXPECT_EQ(1, info.iec61937_header_size);
}

TEST_F(BurstParser, FalsePcAndPdInAHeldPreambleReadNothingBehindTheChunk)
{
    const uint8_t held[] = {0, 1, 0, 0xFF, 0xFF};
    const uint8_t rest[] = {9, 9, 9, 7, 7};
    EXPECT_EQ(-1, feed(held, sizeof(held)));
    EXPECT_EQ(0, feed(rest, sizeof(rest)));
    EXPECT_EQ(Bytes({7, 7}), decoder.written);
    EXPECT_EQ(8191u - 5, info.iec61937_payload_insufficient_bytes);
}

TEST_F(BurstParser, FailedSendEndsTheChunkAndTheNextGoodBurstIsFound)
{
    const Bytes payload = make_payload(4000);
    const Bytes burst = ac3_burst(payload);
    EXPECT_EQ(0, feed(burst.data(), 3000));
    decoder.accept = -5;
    EXPECT_EQ(-1, feed(burst.data() + 3000, burst.size() - 3000));
    decoder.accept = INT32_MAX;
    decoder.written.clear();
    EXPECT_EQ(0, feed(burst));
    EXPECT_EQ(payload, decoder.written);
}

TEST_F(BurstParser, DamagedStreamsOfAnyCutStayInsideTheChunk)
{
    std::mt19937 random(7);
    setenv("debug_hdmiplayer_log_level", "0", 1);
    for (int round = 0; round < 300; ++round) {
        Bytes stream;
        while (stream.size() < 60000) {
            const uint16_t pc = std::array<uint16_t, 7>{1, 11, 12, 13, 21, 0x81, 3}[random() % 7];
            append(stream,
                   make_burst(pc, static_cast<uint16_t>(random()), make_payload(random() % 2000), random() % 9000));
            append(stream, Bytes(random() % 3000));
        }
        for (size_t flips = random() % 200; flips > 0; --flips)
            stream[random() % stream.size()] ^= static_cast<uint8_t>(1u << random() % 8);
        const size_t most = 1 + (round % 2 == 0 ? random() % 16 : random() % 9000);
        for (size_t at = 0; at < stream.size();) {
            const size_t bytes = std::min<size_t>(1 + random() % most, stream.size() - at);
            feed(stream.data() + at, bytes);
            ASSERT_LT(info.iec61937_header_size, static_cast<int32_t>(kPreamble));
            at += bytes;
        }
        decoder.written.clear();
        decoder.writes.clear();
    }
    unsetenv("debug_hdmiplayer_log_level");
}

// The module with its threads, between a scripted input and the recording decoder.
class Source
{
public:
    void push(const Bytes& data, int32_t serial = 0, int32_t channels = 2, int32_t rate = 48000, int64_t pts = 0)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        chunks_.push_back({data, {}});
        Chunk& chunk = chunks_.back();
        chunk.frame.data = chunk.data.data();
        chunk.frame.size = chunk.frame.buf_size = static_cast<int32_t>(data.size());
        chunk.frame.channels = channels;
        chunk.frame.sample_rate = rate;
        chunk.frame.serial = serial;
        chunk.frame.pts = pts;
        ++pushed_;
        cond_.notify_all();
    }
    hdmi_player_audio_frame_t* dequeue(int32_t timeout_ms)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                       [this] { return woken_ || taken_ < chunks_.size(); });
        woken_ = false;
        return taken_ < chunks_.size() ? &chunks_[taken_++].frame : nullptr;
    }
    int32_t put()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++returned_;
        return 0;
    }
    void wake()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        woken_ = true;
        cond_.notify_all();
    }
    bool drained()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return returned_ == pushed_;
    }

private:
    struct Chunk {
        Bytes data;
        hdmi_player_audio_frame_t frame;
    };
    std::mutex mutex_;
    std::condition_variable cond_;
    std::deque<Chunk> chunks_;
    size_t taken_ = 0, pushed_ = 0, returned_ = 0;
    bool woken_ = false;
};

struct Calls {
    std::atomic<int> unsupported{0};
    std::atomic<int> changed{0};
    std::atomic<int> forced{0};
    std::atomic<int> under_lock{0};
};

std::unique_ptr<Source> g_source;
Calls* g_calls = nullptr;

void expect_no_lock_held()
{
    for (mutex_t* mutex : {&g_dolby_info.decoder_mutex, &g_dolby_info.internal_mutex}) {
        const struct timespec deadline = get_cond_timeout_ms(5000);
        if (pthread_mutex_timedlock(&mutex->native, &deadline) != 0)
            ++g_calls->under_lock;
        else
            pthread_mutex_unlock(&mutex->native);
    }
}

class DecodePipeline : public testing::Test
{
protected:
    void SetUp() override
    {
        decoder.install();
        g_source = std::make_unique<Source>();
        g_calls = &calls;
        config.event_cb = [](hdmi_player_event_e event) {
            expect_no_lock_held();
            g_calls->unsupported += event == E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED ? 1 : 0;
        };
        config.format_changed_cb = [](bool force, bool* restarted) {
            expect_no_lock_held();
            dolby_set_strategy(dolby_get_strategy());
            ++g_calls->changed;
            g_calls->forced += force ? 1 : 0;
            EXPECT_EQ(nullptr, restarted);
        };
        config.input_queue_dequeue_cb = [](int32_t timeout_ms) { return g_source->dequeue(timeout_ms); };
        config.input_queue_put_cb = [](hdmi_player_audio_frame_t*) { return g_source->put(); };
        config.input_queue_wakeup_cb = [] { g_source->wake(); };
        config.output_buffer_size = 960;
    }
    void TearDown() override
    {
        if (g_dolby_info.initialized) {
            EXPECT_EQ(0, dolby_deinit());
        }
        EXPECT_EQ(0, calls.under_lock);
        EXPECT_EQ(decoder.inits, decoder.deinits);
        g_hooks = PlatformHooks();
        g_source.reset();
    }

    void start()
    {
        ASSERT_EQ(0, dolby_init(config));
        ASSERT_EQ(0, dolby_set_strategy(DOLBY_STRATEGY_DECODE));
    }
    // Feeds a chunk and waits until the demux thread is done with it.
    template <typename... Args> void feed(Args... args)
    {
        g_source->push(args...);
        ASSERT_TRUE(eventually([] { return g_source->drained(); }));
    }
    hdmi_player_audio_frame_t* take(int32_t timeout_ms = 10000)
    {
        hdmi_player_audio_frame_t* frame = nullptr;
        EXPECT_EQ(0, dolby_get_output_pcm_frame(&frame, timeout_ms));
        return frame;
    }
    // Both threads wait for a frame of a full output queue.
    void block_both_threads()
    {
        feed(ac3_burst(make_payload(100)));
        for (int i = 0; i < 60; ++i)
            decoder.decode_to(make_payload(960));
        ASSERT_TRUE(eventually([] { return frame_queue_get_done_counts(g_dolby_info.output_pcm_queue) == 32; }));
        g_source->push(Bytes(960));
        ASSERT_TRUE(eventually([] { return g_dolby_info.demux_acquiring.load(); }));
        std::this_thread::sleep_for(20ms); // on its way into the wait; either way the test holds
    }

    FakeDecoder decoder;
    Calls calls;
    dolby_config_t config = {};
};

TEST_F(DecodePipeline, RefusesMissingCallbacksAndASecondInitAndAnEarlyDeinit)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, dolby_deinit());
    EXPECT_EQ(-1, dolby_set_strategy(DOLBY_STRATEGY_DECODE));
    EXPECT_EQ(DOLBY_STRATEGY_PCM, dolby_get_strategy());
    hdmi_player_audio_frame_t* frame = nullptr;
    EXPECT_EQ(-1, dolby_get_output_pcm_frame(&frame, 100));
    EXPECT_EQ(-1, dolby_put_output_pcm_frame(frame));
    dolby_config_t broken = config;
    broken.input_queue_wakeup_cb = nullptr;
    EXPECT_EQ(-1, dolby_init(broken));
    EXPECT_EQ(0, dolby_init(config));
    EXPECT_EQ(DOLBY_STRATEGY_MAX, dolby_get_strategy());
    EXPECT_TRUE(dolby_format_support());
    EXPECT_EQ(-1, dolby_init(config));
    EXPECT_EQ(0, dolby_deinit());
    EXPECT_EQ(0, dolby_init(config));
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, log.find("invalid callback function\n"));
    EXPECT_NE(std::string::npos, log.find("module has been initialized\n"));
    EXPECT_NE(std::string::npos, log.find("[dolby_deinit "));
}

TEST_F(DecodePipeline, FailedInitUndoesWhatItBuilt)
{
    std::vector<int32_t> queues;
    for (int32_t id = frame_queue_init(1, "test"); id >= 0; id = frame_queue_init(1, "test"))
        queues.push_back(id);
    EXPECT_EQ(-1, dolby_init(config));
    frame_queue_deinit(queues.back());
    queues.pop_back();

    pthread_attr_t usual, greedy;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual));
    pthread_attr_init(&greedy);
    pthread_attr_setstacksize(&greedy, size_t{1} << 46);
    ASSERT_EQ(0, pthread_setattr_default_np(&greedy));
    EXPECT_EQ(-1, dolby_init(config)) << "no thread can be started";
    pthread_setattr_default_np(&usual);
    EXPECT_EQ(0, dolby_init(config)) << "the queue of the failed attempt was freed";
    for (int32_t id : queues)
        frame_queue_deinit(id);
    pthread_attr_destroy(&greedy);
    pthread_attr_destroy(&usual);
}

TEST_F(DecodePipeline, StrategiesHaveNames)
{
    EXPECT_STREQ("decode", dolby_strategy_name(DOLBY_STRATEGY_DECODE));
    EXPECT_STREQ("hwbypass", dolby_strategy_name(DOLBY_STRATEGY_HWBYPASS));
    EXPECT_STREQ("unsupported", dolby_strategy_name(DOLBY_STRATEGY_UNSUPPORTED));
    EXPECT_STREQ("unknown", dolby_strategy_name(DOLBY_STRATEGY_PCM));
}

TEST_F(DecodePipeline, SilenceBeforeTheFirstBurstIsPlayedAndTheBurstThenForcesAReset)
{
    start();
    feed(Bytes(1920), 3, 2, 192000);
    feed(Bytes(1920), 3, 2, 192000);
    for (int64_t pts : {0, 2500}) {
        hdmi_player_audio_frame_t* frame = take();
        ASSERT_NE(nullptr, frame);
        EXPECT_EQ(Bytes(1920), Bytes(frame->data, frame->data + frame->size));
        EXPECT_EQ(3, frame->serial);
        EXPECT_EQ(2, frame->channels);
        EXPECT_EQ(192000, frame->sample_rate);
        EXPECT_EQ(pts, frame->pts);
        EXPECT_EQ(0, dolby_put_output_pcm_frame(frame));
    }
    feed(ac3_burst(make_payload(1536)), 3, 2, 192000);
    EXPECT_EQ(1, calls.changed);
    EXPECT_EQ(1, calls.forced);
    // Silence in a running stream: the burst that ends it forces a reset as well.
    feed(Bytes(1920), 3, 2, 192000);
    feed(ac3_burst(make_payload(1536)), 3, 2, 192000);
    EXPECT_EQ(2, calls.changed);
    EXPECT_EQ(2, calls.forced);
    feed(make_payload(100), 3, 2, 192000);
    EXPECT_EQ(2, calls.changed) << "noise is dropped";
    // A new serial is a reset already.
    feed(Bytes(1920), 3, 2, 192000);
    feed(ac3_burst(make_payload(1536)), 4, 2, 192000);
    EXPECT_EQ(2, calls.changed);
}

// A capture that reopens in the middle of a burst begins with stuffing. A reset for it would reopen the capture again.
TEST_F(DecodePipeline, StuffingAtTheBeginningOfAReopenedStreamIsNoSilence)
{
    start();
    const auto reopen = [this](const Bytes& chunk) { feed(chunk, 0, 2, 48000, kStreamBreakPts); };
    const Bytes burst = ac3_burst(make_payload(1000));
    feed(burst);
    EXPECT_EQ(1, calls.changed);
    feed(Bytes(burst.begin(), burst.begin() + 500)); // owes payload and stuffing when the stream breaks
    reopen(Bytes(3000));
    feed(Bytes(3000));
    const auto written = [this] { return decoder.get(&FakeDecoder::written).size(); };
    const size_t before = written();
    feed(burst);
    EXPECT_EQ(1000U, written() - before) << "found at once, and nothing of the old burst sent";
    EXPECT_EQ(1, calls.changed);
    hdmi_player_audio_frame_t* silence = nullptr;
    EXPECT_EQ(-1, dolby_get_output_pcm_frame(&silence, 0));
    // A pause is longer than a burst.
    reopen(Bytes(3840));
    feed(Bytes(3840));
    EXPECT_EQ(Bytes(3840).size(), static_cast<size_t>(take()->size));
    feed(burst);
    EXPECT_EQ(1, calls.forced);
}

TEST_F(DecodePipeline, DecodedPcmCarriesSerialRateAndPts)
{
    start();
    decoder.set(&FakeDecoder::rate, 32000);
    decoder.set(&FakeDecoder::status, 1);
    for (int i = 0; i < 3; ++i)
        decoder.decode_to(make_payload(960, static_cast<uint8_t>(i)));
    feed(ac3_burst(make_payload(1536)), 5, 2, 32000);
    for (int i = 0; i < 3; ++i) {
        hdmi_player_audio_frame_t* frame = take();
        ASSERT_NE(nullptr, frame);
        EXPECT_EQ(make_payload(960, static_cast<uint8_t>(i)), Bytes(frame->data, frame->data + frame->size));
        EXPECT_EQ(5, frame->serial);
        EXPECT_EQ(32000, frame->sample_rate);
        EXPECT_EQ(i * 7500, frame->pts);
        dolby_put_output_pcm_frame(frame);
    }
    EXPECT_EQ(ADECODER_FORMAT_AC3, decoder.get(&FakeDecoder::format));
    EXPECT_EQ(ADECODER_CHANNEL_STEREO, decoder.get(&FakeDecoder::channels));
    hdmi_player_audio_frame_t* none = nullptr;
    EXPECT_EQ(-1, dolby_get_output_pcm_frame(&none, 0));
}

TEST_F(DecodePipeline, NewSerialDiscardsQueuedPcmAndRestartsThePts)
{
    start();
    feed(Bytes(1920), 1);
    feed(Bytes(1920), 1);
    feed(Bytes(3840), 2);
    hdmi_player_audio_frame_t* frame = take();
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(2, frame->serial);
    EXPECT_EQ(0, frame->pts);
    EXPECT_EQ(3840, frame->size);
    dolby_put_output_pcm_frame(frame);
}

TEST_F(DecodePipeline, TheDecoderFollowsTheFormatAndTheHostIsTold)
{
    start();
    feed(ac3_burst(make_payload(1536)));
    EXPECT_EQ(1, calls.changed);
    EXPECT_EQ(0, calls.forced);
    feed(eac3_burst(make_payload(1536)));
    EXPECT_EQ(1, decoder.get(&FakeDecoder::inits)) << "one family, one decoder";
    EXPECT_EQ(1, calls.changed);

    feed(dts_burst());
    EXPECT_EQ(1, decoder.get(&FakeDecoder::deinits));
    EXPECT_EQ(1, calls.unsupported);
    EXPECT_EQ(2, calls.changed);
    EXPECT_FALSE(dolby_format_support());
    const size_t written = decoder.get(&FakeDecoder::written).size();
    feed(make_burst(12, 8000, make_payload(1000), 4096));
    EXPECT_EQ(1, calls.unsupported) << "told once";
    EXPECT_EQ(written, decoder.get(&FakeDecoder::written).size());

    feed(eac3_burst(make_payload(1536)));
    EXPECT_EQ(2, decoder.get(&FakeDecoder::inits));
    EXPECT_EQ(ADECODER_FORMAT_EAC3, decoder.get(&FakeDecoder::format));
    EXPECT_TRUE(dolby_format_support());

    feed(eac3_burst(make_payload(1536)), 0, 6);
    EXPECT_EQ(3, decoder.get(&FakeDecoder::inits)) << "a new channel count needs a new decoder";
    EXPECT_EQ(ADECODER_CHANNEL_5_1, decoder.get(&FakeDecoder::channels));
    EXPECT_EQ(3, calls.changed) << "but is no change of format";
}

TEST_F(DecodePipeline, FirstBurstCutBehindItsPreambleIsNotReportedUnsupported)
{
    start();
    const Bytes burst = ac3_burst(make_payload(1536));
    feed(Bytes(burst.begin(), burst.begin() + kPreamble));
    feed(Bytes(burst.begin() + kPreamble, burst.end()));
    feed(burst);
    EXPECT_EQ(0, calls.unsupported);
    EXPECT_EQ(make_payload(1536), decoder.get(&FakeDecoder::written));
}

TEST_F(DecodePipeline, DecoderThatCannotBeBuiltIsReportedAndTriedAgainWithTheNextFormat)
{
    decoder.refuse_init = true;
    start();
    feed(ac3_burst(make_payload(1536)));
    feed(ac3_burst(make_payload(1536)));
    EXPECT_EQ(1, calls.unsupported);
    decoder.set(&FakeDecoder::refuse_init, false);
    feed(dts_burst());
    feed(ac3_burst(make_payload(1536)));
    EXPECT_EQ(1, decoder.get(&FakeDecoder::inits));
    EXPECT_EQ(make_payload(1536), decoder.get(&FakeDecoder::written));
}

TEST_F(DecodePipeline, DecoderThatTakesNothingOrFailsDoesNotHoldUpTheInput)
{
    start();
    decoder.set(&FakeDecoder::accept, 0);
    for (int i = 0; i < 10; ++i)
        feed(ac3_burst(make_payload(1536)));
    decoder.set(&FakeDecoder::accept, -1);
    feed(ac3_burst(make_payload(1536)));
    decoder.set(&FakeDecoder::accept, 100);
    feed(ac3_burst(make_payload(1536)));
    EXPECT_EQ(make_payload(1536), decoder.get(&FakeDecoder::written));
}

TEST_F(DecodePipeline, OutputIsReadWithoutASignalFromTheDecoder)
{
    setenv("debug_hdmiplayer_log_level", "3", 1);
    testing::internal::CaptureStdout();
    start();
    decoder.set(&FakeDecoder::status, -3);
    feed(ac3_burst(make_payload(1536)));
    decoder.decode_to(make_payload(960));
    dolby_put_output_pcm_frame(take());
    EXPECT_EQ(0, dolby_deinit());
    unsetenv("debug_hdmiplayer_log_level");
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, log.find("[ac3] adecoder_write status:0xfffffffd error do not send signal\n"));
    EXPECT_NE(std::string::npos, log.find("[ac3] adecoder_read size:960\n"));
}

TEST_F(DecodePipeline, WithoutTheDecodeStrategyTheInputDrainsAndIsForgotten)
{
    start();
    dolby_set_strategy(DOLBY_STRATEGY_HWBYPASS);
    const Bytes burst = ac3_burst(make_payload(1536));
    feed(Bytes(burst.begin(), burst.begin() + kChunk));
    EXPECT_TRUE(decoder.get(&FakeDecoder::written).empty());
    dolby_set_strategy(DOLBY_STRATEGY_DECODE);
    feed(Bytes(burst.begin(), burst.begin() + kChunk));
    dolby_set_strategy(DOLBY_STRATEGY_HWBYPASS);
    feed(Bytes(kChunk));
    dolby_set_strategy(DOLBY_STRATEGY_DECODE);
    feed(burst);
    Bytes expected = make_payload(1536);
    append(expected, make_payload(1536));
    EXPECT_EQ(expected, decoder.get(&FakeDecoder::written)) << "no stuffing is owed to a resumed stream";
}

TEST_F(DecodePipeline, DeinitEndsThreadsThatWaitForAFreeOutputFrame)
{
    start();
    block_both_threads();
    EXPECT_EQ(0, dolby_deinit());
    EXPECT_TRUE(g_source->drained());
}

TEST_F(DecodePipeline, DeinitEndsADecodeThreadWithoutADecoderAndAnIdleConsumer)
{
    start();
    std::thread consumer([] {
        hdmi_player_audio_frame_t* frame = nullptr;
        EXPECT_EQ(-1, dolby_get_output_pcm_frame(&frame, -1));
    });
    EXPECT_EQ(0, dolby_deinit());
    consumer.join();
}

TEST_F(DecodePipeline, AChangeOfStrategyReleasesADemuxThreadThatWaitsForAFreeOutputFrame)
{
    start();
    block_both_threads();
    for (int round = 0; round < 20; ++round) {
        dolby_set_strategy(DOLBY_STRATEGY_PCM);
        ASSERT_TRUE(eventually([] { return g_source->drained(); })) << round;
        dolby_set_strategy(DOLBY_STRATEGY_DECODE);
        g_source->push(Bytes(960));
        ASSERT_TRUE(eventually([] { return g_dolby_info.demux_acquiring.load(); }));
    }
}

TEST_F(DecodePipeline, NonsenseInChunksAndConfigurationIsHarmless)
{
    config.output_buffer_size = -1;
    start();
    decoder.set(&FakeDecoder::rate, 0);
    feed(Bytes(1920), 0, 0, 0);
    feed(Bytes(), 0, -1, -1);
    feed(ac3_burst(make_payload(1536)), 0, 0, 0);
    decoder.decode_to(make_payload(960));
    for (int i = 0; i < 3; ++i) {
        hdmi_player_audio_frame_t* frame = take();
        ASSERT_NE(nullptr, frame);
        EXPECT_EQ(48000, frame->sample_rate);
        dolby_put_output_pcm_frame(frame);
    }
    EXPECT_EQ(ADECODER_CHANNEL_STEREO, decoder.get(&FakeDecoder::channels));
    testing::internal::CaptureStdout();
    dolby_pack_pcm_frame(nullptr, nullptr);
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("info is null.\n"));
}

TEST_F(DecodePipeline, AsynchronousModeReachesTheDecoder)
{
    setenv("debug_hdmiplayer_dolby_async", "1", 1);
    start();
    feed(ac3_burst(make_payload(1536)));
    EXPECT_TRUE(decoder.get(&FakeDecoder::async_mode));
    EXPECT_EQ(0, dolby_deinit());
    unsetenv("debug_hdmiplayer_dolby_async");
}

TEST_F(DecodePipeline, DumpsHoldChunksPayloadsAndPcm)
{
    const std::filesystem::path folder =
        std::filesystem::path(testing::TempDir()) / ("dolby_dump_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    for (const char* name : {"iec61937", "in", "out"})
        setenv((std::string("debug_hdmiplayer_dolby_dumppath_") + name).c_str(), folder.c_str(), 1);
    start();
    const Bytes burst = ac3_burst(make_payload(1536));
    feed(Bytes(400), 0, 2, 48000);
    feed(burst, 0, 2, 48000);
    feed(burst, 0, 2, 48000);
    decoder.decode_to(make_payload(960));
    dolby_put_output_pcm_frame(take());
    dolby_put_output_pcm_frame(take());
    EXPECT_EQ(0, dolby_deinit());
    for (const char* name : {"iec61937", "in", "out"})
        unsetenv((std::string("debug_hdmiplayer_dolby_dumppath_") + name).c_str());

    const auto read = [&folder](const char* name) {
        std::ifstream file(folder / name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    };
    Bytes chunks(400), pcm(400);
    append(chunks, burst);
    append(chunks, burst);
    append(pcm, make_payload(960));
    EXPECT_EQ(chunks, read("dump_dolby_iec61937.raw"));
    EXPECT_EQ(make_payload(1536), read("dump_dolby_decode_in.unset")) << "named before the format is adopted";
    EXPECT_EQ(make_payload(1536), read("dump_dolby_decode_in.ac3"));
    EXPECT_EQ(pcm, read("dump_dolby_decode_out_ch2_rate_48000.pcm"));
    std::filesystem::remove_all(folder);

    testing::internal::CaptureStdout();
    dolby_info_t info;
    std::string deep = "/" + std::string(400, 'x');
    info.dump_path_pcm = deep.data();
    dolby_dump(&info, DOLBY_DUMP_PCM, burst.data(), 10);
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("fopen /xxx"));
}

} // namespace
