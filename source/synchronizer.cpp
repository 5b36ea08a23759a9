// SPDX-License-Identifier: MIT
#include "internal/synchronizer.h"

#include <xf86drm.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <new>
#include <type_traits>

#include "internal/common.h"
#include "internal/pacing.h"

// The clock's single precision is part of its contract. Machines that compute
// float in wider registers, or may reorder it, would pace differently.
static_assert(FLT_EVAL_METHOD == 0, "float must be evaluated as float");
#ifdef __FAST_MATH__
#error "the media clock needs strict floating point"
#endif

// Threads of different priority share the times of frames, flips and vertical blanks: no lock may be hidden in them.
static_assert(std::atomic<int64_t>::is_always_lock_free, "64-bit times are read whole, without a lock");

static_assert(std::is_standard_layout<sync_strategy_info_Oru_player_t>::value,
              "a pointer to the strategy's record must be one to its base");

namespace
{

using pacing::kUnset;
using pacing::subtract;

constexpr uint64_t kIdleWaitUs = 10000;
/// An early frame is looked at again after so long, even if its time has not come and vertical blanks come no more.
constexpr int64_t kLongestWaitUs = 100000;
/// Without a frame for so long nobody needs vertical blanks. The next frame begins a new sequence then.
constexpr uint64_t kNoFrameNs = 1000000000;

sync_strategy_info_t& base_of(void* handle) { return *static_cast<sync_strategy_info_t*>(handle); }

// Truncates, and saturates where the value does not fit.
int64_t to_int64(float value)
{
    constexpr float kTwoTo63 = 9223372036854775808.0F;
    if (std::isnan(value))
        return 0;
    if (std::fabs(value) >= kTwoTo63)
        return value < 0 ? INT64_MIN : INT64_MAX;
    return static_cast<int64_t>(value);
}

int64_t signed_pts(const synchronizer_frame_info_t& frame) { return static_cast<int64_t>(frame.pts); }

int64_t system_time_us() { return static_cast<int64_t>(get_system_time_us()); }

synchronizer_drm_info_t display_of(sync_strategy_info_t& sync)
{
    mutex_guard guard(sync.mutex);
    return sync.drm_info;
}

} // namespace

// --- Decisions ------------------------------------------------------------------

namespace
{

constexpr float kShortestRefreshUs = 100.0F;     ///< 10 kHz; faster is no display, and the waits would be a busy loop
constexpr float kLongestRefreshUs = 10000000.0F; ///< 0.1 Hz; slower is no display, and the waits would last for ever
constexpr int64_t kFlipLeadPercent = 80;         ///< a flip is aimed this part of a period ahead of its vertical blank

// Limits of the delay correction. Video this far off is corrected; smaller
// deviations are neither seen nor worth an uneven frame.
constexpr int64_t kSyncThresholdMinUs = 40000;
constexpr int64_t kSyncThresholdMaxUs = 100000;
constexpr int64_t kLongFrameUs = 150000;            ///< only frames longer than this are stretched when video is ahead
constexpr int64_t kNoCorrectionBeyondUs = 99999999; ///< further apart the clocks have nothing to do with each other
constexpr int64_t kTimerLagMaxUs = 100000;

// What viewers notice, after ITU-R BT.1359: sound may lag the video further than it may lead.
constexpr pacing::offset_class kOffsetClasses[] = {
    {-25000, 100000, LOG_LEVEL_D, "undetectable"},
    {-45000, 125000, LOG_LEVEL_I, "detectable"},
    {-90000, pacing::kAcceptableEarlyUs, LOG_LEVEL_I, "acceptable"},
    {INT64_MIN, INT64_MAX, LOG_LEVEL_W, "unacceptable"}, // ends every search
};

bool within(int64_t value, int64_t low, int64_t high) { return low <= value && value <= high; }

} // namespace

