// SPDX-License-Identifier: MIT
/**
 * @file
 * The video side: frame queue, time stamps, free run and A/V sync reset.
 */
#include "internal/video.h"

#include <new>

#include "internal/common.h"

video_info_t g_video_info;

namespace
{

/// A gap between two renders that restarts A/V sync.
constexpr int64_t kMaxRenderGapUs = 1000000;
constexpr int64_t kUsPerMs = 1000;

// What the calling thread is inside of: renders, and host callbacks that it
// makes as the synchronizer's thread.
thread_local int t_renders = 0;
thread_local int t_sync_callbacks = 0;

class nesting
{
public:
    explicit nesting(int& depth) : depth_(depth) { ++depth_; }
    ~nesting() { --depth_; }
    nesting(const nesting&) = delete;
    nesting& operator=(const nesting&) = delete;

private:
    int& depth_;
};

/// Logs entry and exit of a function while its module's switch is on.
class call_trace
{
public:
    call_trace(bool enabled, const char* function) : enabled_(enabled), function_(function) { print(">>>"); }
    ~call_trace() { print("<<<"); }
    call_trace(const call_trace&) = delete;
    call_trace& operator=(const call_trace&) = delete;

private:
    void print(const char* mark) const
    {
        if (enabled_)
            log_as(function_, LOG_LEVEL_D, "%s\n", mark);
    }

    bool enabled_;
    const char* function_;
};

#define trace_call(enabled) const call_trace trace(enabled, __func__)

bool check_initialized(const char* function)
{
    if (g_video_info.initialized)
        return true;
    log_as(function, LOG_LEVEL_V, "module not initialized\n");
    return false;
}

#define module_is_initialized() check_initialized(__func__)

// ---------------------------------------------------------------------------
// Frame queue
// ---------------------------------------------------------------------------

void log_fill_state(const video_frame_queue_t& q, const video_frame_info_t& slot, const char* function)
    REQUIRES(q.mutex)
{
    if (!q.en_state_log)
        return;
    log_as(function, LOG_LEVEL_I, "frames free:%d done:%d, buf:%p pts:%lli used:%d\n", q.free_frames_count,
           q.frames_count.load(), slot.frame.buf_handle, static_cast<long long>(slot.frame.pts), slot.used);
}

/// The oldest slot in use, or null with the reason logged.
video_frame_info_t* oldest_slot(video_frame_queue_t& q, const char* function) REQUIRES(q.mutex)
{
    const int32_t count = q.frames_count;
    if (count < 1) {
        log_as(function, LOG_LEVEL_W, "frames_count(%d) < 0\n", count);
        return nullptr;
    }
    if (list_empty(&q.list_frames)) {
        log_as(function, LOG_LEVEL_E, "list_frames empty, but list size is %d.\n", count);
        log_as(function, LOG_LEVEL_E, "get frame failed\n");
        return nullptr;
    }
    video_frame_info_t* slot = list_entry(q.list_frames.next, video_frame_info_t, node);
    if (!slot->used)
        log_as(function, LOG_LEVEL_E, "the frame state is free\n");
    return slot;
}

video_frame_info_t* first_free_slot(video_frame_queue_t& q) REQUIRES(q.mutex)
{
    for (int32_t i = 0; i < q.pool_frames_count; ++i) {
        if (!q.arry_pool_frames[i].used)
            return &q.arry_pool_frames[i];
    }
    return nullptr;
}

void unlink_slot(video_frame_queue_t& q, video_frame_info_t& slot) REQUIRES(q.mutex)
{
    list_del(&slot.node);
    if (q.frames_count > 0)
        --q.frames_count;
    ++q.free_frames_count;
}

void clear_slot(video_frame_info_t& slot)
{
    slot.used = false;
    slot.frame = {};
}

bool queue_full(const video_frame_queue_t& q) { return q.frames_count >= q.pool_frames_count; }

} // namespace

