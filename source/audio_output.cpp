// SPDX-License-Identifier: MIT
#include "internal/audio_output.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hdmi_cec.h"
#include "internal/audio_clock.h"
#include "internal/common.h"
#include "internal/frame_queue.h"

audio_output_info_t g_ao_info;

namespace
{

constexpr int32_t kOutQueueFrames = 128;
constexpr int kChannels = 2;
constexpr int kPeriodCount = 8;
constexpr int kWriterPriority = 99; ///< round robin: an underrun is heard, nothing else of the player is as urgent

constexpr int32_t kDefaultSampleRate = 48000; ///< Hz
constexpr int32_t kDefaultBufferSize = 8192;  ///< frames

/// A healthy device takes a block within the block's own duration, some 20 ms.
/// A write that lasts longer than this is stuck, and only a close ends it.
constexpr uint32_t kWriteGraceUs = 100000;
/// A call that only a healthy device can serve gives up after this, so that a
/// device that takes no sound does not hold its caller until the stop.
constexpr uint32_t kDevicePatienceUs = 2000000;

/// Each lets one such call run at a time. Taken before every other lock of the module.
mutex_t g_init_mutex;
mutex_t g_deinit_mutex;

int sample_rate_hz(hdmi_player_aio_sample_rate_e rate)
{
    switch (rate) {
    case E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K: return 16000;
    case E_HDMI_PLAYER_AIO_SAMPLE_RATE_32K: return 32000;
    case E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K: return 44100;
    default: return kDefaultSampleRate;
    }
}

// --- Turns at the device ------------------------------------------------------

// Waits until the writer is outside aio_device_write; false when it still is after @p limit_us.
// Callers that found a write in progress go before the next one: the writer comes back at
// once, and with real-time priority it would win that race for ever.
bool await_write_end(mutex_guard& lock, uint32_t limit_us) REQUIRES(g_ao_info.mutex)
{
    if (!g_ao_info.writing)
        return true;
    const struct timespec deadline = get_monotonic_timeout_us(limit_us);
    ++g_ao_info.waiting;
    while (g_ao_info.writing && lock.wait_until(g_ao_info.device_cond, deadline) == 0) {
    }
    --g_ao_info.waiting;
    pthread_cond_broadcast(&g_ao_info.device_cond);
    return !g_ao_info.writing;
}

bool device_open() { return g_ao_info.init_state == 0; }

// Runs @p call, which returns 0 or an error code, on the device between two writes;
// 0 without a call while the device is closed, -ETIMEDOUT while it is stuck in a write.
template <typename Call> int32_t on_open_device(Call call)
{
    mutex_guard lock(g_ao_info.mutex); // a device that is being reopened takes the call when it is open again
    if (!device_open())
        return 0;
    if (!await_write_end(lock, kDevicePatienceUs))
        return -ETIMEDOUT;
    return device_open() ? call(&g_ao_info.audio_cfg) : 0;
}

int open_device() REQUIRES(g_ao_info.mutex)
{
    const int result = aio_device_open(&g_ao_info.audio_cfg);
    g_ao_info.init_state = std::min(result, 0);
    return result;
}

// A device that failed to close counts as open.
int close_device() REQUIRES(g_ao_info.mutex)
{
    const int result = aio_device_close(&g_ao_info.audio_cfg);
    if (result >= 0)
        g_ao_info.init_state = -1;
    return result;
}

int32_t queued_frames() REQUIRES(g_ao_info.mutex)
{
    int frames = 0;
    if (aio_device_get_write_bytes(&g_ao_info.audio_cfg, &frames) < 0)
        return 0;
    return std::max(frames, 0);
}

// --- Device operation and selection -------------------------------------------

// A release does not wake a producer that waits in a full queue, and with all its frames
// gone the writer will not either: giving one frame back by hand does.
void discard_queued_frames()
{
    frame_info_t* oldest = frame_queue_done_dequeue(g_ao_info.frame_queue, 0);
    frame_queue_done_release(g_ao_info.frame_queue);
    if (oldest != nullptr)
        frame_queue_put(g_ao_info.frame_queue, &oldest->frame);
}

/// A selection as the device takes it.
struct device_path {
    int device_id = 0;
    int output_fmt = 0;
};

bool translate(hdmi_player_ao_dev_e dev, hdmi_player_ao_format_e format, device_path* path, const char* function)
{
    if (!trans_dev_player_to_alsa(dev, &path->device_id)) {
        log_as(function, LOG_LEVEL_W, "trans_dev_player_to_alsa failed.\n");
        return false;
    }
    if (!trans_format_player_to_alsa(format, &path->output_fmt)) {
        log_as(function, LOG_LEVEL_W, "trans_format_player_to_alsa failed.\n");
        return false;
    }
    return true;
}

// The stored selection was translated before it was stored: this does not fail.
device_path stored_path() REQUIRES(g_ao_info.mutex)
{
    device_path path;
    trans_dev_player_to_alsa(g_ao_info.dev, &path.device_id);
    trans_format_player_to_alsa(g_ao_info.format, &path.output_fmt);
    return path;
}

void set_path(const device_path& path) REQUIRES(g_ao_info.mutex)
{
    g_ao_info.audio_cfg.device_id = path.device_id;
    g_ao_info.audio_cfg.output_fmt = path.output_fmt;
}

// For a device that is closed.
bool reopen_device() REQUIRES(g_ao_info.mutex)
{
    set_path(stored_path());
    return open_device() >= 0;
}

// Carries out @p op if it is the pending operation. The writer runs the reopen, between its
// writes; a selection runs the close, which also ends a write that is stuck.
void audio_output_device_operation(audio_output_dev_op_e op)
{
    int32_t init_state = -1;
    {
        mutex_guard lock(g_ao_info.mutex);
        if (g_ao_info.dev_op == op)
            await_write_end(lock, kWriteGraceUs);
        if (g_ao_info.abort_request || g_ao_info.dev_op != op)
            return;
        if (device_open()) {
            if (close_device() < 0) {
                log_w("aio_device_close error!\n");
                return;
            }
            log_i("aio_device_close success\n");
        }
        if (op == AUDIO_OUTPUT_DEV_OP_REOPEN) {
            if (!reopen_device()) {
                log_w("aio_device_open error!\n");
                return;
            }
            log_i("aio_device_open success\n");
        }
        init_state = g_ao_info.init_state;
        g_ao_info.dev_op = AUDIO_OUTPUT_DEV_OP_NONE;
    }
    log_i("ao device operation:%d init_stateL%d\n", op, init_state);
    frame_queue_done_wakeup(g_ao_info.frame_queue);
    discard_queued_frames();
}

// Runs the change handler with the module's lock released, because the handler's own lock is taken before it.
// Returns whether the module is still initialised afterwards.
bool run_change_handler(entry_guard& api, bool* restarted) NO_THREAD_SAFETY_ANALYSIS
{
    const auto changed_cb = g_ao_info.changed_cb;
    api.unlock();
    changed_cb(false, restarted);
    api.lock();
    return static_cast<bool>(api);
}

bool reselect_device(const device_path& path) REQUIRES(g_ao_info.mutex)
{
    if (aio_device_reselect(&g_ao_info.audio_cfg, path.device_id, path.output_fmt) < 0)
        return false;
    set_path(path);
    return true;
}

// Selects @p wanted, a device or a format, in place of what @p stored holds; a selection that fails restores that.
template <typename Selection>
int32_t audio_output_select(entry_guard& api, std::atomic<Selection>& stored, Selection wanted)
    REQUIRES(g_ao_info.select_mutex)
{
    mutex_guard lock(g_ao_info.mutex);
    const Selection before = stored.exchange(wanted);
    lock.unlock();
    bool restarted = false;
    if (!run_change_handler(api, &restarted))
        return -1;
    audio_output_device_operation(AUDIO_OUTPUT_DEV_OP_CLOSE);

    lock.lock();
    const bool stuck = !restarted && device_open() && !await_write_end(lock, kDevicePatienceUs);
    if (restarted || !device_open())
        return 0;
    const device_path path = stored_path();
    if (!stuck && reselect_device(path))
        return 0;
    log_e("aio_device_reselect dev_id:%d output_fmt:%d failed!\n", path.device_id, path.output_fmt);
    stored = before;
    return -1;
}

// --- Writer -------------------------------------------------------------------

// Holds the first block of a serial back; a stop ends it. By the monotonic clock: a step of the
// wall clock would be heard as silence, or as sound that stays early.
void hold_first_block()
{
    const int32_t delay_ms = g_ao_info.fixed_delay;
    if (delay_ms <= 0)
        return;
    const struct timespec deadline = get_monotonic_timeout_us(static_cast<uint64_t>(delay_ms) * 1000);
    mutex_guard lock(g_ao_info.fixed_delay_mutex);
    while (!g_ao_info.abort_request && lock.wait_until(g_ao_info.fixed_delay_cond, deadline) == 0) {
    }
}

void end_hold()
{
    mutex_guard lock(g_ao_info.fixed_delay_mutex);
    pthread_cond_broadcast(&g_ao_info.fixed_delay_cond);
}

// Takes the device for a write: null when it was closed meanwhile, or is about to be.
// Tells in @p remaining, if not null, what is queued before that write.
audio_config_t* begin_write(int32_t* remaining)
{
    mutex_guard lock(g_ao_info.mutex);
    while (g_ao_info.waiting > 0)
        lock.wait(g_ao_info.device_cond);
    if (g_ao_info.abort_request || !device_open())
        return nullptr;
    if (remaining != nullptr)
        *remaining = queued_frames();
    g_ao_info.writing = true;
    return &g_ao_info.audio_cfg;
}

// Gives the device back and computes the clock from what it still has queued: nothing when
// it was closed under the write.
clock_values end_write(const hdmi_player_audio_frame_t& frame)
{
    mutex_guard lock(g_ao_info.mutex);
    g_ao_info.writing = false;
    pthread_cond_broadcast(&g_ao_info.device_cond);
    const int32_t remaining = device_open() ? queued_frames() : 0;
    const int frames = aio_device_bytes_to_frames(&g_ao_info.audio_cfg, frame.size);
    return clock_after_write(frame.pts, frames, remaining, g_ao_info.audio_cfg.sample_rate);
}

// Microseconds since the write before, for the log.
int64_t write_interval_us(int64_t* start_time)
{
    const int64_t now = static_cast<int64_t>(get_system_time_us());
    const int64_t interval = *start_time != 0 ? now - *start_time : 0;
    *start_time = now;
    return interval;
}

/// What the writer remembers from block to block.
struct writer_state {
    int32_t frame_serial = -1; ///< of the last block that met an open device
    int64_t start_time = 0;    ///< us: the write before, for the log
};

// Writes one block and computes the clock after it; false when the block was dropped because the device is closed.
bool write_block(const hdmi_player_audio_frame_t& frame, writer_state* state, clock_values* clock, const char* function)
{
    const bool new_serial = frame.serial != state->frame_serial;
    if (new_serial)
        audio_output_device_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    if (!device_open())
        return false;
    if (g_ao_info.interval_log) {
        const int64_t interval = write_interval_us(&state->start_time);
        log_as(function, LOG_LEVEL_I, "write interval:%lld us size:%d\n", lli(interval), frame.size);
    }
    if (new_serial) {
        log_as(function, LOG_LEVEL_I, "frame_serial:%d -> %d\n", state->frame_serial, frame.serial);
        state->frame_serial = frame.serial;
        hold_first_block();
    }
    int32_t remaining = 0;
    audio_config_t* const config = begin_write(frame.pts == 0 ? &remaining : nullptr);
    if (config == nullptr)
        return false;
    if (frame.pts == 0)
        log_as(function, LOG_LEVEL_I, "remain last sequence frames:%d time:%lld us\n", remaining,
               lli(frames_to_us(remaining, g_ao_info.target_sample_rate)));
    const int written = aio_device_write(config, frame.data, frame.size);
    if (written != frame.size)
        log_as(function, LOG_LEVEL_E, "alsa_pcm_write failed. write:%d written:%d\n", frame.size, written);
    *clock = end_write(frame);
    return true;
}

void* audio_output_write_thread(void* arg)
{
    auto* info = static_cast<audio_output_info_t*>(arg);
    if (info->enable_log)
        log_i(">>>\n");
    set_thread_name("audio_write");
    set_exact_timers();
    log_i("thread_id: %lli\n", lli(pthread_self()));
    writer_state state;
    while (!info->abort_request) {
        frame_info_t* record = frame_queue_done_dequeue(info->frame_queue, -1);
        if (record == nullptr)
            continue;
        const hdmi_player_audio_frame_t frame = record->frame;
        clock_values clock = {};
        const bool written = write_block(frame, &state, &clock, __func__);
        if (written)
            log_d("serial:%d pts:%lld time_us:%lld max_time_us:%lld write_duration_us:%lld cur_frame_duration:%lld\n",
                  frame.serial, lli(frame.pts), lli(clock.time_us), lli(clock.max_time_us),
                  lli(clock.write_duration_us), lli(clock.cur_frame_duration));
        frame_queue_put(info->frame_queue, &record->frame);
        if (written && info->update_avsync_clock_cb != nullptr)
            info->update_avsync_clock_cb(clock.time_us, clock.max_time_us, frame.serial);
    }
    log_i("exit\n");
    if (info->enable_log)
        log_i("<<<\n");
    return nullptr;
}

// --- Lifecycle ----------------------------------------------------------------

// Clears the record, all but its locks.
void reset_record(audio_output_info_t& info) REQUIRES(info.api_rwlock)
{
    info.initialized = false;
    info.enable_log = false;
    info.abort_request = false;
    info.mute_status = false;
    info.interval_log = false;
    info.target_sample_rate = 0;
    info.frame_queue = -1;
    info.init_state = -1;
    info.fixed_delay = 0;
    info.dev = E_HDMI_PLAYER_AO_DEV_AUTO;
    info.format = E_HDMI_PLAYER_AO_FORMAT_PCM;
    info.write_thread = 0;
    info.update_avsync_clock_cb = nullptr;
    info.changed_cb = nullptr;
    mutex_guard lock(info.mutex);
    info.write_continued = false;
    info.dev_op = AUDIO_OUTPUT_DEV_OP_NONE;
    info.audio_cfg = {};
    info.writing = false;
    info.waiting = 0;
}

// A close that failed is repeated. If this one fails too, the next init begins with it: an open device cannot be
// opened.
void give_up_device()
{
    mutex_guard lock(g_ao_info.mutex);
    if (device_open())
        g_ao_info.left_open = close_device() < 0;
}

// Undoes all of an init but the CEC link. The writer must have ended.
// Returns the result of the queue's deinit.
int32_t tear_down() REQUIRES(g_ao_info.api_rwlock)
{
    give_up_device();
    const int32_t result = g_ao_info.frame_queue >= 0 ? frame_queue_deinit(g_ao_info.frame_queue) : 0;
    reset_record(g_ao_info);
    return result;
}

void begin_record(const audio_output_config_t& cfg) REQUIRES(g_ao_info.api_rwlock)
{
    reset_record(g_ao_info);
    g_ao_info.enable_log = env_get_value("debug_hdmiplayer_log_ao_api", 0) != 0;
    g_ao_info.interval_log = env_get_value("debug_hdmiplayer_log_ao_interval", 0) != 0;
    g_ao_info.update_avsync_clock_cb = cfg.update_avsync_clock_cb;
    g_ao_info.changed_cb = cfg.changed_cb;
}

void configure(const audio_output_config_t& cfg, const device_path& path) REQUIRES(g_ao_info.mutex)
{
    g_ao_info.dev = cfg.dev;
    g_ao_info.format = cfg.format;
    set_path(path);
    audio_config_t& device = g_ao_info.audio_cfg;
    device.stream_type = E_AUDIO_STREAM_PLAYBACK;
    device.card_id = 0;
    device.game_mode = false;
    device.channels = kChannels;
    device.sample_rate = sample_rate_hz(cfg.sample_rate);
    device.period_frames = convert_sample_rate_to_frames(device.sample_rate);
    device.period_count = kPeriodCount;
    g_ao_info.target_sample_rate = device.sample_rate;
}

int set_initial_volume(const audio_output_config_t& cfg) REQUIRES(g_ao_info.mutex)
{
    if (cfg.hw_volume >= 0)
        return aio_device_set_volume_direct(&g_ao_info.audio_cfg, cfg.hw_volume);
    if (cfg.volume >= 0)
        return aio_device_set_volume(&g_ao_info.audio_cfg, cfg.volume);
    return 0;
}

int open_configured(const audio_output_config_t& cfg, const device_path& path)
{
    mutex_guard lock(g_ao_info.mutex);
    configure(cfg, path);
    if (g_ao_info.left_open)
        g_ao_info.left_open = close_device() < 0;
    return open_device();
}

bool set_volume_and_mute(const audio_output_config_t& cfg, const char* function)
{
    mutex_guard lock(g_ao_info.mutex);
    int err = set_initial_volume(cfg);
    if (err < 0) {
        log_as(function, LOG_LEVEL_E, "%s failed. err:%d\n",
               cfg.hw_volume >= 0 ? "aio_device_set_volume_direct" : "aio_device_set_volume", err);
        return false;
    }
    if ((err = aio_device_set_mute(&g_ao_info.audio_cfg, cfg.mute)) < 0) {
        log_as(function, LOG_LEVEL_E, "aio_device_set_mute failed. err:%d\n", err);
        return false;
    }
    g_ao_info.mute_status = cfg.mute;
    log_as(function, LOG_LEVEL_W, "mute state:%d\n", cfg.mute);
    return true;
}

// The return channel is prepared whatever the output is, so that a later selection finds it open.
void start_cec()
{
    hdmi_cec_config_t config = {};
    config.load_edid = false;
    vendor_hdmi_cec_init(&config);
    vendor_hdmi_cec_open_arc();
}

// The inherit-scheduler attribute stays at the C library's default. Where that is to inherit, the
// writer runs as the thread that opened the player does; demanded explicitly, real-time priority
// would make a host without the permission fail to open.
bool start_writer() REQUIRES(g_ao_info.api_rwlock)
{
    {
        // Set before the thread runs: it would overwrite a later audio_output_set_write_continued().
        mutex_guard lock(g_ao_info.mutex);
        g_ao_info.write_continued = true;
    }
    sched_param priority = {};
    priority.sched_priority = kWriterPriority;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    pthread_attr_setschedparam(&attr, &priority);
    const int err = pthread_create(&g_ao_info.write_thread, &attr, audio_output_write_thread, &g_ao_info);
    pthread_attr_destroy(&attr);
    if (err != 0)
        g_ao_info.write_thread = 0;
    return err == 0;
}

// Queue, return channel and writer, for a device that is open.
bool start_playing(const char* function) REQUIRES(g_ao_info.api_rwlock)
{
    g_ao_info.frame_queue = frame_queue_init(kOutQueueFrames, "OUT");
    if (g_ao_info.frame_queue < 0) {
        log_as(function, LOG_LEVEL_E, "frame_queue_init failed.\n");
        return false;
    }
    log_as(function, LOG_LEVEL_I, "frame_queue id:%d.\n", g_ao_info.frame_queue);
    start_cec();
    if (start_writer())
        return true;
    log_as(function, LOG_LEVEL_E, "create write_thread failed!\n");
    vendor_hdmi_cec_deinit();
    return false;
}

// The device is closed whether it was opened or not: a close too many is harmless.
int32_t abandon_init() REQUIRES(g_ao_info.api_rwlock)
{
    {
        mutex_guard lock(g_ao_info.mutex);
        if (close_device() >= 0)
            g_ao_info.left_open = false;
    }
    tear_down();
    return -1;
}

// Closes the device for good: at once when no write is in progress, after the grace period
// under one that is stuck. @p stuck: the close failed, so that it still is.
int stop_device(bool* stuck)
{
    mutex_guard lock(g_ao_info.mutex);
    await_write_end(lock, kWriteGraceUs);
    const int result = device_open() ? close_device() : 0;
    *stuck = result < 0 && g_ao_info.writing;
    return result;
}

} // namespace