namespace pacing
{

int64_t subtract(int64_t a, int64_t b)
{
    int64_t difference = 0;
    const bool overflow = __builtin_sub_overflow(a, b, &difference);
    return !overflow ? difference : a < 0 ? INT64_MIN : INT64_MAX;
}

int64_t refresh_duration(float vrefresh)
{
    const float duration = 1000000.0F / vrefresh; // infinite and NaN are possible, and outside the limits
    const bool plausible = kShortestRefreshUs <= duration && duration <= kLongestRefreshUs;
    return plausible ? static_cast<int64_t>(duration) : kUnknownFrameUs;
}

int64_t free_run_wait(int64_t now, int64_t frame_timer, int64_t distance)
{
    return std::max<int64_t>(subtract(add_saturated(frame_timer, distance), now), 0);
}

// Less than its duration when video is late, more for a long frame when video is
// ahead. Short frames ahead are not doubled: the vertical blank and the frame
// timer hold them.
int64_t corrected_delay(int64_t duration, int64_t diff)
{
    if (!within(diff, -kNoCorrectionBeyondUs, kNoCorrectionBeyondUs))
        return duration;
    const int64_t threshold = std::max(std::min(duration, kSyncThresholdMaxUs), kSyncThresholdMinUs);
    if (diff <= -threshold)
        return std::max<int64_t>(add_saturated(duration, diff), 0);
    if (diff >= threshold && duration > kLongFrameUs)
        return add_saturated(duration, diff);
    return duration;
}

// Between two frames the video clock runs on from the last one.
frame_offset offset_of(int64_t pts, const shown_frame& last, int64_t now, int64_t audio_clock)
{
    const int64_t video_clock = std::min(add_saturated(last.pts, subtract(now, last.taken_time)), pts);
    const int64_t diff = subtract(video_clock, audio_clock);
    return {video_clock, diff, corrected_delay(subtract(pts, last.pts), diff)};
}

const offset_class& classify(int64_t diff)
{
    const offset_class* found = kOffsetClasses;
    while (!within(diff, found->late_us, found->early_us))
        ++found;
    return *found;
}

int64_t flip_target(int64_t release_time, const vsync_grid& grid)
{
    if (grid.sampled_time == kUnset)
        return release_time;
    return subtract(closest_vsync(release_time, grid.sampled_time, grid.duration),
                    grid.duration * kFlipLeadPercent / 100);
}

bool due_at_vsync(int64_t target, const vsync_grid& grid)
{
    if (grid.sampled_time == kUnset)
        return false;
    const int64_t half = grid.duration / 2;
    // Past the last vertical blank already, or within half a period of it.
    return target < grid.sampled_time ||
           within(target, subtract(grid.sampled_time, half), add_saturated(grid.sampled_time, half));
}

decision decide(int64_t now, int64_t due, bool at_vsync, int64_t longest_wait)
{
    if (now >= due || at_vsync)
        return {verdict::flip, 0};
    return {verdict::wait, std::min(subtract(due, now), longest_wait)};
}

// After a jump back of the stream, a negative delay, the timer may lag.
int64_t advance(int64_t frame_timer, int64_t delay, int64_t now)
{
    const int64_t timer = add_saturated(frame_timer, delay);
    return delay > 0 && subtract(now, timer) > kTimerLagMaxUs ? now : timer;
}

verdict decide_taken(int64_t now, int64_t frame_timer, int64_t duration)
{
    return now > add_saturated(frame_timer, duration) ? verdict::drop : verdict::flip;
}

} // namespace pacing

int64_t closest_vsync(int64_t release_time, int64_t sampled_vsync_time, int64_t vsync_duration)
{
    if (vsync_duration < 1)
        return release_time;
    const int64_t vsync_count = subtract(release_time, sampled_vsync_time) / vsync_duration;
    const int64_t snapped_time = add_saturated(sampled_vsync_time, vsync_count * vsync_duration);
    const bool early = snapped_time < release_time;
    const int64_t snapped_before = early ? snapped_time : subtract(snapped_time, vsync_duration);
    const int64_t snapped_after = early ? add_saturated(snapped_time, vsync_duration) : snapped_time;
    const int64_t snapped_after_diff = subtract(snapped_after, release_time);
    const int64_t snapped_before_diff = subtract(release_time, snapped_before);
    return snapped_after_diff < snapped_before_diff ? snapped_after : snapped_before;
}

bool frame_render_by_vsync(int64_t release_time, int64_t sampled_vsync_time, int64_t vsync_duration)
{
    const bool due = pacing::due_at_vsync(release_time, {sampled_vsync_time, vsync_duration});
    if (due)
        log_v("current frame need render");
    return due;
}

// --- Waits ----------------------------------------------------------------------