int32_t video_frame_queue_init(video_frame_queue_t* q, int32_t size) NO_THREAD_SAFETY_ANALYSIS
{
    if (q == nullptr) {
        log_e("video_frame_queue is null.\n");
        return -1;
    }
    q->arry_pool_frames = size > 0 ? new (std::nothrow) video_frame_info_t[static_cast<size_t>(size)]() : nullptr;
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
    q->mutex.init();
    pthread_cond_init(&q->cond, nullptr);
    pthread_cond_init(&q->cond_acquire, nullptr);
    return 0;
}

int32_t video_frame_queue_pool_release(video_frame_queue_t* q)
{
    if (q == nullptr) {
        log_e("video_frame_queue is null.\n");
        return -1;
    }
    trace_call(q->en_api_log);
    const mutex_guard guard(q->mutex);
    if (q->arry_pool_frames == nullptr)
        return 0;
    while (!list_empty(&q->list_frames)) {
        video_frame_info_t* slot = list_entry(q->list_frames.next, video_frame_info_t, node);
        unlink_slot(*q, *slot);
        clear_slot(*slot);
    }
    delete[] q->arry_pool_frames;
    q->arry_pool_frames = nullptr;
    q->frames_count = 0;
    q->free_frames_count = 0;
    q->pool_frames_count = 0;
    return 0;
}

int32_t video_frame_queue_deinit(video_frame_queue_t* q) NO_THREAD_SAFETY_ANALYSIS
{
    if (q == nullptr) {
        log_e("video_frame_queue is null.\n");
        return -1;
    }
    trace_call(q->en_api_log);
    if (q->list_frames.next == nullptr) // never initialised
        return 0;
    video_frame_queue_pool_release(q);
    pthread_cond_destroy(&q->cond_acquire);
    pthread_cond_destroy(&q->cond);
    q->mutex.destroy();
    q->list_frames = {};
    return 0;
}