int32_t audio_output_init(audio_output_config_t cfg)
{
    const call_trace trace(LOG_LEVEL_I);
    if (cfg.update_avsync_clock_cb == nullptr || cfg.changed_cb == nullptr) {
        log_e("invalid callback function\n");
        return -1;
    }
    const mutex_guard one_at_a_time(g_init_mutex);
    // Before the write_guard, which would wait for a producer that is blocked in the open module and would make it
    // refuse every call meanwhile.
    if (g_ao_info.initialized) {
        log_w("module has been initialized\n");
        return -1;
    }
    write_guard api(g_ao_info.api_rwlock);
    begin_record(cfg);
    device_path path;
    if (!translate(cfg.dev, cfg.format, &path, __func__))
        return abandon_init();
    const int err = open_configured(cfg, path);
    if (err < 0) {
        log_e("aio_device_open failed. err:%d\n", err);
        tear_down();
        return -1;
    }
    if (!set_volume_and_mute(cfg, __func__) || !start_playing(__func__))
        return abandon_init();
    g_ao_info.initialized = true;
    return 0;
}

int32_t audio_output_deinit(void)
{
    const call_trace trace(LOG_LEVEL_I);
    const mutex_guard one_at_a_time(g_deinit_mutex);
    if (!g_ao_info.initialized) {
        log_w("module not initialized\n");
        return -1;
    }
    pthread_t writer = 0;
    {
        const read_guard api(g_ao_info.api_rwlock);
        writer = g_ao_info.write_thread;
    }
    g_ao_info.abort_request = true;
    frame_queue_abort(g_ao_info.frame_queue);
    end_hold();
    vendor_hdmi_cec_deinit();
    bool stuck = false;
    do {
        if (stop_device(&stuck) < 0)
            log_e("aio_device_close failed.\n");
    } while (stuck);
    pthread_join(writer, nullptr);
    // The record counts as initialised up to here: an init meanwhile is refused.
    write_guard api(g_ao_info.api_rwlock);
    const int32_t err = tear_down();
    if (err != 0)
        log_e("frame_queue_pool_release failed. err:%d\n", err);
    return 0;
}

