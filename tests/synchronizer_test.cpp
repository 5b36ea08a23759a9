// SPDX-License-Identifier: MIT
#include "internal/synchronizer.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "internal/common.h"
#include "platform_hooks.h"

namespace
{

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

// The wall clock under the test's control: frozen at a time, or the real one moved by an offset.
std::atomic<int64_t> g_frozen_us{0};
std::atomic<int64_t> g_wall_offset_us{0};
std::atomic<int> g_thread_creations_until_failure{-1};

} // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    int64_t us = now.tv_sec * int64_t{1000000} + now.tv_nsec / 1000 + g_wall_offset_us;
    if (g_frozen_us != 0)
        us = g_frozen_us;
    tv->tv_sec = us / 1000000;
    tv->tv_usec = us % 1000000;
    return 0;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg) noexcept
{
    using create_t = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<create_t>(dlsym(RTLD_NEXT, "pthread_create"));
    if (g_thread_creations_until_failure >= 0 && g_thread_creations_until_failure-- == 0)
        return EAGAIN;
    return create(thread, attr, run, arg);
}

namespace
{

constexpr int64_t kStart = 1700000000000000; ///< us: where the frozen clock starts
constexpr int64_t kNoBound = -1;
constexpr auto kHang = 20s; ///< a wait as long as this has failed

/// The caller's side of the callbacks. Frames carry their pts; handles are not needed to tell them apart.
struct FrameQueue {
    std::mutex mutex;
    std::condition_variable shown;
    std::deque<int64_t> waiting;
    std::vector<int64_t> flipped;
    std::vector<int64_t> dropped;
    bool peek_fails = false;
    std::function<void()> after_peek; ///< on the sync thread, unlocked
    synchronizer_callback_t callbacks = {count, peek, get, drop, flip};

    void push(int64_t pts)
    {
        std::lock_guard<std::mutex> lock(mutex);
        waiting.push_back(pts);
    }
    size_t flips()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return flipped.size();
    }
    bool wait_flips(size_t number)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return shown.wait_until(lock, std::chrono::system_clock::now() + kHang,
                                [&] { return flipped.size() >= number; });
    }

private:
    static FrameQueue& self(void* handle) { return *static_cast<FrameQueue*>(handle); }
    static bool count(void* handle, int32_t* count)
    {
        std::lock_guard<std::mutex> lock(self(handle).mutex);
        *count = static_cast<int32_t>(self(handle).waiting.size());
        return true;
    }
    static bool front(FrameQueue& q, synchronizer_frame_info_t* frame, bool take)
    {
        std::lock_guard<std::mutex> lock(q.mutex);
        if (q.waiting.empty() || (q.peek_fails && !take))
            return false;
        frame->pts = static_cast<uint64_t>(q.waiting.front());
        if (take)
            q.waiting.pop_front();
        return true;
    }
    static bool peek(void* handle, synchronizer_frame_info_t* frame)
    {
        const bool done = front(self(handle), frame, false);
        if (self(handle).after_peek)
            self(handle).after_peek();
        return done;
    }
    static bool get(void* handle, synchronizer_frame_info_t* frame) { return front(self(handle), frame, true); }
    static bool drop(void* handle, synchronizer_frame_info_t* frame)
    {
        std::lock_guard<std::mutex> lock(self(handle).mutex);
        self(handle).dropped.push_back(static_cast<int64_t>(frame->pts));
        return true;
    }
    static bool flip(void* handle, synchronizer_frame_info_t* frame)
    {
        std::lock_guard<std::mutex> lock(self(handle).mutex);
        self(handle).flipped.push_back(static_cast<int64_t>(frame->pts));
        self(handle).shown.notify_all();
        return true;
    }
};

class Synchronizer : public testing::Test
{
protected:
    void SetUp() override
    {
        handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
        ASSERT_NE(handle, nullptr);
        ASSERT_TRUE(synchronizer_set_callback(handle, &queue, &queue.callbacks));
        ASSERT_TRUE(synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER));
        ASSERT_TRUE(synchronizer_set_sync_state(handle, E_SYNC_STATE_START));
    }
    void TearDown() override
    {
        g_thread_creations_until_failure = -1;
        synchronizer_stop(handle);
        synchronizer_deinit(handle);
        g_hooks = PlatformHooks();
        g_frozen_us = 0;
        g_wall_offset_us = 0;
        for (const char* name : {"debug_hdmiplayer_log_level", "debug.hdmiplayer.sync.forcestate",
                                 "debug.hdmiplayer.sync.forcemode", "debug.hdmiplayer.sync.disablevsync"})
            unsetenv(name);
    }

    sync_strategy_info_t& sync() { return *static_cast<sync_strategy_info_t*>(handle); }
    sync_strategy_info_Oru_player_t& player() { return *static_cast<sync_strategy_info_Oru_player_t*>(handle); }

    /// One step whose wait, if it decides to wait, is over at once.
    bool step()
    {
        synchronizer_notify_frame_done(handle);
        return on_Oru_sync_logic(handle);
    }
    int64_t clock()
    {
        int64_t now = INT64_MIN;
        EXPECT_TRUE(synchronizer_get_current_media_time(handle, &now));
        return now;
    }
    int64_t release_time(int64_t media_time)
    {
        int64_t time = INT64_MIN;
        EXPECT_TRUE(synchronizer_get_release_time(handle, media_time, &time));
        return time;
    }
    /// The first frame has been shown at kStart; the clock stands there.
    void show_first(int64_t pts)
    {
        g_frozen_us = kStart;
        synchronizer_resync(handle);
        queue.push(pts);
        ASSERT_TRUE(step());
        ASSERT_EQ(queue.flipped.back(), pts);
    }
    /// At @p now, with the audio clock at @p audio.
    void at(int64_t now, int64_t audio)
    {
        g_frozen_us = now;
        synchronizer_set_base_media_time(handle, audio, kNoBound);
    }
    std::string logged_step(const char* level)
    {
        setenv("debug_hdmiplayer_log_level", level, 1);
        testing::internal::CaptureStdout();
        step();
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    void vblank_every(int64_t period_us)
    {
        synchronizer_set_drm_info(handle, {7, 1000000.0F / static_cast<float>(period_us)});
        g_hooks.wait_vblank = [period_us](int, drmVBlank*) {
            const int64_t now = static_cast<int64_t>(system_time(CLOCK_MONOTONIC) / 1000);
            usleep(static_cast<useconds_t>(period_us - now % period_us));
            return 0;
        };
    }
    /// Seconds that synchronizer_stop() takes.
    double stop_seconds()
    {
        const auto before = steady::now();
        EXPECT_TRUE(synchronizer_stop(handle));
        return std::chrono::duration<double>(steady::now() - before).count();
    }

    FrameQueue queue;
    void* handle = nullptr;
};

