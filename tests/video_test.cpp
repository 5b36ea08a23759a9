// SPDX-License-Identifier: MIT
#include "internal/video.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "internal/common.h"
#include "platform_hooks.h"
#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/gate.h"
#include "support/locked.h"

namespace
{

constexpr int kSlots = 5;
constexpr int64_t kDelayMs = 76;
constexpr unsigned kHangSeconds = 60;

using Calls = std::vector<std::string>;

int id_of(const hdmi_player_video_frame_t& frame)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(frame.buf_handle));
}
hdmi_player_video_frame_t frame_of(int id, int64_t pts = 12345)
{
    return {reinterpret_cast<void*>(static_cast<intptr_t>(id)), pts};
}

/// The host and the player's relays: what the module calls, in order.
struct Host : Locked {
    Calls calls;
    std::vector<int64_t> flip_pts;
    std::function<void(int)> on_flip = [](int) {};
    std::atomic<bool> audio_continues{true};
    // Set before init.
    std::function<void()> on_event = [] {};
    std::function<void()> on_audio_question = [] {};

    void set_on_flip(std::function<void(int)> action)
    {
        locked([&] { on_flip = std::move(action); });
    }
    void note(const std::string& call)
    {
        locked([&] { calls.push_back(call); });
    }
    Calls take_calls()
    {
        return locked([this] { return std::exchange(calls, {}); });
    }
    size_t count(const std::string& prefix)
    {
        const auto begins = [&](const std::string& call) { return call.rfind(prefix, 0) == 0; };
        return locked([&] { return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), begins)); });
    }
    /// Waits for @p call.
    bool hears(const std::string& call)
    {
        return eventually([&] { return count(call) == 1; });
    }
    void flip(const hdmi_player_video_frame_t& frame)
    {
        const auto action = locked([&] {
            calls.push_back("flip " + std::to_string(id_of(frame)));
            flip_pts.push_back(frame.pts);
            return on_flip;
        });
        action(id_of(frame));
    }
};

Host* g_host = nullptr;

const Calls kReset = {"event 1", "audio reset"};

// Console output, captured all the time: the level cannot be changed while the module's threads read the environment.
std::string take_log()
{
    std::string log = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return log;
}

std::string log_of(const std::function<void()>& action)
{
    take_log();
    action();
    return take_log();
}

bool has(const std::string& log, const std::string& part) { return log.find(part) != std::string::npos; }

void set_log_level(const char* level) { setenv("debug_hdmiplayer_log_level", level, 1); }

class VideoTest : public testing::Test
{
protected:
    void SetUp() override
    {
        alarm(kHangSeconds); // a hang ends the program
        g_host = &host_;
        for (const char* name : {"disable_avsync", "video_wait_audio", "log_video_fq_state", "log_video_fq_api"})
            unsetenv((std::string("debug_hdmiplayer_") + name).c_str());
        set_log_level("4");
        testing::internal::CaptureStdout();
        g_hooks = {};
        g_hooks.wait_vblank = [](int, drmVBlank*) { return usleep(2000); };
    }
    void TearDown() override
    {
        video_deinit();
        const std::string log = testing::internal::GetCapturedStdout();
        if (HasFailure())
            fputs(log.c_str(), stdout);
        alarm(0);
    }

    static video_config_t config(int slots = kSlots)
    {
        video_config_t config = {};
        config.video_frame_queue_size = slots;
        config.drm_info = {7, 500.0F};
        config.video_frame_drop_cb = [](auto frame) { g_host->note("drop " + std::to_string(id_of(frame))); };
        config.video_frame_flip_cb = [](auto frame) { g_host->flip(frame); };
        config.event_cb = [](auto event) {
            g_host->note("event " + std::to_string(event));
            g_host->on_event();
        };
        config.notify_audio_reset_cb = [] { g_host->note("audio reset"); };
        config.ai_read_continued_cb = [] {
            g_host->on_audio_question();
            return g_host->audio_continues.load();
        };
        return config;
    }

    void start(int slots = kSlots)
    {
        ASSERT_EQ(video_init(config(slots)), 0);
        ASSERT_EQ(video_set_fixed_delay(kDelayMs), 0);
    }