bool audio_output_initialized(void) { return g_ao_info.initialized; }

int32_t audio_output_set_volume(int volume)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    const int32_t err = on_open_device([&](audio_config_t* config) { return aio_device_set_volume(config, volume); });
    if (err != 0)
        log_e("aio_device_set_volume failed. err:%d\n", err);
    return err;
}

int32_t audio_output_set_volume_direct(int volume)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    const int32_t err =
        on_open_device([&](audio_config_t* config) { return aio_device_set_volume_direct(config, volume); });
    if (err != 0)
        log_e("aio_device_set_volume_direct failed. err:%d\n", err);
    return err;
}

int32_t audio_output_set_mute(bool mute)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    const int32_t err = on_open_device([&](audio_config_t* config) {
        const int result = aio_device_set_mute(config, mute);
        if (result == 0)
            g_ao_info.mute_status = mute;
        return result;
    });
    if (err != 0)
        log_e("aio_device_set_mute failed. err:%d\n", err);
    return err;
}

bool audio_output_mute_status(void)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return false;
    return g_ao_info.mute_status;
}

void audio_output_set_write_continued(bool enable)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return;
    mutex_guard lock(g_ao_info.mutex);
    g_ao_info.write_continued = enable;
}

int32_t audio_output_get_sample_rate(void)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return kDefaultSampleRate;
    return g_ao_info.target_sample_rate;
}

