// SPDX-License-Identifier: MIT
#include "internal/synchronizer.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "internal/common.h"
#include "platform_hooks.h"
#include "support/blocked_call.h"
#include "support/log_capture.h"

namespace
{

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

// The wall clock while it is frozen; 0: the real one.
std::atomic<int64_t> g_frozen_us{0};
std::atomic<int> g_thread_creations_until_failure{-1};

} // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t real_us = now.tv_sec * int64_t{1000000} + now.tv_nsec / 1000;
    const int64_t us = g_frozen_us != 0 ? g_frozen_us.load() : real_us;
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
constexpr int64_t kDay = 86400000000;
constexpr int64_t kNoBound = -1;

/// What @p act logs up to @p level, a record as "L function: text" and times after kStart as T+us.
std::string records(const char* level, const std::function<void()>& act)
{
    std::istringstream raw(logged(level, act));
    std::string log;
    for (std::string record; std::getline(raw, record, '\033');) {
        char initial = 0;
        char function[64] = {};
        int text = 0;
        if (sscanf(record.c_str(), "[%*[0-9;]m[%*[0-9:.]] %*d %c [%63s %*d] %n", &initial, function, &text) == 2)
            log += std::string(1, initial) + " " + function + ": " + record.substr(static_cast<size_t>(text));
    }
    for (size_t at = 0; (at = log.find("1700000000")) != std::string::npos;)
        log.replace(at, 10, "T+");
    return log;
}

std::string thread_name()
{
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    return name;
}

/// The caller's side of the callbacks. Frames carry their pts; handles are not needed to tell them apart.
struct FrameQueue {
    std::mutex mutex;
    std::deque<int64_t> waiting;
    std::vector<int64_t> flipped;
    std::vector<int64_t> dropped;
    bool peek_fails = false;
    std::function<void()> after_peek = [] {}; ///< on the sync thread, unlocked
    std::function<void()> after_drop = [] {}; ///< the same
    synchronizer_callback_t callbacks = {count, peek, get, drop, flip};

    void push(int64_t pts)
    {
        std::lock_guard<std::mutex> lock(mutex);
        waiting.push_back(pts);
    }
    template <typename List> size_t size_of(const List& list)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return list.size();
    }
    size_t flips() { return size_of(flipped); }
    size_t drops() { return size_of(dropped); }

private:
    static FrameQueue& self(void* handle) { return *static_cast<FrameQueue*>(handle); }
    bool front(synchronizer_frame_info_t* frame, bool take)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (waiting.empty())
            return false;
        frame->pts = static_cast<uint64_t>(waiting.front());
        if (take)
            waiting.pop_front();
        return true;
    }
    bool release(std::vector<int64_t>& list, const synchronizer_frame_info_t* frame)
    {
        std::lock_guard<std::mutex> lock(mutex);
        list.push_back(static_cast<int64_t>(frame->pts));
        return true;
    }
    static bool count(void* handle, int32_t* count)
    {
        *count = static_cast<int32_t>(self(handle).size_of(self(handle).waiting));
        return true;
    }
    static bool peek(void* handle, synchronizer_frame_info_t* frame)
    {
        const bool done = !self(handle).peek_fails && self(handle).front(frame, false);
        self(handle).after_peek();
        return done;
    }
    static bool get(void* handle, synchronizer_frame_info_t* frame) { return self(handle).front(frame, true); }
    static bool drop(void* handle, synchronizer_frame_info_t* frame)
    {
        self(handle).release(self(handle).dropped, frame);
        self(handle).after_drop();
        return true;
    }
    static bool flip(void* handle, synchronizer_frame_info_t* frame)
    {
        return self(handle).release(self(handle).flipped, frame);
    }
};