int32_t video_frame_queue_push_frame(hdmi_player_video_frame_t* frame)
{
    video_frame_queue_t& q = g_video_info.frame_queue;
    trace_call(q.en_api_log);
    if (frame == nullptr) {
        log_e("frame is null.\n");
        return -1;
    }
    const mutex_guard guard(q.mutex);
    if (q.free_frames_count < 1) {
        log_w("free_frames_count(%d) <= 0\n", q.free_frames_count);
        return -1;
    }
    video_frame_info_t* slot = first_free_slot(q);
    if (slot == nullptr) {
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
    if (q == nullptr) {
        log_e("video_frame_queue is null.\n");
        return -1;
    }
    trace_call(q->en_api_log);
    if (frame == nullptr) {
        log_e("frame is null.\n");
        return -1;
    }
    const mutex_guard guard(q->mutex);
    video_frame_info_t* slot = oldest_slot(*q, __func__);
    if (slot == nullptr)
        return -1;
    unlink_slot(*q, *slot);
    log_fill_state(*q, *slot, __func__);
    *frame = slot->frame;
    clear_slot(*slot);
    return 0;
}

int32_t video_frame_queue_peek_frame(video_frame_queue_t* q, hdmi_player_video_frame_t* frame)
{
    if (q == nullptr) {
        log_e("video_frame_queue is null.\n");
        return -1;
    }
    trace_call(q->en_api_log);
    if (frame == nullptr) {
        log_e("frame is null.\n");
        return -1;
    }
    const mutex_guard guard(q->mutex);
    const video_frame_info_t* slot = oldest_slot(*q, __func__);
    if (slot == nullptr)
        return -1;
    log_fill_state(*q, *slot, __func__);
    *frame = slot->frame;
    return 0;
}

// ---------------------------------------------------------------------------
// What the synchronizer sees of the queue
// ---------------------------------------------------------------------------

namespace
{

using host_frame_cb_t = void (*)(hdmi_player_video_frame_t);

bool check_arguments(const void* handle, const void* frame, const char* function)
{
    if (handle == nullptr) {
        log_as(function, LOG_LEVEL_E, "handle is null\n");
        return false;
    }
    if (frame == nullptr) {
        log_as(function, LOG_LEVEL_E, "frame is null\n");
        return false;
    }
    return true;
}

void store_frame(const hdmi_player_video_frame_t& frame, synchronizer_frame_info_t& info, const char* function)
{
    info.buf_handle = frame.buf_handle;
    info.pts = static_cast<uint64_t>(frame.pts);
    log_as(function, LOG_LEVEL_D, "video frame pts:%lld\n", static_cast<long long>(frame.pts));
}

// A render, too, flips through the callbacks; on any other thread than a
// rendering one it is the synchronizer that hands a frame back.
void hand_back(host_frame_cb_t host_cb, const synchronizer_frame_info_t& info)
{
    if (host_cb == nullptr)
        return;
    const hdmi_player_video_frame_t frame = {info.buf_handle, static_cast<int64_t>(info.pts)};
    if (t_renders > 0) {
        host_cb(frame);
        return;
    }
    const nesting inside(t_sync_callbacks);
    host_cb(frame);
}

// Measures from one flip to the next, whoever flips.
void note_flip(video_info_t& video, const char* function)
{
    const int64_t now_ms = static_cast<int64_t>(get_system_time_us()) / kUsPerMs;
    if (video.last_flip_time_ms < 1)
        video.last_flip_time_ms = now_ms;
    log_as(function, LOG_LEVEL_D, "diff last:%lli\n", static_cast<long long>(now_ms - video.last_flip_time_ms));
    video.last_flip_time_ms = now_ms;
}

} // namespace

bool sync_get_frame_count_cb(void* handle, int32_t* count)
{
    if (handle == nullptr) {
        log_e("handle is null\n");
        return false;
    }
    if (count == nullptr) {
        log_e("count is null\n");
        return false;
    }
    const int32_t frames = static_cast<video_info_t*>(handle)->frame_queue.frames_count;
    if (frames < 0)
        return false;
    *count = frames;
    return true;
}

bool sync_peek_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (!check_arguments(handle, info, __func__))
        return false;
    hdmi_player_video_frame_t frame = {};
    if (video_frame_queue_peek_frame(&static_cast<video_info_t*>(handle)->frame_queue, &frame) != 0) {
        log_e("video_frame_queue_peek_frame failed\n");
        return false;
    }
    store_frame(frame, *info, __func__);
    return true;
}

bool sync_get_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (!check_arguments(handle, info, __func__))
        return false;
    hdmi_player_video_frame_t frame = {};
    if (video_frame_queue_get_frame(&static_cast<video_info_t*>(handle)->frame_queue, &frame) != 0) {
        log_e("video_frame_queue_get_frame failed\n");
        return false;
    }
    store_frame(frame, *info, __func__);
    return true;
}

bool sync_drop_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (!check_arguments(handle, info, __func__))
        return false;
    hand_back(static_cast<video_info_t*>(handle)->video_frame_drop_cb, *info);
    log_d("buf_handle:%p pts:%lli\n", info->buf_handle, static_cast<long long>(info->pts));
    return true;
}

bool sync_flip_frame_cb(void* handle, synchronizer_frame_info_t* info)
{
    if (!check_arguments(handle, info, __func__))
        return false;
    video_info_t& video = *static_cast<video_info_t*>(handle);
    hand_back(video.video_frame_flip_cb, *info);
    if (video.en_fps_log)
        note_flip(video, __func__);
    return true;
}

// ---------------------------------------------------------------------------
// Life of the module
// ---------------------------------------------------------------------------

