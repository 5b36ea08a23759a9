// SPDX-License-Identifier: MIT
#include "internal/dolby.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "internal/common.h"
#include "platform_hooks.h"
#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/failing/failing_threads.h"
#include "support/locked.h"
#include "support/log_capture.h"
#include "support/source_queue.h"

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kPreamble = 8;
constexpr int32_t kChunk = 3840;

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes part_of(const Bytes& all, size_t begin, size_t end) { return Bytes(all.data() + begin, all.data() + end); }

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
    for (const int word : {0xF872, 0x4E1F, int{pc}, int{pd}})
        burst = join({burst, {static_cast<uint8_t>(word & 0xFF), static_cast<uint8_t>(word >> 8)}});
    burst = join({burst, payload});
    burst.resize(burst_bytes);
    return burst;
}

Bytes ac3_burst(const Bytes& payload)
{
    return make_burst(1, static_cast<uint16_t>(payload.size() * 8), payload, 6144);
}
Bytes eac3_burst(const Bytes& payload) { return make_burst(21, static_cast<uint16_t>(payload.size()), payload, 24576); }

const Bytes kPayload = make_payload(1536);
const Bytes kBurst = ac3_burst(kPayload);

// A decoder that records what it is given and gives out what the test prepares.
struct FakeDecoder : Locked {
    Bytes written;
    int writes = 0, reads = 0;
    std::deque<Bytes> output;
    int32_t rate = 48000, status = 0;
    int32_t accept = INT32_MAX; ///< bytes of each write; 0 or negative: the result
    bool refuse_init = false, async_mode = false;
    int inits = 0, deinits = 0;
    adecoder_format_t format = ADECODER_FORMAT_PCM;
    adecoder_channel_t channels = ADECODER_CHANNEL_MAX;

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
        g_hooks.decoder_deinit = [this](adecoder_handle_t*) { return locked([this] { return ++deinits, 0; }); };
        g_hooks.decoder_write = [this](adecoder_handle_t*, const void* data, int32_t bytes, int32_t* out_status) {
            std::lock_guard<std::mutex> lock(mutex);
            *out_status = status;
            const int32_t taken = std::min(bytes, accept);
            const auto* from = static_cast<const uint8_t*>(data);
            written.insert(written.end(), from, from + std::max(taken, 0));
            writes += taken > 0 ? 1 : 0;
            return taken;
        };
        g_hooks.decoder_read = [this](adecoder_handle_t*, void* buffer, int32_t size) {
            std::lock_guard<std::mutex> lock(mutex);
            ++reads;
            if (output.empty())
                return 0;
            const int32_t count = std::min(static_cast<int32_t>(output.front().size()), size);
            std::copy_n(output.front().data(), count, static_cast<uint8_t*>(buffer));
            output.pop_front();
            return count;
        };
        g_hooks.decoder_rate = [this](adecoder_handle_t*) {
            EXPECT_EQ(EBUSY, pthread_mutex_trylock(&g_dolby_info.decoder_mutex.native)) << "it may be replaced";
            return get(&FakeDecoder::rate);
        };
    }

    template <typename Value> Value get(Value FakeDecoder::*field)
    {
        return locked([&] { return this->*field; });
    }
    template <typename Value> void set(Value FakeDecoder::*field, const std::common_type_t<Value>& value)
    {
        locked([&] { this->*field = value; });
    }
};

// The parser alone: spans of payload out of chunks, each a copy of exactly its size.
std::vector<Bytes> parse(burst_state* state, const Bytes& data)
{
    const Bytes copy = data;
    byte_span chunk = {copy.data(), static_cast<uint32_t>(copy.size())};
    std::vector<Bytes> spans;
    const auto keep = [&spans](byte_span span) {
        if (span.data != nullptr && span.bytes > 0)
            spans.emplace_back(span.data, span.data + span.bytes);
    };
    do {
        keep(burst_take_owed(state, &chunk));
        keep(burst_take_next(state, &chunk).payload);
    } while (chunk.bytes > 0);
    return spans;
}