int32_t audio_output_get_channels(void)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return kChannels;
    mutex_guard lock(g_ao_info.mutex);
    return g_ao_info.audio_cfg.channels;
}

hdmi_player_ao_dev_e audio_output_get_device(void)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return E_HDMI_PLAYER_AO_DEV_AUTO;
    return g_ao_info.dev;
}

hdmi_player_ao_format_e audio_output_get_format(void)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return E_HDMI_PLAYER_AO_FORMAT_PCM;
    return g_ao_info.format;
}

int32_t audio_output_get_alsa_buffer_size(void)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return kDefaultBufferSize;
    mutex_guard lock(g_ao_info.mutex);
    return g_ao_info.audio_cfg.period_count * g_ao_info.audio_cfg.period_frames;
}

int32_t audio_output_set_video_delay(int32_t delay)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    g_ao_info.fixed_delay = delay;
    return 0;
}

void audio_output_set_dev_operation(audio_output_dev_op_e op)
{
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return;
    {
        mutex_guard lock(g_ao_info.mutex);
        g_ao_info.dev_op = op;
    }
    frame_queue_done_wakeup(g_ao_info.frame_queue);
}

int32_t audio_output_select_device(hdmi_player_ao_dev_e dev)
{
    const mutex_guard one_at_a_time(g_ao_info.select_mutex);
    entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    if (dev == g_ao_info.dev) {
        log_i("the device:%d has been selected\n", dev);
        return 0;
    }
    device_path path;
    if (!translate(dev, g_ao_info.format, &path, __func__))
        return -1;
    const int32_t err = audio_output_select(api, g_ao_info.dev, dev);
    if (err != 0)
        log_e("audio_output_select failed. err:%d\n", err);
    return err;
}