    // Renders through the reset at the start until the first frame is paced.
    void start_synchronized(int slots = kSlots)
    {
        start(slots);
        EXPECT_EQ(render(101), -1);
        audio_runs();
        EXPECT_EQ(render(102), 0);
        ASSERT_TRUE(eventually([this] { return host_.count("flip") == 2; }));
        host_.take_calls();
    }
    void audio_runs() { EXPECT_EQ(video_set_base_media_time(1000, 1000000, ++serial_), 0); }
    // The next render begins a reset.
    void expect_reset(int id)
    {
        host_.take_calls();
        EXPECT_EQ(render(id), -1);
        EXPECT_EQ(host_.take_calls(), kReset);
    }

    // Renders frame 1, whose flip callback does @p action; returns when that waits at the gate_.
    void render_into_gate(std::function<void()> action)
    {
        host_.set_on_flip([action = std::move(action)](int id) {
            if (id == 1)
                action();
        });
        render(1);
        ASSERT_TRUE(gate_.reached());
    }
    static int32_t render(int id)
    {
        hdmi_player_video_frame_t frame = frame_of(id);
        return video_render(&frame);
    }

    // Lets @p us pass between the last render and the next one.
    static void pass_time(int64_t us)
    {
        const mutex_guard guard(g_video_info.internal_mutex);
        g_video_info.last_system_time -= us;
    }

    static bool sync_changing()
    {
        const mutex_guard guard(g_video_info.internal_mutex);
        return g_video_info.sync_changing;
    }

    static int32_t queued() { return g_video_info.frame_queue.frames_count; }

    Host host_;
    Gate gate_;
    int32_t serial_ = 0;
};

/// The queue of the module's record alone, without the module.
class VideoFrameQueueTest : public VideoTest
{
protected:
    void SetUp() override
    {
        VideoTest::SetUp();
        open();
        g_video_info.video_frame_flip_cb = config().video_frame_flip_cb;
        g_video_info.video_frame_drop_cb = config().video_frame_drop_cb;
    }
    void TearDown() override
    {
        video_frame_queue_deinit(q_);
        VideoTest::TearDown();
    }
    void open() { ASSERT_EQ(video_frame_queue_init(q_, kSlots), 0); }

    static int32_t push(int id)
    {
        hdmi_player_video_frame_t frame = frame_of(id, id * 10);
        return video_frame_queue_push_frame(&frame);
    }
    int get()
    {
        hdmi_player_video_frame_t frame = {};
        return video_frame_queue_get_frame(q_, &frame) == 0 ? id_of(frame) : -1;
    }

    video_frame_queue_t* q_ = &g_video_info.frame_queue;
    synchronizer_frame_info_t info_ = {};
};

TEST_F(VideoFrameQueueTest, HoldsItsPoolAndGivesFramesBackInOrder)
{
    for (int id = 1; id <= kSlots; ++id)
        EXPECT_EQ(push(id), 0);
    const std::string full = log_of([] { EXPECT_EQ(push(6), -1); });
    EXPECT_TRUE(has(full, "[video_frame_queue_push_frame ") && has(full, "] free_frames_count(0) <= 0\n")) << full;
    hdmi_player_video_frame_t head = {};
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(video_frame_queue_peek_frame(q_, &head) == 0 && id_of(head) == 1 && head.pts == 10);
    // Freed slots come into use again while younger frames wait.
    int next = kSlots + 1;
    for (int id = 1; id < 50; ++id) {
        EXPECT_EQ(get(), id);
        EXPECT_EQ(push(next++), 0);
        EXPECT_EQ(q_->frames_count, kSlots);
    }
    for (int id = 50; id < next; ++id)
        EXPECT_EQ(get(), id);
    const std::string empty = log_of([this] { EXPECT_EQ(get(), -1); });
    EXPECT_TRUE(has(empty, "[video_frame_queue_get_frame ") && has(empty, "] frames_count(0) < 0\n")) << empty;
    const mutex_guard guard(q_->mutex);
    EXPECT_EQ(q_->arry_pool_frames[0].frame.buf_handle, nullptr); // nothing of the host's is kept
}

