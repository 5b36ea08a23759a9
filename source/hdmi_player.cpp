// SPDX-License-Identifier: MIT
/**
 * @file
 * The library's public face: starts and stops the modules, joins them into one
 * pipeline through the relays it hands out, and routes the host's calls.
 */
#include "hdmi_player.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <optional>

#include "internal/audio_input.h"
#include "internal/audio_output.h"
#include "internal/common.h"
#include "internal/dolby.h"
#include "internal/locks.h"
#include "internal/resample.h"
#include "internal/routing.h"
#include "internal/video.h"
#include "version.h"

namespace
{

/// Slots of the video frame queue at least.
constexpr int32_t kMinVideoFrameQueueSize = 5;
/// Latency of the video path, from the flip to the light, that both sides share.
constexpr int32_t kFixedVideoDelayMs = 76;
/// The rate assumed of the input until its first block tells.
constexpr int kDefaultInputRate = 48000;
constexpr int kPcmChannels = 2;
/// A volume that was never set.
constexpr int32_t kVolumeUnset = -1;

struct hdmi_player_resource_t {
    std::atomic<bool> opened{false}; ///< written under api_rwlock
    /// Blocks of input sound come from the resampler, else from the capture. Kept through a close: a resampler that
    /// has ended says that it is off, and the host would get captured blocks at the input's rate.
    std::atomic<bool> resampled{false};
    hdmi_player_event_cb_t event_cb GUARDED_BY(api_rwlock) = nullptr;
    mutex_t aio_changed_mutex; ///< one run of the change handler at a time; lives while the player is open
    mutex_t lifecycle_mutex;   ///< one open or close at a time
    rwlock_t api_rwlock;       ///< write: only around changes of `opened` and `event_cb`
};

hdmi_player_resource_t g_player_res;

bool is_open() { return g_player_res.opened; }

constexpr const char* kNoMessage = nullptr; ///< for calls that a closed player takes

/// The entry guard of every exported call and relay. A relay may run inside an exported call on the same thread, and
/// a host may call in from a callback. Only the outermost of them takes the lock: at an inner one this thread may hold
/// a module's lock, which is taken after the player's. Inner ones go through even when a close waits for the outermost.
class SCOPED_CAPABILITY player_guard
{
public:
    explicit player_guard(const char* message = "hdmi_player is not open", const char* function = __builtin_FUNCTION(),
                          int line = __builtin_LINE()) ACQUIRE_SHARED(g_player_res.api_rwlock)
    {
        if (inside_)
            return;
        outermost_.emplace(g_player_res.api_rwlock, is_open, LOG_LEVEL_E, message, function, line);
        inside_ = static_cast<bool>(*outermost_);
    }
    ~player_guard() RELEASE()
    {
        if (outermost_)
            inside_ = false;
    }
    player_guard(const player_guard&) = delete;
    player_guard& operator=(const player_guard&) = delete;

    explicit operator bool() const { return inside_; }

    /// Whether this thread is inside such a call, as an event callback is.
    static bool inside() { return inside_; }

private:
    std::optional<entry_guard> outermost_;
    static thread_local bool inside_; ///< this thread has the lock
};

thread_local bool player_guard::inside_ = false;

// What the host set last; kept across close and open.
std::atomic<int32_t> g_user_volume{kVolumeUnset};
std::atomic<int32_t> g_hw_volume{kVolumeUnset};
std::atomic<bool> g_user_mute{false};

// ---------------------------------------------------------------------------
// Relays: what the modules call instead of each other
// ---------------------------------------------------------------------------

void hdmi_player_event_cb(hdmi_player_event_e type)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api;
    if (!api)
        return;
    if (type > E_HDMI_PLAYER_EVENT_AVSYNC_RESET) {
        log_e("unsupported event type:%d\n", type);
        type = E_HDMI_PLAYER_EVENT_MAX;
    }
    log_i("event type:%d\n", type);
    if (g_player_res.event_cb != nullptr)
        g_player_res.event_cb(type);
}

void hdmi_player_ao_update_avsync_clock_cb(int64_t media_time, int64_t max_media_time, int32_t serial)
{
    const player_guard api;
    if (!api)
        return;
    if (video_set_base_media_time(media_time, max_media_time, serial) != 0)
        log_e("video_set_base_media_time failed\n");
}

