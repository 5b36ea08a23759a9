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

namespace
{

constexpr int kSlots = 5;
constexpr int64_t kDelayMs = 76;
constexpr unsigned kHangSeconds = 60;

using calls_t = std::vector<std::string>;

/// The host and the player's relays: what the module calls, in order.
struct Host {
    std::mutex mutex;
    calls_t calls;
    std::vector<int64_t> flip_pts;
    std::atomic<bool> audio_continues{true};
    std::function<void(int)> on_flip;
    std::function<void()> on_event;          // set before init
    std::function<void()> on_audio_question; // set before init

    void set_on_flip(std::function<void(int)> action)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        on_flip = std::move(action);
    }

    void note(const std::string& call)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(call);
    }
    calls_t take_calls()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(calls, {});
    }
    size_t count(const std::string& prefix)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return static_cast<size_t>(std::count_if(calls.begin(), calls.end(),
                                                 [&](const std::string& call) { return call.rfind(prefix, 0) == 0; }));
    }
};

Host* g_host = nullptr;

int id_of(const hdmi_player_video_frame_t& frame)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(frame.buf_handle));
}
hdmi_player_video_frame_t frame_of(int id, int64_t pts = 12345)
{
    return {reinterpret_cast<void*>(static_cast<intptr_t>(id)), pts};
}

void on_flip(hdmi_player_video_frame_t frame)
{
    std::function<void(int)> action;
    {
        const std::lock_guard<std::mutex> lock(g_host->mutex);
        g_host->calls.push_back("flip " + std::to_string(id_of(frame)));
        g_host->flip_pts.push_back(frame.pts);
        action = g_host->on_flip;
    }
    if (action)
        action(id_of(frame));
}
void on_drop(hdmi_player_video_frame_t frame) { g_host->note("drop " + std::to_string(id_of(frame))); }
void on_event(hdmi_player_event_e event)
{
    g_host->note("event " + std::to_string(event));
    if (g_host->on_event)
        g_host->on_event();
}
void on_audio_reset() { g_host->note("audio reset"); }
bool audio_continues()
{
    if (g_host->on_audio_question)
        g_host->on_audio_question();
    return g_host->audio_continues;
}

const calls_t kReset = {"event 1", "audio reset"};

// Console output, captured all the time: the level cannot be changed while the
// module's threads read the environment.
std::string g_console;

std::string take_log()
{
    fflush(stdout);
    std::string log = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    g_console += log;
    return log;
}

std::string log_of(const std::function<void()>& action)
{
    take_log();
    action();
    return take_log();
}

void set_log_level(const char* level) { setenv("debug_hdmiplayer_log_level", level, 1); }

/// A door that the thread inside a callback stops at.
class Gate
{
public:
    void pass()
    {
        waiting_ = true;
        while (!open_)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    bool reached() const
    {
        return eventually([this] { return waiting_.load(); });
    }
    void open() { open_ = true; }

private:
    std::atomic<bool> waiting_{false};
    std::atomic<bool> open_{false};
};

class VideoTest : public testing::Test
{
protected:
    void SetUp() override
    {
        alarm(kHangSeconds); // a hang ends the program
        g_host = &host_;
        for (const char* name : {"debug_hdmiplayer_disable_avsync", "debug_hdmiplayer_video_wait_audio",
                                 "debug_hdmiplayer_log_video_render_fps", "debug_hdmiplayer_log_video_fq_state",
                                 "debug_hdmiplayer_log_video_fq_api"})
            unsetenv(name);
        set_log_level("4");
        testing::internal::CaptureStdout();
        g_hooks = {};
        g_hooks.wait_vblank = [](int, drmVBlank*) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            return 0;
        };
    }
    void TearDown() override
    {
        video_deinit();
        take_log();
        testing::internal::GetCapturedStdout();
        if (HasFailure())
            fputs(g_console.c_str(), stdout);
        g_console.clear();
        alarm(0);
    }

