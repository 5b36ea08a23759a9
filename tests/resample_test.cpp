// SPDX-License-Identifier: MIT
#include "internal/resample.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "internal/frame_queue.h"
#include "support/blocked_call.h"
#include "support/log_capture.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The stage before: hands out frames whose buffers are exactly as large as their data.
class Source
{
public:
    struct Block {
        hdmi_player_audio_frame_t frame = {};
        std::unique_ptr<uint8_t[]> bytes;
    };

    void push(std::vector<uint8_t> bytes, int32_t rate, int64_t pts, int32_t serial = 1, int32_t channels = 2)
    {
        auto block = std::make_unique<Block>();
        block->bytes.reset(new uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), block->bytes.get());
        block->frame.data = block->bytes.get();
        block->frame.size = block->frame.buf_size = static_cast<int32_t>(bytes.size());
        block->frame.sample_rate = rate;
        block->frame.channels = channels;
        block->frame.pts = pts;
        block->frame.serial = serial;
        push(std::move(block));
    }
    void push(std::unique_ptr<Block> block)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        waiting_.push_back(std::move(block));
        changed_.notify_all();
    }
    hdmi_player_audio_frame_t* dequeue(int32_t timeout_ms)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++asked_;
        if (!changed_.wait_for(lock, milliseconds(timeout_ms), [this] { return !waiting_.empty(); }))
            return nullptr;
        out_.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
        return &out_.back()->frame;
    }
    int32_t put(hdmi_player_audio_frame_t* frame)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = out_.begin(); it != out_.end(); ++it) {
            if (&(*it)->frame == frame) {
                out_.erase(it);
                ++returned_;
                return 0;
            }
        }
        ADD_FAILURE() << "a frame came back that was not out";
        return -1;
    }
    int returned() const { return locked(returned_); }
    int asked() const { return locked(asked_); }
    bool all_returned() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return waiting_.empty() && out_.empty();
    }

private:
    int locked(const int& value) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return value;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::unique_ptr<Block>> waiting_;
    std::deque<std::unique_ptr<Block>> out_;
    int returned_ = 0;
    int asked_ = 0;
};

std::unique_ptr<Source> g_source;
hdmi_player_audio_frame_t* dequeue_source(int32_t timeout_ms) { return g_source->dequeue(timeout_ms); }
int32_t put_source(hdmi_player_audio_frame_t* frame) { return g_source->put(frame); }

audio_param_t param(int rate, int channels = 2, enum AVSampleFormat fmt = AV_SAMPLE_FMT_S16)
{
    audio_param_t result = {};
    result.fmt = fmt;
    result.sample_rate = rate;
    result.channels = channels;
    return result;
}

/// A converted frame, copied and given back.
struct Output {
    bool valid = false;
    std::vector<uint8_t> bytes;
    int32_t sample_rate = 0;
    int32_t channels = 0;
    int32_t serial = 0;
    int64_t pts = 0;
};

Output take(int32_t timeout_ms = 10000)
{
    hdmi_player_audio_frame_t* frame = nullptr;
    Output result;
    if (audio_resample_get_pcm_frame(&frame, timeout_ms) != 0)
        return result;
    result = {true,      {frame->data, frame->data + frame->size}, frame->sample_rate, frame->channels, frame->serial,
              frame->pts};
    EXPECT_LE(frame->size, frame->buf_size);
    EXPECT_EQ(audio_resample_put_pcm_frame(frame), 0);
    return result;
}

std::vector<uint8_t> noise(size_t bytes, unsigned seed = 1)
{
    std::vector<uint8_t> result(bytes);
    for (uint8_t& byte : result)
        byte = static_cast<uint8_t>((seed = seed * 1103515245 + 12345) >> 16);
    return result;
}