namespace
{

// Everything but the locks, of which the caller holds one.
void clear_record(video_info_t& video) NO_THREAD_SAFETY_ANALYSIS
{
    video.initialized = false;
    video.disable_avsync = false;
    video.avsync_reset = false;
    video.enable_log = false;
    video.en_fps_log = false;
    video.resetting = false;
    video.wait_audio = false;
    video.synchronizer_handle = nullptr;
    video.synchronizer_cb = {};
    video.video_frame_drop_cb = nullptr;
    video.video_frame_flip_cb = nullptr;
    video.event_cb = nullptr;
    video.last_flip_time_ms = 0;
    video.fixed_delay = 0;
    video.last_system_time = 0;
    video.last_frame_pts = 0;
    video.frame_serial = 0;
    video.last_frame_serial = 0;
    video.notify_audio_reset_cb = nullptr;
    video.ai_read_continued_cb = nullptr;
    video.sync_changing = false;
}

void fill_record(video_info_t& video, const video_config_t& config)
{
    video.video_frame_drop_cb = config.video_frame_drop_cb;
    video.video_frame_flip_cb = config.video_frame_flip_cb;
    video.event_cb = config.event_cb;
    video.notify_audio_reset_cb = config.notify_audio_reset_cb;
    video.ai_read_continued_cb = config.ai_read_continued_cb;
    video.synchronizer_cb = {sync_get_frame_count_cb, sync_peek_frame_cb, sync_get_frame_cb, sync_drop_frame_cb,
                             sync_flip_frame_cb};
    video.enable_log = env_get_value("debug_hdmiplayer_log_v_api", 0) != 0;
    video.en_fps_log = env_get_value("debug_hdmiplayer_log_video_render_fps", 0) != 0;
    video.disable_avsync = env_get_value("debug_hdmiplayer_disable_avsync", 0) != 0;
    video.wait_audio = env_get_value("debug_hdmiplayer_video_wait_audio", 1) != 0;
}

bool check_step(bool done, const char* step)
{
    if (!done)
        log_as("video_init", LOG_LEVEL_E, "%s failed\n", step);
    return done;
}

bool set_drm_info(void* handle, const hdmi_player_drm_info_t& drm)
{
    if (drm.fd < 1 || !(drm.panel_refresh_rate > 0))
        log_as("video_init", LOG_LEVEL_E, "invalid drm_info fd:%d vrefresh:%f\n", drm.fd,
               static_cast<double>(drm.panel_refresh_rate));
    return synchronizer_set_drm_info(handle, {drm.fd, drm.panel_refresh_rate});
}

bool start_synchronizer(video_info_t& video, const hdmi_player_drm_info_t& drm)
{
    void* handle = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    video.synchronizer_handle = handle;
    return check_step(handle != nullptr, "synchronizer_init") &&
           check_step(synchronizer_set_sync_mode(handle, E_SYNC_MODE_AUDIO_MASTER), "synchronizer_set_sync_mode") &&
           check_step(synchronizer_enable_low_latency_mode(handle, true), "synchronizer_enable_low_latency_mode") &&
           check_step(synchronizer_set_sync_state(handle, E_SYNC_STATE_START), "synchronizer_set_sync_state") &&
           check_step(synchronizer_set_callback(handle, &video, &video.synchronizer_cb), "synchronizer_set_callback") &&
           check_step(set_drm_info(handle, drm), "synchronizer_set_drm_info") &&
           check_step(synchronizer_start(handle), "synchronizer_start") &&
           check_step(synchronizer_resync(handle), "synchronizer_resync");
}

// Ends the threads. Without the write lock: the thread to be joined may be in
// a callback whose host calls into the module.
void stop_synchronizer(video_info_t& video, const char* function)
{
    if (video.synchronizer_handle != nullptr && !synchronizer_stop(video.synchronizer_handle))
        log_as(function, LOG_LEVEL_E, "synchronizer_stop failed\n");
}

// The one teardown, of a failed init and of deinit, after the threads ended.
void tear_down(video_info_t& video, const char* function) NO_THREAD_SAFETY_ANALYSIS
{
    if (video.synchronizer_handle != nullptr && !synchronizer_deinit(video.synchronizer_handle))
        log_as(function, LOG_LEVEL_E, "synchronizer_deinit failed\n");
    video_frame_queue_deinit(&video.frame_queue);
    video.internal_mutex.destroy();
    clear_record(video);
}

bool callbacks_complete(const video_config_t& config)
{
    return config.video_frame_drop_cb != nullptr && config.video_frame_flip_cb != nullptr &&
           config.event_cb != nullptr && config.notify_audio_reset_cb != nullptr &&
           config.ai_read_continued_cb != nullptr;
}

bool set_up(video_info_t& video, const video_config_t& config)
{
    clear_record(video);
    video.internal_mutex.init();
    fill_record(video, config);
    if (video_frame_queue_init(&video.frame_queue, config.video_frame_queue_size) != 0)
        return false;
    log_as("video_init", LOG_LEVEL_I, "video_frame_queue_size:%d\n", config.video_frame_queue_size);
    return start_synchronizer(video, config.drm_info);
}

int32_t init_locked(video_info_t& video, const video_config_t& config) REQUIRES(video.api_rwlock)
{
    // A deinit in progress still owns its synchronizer.
    if (video.initialized || video.synchronizer_handle != nullptr) {
        log_as("video_init", LOG_LEVEL_W, "module has been initialized\n");
        return -1;
    }
    if (!set_up(video, config)) {
        stop_synchronizer(video, "video_init");
        tear_down(video, "video_init");
        return -1;
    }
    video.avsync_reset = true;
    video.initialized = true;
    return 0;
}

} // namespace