// Of well-formed bursts, dolby_stream_test knows every way to cut them.
TEST(BurstSpans, EndWithWhatTheChunkAndTheBurstHold)
{
    const auto burst = [](size_t begin, size_t end) { return part_of(kBurst, begin, end); };
    const Bytes too_long = make_burst(1, 0xFFFF, make_payload(6136), 6144);
    const struct {
        std::vector<Bytes> chunks, spans;
        uint32_t owed_payload, owed_stuffing;
        int32_t held;
    } cases[] = {
        {{Bytes(kChunk), Bytes()}, {}, 0, 0, 0},
        {{burst(0, kChunk)}, {kPayload}, 0, 6144 - kChunk, 0},
        {{join({kBurst, kBurst, burst(0, 5)})}, {kPayload, kPayload}, 0, 0, 5},
        {{burst(0, 2), burst(2, 5), burst(5, 6144)}, {kPayload}, 0, 0, 0},
        {{join({Bytes(20), kBurst})}, {kPayload}, 0, 0, 0},
        {{burst(0, 8)}, {}, 1536, 4600, 0},
        // A length beyond the burst, one beyond the chunk as well, none, a flagged burst.
        {{too_long}, {make_payload(6136)}, 8191 - 6136, 0, 0},
        {{join({too_long, {0xAA}})}, {join({make_payload(6136), {0xAA}})}, 0, 0, 1},
        {{make_burst(21, 0, {}, 24576), kBurst}, {kPayload}, 0, 0, 0},
        {{make_burst(0x81, 800, make_payload(100), 6144)}, {}, 0, 0, 0},
        // False Pc and Pd in a held preamble, and in a chunk that is just as long as one.
        {{{0, 1, 0, 0xFF, 0xFF}, {9, 9, 9, 7, 7}}, {{7, 7}}, 8191 - 5, 0, 0},
        {{{0, 1, 0, 0xFF, 0xFF, 5, 6, 7}}, {{5, 6, 7}}, 8191 - 3, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        burst_state state;
        std::vector<Bytes> spans;
        for (const Bytes& chunk : c.chunks) {
            const std::vector<Bytes> more = parse(&state, chunk);
            spans.insert(spans.end(), more.begin(), more.end());
        }
        EXPECT_EQ(c.spans, spans);
        EXPECT_TRUE(c.owed_payload == state.iec61937_payload_insufficient_bytes &&
                    c.owed_stuffing == state.iec61937_burst_insufficient_bytes && c.held == state.iec61937_header_size);
    }
}

TEST(BurstSpans, OfAPreambleThereIsNothingToSend)
{
    const struct {
        size_t bytes;
        burst_step::kind_e kind;
    } cases[] = {{5, burst_step::HELD}, {8, burst_step::STARTED}};
    for (const auto& c : cases) {
        const Bytes begin = part_of(kBurst, 0, c.bytes);
        byte_span chunk = {begin.data(), static_cast<uint32_t>(begin.size())};
        burst_state state;
        const burst_step step = burst_take_next(&state, &chunk);
        EXPECT_EQ(c.kind, step.kind) << c.bytes;
        EXPECT_EQ(nullptr, step.payload.data) << c.bytes;
    }
}

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
        const Found found = search(join({Bytes(3), make_burst(type.pc, 12288 + 5, {}, kPreamble)}));
        ASSERT_NE(nullptr, found.payload) << type.pc;
        EXPECT_TRUE(11 == found.filter_bytes && type.pc == found.format) << type.pc;
        EXPECT_TRUE(type.burst_bytes == found.burst_bytes && type.payload_bytes == found.payload_bytes) << type.pc;
    }
}

