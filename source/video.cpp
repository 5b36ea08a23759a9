// SPDX-License-Identifier: MIT
/**
 * @file
 * The video side: frame queue, time stamps, free run and A/V sync reset.
 */
#include "internal/video.h"

#include <algorithm>
#include <new>
#include <utility>

#include "internal/common.h"
#include "internal/render_step.h"

video_info_t g_video_info;

namespace
{

/// A gap between two renders that restarts A/V sync.
constexpr int64_t kMaxRenderGapUs = 1000000;
constexpr int64_t kUsPerMs = 1000;

/// How a thread came into the module. Calls from inside the host's callbacks do
/// not change it: it decides what they may wait for.
enum class entry {
    none,
    render,
    pacing, ///< the synchronizer's thread, inside a flip or drop callback
};
thread_local entry t_entry = entry::none;

class entry_scope
{
public:
    explicit entry_scope(entry how) : before_(std::exchange(t_entry, t_entry == entry::none ? how : t_entry)) {}
    ~entry_scope() { t_entry = before_; }
    entry_scope(const entry_scope&) = delete;
    entry_scope& operator=(const entry_scope&) = delete;

private:
    entry before_;
};

// --- Frame queue ------------------------------------------------------------------

void log_fill_state(const video_frame_queue_t& q, const video_frame_info_t& slot, const char* function)
    REQUIRES(q.mutex)
{
    if (q.en_state_log)
        log_as(function, LOG_LEVEL_I, "frames free:%d done:%d, buf:%p pts:%lli used:%d\n", q.free_frames_count,
               q.frames_count.load(), slot.frame.buf_handle, lli(slot.frame.pts), slot.used);
}

bool queue_full(const video_frame_queue_t& q) { return q.frames_count >= q.pool_frames_count; }

void release_slot(video_frame_queue_t& q, video_frame_info_t& slot) REQUIRES(q.mutex)
{
    list_del(&slot.node);
    if (q.frames_count > 0)
        --q.frames_count;
    ++q.free_frames_count;
    slot.used = false;
    slot.frame = {};
}

// Takes the oldest frame out and puts @p frame in at the end, which needs no free slot; false without effect if none
// waits.
bool swap_oldest(video_frame_queue_t& q, hdmi_player_video_frame_t& frame)
{
    const mutex_guard guard(q.mutex);
    if (list_empty(&q.list_frames))
        return false;
    video_frame_info_t& slot = *list_entry(q.list_frames.next, video_frame_info_t, node);
    list_del(&slot.node);
    std::swap(slot.frame, frame);
    list_add_tail(&slot.node, &q.list_frames);
    return true;
}

int32_t read_oldest(video_frame_queue_t* q, hdmi_player_video_frame_t* frame, bool take, const char* function)
{
    if (missing(q, "video_frame_queue is null.", function))
        return -1;
    const call_trace trace(LOG_LEVEL_D, q->en_api_log, function);
    if (missing(frame, "frame is null.", function))
        return -1;
    const mutex_guard guard(q->mutex);
    const int32_t count = q->frames_count;
    if (count < 1) {
        log_as(function, LOG_LEVEL_W, "frames_count(%d) < 0\n", count);
        return -1;
    }
    if (list_empty(&q->list_frames)) {
        log_as(function, LOG_LEVEL_E, "list_frames empty, but list size is %d.\n", count);
        log_as(function, LOG_LEVEL_E, "get frame failed\n");
        return -1;
    }
    video_frame_info_t* slot = list_entry(q->list_frames.next, video_frame_info_t, node);
    if (!slot->used)
        log_as(function, LOG_LEVEL_E, "the frame state is free\n");
    const video_frame_info_t oldest = *slot;
    if (take)
        release_slot(*q, *slot);
    log_fill_state(*q, oldest, function);
    *frame = oldest.frame;
    return 0;
}

/// @return null without memory, and for more frames than fit into the address space: new throws then, even this one.
video_frame_info_t* allocate_pool(int32_t size)
{
    const auto count = static_cast<size_t>(std::max(size, 0));
    const bool fits = count > 0 && count <= PTRDIFF_MAX / sizeof(video_frame_info_t);
    return fits ? new (std::nothrow) video_frame_info_t[count]() : nullptr;
}

} // namespace