namespace
{

using oru_player = sync_strategy_info_Oru_player_t;

constexpr uint64_t kNoLimit = UINT64_MAX; ///< for a sleep that only news ends

enum class news {
    frame,   ///< one was queued
    taken,   ///< frames that waited are gone
    setting, ///< mode or state
    clock,   ///< the audio clock has a new anchor
    vblank,  ///< the display has reached one
    restart, ///< the history is to be forgotten
};

// Whether every step shows in the log, so that none may be left out.
bool steps_are_logged(const sync_strategy_info_t& sync) { return sync.enable_log || log_level() >= LOG_LEVEL_D; }

// The vertical blanks as far as they are known.
pacing::vsync_grid grid_of(sync_strategy_info_t& sync)
{
    pacing::vsync_grid grid;
    grid.sampled_time = sync.last_vsync_system_time;
    if (grid.sampled_time != kUnset)
        grid.duration = pacing::refresh_duration(display_of(sync).vrefresh);
    return grid;
}

// Whether a step now would do more than wait for as long as the sync thread sleeps anyway. Decides as the step does.
bool is_worth_a_step(sync_strategy_info_t& sync) REQUIRES(sync.sync_thread_mutex)
{
    const auto& player = reinterpret_cast<const oru_player&>(sync);
    const int64_t now = system_time_us();
    if (now < player.frame_timer)
        return true; // the clock was set back
    int64_t audio_clock_pts = 0;
    int64_t release_time = 0;
    synchronizer_get_current_media_time(&sync, &audio_clock_pts);
    synchronizer_get_release_time(&sync, player.waiting_pts, &release_time);
    const pacing::frame_offset offset = pacing::offset_of(
        player.waiting_pts, {signed_pts(player.last_frame), player.last_frame_system_time}, now, audio_clock_pts);
    const int64_t due = add_saturated(player.frame_timer, offset.delay);
    const pacing::vsync_grid grid = grid_of(sync);
    return now >= due || due < player.waiting_until ||
           pacing::due_at_vsync(pacing::flip_target(release_time, grid), grid);
}

// Whether @p what can change anything for the sync thread.
bool concerns_sync_thread(sync_strategy_info_t& sync, news what) REQUIRES(sync.sync_thread_mutex)
{
    const sync_wait_e wait = sync.sync_thread_wait;
    if (wait == E_SYNC_WAIT_NONE || what == news::restart || what == news::setting)
        return true; // for the step under way it comes too late
    if (wait == E_SYNC_WAIT_AUDIO || steps_are_logged(sync))
        return true;
    if (wait == E_SYNC_WAIT_FRAME)
        return what == news::frame;
    if (what == news::taken)
        return true;                                     // perhaps the one whose time it waits for
    return what != news::frame && is_worth_a_step(sync); // one that was queued is behind the oldest
}

// Has the vsync thread wait for vertical blanks again.
void end_vsync_idleness(sync_strategy_info_t& sync)
{
    if (!sync.vsync_thread_idle.exchange(false))
        return;
    mutex_guard guard(sync.vsync_thread_mutex);
    pthread_cond_signal(&sync.vsync_thread_cond);
}

// Has the sync thread look again, now or, while it is busy, at its next wait, if the news concern it.
void wake_sync_thread(sync_strategy_info_t& sync, news what)
{
    mutex_guard guard(sync.sync_thread_mutex);
    if (!concerns_sync_thread(sync, what))
        return;
    sync.sync_thread_wake = true;
    const bool asleep = sync.sync_thread_wait != E_SYNC_WAIT_NONE;
    guard.unlock();
    if (asleep)
        pthread_cond_signal(&sync.sync_thread_cond);
    end_vsync_idleness(sync);
}

// The sync thread's sleep: until there is news that concerns it, the time has passed, or a stop.
void wait_for_news(sync_strategy_info_t& sync, sync_wait_e what, uint64_t timeout_us)
{
    const struct timespec deadline = get_monotonic_timeout_us(timeout_us != kNoLimit ? timeout_us : 0);
    mutex_guard guard(sync.sync_thread_mutex);
    sync.sync_thread_wait = what;
    sync.sync_thread_asleep_ns = system_time(CLOCK_MONOTONIC);
    while (!sync.sync_thread_wake && !sync.sync_thread_exit) {
        if (timeout_us == kNoLimit)
            guard.wait(sync.sync_thread_cond);
        else if (guard.wait_until(sync.sync_thread_cond, deadline) != 0)
            break;
    }
    sync.sync_thread_wait = E_SYNC_WAIT_NONE;
    sync.sync_thread_wake = false;
}

// Sleeps to the end whatever is signalled, except at a stop: then false.
bool sleep_unless_stopped(mutex_t& mutex, pthread_cond_t& cond, const std::atomic<bool>& stopped, uint32_t duration_us)
{
    const struct timespec deadline = get_monotonic_timeout_us(duration_us);
    mutex_guard guard(mutex);
    while (!stopped && guard.wait_until(cond, deadline) == 0) {
    }
    return !stopped;
}

void end_thread(pthread_t& thread, mutex_t& mutex, pthread_cond_t& cond, std::atomic<bool>& exit)
{
    if (thread == 0)
        return;
    // Under the mutex: between the thread's test and its wait the signal would be lost.
    mutex_guard guard(mutex);
    exit = true;
    pthread_cond_signal(&cond);
    guard.unlock();
    pthread_join(thread, nullptr);
    thread = 0;
    exit = false;
}

// --- Threads --------------------------------------------------------------------

// Frames waiting; 0 also when the queue does not say.
int32_t waiting_frames(const sync_strategy_info_t& sync)
{
    int32_t count = 0;
    sync.callback->get_frame_count(sync.callback_handle, &count);
    return count;
}

// Without a frame a step does nothing. A frame that could not be read is tried again; a step that finds no strategy for
// the mode reports that, again and again.
uint64_t idle_wait_us(const sync_strategy_info_t& sync)
{
    const bool frames_are_shown =
        sync.state != E_SYNC_STATE_START || sync.mode == E_SYNC_MODE_FREERUN || sync.mode == E_SYNC_MODE_AUDIO_MASTER;
    return frames_are_shown && !steps_are_logged(sync) && waiting_frames(sync) == 0 ? kNoLimit : kIdleWaitUs;
}

void* handle_sync_logic(void* arg)
{
    if (missing(arg, "arg is null"))
        return nullptr;
    sync_strategy_info_t& sync = base_of(arg);
    log_i("handle_sync_logic thread enter\n");
    set_thread_name("aysync_logic");
    set_exact_timers();
    log_i("thread_id: %lli\n", lli(pthread_self()));
    if (sync.on_sync_logic == nullptr) {
        log_e("on_sync_logic callback is null\n");
        return nullptr;
    }
    while (!sync.sync_thread_exit) {
        if (!sync.on_sync_logic(arg))
            wait_for_news(sync, E_SYNC_WAIT_FRAME, idle_wait_us(sync));
    }
    log_i("handle_sync_logic thread exit\n");
    return nullptr;
}

bool needs_vblanks(sync_strategy_info_t& sync)
{
    mutex_guard guard(sync.sync_thread_mutex);
    return sync.sync_thread_wait != E_SYNC_WAIT_FRAME || sync.sync_thread_wake || steps_are_logged(sync) ||
           system_time(CLOCK_MONOTONIC) - sync.sync_thread_asleep_ns < kNoFrameNs;
}

// Sleeps while nobody needs vertical blanks: until there is a frame, another display, or a stop.
void sleep_while_idle(sync_strategy_info_t& sync)
{
    if (needs_vblanks(sync))
        return;
    mutex_guard guard(sync.vsync_thread_mutex);
    sync.vsync_thread_idle = true;
    // Again: who brings a frame from now on sees the flag.
    if (needs_vblanks(sync))
        sync.vsync_thread_idle = false;
    while (sync.vsync_thread_idle && !sync.vsync_thread_exit) {
        sync.last_vsync_system_time = kUnset;
        guard.wait(sync.vsync_thread_cond);
    }
    sync.vsync_thread_idle = false;
}

void* handle_vsync(void* arg)
{
    if (missing(arg, "arg is null"))
        return nullptr;
    sync_strategy_info_t& sync = base_of(arg);
    if (env_get_value("debug.hdmiplayer.sync.disablevsync", 0) != 0) {
        sync.last_vsync_system_time = kUnset;
        return nullptr;
    }
    set_thread_name("av_sync");
    set_exact_timers();
    log_i("thread_id: %lli\n", lli(pthread_self()));
    while (!sync.vsync_thread_exit) {
        const synchronizer_drm_info_t display = display_of(sync);
        if (display.fd <= 0) {
            log_e("invalid drm_info.fd:%d\n", display.fd);
            return nullptr;
        }
        drmVBlank vbl = {};
        vbl.request.type = DRM_VBLANK_RELATIVE;
        vbl.request.sequence = 1;
        const int64_t before = system_time_us();
        const int result = drmWaitVBlank(display.fd, &vbl);
        if (result != 0) {
            log_e("drmWaitVBlank fd:%d error:%d\n", display.fd, result);
            // The pacing goes on at the display's nominal rate.
            sleep_unless_stopped(sync.vsync_thread_mutex, sync.vsync_thread_cond, sync.vsync_thread_exit,
                                 static_cast<uint32_t>(pacing::refresh_duration(display.vrefresh)));
        }
        const int64_t end = system_time_us();
        if (sync.enable_log)
            log_v("vblank diff:%lli before:%lli end:%lli %ld\n", lli(end - before), lli(before), lli(end),
                  static_cast<long>(int64_t{vbl.reply.tval_sec} * 1000000 + vbl.reply.tval_usec));
        synchronizer_notify_vblank(arg, end);
        if (result == 0) // a display that fails says so again and again
            sleep_while_idle(sync);
    }
    log_i("handle_vsync thread exit\n");
    return nullptr;
}

// --- Frame pacing ---------------------------------------------------------------

// Every line of a pacing step carries the step's name, whichever helper decides.
constexpr const char* kStep = "on_Oru_sync_logic";

#define trace_step(player, level, format, ...)           \
    do {                                                 \
        if ((player).base.enable_log)                    \
            log_as(kStep, level, format, ##__VA_ARGS__); \
    } while (0)

bool has_last_frame(const oru_player& player) { return signed_pts(player.last_frame) != kUnset; }

void forget_history(oru_player& player)
{
    player.last_frame.fd = 0;
    player.last_frame.pts = static_cast<uint64_t>(kUnset);
    player.base.last_vsync_system_time = kUnset;
    player.base.last_flip_system_time = kUnset;
}

bool peek(oru_player& player, synchronizer_frame_info_t& frame)
{
    return player.base.callback->peek_frame(player.base.callback_handle, &frame);
}

// Takes the oldest frame out and makes it the last frame. The queue's owner may
// have taken the peeked frame meanwhile: then @p frame becomes the one that was
// got, and false says that there was none.
bool take(oru_player& player, synchronizer_frame_info_t& frame, int64_t now)
{
    if (!player.base.callback->get_frame(player.base.callback_handle, &frame))
        return false;
    player.last_frame = frame;
    player.last_frame_system_time = now;
    return true;
}

void flip(oru_player& player, synchronizer_frame_info_t& frame)
{
    player.base.callback->flip_frame(player.base.callback_handle, &frame);
}

// Shows the frame now and starts the timer with it; false when there was none left.
bool show_unpaced(oru_player& player, synchronizer_frame_info_t& frame, loglevel_e level)
{
    const int64_t now = system_time_us();
    if (!take(player, frame, now))
        return false;
    player.frame_timer = now;
    flip(player, frame);
    trace_step(player, level, "flip_frame frame_pts:%llu system_time:%lli fd:%d\n", llu(frame.pts), lli(now), frame.fd);
    return true;
}

// A clock that was set back must not leave the timer in the far future.
void pull_timer_back(oru_player& player, int64_t now, loglevel_e level)
{
    if (now >= player.frame_timer)
        return;
    trace_step(player, level, "system_time:%lli frame_timer:%lli\n", lli(now), lli(player.frame_timer));
    player.frame_timer = now;
}

// Waits until the frame's distance to the last one has passed; false at a stop.
bool wait_distance(oru_player& player, const synchronizer_frame_info_t& frame)
{
    sync_strategy_info_t& sync = player.base;
    const int64_t last_frame_duration = subtract(signed_pts(frame), signed_pts(player.last_frame));
    trace_step(player, LOG_LEVEL_V, "last_frame_duration:%lli cur_frame_pts:%llu last_frame_pts:%llu\n",
               lli(last_frame_duration), llu(frame.pts), llu(player.last_frame.pts));
    const int64_t now = system_time_us();
    pull_timer_back(player, now, LOG_LEVEL_V);
    const int64_t remaining_time = pacing::free_run_wait(now, player.frame_timer, last_frame_duration);
    if (remaining_time == 0)
        return true;
    trace_step(player, LOG_LEVEL_V, "wait frame_pts:%llu remaining_time:%lli system_time:%lli\n",
               llu(player.last_frame.pts), lli(remaining_time), lli(now));
    return sleep_unless_stopped(sync.sync_thread_mutex, sync.sync_thread_cond, sync.sync_thread_exit,
                                static_cast<uint32_t>(remaining_time));
}

bool free_run_step(oru_player& player)
{
    if (waiting_frames(player.base) == 0)
        return false;
    synchronizer_frame_info_t frame = {};
    if (!peek(player, frame))
        return true;
    if (has_last_frame(player) && !player.base.low_latency_mode && !wait_distance(player, frame))
        return true;
    synchronizer_set_base_media_time(&player, signed_pts(frame), kUnset);
    show_unpaced(player, frame, LOG_LEVEL_I);
    return true;
}

// With the sync log on, a frame far ahead of the audio clock waits for it.
// True when the step waited. The tie to the log switch is intended.
bool waited_for_audio(oru_player& player, const pacing::frame_offset& offset, int64_t audio_clock_pts)
{
    if (!player.base.enable_log)
        return false;
    trace_step(player, LOG_LEVEL_I, "video_clock_pts:%lli audio_clock_pts:%lli diff:%lli delay:%lli\n",
               lli(offset.video_clock), lli(audio_clock_pts), lli(offset.diff), lli(offset.delay));
    const pacing::offset_class& found = pacing::classify(offset.diff);
    trace_step(player, found.level, "video clock sync audio clock %s\n", found.name);
    if (offset.diff <= pacing::kAcceptableEarlyUs)
        return false;
    trace_step(player, LOG_LEVEL_I, "wait audio clock update, video_clock_pts:%lli audio_clock_pts:%lli diff:%lli\n",
               lli(offset.video_clock), lli(audio_clock_pts), lli(offset.diff));
    wait_for_news(player.base, E_SYNC_WAIT_AUDIO, static_cast<uint32_t>(offset.diff));
    return true;
}

// When to flip the frame; brings @p grid up to date.
int64_t target_of(oru_player& player, const synchronizer_frame_info_t& frame, pacing::vsync_grid& grid, int64_t now,
                  int64_t delay)
{
    const pacing::vsync_grid known = grid_of(player.base);
    grid.sampled_time = known.sampled_time;
    int64_t release_time = 0;
    synchronizer_get_release_time(&player, signed_pts(frame), &release_time);
    trace_step(player, LOG_LEVEL_I, "original cur_frame_system_time:%lli\n", lli(release_time));
    if (grid.sampled_time == kUnset)
        return release_time;
    grid.duration = known.duration;
    const int64_t target = pacing::flip_target(release_time, grid);
    trace_step(player, LOG_LEVEL_I,
               "frameSystemTime:%lli vsyncSystemTime:%lli current_system_time:%lli frame_timer:%lli diff:%lli %lli\n",
               lli(target), lli(grid.sampled_time), lli(now), lli(player.frame_timer),
               lli(subtract(add_saturated(player.frame_timer, delay), now)), lli(subtract(target, grid.sampled_time)));
    return target;
}

// For how long an early frame is left alone at most. News of a vertical blank have it looked at again: a wake-up by
// time as well, at nearly the same instant, would be one too many for each frame. Without vertical blanks, time does
// it.
int64_t longest_wait(const sync_strategy_info_t& sync, const pacing::vsync_grid& grid, int64_t now)
{
    const bool vblanks_come =
        grid.sampled_time != kUnset && within(subtract(now, grid.sampled_time), 0, 2 * grid.duration);
    return vblanks_come && !steps_are_logged(sync) ? std::max(kLongestWaitUs, grid.duration) : grid.duration;
}

// Decides about a frame that has a predecessor: true when its time has come,
// with the delay that the timer advances by; false after a wait.
bool frame_is_due(oru_player& player, const synchronizer_frame_info_t& frame, pacing::vsync_grid& grid, int64_t& delay)
{
    trace_step(player, LOG_LEVEL_D, "last_frame_duration:%lli frame_pts:%llu lastFramePts:%llu\n",
               lli(subtract(signed_pts(frame), signed_pts(player.last_frame))), llu(frame.pts),
               llu(player.last_frame.pts));
    const int64_t video_now = system_time_us();
    int64_t audio_clock_pts = 0;
    synchronizer_get_current_media_time(&player, &audio_clock_pts);
    const pacing::frame_offset offset = pacing::offset_of(
        signed_pts(frame), {signed_pts(player.last_frame), player.last_frame_system_time}, video_now, audio_clock_pts);
    delay = offset.delay;
    if (waited_for_audio(player, offset, audio_clock_pts))
        return false;

    const int64_t now = system_time_us();
    pull_timer_back(player, now, LOG_LEVEL_D);
    const int64_t target = target_of(player, frame, grid, now, delay);
    const int64_t due = add_saturated(player.frame_timer, delay);
    const bool at_vsync = now < due && frame_render_by_vsync(target, grid.sampled_time, grid.duration);
    const pacing::decision decision = pacing::decide(now, due, at_vsync, longest_wait(player.base, grid, now));
    if (decision.what == pacing::verdict::flip)
        return true;
    trace_step(player, LOG_LEVEL_I, "wait frame_pts:%llu remaining_time:%lli\n", llu(player.last_frame.pts),
               lli(decision.wait_us));
    player.waiting_pts = signed_pts(frame);
    player.waiting_until = add_saturated(now, decision.wait_us);
    wait_for_news(player.base, E_SYNC_WAIT_TIME, static_cast<uint32_t>(decision.wait_us));
    return false;
}

// Drops the taken frame when its successor is already due; @p next is then the successor.
bool dropped_late(oru_player& player, synchronizer_frame_info_t& frame, synchronizer_frame_info_t& next, int64_t now)
{
    if (waiting_frames(player.base) < 1 || !peek(player, next))
        return false;
    const int64_t cur_frame_duration = subtract(signed_pts(next), signed_pts(frame));
    trace_step(player, LOG_LEVEL_I, "cur_frame_duration:%lli next_frame_pts:%llu cur_frame_pts:%llu\n",
               lli(cur_frame_duration), llu(next.pts), llu(frame.pts));
    if (pacing::decide_taken(now, player.frame_timer, cur_frame_duration) != pacing::verdict::drop)
        return false;
    player.base.callback->drop_frame(player.base.callback_handle, &frame);
    trace_step(player, LOG_LEVEL_W,
               "drop_frame current_system_time:%lli frame_timer:%lli elapsed:%lli cur_frame_duration:%lli\n", lli(now),
               lli(player.frame_timer), lli(subtract(now, player.frame_timer)), lli(cur_frame_duration));
    return true;
}

void flip_paced(oru_player& player, synchronizer_frame_info_t& frame)
{
    flip(player, frame);
    const int64_t flip_time = system_time_us();
    const int64_t last_flip_time = player.base.last_flip_system_time.exchange(flip_time);
    trace_step(player, LOG_LEVEL_I, "flip_frame frame_pts:%llu fd:%d last_frame_actual_duration:%lli flip_time:%lli\n",
               llu(frame.pts), frame.fd, lli(subtract(flip_time, last_flip_time)), lli(flip_time));
}

// Shows the frame, or the first of its successors that is not late as well. A
// host that queues a frame for each that is dropped could be late for ever:
// a stop ends that too.
void pace(oru_player& player, synchronizer_frame_info_t frame)
{
    pacing::vsync_grid grid;
    int64_t delay = 0;
    while (!player.base.sync_thread_exit && frame_is_due(player, frame, grid, delay)) {
        const int64_t now = system_time_us();
        const int64_t frame_timer = pacing::advance(player.frame_timer, delay, now);
        trace_step(player, LOG_LEVEL_I, "system_time:%lli frame_timer:%lli video late sys:%lli delay:%lli\n", lli(now),
                   lli(frame_timer), lli(subtract(now, frame_timer)), lli(delay));
        if (!take(player, frame, now))
            return;
        player.frame_timer = frame_timer; // together with the last frame: a frame that was not taken moves neither
        synchronizer_frame_info_t next = {};
        if (!dropped_late(player, frame, next, now)) {
            flip_paced(player, frame);
            return;
        }
        frame = next;
    }
}

bool audio_master_step(oru_player& player)
{
    const int32_t frame_count = waiting_frames(player.base);
    if (frame_count == 0) {
        log_as(kStep, LOG_LEVEL_V, "%s:%d", kStep, __LINE__);
        return false;
    }
    trace_step(player, LOG_LEVEL_D, "frame_count:%d\n", frame_count);
    synchronizer_frame_info_t frame = {};
    const bool peeked = peek(player, frame);
    trace_step(player, LOG_LEVEL_D, "peekFrame frame_pts:%llu fd:%d\n", llu(frame.pts), frame.fd);
    if (!peeked) {
        log_as(kStep, LOG_LEVEL_V, "%s:%d", kStep, __LINE__);
        return false;
    }
    if (has_last_frame(player))
        pace(player, frame);
    else if (show_unpaced(player, frame, LOG_LEVEL_D))
        player.base.last_flip_system_time = system_time_us();
    return true;
}

// For debugging: state and mode can be forced from the environment at any time.
template <typename Setting>
void apply_forced(const char* variable, const char* name, std::atomic<Setting>& setting, Setting last)
{
    const int forced = env_get_value(variable, -1);
    if (!within(forced, 0, last) || forced == setting)
        return;
    setting = static_cast<Setting>(forced);
    log_as(kStep, LOG_LEVEL_D, "force %s:%d\n", name, forced);
}

} // namespace

// --- Lifecycle ------------------------------------------------------------------

void* synchronizer_init(synchronizer_player_e player)
{
    if (player != E_SYNCHRONIZER_PLAYER_ORUPLAYER) {
        log_e("not support get strategy by player:%d\n", player);
        return nullptr;
    }
    auto* info = new (std::nothrow) sync_strategy_info_Oru_player_t;
    if (info == nullptr) {
        log_e("info malloc failed\n");
        return nullptr;
    }
    info->base.player_type = player;
    info->base.enable_log = env_get_value("debug_hdmiplayer_log_avsync", 0) != 0;
    info->base.on_sync_logic = on_Oru_sync_logic;
    cond_init_monotonic(info->base.sync_thread_cond);
    cond_init_monotonic(info->base.vsync_thread_cond);
    return info;
}

bool synchronizer_deinit(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    synchronizer_stop(handle);
    sync_strategy_info_t& sync = base_of(handle);
    pthread_cond_destroy(&sync.sync_thread_cond);
    pthread_cond_destroy(&sync.vsync_thread_cond);
    for (mutex_t* mutex :
         {&sync.mutex, &sync.sync_thread_mutex, &sync.vsync_thread_mutex, &sync.exit_mutex, &sync.control_mutex})
        mutex->destroy();
    delete static_cast<sync_strategy_info_Oru_player_t*>(handle);
    return true;
}

bool synchronizer_set_callback(void* handle, void* callback_handle, synchronizer_callback_t* callback)
{
    if (missing(handle, "handle is null") || missing(callback_handle, "callback_handle is null") ||
        missing(callback, "callback is null"))
        return false;
    base_of(handle).callback_handle = callback_handle;
    base_of(handle).callback = callback;
    return true;
}

bool synchronizer_start(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    if (sync.callback == nullptr) {
        log_e("please call firstly setCallback before start!!!\n");
        return false;
    }
    mutex_guard guard(sync.control_mutex);
    if (sync.sync_thread != 0)
        return true;
    if (pthread_create(&sync.sync_thread, nullptr, handle_sync_logic, handle) != 0) {
        log_e("create sync_thread failed!\n");
        sync.sync_thread = 0;
        return false;
    }
    if (pthread_create(&sync.vsync_thread, nullptr, handle_vsync, handle) != 0) {
        log_e("create vsync_thread failed!\n");
        sync.vsync_thread = 0;
        end_thread(sync.sync_thread, sync.sync_thread_mutex, sync.sync_thread_cond, sync.sync_thread_exit);
        return false;
    }
    return true;
}

bool synchronizer_stop(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.control_mutex);
    end_thread(sync.sync_thread, sync.sync_thread_mutex, sync.sync_thread_cond, sync.sync_thread_exit);
    end_thread(sync.vsync_thread, sync.vsync_thread_mutex, sync.vsync_thread_cond, sync.vsync_thread_exit);
    return true;
}