TEST(BurstPreamble, OnlyTheErrorFlagAndTheSevenLowBitsOfPcCount)
{
    const auto payload_of = [](uint16_t pc) { return search(make_burst(pc, 800, make_payload(100), 108)).payload; };
    EXPECT_NE(nullptr, payload_of(0x0101));
    EXPECT_EQ(nullptr, payload_of(0x0021)) << "a type-dependent bit";
    EXPECT_EQ(nullptr, payload_of(0x0003)) << "a pause burst";
    const std::string log = logged("1", [&] { EXPECT_EQ(nullptr, payload_of(0x0081)); });
    EXPECT_EQ(1, occurrences(log, "Pc error-flag indicating that the burst-payload may contain errors!"));
    // Without sync the words seven bytes before the end are taken for Pc and Pd.
    const Found found = search(join({Bytes(93), {21, 0, 40, 0, 0, 0, 0}}));
    EXPECT_TRUE(found.payload != nullptr && found.filter_bytes == 97 && found.payload_bytes == 40);
    EXPECT_EQ(nullptr, search(Bytes(100)).payload);
    EXPECT_EQ(nullptr, search(Bytes(7)).payload);
    EXPECT_EQ(nullptr, search(join({Bytes(93), part_of(kBurst, 0, 7)})).payload) << "a sync too late to be looked for";
}

TEST(BurstPreamble, SyncIsFoundWhereAByteForByteSearchFindsIt)
{
    // Few kinds of bytes: many that could begin a sync, and many syncs.
    uint32_t seed = 1;
    for (size_t size = 1; size < 600; ++size) {
        Bytes bytes(size);
        for (uint8_t& byte : bytes)
            byte = kBurstSync[(seed = seed * 1664525 + 1013904223) >> (size % 3 == 0 ? 31 : 30)];
        const auto expected = std::search(bytes.begin(), bytes.end(), std::begin(kBurstSync), std::end(kBurstSync));
        const uint8_t* const found = burst_find_sync({bytes.data(), static_cast<uint32_t>(size)});
        ASSERT_EQ(found != nullptr ? found - bytes.data() : static_cast<ptrdiff_t>(size), expected - bytes.begin());
    }
}

// The parser with the decoder behind it, on a record of its own, without threads.
TEST(BurstParser, AChunkWithoutABurstOrAFailedSendIsReportedAndTheNextGoodBurstIsFound)
{
    FakeDecoder decoder;
    decoder.install();
    dolby_info_t info;
    info.event_cb = [](hdmi_player_event_e) {};
    info.format_changed_cb = [](bool, bool*) {};
    info.format = DOLBY_IEC61937_FORMAT_UNSET;
    // From a copy of exactly its size, so that a sanitizer sees every step over its end.
    const auto feed = [&info](const Bytes& data) {
        const Bytes chunk = data;
        return dolby_disassemble_iec61937(&info, chunk.data(), static_cast<uint32_t>(chunk.size()));
    };
    EXPECT_EQ(-1, feed(Bytes(kChunk)));
    EXPECT_EQ(-1, dolby_disassemble_iec61937(&info, nullptr, kChunk));
    EXPECT_EQ(-1, feed(join({make_burst(21, 0, {}, 24576), kBurst}))) << "a burst of nothing";
    EXPECT_EQ(0, feed(part_of(kBurst, 0, 1000)));
    EXPECT_EQ(0, feed(Bytes())) << "inside a burst";
    decoder.accept = -5;
    EXPECT_EQ(-1, feed(part_of(kBurst, 1000, 6144)));
    EXPECT_EQ(-1, feed(join({kBurst, kBurst})));
    decoder.accept = INT32_MAX;
    decoder.written.clear();
    EXPECT_EQ(0, feed(kBurst));
    EXPECT_EQ(kPayload, decoder.written);
}

// The module with its threads, between a queue and the recording decoder.
struct Calls {
    std::atomic<int> unsupported{0}, changed{0}, forced{0}, wakeups{0};
};

Calls* g_calls = nullptr;

void expect_no_lock_held()
{
    for (mutex_t* mutex : {&g_dolby_info.decoder_mutex, &g_dolby_info.internal_mutex}) {
        const struct timespec deadline = get_cond_timeout_ms(5000);
        ASSERT_EQ(0, pthread_mutex_timedlock(&mutex->native, &deadline));
        pthread_mutex_unlock(&mutex->native);
    }
    ASSERT_EQ(0, g_dolby_info.api_rwlock.writers);
}