int32_t video_frame_queue_init(video_frame_queue_t* q, int32_t size)
{
    if (missing(q, "video_frame_queue is null."))
        return -1;
    const mutex_guard guard(q->mutex);
    q->arry_pool_frames = allocate_pool(size);
    if (q->arry_pool_frames == nullptr) {
        log_e("no pool of %d frames\n", size);
        return -1;
    }
    list_init(&q->list_frames);
    q->frames_count = 0;
    q->free_frames_count = size;
    q->pool_frames_count = size;
    q->en_api_log = env_get_value("debug_hdmiplayer_log_video_fq_api", 0) != 0;
    q->en_state_log = env_get_value("debug_hdmiplayer_log_video_fq_state", 0) != 0;
    return 0;
}

int32_t video_frame_queue_pool_release(video_frame_queue_t* q)
{
    if (missing(q, "video_frame_queue is null."))
        return -1;
    const call_trace trace(LOG_LEVEL_D, q->en_api_log);
    const mutex_guard guard(q->mutex);
    if (q->arry_pool_frames == nullptr)
        return 0;
    while (!list_empty(&q->list_frames))
        release_slot(*q, *list_entry(q->list_frames.next, video_frame_info_t, node));
    delete[] q->arry_pool_frames;
    q->arry_pool_frames = nullptr;
    q->frames_count = 0;
    q->free_frames_count = 0;
    q->pool_frames_count = 0;
    return 0;
}

int32_t video_frame_queue_deinit(video_frame_queue_t* q) { return video_frame_queue_pool_release(q); }

int32_t video_frame_queue_push_frame(hdmi_player_video_frame_t* frame)
{
    video_frame_queue_t& q = g_video_info.frame_queue;
    const call_trace trace(LOG_LEVEL_D, q.en_api_log);
    if (missing(frame, "frame is null."))
        return -1;
    const mutex_guard guard(q.mutex);
    if (q.free_frames_count < 1) {
        log_w("free_frames_count(%d) <= 0\n", q.free_frames_count);
        return -1;
    }
    video_frame_info_t* const pool_end = q.arry_pool_frames + q.pool_frames_count;
    video_frame_info_t* const slot =
        std::find_if(q.arry_pool_frames, pool_end, [](const video_frame_info_t& s) { return !s.used; });
    if (slot == pool_end) {
        log_w("free_frames_count:%d but no free frame found in arry_pool_frames\n", q.free_frames_count);
        return -1;
    }
    --q.free_frames_count;
    ++q.frames_count;
    slot->used = true;
    slot->frame = *frame;
    list_add_tail(&slot->node, &q.list_frames);
    log_fill_state(q, *slot, __func__);
    return 0;
}

int32_t video_frame_queue_get_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame)
{
    return read_oldest(q, frame, true, __func__);
}

int32_t video_frame_queue_peek_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame)
{
    return read_oldest(q, frame, false, __func__);
}

// --- The turn to flip -------------------------------------------------------------

