// SPDX-License-Identifier: MIT
#include "internal/synchronizer.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "internal/common.h"
#include "internal/pacing.h"
#include "platform_hooks.h"
#include "support/callers.h"
#include "support/eventually.h"
#include "support/failing/failing_threads.h"
#include "support/locked.h"
#include "support/log_capture.h"

namespace
{

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

// The wall clock while it is frozen; 0: the real one.
std::atomic<int64_t> g_frozen_us{0};

} // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept
{
    const int64_t frozen_us = g_frozen_us;
    const int64_t now_us = frozen_us != 0 ? frozen_us : static_cast<int64_t>(system_time(CLOCK_REALTIME) / 1000);
    *tv = {now_us / 1000000, now_us % 1000000};
    return 0;
}

namespace
{

constexpr int64_t kStart = 1700000000000000; ///< us: where the frozen clock starts
constexpr int64_t kDay = 86400000000;
constexpr int64_t kNoBound = -1;

/// What @p act logs up to @p level, a record as "L function: text", of the step's own ones "L text", and times after
/// kStart as T+us.
std::string records(const char* level, const std::function<void()>& act)
{
    static const std::regex record("\033\\[[0-9;]*m\\[[0-9:.]*\\] *\\d+ (\\w) \\[(\\w+) \\d+\\] ([^\033]*)");
    const std::string raw = logged(level, act);
    std::string log;
    for (std::sregex_iterator it(raw.begin(), raw.end(), record), end; it != end; ++it)
        log += (*it)[1].str() + " " + ((*it)[2] != "on_Oru_sync_logic" ? (*it)[2].str() + ": " : "") + (*it)[3].str();
    return std::regex_replace(log, std::regex("1700000000"), "T+");
}

/// The caller's side of the callbacks. Frames carry their pts; handles are not needed to tell them apart.
struct FrameQueue : Locked {
    using List = std::deque<int64_t>;
    using Frame = synchronizer_frame_info_t;

    List waiting;
    List flipped;
    List dropped;
    std::atomic<bool> peek_fails{false};
    std::function<void()> after_peek = [] {}; ///< on the sync thread, unlocked
    std::function<void()> after_drop = [] {}; ///< the same

    void push(int64_t pts) { append(waiting, static_cast<uint64_t>(pts)); }
    size_t size_of(const List& list)
    {
        return locked([&] { return list.size(); });
    }
    size_t flips() { return size_of(flipped); }
    size_t drops() { return size_of(dropped); }
    bool append(List& list, uint64_t pts)
    {
        return locked([&] { return list.push_back(static_cast<int64_t>(pts)), true; });
    }
    bool front(Frame* frame, bool take)
    {
        return locked([&] {
            if (waiting.empty())
                return false;
            frame->pts = static_cast<uint64_t>(waiting.front());
            if (take)
                waiting.pop_front();
            return true;
        });
    }

    static FrameQueue& of(void* handle) { return *static_cast<FrameQueue*>(handle); }
    synchronizer_callback_t callbacks = {
        [](void* self, int32_t* count) {
            *count = static_cast<int32_t>(of(self).size_of(of(self).waiting));
            return true;
        },
        [](void* self, Frame* frame) {
            const bool done = !of(self).peek_fails && of(self).front(frame, false);
            of(self).after_peek();
            return done;
        },
        [](void* self, Frame* frame) { return of(self).front(frame, true); },
        [](void* self, Frame* frame) {
            of(self).append(of(self).dropped, frame->pts);
            of(self).after_drop();
            return true;
        },
        [](void* self, Frame* frame) { return of(self).append(of(self).flipped, frame->pts); },
    };
};

/// A synchronizer that paces by audio, with the log off.
class Synchronizer : public testing::Test
{
protected:
    void SetUp() override
    {
        setenv("debug_hdmiplayer_log_level", "0", 1);
        handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
        ASSERT_TRUE(synchronizer_set_callback(handle, &queue, &queue.callbacks) &&
                    synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER) &&
                    synchronizer_set_sync_state(handle, E_SYNC_STATE_START));
    }
    void TearDown() override
    {
        synchronizer_deinit(handle); // ends the threads, too
        g_hooks = PlatformHooks();
        g_frozen_us = 0;
        for (const char* name : {"forcestate", "forcemode", "disablevsync"})
            unsetenv((std::string("debug.hdmiplayer.sync.") + name).c_str());
    }

    sync_strategy_info_t& sync() { return *static_cast<sync_strategy_info_t*>(handle); }
    sync_strategy_info_Oru_player_t& player() { return *static_cast<sync_strategy_info_Oru_player_t*>(handle); }