// --- Control --------------------------------------------------------------------

TEST_F(Synchronizer, RefusesInvalidArgumentsWithItsMessages)
{
    synchronizer_mode_e mode = E_SYNC_MODE_MAX;
    synchronizer_state_e state = E_SYNC_STATE_MAX;
    void* idle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    testing::internal::CaptureStdout();
    EXPECT_EQ(synchronizer_init(E_SYNCHRONIZER_PLAYER_VAPLAYER), nullptr);
    EXPECT_FALSE(synchronizer_start(idle));
    EXPECT_FALSE(synchronizer_set_callback(idle, nullptr, &queue.callbacks));
    EXPECT_FALSE(synchronizer_set_callback(idle, &queue, nullptr));
    EXPECT_FALSE(synchronizer_set_sync_mode(idle, E_SYNC_MODE_MAX));
    EXPECT_FALSE(synchronizer_set_sync_mode(idle, static_cast<synchronizer_mode_e>(-1)));
    EXPECT_FALSE(synchronizer_set_sync_state(idle, E_SYNC_STATE_MAX));
    EXPECT_FALSE(synchronizer_set_playback_rate(idle, -0.0F));
    EXPECT_FALSE(synchronizer_get_release_time(idle, 1, nullptr));
    EXPECT_FALSE(on_Oru_sync_logic(idle));
    fflush(stdout);
    const std::string log = testing::internal::GetCapturedStdout();
    for (const char* text :
         {"not support get strategy by player:2\n", "please call firstly setCallback before start!!!\n",
          "callback_handle is null\n", "[synchronizer_set_callback", "] callback is null\n", "invalid mode:3\n",
          "invalid mode:-1\n", "invalid state:4\n", "invalid rate:-0.000000\n", "system_time is null\n",
          "synchronizer callback is null\n"})
        EXPECT_NE(log.find(text), std::string::npos) << text << " not in\n" << log;
    EXPECT_TRUE(synchronizer_get_sync_mode(idle, &mode));
    EXPECT_TRUE(synchronizer_get_sync_state(idle, &state));
    EXPECT_EQ(mode, E_SYNC_MODE_MAX);
    EXPECT_EQ(state, E_SYNC_STATE_MAX);
    EXPECT_TRUE(synchronizer_deinit(idle));
    EXPECT_FALSE(synchronizer_get_sync_mode(handle, nullptr) || synchronizer_get_sync_state(handle, nullptr) ||
                 synchronizer_get_playback_rate(handle, nullptr) ||
                 synchronizer_get_current_media_time(handle, nullptr));
}

TEST_F(Synchronizer, RefusesANullHandle)
{
    float rate = 0;
    int64_t time = 0;
    EXPECT_FALSE(synchronizer_deinit(nullptr) || synchronizer_start(nullptr) || synchronizer_stop(nullptr) ||
                 synchronizer_notify_frame_done(nullptr) || synchronizer_resync(nullptr) ||
                 synchronizer_set_callback(nullptr, &queue, &queue.callbacks) ||
                 synchronizer_set_sync_mode(nullptr, E_SYNC_MODE_FREERUN) ||
                 synchronizer_set_sync_state(nullptr, E_SYNC_STATE_START) ||
                 synchronizer_set_drm_info(nullptr, {1, 60}) || synchronizer_enable_low_latency_mode(nullptr, true) ||
                 synchronizer_set_playback_rate(nullptr, 1) || synchronizer_get_playback_rate(nullptr, &rate) ||
                 synchronizer_set_base_media_time(nullptr, 1, 1) ||
                 synchronizer_get_current_media_time(nullptr, &time) ||
                 synchronizer_get_release_time(nullptr, 1, &time) || on_Oru_sync_logic(nullptr));
}