namespace
{

bool has_turn(const video_flip_turn_t& turn) REQUIRES(turn.mutex)
{
    return turn.depth > 0 && pthread_equal(turn.owner, pthread_self()) != 0;
}

bool is_free(const video_flip_turn_t& turn) REQUIRES(turn.mutex) { return turn.served == turn.tickets; }

void wait_for_turn(video_flip_turn_t& turn)
{
    mutex_guard guard(turn.mutex);
    if (!has_turn(turn)) {
        const uint32_t ticket = turn.tickets++;
        while (turn.served != ticket)
            guard.wait(turn.cond);
        turn.owner = pthread_self();
    }
    ++turn.depth;
}

// The sync thread's way. It must not wait: the owner may be a render that is joining it.
bool take_free_turn(video_flip_turn_t& turn)
{
    const mutex_guard guard(turn.mutex);
    if (!has_turn(turn)) {
        if (!is_free(turn))
            return false;
        ++turn.tickets;
        turn.owner = pthread_self();
    }
    ++turn.depth;
    return true;
}

bool others_want_turn(video_flip_turn_t& turn)
{
    const mutex_guard guard(turn.mutex);
    return !has_turn(turn) && !is_free(turn);
}

// Without effect for a frame that sync_get_frame_cb() did not take.
void end_turn(video_flip_turn_t& turn)
{
    const mutex_guard guard(turn.mutex);
    if (!has_turn(turn) || --turn.depth > 0)
        return;
    ++turn.served;
    pthread_cond_broadcast(&turn.cond);
}

// A render's turn.
class turn_guard
{
public:
    explicit turn_guard(video_info_t& video) : video_(video) { wait_for_turn(video_.flip_turn); }
    ~turn_guard()
    {
        end_turn(video_.flip_turn);
        synchronizer_notify_frames_taken(video_.synchronizer_handle);
        // Meanwhile the pacing found no frames.
        if (video_.frame_queue.frames_count > 0)
            synchronizer_notify_frame_done(video_.synchronizer_handle);
    }
    turn_guard(const turn_guard&) = delete;
    turn_guard& operator=(const turn_guard&) = delete;

private:
    video_info_t& video_;
};

} // namespace

// --- What the synchronizer sees of the queue --------------------------------------

namespace
{

constexpr const char* kFlipFrame = "sync_flip_frame_cb";

bool read_for_sync(void* handle, synchronizer_frame_info_t* info, bool take, const char* function)
{
    video_frame_queue_t* q = &static_cast<video_info_t*>(handle)->frame_queue;
    hdmi_player_video_frame_t frame = {};
    const int32_t result = take ? video_frame_queue_get_frame(q, &frame) : video_frame_queue_peek_frame(q, &frame);
    if (result != 0) {
        log_as(function, LOG_LEVEL_E, "video_frame_queue_%s_frame failed\n", take ? "get" : "peek");
        return false;
    }
    info->buf_handle = frame.buf_handle;
    info->pts = static_cast<uint64_t>(frame.pts);
    log_as(function, LOG_LEVEL_D, "video frame pts:%lld\n", lli(frame.pts));
    return true;
}

hdmi_player_video_frame_t host_frame(const synchronizer_frame_info_t& info)
{
    return {info.buf_handle, static_cast<int64_t>(info.pts)};
}

// The one way to the host's flip and drop callbacks. Inside a render the render's scope stays in force.
void hand_back(void (*host_cb)(hdmi_player_video_frame_t), const hdmi_player_video_frame_t& frame)
{
    const entry_scope scope(entry::pacing);
    if (host_cb != nullptr)
        host_cb(frame);
}

void note_flip_time(video_info_t& video)
{
    if (!video.en_fps_log)
        return;
    const int64_t now_ms = static_cast<int64_t>(get_system_time_us()) / kUsPerMs;
    if (video.last_flip_time_ms < 1)
        video.last_flip_time_ms = now_ms;
    log_as(kFlipFrame, LOG_LEVEL_D, "diff last:%lli\n", lli(now_ms - video.last_flip_time_ms));
    video.last_flip_time_ms = now_ms;
}

} // namespace

bool sync_get_frame_count_cb(void* handle, int32_t* count)
{
    if (missing(handle, "handle is null") || missing(count, "count is null"))
        return false;
    video_info_t& video = *static_cast<video_info_t*>(handle);
    const int32_t frames = video.frame_queue.frames_count;
    if (frames < 0)
        return false;
    *count = frames > 0 && others_want_turn(video.flip_turn) ? 0 : frames;
    return true;
}

bool sync_peek_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (missing(handle, "handle is null") || missing(info, "frame is null"))
        return false;
    return read_for_sync(handle, info, false, __func__);
}

bool sync_get_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (missing(handle, "handle is null") || missing(info, "frame is null"))
        return false;
    video_flip_turn_t& turn = static_cast<video_info_t*>(handle)->flip_turn;
    if (!take_free_turn(turn))
        return false;
    if (read_for_sync(handle, info, true, __func__))
        return true;
    end_turn(turn);
    return false;
}

