// SPDX-License-Identifier: MIT
#include "internal/resample.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "internal/conversion_plan.h"
#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/log_capture.h"
#include "support/source_queue.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

int32_t converted()
{
    const read_guard api(g_resample_ctx.api_rwlock);
    return frame_queue_get_done_counts(g_resample_ctx.frame_resample_queue);
}

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
    hdmi_player_audio_frame_t frame = {};
};

Output take(int32_t timeout_ms = 10000)
{
    hdmi_player_audio_frame_t* frame = nullptr;
    if (audio_resample_get_pcm_frame(&frame, timeout_ms) != 0)
        return {};
    EXPECT_LE(frame->size, frame->buf_size);
    Output result = {true, {frame->data, frame->data + frame->size}, *frame};
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

ptrdiff_t threads()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

class Resample : public testing::Test
{
protected:
    void SetUp() override
    {
        open_source();
        av_log_set_level(AV_LOG_QUIET); // the converter library complains too, on standard error
    }
    void TearDown() override
    {
        EXPECT_EQ(audio_resample_deinit(), 0);
        close_source();
        EXPECT_EQ(free_queue_slots(), static_cast<int32_t>(FRAME_QUEUE_MAX));
        for (const char* name : {"enable_resample", "dummy_alg_delay", "dummy_alg_delay_time"})
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
    /// What the stage logs from an init over @p action to a deinit, which ends its thread.
    template <typename Action>
    static std::string session(const char* level, audio_param_t src, audio_param_t tgt, Action action)
    {
        return logged(level, [&] {
            ASSERT_EQ(init(src, tgt), 0);
            action();
            EXPECT_EQ(audio_resample_deinit(), 0);
        });
    }

    LogLevel quiet_{"0"};
};

} // namespace

TEST_F(Resample, SameRateAndLayoutPassBitForBit)
{
    // The formats are not compared: bytes pass as they are, into larger and into smaller samples.
    for (enum AVSampleFormat fmt : {AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_U8}) {
        const std::string text = session("2", param(48000), param(48000, 2, fmt), [] {
            for (size_t size : {3844, 3848, 401, 0}) {
                push(noise(size), 48000, 20000, 3);
                const Output out = take();
                EXPECT_EQ(out.bytes, noise(size));
                EXPECT_TRUE(out.frame.pts == 20000 && out.frame.serial == 3);
                EXPECT_TRUE(out.frame.sample_rate == 48000 && out.frame.channels == 2);
            }
        });
        expect_once(text, {" W [", "] frame size:401 is not whole samples\n"});
    }
}

TEST_F(Resample, AnotherRateIsConvertedWithoutLossOrPileUp)
{
    constexpr int kBlocks = 200;
    constexpr int kPeriod = 896;
    ASSERT_EQ(init(param(44100), param(48000)), 0);
    std::vector<uint8_t> all;
    for (int i = 0; i < kBlocks; ++i) {
        push(tone(1000, 44100, i * kPeriod, kPeriod), 44100, 1 + i * 1000, 7);
        const Output out = take();
        ASSERT_TRUE(out.valid) << i;
        EXPECT_TRUE(out.frame.pts == 1 + i * 1000 && out.frame.serial == 7 && out.frame.sample_rate == 48000);
        all.insert(all.end(), out.bytes.begin(), out.bytes.end());
    }
    const double expected = kBlocks * kPeriod * 48000.0 / 44100;
    EXPECT_NEAR(all.size() / 4, expected, 64) << "more than the filter's memory is missing";
    EXPECT_NEAR(rising_zero_crossings(all), expected * 1000 / 48000, 2) << "not the tone that went in";

    // Frames that contradict the source format leave no backlog behind.
    for (int i = 1; i <= 50; ++i) {
        push(noise(896 * 16), 44100, i, 1, 8);
        ASSERT_TRUE(take().valid);
    }
    push(noise(896 * 4), 44100, 99);
    EXPECT_NEAR(take().bytes.size() / 4, 896 * 48000 / 44100, 32);
}

TEST_F(Resample, LayoutAndFormatFollowTheTarget)
{
    const std::pair<audio_param_t, size_t> rows[] = {{param(48000, 6, AV_SAMPLE_FMT_S32), 960 * 6 * 4},
                                                     {param(48000, 1), 960 * 2}};
    for (const auto& [tgt, bytes] : rows) {
        ASSERT_EQ(init(param(48000), tgt), 0);
        push(tone(500, 48000, 0, 960), 48000, 1);
        const Output out = take();
        EXPECT_EQ(out.bytes.size(), bytes);
        EXPECT_EQ(out.frame.channels, tgt.channels);
    }
    // Planar samples stay inside their buffers.
    ASSERT_EQ(init(param(44100, 2, AV_SAMPLE_FMT_S16P), param(48000, 2, AV_SAMPLE_FMT_FLTP)), 0);
    push(noise(896 * 4), 44100, 1);
    EXPECT_TRUE(take().valid);
}

TEST_F(Resample, ARateChangeRebuildsTheConverterOnce)
{
    const std::string text = session("3", param(48000), param(48000), [] {
        for (int rate : {48000, 44100, 44100, 48000}) {
            const std::vector<uint8_t> block = tone(1000, rate, 0, 960);
            push(block, rate, 5000, 9);
            const Output out = take();
            EXPECT_EQ(out.bytes == block, rate == 48000) << rate;
            EXPECT_TRUE(out.frame.pts == 5000 && out.frame.serial == 9 && out.frame.sample_rate == 48000);
        }
    });
    for (const char* message :
         {"] original sample_rate:44100 target sample_rate:48000\n",
          "] original sample_rate:48000 target sample_rate:48000\n", "] enable_resample:1\n",
          "] frame_resample_queue id:1.\n", "] thread_id: ", "] frame_serial:-1 -> 9\n", "] exit\n"})
        EXPECT_EQ(occurrences(text, message), 1) << message << text;
}

TEST_F(Resample, AFrameIsPlannedByItsConverterThenBySize)
{
    const auto described = [](audio_param_t format, int64_t layout, int frame_size) {
        format.channel_layout = layout;
        format.frame_size = frame_size;
        return format;
    };
    const audio_param_t stereo = described(param(48000), 3, 4), stereo_44 = described(param(44100), 3, 4);
    const audio_param_t mono = described(param(48000, 1), 4, 2), lost = described(param(RESAMPLE_RATE_NONE), 3, 4);
    const audio_param_t bytes = described(param(48000, 2, AV_SAMPLE_FMT_U8), 3, 2);
    const struct {
        audio_param_t src, tgt;
        bool has_converter;
        int rate;
        bool rate_changed, converts;
        int buf_size;
    } rows[] = {
        // The present converter, or the present lack of one, fits.
        {stereo, stereo, false, 48000, false, false, (960 + 64) * 4},
        {stereo_44, stereo, true, 44100, false, true, (1044 + 64) * 4},
        {stereo, mono, true, 48000, false, true, (960 + 64) * 2},
        // Another rate: the target's own needs none, whatever the layouts were.
        {stereo, stereo, false, 44100, true, true, (1044 + 64) * 4},
        {stereo_44, stereo, true, 48000, true, false, (960 + 64) * 4},
        {stereo_44, mono, true, 48000, true, false, 3840},
        // The converter was lost to a failure.
        {lost, stereo, false, 44100, true, true, (1044 + 64) * 4},
        {lost, stereo, false, 48000, true, false, (960 + 64) * 4},
        {lost, mono, false, 48000, true, true, (960 + 64) * 2},
        // Smaller samples: a copy has room for every byte, a conversion what it needs.
        {stereo, bytes, false, 48000, false, false, 3840},
        {stereo_44, bytes, true, 44100, false, true, (1044 + 64) * 2},
    };
    uint8_t byte = 0;
    for (const auto& row : rows) {
        const hdmi_player_audio_frame_t frame = {&byte, 3840, 0, row.rate, 2, 0, 0};
        const conversion_plan_t plan = plan_conversion(row.src, row.tgt, row.has_converter, frame);
        EXPECT_TRUE(plan.usable && plan.nb_frames == 960) << &row - rows;
        EXPECT_TRUE(plan.rate_changed == row.rate_changed && plan.converts == row.converts) << &row - rows;
        EXPECT_EQ(plan.buf_size, row.buf_size) << &row - rows;
    }
}

// A missing converter must not pass for none needed: 44.1 kHz would play 8.8 % fast.
TEST_F(Resample, AfterAConverterWasLostTheNextFrameBuildsAnother)
{
    // No converter goes from the highest rate there is to such a low one.
    std::string text = session("3", param(11025), param(8000), [] {
        for (int rate : {11025, INT32_MAX, 11025}) {
            push(tone(500, 11025, 0, 1102), rate, 1);
            const Output out = take(rate == INT32_MAX ? 100 : 10000);
            EXPECT_EQ(out.valid, rate != INT32_MAX);
            EXPECT_NEAR(out.bytes.size() / 4, out.valid ? 800 : 0, 32) << "copied as it was";
        }
    });
    expect_once(text, {"] Cannot create sample rate converter for conversion of 2147483647 Hz ",
                       "] original sample_rate:11025 target sample_rate:8000\n"});
    // The first converter cannot start. The layout alone needs one as well as the rate.
    for (int rate : {44100, 48000}) {
        text = session("1", param(rate, 11), param(48000), [rate] {
            for (int i = 1; i <= 3; ++i)
                push(noise(22 * 10), rate, 1, 1, 11);
            EXPECT_TRUE(source_drains());
            EXPECT_FALSE(take(0).valid);
        });
        EXPECT_EQ(occurrences(text, "] swr_convert failed, len:"), 1) << text;
        EXPECT_EQ(occurrences(text, "] Cannot create sample rate converter "), 2) << text;
    }
}

TEST_F(Resample, ANewTimeLineDiscardsWhatWaits)
{
    const std::string text = session("2", param(48000), param(48000), [] {
        for (int i = 1; i <= 3; ++i)
            push(noise(400, i), 48000, i * 1000, 1);
        EXPECT_TRUE(eventually([] { return converted() == 3; }));
        push(noise(400, 4), 48000, 0, 2);
        EXPECT_TRUE(eventually([] { return g_returned == 4 && converted() == 1; }));
        const Output out = take();
        EXPECT_TRUE(out.frame.pts == 0 && out.frame.serial == 2);
        EXPECT_EQ(out.bytes, noise(400, 4));
    });
    expect_once(text, {" W [audio_resample ", "] audio resample queue need flush!\n"});
}

TEST_F(Resample, UnusableFramesAreDroppedAndGivenBack)
{
    for (const audio_param_t& tgt : {param(48000), param(32000)}) {
        const std::string text = session("2", param(48000), tgt, [] {
            for (const auto& [size, rate, channels] :
                 {std::tuple(400, 48000, 0), {400, 48000, -2}, {400, 0, 2}, {400, -48000, 2}, {-400, 48000, 2}}) {
                frame_info_t* record = frame_queue_pool_acquire(g_source, 400);
                record->frame.size = size;
                record->frame.sample_rate = rate;
                record->frame.channels = channels;
                frame_queue_done_enqueue(g_source, record);
                ++g_pushed;
            }
            push(tone(1000, 48000, 0, 960), 48000, 77);
            EXPECT_EQ(take().frame.pts, 77) << "the stage goes on";
        });
        EXPECT_EQ(occurrences(text, "] invalid frame, "), 5) << text;
    }
    // A rate that no converter takes is tried with every frame, of which there are more than the pools hold.
    const std::string text = session("1", param(48000, 11), param(48000, 2), [] {
        for (int i = 0; i < 130; ++i)
            push(noise(22 * 10), 44100, 1, 1, 11);
        EXPECT_TRUE(source_drains());
    });
    EXPECT_EQ(occurrences(text, "] Cannot create sample rate converter for conversion of 44100 Hz s16 11 channels to "
                                "48000 Hz s16 2 channels!\n"),
              130);

    const std::pair<audio_param_t, audio_param_t> impossible[] = {{param(48000), param(48000, 2, AV_SAMPLE_FMT_NONE)},
                                                                  {param(48000, 0), param(48000)},
                                                                  {param(48000), param(48000, 0)},
                                                                  {param(48000), param(0)},
                                                                  {param(48000), param(48000, INT32_MAX)}};
    for (const auto& [src, tgt] : impossible) {
        ASSERT_EQ(init(src, tgt), 0);
        push(noise(400), 48000, 1);
        EXPECT_TRUE(source_drains());
        EXPECT_FALSE(take(0).valid);
    }
}

TEST_F(Resample, SwitchedOffItNeverTakesInputAndAnEmptySourceIsNotAskedInABusyLoop)
{
    set("enable_resample", "0");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_FALSE(audio_resample_is_enable_resample());
    push(noise(400));
    EXPECT_FALSE(take(100).valid);
    EXPECT_EQ(g_asked, 0);
    set("enable_resample", "1");
    frame_queue_abort(g_source);
    const steady_clock::time_point begin = steady_clock::now();
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_TRUE(eventually([] { return g_asked > 10; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(80));
}

TEST_F(Resample, AFailedInitLeavesNothingBehind)
{
    std::vector<int32_t> others;
    while (free_queue_slots() > 0)
        others.push_back(frame_queue_init(1, "OTHER"));
    const std::string text = logged("1", [] {
        EXPECT_EQ(audio_resample_init({param(48000), param(48000), nullptr, put_source}), -1);
        EXPECT_EQ(audio_resample_init({param(48000), param(48000), dequeue_source, nullptr}), -1);
        EXPECT_EQ(init(param(44100), param(48000)), -1);
    });
    EXPECT_EQ(occurrences(text, "] invalid callback function.\n"), 2) << text;
    EXPECT_EQ(occurrences(text, "] frame_queue_init failed.\n"), 1) << text;
    EXPECT_EQ(occurrences(text, " E [audio_resample_init "), 3) << text;
    EXPECT_EQ(g_resample_ctx.audio_swr_ctx, nullptr);
    for (int32_t id : others)
        frame_queue_deinit(id);
    EXPECT_EQ(g_asked, 0);
    // Without an init calls fail, and a deinit is harmless.
    EXPECT_EQ(audio_resample_deinit(), 0);
    EXPECT_FALSE(audio_resample_is_enable_resample());
    hdmi_player_audio_frame_t* frame = nullptr;
    hdmi_player_audio_frame_t foreign = {};
    const std::string refusals = logged("2", [&] {
        EXPECT_EQ(audio_resample_get_pcm_frame(&frame, 0) + audio_resample_put_pcm_frame(&foreign), -2);
        EXPECT_EQ(audio_resample_get_pcm_frame(nullptr, 0) + audio_resample_put_pcm_frame(nullptr), -2);
    });
    EXPECT_EQ(occurrences(refusals, "] frame is null.\n"), 2) << refusals;
}

TEST_F(Resample, ASecondInitReplacesTheRunningStage)
{
    const ptrdiff_t before = threads();
    ASSERT_EQ(init(param(44100), param(48000)), 0);
    BlockedCall<bool> consumer([] { return take(-1).valid; });
    EXPECT_TRUE(consumer.asleep());
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_FALSE(consumer.result()) << "a wait on the first stage ends";
    EXPECT_EQ(free_queue_slots(), static_cast<int32_t>(FRAME_QUEUE_MAX) - 2);
    push(noise(400), 48000, 1);
    EXPECT_EQ(take().bytes, noise(400));
    EXPECT_TRUE(eventually([before] { return threads() == before + 1; })) << "the first worker is still there";
}

TEST_F(Resample, DeinitEndsAWorkerThatWaitsForRoomAndAConsumerThatWaitsForFrames)
{
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    for (int i = 1; i <= 130; ++i)
        push(noise(40), 48000, i);
    EXPECT_TRUE(eventually([] { return converted() == 128 && g_taken == 129; }));
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
    EXPECT_EQ(g_returned, 129) << "the frame in hand is given back";

    ASSERT_EQ(init(param(48000), param(48000)), 0);
    EXPECT_TRUE(take().valid);
    BlockedCall<bool> consumer([] { return take(-1).valid; });
    EXPECT_TRUE(consumer.asleep());
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
    EXPECT_FALSE(consumer.result());
}

TEST_F(Resample, CallersInALoopDoNotHoldUpDeinit)
{
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    Callers callers;
    callers.run([](int) { take(1); }, 32);
    EXPECT_TRUE(eventually([&] { return callers.calls() > 100; }));
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
}

TEST_F(Resample, TheDummyDelayHoldsOneCallPerIntervalAndNoStop)
{
    set("dummy_alg_delay", "1");
    const std::string text = session("3", param(48000), param(48000), [] {
        for (int i = 1; i <= 4; ++i)
            push(noise(40), 48000, i);
        EXPECT_TRUE(take().valid) << "begins the interval";
        EXPECT_TRUE(take().valid) << "within it";
        end_delay_interval();
        const steady_clock::time_point begin = steady_clock::now();
        EXPECT_TRUE(take().valid);
        EXPECT_GE(steady_clock::now() - begin, milliseconds(95));
        EXPECT_TRUE(take().valid) << "within the next one";
    });
    expect_once(text, {"] dummy alg delay 100 ms\n", " I [audio_resample_get_pcm_frame "});

    set("dummy_alg_delay_time", "600000");
    ASSERT_EQ(init(param(48000), param(48000)), 0);
    push(noise(40), 48000, 1);
    push(noise(40), 48000, 2);
    EXPECT_TRUE(take().valid);
    end_delay_interval();
    BlockedCall<int32_t> one([] {
        hdmi_player_audio_frame_t* frame = nullptr;
        return audio_resample_get_pcm_frame(&frame, 10000);
    });
    EXPECT_TRUE(eventually([] { // the delay has begun
        mutex_guard lock(g_resample_ctx.internal_mutex);
        return g_resample_ctx.dummy_alg_delay_start_time_us > 1;
    }));
    EXPECT_TRUE(one.asleep());
    EXPECT_EQ(BlockedCall<int32_t>(audio_resample_deinit).result(), 0);
    EXPECT_EQ(one.result(), 0);
}

// Lifecycle calls of several threads at once: each pair of a start and a stop stays whole.
TEST_F(Resample, ConcurrentInitAndDeinitLeaveNothingBehind)
{
    Callers callers;
    callers.run([](int) { take(1); });
    callers.run([](int) { init(param(44100), param(48000)); });
    callers.run([](int) { audio_resample_deinit(); });
    EXPECT_TRUE(eventually([&] { return callers.calls() > 15; }));
}