void hdmi_player_video_notify_audio_reset_cb(void)
{
    const player_guard api;
    if (!api)
        return;
    audio_input_avsync_reset(true);
}

bool hdmi_player_video_ai_read_continued_cb(void)
{
    const player_guard api;
    return static_cast<bool>(api) && audio_input_read_continued();
}

hdmi_player_audio_frame_t* hdmi_player_resample_input_queue_dequeue_cb(int32_t timeout_ms)
{
    const player_guard api;
    if (!api)
        return nullptr;
    hdmi_player_audio_frame_t* frame = nullptr;
    const int32_t result = dolby_get_strategy() == DOLBY_STRATEGY_PCM ? audio_input_get_pcm_frame(&frame, timeout_ms)
                                                                      : dolby_get_output_pcm_frame(&frame, timeout_ms);
    return result == 0 ? frame : nullptr;
}

// The strategy may have changed since the frame was taken: the other source is
// tried as well, and each refuses a frame that is not its own.
int32_t hdmi_player_resample_input_queue_put_cb(hdmi_player_audio_frame_t* frame)
{
    const player_guard api;
    if (!api)
        return -1;
    const bool pcm = dolby_get_strategy() == DOLBY_STRATEGY_PCM;
    if ((pcm ? audio_input_put_pcm_frame(frame) : dolby_put_output_pcm_frame(frame)) == 0)
        return 0;
    const int32_t result = pcm ? dolby_put_output_pcm_frame(frame) : audio_input_put_pcm_frame(frame);
    if (result != 0)
        log_w("put frame failed, dolby_strategy:%s\n", dolby_strategy_name(dolby_get_strategy()));
    return result;
}

hdmi_player_audio_frame_t* hdmi_player_dolby_input_queue_dequeue_cb(int32_t timeout_ms)
{
    const player_guard api;
    if (!api)
        return nullptr;
    hdmi_player_audio_frame_t* frame = nullptr;
    return audio_input_get_iec61937_frame(&frame, timeout_ms) == 0 ? frame : nullptr;
}

int32_t hdmi_player_dolby_input_queue_put_cb(hdmi_player_audio_frame_t* frame)
{
    const player_guard api;
    return api ? audio_input_put_iec61937_frame(frame) : -1;
}

void hdmi_player_dolby_input_queue_wakeup_cb(void)
{
    const player_guard api;
    if (!api)
        return;
    audio_input_wakeup_iec61937_queue();
}

// ---------------------------------------------------------------------------
// Routing: input format and output selection decide how the pipeline runs
// ---------------------------------------------------------------------------

routing_state read_routing_state()
{
    routing_state state = {};
    state.ao_dev = audio_output_get_device();
    state.ao_format = audio_output_get_format();
    state.ai_format = audio_input_get_format();
    state.ai_bypass_mode = audio_input_get_bypass_mode();
    state.strategy = dolby_get_strategy();
    state.disable_avsync = video_is_disable_avsync();
    state.pcm_avsync_off = env_get_value("debug_hdmiplayer_disable_avsync", 0) != 0;
    state.decoded_avsync_off = env_get_value("debug_hdmiplayer_dolby_disable_avsync", 0) != 0;
    // Asked only where it counts: a decoder that has ended would warn.
    if (state.ai_format == AUDIO_INPUT_FORMAT_COMP_IEC61937 && !passes_bursts_on(state))
        state.decodable = dolby_format_support();
    return state;
}

/// The lines of one routing summary.
class summary_text
{
public:
    template <typename... Args> void line(const char* format, Args... args)
    {
        char temp[64] = "";
        snprintf(temp, sizeof(temp), format, args...);
        strncat(logs_, temp, sizeof(logs_) - strlen(logs_) - 1);
    }
    const char* text() const { return logs_; }

private:
    char logs_[256] = "";
};