    static video_config_t config(int slots = kSlots)
    {
        video_config_t config = {};
        config.video_frame_queue_size = slots;
        config.drm_info = {7, 500.0F};
        config.video_frame_drop_cb = on_drop;
        config.video_frame_flip_cb = on_flip;
        config.event_cb = on_event;
        config.notify_audio_reset_cb = on_audio_reset;
        config.ai_read_continued_cb = audio_continues;
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
        EXPECT_EQ(video_set_base_media_time(1000, 1000000, ++serial_), 0);
        EXPECT_EQ(render(102), 0);
        ASSERT_TRUE(eventually([this] { return host_.count("flip") == 2; }));
        host_.take_calls();
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
        g_video_info.video_frame_flip_cb = on_flip;
        g_video_info.video_frame_drop_cb = on_drop;
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
};

TEST_F(VideoFrameQueueTest, HoldsItsPoolAndGivesFramesBackInOrder)
{
    for (int id = 1; id <= kSlots; ++id)
        EXPECT_EQ(push(id), 0);
    EXPECT_NE(log_of([] { EXPECT_EQ(push(6), -1); }).find("[video_frame_queue_push_frame "), std::string::npos);
    EXPECT_NE(log_of([] { push(6); }).find("] free_frames_count(0) <= 0\n"), std::string::npos);
    hdmi_player_video_frame_t head = {};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(video_frame_queue_peek_frame(q_, &head), 0);
        EXPECT_EQ(id_of(head), 1);
        EXPECT_EQ(head.pts, 10);
    }
    // Freed slots come into use again while younger frames wait.
    int next = kSlots + 1;
    for (int id = 1; id < 50; ++id) {
        EXPECT_EQ(get(), id);
        EXPECT_EQ(push(next++), 0);
        EXPECT_EQ(q_->frames_count, kSlots);
    }
    for (int id = 50; id < next; ++id)
        EXPECT_EQ(get(), id);
    EXPECT_NE(log_of([this] { EXPECT_EQ(get(), -1); }).find("[video_frame_queue_get_frame "), std::string::npos);
    EXPECT_NE(log_of([this] { get(); }).find("] frames_count(0) < 0\n"), std::string::npos);
}

TEST_F(VideoFrameQueueTest, ClearsASlotThatItGivesBack)
{
    push(1);
    get();
    mutex_guard guard(q_->mutex);
    const video_frame_info_t& slot = q_->arry_pool_frames[0];
    EXPECT_FALSE(slot.used);
    EXPECT_EQ(slot.frame.buf_handle, nullptr);
    EXPECT_EQ(slot.frame.pts, 0);
    EXPECT_EQ(slot.node.next, LIST_POISON_NEXT);
    EXPECT_EQ(slot.node.prev, LIST_POISON_PREV);
    EXPECT_EQ(q_->free_frames_count, kSlots);
}

TEST_F(VideoFrameQueueTest, RefusesMissingArguments)
{
    const std::string log = log_of([this] {
        hdmi_player_video_frame_t frame = {};
        EXPECT_EQ(video_frame_queue_push_frame(nullptr), -1);
        EXPECT_EQ(video_frame_queue_get_frame(nullptr, &frame), -1);
        EXPECT_EQ(video_frame_queue_peek_frame(q_, nullptr), -1);
        synchronizer_frame_info_t info = {};
        for (auto* callback : {sync_peek_frame_cb, sync_get_frame_cb, sync_drop_frame_cb, sync_flip_frame_cb}) {
            EXPECT_FALSE(callback(nullptr, &info));
            EXPECT_FALSE(callback(&g_video_info, nullptr));
        }
        EXPECT_FALSE(sync_get_frame_count_cb(&g_video_info, nullptr));
    });
    EXPECT_NE(log.find("] video_frame_queue is null.\n"), std::string::npos);
    EXPECT_NE(log.find("[video_frame_queue_push_frame "), std::string::npos);
    EXPECT_NE(log.find("] frame is null.\n"), std::string::npos);
    EXPECT_NE(log.find("[sync_flip_frame_cb "), std::string::npos);
    EXPECT_NE(log.find("] handle is null\n"), std::string::npos);
    EXPECT_NE(log.find("] frame is null\n"), std::string::npos);
    EXPECT_NE(log.find("] count is null\n"), std::string::npos);
    EXPECT_TRUE(host_.take_calls().empty());
}