TEST_F(VideoFrameQueueTest, RefusesEachCallThatLacksSomething)
{
    hdmi_player_video_frame_t frame = {};
    int32_t count = 0;
    EXPECT_EQ(video_frame_queue_init(nullptr, 1) + video_frame_queue_deinit(nullptr) +
                  video_frame_queue_push_frame(nullptr) + video_frame_queue_get_frame(nullptr, &frame) +
                  video_frame_queue_peek_frame(q_, nullptr),
              -5);
    EXPECT_FALSE(sync_get_frame_count_cb(nullptr, &count) || sync_get_frame_count_cb(&g_video_info, nullptr) ||
                 sync_peek_frame_cb(nullptr, &info_) || sync_peek_frame_cb(&g_video_info, nullptr) ||
                 sync_get_frame_cb(nullptr, &info_) || sync_get_frame_cb(&g_video_info, nullptr) ||
                 sync_drop_frame_cb(nullptr, &info_) || sync_drop_frame_cb(&g_video_info, nullptr) ||
                 sync_flip_frame_cb(nullptr, &info_) || sync_flip_frame_cb(&g_video_info, nullptr));
    // A queue without frames keeps no turn.
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(sync_get_frame_cb(&g_video_info, &info_) || sync_peek_frame_cb(&g_video_info, &info_));
    push(1);
    EXPECT_TRUE(sync_get_frame_cb(&g_video_info, &info_) && sync_drop_frame_cb(&g_video_info, &info_));
}

TEST_F(VideoFrameQueueTest, TracesWhatItsSwitchesAdmit)
{
    EXPECT_FALSE(has(log_of([this] { push(1), get(); }), ">>>"));
    video_frame_queue_deinit(q_);
    setenv("debug_hdmiplayer_log_video_fq_api", "1", 1);
    setenv("debug_hdmiplayer_log_video_fq_state", "1", 1);
    open();
    set_log_level("2");
    EXPECT_EQ(log_of([this] { push(1), get(); }), "");
    set_log_level("4");
    const std::string debug = log_of([this] { push(1), get(); });
    EXPECT_TRUE(has(debug, "] frames free:5 done:0, buf:0x1 pts:10 used:1\n"));
    EXPECT_LT(debug.find("] >>>\n"), debug.find("] frames free:4 done:1, buf:0x1 pts:10 used:1\n"));
    EXPECT_LT(debug.find("] frames free"), debug.find("] <<<\n"));
}

TEST_F(VideoFrameQueueTest, MeasuresFromFlipToFlip)
{
    push(3);
    EXPECT_TRUE(sync_get_frame_cb(&g_video_info, &info_));
    g_video_info.last_flip_time_ms = 0;
    const auto flip = [this] { sync_flip_frame_cb(&g_video_info, &info_); };
    EXPECT_FALSE(has(log_of(flip), "diff last"));
    g_video_info.en_fps_log = true;
    EXPECT_TRUE(has(log_of(flip), "] diff last:0\n"));
    g_video_info.last_flip_time_ms -= 250000;
    EXPECT_TRUE(has(log_of(flip), "] diff last:250"));
    EXPECT_FALSE(has(log_of(flip), "] diff last:250"));
    g_video_info.en_fps_log = false;
    sync_drop_frame_cb(&g_video_info, &info_);
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 3", "flip 3", "flip 3", "flip 3", "drop 3"}));
    EXPECT_EQ(host_.flip_pts.back(), 30);
}

TEST_F(VideoTest, RefusesWrongOrderAndIncompleteConfigurations)
{
    EXPECT_EQ(video_deinit() + video_set_base_media_time(1, 2, 3) + video_avsync_reset(true, true), -3);
    EXPECT_FALSE(video_is_disable_avsync());
    EXPECT_EQ(g_video_info.frame_serial, 0);
    for (int hole = 0; hole < 6; ++hole) {
        video_config_t incomplete = config(hole == 0 ? 0 : kSlots);
        incomplete.video_frame_drop_cb = hole == 1 ? nullptr : incomplete.video_frame_drop_cb;
        incomplete.video_frame_flip_cb = hole == 2 ? nullptr : incomplete.video_frame_flip_cb;
        incomplete.event_cb = hole == 3 ? nullptr : incomplete.event_cb;
        incomplete.notify_audio_reset_cb = hole == 4 ? nullptr : incomplete.notify_audio_reset_cb;
        incomplete.ai_read_continued_cb = hole == 5 ? nullptr : incomplete.ai_read_continued_cb;
        EXPECT_EQ(video_init(incomplete) + render(1), -2);
    }
    start();
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(video_init(config()), -1); }), "] module has been initialized\n"));
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(video_render(nullptr), -1); }), "[video_render "));
    EXPECT_TRUE(host_.take_calls().empty());
}