bool sync_drop_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (missing(handle, "handle is null") || missing(info, "frame is null"))
        return false;
    video_info_t& video = *static_cast<video_info_t*>(handle);
    hand_back(video.video_frame_drop_cb, host_frame(*info));
    log_d("buf_handle:%p pts:%lli\n", info->buf_handle, lli(info->pts));
    end_turn(video.flip_turn);
    return true;
}

bool sync_flip_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (missing(handle, "handle is null") || missing(info, "frame is null"))
        return false;
    video_info_t& video = *static_cast<video_info_t*>(handle);
    hand_back(video.video_frame_flip_cb, host_frame(*info));
    note_flip_time(video);
    end_turn(video.flip_turn);
    return true;
}

// --- Life of the module -----------------------------------------------------------

namespace
{

bool callbacks_complete(const video_config_t& config)
{
    return config.video_frame_drop_cb != nullptr && config.video_frame_flip_cb != nullptr &&
           config.event_cb != nullptr && config.notify_audio_reset_cb != nullptr &&
           config.ai_read_continued_cb != nullptr;
}

// Everything but the queue, the turn and the locks, one of which the caller holds.
void reset_record(video_info_t& video, const video_config_t& config)
{
    const mutex_guard guard(video.internal_mutex);
    video.initialized = false;
    video.disable_avsync = false;
    video.avsync_reset = false;
    video.enable_log = false;
    video.en_fps_log = false;
    video.resetting = false;
    video.wait_audio = false;
    video.synchronizer_handle = nullptr;
    video.synchronizer_cb = {};
    video.video_frame_drop_cb = config.video_frame_drop_cb;
    video.video_frame_flip_cb = config.video_frame_flip_cb;
    video.event_cb = config.event_cb;
    video.last_flip_time_ms = 0;
    video.fixed_delay = 0;
    video.last_system_time = 0;
    video.last_frame_pts = 0;
    video.frame_serial = 0;
    video.last_frame_serial = 0;
    video.notify_audio_reset_cb = config.notify_audio_reset_cb;
    video.ai_read_continued_cb = config.ai_read_continued_cb;
    video.sync_changing = false;
    video.sync_stopped = false;
}

void read_switches(video_info_t& video)
{
    video.enable_log = env_get_value("debug_hdmiplayer_log_v_api", 0) != 0;
    video.en_fps_log = env_get_value("debug_hdmiplayer_log_video_render_fps", 0) != 0;
    video.disable_avsync = env_get_value("debug_hdmiplayer_disable_avsync", 0) != 0;
    video.wait_audio = env_get_value("debug_hdmiplayer_video_wait_audio", 1) != 0;
}

constexpr const char* kInit = "video_init";

bool check_step(bool done, const char* step)
{
    if (!done)
        log_as(kInit, LOG_LEVEL_E, "%s failed\n", step);
    return done;
}

bool set_drm_info(void* handle, const hdmi_player_drm_info_t& drm)
{
    if (drm.fd < 1 || !(drm.panel_refresh_rate > 0))
        log_as(kInit, LOG_LEVEL_E, "invalid drm_info fd:%d vrefresh:%f\n", drm.fd,
               static_cast<double>(drm.panel_refresh_rate));
    return synchronizer_set_drm_info(handle, {drm.fd, drm.panel_refresh_rate});
}

bool start_synchronizer(video_info_t& video, const hdmi_player_drm_info_t& drm)
{
    void* handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    video.synchronizer_handle = handle;
    video.synchronizer_cb = {sync_get_frame_count_cb, sync_peek_frame_cb, sync_get_frame_cb, sync_drop_frame_cb,
                             sync_flip_frame_cb};
    return check_step(handle != nullptr, "synchronizer_init") &&
           check_step(synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER), "synchronizer_set_sync_mode") &&
           check_step(synchronizer_enable_low_latency_mode(handle, true), "synchronizer_enable_low_latency_mode") &&
           check_step(synchronizer_set_sync_state(handle, E_SYNC_STATE_START), "synchronizer_set_sync_state") &&
           check_step(synchronizer_set_callback(handle, &video, &video.synchronizer_cb), "synchronizer_set_callback") &&
           check_step(set_drm_info(handle, drm), "synchronizer_set_drm_info") &&
           check_step(synchronizer_start(handle), "synchronizer_start") &&
           check_step(synchronizer_resync(handle), "synchronizer_resync");
}