TEST_F(VideoFrameQueueTest, SurvivesItsOwnDamage)
{
    q_->frames_count = 3;
    synchronizer_frame_info_t info = {nullptr, 0, 77};
    const std::string log = log_of([&] {
        EXPECT_FALSE(sync_peek_frame_cb(&g_video_info, &info));
        EXPECT_FALSE(sync_get_frame_cb(&g_video_info, &info));
    });
    EXPECT_NE(log.find("] list_frames empty, but list size is 3.\n"), std::string::npos);
    EXPECT_NE(log.find("] get frame failed\n"), std::string::npos);
    EXPECT_NE(log.find("] video_frame_queue_peek_frame failed\n"), std::string::npos);
    EXPECT_NE(log.find("] video_frame_queue_get_frame failed\n"), std::string::npos);
    EXPECT_EQ(info.pts, 77U);

    q_->frames_count = -1;
    int32_t count = 42;
    EXPECT_FALSE(sync_get_frame_count_cb(&g_video_info, &count));
    EXPECT_EQ(count, 42);

    q_->frames_count = 0;
    push(4);
    {
        mutex_guard guard(q_->mutex);
        q_->arry_pool_frames[0].used = false;
    }
    EXPECT_NE(log_of([this] { EXPECT_EQ(get(), 4); }).find("] the frame state is free\n"), std::string::npos);
    EXPECT_EQ(q_->frames_count, 0);
}

TEST_F(VideoFrameQueueTest, ForgetsQueuedFramesAtItsEnd)
{
    for (int round = 0; round < 2; ++round) {
        for (int id = 1; id <= 3; ++id)
            push(id);
        EXPECT_EQ(video_frame_queue_pool_release(q_), 0);
        EXPECT_EQ(push(4), -1);
        EXPECT_EQ(get(), -1);
        EXPECT_EQ(video_frame_queue_deinit(q_), 0);
        EXPECT_EQ(video_frame_queue_deinit(q_), 0);
        open();
    }
    EXPECT_TRUE(host_.take_calls().empty());
    video_frame_queue_deinit(q_);
    EXPECT_EQ(video_frame_queue_init(q_, 0), -1);
    EXPECT_EQ(video_frame_queue_init(q_, -3), -1);
    EXPECT_EQ(video_frame_queue_deinit(q_), 0);
}

TEST_F(VideoFrameQueueTest, TracesWhatItsSwitchesAdmit)
{
    EXPECT_EQ(log_of([this] { push(1), get(); }).find(">>>"), std::string::npos);
    video_frame_queue_deinit(q_);
    setenv("debug_hdmiplayer_log_video_fq_api", "1", 1);
    setenv("debug_hdmiplayer_log_video_fq_state", "1", 1);
    open();
    set_log_level("2");
    EXPECT_EQ(log_of([this] { push(1), get(); }), "");
    set_log_level("3");
    const std::string info = log_of([this] { push(1), get(); });
    EXPECT_NE(info.find("] frames free:4 done:1, buf:0x1 pts:10 used:1\n"), std::string::npos);
    EXPECT_NE(info.find("] frames free:5 done:0, buf:0x1 pts:10 used:1\n"), std::string::npos);
    EXPECT_EQ(info.find(">>>"), std::string::npos);
    set_log_level("4");
    const std::string debug = log_of([] { push(1); });
    EXPECT_LT(debug.find("] >>>\n"), debug.find("] frames free"));
    EXPECT_LT(debug.find("] frames free"), debug.find("] <<<\n"));
}