/// A stereo tone, 16 bit, from sample @p begin on.
std::vector<uint8_t> tone(double hz, int rate, int begin, int samples)
{
    std::vector<uint8_t> result(static_cast<size_t>(samples) * 4);
    for (int i = 0; i < samples; ++i) {
        const int16_t value = static_cast<int16_t>(10000 * std::sin(2 * M_PI * hz * (begin + i) / rate));
        memcpy(&result[i * 4], &value, 2);
        memcpy(&result[i * 4 + 2], &value, 2);
    }
    return result;
}

int rising_zero_crossings(const std::vector<uint8_t>& stereo)
{
    int count = 0;
    int16_t last = 0;
    for (size_t i = 0; i + 4 <= stereo.size(); i += 4) {
        int16_t value = 0;
        memcpy(&value, &stereo[i], 2);
        count += last < 0 && value >= 0;
        last = value;
    }
    return count;
}

int32_t free_queue_slots()
{
    int32_t free = 0;
    for (const resource_manager_t& slot : g_fq_resource_map)
        free += slot.info.load() == nullptr;
    return free;
}

/// Has the interval before the next dummy delay begin long ago.
void end_delay_interval()
{
    mutex_guard lock(g_resample_ctx.internal_mutex);
    g_resample_ctx.dummy_alg_delay_start_time_us = 1;
}

/// Whether a consumer has begun its dummy delay since end_delay_interval(); waits until one has.
bool delay_begun()
{
    return eventually([] {
        mutex_guard lock(g_resample_ctx.internal_mutex);
        return g_resample_ctx.dummy_alg_delay_start_time_us > 1;
    });
}

class Resample : public testing::Test
{
protected:
    void SetUp() override
    {
        g_source = std::make_unique<Source>();
        av_log_set_level(AV_LOG_QUIET); // the converter library complains too, on standard error
    }
    void TearDown() override
    {
        EXPECT_EQ(audio_resample_deinit(), 0);
        EXPECT_EQ(free_queue_slots(), static_cast<int32_t>(FRAME_QUEUE_MAX));
        for (const char* name :
             {"enable_resample", "dummy_alg_delay", "dummy_alg_delay_interval", "dummy_alg_delay_time"})
            unsetenv((std::string("debug_hdmiplayer_") + name).c_str());
    }

    static int32_t init(audio_param_t src, audio_param_t tgt)
    {
        return audio_resample_init({src, tgt, dequeue_source, put_source});
    }
    static void set(const char* name, const char* value)
    {
        setenv((std::string("debug_hdmiplayer_") + name).c_str(), value, 1);
    }

    LogLevel quiet_{"0"};
};

} // namespace

TEST_F(Resample, SameRateAndLayoutPassBitForBit)
{
    // The formats are not compared: bytes pass as they are, into larger and into smaller samples.
    for (enum AVSampleFormat fmt : {AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_U8}) {
        ASSERT_EQ(init(param(48000), param(48000, 2, fmt)), 0);
        for (int i = 1; i <= 5; ++i) {
            const std::vector<uint8_t> block = noise(3840 + 4 * i, i);
            g_source->push(block, 48000, i * 20000, 3);
            const Output out = take();
            ASSERT_TRUE(out.valid);
            EXPECT_EQ(out.bytes, block);
            EXPECT_EQ(out.pts, i * 20000);
            EXPECT_EQ(out.serial, 3);
            EXPECT_EQ(out.sample_rate, 48000);
            EXPECT_EQ(out.channels, 2);
        }
        EXPECT_TRUE(g_source->all_returned());
    }
}

TEST_F(Resample, AnotherRateIsConvertedWithoutLossOrPileUp)
{
    constexpr int kBlocks = 200;
    constexpr int kPeriod = 896;
    ASSERT_EQ(init(param(44100), param(48000)), 0);
    std::vector<uint8_t> all;
    for (int i = 0; i < kBlocks; ++i) {
        g_source->push(tone(1000, 44100, i * kPeriod, kPeriod), 44100, 1 + i * 1000, 7);
        const Output out = take();
        ASSERT_TRUE(out.valid) << i;
        EXPECT_EQ(out.pts, 1 + i * 1000);
        EXPECT_EQ(out.serial, 7);
        EXPECT_EQ(out.sample_rate, 48000);
        all.insert(all.end(), out.bytes.begin(), out.bytes.end());
    }
    const double expected = kBlocks * kPeriod * 48000.0 / 44100;
    EXPECT_NEAR(all.size() / 4, expected, 64) << "more than the filter's memory is missing";
    EXPECT_NEAR(rising_zero_crossings(all), expected * 1000 / 48000, 2) << "not the tone that went in";
}