int32_t audio_output_select_format(hdmi_player_ao_format_e format)
{
    const mutex_guard one_at_a_time(g_ao_info.select_mutex);
    entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    if (format == g_ao_info.format) {
        log_i("the format:%d has been selected\n", format);
        return 0;
    }
    device_path path;
    if (!translate(g_ao_info.dev, format, &path, __func__))
        return -1;
    const int32_t err = audio_output_select(api, g_ao_info.format, format);
    if (err != 0)
        log_e("audio_output_select failed. err:%d\n", err);
    return err;
}

int32_t audio_output_write_pcm_frame(hdmi_player_audio_frame_t* frame)
{
    if (frame == nullptr) {
        log_e("frame is null.\n");
        return -1;
    }
    // The block may be one of the player's, which a close frees once this module has ended: it is read under the
    // guard only.
    const entry_guard api(g_ao_info.api_rwlock, audio_output_initialized);
    if (!api)
        return -1;
    if (frame->data == nullptr || frame->size < 1) {
        log_e("frame data:%p size:%d invalid.\n", static_cast<void*>(frame->data), frame->size);
        return -1;
    }
    frame_info_t* record = frame_queue_pool_acquire(g_ao_info.frame_queue, frame->size);
    if (record == nullptr) {
        log_e("frame_queue_pool_acquire(size:%d) failed.\n", frame->size);
        return -1;
    }
    memcpy(record->frame.data, frame->data, static_cast<size_t>(frame->size));
    record->frame.serial = frame->serial;
    record->frame.channels = frame->channels;
    record->frame.sample_rate = frame->sample_rate;
    record->frame.pts = frame->pts;
    record->frame.size = frame->size;
    const int32_t err = frame_queue_done_enqueue(g_ao_info.frame_queue, record);
    log_d("serial:%d pts:%lld channels:%d sample_rate:%d size:%d\n", frame->serial, lli(frame->pts), frame->channels,
          frame->sample_rate, frame->size);
    return err != 0 ? 1 : 0;
}