TEST_F(VideoFrameQueueTest, MeasuresFromFlipToFlip)
{
    push(3);
    synchronizer_frame_info_t info = {};
    EXPECT_TRUE(sync_get_frame_cb(&g_video_info, &info));
    EXPECT_EQ(log_of([&] { sync_flip_frame_cb(&g_video_info, &info); }).find("diff last"), std::string::npos);
    g_video_info.en_fps_log = true;
    g_video_info.last_flip_time_ms = 0;
    EXPECT_NE(log_of([&] { sync_flip_frame_cb(&g_video_info, &info); }).find("] diff last:0\n"), std::string::npos);
    g_video_info.last_flip_time_ms -= 250000;
    EXPECT_NE(log_of([&] { sync_flip_frame_cb(&g_video_info, &info); }).find("] diff last:250"), std::string::npos);
    g_video_info.en_fps_log = false;
    sync_drop_frame_cb(&g_video_info, &info);
    EXPECT_EQ(host_.take_calls(), (calls_t{"flip 3", "flip 3", "flip 3", "drop 3"}));
    EXPECT_EQ(host_.flip_pts, (std::vector<int64_t>{30, 30, 30}));
}

TEST_F(VideoTest, RefusesWrongOrderAndIncompleteConfigurations)
{
    set_log_level("5");
    hdmi_player_video_frame_t frame = frame_of(1);
    const std::string closed = log_of([&] {
        EXPECT_EQ(video_deinit(), -1);
        EXPECT_EQ(video_render(&frame), -1);
        EXPECT_EQ(video_set_base_media_time(1, 2, 3), -1);
        EXPECT_EQ(video_avsync_reset(true, true), -1);
        EXPECT_EQ(video_set_fixed_delay(1), -1);
        EXPECT_FALSE(video_is_disable_avsync());
    });
    EXPECT_NE(closed.find(" W [video_deinit "), std::string::npos);
    EXPECT_NE(closed.find(" V [video_render "), std::string::npos);
    EXPECT_NE(closed.find(" V [video_is_disable_avsync "), std::string::npos);
    EXPECT_EQ(g_video_info.frame_serial, 0);

    const std::vector<std::function<void(video_config_t&)>> holes = {
        [](video_config_t& c) { c.video_frame_drop_cb = nullptr; },
        [](video_config_t& c) { c.video_frame_flip_cb = nullptr; },
        [](video_config_t& c) { c.event_cb = nullptr; },
        [](video_config_t& c) { c.notify_audio_reset_cb = nullptr; },
        [](video_config_t& c) { c.ai_read_continued_cb = nullptr; },
        [](video_config_t& c) { c.video_frame_queue_size = 0; },
    };
    for (const auto& make_hole : holes) {
        video_config_t incomplete = config();
        make_hole(incomplete);
        EXPECT_EQ(video_init(incomplete), -1);
        EXPECT_EQ(video_render(&frame), -1);
    }
    start();
    const std::string second = log_of([] { EXPECT_EQ(video_init(config()), -1); });
    EXPECT_NE(second.find("] module has been initialized\n"), std::string::npos);
    EXPECT_EQ(second.find("<<<"), std::string::npos);
    EXPECT_NE(log_of([] { EXPECT_EQ(video_render(nullptr), -1); }).find("[video_render "), std::string::npos);
    EXPECT_TRUE(host_.take_calls().empty());
}