TEST_F(VideoTest, HasItsFramesPacedByAudioAlsoWithoutADisplay)
{
    video_config_t blind = config();
    blind.drm_info = {0, -1.0F};
    EXPECT_TRUE(has(log_of([&] { EXPECT_EQ(video_init(blind), 0); }), "] invalid drm_info fd:0 vrefresh:-1.000000\n"));
    auto& sync = *static_cast<sync_strategy_info_t*>(g_video_info.synchronizer_handle);
    EXPECT_TRUE(sync.mode == E_SYNC_MODE_AUDIO_MASTER && sync.state == E_SYNC_STATE_START && sync.low_latency_mode);
    render(1);
    video_set_base_media_time(1500000, 1500000, 1);
    int64_t media_time = 0;
    EXPECT_TRUE(synchronizer_get_current_media_time(&sync, &media_time));
    EXPECT_EQ(media_time, 1500000);
    EXPECT_EQ(render(2), 0);
    EXPECT_TRUE(eventually([] { return queued() == 0; }));
    // Each frame wakes the pacing, of which nothing runs now.
    synchronizer_stop(&sync);
    sync.sync_thread_wake = false;
    EXPECT_EQ(render(3), 0);
    EXPECT_TRUE(sync.sync_thread_wake);
}

TEST_F(VideoTest, UndoesAnInitWithoutMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator needs the address space that the test takes away";
#endif
    const auto in_small_memory = [] {
        const struct rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
        setrlimit(RLIMIT_AS, &limit);
        const bool refused = video_init(config(INT32_MAX)) == -1 && video_deinit() == -1;
        const bool usable = video_init(config()) == 0 && render(1) == -1 && video_deinit() == 0;
        _exit(refused && usable ? 0 : 1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(in_small_memory(), testing::ExitedWithCode(0), "");
}

TEST_F(VideoTest, BeginsWithAResetThatQueuesUntilAudioRuns)
{
    start();
    hdmi_player_video_frame_t first = frame_of(1);
    const std::string log = log_of([&] { EXPECT_EQ(video_render(&first), -1); });
    EXPECT_EQ(host_.take_calls(), kReset);
    EXPECT_EQ(first.pts, 0);
    EXPECT_EQ(queued(), 1);
    EXPECT_LT(log.find("] reset:0 avsync:1\n"), log.find("] [avsync_reset] start!\n"));
    for (int id = 2; id < kSlots; ++id)
        EXPECT_EQ(render(id), 0);
    EXPECT_TRUE(host_.take_calls().empty());
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(render(kSlots), 0); }),
                    "] [resetting] frame_queue count:5 full, force flip ahead frame pts:0\n"));
    EXPECT_EQ(render(kSlots + 1), 0);
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 1", "flip 2"}));
    EXPECT_EQ(queued(), kSlots - 1);
    // The end discards what waits; afterwards all starts afresh.
    EXPECT_EQ(video_deinit() + video_deinit(), -1);
    EXPECT_TRUE(host_.take_calls().empty());
    start();
    expect_reset(1);
    EXPECT_EQ(queued(), 1);
}

TEST_F(VideoTest, StampsFramesWithTheirArrivalFromMinusTheFixedDelayOn)
{
    start();
    const auto before_reset = static_cast<int64_t>(get_system_time_us());
    render(1);
    const auto after_reset = static_cast<int64_t>(get_system_time_us());
    video_set_base_media_time(1000, 1000000, 7);
    int64_t last = INT64_MIN;
    for (int id = 2; id < 5; ++id) {
        pass_time(40000);
        hdmi_player_video_frame_t frame = frame_of(id);
        const auto before = static_cast<int64_t>(get_system_time_us());
        const std::string log = log_of([&] { EXPECT_EQ(video_render(&frame), 0); });
        const auto after = static_cast<int64_t>(get_system_time_us());
        EXPECT_EQ(log.find("] [avsync_reset] done, frame_serial:7\n") != std::string::npos, id == 2);
        const int64_t start_pts = -kDelayMs * 1000 + 40000 * (id - 1);
        EXPECT_TRUE(frame.pts >= start_pts + before - after_reset && frame.pts <= start_pts + after - before_reset);
        EXPECT_GE(frame.pts, last + 40000);
        last = frame.pts;
    }
    // Paced: in order, with the stamps instead of the host's times.
    EXPECT_TRUE(eventually([this] { return host_.count("flip") + host_.count("drop") == 4; }));
    EXPECT_EQ(queued(), 0);
    host_.locked(
        [&] { EXPECT_TRUE(host_.calls[2] == "flip 1" && host_.flip_pts[0] == 0 && host_.flip_pts.back() == last); });
}