bool synchronizer_notify_frame_done(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    wake_sync_thread(base_of(handle), news::frame);
    return true;
}

bool synchronizer_notify_frames_taken(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    wake_sync_thread(base_of(handle), news::taken);
    return true;
}

bool synchronizer_notify_vblank(void* handle, int64_t time)
{
    if (missing(handle, "handle is null"))
        return false;
    base_of(handle).last_vsync_system_time = time;
    wake_sync_thread(base_of(handle), news::vblank);
    return true;
}

bool synchronizer_resync(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.control_mutex);
    if (sync.sync_thread == 0) {
        forget_history(*static_cast<sync_strategy_info_Oru_player_t*>(handle));
        return true;
    }
    sync.resync_requested = true;
    wake_sync_thread(sync, news::restart);
    return true;
}

// --- Settings -------------------------------------------------------------------

bool synchronizer_set_sync_mode(void* handle, synchronizer_mode_e mode)
{
    if (missing(handle, "handle is null"))
        return false;
    if (!within(mode, E_SYNC_MODE_FREERUN, E_SYNC_MODE_VIDEO_MASTER)) {
        log_e("invalid mode:%d\n", mode);
        return false;
    }
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    sync.mode = mode;
    guard.unlock();
    wake_sync_thread(sync, news::setting);
    log_d("mode:%d\n", mode);
    return true;
}