TEST_F(VideoTest, HasItsFramesPacedByAudio)
{
    start();
    synchronizer_mode_e mode = E_SYNC_MODE_MAX;
    synchronizer_state_e state = E_SYNC_STATE_MAX;
    EXPECT_TRUE(synchronizer_get_sync_mode(g_video_info.synchronizer_handle, &mode));
    EXPECT_TRUE(synchronizer_get_sync_state(g_video_info.synchronizer_handle, &state));
    EXPECT_EQ(mode, E_SYNC_MODE_AUDIO_MASTER);
    EXPECT_EQ(state, E_SYNC_STATE_START);
    EXPECT_TRUE(static_cast<sync_strategy_info_t*>(g_video_info.synchronizer_handle)->low_latency_mode);
    video_set_base_media_time(1500000, 1500000, 1);
    int64_t media_time = 0;
    EXPECT_TRUE(synchronizer_get_current_media_time(g_video_info.synchronizer_handle, &media_time));
    EXPECT_EQ(media_time, 1500000);
}

// Without vertical blanks nothing but the module wakes the pacing early or lets
// a frame overtake its time.
TEST_F(VideoTest, RunsWithoutADisplay)
{
    constexpr int32_t kBeyondCorrectionMs = 200000;
    video_config_t blind = config();
    blind.drm_info = {0, -1.0F};
    EXPECT_NE(log_of([&] { EXPECT_EQ(video_init(blind), 0); }).find("] invalid drm_info fd:0 vrefresh:-1.000000\n"),
              std::string::npos);
    video_set_fixed_delay(kBeyondCorrectionMs);
    render(1);
    video_set_base_media_time(1000, 1000000, 1);
    render(2);
    render(3);
    ASSERT_TRUE(eventually([this] { return host_.count("flip") + host_.count("drop") == 3; }));
    // Stamps start anew: the frames before the reset must not time those after it.
    video_avsync_reset(true, false);
    EXPECT_EQ(render(4), -1);
    video_set_base_media_time(1000, 1000000, 2);
    Gate gate;
    host_.set_on_flip([&](int) { gate.pass(); });
    render(5);
    ASSERT_TRUE(gate.reached());

    auto& sync = *static_cast<sync_strategy_info_t*>(g_video_info.synchronizer_handle);
    {
        const mutex_guard guard(sync.sync_thread_mutex);
        sync.sync_thread_wake = false;
    }
    EXPECT_EQ(render(6), 0);
    {
        const mutex_guard guard(sync.sync_thread_mutex);
        EXPECT_TRUE(sync.sync_thread_wake);
    }
    gate.open();
    EXPECT_TRUE(eventually([] { return queued() == 0; }));
    video_deinit();
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
    EXPECT_LT(log.find("[video_avsync_reset "), log.find("] [avsync_reset] start!\n"));
    EXPECT_NE(log.find("] reset:0 avsync:1\n"), std::string::npos);

    for (int id = 2; id < kSlots; ++id)
        EXPECT_EQ(render(id), 0);
    EXPECT_TRUE(host_.take_calls().empty());
    const std::string full = log_of([] { EXPECT_EQ(render(kSlots), 0); });
    EXPECT_NE(full.find("] [resetting] frame_queue count:5 full, force flip ahead frame pts:0\n"), std::string::npos);
    EXPECT_EQ(render(kSlots + 1), 0);
    EXPECT_EQ(host_.take_calls(), (calls_t{"flip 1", "flip 2"}));
    EXPECT_EQ(queued(), kSlots - 1);
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
        EXPECT_GE(frame.pts, start_pts + before - after_reset);
        EXPECT_LE(frame.pts, start_pts + after - before_reset);
        EXPECT_GE(frame.pts, last + 40000);
        last = frame.pts;
    }
    // Paced: in order, with the stamps instead of the host's times.
    EXPECT_TRUE(eventually([this] { return host_.count("flip") + host_.count("drop") == 4; }));
    EXPECT_EQ(queued(), 0);
    const std::lock_guard<std::mutex> lock(host_.mutex);
    EXPECT_EQ(host_.calls[2], "flip 1");
    EXPECT_EQ(host_.flip_pts[0], 0);
    EXPECT_EQ(host_.flip_pts.back(), last);
}