class DecodePipeline : public testing::Test
{
protected:
    void SetUp() override
    {
        decoder.install();
        open_source();
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
        config.input_queue_dequeue_cb = dequeue_source;
        config.input_queue_put_cb = put_source;
        config.input_queue_wakeup_cb = [] {
            expect_no_lock_held();
            ++g_calls->wakeups;
            frame_queue_done_wakeup(g_source);
        };
        config.output_buffer_size = 960;
    }
    void TearDown() override
    {
        const int32_t expected = g_dolby_info.initialized ? 0 : -1;
        EXPECT_EQ(expected, dolby_deinit());
        EXPECT_EQ(decoder.inits, decoder.deinits);
        g_hooks = PlatformHooks();
        close_source();
    }

    void start()
    {
        ASSERT_EQ(0, dolby_init(config));
        ASSERT_EQ(0, dolby_set_strategy(DOLBY_STRATEGY_DECODE));
    }
    // Feeds a chunk and waits until the demux thread is done with it.
    template <typename... Args> void feed(Args... args)
    {
        push(args...);
        ASSERT_TRUE(source_drains());
    }
    void expect_frame(const Bytes& data, int32_t serial, int32_t rate, int64_t pts)
    {
        hdmi_player_audio_frame_t* frame = nullptr;
        ASSERT_EQ(0, dolby_get_output_pcm_frame(&frame, 10000));
        EXPECT_EQ(data, Bytes(frame->data, frame->data + frame->size));
        EXPECT_TRUE(serial == frame->serial && rate == frame->sample_rate && pts == frame->pts);
        EXPECT_EQ(0, dolby_put_output_pcm_frame(frame));
    }

    FakeDecoder decoder;
    Calls calls;
    dolby_config_t config = {};
};

TEST_F(DecodePipeline, RefusesCallsWithoutInitMissingCallbacksAndASecondInit)
{
    hdmi_player_audio_frame_t* frame = nullptr;
    EXPECT_EQ(-1, dolby_deinit());
    EXPECT_EQ(-1, dolby_set_strategy(DOLBY_STRATEGY_DECODE));
    EXPECT_EQ(DOLBY_STRATEGY_PCM, dolby_get_strategy());
    EXPECT_EQ(-1, dolby_get_output_pcm_frame(&frame, 100));
    dolby_config_t broken = config;
    broken.input_queue_wakeup_cb = nullptr;
    EXPECT_EQ(-1, dolby_init(broken));
    EXPECT_EQ(0, dolby_init(config));
    EXPECT_EQ(DOLBY_STRATEGY_MAX, dolby_get_strategy());
    EXPECT_EQ(-1, dolby_init(config));
    EXPECT_EQ(0, dolby_deinit());
    EXPECT_FALSE(dolby_format_support());
}

TEST_F(DecodePipeline, FailedInitUndoesWhatItBuilt)
{
    std::vector<int32_t> queues;
    for (int32_t id = frame_queue_init(1, "test"); id >= 0; id = frame_queue_init(1, "test"))
        queues.push_back(id);
    EXPECT_EQ(-1, dolby_init(config));
    frame_queue_deinit(queues.back());
    queues.pop_back();

    for (const int threads : {0, 1}) {
        g_threads_left = threads;
        EXPECT_EQ(-1, dolby_init(config));
        EXPECT_EQ(threads, calls.wakeups) << "a demux thread that runs is woken";
    }
    g_threads_left = INT_MAX;
    EXPECT_EQ(0, dolby_init(config)) << "the queue of the failed attempts was freed";
    for (int32_t id : queues)
        frame_queue_deinit(id);
}