    int64_t clock()
    {
        int64_t now = 0;
        return synchronizer_get_current_media_time(handle, &now) ? now : INT64_MIN;
    }
    int64_t clock_at(int64_t now)
    {
        g_frozen_us = now;
        return clock();
    }
    int64_t release_time(int64_t media_time)
    {
        int64_t time = 0;
        return synchronizer_get_release_time(handle, media_time, &time) ? time : INT64_MIN;
    }
    /// One step; if it decides to wait, the wait is over at once.
    bool step()
    {
        synchronizer_notify_frame_done(handle);
        return on_Oru_sync_logic(handle);
    }
    std::string logged_step(const char* level)
    {
        return records(level, [this] { step(); });
    }
    void set_mode(synchronizer_mode_e mode) { EXPECT_TRUE(synchronizer_set_sync_mode(handle, mode)); }
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
    /// The last frame shown after one more step.
    int64_t shown_by_step()
    {
        EXPECT_TRUE(step());
        return queue.flipped.back();
    }
    /// The same at @p now, with the audio clock at @p audio.
    int64_t shown_at(int64_t now, int64_t audio)
    {
        set_clock(now, audio);
        return shown_by_step();
    }
    void vblank_every_2ms()
    {
        synchronizer_set_drm_info(handle, {7, 500.0F});
        g_hooks.wait_vblank = [](int, drmVBlank*) { return usleep(2000); };
    }
    /// Starts on @p frames alone, in real time; returns when the first has been shown and, most probably, the next is
    /// waited for.
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
        const auto before = Steady::now();
        return synchronizer_stop(handle) && Steady::now() - before < 5s;
    }

    FrameQueue queue;
    void* handle = nullptr;
};

TEST_F(Synchronizer, RefusesWhatItCannotDo)
{
    void* idle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    const std::string log = records("1", [&] {
        EXPECT_EQ(synchronizer_init(E_SYNCHRONIZER_PLAYER_VAPLAYER), nullptr);
        EXPECT_FALSE(synchronizer_start(idle) || synchronizer_set_sync_mode(idle, E_SYNC_MODE_MAX) ||
                     synchronizer_set_sync_state(idle, static_cast<synchronizer_state_e>(-1)) ||
                     synchronizer_set_playback_rate(idle, -0.0F) || synchronizer_get_playback_rate(idle, nullptr) ||
                     on_Oru_sync_logic(idle) || synchronizer_stop(nullptr) || synchronizer_deinit(nullptr));
    });
    EXPECT_EQ(log, "E synchronizer_init: not support get strategy by player:2\n"
                   "E synchronizer_start: please call firstly setCallback before start!!!\n"
                   "E synchronizer_set_sync_mode: invalid mode:3\n"
                   "E synchronizer_set_sync_state: invalid state:-1\n"
                   "E synchronizer_set_playback_rate: invalid rate:-0.000000\n"
                   "E synchronizer_get_playback_rate: rate is null\n"
                   "E synchronizer callback is null\n"
                   "E synchronizer_stop: handle is null\nE synchronizer_deinit: handle is null\n");
    EXPECT_TRUE(synchronizer_stop(idle) && synchronizer_deinit(idle));
}

TEST_F(Synchronizer, RefusesEachCallThatLacksSomethingAndTellsWhatWasSet)
{
    synchronizer_mode_e mode = E_SYNC_MODE_MAX;
    synchronizer_state_e state = E_SYNC_STATE_STOP;
    float rate = 0;
    int64_t time = 0;
    synchronizer_callback_t callback = {};
    const std::function<bool()> calls[] = {
        [&] { return synchronizer_set_callback(nullptr, this, &callback); },
        [&] { return synchronizer_set_callback(handle, nullptr, &callback); },
        [&] { return synchronizer_set_callback(handle, this, nullptr); },
        [&] { return synchronizer_start(nullptr); },
        [&] { return synchronizer_notify_frame_done(nullptr); },
        [&] { return synchronizer_notify_frames_taken(nullptr); },
        [&] { return synchronizer_notify_vblank(nullptr, 1); },
        [&] { return synchronizer_resync(nullptr); },
        [&] { return synchronizer_set_sync_mode(nullptr, E_SYNC_MODE_FREERUN); },
        [&] { return synchronizer_get_sync_mode(nullptr, &mode); },
        [&] { return synchronizer_get_sync_mode(handle, nullptr); },
        [&] { return synchronizer_set_sync_state(nullptr, E_SYNC_STATE_RESUME); },
        [&] { return synchronizer_get_sync_state(nullptr, &state); },
        [&] { return synchronizer_get_sync_state(handle, nullptr); },
        [&] {
            return synchronizer_set_drm_info(nullptr, {0, 60});
        },
        [&] { return synchronizer_enable_low_latency_mode(nullptr, true); },
        [&] { return synchronizer_set_playback_rate(nullptr, 1); },
        [&] { return synchronizer_get_playback_rate(nullptr, &rate); },
        [&] { return synchronizer_set_base_media_time(nullptr, 1, 1); },
        [&] { return synchronizer_get_current_media_time(nullptr, &time); },
        [&] { return synchronizer_get_current_media_time(handle, nullptr); },
        [&] { return synchronizer_get_release_time(nullptr, 1, &time); },
        [&] { return synchronizer_get_release_time(handle, 1, nullptr); },
        [&] { return on_Oru_sync_logic(nullptr); },
    };
    for (const std::function<bool()>& call : calls)
        EXPECT_NE(records("1", [&] { EXPECT_FALSE(call()); }).find(" is null\n"), std::string::npos)
            << &call - std::begin(calls);
    EXPECT_TRUE(synchronizer_set_sync_mode(handle, E_SYNC_MODE_VIDEO_MASTER) &&
                synchronizer_get_sync_mode(handle, &mode) && mode == E_SYNC_MODE_VIDEO_MASTER);
    EXPECT_TRUE(synchronizer_set_sync_state(handle, E_SYNC_STATE_RESUME) &&
                synchronizer_get_sync_state(handle, &state) && state == E_SYNC_STATE_RESUME);
    EXPECT_TRUE(synchronizer_set_playback_rate(handle, 2) && synchronizer_get_playback_rate(handle, &rate));
    EXPECT_EQ(rate, 2);
}