TEST_F(Synchronizer, CallsInAnyOrderOfItsLifeAreHarmless)
{
    const auto feed = [this] {
        EXPECT_TRUE(synchronizer_notify_frame_done(handle));
        EXPECT_TRUE(synchronizer_set_base_media_time(handle, 1000, 2000));
        EXPECT_TRUE(synchronizer_resync(handle));
    };
    feed();
    EXPECT_TRUE(synchronizer_stop(handle));
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(synchronizer_start(handle));
        EXPECT_TRUE(synchronizer_start(handle));
        feed();
        EXPECT_TRUE(synchronizer_stop(handle));
        EXPECT_TRUE(synchronizer_stop(handle));
        feed();
    }
    EXPECT_TRUE(synchronizer_start(handle)); // torn down while it runs
}

TEST_F(Synchronizer, ThreadCreationThatFailsLeavesItStopped)
{
    for (int creations : {0, 1}) {
        g_thread_creations_until_failure = creations;
        EXPECT_FALSE(synchronizer_start(handle));
        g_thread_creations_until_failure = -1;
        mutex_guard guard(sync().control_mutex);
        EXPECT_EQ(sync().sync_thread, 0U);
    }
    queue.push(0);
    EXPECT_TRUE(synchronizer_start(handle));
    EXPECT_TRUE(queue.wait_flips(1));
}

// --- Media clock ----------------------------------------------------------------

TEST_F(Synchronizer, ClockExtrapolatesFromItsAnchorUpToTheBound)
{
    g_frozen_us = kStart;
    EXPECT_EQ(clock(), 0);
    synchronizer_set_base_media_time(handle, 4990000, 5000000);
    g_frozen_us = kStart + 9000;
    EXPECT_EQ(clock(), 4999000);
    EXPECT_EQ(release_time(5099000), kStart + 109000); // not bounded
    sync().enable_log = true;
    g_frozen_us = kStart + 20000;
    testing::internal::CaptureStdout();
    EXPECT_EQ(clock(), 5000000);
    fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("] audio stuck, underrun time:10000\n"), std::string::npos);
    synchronizer_set_base_media_time(handle, 4990000, 0);
    g_frozen_us = kStart + 1020000;
    EXPECT_EQ(clock(), 5990000);
}

TEST_F(Synchronizer, RateScalesTheClockAndItsInverse)
{
    float rate = 0;
    at(kStart, 1000000);
    ASSERT_TRUE(synchronizer_set_playback_rate(handle, 2.0F));
    EXPECT_EQ(release_time(1100000), kStart + 50000);
    g_frozen_us = kStart + 1000;
    EXPECT_EQ(clock(), 1002000);
    ASSERT_TRUE(synchronizer_set_playback_rate(handle, -1.0F));
    EXPECT_EQ(clock(), 999000);
    EXPECT_FALSE(synchronizer_set_playback_rate(handle, 0.0F));
    ASSERT_TRUE(synchronizer_get_playback_rate(handle, &rate));
    EXPECT_EQ(rate, -1.0F);
    // Nothing a rate can be may be undefined.
    for (float odd : {INFINITY, -INFINITY, NAN, std::numeric_limits<float>::denorm_min()}) {
        ASSERT_TRUE(synchronizer_set_playback_rate(handle, odd));
        g_frozen_us = kStart;
        clock();
        release_time(5000000);
        g_frozen_us = kStart + 5000;
        clock();
        release_time(-5000000);
    }
}

TEST_F(Synchronizer, ClockCountsInSinglePrecision)
{
    // Product and sum are rounded one by one: fused or in double it would be 8300007.
    at(kStart, 5000001);
    synchronizer_set_playback_rate(handle, 1.1F);
    g_frozen_us = kStart + 3000006;
    EXPECT_EQ(clock(), 8300008);

    // A day without a reset: steps of 8192 us.
    constexpr int64_t kDay = 86400000000;
    synchronizer_set_playback_rate(handle, 1.0F);
    at(kStart, kDay);
    g_frozen_us = kStart + 4000;
    EXPECT_EQ(clock(), kDay);
    EXPECT_EQ(release_time(kDay + 30000), kStart + 34000);
    g_frozen_us = kStart + 5000;
    EXPECT_EQ(clock(), kDay + 8192);
}

TEST_F(Synchronizer, WallClockSetBackSendsTheClockToItsBound)
{
    at(kStart, 4000000);
    g_frozen_us = kStart - 1000;
    EXPECT_EQ(clock(), INT64_MAX);
    EXPECT_EQ(release_time(4000000), kStart); // signed here
    synchronizer_set_base_media_time(handle, 4000000, 4100000);
    g_frozen_us = kStart - 3600000000;
    EXPECT_EQ(clock(), 4100000);
}

TEST_F(Synchronizer, ResumeAnchorsTheClockToTheMonotonicClock)
{
    const auto monotonic = [] { return static_cast<int64_t>(system_time(CLOCK_MONOTONIC) / 1000); };
    g_frozen_us = monotonic() + 500000000;
    synchronizer_set_base_media_time(handle, 1000000, kNoBound);
    ASSERT_TRUE(synchronizer_set_sync_state(handle, E_SYNC_STATE_PAUSE));
    ASSERT_TRUE(synchronizer_set_sync_state(handle, E_SYNC_STATE_RESUME));
    g_frozen_us = monotonic();
    EXPECT_GE(clock(), 1000000);
    EXPECT_LT(clock(), 1000000 + 400000000); // from the resume, not from the anchor before it
}

// --- Vertical-blank grid --------------------------------------------------------