TEST_F(DecodePipeline, SilenceOfTheNewestSerialIsPlayedAndTheBurstThatEndsItForcesAReset)
{
    start();
    const auto feed_as = [this](const Bytes& chunk, int32_t serial) { feed(chunk, 192000, 0, serial); };
    for (const int32_t serial : {1, 1, 3, 3})
        feed_as(Bytes(1920), serial);
    expect_frame(Bytes(1920), 3, 192000, 0);
    expect_frame(Bytes(1920), 3, 192000, 2500);
    feed_as(kBurst, 3);
    EXPECT_EQ(1, calls.changed);
    EXPECT_EQ(1, calls.forced);
    feed_as(Bytes(1920), 3);
    feed_as(kBurst, 3);
    EXPECT_EQ(2, calls.changed) << "in a running stream as well";
    EXPECT_EQ(2, calls.forced);
    feed_as(kBurst, 3);
    feed_as(make_payload(100), 3);
    EXPECT_EQ(2, calls.changed) << "once, and noise is dropped";
    feed_as(Bytes(1920), 3);
    feed_as(kBurst, 4);
    EXPECT_EQ(2, calls.changed) << "a new serial is a reset already";
}

// A capture that reopens in the middle of a burst begins with stuffing. A reset for it would reopen the capture again.
TEST_F(DecodePipeline, StuffingAtTheBeginningOfAReopenedStreamIsNoSilence)
{
    start();
    const Bytes burst = ac3_burst(make_payload(1000));
    feed(burst);
    EXPECT_EQ(1, calls.changed);
    feed(part_of(burst, 0, 5)); // a preamble held when the stream breaks
    feed(burst, 48000, kStreamBreakPts);
    EXPECT_EQ(join({make_payload(1000), make_payload(1000)}), decoder.get(&FakeDecoder::written));
    feed(part_of(burst, 0, 500)); // payload and stuffing owed
    const size_t before = decoder.get(&FakeDecoder::written).size();
    feed(Bytes(3000), 48000, kStreamBreakPts);
    feed(Bytes(3000));
    feed(burst);
    EXPECT_EQ(1000U, decoder.get(&FakeDecoder::written).size() - before)
        << "found at once, and nothing of the old burst sent";
    EXPECT_EQ(1, calls.changed);
    EXPECT_EQ(0, frame_queue_get_done_counts(g_dolby_info.output_pcm_queue));
    // A pause is longer than a burst.
    feed(Bytes(3840), 48000, kStreamBreakPts);
    feed(Bytes(3840));
    expect_frame(Bytes(3840), 0, 48000, 0);
    feed(burst);
    EXPECT_EQ(1, calls.forced);
}

TEST_F(DecodePipeline, DecodedPcmCarriesSerialRateAndPtsWithoutASignalFromTheDecoder)
{
    const std::string log = logged("3", [this] {
        start();
        decoder.set(&FakeDecoder::rate, 32000);
        decoder.set(&FakeDecoder::status, -3);
        decoder.set(&FakeDecoder::output, {make_payload(960, 0), make_payload(960, 1), make_payload(960, 2)});
        feed(kBurst, 48000, 0, 5);
        for (uint8_t i = 0; i < 3; ++i)
            expect_frame(make_payload(960, i), 5, 32000, i * 7500);
        EXPECT_EQ(0, dolby_deinit());
    });
    EXPECT_EQ(1, occurrences(log, "[ac3] adecoder_write status:0xfffffffd error do not send signal\n"));
    // The decoder is read as soon as it is there, perhaps before its format has got a name.
    EXPECT_EQ(3, occurrences(log, "] adecoder_read size:960\n"));
}