/// A synchronizer that paces by audio, with the log off.
class Synchronizer : public testing::Test
{
protected:
    void SetUp() override
    {
        setenv("debug_hdmiplayer_log_level", "0", 1);
        handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
        ASSERT_NE(handle, nullptr);
        ASSERT_TRUE(synchronizer_set_callback(handle, &queue, &queue.callbacks));
        ASSERT_TRUE(synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER));
        ASSERT_TRUE(synchronizer_set_sync_state(handle, E_SYNC_STATE_START));
    }
    void TearDown() override
    {
        synchronizer_deinit(handle); // ends the threads, too
        g_hooks = PlatformHooks();
        g_frozen_us = 0;
        for (const char* name : {"debug.hdmiplayer.sync.forcestate", "debug.hdmiplayer.sync.forcemode",
                                 "debug.hdmiplayer.sync.disablevsync"})
            unsetenv(name);
    }

    sync_strategy_info_t& sync() { return *static_cast<sync_strategy_info_t*>(handle); }
    sync_strategy_info_Oru_player_t& player() { return *static_cast<sync_strategy_info_Oru_player_t*>(handle); }

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
    /// One step whose wait, if it decides to wait, is over at once.
    bool step()
    {
        synchronizer_notify_frame_done(handle);
        return on_Oru_sync_logic(handle);
    }
    /// As records(); of the step's own ones the function is left out.
    std::string logged_step(const char* level)
    {
        std::string log = records(level, [this] { step(); });
        for (size_t at = 0; (at = log.find(" on_Oru_sync_logic: ")) != std::string::npos;)
            log.erase(at, strlen(" on_Oru_sync_logic:"));
        return log;
    }
    /// The frame of @p pts has been shown at kStart, where the clock stands; @p others wait.
    void show_first(int64_t pts, const std::deque<int64_t>& others = {})
    {
        g_frozen_us = kStart;
        synchronizer_resync(handle);
        queue.waiting = {pts};
        ASSERT_TRUE(step());
        ASSERT_EQ(queue.flipped.back(), pts);
        queue.waiting = others;
    }
    void set_clock(int64_t now, int64_t audio)
    {
        g_frozen_us = now;
        synchronizer_set_base_media_time(handle, audio, kNoBound);
    }
    /// One step at @p now, with the audio clock at @p audio.
    void step_at(int64_t now, int64_t audio)
    {
        set_clock(now, audio);
        EXPECT_TRUE(step());
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
    /// Starts on @p frames alone, with real time; returns when the first has been shown and most probably the next is
    /// being waited for.
    void run(const std::deque<int64_t>& frames)
    {
        synchronizer_resync(handle);
        queue.waiting = frames;
        const size_t flips = queue.flips();
        ASSERT_TRUE(synchronizer_start(handle));
        ASSERT_TRUE(shown(flips + 1));
        std::this_thread::sleep_for(20ms);
    }
    bool shown(size_t flips)
    {
        return eventually([this, flips] { return queue.flips() >= flips; });
    }
    bool stops_at_once() ///< compared with waits of a minute and more
    {
        const auto before = steady::now();
        return synchronizer_stop(handle) && steady::now() - before < 5s;
    }

    FrameQueue queue;
    void* handle = nullptr;
};

// --- Control --------------------------------------------------------------------

TEST_F(Synchronizer, RefusesInvalidArgumentsWithItsMessages)
{
    synchronizer_mode_e mode = E_SYNC_MODE_FREERUN;
    synchronizer_state_e state = E_SYNC_STATE_STOP;
    float rate = 0;
    int64_t time = 0;
    void* idle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    const std::string log = records("1", [&] {
        EXPECT_EQ(synchronizer_init(E_SYNCHRONIZER_PLAYER_VAPLAYER), nullptr);
        EXPECT_FALSE(synchronizer_start(idle) || synchronizer_set_callback(idle, nullptr, &queue.callbacks) ||
                     synchronizer_set_callback(idle, &queue, nullptr) ||
                     synchronizer_set_sync_mode(idle, E_SYNC_MODE_MAX) || synchronizer_get_sync_mode(idle, nullptr) ||
                     synchronizer_set_sync_state(idle, static_cast<synchronizer_state_e>(-1)) ||
                     synchronizer_get_sync_state(idle, nullptr) || synchronizer_set_playback_rate(idle, -0.0F) ||
                     synchronizer_get_playback_rate(idle, nullptr) ||
                     synchronizer_get_current_media_time(idle, nullptr) ||
                     synchronizer_get_release_time(idle, 1, nullptr) || on_Oru_sync_logic(idle));
    });
    EXPECT_EQ(log, "E synchronizer_init: not support get strategy by player:2\n"
                   "E synchronizer_start: please call firstly setCallback before start!!!\n"
                   "E synchronizer_set_callback: callback_handle is null\n"
                   "E synchronizer_set_callback: callback is null\n"
                   "E synchronizer_set_sync_mode: invalid mode:3\n"
                   "E synchronizer_get_sync_mode: mode is null\n"
                   "E synchronizer_set_sync_state: invalid state:-1\n"
                   "E synchronizer_get_sync_state: state is null\n"
                   "E synchronizer_set_playback_rate: invalid rate:-0.000000\n"
                   "E synchronizer_get_playback_rate: rate is null\n"
                   "E synchronizer_get_current_media_time: media_time is null\n"
                   "E synchronizer_get_release_time: system_time is null\n"
                   "E on_Oru_sync_logic: synchronizer callback is null\n");
    EXPECT_TRUE(synchronizer_get_sync_mode(idle, &mode) && synchronizer_get_sync_state(idle, &state));
    EXPECT_EQ(mode, E_SYNC_MODE_MAX);
    EXPECT_EQ(state, E_SYNC_STATE_MAX);
    EXPECT_TRUE(synchronizer_stop(idle) && synchronizer_deinit(idle));
    EXPECT_FALSE(
        synchronizer_deinit(nullptr) || synchronizer_start(nullptr) || synchronizer_stop(nullptr) ||
        synchronizer_notify_frame_done(nullptr) || synchronizer_resync(nullptr) ||
        synchronizer_set_callback(nullptr, &queue, &queue.callbacks) ||
        synchronizer_set_sync_mode(nullptr, E_SYNC_MODE_FREERUN) || synchronizer_get_sync_mode(nullptr, &mode) ||
        synchronizer_set_sync_state(nullptr, E_SYNC_STATE_START) || synchronizer_get_sync_state(nullptr, &state) ||
        synchronizer_set_drm_info(nullptr, {1, 60}) || synchronizer_enable_low_latency_mode(nullptr, true) ||
        synchronizer_set_playback_rate(nullptr, 1) || synchronizer_get_playback_rate(nullptr, &rate) ||
        synchronizer_set_base_media_time(nullptr, 1, 1) || synchronizer_get_current_media_time(nullptr, &time) ||
        synchronizer_get_release_time(nullptr, 1, &time) || on_Oru_sync_logic(nullptr));
}