TEST_F(Synchronizer, SnapsToTheNearestVerticalBlankAndTiesToTheEarlier)
{
    EXPECT_EQ(closest_vsync(1000, 1000, 100), 1000);
    EXPECT_EQ(closest_vsync(1049, 1000, 100), 1000);
    EXPECT_EQ(closest_vsync(1050, 1000, 100), 1000);
    EXPECT_EQ(closest_vsync(1051, 1000, 100), 1100);
    EXPECT_EQ(closest_vsync(951, 1000, 100), 1000);
    EXPECT_EQ(closest_vsync(950, 1000, 100), 900);
    EXPECT_EQ(closest_vsync(749, 1000, 100), 700);
    EXPECT_EQ(closest_vsync(12345, 1000, 1), 12345);
    for (int64_t period : {int64_t{-1}, int64_t{0}, int64_t{16666}})
        for (int64_t release : {INT64_MIN, INT64_MAX})
            for (int64_t sampled : {INT64_MIN, int64_t{0}, INT64_MAX})
                closest_vsync(release, sampled, period); // must not trap
}

TEST_F(Synchronizer, RendersWithinHalfAPeriodOfTheVerticalBlankOrWhenItHasPassed)
{
    EXPECT_FALSE(frame_render_by_vsync(-5000, -1, 16667));
    EXPECT_TRUE(frame_render_by_vsync(0, 100000, 16667));
    EXPECT_TRUE(frame_render_by_vsync(99999, 100000, 16667));
    EXPECT_TRUE(frame_render_by_vsync(108333, 100000, 16667));
    EXPECT_FALSE(frame_render_by_vsync(108334, 100000, 16667));
    EXPECT_FALSE(frame_render_by_vsync(INT64_MAX, 100000, 16667));
}

TEST_F(Synchronizer, EarlyFrameGoesOutAtTheVerticalBlankBeforeItsOwn)
{
    constexpr int64_t kPeriod = 16666;
    // The release time is 1.5 periods after the sampled blank: a tie, hence one period after
    // it; its flip is due 80 % earlier. One microsecond more and it is the next one's.
    for (const auto& [beyond, flips] : {std::pair<int64_t, size_t>{0, 2}, {1, 1}}) {
        queue.waiting.clear();
        queue.flipped.clear();
        synchronizer_set_drm_info(handle, {7, 60.0F});
        show_first(1000000);
        sync().last_vsync_system_time = kStart;
        queue.push(1033333);
        const int64_t release = kStart + kPeriod + kPeriod / 2 + beyond;
        at(kStart + 1000, 1033333 - (release - (kStart + 1000)));
        sync().enable_log = true;
        const std::string log = logged_step("3");
        EXPECT_EQ(queue.flips(), flips) << beyond;
        const int64_t target = kStart + (beyond == 0 ? kPeriod : 2 * kPeriod) - 13332;
        EXPECT_NE(log.find("] frameSystemTime:" + std::to_string(target) + " vsyncSystemTime:"), std::string::npos)
            << log;
    }
}

// --- Pacing by audio ------------------------------------------------------------

TEST_F(Synchronizer, DelayIsCorrectedBeyondTheThresholdOnly)
{
    struct {
        int64_t duration, diff, delay;
    } const cases[] = {
        // In sync, and late by just less and just as much as the threshold of 40 ms.
        {33333, 0, 33333},
        {33333, -39999, 33333},
        {33333, -40000, 0},
        {33333, -200000, 0},
        // The threshold follows the duration, up to 100 ms.
        {50000, -49999, 50000},
        {50000, -50000, 0},
        {120000, -99999, 120000},
        {120000, -100000, 20000},
        // Ahead: only frames longer than 150 ms are stretched.
        {33333, 120000, 33333},
        {150000, 120000, 150000},
        {150001, 99999, 150001},
        {150001, 100000, 250001},
        {200000, 60000, 200000},
        {200000, 120000, 320000},
        // Clocks that have nothing to do with each other.
        {40000, -99999999, 0},
        {40000, -100000000, 40000},
        {200000, 99999999, 100199999},
        {200000, 100000000, 200000},
        // Backward jumps.
        {-50000, 0, -50000},
        {-200000, -39999, -200000},
        {-200000, -40000, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "duration " << c.duration << " diff " << c.diff);
        queue.waiting.clear();
        // An audio clock that single precision holds exactly.
        int64_t first_pts = 1000000;
        while ((first_pts + c.duration - c.diff) % 8 != 0)
            ++first_pts;
        const int64_t pts = first_pts + c.duration;
        show_first(first_pts);
        const size_t flips = queue.flips();
        queue.push(pts);
        if (c.delay > 0 && c.delay >= c.duration) {
            const int64_t video = std::min(first_pts + c.delay - 1, pts);
            at(kStart + c.delay - 1, video - c.diff);
            EXPECT_TRUE(step());
            EXPECT_EQ(queue.flips(), flips) << "too early";
        }
        at(kStart + std::max({c.delay, c.duration, int64_t{0}}), pts - c.diff);
        EXPECT_TRUE(step());
        EXPECT_EQ(queue.flips(), flips + 1);
        EXPECT_EQ(player().frame_timer, kStart + c.delay);
        EXPECT_TRUE(queue.dropped.empty());
    }
}

TEST_F(Synchronizer, VideoClockRunsOnFromTheLastFrame)
{
    for (int64_t late : {39999, 40000}) {
        queue.waiting.clear();
        show_first(1000000);
        const size_t flips = queue.flips();
        queue.push(1033333);
        at(kStart + 10000, 1010000 + late);
        EXPECT_TRUE(step());
        EXPECT_EQ(queue.flips(), late == 40000 ? flips + 1 : flips);
    }
}