TEST_F(DecodePipeline, ADecoderThatSignalsNothingIsAskedAtIntervals)
{
    start();
    feed(kBurst);
    decoder.set(&FakeDecoder::reads, 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(eventually([this] { return decoder.get(&FakeDecoder::reads) >= 11; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(90)) << "it spins";
}

TEST_F(DecodePipeline, TheDecoderFollowsTheFormatAndTheHostIsTold)
{
    start();
    const Bytes eac3 = eac3_burst(kPayload);
    const struct {
        Bytes burst;
        int channels, inits, deinits, unsupported, changed;
    } steps[] = {
        {part_of(kBurst, 0, kPreamble), 2, 0, 0, 0, 0}, // nothing to report yet
        {part_of(kBurst, kPreamble, 6144), 2, 0, 0, 0, 0},
        {kBurst, 2, 1, 0, 0, 1},
        {eac3, 2, 1, 0, 0, 1}, // one family, one decoder
        {make_burst(11, 8000, make_payload(1000), 2048), 2, 1, 1, 1, 2},
        {make_burst(12, 8000, make_payload(1000), 4096), 2, 1, 1, 1, 2}, // told once
        {eac3, 2, 2, 1, 1, 3},
        {eac3, 6, 3, 2, 1, 3}, // another decoder, but the same format
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        decoder.set(&FakeDecoder::written, Bytes());
        feed(step.burst, 48000, 0, 0, step.channels);
        const bool decodes = step.inits > step.deinits;
        EXPECT_EQ(decodes ? kPayload : Bytes(), decoder.get(&FakeDecoder::written));
        EXPECT_EQ(decodes || step.inits == 0, dolby_format_support());
        EXPECT_TRUE(step.inits == decoder.get(&FakeDecoder::inits) &&
                    step.deinits == decoder.get(&FakeDecoder::deinits));
        EXPECT_TRUE(step.unsupported == calls.unsupported && step.changed == calls.changed);
    }
    EXPECT_EQ(ADECODER_FORMAT_EAC3, decoder.get(&FakeDecoder::format));
    EXPECT_EQ(ADECODER_CHANNEL_5_1, decoder.get(&FakeDecoder::channels));
}

TEST_F(DecodePipeline, DecoderThatCannotBeBuiltOrTakesNothingOrFailsDoesNotHoldUpTheInput)
{
    const std::string log = logged("2", [this] {
        decoder.refuse_init = true;
        start();
        feed(kBurst);
        feed(kBurst);
        EXPECT_EQ(1, calls.unsupported);
        decoder.set(&FakeDecoder::refuse_init, false);
        feed(make_burst(11, 8000, make_payload(1000), 2048));
        for (const int32_t accept : {0, 0, 0, -1, 100, 0, 0}) {
            decoder.set(&FakeDecoder::accept, accept);
            feed(kBurst);
        }
        EXPECT_EQ(0, dolby_deinit());
    });
    EXPECT_EQ(1, decoder.inits) << "tried again with the next format";
    EXPECT_EQ(kPayload, decoder.written);
    EXPECT_EQ(2, occurrences(log, "the decoder takes nothing")) << "once for each stall";
    EXPECT_EQ(1, occurrences(log, "adecoder_write failed"));
}

TEST_F(DecodePipeline, WithoutTheDecodeStrategyTheInputDrainsAndIsForgotten)
{
    start();
    dolby_set_strategy(DOLBY_STRATEGY_HWBYPASS);
    feed(part_of(kBurst, 0, kChunk));
    EXPECT_TRUE(decoder.get(&FakeDecoder::written).empty());
    dolby_set_strategy(DOLBY_STRATEGY_DECODE);
    feed(part_of(kBurst, 0, kChunk));
    dolby_set_strategy(DOLBY_STRATEGY_HWBYPASS);
    feed(Bytes(kChunk));
    dolby_set_strategy(DOLBY_STRATEGY_DECODE);
    feed(kBurst);
    EXPECT_EQ(join({kPayload, kPayload}), decoder.get(&FakeDecoder::written))
        << "no stuffing is owed to a resumed stream";
}

TEST_F(DecodePipeline, DeinitEndsADecodeThreadWithoutADecoderAndConsumersThatComeBackAtOnce)
{
    start();
    const auto consume = [] {
        hdmi_player_audio_frame_t* frame = nullptr;
        return dolby_get_output_pcm_frame(&frame, -1);
    };
    BlockedCall<int32_t> waiting(consume);
    EXPECT_TRUE(waiting.asleep());
    EXPECT_EQ(-1, dolby_init(config)) << "at once, the consumer still waits";
    Callers consumers;
    consumers.run([consume](int) { EXPECT_EQ(-1, consume()); }, 4);
    BlockedCall<int32_t> deinit(dolby_deinit);
    EXPECT_TRUE(eventually([&deinit] { return deinit.returned(); })) << "the consumers starve it";
    consumers.stop();
    EXPECT_EQ(0, deinit.result());
}

TEST_F(DecodePipeline, AChangeOfStrategyAndDeinitReleaseThreadsThatWaitForAFreeOutputFrame)
{
    start();
    feed(kBurst);
    decoder.set(&FakeDecoder::output, std::deque<Bytes>(60, make_payload(960)));
    ASSERT_TRUE(eventually([] { return frame_queue_get_done_counts(g_dolby_info.output_pcm_queue) == 32; }));
    for (int round = 0; round <= 20; ++round) {
        dolby_set_strategy(DOLBY_STRATEGY_DECODE);
        push(Bytes(960));
        ASSERT_TRUE(eventually([] { return g_dolby_info.demux_acquiring.load(); }));
        if (round % 20 == 0)
            std::this_thread::sleep_for(
                std::chrono::milliseconds(20)); // on its way into the wait; either way the test holds
        EXPECT_EQ(0, round < 20 ? dolby_set_strategy(DOLBY_STRATEGY_PCM) : dolby_deinit());
        ASSERT_TRUE(source_drains()) << round;
    }
}

TEST_F(DecodePipeline, NonsenseInChunksAndConfigurationIsHarmless)
{
    config.output_buffer_size = -1;
    start();
    decoder.set(&FakeDecoder::rate, 0);
    feed(Bytes(1920), 0, 0, 0, 0);
    feed(Bytes(), -1, 0, 0, -1);
    feed(kBurst, 0, 0, 0, 0);
    decoder.set(&FakeDecoder::output, {make_payload(960)});
    expect_frame(Bytes(1920), 0, 48000, 0);
    expect_frame(Bytes(), 0, 48000, 10000);
    expect_frame(make_payload(960), 0, 48000, 10000);
    EXPECT_EQ(ADECODER_CHANNEL_STEREO, decoder.get(&FakeDecoder::channels));
    dolby_pack_pcm_frame(nullptr, nullptr);
}

TEST_F(DecodePipeline, SwitchesReachTheDecoderAndDumpChunksPayloadsAndPcm)
{
    const std::filesystem::path folder =
        std::filesystem::path(testing::TempDir()) / ("dolby_dump_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    const std::pair<std::string, std::string> switches[] = {
        {"dumppath_iec61937", folder}, {"dumppath_in", folder}, {"dumppath_out", folder}, {"async", "1"}};
    for (const auto& [name, value] : switches)
        setenv(("debug_hdmiplayer_dolby_" + name).c_str(), value.c_str(), 1);
    start();
    for (const Bytes& chunk : {Bytes(400), kBurst, kBurst})
        feed(chunk);
    decoder.set(&FakeDecoder::output, {make_payload(960)});
    expect_frame(Bytes(400), 0, 48000, 0);
    expect_frame(make_payload(960), 0, 48000, 2083);
    EXPECT_TRUE(decoder.get(&FakeDecoder::async_mode));
    EXPECT_EQ(0, dolby_deinit());
    for (const auto& [name, value] : switches)
        unsetenv(("debug_hdmiplayer_dolby_" + name).c_str());

    const auto read = [&folder](const char* name) {
        std::ifstream file(folder / name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    };
    EXPECT_EQ(join({Bytes(400), kBurst, kBurst}), read("dump_dolby_iec61937.raw"));
    EXPECT_EQ(kPayload, read("dump_dolby_decode_in.unset")) << "named before the format is adopted";
    EXPECT_EQ(kPayload, read("dump_dolby_decode_in.ac3"));
    EXPECT_EQ(join({Bytes(400), make_payload(960)}), read("dump_dolby_decode_out_ch2_rate_48000.pcm"));
    std::filesystem::remove_all(folder);
    std::string deep = "/" + std::string(400, 'x');
    dolby_info_t info;
    info.dump_path_pcm = deep.data();
    EXPECT_EQ(1, occurrences(logged("1", [&] { dolby_dump(&info, DOLBY_DUMP_PCM, kBurst.data(), 10); }), "fopen /xxx"));
}

} // namespace