TEST_F(Synchronizer, ThreadCreationThatFailsLeavesItStopped)
{
    for (int creations : {0, 1}) {
        g_thread_creations_until_failure = creations;
        EXPECT_EQ(records("1", [this] { EXPECT_FALSE(synchronizer_start(handle)); }),
                  creations == 0 ? "E synchronizer_start: create sync_thread failed!\n"
                                 : "E synchronizer_start: create vsync_thread failed!\n");
        g_thread_creations_until_failure = -1;
    }
    run({0});
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
    EXPECT_EQ(records("4", [this] { EXPECT_EQ(clock(), 5000000); }),
              "W synchronizer_get_current_media_time: audio stuck, underrun time:10000\n"
              "D synchronizer_get_current_media_time: media_time:5000000\n");
    synchronizer_set_base_media_time(handle, 4990000, 0);
    g_frozen_us = kStart + 1020000;
    EXPECT_EQ(clock(), 5990000);
    // Before its anchor, after a step of the wall clock, the clock is far ahead; the release time takes it as it is.
    g_frozen_us = kStart;
    EXPECT_EQ(clock(), INT64_MAX);
    EXPECT_EQ(release_time(4990000), kStart + 20000);
    synchronizer_set_base_media_time(handle, 4990000, 5000000);
    g_frozen_us = kStart - 3600000000;
    EXPECT_EQ(clock(), 5000000);
}

TEST_F(Synchronizer, RateScalesTheClockAndItsInverse)
{
    float rate = 0;
    set_clock(kStart, 1000000);
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
    for (float odd : {INFINITY, -INFINITY, NAN, 1e-45F}) {
        ASSERT_TRUE(synchronizer_set_playback_rate(handle, odd));
        for (int64_t now : {kStart, kStart + 5000}) {
            g_frozen_us = now;
            clock();
            release_time(5000000);
            release_time(-5000000);
        }
    }
}

TEST_F(Synchronizer, ClockCountsInSinglePrecision)
{
    // Product and sum are rounded one by one: fused or in double it would be 8300007.
    set_clock(kStart, 5000001);
    synchronizer_set_playback_rate(handle, 1.1F);
    g_frozen_us = kStart + 3000006;
    EXPECT_EQ(clock(), 8300008);

    // A day without a reset: steps of 8192 us.
    synchronizer_set_playback_rate(handle, 1.0F);
    set_clock(kStart, kDay);
    g_frozen_us = kStart + 4000;
    EXPECT_EQ(clock(), kDay);
    EXPECT_EQ(release_time(kDay + 30000), kStart + 34000);
    g_frozen_us = kStart + 5000;
    EXPECT_EQ(clock(), kDay + 8192);
}