TEST_F(Synchronizer, FrameTimerLagsAtMost100Ms)
{
    for (int64_t lag : {100000, 100001}) {
        show_first(1000000);
        queue.push(1040000);
        const int64_t now = kStart + 40000 + lag;
        at(now, 1040000);
        EXPECT_TRUE(step());
        EXPECT_EQ(player().frame_timer, lag == 100000 ? kStart + 40000 : now);
    }
    // A wall clock that was set back: one frame's duration from now, not an hour.
    queue.push(1080000);
    const int64_t back = kStart - 3600000000;
    at(back, 1040000);
    EXPECT_TRUE(step());
    EXPECT_EQ(player().frame_timer, back);
    at(back + 40000, 1080000);
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.flipped.back(), 1080000);
}

TEST_F(Synchronizer, DropsAFrameOnlyWhenItsSuccessorIsOverdue)
{
    for (const auto& [beyond, dropped] : {std::pair<int64_t, size_t>{0, 0}, {1, 1}}) {
        queue.waiting.clear();
        show_first(1000000);
        queue.push(1040000);
        queue.push(1080000);
        at(kStart + 80000 + beyond, 1080000); // video late by 40 ms: the delay becomes 0
        player().frame_timer = kStart + 40000;
        EXPECT_TRUE(step());
        EXPECT_EQ(queue.dropped.size(), dropped);
        EXPECT_EQ(queue.flipped.back(), dropped != 0 ? 1080000 : 1040000);
    }
}

TEST_F(Synchronizer, FarBehindDropsAllButTheNewestInOneStep)
{
    show_first(1000000);
    for (int n = 1; n <= 5; ++n)
        queue.push(1000000 + n * 33333);
    at(kStart + 250000, 1250000);
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.dropped, (std::vector<int64_t>{1033333, 1066666, 1099999, 1133332}));
    EXPECT_EQ(queue.flipped.back(), 1166665);
    EXPECT_EQ(sync().last_flip_system_time, kStart + 250000);
    EXPECT_EQ(player().last_frame.pts, 1166665U);
}

TEST_F(Synchronizer, FrameWithdrawnAfterThePeekIsNotReleasedTwice)
{
    // The queue's owner takes the oldest frame in between; the one that is left is shown.
    queue.push(1000000);
    queue.push(1033333);
    queue.after_peek = [this] {
        std::lock_guard<std::mutex> lock(queue.mutex);
        queue.waiting.pop_front();
    };
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.flipped, (std::vector<int64_t>{1033333}));
    queue.push(1066666); // and nothing is left
    g_frozen_us = static_cast<int64_t>(get_system_time_us()) + 1000000;
    EXPECT_TRUE(step());
    for (synchronizer_mode_e mode : {E_SYNC_MODE_FREERUN, E_SYNC_MODE_AUDIO_MASTER}) {
        synchronizer_resync(handle);
        synchronizer_set_sync_mode(handle, mode);
        queue.push(1100000);
        EXPECT_TRUE(step());
    }
    EXPECT_EQ(queue.flips(), 1U);
    EXPECT_TRUE(queue.dropped.empty());
}

TEST_F(Synchronizer, ClassifiesTheOffsetInTheLog)
{
    struct {
        int64_t diff;
        const char* text;
    } const cases[] = {
        {-90001, "unacceptable"}, {-90000, " acceptable"},  {-45001, " acceptable"},  {-45000, " detectable"},
        {-25001, " detectable"},  {-25000, "undetectable"}, {100000, "undetectable"}, {100001, " detectable"},
        {125000, " detectable"},  {125001, " acceptable"},  {185000, " acceptable"},  {185001, "unacceptable"},
    };
    sync().enable_log = true;
    for (const auto& c : cases) {
        queue.waiting.clear();
        show_first(1000000);
        const size_t flips = queue.flips();
        queue.push(1033333);
        at(kStart + 33333, 1033333 - c.diff);
        const std::string log = logged_step("4");
        EXPECT_NE(log.find(c.text), std::string::npos) << c.diff << "\n" << log;
        // Far ahead of the audio, and with the log on, the frame is held.
        EXPECT_EQ(queue.flips(), c.diff > 185000 ? flips : flips + 1) << c.diff;
        EXPECT_EQ(log.find("wait audio clock update") != std::string::npos, c.diff > 185000);
    }
    sync().enable_log = false;
    const size_t flips = queue.flips();
    EXPECT_TRUE(step()); // the frame that was held
    EXPECT_EQ(queue.flips(), flips + 1);
}

TEST_F(Synchronizer, StepTellsWhetherThereIsWork)
{
    EXPECT_NE(logged_step("5").find("] on_Oru_sync_logic:"), std::string::npos);
    EXPECT_FALSE(step());
    queue.push(1000000);
    queue.peek_fails = true;
    EXPECT_FALSE(step());
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    EXPECT_TRUE(step());
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_VIDEO_MASTER);
    EXPECT_NE(logged_step("1").find("] cannot get valid sync mode:2\n"), std::string::npos);
    EXPECT_FALSE(step());
    EXPECT_TRUE(queue.flipped.empty());
}

// --- Free run -------------------------------------------------------------------

