// SPDX-License-Identifier: MIT
#include "internal/audio_output.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hdmi_cec.h"
#include "internal/common.h"
#include "internal/frame_queue.h"

audio_output_info_t g_ao_info;

namespace
{

constexpr int32_t kOutQueueFrames = 128;
constexpr int kChannels = 2;
constexpr int kPeriodCount = 8;
constexpr int kWriterPriority = 99; ///< round robin: an underrun is heard, nothing else of the player is as urgent
constexpr int64_t kUsPerSecond = 1000000;

constexpr int32_t kDefaultSampleRate = 48000; ///< Hz
constexpr int32_t kDefaultBufferSize = 8192;  ///< frames

/// A healthy device takes a block within the block's own duration, some 20 ms.
/// A write that lasts longer than this is stuck, and only a close ends it.
constexpr uint32_t kWriteGraceUs = 100000;
/// A call that only a healthy device can serve gives up after this, so that a
/// device that takes no sound does not hold its caller until the stop.
constexpr uint32_t kDevicePatienceUs = 2000000;

/// Lets one deinit run at a time. Taken before every other lock of the module.
mutex_t g_deinit_mutex;

/// A deinit waits for the calls in progress to leave, or clears the record.
std::atomic<bool> g_leaving;

void warn_not_initialized(const char* function, int line)
{
    if (log_enabled(LOG_LEVEL_W))
        console_print(LOG_LEVEL_W, "[%s %d] module not initialized\n", function, line);
}

// Whether the module is initialised; if not, warns in the name of the function that was called.
bool ready(const char* function, int line)
{
    const bool initialized = g_ao_info.initialized;
    if (!initialized)
        warn_not_initialized(function, line);
    return initialized;
}

/// Holds the module's lock for reading for a scope if the module is initialised; if not, it is
/// empty, with a warning in the name of the caller. May be released and taken again inside the scope.
class api_guard
{
public:
    explicit api_guard(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE())
        : function_(function), line_(line)
    {
        lock();
    }
    ~api_guard() { unlock(); }
    api_guard(const api_guard&) = delete;
    api_guard& operator=(const api_guard&) = delete;

    explicit operator bool() const { return held_; }