const char* audio_output_dev_name(hdmi_player_ao_dev_e dev)
{
    switch (dev) {
    case E_HDMI_PLAYER_AO_DEV_AUTO: return "auto";
    case E_HDMI_PLAYER_AO_DEV_SPEAKER: return "speaker";
    case E_HDMI_PLAYER_AO_DEV_HEADPHONE: return "headphone";
    case E_HDMI_PLAYER_AO_DEV_SPDIF: return "spdif";
    case E_HDMI_PLAYER_AO_DEV_HDMI_ARC: return "hdmi-arc";
    case E_HDMI_PLAYER_AO_DEV_I2S_TXA: return "i2s-txa";
    default: return "unknown";
    }
}

const char* audio_output_format_name(hdmi_player_ao_format_e format)
{
    switch (format) {
    case E_HDMI_PLAYER_AO_FORMAT_PCM: return "pcm";
    case E_HDMI_PLAYER_AO_FORMAT_RAW: return "raw";
    default: return "unknown";
    }
}

bool trans_dev_player_to_alsa(hdmi_player_ao_dev_e dev, int* dev_id)
{
    if (dev_id == nullptr) {
        log_e("dev_id is null\n");
        return false;
    }
    switch (dev) {
    case E_HDMI_PLAYER_AO_DEV_AUTO: *dev_id = E_AUDIO_IO_DEV_AUTO; return true;
    case E_HDMI_PLAYER_AO_DEV_SPEAKER: *dev_id = E_AUDIO_IO_DEV_SPEAKER; return true;
    case E_HDMI_PLAYER_AO_DEV_HEADPHONE: *dev_id = E_AUDIO_IO_DEV_HEADPHONE; return true;
    case E_HDMI_PLAYER_AO_DEV_SPDIF: *dev_id = E_AUDIO_IO_DEV_SPDIF; return true;
    case E_HDMI_PLAYER_AO_DEV_HDMI_ARC: *dev_id = E_AUDIO_IO_DEV_HDMI_ARC; return true;
    case E_HDMI_PLAYER_AO_DEV_I2S_TXA: *dev_id = E_AUDIO_IO_DEV_I2S_TXA; return true;
    default: log_e("invalid  hdmi_player_ao_dev:%d\n", dev); return false;
    }
}

// A raw stream travels in PCM frames: the device has no other output format.
bool trans_format_player_to_alsa(hdmi_player_ao_format_e format, int* format_index)
{
    if (format_index == nullptr) {
        log_e("format_index is null\n");
        return false;
    }
    switch (format) {
    case E_HDMI_PLAYER_AO_FORMAT_PCM:
    case E_HDMI_PLAYER_AO_FORMAT_RAW: *format_index = E_AUDIO_IO_FORMAT_PCM; return true;
    default: log_e("invalid  hdmi_player_ao_format:%d\n", format); return false;
    }
}