TEST_F(VideoTest, TakesANewSerialWithoutAResetAsItComes)
{
    start_synchronized();
    EXPECT_EQ(log_of([] { render(1); }).find("abnormal"), std::string::npos);
    video_set_base_media_time(5000, 1000000, 9);
    const std::string log = log_of([] { EXPECT_EQ(render(2), 0); });
    EXPECT_NE(log.find(" W [video_render "), std::string::npos);
    EXPECT_NE(log.find("] frame_serial:9 abnormal changed!\n"), std::string::npos);
    EXPECT_EQ(host_.count("event"), 0U);
}

TEST_F(VideoTest, ResetsAfterAGapOfMoreThanASecond)
{
    start_synchronized();
    pass_time(600000);
    EXPECT_EQ(render(1), 0);
    ASSERT_TRUE(eventually([this] { return host_.count("flip 1") == 1; }));
    host_.take_calls();
    pass_time(1200000);
    EXPECT_EQ(render(2), -1);
    EXPECT_EQ(host_.take_calls(), kReset);
    EXPECT_EQ(queued(), 1);
    EXPECT_EQ(render(3), 0);
    EXPECT_TRUE(host_.take_calls().empty());
}

TEST_F(VideoTest, ResetsOnRequestOnce)
{
    start_synchronized();
    EXPECT_NE(log_of([] { video_avsync_reset(true, false); }).find("] reset:1 avsync:1\n"), std::string::npos);
    EXPECT_EQ(render(1), -1);
    EXPECT_EQ(host_.take_calls(), kReset);
    video_set_base_media_time(1000, 1000000, ++serial_);
    EXPECT_EQ(render(2), 0);
    EXPECT_EQ(host_.count("event"), 0U);
}

// The sound that the reset waits for may have gone past the player: only a new reset brings other sound.
TEST_F(VideoTest, ResetsAnewAfterFreeRunThatCutAResetShort)
{
    start();
    EXPECT_EQ(render(1), -1);
    video_avsync_reset(true, true);
    EXPECT_EQ(render(2), 0);
    host_.take_calls();
    video_avsync_reset(true, false);
    EXPECT_EQ(render(3), -1);
    EXPECT_EQ(host_.count("event"), 1U);
}

TEST_F(VideoTest, ResetsWhenTheQueueIsFullAndDropsOnlyTheOldestFrame)
{
    start_synchronized();
    Gate gate;
    host_.set_on_flip([&](int id) {
        if (id == 1)
            gate.pass();
    });
    render(1);
    ASSERT_TRUE(gate.reached());
    for (int id = 2; id <= kSlots + 1; ++id)
        EXPECT_EQ(render(id), 0);
    EXPECT_EQ(host_.take_calls(), calls_t{"flip 1"});
    std::thread host_thread([] { EXPECT_EQ(render(7), -1); });
    EXPECT_TRUE(eventually([this] { return host_.count("drop 2") == 1; }));
    EXPECT_EQ(host_.count("event"), 0U); // not before the synchronizer has stopped
    gate.open();
    host_thread.join();
    const calls_t calls = host_.take_calls();
    EXPECT_EQ(calls.front(), "drop 2");
    EXPECT_EQ(calls_t(calls.end() - 2, calls.end()), kReset);
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
    EXPECT_NE(log_of([] { video_avsync_reset(true, true); }).find("] reset:1 avsync:0\n"), std::string::npos);
    EXPECT_TRUE(video_is_disable_avsync());
    video_avsync_reset(true, false);
    host_.audio_continues = false;
    host_.set_on_flip([](int) { EXPECT_EQ(video_deinit(), -1); }); // it would wait for its own call
    const std::string log = log_of([] { EXPECT_EQ(render(2), 0); });
    host_.set_on_flip(nullptr);
    EXPECT_NE(log.find("] free run sys_time:"), std::string::npos);
    EXPECT_EQ(host_.take_calls(), (calls_t{"flip 1", "flip 2"}));
    EXPECT_EQ(host_.flip_pts, (std::vector<int64_t>{12345, 12345}));
    EXPECT_EQ(queued(), 0);

    // Free run leaves the clock of renders behind: its end is a gap.
    host_.audio_continues = true;
    EXPECT_EQ(render(3), -1);
    video_set_base_media_time(1000, 1000000, 1);
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
    EXPECT_EQ(render(1), -1);
    EXPECT_EQ(queued(), 0);
    EXPECT_EQ(host_.take_calls(), kReset);
    EXPECT_NE(log_of([] { EXPECT_EQ(render(2), 0); }).find("] [resetting] free run sys_time:"), std::string::npos);
    EXPECT_EQ(host_.take_calls(), calls_t{"flip 2"});
    EXPECT_EQ(host_.flip_pts.back(), 12345);
    // Time starts anew at the frame that ends the reset.
    video_set_base_media_time(1000, 1000000, 1);
    hdmi_player_video_frame_t frame = frame_of(3);
    EXPECT_EQ(video_render(&frame), 0);
    EXPECT_EQ(frame.pts, 0);
}