/// Applies the parts of the decision that differ from the state; what changed stands in @p summary.
/// Returns whether anything did, and in @p bypass_changed whether the devices must follow.
bool apply_routing(const routing_state& state, const routing_decision& next, summary_text* summary,
                   bool* bypass_changed)
{
    bool changed = false;
    *bypass_changed = state.ai_bypass_mode != next.ai_bypass_mode;
    if (*bypass_changed) {
        summary->line("ai_bypass_mode: %d -> %d\n", state.ai_bypass_mode, next.ai_bypass_mode);
        summary->line("ao operation: %d\n", next.ao_op);
        audio_input_set_bypass_mode(next.ai_bypass_mode);
        changed = true;
    } else {
        summary->line("ai_bypass_mode: %d\n", state.ai_bypass_mode);
    }
    if (state.disable_avsync != next.disable_avsync) {
        summary->line("avsync: %d -> %d\n", !state.disable_avsync, !next.disable_avsync);
        changed = true;
    } else {
        summary->line("avsync: %d\n", !next.disable_avsync);
    }
    if (state.strategy != next.strategy) {
        summary->line("dolby_strategy: %s -> %s\n", dolby_strategy_name(state.strategy),
                      dolby_strategy_name(next.strategy));
        dolby_set_strategy(next.strategy);
        changed = true;
    } else {
        summary->line("strategy: %s\n", dolby_strategy_name(state.strategy));
    }
    return changed;
}

/// The change handler: recomputes the routing. Runs on whichever thread saw the change.
void hdmi_player_audio_io_changed_cb(bool force_reset, bool* ao_restarted)
{
    const player_guard api;
    if (!api)
        return;
    const mutex_guard serialised(g_player_res.aio_changed_mutex);
    const routing_state state = read_routing_state();
    const routing_decision next = decide_routing(state);

    summary_text summary;
    bool bypass_changed = false;
    const bool changed = apply_routing(state, next, &summary, &bypass_changed);
    const bool reset = force_reset || bypass_changed;
    if (!changed && !reset)
        return;

    log_w("ai[%s] ao[%s][%s]\n%s\n", audio_input_format_name(state.ai_format), audio_output_dev_name(state.ao_dev),
          audio_output_format_name(state.ao_format), summary.text());
    if (reset) {
        audio_input_set_reopen_device(true);
        audio_output_set_dev_operation(next.ao_op);
    }
    video_avsync_reset(true, next.disable_avsync);
    if (ao_restarted != nullptr)
        *ao_restarted = bypass_changed;
}

// ---------------------------------------------------------------------------
// Lifecycle
// ---------------------------------------------------------------------------

video_config_t make_video_config(const hdmi_player_config_t& cfg)
{
    video_config_t config = {};
    config.video_frame_queue_size = cfg.video_frame_queue_size;
    config.audio_alg_max_delay_time_ms = cfg.audio_alg_max_delay_time_ms;
    config.fixed_delay = 0;
    config.drm_info = cfg.drm_info;
    config.video_frame_drop_cb = cfg.video_frame_drop_cb;
    config.video_frame_flip_cb = cfg.video_frame_flip_cb;
    config.event_cb = hdmi_player_event_cb;
    config.notify_audio_reset_cb = hdmi_player_video_notify_audio_reset_cb;
    config.ai_read_continued_cb = hdmi_player_video_ai_read_continued_cb;
    return config;
}

audio_output_config_t make_audio_output_config(const hdmi_player_config_t& cfg)
{
    audio_output_config_t config = {};
    config.mute = g_user_mute;
    config.hw_volume = std::max(g_hw_volume.load(), kVolumeUnset);
    config.volume = config.hw_volume < 0 ? g_user_volume.load() : kVolumeUnset;
    config.dev = cfg.ao_dev;
    config.format = cfg.ao_format;
    config.sample_rate = cfg.ao_sample_rate;
    config.update_avsync_clock_cb = hdmi_player_ao_update_avsync_clock_cb;
    config.changed_cb = hdmi_player_audio_io_changed_cb;
    return config;
}

audio_param_t pcm16_param(int sample_rate)
{
    audio_param_t param = {};
    param.fmt = AV_SAMPLE_FMT_S16;
    param.sample_rate = sample_rate;
    param.channels = kPcmChannels;
    return param;
}