TEST_F(Synchronizer, ResumeAnchorsTheClockToTheMonotonicClock)
{
    const auto monotonic = [] { return static_cast<int64_t>(system_time(CLOCK_MONOTONIC) / 1000); };
    set_clock(monotonic() + 500000000, 1000000);
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
    EXPECT_EQ(closest_vsync(1050, 1000, 100), 1000);
    EXPECT_EQ(closest_vsync(1051, 1000, 100), 1100);
    EXPECT_EQ(closest_vsync(951, 1000, 100), 1000);
    EXPECT_EQ(closest_vsync(950, 1000, 100), 900);
    for (int64_t period : {int64_t{-1}, int64_t{0}, int64_t{16666}})
        for (int64_t release : {INT64_MIN, INT64_MAX})
            for (int64_t sampled : {INT64_MIN, int64_t{0}, INT64_MAX})
                closest_vsync(release, sampled, period); // must not trap

    EXPECT_FALSE(frame_render_by_vsync(-5000, -1, 16667));
    EXPECT_TRUE(frame_render_by_vsync(0, 100000, 16667));
    EXPECT_TRUE(frame_render_by_vsync(108333, 100000, 16667));
    EXPECT_FALSE(frame_render_by_vsync(108334, 100000, 16667));
}

TEST_F(Synchronizer, EarlyFrameGoesOutAtTheVerticalBlankBeforeItsOwn)
{
    constexpr int64_t kPeriod = 16666;
    synchronizer_set_drm_info(handle, {7, 60.0F});
    // The release time is 1.5 periods after the sampled blank: a tie, hence one period after
    // it; its flip is due 80 % earlier. One microsecond more and it is the next one's.
    for (const auto& [beyond, shown] : {std::pair<int64_t, int64_t>{0, 1033333}, {1, 1000000}}) {
        show_first(1000000, {1033333});
        sync().last_vsync_system_time = kStart;
        step_at(kStart + 1000, 1033333 - (kPeriod + kPeriod / 2 + beyond - 1000));
        EXPECT_EQ(queue.flipped.back(), shown) << beyond;
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
        // Clocks that have nothing to do with each other.
        {40000, -99999999, 0},
        {40000, -100000000, 40000},
        {200000, 99999999, 100199999},
        {200000, 100000000, 200000},
        // Backward jumps.
        {-200000, -39999, -200000},
        {-200000, -40000, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "duration " << c.duration << " diff " << c.diff);
        // An audio clock that single precision holds exactly.
        int64_t first_pts = 1000000;
        while ((first_pts + c.duration - c.diff) % 8 != 0)
            ++first_pts;
        const int64_t pts = first_pts + c.duration;
        show_first(first_pts, {pts});
        if (c.delay > 0 && c.delay >= c.duration) {
            step_at(kStart + c.delay - 1, std::min(first_pts + c.delay - 1, pts) - c.diff);
            EXPECT_EQ(queue.flipped.back(), first_pts) << "too early";
        }
        step_at(kStart + std::max({c.delay, c.duration, int64_t{0}}), pts - c.diff);
        EXPECT_EQ(queue.flipped.back(), pts);
        EXPECT_EQ(player().frame_timer, kStart + c.delay);
    }
    EXPECT_TRUE(queue.dropped.empty());
    // Between two frames the video clock runs on from the last one.
    for (int64_t late : {39999, 40000}) {
        show_first(1000000, {1033333});
        step_at(kStart + 10000, 1010000 + late);
        EXPECT_EQ(queue.flipped.back(), late == 40000 ? 1033333 : 1000000);
    }
}

TEST_F(Synchronizer, FrameTimerLagsAtMost100Ms)
{
    for (int64_t lag : {100000, 100001}) {
        show_first(1000000, {1040000});
        const int64_t now = kStart + 40000 + lag;
        step_at(now, 1040000);
        EXPECT_EQ(player().frame_timer, lag == 100000 ? kStart + 40000 : now);
    }
    // A wall clock that was set back: one frame's duration from now, not an hour.
    queue.push(1080000);
    const int64_t back = kStart - 3600000000;
    step_at(back, 1040000);
    EXPECT_EQ(player().frame_timer, back);
    step_at(back + 40000, 1080000);
    EXPECT_EQ(queue.flipped.back(), 1080000);
}

TEST_F(Synchronizer, DropsAFrameOnlyWhenItsSuccessorIsOverdue)
{
    for (const auto& [beyond, dropped] : {std::pair<int64_t, size_t>{0, 0}, {1, 1}}) {
        show_first(1000000, {1040000, 1080000});
        player().frame_timer = kStart + 40000;
        step_at(kStart + 80000 + beyond, 1080000); // video late by 40 ms: the delay becomes 0
        EXPECT_EQ(queue.drops(), dropped);
        EXPECT_EQ(queue.flipped.back(), dropped != 0 ? 1080000 : 1040000);
    }
    // Far behind: all but the newest, in one step.
    show_first(1000000, {1033333, 1066666, 1099999, 1133332});
    queue.dropped.clear();
    step_at(kStart + 250000, 1250000);
    EXPECT_EQ(queue.dropped, (std::vector<int64_t>{1033333, 1066666, 1099999}));
    EXPECT_EQ(queue.flipped.back(), 1133332);
    EXPECT_EQ(sync().last_flip_system_time, kStart + 250000);
}