TEST_F(Synchronizer, FreeRunFeedsTheClockAndLowLatencyDoesNotWait)
{
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    show_first(1000000);
    EXPECT_EQ(clock(), 1000000);
    queue.push(60000000);
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.flipped.back(), 60000000);
    EXPECT_EQ(sync().last_flip_system_time, -1);
    g_frozen_us = kStart + 4;
    EXPECT_EQ(clock(), 60000004);
    synchronizer_enable_low_latency_mode(handle, false);
    queue.push(50000000); // a jump back is not waited for either
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.flipped.back(), 50000000);
    // Neither pause nor stop is paced.
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER);
    synchronizer_set_sync_state(handle, E_SYNC_STATE_PAUSE);
    queue.push(40000000);
    EXPECT_TRUE(step());
    EXPECT_EQ(clock(), 40000000);
}

TEST_F(Synchronizer, StateAndModeCanBeForcedFromTheEnvironment)
{
    synchronizer_state_e state = E_SYNC_STATE_MAX;
    synchronizer_mode_e mode = E_SYNC_MODE_MAX;
    setenv("debug.hdmiplayer.sync.forcestate", "2", 1);
    setenv("debug.hdmiplayer.sync.forcemode", "0", 1);
    const std::string log = logged_step("4");
    EXPECT_NE(log.find("] force state:2\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] force mode:0\n"), std::string::npos) << log;
    EXPECT_EQ(logged_step("4").find("force"), std::string::npos);
    for (const char* invalid : {"3", "-1", "x"}) { // mode 3 is none, state 3 is one
        setenv("debug.hdmiplayer.sync.forcemode", invalid, 1);
        setenv("debug.hdmiplayer.sync.forcestate", invalid[0] == '3' ? "4" : invalid, 1);
        step();
    }
    synchronizer_get_sync_state(handle, &state);
    synchronizer_get_sync_mode(handle, &mode);
    EXPECT_EQ(state, E_SYNC_STATE_PAUSE);
    EXPECT_EQ(mode, E_SYNC_MODE_FREERUN);
}

// --- A whole display, in simulated time -----------------------------------------

struct Cadence {
    double fps;
    double display_hz;
    int64_t age_us; ///< media time since the last reset
};

class PacedStream : public Synchronizer, public testing::WithParamInterface<Cadence>
{
};

TEST_P(PacedStream, ShowsEveryFrameOnceNearItsTime)
{
    constexpr int64_t kTick = 500;
    constexpr int64_t kSeconds = 10;
    constexpr int64_t kAudioPeriod = 20000;
    const double frame_us = 1e6 / GetParam().fps;
    const double vblank_us = 1e6 / GetParam().display_hz;
    const int64_t age = GetParam().age_us;
    const auto pts_of = [&](int64_t n) { return age + static_cast<int64_t>(static_cast<double>(n) * frame_us); };

    synchronizer_set_drm_info(handle, {7, static_cast<float>(GetParam().display_hz)});
    // Vertical blanks fall between the ticks of the simulation.
    const auto vblank_of = [&](int64_t n) {
        return kTick / 2 + static_cast<int64_t>(static_cast<double>(n) * vblank_us);
    };
    int64_t frames = 0;
    int64_t vblanks = 0;
    std::vector<int64_t> flipped_before; ///< for each frame, the number of the first vertical blank after its flip
    for (int64_t elapsed = 0; elapsed < kSeconds * 1000000; elapsed += kTick) {
        g_frozen_us = kStart + elapsed;
        if (elapsed % kAudioPeriod == 0)
            synchronizer_set_base_media_time(handle, age + elapsed, age + elapsed + 4 * kAudioPeriod);
        while (pts_of(frames) <= age + elapsed + 2 * static_cast<int64_t>(frame_us))
            queue.push(pts_of(frames++));
        if (elapsed > vblank_of(vblanks))
            sync().last_vsync_system_time = kStart + vblank_of(vblanks++);
        do {
            flipped_before.resize(queue.flips(), vblanks);
            step();
        } while (queue.flips() > flipped_before.size());
    }
    EXPECT_TRUE(queue.dropped.empty());
    EXPECT_GE(static_cast<double>(flipped_before.size()), GetParam().fps * (kSeconds - 1));
    for (size_t n = 0; n < flipped_before.size(); ++n) {
        const int64_t pts = pts_of(static_cast<int64_t>(n));
        ASSERT_EQ(queue.flipped[n], pts);
        // Frames whose time falls between two vertical blanks take the earlier one.
        const auto late_us = static_cast<double>(vblank_of(flipped_before[n]) - (pts - age));
        ASSERT_GE(late_us, -1.25 * vblank_us) << n;
        ASSERT_LE(late_us, 0.5 * vblank_us) << n;
    }
}

constexpr int64_t kDay = 86400000000;
INSTANTIATE_TEST_SUITE_P(Rates, PacedStream,
                         testing::Values(Cadence{24, 60, 1000000}, Cadence{25, 50, 1000000}, Cadence{30, 60, 1000000},
                                         Cadence{50, 60, 1000000}, Cadence{59.94, 60, 1000000},
                                         Cadence{60, 60, 1000000}, Cadence{60, 60, kDay}, Cadence{25, 50, kDay}));

// --- Threads --------------------------------------------------------------------