bool set_up(video_info_t& video, const video_config_t& config)
{
    reset_record(video, config);
    read_switches(video);
    if (video_frame_queue_init(&video.frame_queue, config.video_frame_queue_size) != 0)
        return false;
    log_as(kInit, LOG_LEVEL_I, "video_frame_queue_size:%d\n", config.video_frame_queue_size);
    if (!start_synchronizer(video, config.drm_info))
        return false;
    video.avsync_reset = true; // at the first frame
    video.initialized = true;
    return true;
}

// The one teardown, of a failed init and of deinit.
void tear_down(video_info_t& video, const char* function = __builtin_FUNCTION())
{
    if (video.synchronizer_handle != nullptr && !synchronizer_deinit(video.synchronizer_handle))
        log_as(function, LOG_LEVEL_E, "synchronizer_deinit failed\n");
    video_frame_queue_deinit(&video.frame_queue);
    reset_record(video, {});
}

} // namespace

bool video_in_callback(void) { return t_entry != entry::none; }

int32_t video_init(video_config_t config)
{
    log_i(">>>\n");
    if (!callbacks_complete(config)) {
        log_e("invalid callback function\n");
        return -1;
    }
    // Before the lock: a writer that waits turns renders away, and in a callback it would wait for itself.
    if (g_video_info.initialized || video_in_callback()) {
        log_w("module has been initialized\n");
        return -1;
    }
    write_guard api(g_video_info.api_rwlock);
    // A deinit in progress still owns its synchronizer.
    if (g_video_info.initialized || g_video_info.synchronizer_handle != nullptr) {
        log_w("module has been initialized\n");
        return -1;
    }
    const bool running = set_up(g_video_info, config);
    if (!running)
        tear_down(g_video_info);
    api.unlock();
    log_i("<<<\n");
    return running ? 0 : -1;
}

int32_t video_deinit(void)
{
    log_i(">>>\n");
    if (video_in_callback()) { // it would wait for itself
        log_e("called inside a callback\n");
        return -1;
    }
    if (!g_video_info.initialized.exchange(false)) {
        log_w("module not initialized\n");
        return -1;
    }
    {
        const write_guard calls_in_progress_end(g_video_info.api_rwlock);
    }
    // Without the lock: the thread to be joined may be in a callback whose host calls into the module.
    if (!synchronizer_stop(g_video_info.synchronizer_handle))
        log_e("synchronizer_stop failed\n");
    {
        const write_guard api(g_video_info.api_rwlock);
        tear_down(g_video_info);
    }
    log_i("<<<\n");
    return 0;
}

// --- Rendering --------------------------------------------------------------------