TEST_F(Resample, LayoutAndFormatFollowTheTarget)
{
    ASSERT_EQ(init(param(48000), param(48000, 6, AV_SAMPLE_FMT_S32)), 0);
    g_source->push(tone(500, 48000, 0, 960), 48000, 1);
    Output out = take();
    EXPECT_EQ(out.bytes.size(), 960u * 6 * 4);
    EXPECT_EQ(out.channels, 6);

    ASSERT_EQ(init(param(48000), param(48000, 1)), 0);
    g_source->push(tone(500, 48000, 0, 960), 48000, 1);
    out = take();
    EXPECT_EQ(out.bytes.size(), 960u * 2);
    EXPECT_EQ(out.channels, 1);
}

TEST_F(Resample, PlanarFormatsStayInsideTheirBuffers)
{
    ASSERT_EQ(init(param(44100, 2, AV_SAMPLE_FMT_S16P), param(48000, 2, AV_SAMPLE_FMT_FLTP)), 0);
    g_source->push(noise(896 * 4), 44100, 1);
    EXPECT_TRUE(take().valid);
}

TEST_F(Resample, ARateChangeRebuildsTheConverterOnce)
{
    const std::string text = logged("3", [] {
        ASSERT_EQ(init(param(48000), param(48000)), 0);
        for (int rate : {48000, 44100, 44100, 48000}) {
            const std::vector<uint8_t> block = tone(1000, rate, 0, 960);
            g_source->push(block, rate, 5000, 9);
            const Output out = take();
            EXPECT_EQ(out.bytes == block, rate == 48000) << rate;
            EXPECT_EQ(out.pts, 5000);
            EXPECT_EQ(out.serial, 9);
            EXPECT_EQ(out.sample_rate, 48000);
        }
        audio_resample_deinit();
    });
    EXPECT_EQ(occurrences(text, "] original sample_rate:44100 target sample_rate:48000\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "] original sample_rate:48000 target sample_rate:48000\n"), 1) << text;
    for (const char* message : {"[audio_resample ", "] enable_resample:1\n", "] frame_resample_queue id:0.\n",
                                "] thread_id: ", "] frame_serial:-1 -> 9\n", "] exit\n"})
        EXPECT_NE(text.find(message), std::string::npos) << message << text;
}

TEST_F(Resample, AnImpossibleRateIsTriedAgainWithEveryFrame)
{
    const std::string text = logged("1", [] {
        ASSERT_EQ(init(param(48000, 11), param(48000, 2)), 0);
        // More than the pool holds: no output frame is lost.
        for (int i = 0; i < 130; ++i)
            g_source->push(noise(22 * 10), 44100, 1, 1, 11);
        EXPECT_TRUE(eventually([] { return g_source->returned() == 130; }));
        audio_resample_deinit();
    });
    EXPECT_EQ(occurrences(text, "] Cannot create sample rate converter for conversion of 44100 Hz s16 11 channels to "
                                "48000 Hz s16 2 channels!\n"),
              130)
        << text;
}

TEST_F(Resample, ANewTimeLineDiscardsWhatWaits)
{
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    const std::string text = logged("2", [] {
        for (int i = 1; i <= 3; ++i)
            g_source->push(noise(400, i), 48000, i * 1000, 1);
        EXPECT_TRUE(eventually([] { return frame_queue_get_done_counts(g_resample_ctx.frame_resample_queue) == 3; }));
        g_source->push(noise(400, 4), 48000, 0, 2);
        EXPECT_TRUE(eventually([] { return g_source->returned() == 4; }));
        const Output out = take();
        EXPECT_EQ(out.pts, 0);
        EXPECT_EQ(out.serial, 2);
        EXPECT_EQ(out.bytes, noise(400, 4));
        EXPECT_FALSE(take(0).valid);
    });
    EXPECT_EQ(occurrences(text, "] audio resample queue need flush!\n"), 1) << text;
}

TEST_F(Resample, UnusableFramesAreDroppedAndGivenBack)
{
    for (const audio_param_t& tgt : {param(48000), param(32000)}) {
        ASSERT_EQ(init(param(48000), tgt), 0);
        const int before = g_source->returned();
        const std::string text = logged("2", [] {
            g_source->push(noise(400), 48000, 1, 1, 0);
            g_source->push(noise(400), 48000, 1, 1, -2);
            g_source->push(noise(400), 0, 1);
            g_source->push(noise(400), -48000, 1);
            g_source->push(noise(401), 48000, 1);
            g_source->push(noise(402), 48000, 1);
            auto no_data = std::make_unique<Source::Block>();
            no_data->frame.size = 400;
            no_data->frame.channels = 2;
            no_data->frame.sample_rate = 48000;
            g_source->push(std::move(no_data));
            auto negative = std::make_unique<Source::Block>();
            negative->bytes.reset(new uint8_t[4]);
            negative->frame.data = negative->bytes.get();
            negative->frame.size = -400;
            negative->frame.channels = 2;
            negative->frame.sample_rate = 48000;
            g_source->push(std::move(negative));
            g_source->push(tone(1000, 48000, 0, 960), 48000, 77);
            EXPECT_EQ(take().pts, 77) << "the stage goes on";
        });
        EXPECT_EQ(occurrences(text, "] invalid frame, "), 8) << text;
        EXPECT_TRUE(eventually([&] { return g_source->returned() == before + 9; }));
    }
}

TEST_F(Resample, ImpossibleFormatsTakeFramesAndDropThem)
{
    for (const auto& [src, tgt] :
         {std::pair(param(48000), param(48000, 2, AV_SAMPLE_FMT_NONE)), std::pair(param(48000, 0), param(48000)),
          std::pair(param(48000), param(48000, 0)), std::pair(param(48000), param(0)),
          std::pair(param(48000), param(48000, INT32_MAX))}) {
        ASSERT_EQ(init(src, tgt), 0);
        const int before = g_source->returned();
        g_source->push(noise(400), 48000, 1);
        EXPECT_TRUE(eventually([before] { return g_source->returned() > before; }));
        EXPECT_FALSE(take(0).valid);
    }
}

TEST_F(Resample, FramesThatContradictTheSourceFormatDoNotPileUp)
{
    ASSERT_EQ(init(param(44100), param(48000)), 0);
    for (int i = 1; i <= 50; ++i) {
        g_source->push(noise(896 * 16), 44100, i, 1, 8);
        ASSERT_TRUE(take().valid);
    }
    g_source->push(noise(896 * 4), 44100, 99);
    EXPECT_NEAR(take().bytes.size() / 4, 896 * 48000 / 44100, 32) << "a backlog comes out";
}

TEST_F(Resample, SwitchedOffItNeverTakesInput)
{
    set("enable_resample", "0");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_FALSE(audio_resample_is_enable_resample());
    g_source->push(noise(400), 48000, 1);
    EXPECT_FALSE(take(100).valid);
    EXPECT_EQ(g_source->asked(), 0);

    set("enable_resample", "1");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_TRUE(audio_resample_is_enable_resample());
    EXPECT_TRUE(take().valid);
}

TEST_F(Resample, ASourceThatHasNothingIsNotAskedInABusyLoop)
{
    static std::atomic<int> calls;
    calls = 0;
    ASSERT_EQ(audio_resample_init({param(48000), param(48000),
                                   [](int32_t) -> hdmi_player_audio_frame_t* {
                                       ++calls;
                                       return nullptr;
                                   },
                                   put_source}),
              0);
    const steady_clock::time_point begin = steady_clock::now();
    EXPECT_TRUE(eventually([] { return calls >= 10; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(80));
}

TEST_F(Resample, AFailedInitLeavesNothingBehind)
{
    std::string text = logged("1", [] {
        EXPECT_EQ(audio_resample_init({param(48000), param(48000), nullptr, put_source}), -1);
        EXPECT_EQ(audio_resample_init({param(48000), param(48000), dequeue_source, nullptr}), -1);
    });
    EXPECT_EQ(occurrences(text, "] invalid callback function.\n"), 2) << text;

    std::vector<int32_t> others;
    while (free_queue_slots() > 0)
        others.push_back(frame_queue_init(1, "OTHER"));
    text = logged("1", [] { EXPECT_EQ(init(param(44100), param(48000)), -1); });
    EXPECT_EQ(occurrences(text, "[audio_resample_init "), 1) << text;
    EXPECT_NE(text.find("] frame_queue_init failed.\n"), std::string::npos) << text;
    EXPECT_EQ(g_resample_ctx.audio_swr_ctx, nullptr);
    for (int32_t id : others)
        frame_queue_deinit(id);
    EXPECT_EQ(g_source->asked(), 0);
    EXPECT_EQ(init(param(44100), param(48000)), 0);
}

TEST_F(Resample, ASecondInitReplacesTheRunningStage)
{
    ASSERT_EQ(init(param(44100), param(48000)), 0);
    g_source->push(noise(400), 44100, 1);
    EXPECT_TRUE(eventually([] { return g_source->returned() == 1; }));
    BlockedCall<bool> consumer([] {
        take();
        return take().valid;
    });
    EXPECT_TRUE(eventually([] { return frame_queue_get_done_counts(g_resample_ctx.frame_resample_queue) == 0; }));
    EXPECT_TRUE(consumer.asleep());

    static std::unique_ptr<Source> second;
    second = std::make_unique<Source>();
    ASSERT_EQ(audio_resample_init({param(48000), param(48000), [](int32_t ms) { return second->dequeue(ms); },
                                   [](hdmi_player_audio_frame_t* frame) { return second->put(frame); }}),
              0);
    EXPECT_FALSE(consumer.result()) << "a wait on the first stage ends";
    EXPECT_EQ(free_queue_slots(), static_cast<int32_t>(FRAME_QUEUE_MAX) - 1);
    const int asked = g_source->asked();
    for (int i = 0; i < 5; ++i) {
        second->push(noise(400), 48000, 1);
        EXPECT_EQ(take().bytes, noise(400));
    }
    EXPECT_EQ(g_source->asked(), asked) << "the first worker is gone";
}

TEST_F(Resample, WithoutInitCallsFailAndDeinitIsHarmless)
{
    EXPECT_EQ(audio_resample_deinit(), 0);
    hdmi_player_audio_frame_t* frame = nullptr;
    hdmi_player_audio_frame_t foreign = {};
    EXPECT_EQ(audio_resample_get_pcm_frame(&frame, 0), -1);
    EXPECT_EQ(audio_resample_put_pcm_frame(&foreign), -1);
    EXPECT_FALSE(audio_resample_is_enable_resample());
    const std::string text = logged("1", [] {
        EXPECT_EQ(audio_resample_get_pcm_frame(nullptr, 0), -1);
        EXPECT_EQ(audio_resample_put_pcm_frame(nullptr), -1);
    });
    EXPECT_EQ(occurrences(text, "] frame is null.\n"), 2) << text;
}

TEST_F(Resample, ASetInitializedFlagRefusesEverything)
{
    g_resample_ctx.initialized = true;
    const std::string text = logged("2", [] {
        hdmi_player_audio_frame_t* frame = nullptr;
        hdmi_player_audio_frame_t foreign = {};
        EXPECT_EQ(init(param(48000), param(48000)), -1);
        EXPECT_EQ(audio_resample_get_pcm_frame(&frame, 0), -1);
        EXPECT_EQ(audio_resample_put_pcm_frame(&foreign), -1);
        EXPECT_FALSE(audio_resample_is_enable_resample());
        EXPECT_EQ(audio_resample_deinit(), -1);
    });
    g_resample_ctx.initialized = false;
    EXPECT_EQ(occurrences(text, " W ["), 5) << text;
    EXPECT_EQ(occurrences(text, "] module has been initialized\n"), 5) << text;
}

TEST_F(Resample, DeinitEndsAWorkerThatWaitsForRoomAndAConsumerThatWaitsForFrames)
{
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    for (int i = 1; i <= 130; ++i)
        g_source->push(noise(40), 48000, i);
    EXPECT_TRUE(eventually([] { return frame_queue_get_done_counts(g_resample_ctx.frame_resample_queue) == 128; }));
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
    EXPECT_EQ(g_source->returned(), 129) << "the frame in hand is given back";

    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_TRUE(take().valid);
    BlockedCall<bool> consumer([] { return take(-1).valid; });
    EXPECT_TRUE(consumer.asleep());
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
    EXPECT_FALSE(consumer.result());
}

TEST_F(Resample, TheDummyDelayHoldsOneCallPerInterval)
{
    set("dummy_alg_delay", "1");
    set("dummy_alg_delay_time", "100");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    const std::string text = logged("3", [] {
        for (int i = 1; i <= 4; ++i)
            g_source->push(noise(40), 48000, i);
        EXPECT_TRUE(take().valid) << "begins the interval";
        EXPECT_TRUE(take().valid) << "within it";
        end_delay_interval();
        const steady_clock::time_point begin = steady_clock::now();
        EXPECT_TRUE(take().valid);
        EXPECT_GE(steady_clock::now() - begin, milliseconds(95));
        EXPECT_TRUE(take().valid) << "within the next one";
    });
    EXPECT_EQ(occurrences(text, "] dummy alg delay 100 ms\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "I [audio_resample_get_pcm_frame "), 1) << text;
}

TEST_F(Resample, TheRandomDelayDrawsBothValues)
{
    set("dummy_alg_delay", "2");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    g_source->push(noise(40), 48000, 1);
    EXPECT_TRUE(take().valid);
    mutex_guard lock(g_resample_ctx.internal_mutex);
    EXPECT_GE(g_resample_ctx.dummy_alg_delay_interval, 1);
    EXPECT_LE(g_resample_ctx.dummy_alg_delay_interval, 10);
    EXPECT_GE(g_resample_ctx.dummy_alg_delay_time, 1);
    EXPECT_LE(g_resample_ctx.dummy_alg_delay_time, 100);
}

TEST_F(Resample, AStopDoesNotWaitForADummyDelay)
{
    set("dummy_alg_delay", "1");
    set("dummy_alg_delay_time", "600000");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    for (int i = 1; i <= 3; ++i)
        g_source->push(noise(40), 48000, i);
    EXPECT_TRUE(take().valid);
    const auto get = [] {
        hdmi_player_audio_frame_t* frame = nullptr;
        return audio_resample_get_pcm_frame(&frame, 10000);
    };
    end_delay_interval();
    BlockedCall<int32_t> one(get);
    EXPECT_TRUE(delay_begun());
    end_delay_interval();
    BlockedCall<int32_t> two(get);
    EXPECT_TRUE(delay_begun());
    EXPECT_TRUE(one.asleep() && two.asleep());
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
    EXPECT_EQ(one.result(), 0);
    EXPECT_EQ(two.result(), 0);
}

// Lifecycle calls of several threads at once: each pair of a start and a stop stays whole.
TEST_F(Resample, ConcurrentInitAndDeinitLeaveNothingBehind)
{
    std::vector<std::thread> threads;
    for (int n = 0; n < 3; ++n) {
        threads.emplace_back([n] {
            for (int round = 0; round < 5; ++round) {
                n == 0 ? (void)take(1) : (void)(n == 1 ? init(param(44100), param(48000)) : audio_resample_deinit());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}