TEST_F(Synchronizer, FrameWithdrawnAfterThePeekIsNotReleasedTwice)
{
    // The queue's owner takes the oldest frame in between; the one that is left is shown.
    queue.after_peek = [this] {
        std::lock_guard<std::mutex> lock(queue.mutex);
        queue.waiting.pop_front();
    };
    queue.waiting = {1000000, 1033333};
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.flipped, (std::vector<int64_t>{1033333}));
    for (synchronizer_mode_e mode : {E_SYNC_MODE_FREERUN, E_SYNC_MODE_AUDIO_MASTER}) { // and nothing is left
        synchronizer_set_sync_mode(handle, mode);
        queue.push(0);
        EXPECT_TRUE(step());
        synchronizer_resync(handle);
    }
    EXPECT_EQ(queue.flips(), 1U);
    EXPECT_TRUE(queue.dropped.empty());
}

TEST_F(Synchronizer, LogsWhatItDecidesAndWhy)
{
    sync().enable_log = true;
    synchronizer_set_drm_info(handle, {7, 60.0F});
    show_first(1000000, {1040000, 1120000});
    // The first is late by 50 ms and overdue; the other is taken in the same step.
    sync().last_vsync_system_time = kStart;
    set_clock(kStart + 90000, 1090000);
    EXPECT_EQ(logged_step("3"),
              "I video_clock_pts:1040000 audio_clock_pts:1090000 diff:-50000 delay:0\n"
              "I video clock sync audio clock acceptable\n"
              "I original cur_frame_system_time:T+040000\n"
              "I frameSystemTime:T+020000 vsyncSystemTime:T+000000 current_system_time:T+090000 "
              "frame_timer:T+000000 diff:-90000 20000\n"
              "I system_time:T+090000 frame_timer:T+000000 video late sys:90000 delay:0\n"
              "I cur_frame_duration:80000 next_frame_pts:1120000 cur_frame_pts:1040000\n"
              "W drop_frame current_system_time:T+090000 frame_timer:T+000000 elapsed:90000 cur_frame_duration:80000\n"
              "I video_clock_pts:1040000 audio_clock_pts:1090000 diff:-50000 delay:80000\n"
              "I video clock sync audio clock acceptable\n"
              "I original cur_frame_system_time:T+120000\n"
              "I frameSystemTime:T+103330 vsyncSystemTime:T+000000 current_system_time:T+090000 "
              "frame_timer:T+000000 diff:-10000 103330\n"
              "I system_time:T+090000 frame_timer:T+080000 video late sys:10000 delay:80000\n"
              "I flip_frame frame_pts:1120000 fd:0 last_frame_actual_duration:90000 flip_time:T+090000\n");
    // Early, and the timer is in the future of a clock that was set back.
    queue.push(1160000);
    set_clock(kStart + 40000, 1040000);
    sync().last_vsync_system_time = -1;
    EXPECT_EQ(logged_step("4"), "D frame_count:1\nD peekFrame frame_pts:1160000 fd:0\n"
                                "D last_frame_duration:40000 frame_pts:1160000 lastFramePts:1120000\n"
                                "D synchronizer_get_current_media_time: media_time:1040000\n"
                                "I video_clock_pts:1070000 audio_clock_pts:1040000 diff:30000 delay:40000\n"
                                "D video clock sync audio clock undetectable\n"
                                "D system_time:T+040000 frame_timer:T+080000\n"
                                "D synchronizer_get_release_time: media_time:1160000 release_time:T+160000\n"
                                "I original cur_frame_system_time:T+160000\n"
                                "I wait frame_pts:1120000 remaining_time:16666\n");
    // The same in free run.
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    player().frame_timer = kStart + 80000;
    player().last_frame.pts = 1159000;
    EXPECT_EQ(logged_step("5"),
              "V last_frame_duration:1000 cur_frame_pts:1160000 last_frame_pts:1159000\n"
              "V system_time:T+040000 frame_timer:T+080000\n"
              "V wait frame_pts:1159000 remaining_time:1000 system_time:T+040000\n"
              "I synchronizer_set_base_media_time: media_time:1160000 max_media_time:-1 system_time:T+040000\n"
              "I flip_frame frame_pts:1160000 system_time:T+040000 fd:0\n");
    // Without the switch nothing of it.
    sync().enable_log = false;
    queue.push(1161000);
    EXPECT_EQ(logged_step("5"), "");
}