TEST_F(VideoTest, ResetsOnceAfterAGapOfMoreThanASecondOrOnRequest)
{
    start_synchronized();
    EXPECT_FALSE(has(log_of([] { render(1); }), "abnormal"));
    pass_time(600000);
    EXPECT_EQ(render(2), 0);
    ASSERT_TRUE(host_.hears("flip 2"));
    pass_time(1200000);
    expect_reset(3);
    EXPECT_EQ(queued(), 1);
    EXPECT_EQ(render(4), 0);
    audio_runs();
    EXPECT_EQ(render(5), 0);
    // A new serial without a reset is taken as it comes.
    audio_runs();
    const std::string log = log_of([] { EXPECT_EQ(render(6), 0); });
    EXPECT_TRUE(has(log, " W [video_render ") && has(log, "] frame_serial:3 abnormal changed!\n")) << log;
    EXPECT_EQ(host_.count("event"), 0U);
    ASSERT_TRUE(eventually([] { return queued() == 0; }));
    EXPECT_TRUE(has(log_of([] { video_avsync_reset(true, false); }), "] reset:1 avsync:1\n"));
    expect_reset(7);
    audio_runs();
    EXPECT_EQ(render(8), 0);
    EXPECT_EQ(host_.count("event"), 0U);
}

// The sound that the reset waits for may have gone past the player: only a new reset brings other sound.
TEST_F(VideoTest, FreeRunThatCutsAResetShortFlipsWhatWaitsFirstOnceAndInOrder)
{
    start();
    expect_reset(1);
    EXPECT_EQ(render(2), 0);
    video_avsync_reset(true, true);
    EXPECT_EQ(render(3), 0);
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 1", "flip 2", "flip 3"}));
    EXPECT_EQ(host_.flip_pts.front(), 0); // as it was queued; the newest as it came
    EXPECT_EQ(host_.flip_pts.back(), 12345);
    EXPECT_EQ(queued(), 0);
    video_avsync_reset(false, false); // the synchronizer is stopped still
    expect_reset(4);
    EXPECT_EQ(render(5), 0);
    // Whatever its callbacks queue.
    host_.audio_continues = false;
    host_.set_on_flip([](int id) {
        EXPECT_EQ(id == 4 ? render(7) : 0, 0);
        hdmi_player_video_frame_t frame = frame_of(id + 200); // of another thread that renders with sync on
        video_frame_queue_push_frame(&frame);
    });
    EXPECT_EQ(render(6), 0);
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 4", "flip 5", "flip 6", "flip 7", "flip 205", "flip 206"}));
    EXPECT_EQ(queued(), 4);
}

TEST_F(VideoTest, FreeRunBegunBehindAFlipOfThePacingWaitsForItAndHasNoBacklog)
{
    start_synchronized();
    render_into_gate([this] { gate_.pass(); });
    for (int id = 2; id < kSlots + 2; ++id)
        EXPECT_EQ(render(id), 0);
    host_.set_on_flip([](int id) { EXPECT_EQ(id == 2 ? render(8) : 0, 0); }); // inside the flip
    video_avsync_reset(true, true);
    BlockedCall<int32_t> behind([] { return render(7); });
    EXPECT_TRUE(behind.asleep());
    EXPECT_EQ(host_.take_calls(), Calls{"flip 1"});
    gate_.open();
    EXPECT_EQ(behind.result(), 0);
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 2", "flip 3", "flip 4", "flip 5", "flip 6", "flip 7", "flip 8"}));
}