TEST_F(Synchronizer, ThreadCreationThatFailsLeavesItStopped)
{
    for (const auto& [threads, name] : {std::pair<int, std::string>{0, "sync"}, {1, "vsync"}}) {
        g_threads_left = threads;
        EXPECT_EQ(records("1", [this] { EXPECT_FALSE(synchronizer_start(handle)); }),
                  "E synchronizer_start: create " + name + "_thread failed!\n");
        const mutex_guard control(sync().control_mutex);
        EXPECT_EQ(sync().sync_thread, 0U);
        g_threads_left = INT_MAX;
    }
    run({0});
}

TEST_F(Synchronizer, ClockExtrapolatesFromItsAnchorUpToTheBound)
{
    EXPECT_EQ(clock_at(kStart), 0);
    synchronizer_set_base_media_time(handle, 4990000, 5000000);
    EXPECT_EQ(clock_at(kStart + 9000), 4999000);
    EXPECT_EQ(release_time(5099000), kStart + 109000); // not bounded
    sync().enable_log = true;
    g_frozen_us = kStart + 20000;
    EXPECT_EQ(records("4", [this] { EXPECT_EQ(clock(), 5000000); }),
              "W synchronizer_get_current_media_time: audio stuck, underrun time:10000\n"
              "D synchronizer_get_current_media_time: media_time:5000000\n");
    synchronizer_set_base_media_time(handle, 4990000, 0);
    EXPECT_EQ(clock_at(kStart + 1020000), 5990000);
    // Before its anchor, after a step of the wall clock, the clock is far ahead; the release time takes it as it is.
    EXPECT_EQ(clock_at(kStart), INT64_MAX);
    EXPECT_EQ(release_time(4990000), kStart + 20000);
    synchronizer_set_base_media_time(handle, 4990000, 5000000);
    EXPECT_EQ(clock_at(kStart - 3600000000), 5000000);
}

TEST_F(Synchronizer, RateScalesTheClockAndItsInverseInSinglePrecision)
{
    set_clock(kStart, 1000000);
    synchronizer_set_playback_rate(handle, 2.0F);
    EXPECT_EQ(release_time(1100000), kStart + 50000);
    EXPECT_EQ(clock_at(kStart + 1000), 1002000);
    synchronizer_set_playback_rate(handle, -1.0F);
    EXPECT_EQ(clock(), 999000);
    // Single precision. Product and sum are rounded one by one: fused or in double it would be 8300007.
    set_clock(kStart, 5000001);
    synchronizer_set_playback_rate(handle, 1.1F);
    EXPECT_EQ(clock_at(kStart + 3000006), 8300008);
    // A day without a reset: steps of 8192 us.
    synchronizer_set_playback_rate(handle, 1.0F);
    set_clock(kStart, kDay);
    EXPECT_EQ(clock_at(kStart + 4000), kDay);
    EXPECT_EQ(release_time(kDay + 30000), kStart + 34000);
    EXPECT_EQ(clock_at(kStart + 5000), kDay + 8192);
    // Nothing a rate can be may be undefined.
    for (float odd : {INFINITY, -INFINITY, NAN, 1e-45F}) {
        ASSERT_TRUE(synchronizer_set_playback_rate(handle, odd));
        for (int64_t media_time : {-5000000, 5000000}) {
            g_frozen_us = kStart + media_time / 1000;
            clock();
            release_time(media_time);
        }
    }
}

TEST_F(Synchronizer, ResumeAnchorsTheClockToTheMonotonicClock)
{
    const auto monotonic = [] { return static_cast<int64_t>(system_time(CLOCK_MONOTONIC) / 1000); };
    set_clock(monotonic() + 500000000, 1000000);
    synchronizer_set_sync_state(handle, E_SYNC_STATE_RESUME);
    g_frozen_us = monotonic();
    EXPECT_GE(clock(), 1000000);
    EXPECT_LT(clock(), 1000000 + 400000000); // from the resume, not from the anchor before it
}

TEST(Pacing, SnapsToTheNearestVerticalBlankAndTiesToTheEarlier)
{
    const std::pair<int64_t, int64_t> cases[] = {{1000, 1000}, {1050, 1000}, {1051, 1100}, {951, 1000}, {950, 900}};
    for (const auto& [release, snapped] : cases) {
        EXPECT_EQ(closest_vsync(release, 1000, 100), snapped);
        EXPECT_EQ(pacing::flip_target(release, {1000, 100}), snapped - 80);
        EXPECT_EQ(pacing::flip_target(release, {-1, 100}), release);
    }
    for (int64_t period : {int64_t{-1}, int64_t{0}, int64_t{16666}})
        for (int64_t release : {INT64_MIN, INT64_MAX})
            for (int64_t sampled : {INT64_MIN, int64_t{0}, INT64_MAX})
                pacing::flip_target(release, {sampled, period}); // must not trap
    EXPECT_TRUE(frame_render_by_vsync(108333, 100000, 16667) && frame_render_by_vsync(0, 100000, 16667));
    EXPECT_FALSE(frame_render_by_vsync(108334, 100000, 16667) || frame_render_by_vsync(-5000, -1, 16667));
}