    void lock()
    {
        // The lock prefers readers: callers in a loop would starve the deinit that waits for it.
        if (g_leaving) {
            warn_not_initialized(function_, line_);
            return;
        }
        pthread_rwlock_rdlock(&g_ao_info.api_rwlock.native);
        held_ = true;
        if (!ready(function_, line_))
            unlock();
    }
    void unlock()
    {
        if (held_)
            pthread_rwlock_unlock(&g_ao_info.api_rwlock.native);
        held_ = false;
    }

private:
    const char* const function_;
    const int line_;
    bool held_ = false;
};

int sample_rate_hz(hdmi_player_aio_sample_rate_e rate)
{
    switch (rate) {
    case E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K: return 16000;
    case E_HDMI_PLAYER_AIO_SAMPLE_RATE_32K: return 32000;
    case E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K: return 44100;
    default: return kDefaultSampleRate;
    }
}

// --- The clock ----------------------------------------------------------------

int64_t frames_to_us(int64_t frames, int sample_rate) { return frames * kUsPerSecond / sample_rate; }

struct clock_values {
    int64_t write_duration_us;  ///< queued in the device, not heard yet
    int64_t cur_frame_duration; ///< us
    int64_t max_time_us;        ///< media time at the end of this block
    int64_t time_us;            ///< media time being heard
};

// A time stamp is the host's and may be anything: sums saturate instead of overflowing.
clock_values clock_after_write(int64_t pts, int frames, int remaining, int sample_rate)
{
    clock_values clock = {};
    clock.write_duration_us = frames_to_us(remaining, sample_rate);
    clock.cur_frame_duration = frames_to_us(frames, sample_rate);
    clock.max_time_us = add_saturated(pts, clock.cur_frame_duration);
    clock.time_us = std::max<int64_t>(add_saturated(clock.max_time_us, -clock.write_duration_us), 0);
    return clock;
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
    if (!device_open())
        return 0;
    mutex_guard lock(g_ao_info.mutex);
    if (!await_write_end(lock, kDevicePatienceUs))
        return -ETIMEDOUT;
    return device_open() ? call(&g_ao_info.audio_cfg) : 0;
}

int open_device()
{
    const int result = aio_device_open(&g_ao_info.audio_cfg);
    g_ao_info.init_state = std::min(result, 0);
    return result;
}

// A device that failed to close counts as open.
int close_device()
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

void set_device_ids() REQUIRES(g_ao_info.mutex)
{
    int id = 0;
    if (trans_dev_player_to_alsa(g_ao_info.dev, &id))
        g_ao_info.audio_cfg.device_id = id;
    if (trans_format_player_to_alsa(g_ao_info.format, &id))
        g_ao_info.audio_cfg.output_fmt = id;
}

// A release does not wake a producer that waits in a full queue, and with all its frames
// gone the writer will not either: giving one frame back by hand does.
void discard_queued_frames()
{
    frame_info_t* oldest = frame_queue_done_dequeue(g_ao_info.frame_queue, 0);
    frame_queue_done_release(g_ao_info.frame_queue);
    if (oldest != nullptr)
        frame_queue_put(g_ao_info.frame_queue, &oldest->frame);
}

// Carries out @p op if it is the pending operation. The writer runs the reopen, between its
// writes; a selection runs the close, which also ends a write that is stuck.
void audio_output_device_operation(audio_output_dev_op_e op)
{
    int32_t init_state = -1;
    {
        mutex_guard lock(g_ao_info.mutex);
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
            set_device_ids();
            if (open_device() < 0) {
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

// The change handler runs with the module's lock released: it is serialised with its other runs, and those ask
// this module for its state.
int32_t audio_output_select(api_guard& api, int device_id, int output_fmt)
{
    const auto changed_cb = g_ao_info.changed_cb;
    bool restarted = false;
    api.unlock();
    changed_cb(false, &restarted);
    api.lock();
    if (!api)
        return -1;
    if (g_ao_info.dev_op == AUDIO_OUTPUT_DEV_OP_CLOSE)
        audio_output_device_operation(AUDIO_OUTPUT_DEV_OP_CLOSE);
    if (restarted)
        return 0;
    const int32_t result = on_open_device([&](audio_config_t* config) {
        const int err = aio_device_reselect(config, device_id, output_fmt);
        if (err >= 0) {
            config->device_id = device_id;
            config->output_fmt = output_fmt;
        }
        return err;
    });
    if (result < 0) {
        log_e("aio_device_reselect dev_id:%d output_fmt:%d failed!\n", device_id, output_fmt);
        return -1;
    }
    return 0;
}

// Stores a selection and returns the one before.
template <typename Selection> Selection exchange_selection(std::atomic<Selection>& selected, Selection next)
{
    mutex_guard lock(g_ao_info.mutex);
    return selected.exchange(next);
}

// Takes a failed selection back, unless another thread has selected again meanwhile.
template <typename Selection>
void restore_selection(std::atomic<Selection>& selected, Selection failed, Selection previous)
{
    mutex_guard lock(g_ao_info.mutex);
    selected.compare_exchange_strong(failed, previous);
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

// Takes the device for a write: false when it was closed meanwhile, or is about to be.
// Tells in @p remaining, if not null, what is queued before that write.
bool begin_write(int32_t* remaining)
{
    mutex_guard lock(g_ao_info.mutex);
    while (g_ao_info.waiting > 0)
        lock.wait(g_ao_info.device_cond);
    if (g_ao_info.abort_request || !device_open())
        return false;
    if (remaining != nullptr)
        *remaining = queued_frames();
    g_ao_info.writing = true;
    return true;
}

// Gives the device back and computes the clock from what it still has queued: nothing when
// it was closed under the write.
clock_values end_write(const hdmi_player_audio_frame_t& frame)
{
    mutex_guard lock(g_ao_info.mutex);
    g_ao_info.writing = false;
    pthread_cond_broadcast(&g_ao_info.device_cond);
    audio_config_t* config = &g_ao_info.audio_cfg;
    const int32_t remaining = device_open() ? queued_frames() : 0;
    const int frames = aio_device_bytes_to_frames(config, frame.size);
    return clock_after_write(frame.pts, frames, remaining, config->sample_rate);
}

// Microseconds since the write before, for the log.
int64_t write_interval_us(int64_t* start_time)
{
    const int64_t now = static_cast<int64_t>(get_system_time_us());
    const int64_t interval = *start_time != 0 ? now - *start_time : 0;
    *start_time = now;
    return interval;
}

void* audio_output_write_thread(void* arg)
{
    auto* info = static_cast<audio_output_info_t*>(arg);
    if (info->enable_log)
        log_i(">>>\n");
    set_thread_name("audio_write");
    log_i("thread_id: %lli\n", static_cast<long long>(pthread_self()));
    int32_t frame_serial = -1;
    int64_t start_time = 0;
    while (!info->abort_request) {
        frame_info_t* record = frame_queue_done_dequeue(info->frame_queue, -1);
        if (record == nullptr)
            continue;
        const hdmi_player_audio_frame_t frame = record->frame;
        const bool new_serial = frame.serial != frame_serial;
        if (new_serial && info->dev_op == AUDIO_OUTPUT_DEV_OP_REOPEN)
            audio_output_device_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
        if (!device_open()) {
            frame_queue_put(info->frame_queue, &record->frame);
            continue;
        }
        if (info->interval_log)
            log_i("write interval:%lld us size:%d\n", static_cast<long long>(write_interval_us(&start_time)),
                  frame.size);
        if (new_serial) {
            log_i("frame_serial:%d -> %d\n", frame_serial, frame.serial);
            frame_serial = frame.serial;
            hold_first_block();
        }
        int32_t remaining = 0;
        if (!begin_write(frame.pts == 0 ? &remaining : nullptr)) {
            frame_queue_put(info->frame_queue, &record->frame);
            continue;
        }
        if (frame.pts == 0)
            log_i("remain last sequence frames:%d time:%lld us\n", remaining,
                  static_cast<long long>(frames_to_us(remaining, info->audio_cfg.sample_rate)));
        const int written = aio_device_write(&info->audio_cfg, frame.data, frame.size);
        if (written != frame.size)
            log_e("alsa_pcm_write failed. write:%d written:%d\n", frame.size, written);
        const clock_values clock = end_write(frame);
        log_d("serial:%d pts:%lld time_us:%lld max_time_us:%lld write_duration_us:%lld cur_frame_duration:%lld\n",
              frame.serial, static_cast<long long>(frame.pts), static_cast<long long>(clock.time_us),
              static_cast<long long>(clock.max_time_us), static_cast<long long>(clock.write_duration_us),
              static_cast<long long>(clock.cur_frame_duration));
        frame_queue_put(info->frame_queue, &record->frame);
        if (info->update_avsync_clock_cb != nullptr)
            info->update_avsync_clock_cb(clock.time_us, clock.max_time_us, frame.serial);
    }
    log_i("exit\n");
    if (info->enable_log)
        log_i("<<<\n");
    return nullptr;
}

// --- Lifecycle ----------------------------------------------------------------

// Clears the record around its api_rwlock, which the caller holds, and its locks.
void reset_record() NO_THREAD_SAFETY_ANALYSIS
{
    audio_output_info_t& info = g_ao_info;
    info.initialized = false;
    info.write_continued = false;
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
    info.dev_op = AUDIO_OUTPUT_DEV_OP_NONE;
    info.audio_cfg = {};
    info.write_thread = 0;
    info.writing = false;
    info.waiting = 0;
    info.update_avsync_clock_cb = nullptr;
    info.changed_cb = nullptr;
}

void create_locks()
{
    g_ao_info.mutex.init();
    g_ao_info.fixed_delay_mutex.init();
    cond_init_monotonic(g_ao_info.fixed_delay_cond);
    cond_init_monotonic(g_ao_info.device_cond);
    pthread_attr_init(&g_ao_info.attr);
}

// Undoes all of an init but the device and the CEC link; for a record without a writer.
// Returns the result of the queue's deinit.
int32_t tear_down()
{
    int32_t result = 0;
    if (g_ao_info.frame_queue >= 0)
        result = frame_queue_deinit(g_ao_info.frame_queue);
    g_ao_info.frame_queue = -1;
    pthread_attr_destroy(&g_ao_info.attr);
    pthread_cond_destroy(&g_ao_info.device_cond);
    pthread_cond_destroy(&g_ao_info.fixed_delay_cond);
    g_ao_info.fixed_delay_mutex.destroy();
    g_ao_info.mutex.destroy();
    return result;
}

// The device is closed whether it was opened or not: a close too many is harmless.
int32_t abandon_init()
{
    tear_down();
    aio_device_close(&g_ao_info.audio_cfg);
    reset_record();
    return -1;
}

void begin_record(const audio_output_config_t& cfg)
{
    reset_record();
    create_locks();
    g_ao_info.enable_log = env_get_value("debug_hdmiplayer_log_ao_api", 0) != 0;
    g_ao_info.interval_log = env_get_value("debug_hdmiplayer_log_ao_interval", 0) != 0;
    g_ao_info.update_avsync_clock_cb = cfg.update_avsync_clock_cb;
    g_ao_info.changed_cb = cfg.changed_cb;
}

void configure(const audio_output_config_t& cfg, int device_id, int output_fmt)
{
    g_ao_info.dev = cfg.dev;
    g_ao_info.format = cfg.format;
    audio_config_t& device = g_ao_info.audio_cfg;
    device.stream_type = E_AUDIO_STREAM_PLAYBACK;
    device.card_id = 0;
    device.device_id = device_id;
    device.output_fmt = output_fmt;
    device.game_mode = false;
    device.channels = kChannels;
    device.sample_rate = sample_rate_hz(cfg.sample_rate);
    device.period_frames = convert_sample_rate_to_frames(device.sample_rate);
    device.period_count = kPeriodCount;
}

int set_initial_volume(const audio_output_config_t& cfg)
{
    if (cfg.hw_volume >= 0)
        return aio_device_set_volume_direct(&g_ao_info.audio_cfg, cfg.hw_volume);
    if (cfg.volume >= 0)
        return aio_device_set_volume(&g_ao_info.audio_cfg, cfg.volume);
    return 0;
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
bool start_writer()
{
    sched_param priority = {};
    priority.sched_priority = kWriterPriority;
    pthread_attr_setschedpolicy(&g_ao_info.attr, SCHED_RR);
    pthread_attr_setschedparam(&g_ao_info.attr, &priority);
    // Set before the thread runs: it would overwrite a later audio_output_set_write_continued().
    g_ao_info.write_continued = true;
    if (pthread_create(&g_ao_info.write_thread, &g_ao_info.attr, audio_output_write_thread, &g_ao_info) == 0)
        return true;
    g_ao_info.write_thread = 0;
    return false;
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
    write_guard api(g_ao_info.api_rwlock);
    if (g_ao_info.initialized) {
        log_w("module has been initialized\n");
        return -1;
    }
    begin_record(cfg);
    int device_id = 0;
    int output_fmt = 0;
    if (!trans_dev_player_to_alsa(cfg.dev, &device_id)) {
        log_w("trans_dev_player_to_alsa failed.\n");
        return abandon_init();
    }
    if (!trans_format_player_to_alsa(cfg.format, &output_fmt)) {
        log_w("trans_format_player_to_alsa failed.\n");
        return abandon_init();
    }
    configure(cfg, device_id, output_fmt);
    int err = open_device();
    if (err < 0) {
        log_e("aio_device_open failed. err:%d\n", err);
        tear_down();
        reset_record();
        return -1;
    }
    if ((err = set_initial_volume(cfg)) < 0) {
        log_e("%s failed. err:%d\n", cfg.hw_volume >= 0 ? "aio_device_set_volume_direct" : "aio_device_set_volume",
              err);
        return abandon_init();
    }
    if ((err = aio_device_set_mute(&g_ao_info.audio_cfg, cfg.mute)) < 0) {
        log_e("aio_device_set_mute failed. err:%d\n", err);
        return abandon_init();
    }
    g_ao_info.mute_status = cfg.mute;
    log_w("mute state:%d\n", cfg.mute);
    g_ao_info.frame_queue = frame_queue_init(kOutQueueFrames, "OUT");
    if (g_ao_info.frame_queue < 0) {
        log_e("frame_queue_init failed.\n");
        return abandon_init();
    }
    log_i("frame_queue id:%d.\n", g_ao_info.frame_queue);
    start_cec();
    if (!start_writer()) {
        log_e("create write_thread failed!\n");
        vendor_hdmi_cec_deinit();
        return abandon_init();
    }
    g_ao_info.target_sample_rate = g_ao_info.audio_cfg.sample_rate;
    g_ao_info.initialized = true;
    return 0;
}

int32_t audio_output_deinit(void)
{
    const call_trace trace(LOG_LEVEL_I);
    mutex_guard one_at_a_time(g_deinit_mutex);
    if (!ready(__func__, __LINE__))
        return -1;
    g_ao_info.abort_request = true;
    frame_queue_abort(g_ao_info.frame_queue);
    end_hold();
    vendor_hdmi_cec_deinit();
    bool stuck = false;
    do {
        if (stop_device(&stuck) < 0)
            log_e("aio_device_close failed.\n");
    } while (stuck);
    pthread_join(g_ao_info.write_thread, nullptr);
    g_ao_info.write_thread = 0;

    g_leaving = true;
    write_guard api(g_ao_info.api_rwlock);
    const int32_t err = tear_down();
    if (err != 0)
        log_e("frame_queue_pool_release failed. err:%d\n", err);
    reset_record();
    g_leaving = false;
    return 0;
}

bool audio_output_initialized(void) { return g_ao_info.initialized; }

int32_t audio_output_set_volume(int volume)
{
    const api_guard api;
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
    const api_guard api;
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
    const api_guard api;
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
    const api_guard api;
    if (!api)
        return false;
    return g_ao_info.mute_status;
}

void audio_output_set_write_continued(bool enable)
{
    const api_guard api;
    if (!api)
        return;
    mutex_guard lock(g_ao_info.mutex);
    g_ao_info.write_continued = enable;
}

int32_t audio_output_get_sample_rate(void)
{
    const api_guard api;
    if (!api)
        return kDefaultSampleRate;
    return g_ao_info.target_sample_rate;
}

int32_t audio_output_get_channels(void)
{
    const api_guard api;
    if (!api)
        return kChannels;
    return g_ao_info.audio_cfg.channels;
}

hdmi_player_ao_dev_e audio_output_get_device(void)
{
    const api_guard api;
    if (!api)
        return E_HDMI_PLAYER_AO_DEV_AUTO;
    return g_ao_info.dev;
}

hdmi_player_ao_format_e audio_output_get_format(void)
{
    const api_guard api;
    if (!api)
        return E_HDMI_PLAYER_AO_FORMAT_PCM;
    return g_ao_info.format;
}

int32_t audio_output_get_alsa_buffer_size(void)
{
    const api_guard api;
    if (!api)
        return kDefaultBufferSize;
    return g_ao_info.audio_cfg.period_count * g_ao_info.audio_cfg.period_frames;
}

int32_t audio_output_set_video_delay(int32_t delay)
{
    const api_guard api;
    if (!api)
        return -1;
    g_ao_info.fixed_delay = delay;
    return 0;
}

void audio_output_set_dev_operation(audio_output_dev_op_e op)
{
    const api_guard api;
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
    api_guard api;
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    if (dev == g_ao_info.dev) {
        log_i("the device:%d has been selected\n", dev);
        return 0;
    }
    int device_id = 0;
    int output_fmt = 0;
    if (!trans_dev_player_to_alsa(dev, &device_id)) {
        log_w("trans_dev_player_to_alsa failed.\n");
        return -1;
    }
    if (!trans_format_player_to_alsa(g_ao_info.format, &output_fmt)) {
        log_w("trans_format_player_to_alsa failed.\n");
        return -1;
    }
    const hdmi_player_ao_dev_e previous = exchange_selection(g_ao_info.dev, dev);
    const int32_t err = audio_output_select(api, device_id, output_fmt);
    if (err != 0) {
        log_e("audio_output_select failed. err:%d\n", err);
        if (api)
            restore_selection(g_ao_info.dev, dev, previous);
        return -1;
    }
    return 0;
}

int32_t audio_output_select_format(hdmi_player_ao_format_e format)
{
    api_guard api;
    if (!api)
        return -1;
    const call_trace trace(LOG_LEVEL_I, g_ao_info.enable_log);
    if (format == g_ao_info.format) {
        log_i("the format:%d has been selected\n", format);
        return 0;
    }
    int device_id = 0;
    int output_fmt = 0;
    if (!trans_dev_player_to_alsa(g_ao_info.dev, &device_id)) {
        log_w("trans_dev_player_to_alsa failed.\n");
        return -1;
    }
    if (!trans_format_player_to_alsa(format, &output_fmt)) {
        log_w("trans_format_player_to_alsa failed.\n");
        return -1;
    }
    const hdmi_player_ao_format_e previous = exchange_selection(g_ao_info.format, format);
    const int32_t err = audio_output_select(api, device_id, output_fmt);
    if (err != 0) {
        log_e("audio_output_select failed. err:%d\n", err);
        if (api)
            restore_selection(g_ao_info.format, format, previous);
        return -1;
    }
    return 0;
}

int32_t audio_output_write_pcm_frame(hdmi_player_audio_frame_t* frame)
{
    if (frame == nullptr) {
        log_e("frame is null.\n");
        return -1;
    }
    if (frame->data == nullptr || frame->size < 1) {
        log_e("frame data:%p size:%d invalid.\n", static_cast<void*>(frame->data), frame->size);
        return -1;
    }
    const api_guard api;
    if (!api)
        return -1;
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
    log_d("serial:%d pts:%lld channels:%d sample_rate:%d size:%d\n", frame->serial, static_cast<long long>(frame->pts),
          frame->channels, frame->sample_rate, frame->size);
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