TEST_F(VideoTest, RendersBehindAFlipThatDoesNotEndWaitOnceTheQueueIsFull)
{
    host_.audio_continues = false;
    start();
    host_.set_on_flip([this](int id) { id == 1 ? gate_.pass() : void(); });
    BlockedCall<int32_t> holder([] { return render(1); });
    ASSERT_TRUE(gate_.reached());
    host_.audio_continues = true;
    host_.take_calls();
    expect_reset(2);
    for (int id = 3; id <= kSlots; ++id)
        EXPECT_EQ(render(id), 0);
    // The pacing must not wait, for the flip callback may stop it.
    int32_t count = -1;
    synchronizer_frame_info_t frame = {};
    EXPECT_TRUE(sync_get_frame_count_cb(&g_video_info, &count) && count == 0);
    EXPECT_FALSE(sync_get_frame_cb(&g_video_info, &frame));
    BlockedCall<int32_t> behind([] { return render(6); });
    EXPECT_TRUE(behind.asleep());
    gate_.open();
    EXPECT_EQ(holder.result() + behind.result(), 0);
    EXPECT_EQ(host_.take_calls(), Calls{"flip 2"});
    EXPECT_EQ(queued(), kSlots - 1);
}

// By the time line before the reset, the first frames after it would be late.
TEST_F(VideoTest, PacingHasNoHistoryWhenAResetEnds)
{
    start_synchronized();
    video_avsync_reset(true, false);
    EXPECT_EQ(render(1), -1);
    static std::atomic<uint64_t> last_pts;
    last_pts = 0;
    static_cast<sync_strategy_info_t*>(g_video_info.synchronizer_handle)->on_sync_logic = [](void* handle) {
        const uint64_t pts = static_cast<sync_strategy_info_Oru_player_t*>(handle)->last_frame.pts;
        last_pts = last_pts == 0 ? pts : last_pts.load();
        return on_Oru_sync_logic(handle);
    };
    audio_runs();
    EXPECT_EQ(render(2), 0);
    ASSERT_TRUE(host_.hears("flip 2"));
    EXPECT_EQ(last_pts, UINT64_MAX);
}

TEST_F(VideoTest, ResetsWhenTheQueueIsFullAndDropsOnlyTheOldestFrame)
{
    start_synchronized();
    render_into_gate([this] { gate_.pass(); });
    for (int id = 2; id <= kSlots + 1; ++id)
        EXPECT_EQ(render(id), 0);
    EXPECT_EQ(host_.take_calls(), Calls{"flip 1"});
    std::thread host_thread([] { EXPECT_EQ(render(7), -1); });
    EXPECT_TRUE(host_.hears("drop 2"));
    EXPECT_EQ(host_.count("event"), 0U); // not before the synchronizer has stopped
    gate_.open();
    host_thread.join();
    const Calls calls = host_.take_calls();
    EXPECT_EQ(calls.front(), "drop 2");
    EXPECT_EQ(Calls(calls.end() - 2, calls.end()), kReset);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "drop 3"), 0);
}

TEST_F(VideoTest, ShowsFramesUnchangedAndAtOnceInFreeRun)
{
    setenv("debug_hdmiplayer_disable_avsync", "1", 1);
    start();
    EXPECT_TRUE(video_is_disable_avsync());
    EXPECT_EQ(render(1), 0);
    video_avsync_reset(true, false);
    EXPECT_FALSE(video_is_disable_avsync());
    host_.audio_continues = false;
    host_.set_on_flip(
        [](int) { EXPECT_EQ(video_deinit() + video_init(config()), -2); }); // they would wait for this call
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(render(2), 0); }), "] free run sys_time:"));
    host_.set_on_flip([](int) {});
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 1", "flip 2"}));
    EXPECT_EQ(host_.flip_pts, (std::vector<int64_t>{12345, 12345}));
    EXPECT_EQ(queued(), 0);
    // Free run leaves the clock of renders behind: its end is a gap.
    host_.audio_continues = true;
    EXPECT_EQ(render(3), -1);
    audio_runs();
    EXPECT_EQ(render(4), 0);
    host_.audio_continues = false;
    pass_time(1200000);
    EXPECT_EQ(render(5), 0);
    host_.audio_continues = true;
    host_.take_calls();
    EXPECT_EQ(render(6), -1);
    EXPECT_EQ(host_.count("event"), 1U);
}