TEST(Pacing, EarlyFrameGoesOutAtTheVerticalBlankBeforeItsOwn)
{
    // The release time is 1.5 periods after the sampled blank: a tie, hence one period after it; its flip is due 80 %
    // earlier. One microsecond more and it is the next one's.
    const pacing::vsync_grid grid = {100000, 16666};
    const auto decide = [&](int64_t now, int64_t release, int64_t sampled = 100000) {
        const bool at_vsync = frame_render_by_vsync(pacing::flip_target(release, grid), sampled, 16666);
        const pacing::decision d = pacing::decide(now, 133333, at_vsync, 16666);
        return std::make_pair(d.what, d.wait_us);
    };
    using pacing::verdict;
    EXPECT_EQ(decide(101000, 124999), std::make_pair(verdict::flip, int64_t{0}));
    EXPECT_EQ(decide(101000, 125000), std::make_pair(verdict::wait, int64_t{16666})); // a refresh at most
    EXPECT_EQ(decide(101000, 124999, -1), std::make_pair(verdict::wait, int64_t{16666}));
    EXPECT_EQ(decide(133332, 200000), std::make_pair(verdict::wait, int64_t{1}));
    EXPECT_EQ(decide(133333, 200000), std::make_pair(verdict::flip, int64_t{0}));
}

TEST(Pacing, DelayIsCorrectedBeyondTheThresholdOnly)
{
    // Late by less and by as much as the threshold: the duration, between 40 and 100 ms. Ahead: only frames longer
    // than 150 ms are stretched. Last: clocks that have nothing to do with each other.
    const std::tuple<int64_t, int64_t, int64_t> cases[] = {
        {33333, 0, 33333},           {33333, -39999, 33333},
        {33333, -40000, 0},          {50000, -49999, 50000},
        {50000, -50000, 0},          {120000, -99999, 120000},
        {120000, -100000, 20000},    {-200000, -39999, -200000},
        {-200000, -40000, 0},        {33333, 120000, 33333},
        {150000, 120000, 150000},    {150001, 99999, 150001},
        {150001, 100000, 250001},    {40000, -99999999, 0},
        {40000, -100000000, 40000},  {200000, 99999999, 100199999},
        {200000, 100000000, 200000},
    };
    for (const auto& [duration, diff, delay] : cases)
        EXPECT_EQ(pacing::corrected_delay(duration, diff), delay) << duration << " " << diff;
    // Between two frames the video clock runs on from the last one, up to the next.
    for (const auto& [elapsed, video_clock] : {std::pair{10000, 1010000}, {33333, 1033333}, {50000, 1033333}}) {
        const pacing::frame_offset offset = pacing::offset_of(1033333, {1000000, 7000}, 7000 + elapsed, 1050000);
        EXPECT_TRUE(offset.video_clock == video_clock && offset.diff == video_clock - 1050000) << elapsed;
        EXPECT_EQ(offset.delay, elapsed == 10000 ? 0 : 33333);
    }
}

TEST(Pacing, TimerLagsAtMost100MsAndAFrameIsLateOnlyWhenItsSuccessorIsOverdue)
{
    EXPECT_TRUE(pacing::advance(0, 40000, 140000) == 40000 && pacing::advance(0, 40000, 140001) == 140001);
    EXPECT_TRUE(pacing::advance(0, 0, 140001) == 0 && pacing::advance(0, -40000, 140001) == -40000);
    EXPECT_TRUE(pacing::advance(0, 1, 100001) == 1 && pacing::advance(0, 1, 100002) == 100002);
    EXPECT_TRUE(pacing::subtract(0, INT64_MIN) == INT64_MAX && pacing::subtract(-1, INT64_MIN) == INT64_MAX);
    EXPECT_EQ(pacing::subtract(-2, INT64_MAX), INT64_MIN);
    EXPECT_EQ(pacing::decide_taken(80000, 40000, 40000), pacing::verdict::flip);
    EXPECT_EQ(pacing::decide_taken(80001, 40000, 40000), pacing::verdict::drop);
    EXPECT_TRUE(pacing::free_run_wait(30000, 10000, 33333) == 13333 && pacing::free_run_wait(43334, 10000, 33333) == 0);
}

TEST(Pacing, ClassifiesTheOffset)
{
    const std::pair<int64_t, std::string> cases[] = {
        {-90001, "2 unacceptable"}, {-90000, "3 acceptable"},   {-45001, "3 acceptable"},   {-45000, "3 detectable"},
        {-25001, "3 detectable"},   {-25000, "4 undetectable"}, {100000, "4 undetectable"}, {100001, "3 detectable"},
        {125000, "3 detectable"},   {125001, "3 acceptable"},   {185000, "3 acceptable"},   {185001, "2 unacceptable"},
    };
    for (const auto& [diff, level_and_name] : cases) {
        const pacing::offset_class& found = pacing::classify(diff);
        EXPECT_EQ(std::to_string(found.level) + " " + found.name, level_and_name) << diff;
    }
}