TEST_F(Synchronizer, ThreadsPaceARunningStreamAndAccountForEveryFrame)
{
    constexpr int kFrames = 60;
    vblank_every(16666);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(synchronizer_resync(handle));
    const auto begin = steady::now();
    for (int n = 0; n < kFrames; ++n) {
        std::this_thread::sleep_until(begin + n * 16666us);
        const int64_t media = 1 + std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - begin).count();
        synchronizer_set_base_media_time(handle, media, media + 80000);
        queue.push(n * 16666);
        synchronizer_notify_frame_done(handle);
        if (n == kFrames / 2)
            synchronizer_resync(handle);
    }
    const auto deadline = steady::now() + kHang;
    const auto settled = [this] {
        std::lock_guard<std::mutex> lock(queue.mutex);
        return queue.flipped.size() + queue.dropped.size();
    };
    while (settled() < kFrames && steady::now() < deadline)
        std::this_thread::sleep_for(1ms);
    synchronizer_stop(handle);
    EXPECT_EQ(settled(), static_cast<size_t>(kFrames));
    EXPECT_TRUE(std::is_sorted(queue.flipped.begin(), queue.flipped.end()));
    EXPECT_NE(sync().last_vsync_system_time, -1);
}

TEST_F(Synchronizer, ResyncForgetsTheHistoryButTheTimer)
{
    show_first(1000000);
    sync().last_vsync_system_time = kStart;
    synchronizer_resync(handle);
    EXPECT_EQ(sync().last_vsync_system_time, -1);
    EXPECT_EQ(sync().last_flip_system_time, -1);
    EXPECT_EQ(player().last_frame.pts, UINT64_MAX);
    EXPECT_EQ(player().frame_timer, kStart);
    EXPECT_EQ(player().last_frame_system_time, kStart);
    // While the threads run, the next step does it, whatever it waited for.
    g_frozen_us = 0;
    queue.push(1000000);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(queue.wait_flips(2));
    queue.push(3600000000); // due in an hour
    synchronizer_notify_frame_done(handle);
    synchronizer_resync(handle);
    EXPECT_TRUE(queue.wait_flips(3));
}

TEST_F(Synchronizer, NewsEndTheWaitForAudio)
{
    sync().enable_log = true;
    setenv("debug_hdmiplayer_log_level", "0", 1);
    for (const bool display : {false, true}) {
        synchronizer_set_base_media_time(handle, 1, 1);
        synchronizer_resync(handle);
        queue.push(90000000);
        queue.push(90001000); // far ahead of a clock that stands: waits 90 s
        if (display)
            vblank_every(2000);
        ASSERT_TRUE(synchronizer_start(handle));
        ASSERT_TRUE(queue.wait_flips(display ? 3 : 1));
        std::this_thread::sleep_for(20ms); // most probably in the wait by now
        EXPECT_EQ(queue.flips(), display ? 3U : 1U);
        if (display) { // neither call is news of its own; the vertical blank is
            synchronizer_enable_low_latency_mode(handle, true);
            synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
        } else {
            synchronizer_set_base_media_time(handle, 90001000, 90001000);
        }
        EXPECT_TRUE(queue.wait_flips(display ? 4 : 2));
        synchronizer_stop(handle);
    }
}

TEST_F(Synchronizer, EarlyFrameIsLookedAtAgainEachRefreshWithoutAnyNews)
{
    queue.push(1000000);
    queue.push(3600000000);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(queue.wait_flips(1));
    std::this_thread::sleep_for(40ms); // past the frame's first decision, most probably
    synchronizer_enable_low_latency_mode(handle, true);
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    EXPECT_TRUE(queue.wait_flips(2));
}

TEST_F(Synchronizer, StopEndsEveryWaitAtOnce)
{
    constexpr double kAtOnce = 5; // of waits of a minute and more
    // The free-run sleep.
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    queue.push(0);
    queue.push(3600000000);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(queue.wait_flips(1));
    std::this_thread::sleep_for(20ms); // most probably asleep by now
    EXPECT_LT(stop_seconds(), kAtOnce);
    EXPECT_EQ(queue.waiting.size(), 1U);
    // The wait for a far-behind audio clock, with the wall clock set back in the middle of it.
    queue.waiting.clear();
    sync().enable_log = true;
    setenv("debug_hdmiplayer_log_level", "0", 1);
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER);
    synchronizer_set_playback_rate(handle, 1e-6F);
    synchronizer_set_base_media_time(handle, 1, 1);
    synchronizer_resync(handle);
    queue.push(90000000);
    queue.push(3600000000);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(queue.wait_flips(2));
    std::this_thread::sleep_for(20ms);
    g_wall_offset_us = -3600000000;
    EXPECT_LT(stop_seconds(), kAtOnce);
    // The pause after a failed wait for the vertical blank.
    std::atomic<bool> waited{false};
    g_hooks.wait_vblank = [&](int, drmVBlank*) {
        waited = true;
        return -EINVAL;
    };
    synchronizer_set_drm_info(handle, {7, 0.101F});
    ASSERT_TRUE(synchronizer_start(handle));
    while (!waited)
        std::this_thread::yield();
    EXPECT_LT(stop_seconds(), kAtOnce);
}