TEST_F(Synchronizer, ClassifiesTheOffsetAndWithTheLogOnWaitsForAudio)
{
    const std::string text = " video clock sync audio clock ";
    const std::string undetectable = "D" + text + "undetectable\n";
    const std::string detectable = "I" + text + "detectable\n";
    const std::string acceptable = "I" + text + "acceptable\n";
    const std::string unacceptable = "W" + text + "unacceptable\n";
    const std::pair<int64_t, std::string> cases[] = {
        {-90001, unacceptable}, {-90000, acceptable},   {-45001, acceptable},   {-45000, detectable},
        {-25001, detectable},   {-25000, undetectable}, {100000, undetectable}, {100001, detectable},
        {125000, detectable},   {125001, acceptable},   {185000, acceptable},   {185001, unacceptable},
    };
    for (const auto& [diff, line] : cases) {
        const bool held = diff > 185000;
        sync().enable_log = true;
        show_first(1000000, {1033333});
        set_clock(kStart + 33333, 1033333 - diff);
        const std::string log = logged_step("4");
        EXPECT_EQ(occurrences(log, line), 1) << diff << "\n" << log;
        EXPECT_EQ(occurrences(log, "I wait audio clock update, video_clock_pts:1033333 audio_clock_pts:848332 "
                                   "diff:185001\n"),
                  held);
        EXPECT_EQ(queue.flipped.back(), held ? 1000000 : 1033333) << diff;
        sync().enable_log = false;
        EXPECT_EQ(step(), held);
        EXPECT_EQ(queue.flipped.back(), 1033333);
    }
}

TEST_F(Synchronizer, StepTellsWhetherThereIsWork)
{
    EXPECT_EQ(logged_step("5").find("V on_Oru_sync_logic:"), 0U);
    EXPECT_FALSE(step());
    queue.push(1000000);
    queue.peek_fails = true;
    EXPECT_FALSE(step());
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    EXPECT_TRUE(step());
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_VIDEO_MASTER);
    EXPECT_EQ(logged_step("1"), "E cannot get valid sync mode:2\n");
    EXPECT_FALSE(step());
    EXPECT_TRUE(queue.flipped.empty());
}

// --- Free run -------------------------------------------------------------------

TEST_F(Synchronizer, FreeRunFeedsTheClockAndLowLatencyDoesNotWait)
{
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    show_first(1000000, {60000000});
    EXPECT_EQ(clock(), 1000000);
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
    setenv("debug.hdmiplayer.sync.forcestate", "2", 1);
    setenv("debug.hdmiplayer.sync.forcemode", "0", 1);
    EXPECT_EQ(logged_step("4"), "D force state:2\nD force mode:0\n");
    EXPECT_EQ(logged_step("4"), "");
    for (const char* invalid : {"3", "-1", "x"}) { // mode 3 is none, state 3 is one
        setenv("debug.hdmiplayer.sync.forcemode", invalid, 1);
        setenv("debug.hdmiplayer.sync.forcestate", invalid[0] == '3' ? "4" : invalid, 1);
        step();
    }
    EXPECT_EQ(sync().state, E_SYNC_STATE_PAUSE);
    EXPECT_EQ(sync().mode, E_SYNC_MODE_FREERUN);
}

// --- A whole display, in simulated time -----------------------------------------

using Cadence = std::tuple<double, double, int64_t>; ///< frames a second, Hz, media time since the last reset in us

class PacedStream : public Synchronizer, public testing::WithParamInterface<Cadence>
{
};