TEST_F(Synchronizer, CatchesUpInOneStepAndFollowsAClockThatWasSetBack)
{
    // Far behind: all but the newest are dropped.
    show_first(1000000, {1033333, 1066666, 1099999, 1133332});
    shown_at(kStart + 250000, 1250000);
    EXPECT_EQ(queue.dropped, (FrameQueue::List{1033333, 1066666, 1099999}));
    EXPECT_EQ(queue.flipped.back(), 1133332);
    EXPECT_EQ(sync().last_flip_system_time, kStart + 250000);
    // A wall clock that was set back: one frame's duration from now, not an hour.
    show_first(1000000, {1040000});
    const int64_t back = kStart - 3600000000;
    EXPECT_EQ(shown_at(back, 1000000), 1000000);
    EXPECT_EQ(player().frame_timer, back);
    EXPECT_EQ(shown_at(back + 40000, 1040000), 1040000);
}

TEST_F(Synchronizer, FrameWithdrawnAfterThePeekIsNotReleasedTwice)
{
    // The queue's owner takes the oldest frame in between; the one that is left is shown.
    queue.after_peek = [this] { queue.locked([this] { queue.waiting.pop_front(); }); };
    queue.waiting = {1000000, 1033333};
    EXPECT_TRUE(step());
    EXPECT_EQ(queue.flipped, FrameQueue::List{1033333});
    // And nothing is left: in free run, as the first frame and as a later one.
    for (const auto& [mode, is_first] :
         {std::pair{E_SYNC_MODE_AUDIO_MASTER, false}, {E_SYNC_MODE_AUDIO_MASTER, true}, {E_SYNC_MODE_FREERUN, true}}) {
        if (is_first)
            synchronizer_resync(handle);
        set_mode(mode);
        queue.push(0);
        EXPECT_TRUE(step());
    }
    EXPECT_EQ(queue.flips(), 1U);
    EXPECT_TRUE(queue.dropped.empty());
}

TEST_F(Synchronizer, LogsWhatItDecidesAndWhy)
{
    sync().enable_log = true;
    synchronizer_set_drm_info(handle, {7, 60.0F});
    show_first(1000000, {1040000, 1120000});
    // The first is late by 50 ms and dropped; the other is shown in the same step.
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
    // Without the switch nothing of it.
    sync().enable_log = false;
    queue.push(1161000);
    EXPECT_EQ(logged_step("5"), "");
}

TEST_F(Synchronizer, WaitsForAudioWithTheLogOnOnly)
{
    for (int64_t diff : {185000, 185001}) {
        const bool held = diff > 185000;
        sync().enable_log = true;
        show_first(1000000, {1033333});
        set_clock(kStart + 33333, 1033333 - diff);
        EXPECT_EQ(
            occurrences(logged_step("3"),
                        "I wait audio clock update, video_clock_pts:1033333 audio_clock_pts:848332 diff:185001\n"),
            held);
        EXPECT_EQ(queue.flipped.back(), held ? 1000000 : 1033333);
        sync().enable_log = false;
        EXPECT_EQ(step(), held);
        EXPECT_EQ(queue.flipped.back(), 1033333);
    }
}

TEST_F(Synchronizer, StepTellsWhetherThereIsWork)
{
    EXPECT_FALSE(step());
    queue.push(1000000);
    queue.peek_fails = true;
    EXPECT_FALSE(step());
    set_mode(E_SYNC_MODE_FREERUN);
    EXPECT_TRUE(step());
    set_mode(E_SYNC_MODE_VIDEO_MASTER);
    EXPECT_EQ(logged_step("1"), "E cannot get valid sync mode:2\n");
    EXPECT_FALSE(step());
    EXPECT_TRUE(queue.flipped.empty());
}