TEST_F(VideoTest, ShowsFramesAtOnceDuringAResetThatDoesNotWaitForAudio)
{
    setenv("debug_hdmiplayer_video_wait_audio", "0", 1);
    start();
    expect_reset(1);
    EXPECT_EQ(queued(), 0);
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(render(2), 0); }), "] [resetting] free run sys_time:"));
    EXPECT_EQ(host_.take_calls(), Calls{"flip 2"});
    EXPECT_EQ(host_.flip_pts.back(), 12345);
    // Time starts anew at the frame that ends the reset.
    audio_runs();
    hdmi_player_video_frame_t frame = frame_of(3);
    EXPECT_EQ(video_render(&frame), 0);
    EXPECT_EQ(frame.pts, 0);
}

// The thread that deinit joins is inside a callback that calls in.
TEST_F(VideoTest, EndsWhileACallbackRenders)
{
    start_synchronized();
    std::atomic<int> result{1};
    render_into_gate([&] {
        EXPECT_EQ(video_deinit(), -1); // it would join its own thread
        gate_.pass();
        result = render(2);
        video_avsync_reset(true, false);
    });
    std::thread closer([] { EXPECT_EQ(video_deinit(), 0); });
    ASSERT_TRUE(eventually([] { return !g_video_info.initialized; }));
    EXPECT_EQ(video_init(config()), -1); // the old one is not gone yet
    EXPECT_EQ(render(3), -1);
    gate_.open();
    closer.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(host_.count("flip 2") + host_.count("event"), 0U);
    host_.set_on_flip([](int) {});
    start();
}

// The thread that the reset joins is inside a callback that renders, too.
TEST_F(VideoTest, ResetsWhileACallbackRenders)
{
    start_synchronized(20);
    std::atomic<int> nested{1};
    render_into_gate([&] {
        gate_.pass();
        video_set_base_media_time(1000, 1000000, 50);
        nested = render(2);
    });
    video_avsync_reset(true, false);
    std::thread host_thread([] { EXPECT_EQ(render(3), -1); });
    ASSERT_TRUE(eventually(sync_changing));
    gate_.open();
    host_thread.join();
    EXPECT_EQ(nested, 0);
    EXPECT_EQ(host_.count("event"), 1U);
    host_.set_on_flip([](int) {});
    // The serial that came meanwhile ends the reset at the next render.
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(render(4), 0); }), "] [avsync_reset] done, frame_serial:50\n"));
}

TEST_F(VideoTest, LeavesAResetToAThreadThatCanWaitForTheSynchronizer)
{
    start_synchronized();
    std::atomic<int> nested{1};
    host_.set_on_flip([&](int id) {
        if (id != 1)
            return;
        video_avsync_reset(true, false);
        nested = render(2);
    });
    render(1);
    ASSERT_TRUE(host_.hears("flip 2"));
    EXPECT_EQ(nested, 0);
    EXPECT_EQ(host_.take_calls(), (Calls{"flip 1", "flip 2"}));
    expect_reset(3);
}

TEST_F(VideoTest, LetsOneRenderAtATimeChangeTheSynchronizer)
{
    start();
    EXPECT_EQ(render(1), -1);
    video_set_base_media_time(1000, 1000000, 1);
    mutex_guard restart_waits(static_cast<sync_strategy_info_t*>(g_video_info.synchronizer_handle)->control_mutex);
    std::thread host_thread([] { EXPECT_EQ(render(2), 0); });
    ASSERT_TRUE(eventually(sync_changing));
    BlockedCall<int32_t> other([] {
        video_set_base_media_time(1000, 1000000, 2);
        video_avsync_reset(true, false);
        return render(3);
    });
    EXPECT_EQ(other.result(), 0);
    take_log();
    restart_waits.unlock();
    host_thread.join();
    const std::string log = take_log();
    EXPECT_TRUE(has(log, "] [avsync_reset] done, frame_serial:1\n")) << log; // the one that ended it
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(render(4), 0); }), "] frame_serial:2 abnormal changed!\n"));
    host_.take_calls();
    EXPECT_EQ(render(5), -1);
    EXPECT_EQ(host_.count("event"), 1U);
}

TEST_F(VideoTest, GivesBackTheFirstFrameOfAResetThatFindsNoRoom)
{
    host_.on_event = [] {
        hdmi_player_video_frame_t frame = frame_of(9);
        while (video_frame_queue_push_frame(&frame) == 0) {
        }
    };
    start();
    EXPECT_EQ(render(1), -1);
    EXPECT_EQ(host_.take_calls(), (Calls{"event 1", "audio reset", "drop 1"}));
}