resample_config_t make_resample_config()
{
    resample_config_t config = {};
    config.src_param = pcm16_param(kDefaultInputRate);
    config.tgt_param = pcm16_param(audio_output_get_sample_rate());
    config.input_queue_dequeue_cb = hdmi_player_resample_input_queue_dequeue_cb;
    config.input_queue_put_cb = hdmi_player_resample_input_queue_put_cb;
    return config;
}

int32_t start_resampler()
{
    const int32_t result = audio_resample_init(make_resample_config());
    g_player_res.resampled = audio_resample_is_enable_resample();
    return result;
}

dolby_config_t make_dolby_config()
{
    dolby_config_t config = {};
    config.event_cb = hdmi_player_event_cb;
    config.format_changed_cb = hdmi_player_audio_io_changed_cb;
    config.get_ao_channels = nullptr;
    config.input_queue_dequeue_cb = hdmi_player_dolby_input_queue_dequeue_cb;
    config.input_queue_put_cb = hdmi_player_dolby_input_queue_put_cb;
    config.input_queue_wakeup_cb = hdmi_player_dolby_input_queue_wakeup_cb;
    // A count of frames used as a count of bytes: a decoded block is a quarter of the device's buffer.
    config.output_buffer_size = audio_output_get_alsa_buffer_size();
    return config;
}

audio_input_config_t make_audio_input_config()
{
    audio_input_config_t config = {};
    config.event_cb = hdmi_player_event_cb;
    config.changed_cb = hdmi_player_audio_io_changed_cb;
    return config;
}

bool refused_as_opened(const char* function)
{
    const bool opened = g_player_res.opened;
    if (opened)
        log_as(function, LOG_LEVEL_E, "hdmi_player has been opened\n");
    return opened;
}

bool refused_as_closed(const char* function)
{
    const bool opened = g_player_res.opened;
    if (!opened)
        log_as(function, LOG_LEVEL_E, "hdmi_player is not open\n");
    return !opened;
}

void mark_opened(const hdmi_player_config_t& cfg)
{
    const write_guard api(g_player_res.api_rwlock);
    g_player_res.aio_changed_mutex.init();
    g_player_res.opened = true;
    g_player_res.event_cb = cfg.event_cb;
}

void mark_closed()
{
    const write_guard api(g_player_res.api_rwlock);
    g_player_res.aio_changed_mutex.destroy();
    g_player_res.opened = false;
    g_player_res.resampled = false;
    g_player_res.event_cb = nullptr;
}

/// Starts every module in order; on failure stops those that were started, last one first.
bool start_modules(const hdmi_player_config_t& cfg, const char* function)
{
    struct module {
        const char* failure;
        int32_t (*start)(const hdmi_player_config_t& cfg);
        int32_t (*stop)();
    };
    static const module modules[] = {
        {"video_init failed", [](const hdmi_player_config_t& c) { return video_init(make_video_config(c)); },
         video_deinit},
        {"audio_output_init failed",
         [](const hdmi_player_config_t& c) { return audio_output_init(make_audio_output_config(c)); },
         audio_output_deinit},
        {"audio_resample_init failed", [](const hdmi_player_config_t&) { return start_resampler(); },
         audio_resample_deinit},
        {"dolby_init failed", [](const hdmi_player_config_t&) { return dolby_init(make_dolby_config()); },
         dolby_deinit},
        {"audio_input_init failed",
         [](const hdmi_player_config_t&) { return audio_input_init(make_audio_input_config()); }, audio_input_deinit},
    };
    size_t started = 0;
    for (const module& m : modules) {
        if (m.start(cfg) < 0) {
            log_as(function, LOG_LEVEL_E, "%s\n", m.failure);
            while (started > 0)
                modules[--started].stop();
            return false;
        }
        ++started;
    }
    return true;
}

} // namespace

bool passes_bursts_on(const routing_state& state)
{
    const bool digital_output =
        state.ao_dev == E_HDMI_PLAYER_AO_DEV_SPDIF || state.ao_dev == E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
    return state.ai_format == AUDIO_INPUT_FORMAT_COMP_IEC61937 && digital_output &&
           state.ao_format == E_HDMI_PLAYER_AO_FORMAT_RAW;
}