TEST_F(VideoTest, DiscardsQueuedFramesAtTheEndAndStartsAfresh)
{
    for (int round = 0; round < 3; ++round) {
        start();
        EXPECT_EQ(render(1), -1);
        EXPECT_EQ(render(2), 0);
        EXPECT_EQ(host_.take_calls(), kReset);
        EXPECT_EQ(video_deinit(), 0);
        EXPECT_TRUE(host_.take_calls().empty());
        EXPECT_EQ(video_deinit(), -1);
    }
}

// The thread that deinit joins is inside a callback that calls in.
TEST_F(VideoTest, EndsWhileACallbackRenders)
{
    start_synchronized();
    Gate gate;
    std::atomic<int> result{1};
    host_.set_on_flip([&](int id) {
        if (id != 1)
            return;
        EXPECT_EQ(video_deinit(), -1); // it would join its own thread
        gate.pass();
        result = render(2);
        video_avsync_reset(true, false);
    });
    render(1);
    ASSERT_TRUE(gate.reached());
    std::thread closer([] { EXPECT_EQ(video_deinit(), 0); });
    ASSERT_TRUE(eventually([] { return !g_video_info.initialized; }));
    EXPECT_EQ(video_init(config()), -1); // the old one is not gone yet
    EXPECT_EQ(render(3), -1);
    gate.open();
    closer.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(host_.count("flip 2") + host_.count("event"), 0U);
    host_.set_on_flip(nullptr);
    start();
}

// The thread that the reset joins is inside a callback that renders, too.
TEST_F(VideoTest, ResetsWhileACallbackRenders)
{
    start_synchronized(20);
    Gate gate;
    std::atomic<int> nested{1};
    host_.set_on_flip([&](int id) {
        if (id != 1)
            return;
        gate.pass();
        video_set_base_media_time(1000, 1000000, 50);
        nested = render(2);
    });
    render(1);
    ASSERT_TRUE(gate.reached());
    video_avsync_reset(true, false);
    std::thread host_thread([] { EXPECT_EQ(render(3), -1); });
    ASSERT_TRUE(eventually(sync_changing));
    gate.open();
    host_thread.join();
    EXPECT_EQ(nested, 0);
    EXPECT_EQ(host_.count("event"), 1U);
    host_.set_on_flip(nullptr);
    // The serial that came meanwhile ends the reset at the next render.
    EXPECT_NE(log_of([] { EXPECT_EQ(render(4), 0); }).find("] [avsync_reset] done, frame_serial:50\n"),
              std::string::npos);
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
    ASSERT_TRUE(eventually([this] { return host_.count("flip 2") == 1; }));
    EXPECT_EQ(nested, 0);
    EXPECT_EQ(host_.take_calls(), (calls_t{"flip 1", "flip 2"}));
    EXPECT_EQ(render(3), -1);
    EXPECT_EQ(host_.take_calls(), kReset);
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
        video_avsync_reset(true, false);
        return render(3);
    });
    EXPECT_EQ(other.result(), 0);
    restart_waits.unlock();
    host_thread.join();
    host_.take_calls();
    EXPECT_EQ(render(4), -1);
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
    EXPECT_EQ(host_.take_calls(), (calls_t{"event 1", "audio reset", "drop 1"}));
}