TEST_P(PacedStream, ShowsEveryFrameOnceNearItsTime)
{
    constexpr int64_t kTick = 500;
    constexpr int64_t kEnd = 10000000;
    constexpr int64_t kAudioPeriod = 20000;
    const auto [fps, display_hz, age] = GetParam();
    const double vblank_us = 1e6 / display_hz;
    const auto nth = [](size_t n, double rate) { return static_cast<int64_t>(static_cast<double>(n) * 1e6 / rate); };
    // Vertical blanks fall between the ticks of the simulation.
    const auto vblank = [&, hz = display_hz](size_t n) { return kTick / 2 + nth(n, hz); };

    synchronizer_set_drm_info(handle, {7, static_cast<float>(display_hz)});
    size_t frames = 0;
    size_t vblanks = 0;
    std::vector<size_t> flipped_before; ///< for each frame, the number of the first vertical blank after its flip
    for (int64_t now = 0; now < kEnd; now += kTick) {
        g_frozen_us = kStart + now;
        if (now % kAudioPeriod == 0)
            synchronizer_set_base_media_time(handle, age + now, age + now + 4 * kAudioPeriod);
        while (nth(frames, fps) <= now + nth(2, fps))
            queue.push(age + nth(frames++, fps));
        if (now > vblank(vblanks))
            sync().last_vsync_system_time = kStart + vblank(vblanks++);
        do {
            flipped_before.resize(queue.flips(), vblanks);
            step();
        } while (queue.flips() > flipped_before.size());
    }
    EXPECT_TRUE(queue.dropped.empty());
    EXPECT_GE(nth(flipped_before.size(), fps), kEnd - 1000000);
    for (size_t n = 0; n < flipped_before.size(); ++n) {
        ASSERT_EQ(queue.flipped[n], age + nth(n, fps));
        // Frames whose time falls between two vertical blanks take the earlier one.
        const auto late_us = static_cast<double>(vblank(flipped_before[n]) - nth(n, fps));
        ASSERT_GE(late_us, -1.25 * vblank_us) << n;
        ASSERT_LE(late_us, 0.5 * vblank_us) << n;
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, PacedStream,
                         testing::Values(Cadence{24, 60, 1000000}, Cadence{25, 50, 1000000}, Cadence{30, 60, 1000000},
                                         Cadence{50, 60, 1000000}, Cadence{59.94, 60, 1000000},
                                         Cadence{60, 60, 1000000}, Cadence{60, 60, kDay}, Cadence{25, 50, kDay}));

// --- Threads --------------------------------------------------------------------

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
    run({1000000, 3600000000}); // the second is due in an hour
    synchronizer_resync(handle);
    EXPECT_TRUE(shown(3));
}

TEST_F(Synchronizer, WaitingFrameIsLookedAtAgainOnNewsAndEachRefresh)
{
    enum { kAudio, kFrame, kVblank, kRefresh };
    synchronizer_enable_low_latency_mode(handle, true);
    for (int news : {kAudio, kFrame, kVblank, kRefresh}) {
        const size_t flips = queue.flips();
        g_hooks.wait_vblank = nullptr;
        synchronizer_set_drm_info(handle, {0, 0});
        if (news == kVblank)
            vblank_every(2000);
        // With the log on, a frame that is 90 s ahead of the audio clock waits as long; else at most one refresh.
        sync().enable_log = news != kRefresh;
        synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER);
        synchronizer_set_base_media_time(handle, 1, 1);
        run({90000000, 95000000});
        EXPECT_EQ(queue.flips(), flips + 1);
        if (news == kAudio)
            synchronizer_set_base_media_time(handle, 99000000, 99000000); // now it is late
        else
            synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN); // no news of its own
        if (news == kFrame)
            synchronizer_notify_frame_done(handle);
        EXPECT_TRUE(shown(flips + 2)) << news;
        synchronizer_stop(handle);
    }
}

TEST_F(Synchronizer, StopEndsEveryWaitAtOnce)
{
    // The free-run sleep.
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    run({0, 3600000000});
    EXPECT_TRUE(stops_at_once());
    EXPECT_EQ(queue.waiting.size(), 1U);
    // The wait for a far-behind audio clock.
    sync().enable_log = true;
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER);
    synchronizer_set_base_media_time(handle, 1, 1);
    run({90000000, 3600000000});
    EXPECT_TRUE(stops_at_once());
    // A host that queues a frame, late as well, for each that is dropped.
    const auto deadline = steady::now() + 9s;
    queue.after_drop = [this, deadline] {
        std::this_thread::sleep_for(1ms);
        if (steady::now() < deadline)
            queue.push(0);
    };
    synchronizer_set_base_media_time(handle, 50000000, kNoBound);
    run({0, 0, 0});
    EXPECT_TRUE(eventually([this] { return queue.drops() > 9; }));
    EXPECT_TRUE(stops_at_once());
    // The pause after a failed wait for the vertical blank.
    std::atomic<bool> waited{false};
    g_hooks.wait_vblank = [&](int, drmVBlank*) {
        waited = true;
        return -EINVAL;
    };
    synchronizer_set_drm_info(handle, {7, 0.101F});
    ASSERT_TRUE(synchronizer_start(handle));
    EXPECT_TRUE(eventually([&] { return waited.load(); }));
    EXPECT_TRUE(stops_at_once());
}

TEST_F(Synchronizer, WakesDoNotShortenTheFreeRunDistance)
{
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    const auto before = steady::now();
    run({0, 100000});
    EXPECT_TRUE(eventually([this] { return synchronizer_notify_frame_done(handle) && queue.flips() > 1; }));
    EXPECT_GE(steady::now() - before, 100ms);
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
    EXPECT_TRUE(eventually([] { return steps >= 2000; }));
    EXPECT_LT(steady::now() - begin, 2000 * 10ms / 2);
}