// Deinit must not hold the module's lock when it ends what this render starts.
TEST_F(VideoTest, EndsWhileARenderRestartsTheSynchronizer)
{
    std::atomic<bool> hold{false};
    host_.on_audio_question = [&] {
        if (hold)
            gate_.pass();
    };
    host_.set_on_flip([](int) {
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(render(9), -1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    start();
    EXPECT_EQ(render(1), -1);
    video_set_base_media_time(1000, 1000000, 1);
    hold = true;
    std::thread host_thread([] { EXPECT_EQ(render(2), 0); });
    ASSERT_TRUE(gate_.reached());
    BlockedCall<int32_t> closer(video_deinit);
    ASSERT_TRUE(eventually([] { return !g_video_info.initialized; }));
    EXPECT_TRUE(closer.asleep());
    gate_.open();
    host_thread.join();
    EXPECT_EQ(closer.result(), 0);
}

TEST_F(VideoTest, EndsWhileManyThreadsRenderWithoutPause)
{
    set_log_level("0");
    host_.audio_continues = false;
    start();
    Callers callers;
    callers.run([](int) { render(1); }, 32);
    EXPECT_TRUE(eventually([this] { return host_.count("flip") > 1000; }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(video_deinit(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

/// What becomes of every frame that several threads and the flip callback render.
class Account : Locked
{
public:
    // Renders a new frame; the event that a reset raises comes on this thread.
    void render_one()
    {
        hdmi_player_video_frame_t frame = frame_of(++last_id_);
        reset_raised_ = false;
        const bool taken = video_render(&frame) == 0 || reset_raised_;
        locked([&] { frames_[id_of(frame)] = {std::this_thread::get_id(), taken, 0}; });
    }
    static void note_reset() { reset_raised_ = true; }

    // Every frame that came back was taken and came back once, and none was flipped after a newer one of the same
    // thread; returns how many are missing.
    int held(const Calls& calls)
    {
        std::map<std::thread::id, int> newest;
        for (const std::string& call : calls) {
            if (call[0] == 'e' || call[0] == 'a') // an event, an audio reset
                continue;
            const int id = std::stoi(call.substr(5));
            ++frames_[id].returned;
            if (call[0] != 'f')
                continue;
            EXPECT_GT(id, newest[frames_[id].thread]);
            newest[frames_[id].thread] = id;
        }
        int held = 0;
        for (const auto& [id, frame] : frames_) {
            EXPECT_LE(frame.returned, frame.taken ? 1 : 0) << "frame " << id;
            held += frame.taken && frame.returned == 0 ? 1 : 0;
        }
        return held;
    }

private:
    struct Frame {
        std::thread::id thread;
        bool taken;
        int returned;
    };
    static thread_local bool reset_raised_;
    std::atomic<int> last_id_{1000};
    std::map<int, Frame> frames_;
};
thread_local bool Account::reset_raised_ = false;

TEST_F(VideoTest, AccountsForEveryFrameOfManyRenderingThreads)
{
    set_log_level("0");
    for (int round = 0; round < 6; ++round) {
        Account account;
        std::atomic<int> rendering{0};
        host_.on_event = Account::note_reset;
        host_.set_on_flip([&](int id) {
            if (id % 3 == 0) // every third only, so that flips that a render makes at once come to an end
                account.render_one();
        });
        host_.take_calls();
        start();
        Callers callers;
        callers.run(
            [&](int) {
                account.render_one();
                ++rendering;
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            },
            3);
        callers.run([](int n) {
            video_set_base_media_time(1000 + n * 1000, n * 1000 + 41000, n / 4);
            video_avsync_reset(n % 50 == 49, n % 30 < 5);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        });
        EXPECT_TRUE(eventually([&] { return rendering > 300 && host_.count("event") > 0; }));
        EXPECT_EQ(video_deinit(), 0); // under way
        const size_t calls_at_end = host_.count("");
        callers.stop();
        EXPECT_EQ(host_.count(""), calls_at_end);
        EXPECT_LE(account.held(host_.take_calls()), kSlots);
    }
}

} // namespace