routing_decision decide_routing(const routing_state& state)
{
    if (passes_bursts_on(state))
        return {E_AUDIO_IN_BYPASS_MODE_TO_RAW, AUDIO_OUTPUT_DEV_OP_CLOSE, DOLBY_STRATEGY_HWBYPASS, true};
    switch (state.ai_format) {
    case AUDIO_INPUT_FORMAT_COMP_IEC61937:
        // An unsupported format keeps the decode strategy, so that the decoder goes
        // on looking for one that it knows, but it has no clock to follow.
        return {E_AUDIO_IN_BYPASS_MODE_NONE, AUDIO_OUTPUT_DEV_OP_REOPEN, DOLBY_STRATEGY_DECODE,
                !state.decodable || state.decoded_avsync_off};
    case AUDIO_INPUT_FORMAT_PCM:
        return {E_AUDIO_IN_BYPASS_MODE_NONE, AUDIO_OUTPUT_DEV_OP_REOPEN, DOLBY_STRATEGY_PCM, state.pcm_avsync_off};
    default: return {E_AUDIO_IN_BYPASS_MODE_NONE, AUDIO_OUTPUT_DEV_OP_REOPEN, DOLBY_STRATEGY_UNSUPPORTED, true};
    }
}

int32_t hdmi_player_open(hdmi_player_config_t cfg)
{
    log_i("%s\n", HDMI_PLAYER_VERSION_BANNER);
    const call_trace trace(LOG_LEVEL_D);
    // A second open does not wait for the first: it may come from a callback of it.
    if (refused_as_opened(__func__))
        return -1;
    const mutex_guard one_at_a_time(g_player_res.lifecycle_mutex);
    if (refused_as_opened(__func__))
        return -1;
    mark_opened(cfg);
    if (cfg.video_frame_queue_size < kMinVideoFrameQueueSize) {
        log_w("video_frame_queue_size:%d too small!\n", cfg.video_frame_queue_size);
        cfg.video_frame_queue_size = kMinVideoFrameQueueSize;
    }
    if (!start_modules(cfg, __func__)) {
        mark_closed();
        return -1;
    }
    video_set_fixed_delay(kFixedVideoDelayMs);
    audio_output_set_video_delay(kFixedVideoDelayMs);
    hdmi_player_audio_io_changed_cb(false, nullptr);
    return 0;
}

// The same order as the start, not the reverse: every module ends its own
// threads by aborting its queues, even while its producer still runs.
int32_t hdmi_player_close(void)
{
    const call_trace trace(LOG_LEVEL_D);
    log_w(">>>\n");
    if (refused_as_closed(__func__))
        return -1;
    if (player_guard::inside() || video_in_callback()) { // it would wait for itself
        log_e("called inside a callback\n");
        return -1;
    }
    const mutex_guard one_at_a_time(g_player_res.lifecycle_mutex);
    if (refused_as_closed(__func__))
        return -1;
    if (video_deinit() != 0)
        log_e("video_deinit failed\n");
    if (audio_output_deinit() != 0)
        log_e("audio_output_deinit failed\n");
    if (audio_resample_deinit() < 0)
        log_e("audio_resample_deinit failed\n");
    dolby_deinit();
    if (audio_input_deinit() < 0)
        log_e("audio_input_deinit failed\n");
    mark_closed();
    log_w("<<<\n");
    return 0;
}

// ---------------------------------------------------------------------------
// Control
// ---------------------------------------------------------------------------

int32_t hdmi_player_set_game_mode(bool enable)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api;
    return api ? audio_input_set_game_mode(enable) : -1;
}

bool hdmi_player_get_game_mode(void)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api;
    // A closed player answers true: the same bits as the -1 of the other functions.
    return api ? audio_input_get_game_mode() : true;
}

int32_t hdmi_player_select_audio_output_device(hdmi_player_ao_dev_e dev)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api;
    return api ? audio_output_select_device(dev) : -1;
}

int32_t hdmi_player_select_audio_output_format(hdmi_player_ao_format_e format)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api;
    return api ? audio_output_select_format(format) : -1;
}