// Deinit must not hold the module's lock when it ends what this render starts.
TEST_F(VideoTest, EndsWhileARenderRestartsTheSynchronizer)
{
    Gate gate;
    std::atomic<bool> hold{false};
    host_.on_audio_question = [&] {
        if (hold)
            gate.pass();
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
    ASSERT_TRUE(gate.reached());
    BlockedCall<int32_t> closer(video_deinit);
    ASSERT_TRUE(eventually([] { return !g_video_info.initialized; }));
    EXPECT_TRUE(closer.asleep());
    gate.open();
    host_thread.join();
    EXPECT_EQ(closer.result(), 0);
}

/// Counts what becomes of every frame that several threads and the flip
/// callback render.
class Account
{
public:
    // Renders a new frame; the event that a reset raises comes on this thread.
    void render_one()
    {
        hdmi_player_video_frame_t frame = frame_of(++last_id_);
        t_reset_raised = false;
        const bool taken = video_render(&frame) == 0 || t_reset_raised;
        const std::lock_guard<std::mutex> lock(mutex_);
        taken_[id_of(frame)] = taken;
    }
    static void note_reset() { t_reset_raised = true; }

    // Every frame that came back was taken and came back once; returns how many are missing.
    int held(const calls_t& calls)
    {
        std::map<std::string, int> returned;
        for (const std::string& call : calls) {
            if (call.rfind("flip ", 0) == 0 || call.rfind("drop ", 0) == 0)
                ++returned[call.substr(5)];
        }
        int held = 0;
        for (const auto& [id, taken] : taken_) {
            const auto it = returned.find(std::to_string(id));
            const int times = it == returned.end() ? 0 : it->second;
            EXPECT_LE(times, taken ? 1 : 0) << "frame " << id;
            held += taken && times == 0 ? 1 : 0;
        }
        return held;
    }

private:
    static thread_local bool t_reset_raised;
    std::atomic<int> last_id_{1000};
    std::mutex mutex_;
    std::map<int, bool> taken_;
};
thread_local bool Account::t_reset_raised = false;

TEST_F(VideoTest, AccountsForEveryFrameOfManyRenderingThreads)
{
    set_log_level("0");
    for (int round = 0; round < 6; ++round) {
        Account account;
        std::atomic<bool> stop{false};
        std::atomic<int> rendering{0};
        host_.on_event = Account::note_reset;
        host_.set_on_flip([&](int id) {
            if (id % 3 == 0) // every third only, so that flips that a render makes at once come to an end
                account.render_one();
        });
        host_.take_calls();
        start();
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
                while (!stop) {
                    account.render_one();
                    ++rendering;
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            });
        }
        threads.emplace_back([&] {
            for (int i = 1; !stop; ++i) {
                video_set_base_media_time(i * 1000, i * 1000 + 40000, i / 4);
                video_avsync_reset(i % 50 == 0, i % 30 < 5);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
        EXPECT_TRUE(eventually([&] { return rendering > 300; }));
        EXPECT_EQ(video_deinit(), 0); // under way
        const size_t calls_at_end = host_.count("");
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(host_.count(""), calls_at_end);
        EXPECT_GT(host_.count("event"), 0U);
        EXPECT_LE(account.held(host_.take_calls()), kSlots);
    }
}

} // namespace