bool synchronizer_get_sync_mode(void* handle, synchronizer_mode_e* mode)
{
    if (missing(handle, "handle is null") || missing(mode, "mode is null"))
        return false;
    mutex_guard guard(base_of(handle).mutex);
    *mode = base_of(handle).mode;
    return true;
}

bool synchronizer_set_sync_state(void* handle, synchronizer_state_e state)
{
    if (missing(handle, "handle is null"))
        return false;
    if (!within(state, E_SYNC_STATE_STOP, E_SYNC_STATE_RESUME)) {
        log_e("invalid state:%d\n", state);
        return false;
    }
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    if (state == E_SYNC_STATE_RESUME)
        sync.base_system_time = static_cast<int64_t>(system_time(CLOCK_MONOTONIC) / 1000);
    sync.state = state;
    guard.unlock();
    wake_sync_thread(sync, news::setting);
    log_d("state:%d\n", state);
    return true;
}

bool synchronizer_get_sync_state(void* handle, synchronizer_state_e* state)
{
    if (missing(handle, "handle is null") || missing(state, "state is null"))
        return false;
    mutex_guard guard(base_of(handle).mutex);
    *state = base_of(handle).state;
    return true;
}

bool synchronizer_set_drm_info(void* handle, synchronizer_drm_info_t info)
{
    if (missing(handle, "handle is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    sync.drm_info = info;
    guard.unlock();
    end_vsync_idleness(sync);
    log_d("fd:%d vrefresh:%0.2f\n", info.fd, static_cast<double>(info.vrefresh));
    return true;
}

bool synchronizer_enable_low_latency_mode(void* handle, bool enable)
{
    if (missing(handle, "handle is null"))
        return false;
    base_of(handle).low_latency_mode = enable;
    return true;
}

// --- Media clock ----------------------------------------------------------------

namespace
{

// The two queries convert the time since the anchor with different signedness,
// hence it comes as a float.
int64_t extrapolate(const sync_strategy_info_t& sync, float elapsed) REQUIRES(sync.mutex)
{
    return to_int64(elapsed * sync.rate + static_cast<float>(sync.base_media_time));
}

} // namespace

bool synchronizer_set_playback_rate(void* handle, float rate)
{
    if (missing(handle, "handle is null"))
        return false;
    if (rate == 0.0F) {
        log_e("invalid rate:%f\n", static_cast<double>(rate));
        return false;
    }
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    sync.rate = rate;
    return true;
}

bool synchronizer_get_playback_rate(void* handle, float* rate)
{
    if (missing(handle, "handle is null") || missing(rate, "rate is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    *rate = sync.rate;
    return true;
}

bool synchronizer_set_base_media_time(void* handle, int64_t media_time, int64_t max_media_time)
{
    if (missing(handle, "handle is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    const int64_t now = system_time_us();
    sync.base_media_time = media_time;
    sync.max_media_time = max_media_time;
    sync.base_system_time = now;
    guard.unlock();
    if (sync.enable_log)
        log_i("media_time:%lli max_media_time:%lli system_time:%lli\n", lli(media_time), lli(max_media_time), lli(now));
    wake_sync_thread(sync, news::clock);
    return true;
}

bool synchronizer_get_current_media_time(void* handle, int64_t* media_time)
{
    if (missing(handle, "handle is null") || missing(media_time, "media_time is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    if (sync.base_media_time == 0) {
        *media_time = 0;
        return true;
    }
    mutex_guard guard(sync.mutex);
    // Unsigned: before its anchor the clock is far ahead, hence at its bound.
    const uint64_t elapsed = get_system_time_us() - static_cast<uint64_t>(sync.base_system_time);
    *media_time = extrapolate(sync, static_cast<float>(elapsed));
    if (sync.max_media_time >= 1 && *media_time > sync.max_media_time) {
        if (sync.enable_log)
            log_w("audio stuck, underrun time:%lli\n", lli(*media_time - sync.max_media_time));
        *media_time = sync.max_media_time;
    }
    if (sync.enable_log)
        log_d("media_time:%lli\n", lli(*media_time));
    return true;
}

bool synchronizer_get_release_time(void* handle, int64_t media_time, int64_t* release_time)
{
    if (missing(handle, "handle is null") || missing(release_time, "system_time is null"))
        return false;
    sync_strategy_info_t& sync = base_of(handle);
    mutex_guard guard(sync.mutex);
    const int64_t now = system_time_us();
    const int64_t master_time = extrapolate(sync, static_cast<float>(subtract(now, sync.base_system_time)));
    const auto ahead = static_cast<float>(subtract(media_time, master_time));
    *release_time = add_saturated(now, to_int64(ahead / sync.rate));
    if (sync.enable_log)
        log_d("media_time:%lli release_time:%lli\n", lli(media_time), lli(*release_time));
    return true;
}

// --- The step -------------------------------------------------------------------

bool on_Oru_sync_logic(void* handle)
{
    if (missing(handle, "handle is null"))
        return false;
    auto& player = *static_cast<sync_strategy_info_Oru_player_t*>(handle);
    sync_strategy_info_t& sync = player.base;
    if (missing(sync.callback, "synchronizer callback is null"))
        return false;
    if (sync.resync_requested.exchange(false))
        forget_history(player);
    apply_forced("debug.hdmiplayer.sync.forcestate", "state", sync.state, E_SYNC_STATE_RESUME);
    apply_forced("debug.hdmiplayer.sync.forcemode", "mode", sync.mode, E_SYNC_MODE_VIDEO_MASTER);
    const synchronizer_mode_e mode = sync.mode;
    if (mode == E_SYNC_MODE_FREERUN || sync.state != E_SYNC_STATE_START)
        return free_run_step(player);
    if (mode == E_SYNC_MODE_AUDIO_MASTER)
        return audio_master_step(player);
    log_e("cannot get valid sync mode:%d\n", mode);
    return false;
}