TEST_F(Synchronizer, WakesDoNotShortenTheFreeRunDistance)
{
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    queue.push(0);
    queue.push(100000);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(queue.wait_flips(1));
    const auto first = steady::now();
    while (queue.flips() < 2 && steady::now() < first + kHang) {
        synchronizer_notify_frame_done(handle);
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_GE(steady::now() - first, 60ms); // less the time in which this thread did not see the first
}

TEST_F(Synchronizer, WakeBetweenStepAndWaitIsNotLost)
{
    // Each step is told of news while it runs, finds nothing, and must be called again without
    // the idle wait of 10 ms.
    static std::atomic<int> steps;
    steps = 0;
    sync().on_sync_logic = [](void* h) {
        ++steps;
        synchronizer_notify_frame_done(h);
        return false;
    };
    const auto begin = steady::now();
    ASSERT_TRUE(synchronizer_start(handle));
    while (steps < 2000 && steady::now() < begin + kHang)
        std::this_thread::sleep_for(1ms);
    EXPECT_LT(steady::now() - begin, 2000 * 10ms / 2);
}

TEST_F(Synchronizer, PictureGoesOnWhenTheWallClockIsSetBack)
{
    synchronizer_set_base_media_time(handle, 1, 1);
    queue.push(0);
    ASSERT_TRUE(synchronizer_start(handle));
    ASSERT_TRUE(queue.wait_flips(1));
    queue.push(200000);
    synchronizer_notify_frame_done(handle);
    g_wall_offset_us = -3600000000;
    EXPECT_TRUE(queue.wait_flips(2));
}

TEST_F(Synchronizer, FailingVerticalBlankFallsBackToTheNominalRate)
{
    setenv("debug_hdmiplayer_log_level", "0", 1);
    for (float rate : {60.0F, 0.0F, -1.0F, 1e9F, INFINITY, NAN, 1e-40F, 0.0001F}) {
        std::atomic<int> calls{0};
        g_hooks.wait_vblank = [&](int fd, drmVBlank* request) {
            EXPECT_EQ(fd, 7);
            EXPECT_EQ(request->request.type, DRM_VBLANK_RELATIVE);
            EXPECT_EQ(request->request.sequence, 1U);
            ++calls;
            return -1;
        };
        synchronizer_set_drm_info(handle, {7, rate});
        sync().last_vsync_system_time = -1;
        const auto begin = steady::now();
        ASSERT_TRUE(synchronizer_start(handle));
        while (calls < 4 && steady::now() < begin + kHang)
            std::this_thread::sleep_for(1ms);
        const auto elapsed = steady::now() - begin;
        synchronizer_stop(handle);
        EXPECT_GE(elapsed, 3 * 16666us) << rate;
        EXPECT_LT(elapsed, 5s) << rate;
        EXPECT_NE(sync().last_vsync_system_time, -1);
    }
}

TEST_F(Synchronizer, WithoutADisplayFramesFollowTheTimerAlone)
{
    std::atomic<int> calls{0};
    g_hooks.wait_vblank = [&](int, drmVBlank*) { return ++calls, 0; };
    setenv("debug.hdmiplayer.sync.disablevsync", "1", 1);
    synchronizer_set_drm_info(handle, {7, 60});
    ASSERT_TRUE(synchronizer_start(handle));
    queue.push(1000000);
    queue.push(1040000);
    synchronizer_notify_frame_done(handle);
    EXPECT_TRUE(queue.wait_flips(2));
    synchronizer_stop(handle);
    EXPECT_EQ(sync().last_vsync_system_time, -1);
    unsetenv("debug.hdmiplayer.sync.disablevsync");

    synchronizer_set_drm_info(handle, {0, 60});
    std::string log;
    for (int attempt = 0; attempt < 100 && log.empty(); ++attempt) { // a stop before the thread ran is silent
        testing::internal::CaptureStdout();
        ASSERT_TRUE(synchronizer_start(handle));
        std::this_thread::sleep_for(20ms);
        synchronizer_stop(handle);
        fflush(stdout);
        log = testing::internal::GetCapturedStdout();
    }
    EXPECT_NE(log.find("] invalid drm_info.fd:0\n"), std::string::npos) << log;
    EXPECT_EQ(calls, 0);
}

TEST_F(Synchronizer, EveryCallMayRunBesideEveryOther)
{
    vblank_every(2000);
    std::atomic<bool> done{false};
    const auto repeat = [&done](const std::function<void(int)>& work) {
        return std::thread([&done, work] {
            for (int n = 0; !done; ++n) {
                work(n);
                std::this_thread::sleep_for(200us);
            }
        });
    };
    std::thread threads[] = {
        repeat([this](int n) { n % 8 < 6 ? synchronizer_start(handle) : synchronizer_stop(handle); }),
        repeat([this](int n) {
            synchronizer_start(handle);
            synchronizer_resync(handle);
            if (n % 16 == 0)
                synchronizer_stop(handle);
        }),
        repeat([this](int n) {
            queue.push(n * 1000);
            synchronizer_notify_frame_done(handle);
        }),
        repeat([this](int n) {
            synchronizer_set_base_media_time(handle, 1 + n * 1000, 1 + n * 1000 + 5000);
            clock();
            release_time(n * 1000);
        }),
        repeat([this](int n) {
            synchronizer_mode_e mode = E_SYNC_MODE_MAX;
            synchronizer_set_sync_mode(handle, n % 4 == 0 ? E_SYNC_MODE_FREERUN : E_SYNC_MODE_AUDIO_MASTER);
            synchronizer_get_sync_mode(handle, &mode);
            synchronizer_enable_low_latency_mode(handle, n % 2 == 0);
            synchronizer_set_drm_info(handle, {n % 64 == 0 ? 0 : 7, 500});
            synchronizer_set_playback_rate(handle, n % 2 == 0 ? 1.0F : 2.0F);
        }),
    };
    std::this_thread::sleep_for(500ms);
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    const size_t flips = queue.flips();
    queue.push(INT64_MAX);
    ASSERT_TRUE(synchronizer_start(handle));
    EXPECT_TRUE(queue.wait_flips(flips + 1));
}

} // namespace