namespace
{

constexpr const char* kRender = "video_render";

int64_t since_last_render(video_info_t& video, int64_t now) REQUIRES(video.internal_mutex)
{
    if (video.last_system_time < 1)
        video.last_system_time = now;
    return now - video.last_system_time;
}

// Returns how long after the frame before it this one came.
int64_t note_arrival(video_info_t& video, int64_t now)
{
    const mutex_guard guard(video.internal_mutex);
    const int64_t diff = since_last_render(video, now);
    if (diff > kMaxRenderGapUs)
        video.avsync_reset = true;
    return diff;
}

void set_avsync(video_info_t& video, bool reset, bool disable_avsync) REQUIRES(video.internal_mutex)
{
    constexpr const char* kReset = "video_avsync_reset";
    const call_trace trace(LOG_LEVEL_D, video.enable_log, kReset);
    video.avsync_reset = reset;
    video.disable_avsync = disable_avsync;
    // An unfinished reset ends: the sound that it waits for may never be played, as where it goes past the player.
    if (disable_avsync)
        video.resetting = false;
    log_as(kReset, LOG_LEVEL_I, "reset:%d avsync:%d\n", reset, !disable_avsync);
}

// Decides, and brings the record up to date. @p serial is the one that the decision saw.
render_step take_step(video_info_t& video, int64_t now, int32_t& serial)
{
    const mutex_guard guard(video.internal_mutex);
    serial = video.frame_serial;
    // Stopped without a reset in progress: free run has cut one short.
    const bool reset_wanted = queue_full(video.frame_queue) || video.avsync_reset || video.sync_stopped;
    const render_step step = next_step({serial, video.last_frame_serial, video.resetting, reset_wanted,
                                        video.wait_audio, video.sync_changing, t_entry == entry::pacing});
    switch (step) {
    case render_step::queue: break;
    case render_step::queue_new_serial:
        video.last_frame_serial = serial;
        log_as(kRender, LOG_LEVEL_W, "frame_serial:%d abnormal changed!\n", serial);
        break;
    case render_step::show:
        video.last_frame_pts = 0;
        video.last_system_time = 0;
        break;
    case render_step::begin_reset:
        video.last_system_time = now;
        video.resetting = true;
        video.last_frame_pts = -kUsPerMs * video.fixed_delay;
        video.sync_changing = true;
        video.sync_stopped = true;
        set_avsync(video, false, video.disable_avsync);
        break;
    case render_step::end_reset:
        video.last_frame_serial = serial;
        video.resetting = false;
        video.sync_changing = true;
        video.sync_stopped = false;
        break;
    }
    return step;
}

void sync_changed(video_info_t& video)
{
    const mutex_guard guard(video.internal_mutex);
    video.sync_changing = false;
}

// Frames that wait are older and go first. This one waits behind them meanwhile, so that what the host renders inside
// their flips comes after it.
int32_t show(video_info_t& video, const hdmi_player_video_frame_t& frame, int64_t now, int64_t diff, const char* state)
{
    video_frame_queue_t& q = video.frame_queue;
    const turn_guard turn(video);
    hdmi_player_video_frame_t oldest = frame;
    // Counted once: other threads may add frames all the time.
    int32_t left = swap_oldest(q, oldest) ? q.frames_count.load() : 0;
    hand_back(video.video_frame_flip_cb, oldest);
    for (; left > 0 && q.frames_count > 0; --left) {
        if (video_frame_queue_get_frame(&q, &oldest) == 0)
            hand_back(video.video_frame_flip_cb, oldest);
    }
    log_as(kRender, LOG_LEVEL_D, "%sfree run sys_time:%lld diff_time:%lli\n", state, lli(now), lli(diff));
    return 0;
}

void drop_oldest(video_info_t& video)
{
    if (video.frame_queue.frames_count < 1)
        return;
    hdmi_player_video_frame_t oldest = {};
    if (video_frame_queue_get_frame(&video.frame_queue, &oldest) == 0)
        hand_back(video.video_frame_drop_cb, oldest);
    else
        log_as(kRender, LOG_LEVEL_E, "video_frame_queue_get_frame failed\n");
}

int32_t begin_reset(video_info_t& video, hdmi_player_video_frame_t* frame)
{
    drop_oldest(video);
    synchronizer_stop(video.synchronizer_handle);
    video.event_cb(E_HDMI_PLAYER_EVENT_AVSYNC_RESET);
    video.notify_audio_reset_cb();
    if (video.wait_audio) {
        frame->pts = 0;
        if (video_frame_queue_push_frame(frame) != 0) {
            log_as(kRender, LOG_LEVEL_W, "video_frame_queue_push_frame failed\n");
            // Other renders filled the queue. The event says that the frame was taken, so it has to come back.
            hand_back(video.video_frame_drop_cb, *frame);
        }
    }
    log_as(kRender, LOG_LEVEL_I, "[avsync_reset] start!\n");
    sync_changed(video);
    return -1;
}

// The pacing starts without a history: by the old time line the first frames would be late and dropped.
void end_reset(video_info_t& video, int32_t serial)
{
    synchronizer_resync(video.synchronizer_handle);
    synchronizer_start(video.synchronizer_handle);
    log_as(kRender, LOG_LEVEL_I, "[avsync_reset] done, frame_serial:%d\n", serial);
    sync_changed(video);
}

// The video goes on while audio is awaited.
void force_flip(video_info_t& video)
{
    const turn_guard turn(video);
    const int32_t count = video.frame_queue.frames_count;
    synchronizer_frame_info_t oldest = {};
    if (queue_full(video.frame_queue) && // another render may have made room meanwhile
        sync_get_frame_cb(&video, &oldest) && sync_flip_frame_cb(&video, &oldest))
        log_as(kRender, LOG_LEVEL_I, "[resetting] frame_queue count:%d full, force flip ahead frame pts:%lld\n", count,
               lli(oldest.pts));
}

// The host's time stamp is not used: video time is when frames arrive.
int32_t queue_frame(video_info_t& video, hdmi_player_video_frame_t* frame, int64_t now)
{
    mutex_guard guard(video.internal_mutex);
    // Anew, because another render may have stamped its own frame meanwhile.
    const int64_t diff = since_last_render(video, now);
    video.last_system_time = now;
    video.last_frame_pts += diff;
    frame->pts = video.last_frame_pts;
    log_as(kRender, LOG_LEVEL_D, "video frame serial:%d pts:%lld diff_time:%lli\n", video.last_frame_serial,
           lli(frame->pts), lli(diff));
    const int32_t result = video_frame_queue_push_frame(frame);
    const bool resetting = video.resetting;
    guard.unlock();

    log_as(kRender, LOG_LEVEL_D, "frame queue count:%d\n", video.frame_queue.frames_count.load());
    if (result != 0)
        log_as(kRender, LOG_LEVEL_W, "video_frame_queue_push_frame failed\n");
    if (resetting && queue_full(video.frame_queue))
        force_flip(video);
    if (!resetting && result == 0)
        synchronizer_notify_frame_done(video.synchronizer_handle);
    return result;
}

int32_t render(video_info_t& video, hdmi_player_video_frame_t* frame)
{
    const entry_scope scope(entry::render);
    const int64_t now = static_cast<int64_t>(get_system_time_us());
    const int64_t diff = note_arrival(video, now);
    if (video.disable_avsync || !video.ai_read_continued_cb())
        return show(video, *frame, now, diff, "");
    int32_t serial = 0;
    switch (take_step(video, now, serial)) {
    case render_step::show: return show(video, *frame, now, diff, "[resetting] ");
    case render_step::begin_reset: return begin_reset(video, frame);
    case render_step::end_reset: end_reset(video, serial); break;
    case render_step::queue:
    case render_step::queue_new_serial: break;
    }
    return queue_frame(video, frame, now);
}

bool is_open() { return g_video_info.initialized; }

} // namespace