int32_t hdmi_player_set_volume(int32_t volume)
{
    const call_trace trace(LOG_LEVEL_D);
    if (volume < 0 || volume > 100) {
        log_e("invalid volume:%d\n", volume);
        return -1;
    }
    g_user_volume = volume;
    const player_guard api(kNoMessage);
    if (!api || !audio_output_initialized()) {
        log_i("set user_volume:%d\n", volume);
        return 0;
    }
    if (audio_output_mute_status()) {
        log_w("cann't setting in mute state!\n");
        return -1;
    }
    return audio_output_set_volume(volume);
}

int32_t hdmi_player_set_volume2(int32_t volume)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api(kNoMessage);
    if (!api) {
        g_hw_volume = volume;
        log_i("set hw_volume:%d\n", g_hw_volume.load());
        return 0;
    }
    if (!audio_output_initialized()) {
        g_hw_volume = volume;
        log_i("set user_volume:%d\n", g_user_volume.load());
        return 0;
    }
    if (audio_output_mute_status()) {
        log_w("cann't setting in mute state!\n");
        return -1;
    }
    const int32_t result = audio_output_set_volume_direct(volume);
    if (result == 0)
        g_hw_volume = volume;
    return result;
}

int32_t hdmi_player_set_mute(bool mute)
{
    const call_trace trace(LOG_LEVEL_D);
    const player_guard api(kNoMessage);
    if (!api || !audio_output_initialized()) {
        g_user_mute = mute;
        log_i("set_mute:%d\n", mute);
        return 0;
    }
    if (mute == audio_output_mute_status()) {
        log_w("mute status does not change\n");
        return -1;
    }
    const int32_t result = audio_output_set_mute(mute);
    if (result < 0) {
        log_w("set mute(%d) err\n", mute);
        return result;
    }
    g_user_mute = mute;
    return result;
}

int32_t hdmi_player_get_pcm(hdmi_player_audio_frame_t** frame, int32_t timeout_ms)
{
    const call_trace trace(LOG_LEVEL_V);
    if (frame == nullptr) {
        log_e("frame is null\n");
        return -1;
    }
    const player_guard api;
    if (!api)
        return -1;
    const int32_t result = g_player_res.resampled ? audio_resample_get_pcm_frame(frame, timeout_ms)
                                                  : audio_input_get_pcm_frame(frame, timeout_ms);
    if (result < 0)
        log_d("audio_input_get_pcm_frame failed.\n");
    return result;
}

int32_t hdmi_player_put_pcm(hdmi_player_audio_frame_t* frame)
{
    const call_trace trace(LOG_LEVEL_V);
    if (frame == nullptr) {
        log_e("frame is null\n");
        return -1;
    }
    const player_guard api;
    if (!api)
        return -1;
    return g_player_res.resampled ? audio_resample_put_pcm_frame(frame) : audio_input_put_pcm_frame(frame);
}

int32_t hdmi_player_write_pcm(hdmi_player_audio_frame_t* frame)
{
    const call_trace trace(LOG_LEVEL_V);
    if (frame == nullptr) {
        log_e("frame is null\n");
        return -1;
    }
    const player_guard api;
    return api ? audio_output_write_pcm_frame(frame) : -1;
}

int32_t hdmi_player_video_render(hdmi_player_video_frame_t* frame)
{
    const call_trace trace(LOG_LEVEL_V);
    if (frame == nullptr) {
        log_e("frame is null\n");
        return -1;
    }
    const player_guard api;
    if (!api)
        return -1;
    if (!video_is_disable_avsync() && audio_input_get_hotplug_status() != E_HDMI_HOTPLUG_STATUS_IN) {
        log_v("hdmi don't plug in, so can't render!\n");
        return -1;
    }
    return video_render(frame);
}

int32_t hdmi_player_hotplug_status_changed(hdmi_hotplug_status_e state)
{
    const call_trace trace(LOG_LEVEL_V);
    const player_guard api;
    if (!api)
        return -1;
    if (!audio_output_initialized()) {
        log_e("audio output_handle is null!\n");
        return -1;
    }
    if (audio_input_set_hotplug_status(state) != 0)
        return -1; // the player is being opened or closed
    if (state == E_HDMI_HOTPLUG_STATUS_OUT) {
        audio_input_set_read_continued(false);
        audio_output_set_write_continued(false);
        log_i("hotplug_status:%d\n", state);
    }
    return 0;
}