TEST_F(Synchronizer, FreeRunFeedsTheClockAndLowLatencyDoesNotWait)
{
    set_mode(E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    show_first(1000000, {60000000});
    EXPECT_EQ(shown_by_step(), 60000000);
    EXPECT_EQ(clock_at(kStart + 4), 60000004);
    synchronizer_enable_low_latency_mode(handle, false);
    queue.push(50000000); // a jump back is not waited for either
    EXPECT_EQ(shown_by_step(), 50000000);
    // Neither pause nor stop is paced.
    set_mode(E_SYNC_MODE_AUDIO_MASTER);
    synchronizer_set_sync_state(handle, E_SYNC_STATE_PAUSE);
    queue.push(40000000);
    EXPECT_TRUE(step());
    EXPECT_EQ(clock(), 40000000);
}

TEST_F(Synchronizer, StateAndModeCanBeForcedFromTheEnvironment)
{
    for (const auto& [state, mode] : {std::pair{"2", "0"}, {"4", "3"}, {"-1", "-1"}, {"x", "x"}}) {
        setenv("debug.hdmiplayer.sync.forcestate", state, 1);
        setenv("debug.hdmiplayer.sync.forcemode", mode, 1);
        EXPECT_EQ(logged_step("4"), mode[0] == '0' ? "D force state:2\nD force mode:0\n" : "");
    }
    EXPECT_EQ(sync().state, E_SYNC_STATE_PAUSE);
    EXPECT_EQ(sync().mode, E_SYNC_MODE_FREERUN);
}

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

/// A sync thread at frozen times: woken by all news and an idle tick, or by the news alone that concern it.
class SleepingThread : public PacedStream
{
protected:
    using Flips = std::vector<std::pair<int64_t, int64_t>>; ///< when, and which frame

    Flips pace(bool all_news)
    {
        const auto [fps, display_hz, age] = GetParam();
        const auto nth = [](int64_t n, double rate) {
            return static_cast<int64_t>(static_cast<double>(n) * 1e6 / rate);
        };
        Flips flips;
        int64_t frames = 0, vblanks = 0;
        queue.flipped.clear();
        queue.waiting.clear();
        synchronizer_set_drm_info(handle, {7, static_cast<float>(display_hz)});
        synchronizer_resync(handle);
        sleep(E_SYNC_WAIT_FRAME, 0);
        steps = 0;
        for (int64_t now = 0; now < 3000000; now += 250) {
            g_frozen_us = kStart + now;
            bool news = false;
            if (now % 20000 == 0) {
                // The device's position is known to a part of a millisecond; once the sound lags for a while.
                const int64_t clock = age + now + now * 7919 % 797 - (now / 1000000 == 1 ? 60000 : 0);
                synchronizer_set_base_media_time(handle, clock, clock + 80000);
                news = true;
            }
            for (; nth(frames, fps) <= now + nth(2, fps); ++frames) {
                queue.push(age + nth(frames, fps));
                synchronizer_notify_frame_done(handle);
                news = true;
            }
            if (now > 125 + nth(vblanks, display_hz)) {
                synchronizer_notify_vblank(handle, kStart + 125 + nth(vblanks++, display_hz));
                news = true;
            }
            for (bool awake = all_news ? news : woken(); awake || g_frozen_us >= until_; awake = false) {
                const bool shown = step_and_sleep(all_news);
                if (shown)
                    flips.emplace_back(now, queue.flipped.back());
            }
        }
        return flips;
    }
    int steps = 0;

private:
    void sleep(sync_wait_e wait, int64_t until)
    {
        const mutex_guard guard(sync().sync_thread_mutex);
        sync().sync_thread_wait = wait;
        sync().sync_thread_wake = false;
        until_ = until;
    }
    bool woken()
    {
        const mutex_guard guard(sync().sync_thread_mutex);
        return sync().sync_thread_wake;
    }
    /// Whether the step showed a frame; the thread takes the next step at once then.
    bool step_and_sleep(bool ticks)
    {
        ++steps;
        sleep(E_SYNC_WAIT_NONE, 0);
        const size_t flips = queue.flips();
        if (step())
            sleep(E_SYNC_WAIT_TIME, queue.flips() > flips ? 0 : ticks ? next_tick() : player().waiting_until);
        else
            sleep(E_SYNC_WAIT_FRAME, ticks ? g_frozen_us + 10000 : INT64_MAX);
        return queue.flips() > flips;
    }
    /// An early frame was looked at again after each refresh.
    int64_t next_tick()
    {
        const int64_t refresh = pacing::refresh_duration(static_cast<float>(std::get<1>(GetParam())));
        return std::min(player().waiting_until, g_frozen_us + refresh);
    }
    int64_t until_ = 0; ///< when it looks again by itself
};

TEST_P(SleepingThread, SleepsThroughNewsThatChangeNothingAndMissesNone)
{
    const Flips flips_of_all = pace(true);
    const int steps_of_all = steps;
    EXPECT_EQ(pace(false), flips_of_all);
    EXPECT_GT(flips_of_all.size(), 3 * std::get<0>(GetParam()) * 0.8);
    EXPECT_LT(steps, steps_of_all);
    // Where the steps show in the log, each is taken.
    records("4", [this] { pace(false); });
    EXPECT_GE(steps, steps_of_all);
}

INSTANTIATE_TEST_SUITE_P(Rates, SleepingThread,
                         testing::Values(Cadence{24, 60, 1000000}, Cadence{25, 50, 1000000},
                                         Cadence{59.94, 60, 1000000}, Cadence{60, 60, 1000000}, Cadence{60, 60, kDay}));

TEST_F(Synchronizer, WithoutAFrameForASecondNobodyWaitsForVerticalBlanks)
{
    std::atomic<int> calls{0};
    synchronizer_set_drm_info(handle, {7, 500.0F});
    g_hooks.wait_vblank = [&](int, drmVBlank*) { return ++calls, usleep(2000); };
    const auto rests = [&] {
        const int before = calls;
        std::this_thread::sleep_for(50ms);
        return calls == before && sync().last_vsync_system_time == -1;
    };
    run({1000000});
    EXPECT_TRUE(eventually(rests));
    for (int n = 1; n <= 10; ++n) {
        const int before = calls;
        queue.push(1000000 + n * 33333);
        synchronizer_notify_frame_done(handle);
        EXPECT_TRUE(shown(static_cast<size_t>(n) + 1));
        EXPECT_TRUE(eventually([&] { return calls > before + 1; }));
    }
    EXPECT_TRUE(eventually(rests));
    EXPECT_EQ(records("1",
                      [this] {
                          synchronizer_set_drm_info(handle, {0, 60});
                          std::this_thread::sleep_for(50ms);
                          synchronizer_stop(handle);
                      }),
              "E handle_vsync: invalid drm_info.fd:0\n");
    synchronizer_set_drm_info(handle, {7, 500.0F});
    run({1000000});
    EXPECT_TRUE(eventually(rests));
    EXPECT_TRUE(stops_at_once());
}

TEST_F(Synchronizer, ThreadWithoutAFrameSleepsUntilThereIsOne)
{
    static std::atomic<int> steps;
    vblank_every_2ms();
    for (const bool logged : {false, true}) {
        setenv("debug_hdmiplayer_log_level", logged ? "4" : "0", 1);
        steps = 0;
        sync().on_sync_logic = [](void* h) { return ++steps, on_Oru_sync_logic(h); };
        run({1000000});
        const int before = steps;
        const auto more = [this, before] {
            synchronizer_set_base_media_time(handle, 1000000, 2000000);
            return steps > before;
        };
        // With the log on, every step shows in it.
        EXPECT_EQ(eventually(more, logged ? 10s : 100ms), logged);
        const size_t flips = queue.flips();
        queue.push(1033333);
        synchronizer_notify_frame_done(handle);
        EXPECT_TRUE(shown(flips + 1));
        set_mode(E_SYNC_MODE_VIDEO_MASTER); // which no step can serve: each says so
        const int served = steps;
        EXPECT_TRUE(eventually([served] { return steps > served + 2; }));
        set_mode(E_SYNC_MODE_AUDIO_MASTER);
        synchronizer_stop(handle);
    }
}

TEST_F(Synchronizer, AFrameThatCouldNotBeReadIsTriedAgain)
{
    std::atomic<int> peeks{0};
    queue.after_peek = [&peeks] { ++peeks; };
    run({1000000});
    const int before = peeks;
    queue.peek_fails = true;
    queue.push(1033333);
    synchronizer_notify_frame_done(handle);
    EXPECT_TRUE(eventually([&] { return peeks >= before + 2; }));
    queue.peek_fails = false;
    EXPECT_TRUE(shown(2));
    synchronizer_stop(handle);
}

TEST_F(Synchronizer, ResyncForgetsTheHistoryButTheTimer)
{
    show_first(1000000);
    sync().last_vsync_system_time = kStart;
    synchronizer_resync(handle);
    EXPECT_TRUE(sync().last_vsync_system_time == -1 && player().last_frame.pts == UINT64_MAX);
    EXPECT_EQ(player().frame_timer, kStart);
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
    for (int news : {kAudio, kFrame, kRefresh, kVblank}) {
        const size_t flips = queue.flips();
        if (news == kVblank)
            vblank_every_2ms();
        // With the log on, a frame that is 90 s ahead of the audio clock waits as long; else at most one refresh.
        sync().enable_log = news != kRefresh;
        set_mode(E_SYNC_MODE_AUDIO_MASTER);
        synchronizer_set_base_media_time(handle, 1, 1);
        run({90000000, 95000000});
        EXPECT_EQ(queue.flips(), flips + 1);
        if (news == kAudio)
            synchronizer_set_base_media_time(handle, 99000000, 99000000); // now it is late
        else
            set_mode(E_SYNC_MODE_FREERUN); // no news of its own
        if (news == kFrame)
            synchronizer_notify_frame_done(handle);
        EXPECT_TRUE(shown(flips + 2)) << news;
        synchronizer_stop(handle);
    }
}

TEST_F(Synchronizer, AFrameThatOthersTookIsNotWaitedFor)
{
    // As if the sync thread waited for a frame's time, or for a frame.
    const auto wakes = [this](sync_wait_e wait, bool (*notify)(void*)) {
        mutex_guard guard(sync().sync_thread_mutex);
        sync().sync_thread_wait = wait;
        sync().sync_thread_wake = false;
        guard.unlock();
        return notify(handle) && sync().sync_thread_wake;
    };
    show_first(1000000, {2000000});
    EXPECT_FALSE(wakes(E_SYNC_WAIT_TIME, synchronizer_notify_frame_done)) << "it is behind the one that is waited for";
    EXPECT_TRUE(wakes(E_SYNC_WAIT_TIME, synchronizer_notify_frames_taken));
    EXPECT_FALSE(wakes(E_SYNC_WAIT_FRAME, synchronizer_notify_frames_taken));
    sync().sync_thread_wait = E_SYNC_WAIT_NONE;
}

TEST_F(Synchronizer, StopEndsEveryWaitAtOnce)
{
    // The free-run sleep.
    set_mode(E_SYNC_MODE_FREERUN);
    run({0, 3600000000});
    EXPECT_TRUE(stops_at_once());
    EXPECT_EQ(queue.waiting.size(), 1U);
    // The wait for a far-behind audio clock.
    sync().enable_log = true;
    set_mode(E_SYNC_MODE_AUDIO_MASTER);
    synchronizer_set_base_media_time(handle, 1, 1);
    run({90000000, 3600000000});
    EXPECT_TRUE(stops_at_once());
    // A host that queues a frame, late as well, for each that is dropped.
    queue.after_drop = [this, deadline = Steady::now() + 9s] {
        std::this_thread::sleep_for(1ms);
        if (Steady::now() < deadline)
            queue.push(0);
    };
    synchronizer_set_base_media_time(handle, 50000000, kNoBound);
    run({0, 0, 0});
    EXPECT_TRUE(eventually([this] {
        // One that is taken in the microsecond of its time is flipped.
        if (queue.size_of(queue.waiting) == 0)
            for (int i = 0; i < 3; i++)
                queue.push(0);
        synchronizer_notify_frame_done(handle);
        return queue.drops() > 9;
    }));
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
    set_mode(E_SYNC_MODE_FREERUN);
    const auto before = Steady::now();
    run({0, 100000});
    EXPECT_TRUE(eventually([this] { return synchronizer_notify_frame_done(handle) && queue.flips() > 1; }));
    EXPECT_GE(Steady::now() - before, 100ms);
}

TEST_F(Synchronizer, WakeBetweenStepAndWaitIsNotLost)
{
    // Each step gets news while it runs, finds nothing, and must be called again without the idle wait of 10 ms.
    static std::atomic<int> steps;
    steps = 0;
    sync().on_sync_logic = [](void* h) {
        ++steps;
        synchronizer_notify_frame_done(h);
        return false;
    };
    const auto begin = Steady::now();
    ASSERT_TRUE(synchronizer_start(handle));
    EXPECT_TRUE(eventually([] { return steps >= 2000; }));
    EXPECT_LT(Steady::now() - begin, 2000 * 10ms / 2);
}

TEST_F(Synchronizer, FailingVerticalBlankFallsBackToTheNominalRate)
{
    std::atomic<int> calls{0};
    g_hooks.wait_vblank = [&](int fd, drmVBlank* request) {
        EXPECT_TRUE(fd == 7 && request->request.type == DRM_VBLANK_RELATIVE && request->request.sequence == 1);
        ++calls;
        return -1;
    };
    synchronizer_set_drm_info(handle, {7, 60.0F});
    const std::string log = records("3", [&] {
        const auto begin = Steady::now();
        run({0});
        EXPECT_TRUE(eventually([&] { return calls > 3; }));
        EXPECT_GE(Steady::now() - begin, 3 * 16666us);
        synchronizer_stop(handle);
    });
    EXPECT_NE(sync().last_vsync_system_time, -1);
    EXPECT_EQ(occurrences(log, "E handle_vsync: drmWaitVBlank fd:7 error:-1\n"), calls);
    EXPECT_EQ(occurrences(log, " thread exit\n"), 2);
    for (float unknown : {0.0F, -1.0F, 1e9F, INFINITY, NAN, 1e-40F, 0.0001F})
        EXPECT_EQ(pacing::refresh_duration(unknown), 16666) << unknown;
    EXPECT_EQ(pacing::refresh_duration(59.94F), 16683);
    EXPECT_TRUE(pacing::refresh_duration(10000.0F) == 100 && pacing::refresh_duration(0.1F) == 10000000);
}

TEST_F(Synchronizer, WithoutADisplayFramesFollowTheTimerAlone)
{
    std::atomic<int> calls{0};
    g_hooks.wait_vblank = [&](int, drmVBlank*) { return ++calls, 0; };
    for (int fd : {7, 0}) {
        setenv("debug.hdmiplayer.sync.disablevsync", fd == 7 ? "1" : "0", 1);
        synchronizer_set_drm_info(handle, {fd, 60});
        const size_t flips = queue.flips();
        const std::string log = records("1", [&] {
            run({1000000, 1040000});
            EXPECT_TRUE(shown(flips + 2));
            synchronizer_stop(handle);
        });
        EXPECT_EQ(log, fd == 7 ? "" : "E handle_vsync: invalid drm_info.fd:0\n");
        EXPECT_EQ(sync().last_vsync_system_time, -1);
    }
    EXPECT_EQ(calls, 0);
}

TEST_F(Synchronizer, EveryCallMayRunBesideEveryOtherAndNoFrameIsLost)
{
    vblank_every_2ms();
    std::atomic<int> pushed{0};
    Callers callers;
    const auto run = [&callers](auto call) {
        callers.run([call](int n) {
            call(n);
            std::this_thread::sleep_for(200us);
        });
    };
    run([this](int n) { n % 8 < 6 ? synchronizer_start(handle) : synchronizer_stop(handle); });
    run([this](int n) { n % 16 < 15 ? synchronizer_resync(handle) : synchronizer_stop(handle); });
    run([this, &pushed](int) {
        queue.push(pushed++ * 1000);
        synchronizer_notify_frame_done(handle);
    });
    run([this](int n) {
        synchronizer_set_base_media_time(handle, 1 + n * 1000, 1 + n * 1000 + 5000);
        clock();
        release_time(n * 1000);
    });
    run([this](int n) {
        set_mode(n % 4 == 0 ? E_SYNC_MODE_FREERUN : E_SYNC_MODE_AUDIO_MASTER);
        synchronizer_enable_low_latency_mode(handle, n % 2 == 0);
        synchronizer_set_drm_info(handle, {n % 64 == 0 ? 0 : 7, 500});
        synchronizer_set_playback_rate(handle, n % 2 == 0 ? 1.0F : 2.0F);
    });
    EXPECT_TRUE(eventually([&] { return callers.calls() > 10000; }));
    callers.stop();
    set_mode(E_SYNC_MODE_FREERUN);
    synchronizer_enable_low_latency_mode(handle, true);
    ASSERT_TRUE(synchronizer_start(handle));
    EXPECT_TRUE(eventually([&] { return queue.flips() + queue.drops() == static_cast<size_t>(pushed); }));
}

} // namespace