TEST_F(Synchronizer, FailingVerticalBlankFallsBackToTheNominalRate)
{
    std::atomic<int> calls{0};
    g_hooks.wait_vblank = [&](int fd, drmVBlank* request) {
        EXPECT_EQ(thread_name(), "av_sync");
        EXPECT_EQ(fd, 7);
        EXPECT_EQ(request->request.type, DRM_VBLANK_RELATIVE);
        EXPECT_EQ(request->request.sequence, 1U);
        ++calls;
        return -1;
    };
    queue.after_peek = [] { EXPECT_EQ(thread_name(), "aysync_logic"); };
    for (float rate : {60.0F, 0.0F, -1.0F, 1e9F, INFINITY, NAN, 1e-40F, 0.0001F}) {
        SCOPED_TRACE(rate);
        calls = 0;
        synchronizer_set_drm_info(handle, {7, rate});
        const std::string log = records("3", [&] {
            const auto begin = steady::now();
            run({0});
            EXPECT_TRUE(eventually([&] { return calls > 3; }));
            EXPECT_GE(steady::now() - begin, 3 * 16666us);
            synchronizer_stop(handle);
        });
        EXPECT_NE(sync().last_vsync_system_time, -1);
        for (const char* text :
             {"I handle_sync_logic: handle_sync_logic thread enter\n",
              "I handle_sync_logic: thread_id: ", "I handle_sync_logic: handle_sync_logic thread exit\n",
              "I handle_vsync: thread_id: ", "E handle_vsync: drmWaitVBlank fd:7 error:-1\n",
              "I handle_vsync: handle_vsync thread exit\n"})
            EXPECT_NE(log.find(text), std::string::npos) << text << " not in\n" << log;
    }
}

TEST_F(Synchronizer, WithoutADisplayFramesFollowTheTimerAlone)
{
    std::atomic<int> calls{0};
    g_hooks.wait_vblank = [&](int, drmVBlank*) { return ++calls, 0; };
    setenv("debug.hdmiplayer.sync.disablevsync", "1", 1);
    synchronizer_set_drm_info(handle, {7, 60});
    run({1000000, 1040000});
    EXPECT_TRUE(shown(2));
    synchronizer_stop(handle);
    EXPECT_EQ(sync().last_vsync_system_time, -1);
    unsetenv("debug.hdmiplayer.sync.disablevsync");

    synchronizer_set_drm_info(handle, {0, 60});
    std::string log;
    for (int attempt = 0; attempt < 100 && log.empty(); ++attempt) { // a stop before the thread ran is silent
        log = records("1", [this] {
            run({0});
            synchronizer_stop(handle);
        });
    }
    EXPECT_EQ(log, "E handle_vsync: invalid drm_info.fd:0\n");
    EXPECT_EQ(calls, 0);
}

TEST_F(Synchronizer, EveryCallMayRunBesideEveryOtherAndNoFrameIsLost)
{
    vblank_every(2000);
    std::atomic<bool> done{false};
    std::atomic<size_t> pushed{0};
    const std::function<void(int)> calls[] = {
        [this](int n) { n % 8 < 6 ? synchronizer_start(handle) : synchronizer_stop(handle); },
        [this](int n) { n % 16 < 15 ? synchronizer_resync(handle) : synchronizer_stop(handle); },
        [&](int n) {
            queue.push(n * 1000);
            ++pushed;
            synchronizer_notify_frame_done(handle);
        },
        [this](int n) {
            synchronizer_set_base_media_time(handle, 1 + n * 1000, 1 + n * 1000 + 5000);
            clock();
            release_time(n * 1000);
        },
        [this](int n) {
            synchronizer_set_sync_mode(handle, n % 4 == 0 ? E_SYNC_MODE_FREERUN : E_SYNC_MODE_AUDIO_MASTER);
            synchronizer_enable_low_latency_mode(handle, n % 2 == 0);
            synchronizer_set_drm_info(handle, {n % 64 == 0 ? 0 : 7, 500});
            synchronizer_set_playback_rate(handle, n % 2 == 0 ? 1.0F : 2.0F);
        },
    };
    std::vector<std::thread> threads;
    for (const auto& call : calls) {
        threads.emplace_back([&] {
            for (int n = 0; !done; ++n) {
                call(n);
                std::this_thread::sleep_for(200us);
            }
        });
    }
    std::this_thread::sleep_for(500ms);
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    synchronizer_set_sync_mode(handle, E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    ASSERT_TRUE(synchronizer_start(handle));
    EXPECT_TRUE(eventually([&] { return queue.flips() + queue.drops() == pushed; }));
}

} // namespace