int32_t video_init(video_config_t config)
{
    log_i(">>>\n");
    if (!callbacks_complete(config)) {
        log_e("invalid callback function\n");
        return -1;
    }
    int32_t result = -1;
    {
        const write_guard api(g_video_info.api_rwlock);
        result = init_locked(g_video_info, config);
    }
    log_i("<<<\n");
    return result;
}

int32_t video_deinit(void)
{
    log_i(">>>\n");
    if (t_renders > 0 || t_sync_callbacks > 0) {
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
    stop_synchronizer(g_video_info, __func__);
    {
        const write_guard api(g_video_info.api_rwlock);
        tear_down(g_video_info, __func__);
    }
    log_i("<<<\n");
    return 0;
}

// ---------------------------------------------------------------------------
// Rendering
// ---------------------------------------------------------------------------

namespace
{

constexpr const char* kRender = "video_render";

/// What becomes of a frame.
enum class render_step {
    queue,       ///< stamp it and queue it
    show,        ///< flip it at once, out of a reset that does not wait for audio
    begin_reset, ///< it is the first of an A/V sync reset
    end_reset,   ///< audio runs again: restart the synchronizer, then queue it
};

/// When a frame came, and how long after the frame before.
struct arrival_t {
    int64_t now;  ///< us
    int64_t diff; ///< us
};

int64_t since_last_render(video_info_t& video, int64_t now) REQUIRES(video.render_mutex)
{
    if (video.last_system_time < 1)
        video.last_system_time = now;
    return now - video.last_system_time;
}

arrival_t note_arrival(video_info_t& video)
{
    const mutex_guard guard(video.render_mutex);
    const int64_t now = static_cast<int64_t>(get_system_time_us());
    const int64_t diff = since_last_render(video, now);
    if (diff > kMaxRenderGapUs)
        video.avsync_reset = true;
    return {now, diff};
}

void begin_reset_locked(video_info_t& video, int64_t now) REQUIRES(video.render_mutex)
{
    video.last_system_time = now;
    video.resetting = true;
    video.last_frame_pts = -kUsPerMs * video.fixed_delay;
    video.sync_changing = true;
}

render_step next_step(video_info_t& video, int64_t now)
{
    const mutex_guard guard(video.render_mutex);
    const render_step same_serial = video.resetting && !video.wait_audio ? render_step::show : render_step::queue;
    // Waiting for the other render would be a deadlock when it joins the
    // synchronizer's thread and that thread is the one that renders here.
    if (video.sync_changing)
        return same_serial;
    const int32_t serial = video.frame_serial;
    if (serial != video.last_frame_serial) {
        video.last_frame_serial = serial;
        if (!video.resetting) {
            log_as(kRender, LOG_LEVEL_W, "frame_serial:%d abnormal changed!\n", serial);
            return render_step::queue;
        }
        video.resetting = false;
        video.sync_changing = true;
        return render_step::end_reset;
    }
    const bool reset_wanted = !video.resetting && (queue_full(video.frame_queue) || video.avsync_reset);
    if (!reset_wanted || t_sync_callbacks > 0)
        return same_serial;
    begin_reset_locked(video, now);
    return render_step::begin_reset;
}

void sync_changed(video_info_t& video)
{
    const mutex_guard guard(video.render_mutex);
    video.sync_changing = false;
}

// Without @p disable_avsync the switch stays as it is: the change handler may
// be setting it at this moment.
void request_reset(video_info_t& video, bool reset, const bool* disable_avsync)
{
    bool disabled = false;
    {
        const mutex_guard guard(video.internal_mutex);
        video.avsync_reset = reset;
        if (disable_avsync != nullptr)
            video.disable_avsync = *disable_avsync;
        disabled = video.disable_avsync;
    }
    log_as("video_avsync_reset", LOG_LEVEL_I, "reset:%d avsync:%d\n", reset, !disabled);
}

void drop_oldest(video_info_t& video)
{
    if (video.frame_queue.frames_count < 1)
        return;
    hdmi_player_video_frame_t oldest = {};
    if (video_frame_queue_get_frame(&video.frame_queue, &oldest) != 0) {
        log_as(kRender, LOG_LEVEL_E, "video_frame_queue_get_frame failed\n");
        return;
    }
    video.video_frame_drop_cb(oldest);
}

void queue_first_of_reset(video_info_t& video, hdmi_player_video_frame_t* frame)
{
    frame->pts = 0;
    if (video_frame_queue_push_frame(frame) == 0)
        return;
    log_as(kRender, LOG_LEVEL_W, "video_frame_queue_push_frame failed\n");
    // Other renders filled the queue. The reset's event says that the frame
    // was taken, so it has to come back.
    video.video_frame_drop_cb(*frame);
}

int32_t begin_reset(video_info_t& video, hdmi_player_video_frame_t* frame)
{
    request_reset(video, false, nullptr);
    drop_oldest(video);
    synchronizer_stop(video.synchronizer_handle);
    video.event_cb(E_HDMI_PLAYER_EVENT_AVSYNC_RESET);
    video.notify_audio_reset_cb();
    if (video.wait_audio)
        queue_first_of_reset(video, frame);
    log_as(kRender, LOG_LEVEL_I, "[avsync_reset] start!\n");
    sync_changed(video);
    return -1;
}

void end_reset(video_info_t& video)
{
    synchronizer_start(video.synchronizer_handle);
    synchronizer_resync(video.synchronizer_handle);
    log_as(kRender, LOG_LEVEL_I, "[avsync_reset] done, frame_serial:%d\n", video.frame_serial.load());
    sync_changed(video);
}

int32_t show_in_free_run(video_info_t& video, const hdmi_player_video_frame_t& frame, const arrival_t& arrival)
{
    video.video_frame_flip_cb(frame);
    log_as(kRender, LOG_LEVEL_D, "free run sys_time:%lld diff_time:%lli\n", static_cast<long long>(arrival.now),
           static_cast<long long>(arrival.diff));
    return 0;
}

int32_t show_in_reset(video_info_t& video, const hdmi_player_video_frame_t& frame, const arrival_t& arrival)
{
    video.video_frame_flip_cb(frame);
    {
        const mutex_guard guard(video.render_mutex);
        video.last_frame_pts = 0;
        video.last_system_time = 0;
    }
    log_as(kRender, LOG_LEVEL_D, "[resetting] free run sys_time:%lld diff_time:%lli\n",
           static_cast<long long>(arrival.now), static_cast<long long>(arrival.diff));
    return 0;
}

// The host's time stamp is not used: video time is when frames arrive. The
// distance to the frame before is taken here once more, because another render
// may have stamped its own frame meanwhile.
void stamp(video_info_t& video, hdmi_player_video_frame_t& frame, int64_t now) REQUIRES(video.render_mutex)
{
    const int64_t diff = since_last_render(video, now);
    video.last_system_time = now;
    video.last_frame_pts += diff;
    frame.pts = video.last_frame_pts;
    log_as(kRender, LOG_LEVEL_D, "video frame serial:%d pts:%lld diff_time:%lli\n", video.last_frame_serial,
           static_cast<long long>(frame.pts), static_cast<long long>(diff));
}

// The picture goes on while audio is awaited.
void flip_oldest(video_info_t& video)
{
    const int32_t count = video.frame_queue.frames_count;
    synchronizer_frame_info_t oldest = {};
    if (!video.synchronizer_cb.get_frame(&video, &oldest))
        return;
    video.synchronizer_cb.flip_frame(&video, &oldest);
    log_as(kRender, LOG_LEVEL_I, "[resetting] frame_queue count:%d full, force flip ahead frame pts:%lld\n", count,
           static_cast<long long>(oldest.pts));
}

int32_t queue_frame(video_info_t& video, hdmi_player_video_frame_t* frame, int64_t now)
{
    int32_t result = -1;
    bool resetting = false;
    {
        const mutex_guard guard(video.render_mutex);
        stamp(video, *frame, now);
        result = video_frame_queue_push_frame(frame);
        resetting = video.resetting;
    }
    log_as(kRender, LOG_LEVEL_D, "frame queue count:%d\n", video.frame_queue.frames_count.load());
    if (result != 0)
        log_as(kRender, LOG_LEVEL_W, "video_frame_queue_push_frame failed\n");
    if (resetting) {
        if (queue_full(video.frame_queue))
            flip_oldest(video);
    } else if (result == 0) {
        synchronizer_notify_frame_done(video.synchronizer_handle);
    }
    return result;
}

int32_t render(video_info_t& video, hdmi_player_video_frame_t* frame) REQUIRES_SHARED(video.api_rwlock)
{
    const nesting inside(t_renders);
    const arrival_t arrival = note_arrival(video);
    if (video.disable_avsync || !video.ai_read_continued_cb())
        return show_in_free_run(video, *frame, arrival);
    switch (next_step(video, arrival.now)) {
    case render_step::begin_reset: return begin_reset(video, frame);
    case render_step::show: return show_in_reset(video, *frame, arrival);
    case render_step::end_reset: end_reset(video); break;
    case render_step::queue: break;
    }
    return queue_frame(video, frame, arrival.now);
}

} // namespace

int32_t video_render(hdmi_player_video_frame_t* frame)
{
    const read_guard api(g_video_info.api_rwlock);
    if (!module_is_initialized())
        return -1;
    trace_call(g_video_info.enable_log);
    if (frame == nullptr) {
        log_e("frame is null\n");
        return -1;
    }
    return render(g_video_info, frame);
}

// ---------------------------------------------------------------------------
// Setters
// ---------------------------------------------------------------------------

int32_t video_set_base_media_time(int64_t media_time, int64_t max_media_time, int32_t frame_serial)
{
    const read_guard api(g_video_info.api_rwlock);
    if (!module_is_initialized())
        return -1;
    trace_call(g_video_info.enable_log);
    if (g_video_info.synchronizer_handle == nullptr) {
        log_e("synchronizer_handle is null\n");
        return -1;
    }
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
    const read_guard api(g_video_info.api_rwlock);
    if (!module_is_initialized())
        return -1;
    trace_call(g_video_info.enable_log);
    request_reset(g_video_info, reset, &disable_avsync);
    return 0;
}

bool video_is_disable_avsync(void)
{
    const read_guard api(g_video_info.api_rwlock);
    if (!module_is_initialized())
        return false;
    trace_call(g_video_info.enable_log);
    return g_video_info.disable_avsync;
}

int32_t video_set_fixed_delay(int32_t delay)
{
    const read_guard api(g_video_info.api_rwlock);
    if (!module_is_initialized())
        return -1;
    trace_call(g_video_info.enable_log);
    g_video_info.fixed_delay = delay;
    log_w("setting video delay:%d\n", delay);
    return 0;
}