int32_t video_render(hdmi_player_video_frame_t* frame)
{
    const entry_guard api(g_video_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_D, g_video_info.enable_log);
    if (missing(frame, "frame is null"))
        return -1;
    return render(g_video_info, frame);
}

// --- Setters ----------------------------------------------------------------------

int32_t video_set_base_media_time(int64_t media_time, int64_t max_media_time, int32_t frame_serial)
{
    const entry_guard api(g_video_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_D, g_video_info.enable_log);
    if (missing(g_video_info.synchronizer_handle, "synchronizer_handle is null"))
        return -1;
    if (!synchronizer_set_base_media_time(g_video_info.synchronizer_handle, media_time, max_media_time)) {
        log_e("synchronizer_set_base_media_time failed\n");
        return -1;
    }
    const mutex_guard guard(g_video_info.internal_mutex);
    g_video_info.frame_serial = frame_serial;
    return 0;
}

int32_t video_avsync_reset(bool reset, bool disable_avsync)
{
    const entry_guard api(g_video_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return -1;
    const mutex_guard guard(g_video_info.internal_mutex);
    set_avsync(g_video_info, reset, disable_avsync);
    return 0;
}

bool video_is_disable_avsync(void)
{
    const entry_guard api(g_video_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return false;
    const call_trace trace(LOG_LEVEL_D, g_video_info.enable_log);
    return g_video_info.disable_avsync;
}

int32_t video_set_fixed_delay(int32_t delay)
{
    const entry_guard api(g_video_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_D, g_video_info.enable_log);
    g_video_info.fixed_delay = delay;
    log_w("setting video delay:%d\n", delay);
    return 0;
}
