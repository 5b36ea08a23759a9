// SPDX-License-Identifier: MIT
#include "internal/resample.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "internal/common.h"
#include "internal/conversion_plan.h"
#include "internal/frame_queue.h"

resample_context_t g_resample_ctx;

namespace
{

constexpr int32_t kQueueFrames = 128;
/// Longest wait for one source frame, and so about the longest that a stop waits for the worker.
constexpr int32_t kSourceTimeoutMs = 100;
/// Pause of the worker while the stage is off, and after a source that answered again and again without a frame.
constexpr useconds_t kIdleUs = 10000;
constexpr uint8_t kRandomDelay = 2;

// The mask interface of the FFmpeg libraries is deprecated since 5.1 and gone
// in 7, its successor is not in 4.4: this is the one place that knows both.
#if LIBSWRESAMPLE_VERSION_MAJOR >= 5

int64_t default_channel_layout(int channels)
{
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, channels);
    const int64_t mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? static_cast<int64_t>(layout.u.mask) : 0;
    av_channel_layout_uninit(&layout);
    return mask;
}

SwrContext* create_converter(const audio_param_t& tgt, const audio_param_t& src, int src_rate)
{
    AVChannelLayout tgt_layout = {};
    AVChannelLayout src_layout = {};
    SwrContext* converter = nullptr;
    av_channel_layout_from_mask(&tgt_layout, static_cast<uint64_t>(tgt.channel_layout));
    av_channel_layout_from_mask(&src_layout, static_cast<uint64_t>(src.channel_layout));
    // A channel count without a mask is refused here; the mask interface left that to swr_init.
    if (swr_alloc_set_opts2(&converter, &tgt_layout, tgt.fmt, tgt.sample_rate, &src_layout, src.fmt, src_rate, 0,
                            nullptr) < 0)
        converter = swr_alloc();
    return converter;
}

#else

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

int64_t default_channel_layout(int channels) { return av_get_default_channel_layout(channels); }

SwrContext* create_converter(const audio_param_t& tgt, const audio_param_t& src, int src_rate)
{
    return swr_alloc_set_opts(nullptr, tgt.channel_layout, tgt.fmt, tgt.sample_rate, src.channel_layout, src.fmt,
                              src_rate, 0, nullptr);
}

#pragma GCC diagnostic pop

#endif

const char* format_name(enum AVSampleFormat fmt)
{
    const char* name = av_get_sample_fmt_name(fmt);
    return name != nullptr ? name : "unknown";
}

/// The parameter record with what follows from format, rate and channels. Sizes are negative for an impossible format.
audio_param_t derived(audio_param_t param)
{
    param.channel_layout = default_channel_layout(param.channels);
    param.frame_size = av_samples_get_buffer_size(nullptr, param.channels, 1, param.fmt, 1);
    param.bytes_per_sec = av_samples_get_buffer_size(nullptr, param.channels, param.sample_rate, param.fmt, 1);
    return param;
}

/// The block's samples as the converter takes them: one pointer, or one per channel of a planar format.
struct sample_planes {
    uint8_t* data[RESAMPLE_MAX_CHANNELS]; ///< set: one for each channel

    sample_planes(uint8_t* block, int samples, const audio_param_t& param)
    {
        std::fill_n(data, param.channels, nullptr);
        data[0] = block;
        if (samples > 0 && av_sample_fmt_is_planar(param.fmt) != 0)
            av_samples_fill_arrays(data, nullptr, block, param.channels, samples, param.fmt, 1);
    }
};

/// Frees the converter after a failure. Its rate is forgotten too, so that the next frame builds a new one
/// instead of taking the missing one for none needed.
void lose_converter(resample_context_t& ctx)
{
    swr_free(&ctx.audio_swr_ctx);
    ctx.src_param.sample_rate = RESAMPLE_RATE_NONE;
}

/// Replaces the converter for frames of @p rate; false when the one that they need cannot be built.
bool follow_rate(resample_context_t& ctx, int rate, bool converts)
{
    swr_free(&ctx.audio_swr_ctx);
    log_i("original sample_rate:%d target sample_rate:%d\n", rate, ctx.tgt_param.sample_rate);
    if (converts) {
        ctx.audio_swr_ctx = create_converter(ctx.tgt_param, ctx.src_param, rate);
        if (ctx.audio_swr_ctx == nullptr || swr_init(ctx.audio_swr_ctx) < 0) {
            log_e("Cannot create sample rate converter for conversion of %d Hz %s %d channels to %d Hz %s %d "
                  "channels!\n",
                  rate, format_name(ctx.src_param.fmt), ctx.src_param.channels, ctx.tgt_param.sample_rate,
                  format_name(ctx.tgt_param.fmt), ctx.tgt_param.channels);
            lose_converter(ctx);
            return false;
        }
    }
    ctx.src_param.sample_rate = rate;
    return true;
}

/// Runs the converter on the first @p samples of @p src; the bytes it put into @p dst, or negative.
int32_t run_converter(resample_context_t& ctx, const hdmi_player_audio_frame_t& src, int samples,
                      const hdmi_player_audio_frame_t& dst, int capacity, const log_gate& gate)
{
    const sample_planes in(src.data, src.size / ctx.src_param.frame_size, ctx.src_param);
    sample_planes out(dst.data, capacity, ctx.tgt_param);
    const int len = swr_convert(ctx.audio_swr_ctx, out.data, capacity, const_cast<const uint8_t**>(in.data), samples);
    if (len < 0) {
        log_e("swr_convert failed, len:%d\n", len);
        if (swr_init(ctx.audio_swr_ctx) < 0)
            lose_converter(ctx);
        return -1;
    }
    const int32_t size = len * ctx.tgt_param.channels * av_get_bytes_per_sample(ctx.tgt_param.fmt);
    log_through(gate, __func__, LOG_LEVEL_D, "audio resample frames:%d len:%d resample_size:%d\n", samples, len, size);
    return size;
}

/// Makes @p dst of @p src as planned. False when the converter fails.
bool convert(resample_context_t& ctx, const hdmi_player_audio_frame_t& src, const conversion_plan_t& plan,
             hdmi_player_audio_frame_t& dst)
{
    if (plan.rate_changed && !follow_rate(ctx, src.sample_rate, plan.converts))
        return false;
    const int samples = src.size / ctx.src_param.frame_size;
    const int capacity = dst.buf_size / ctx.tgt_param.frame_size;
    const log_gate gate;
    log_through(gate, __func__, LOG_LEVEL_D,
                "src serial:%d pts:%lld samples:%d size:[%d %d], dst samples:%d buf_size:%d\n", src.serial,
                lli(src.pts), samples, src.size, src.buf_size, capacity, dst.buf_size);
    if (plan.converts) {
        // No more than the output was sized for: the converter would pile up the rest without bound.
        const int32_t size = run_converter(ctx, src, std::min(samples, plan.nb_frames), dst, capacity, gate);
        if (size < 0)
            return false;
        dst.size = size;
    } else {
        memcpy(dst.data, src.data, static_cast<size_t>(src.size));
        dst.size = src.size;
    }
    log_through(gate, __func__, LOG_LEVEL_D, "audio frame origin samples_size:[%d/%d], resample_size:[%d(%d)/%d]\n",
                samples, src.size, dst.size / ctx.tgt_param.frame_size, capacity, dst.size);
    return true;
}

/// The next source frame; null when none came. A source that is not started yet answers at once, and asking it again
/// and again without a pause would be a busy loop.
hdmi_player_audio_frame_t* fetch(resample_context_t& ctx, empty_answers& answers)
{
    hdmi_player_audio_frame_t* frame = ctx.input_queue_dequeue_cb(kSourceTimeoutMs);
    if (frame != nullptr)
        answers.filled();
    else
        answers.empty();
    return frame;
}

/// Makes an output frame of @p src and enqueues it in @p queue; `src` is given back in every case.
void process(resample_context_t& ctx, int32_t queue, hdmi_player_audio_frame_t* src, const char* function)
{
    const conversion_plan_t plan = plan_conversion(ctx.src_param, ctx.tgt_param, ctx.audio_swr_ctx != nullptr, *src);
    log_as(function, LOG_LEVEL_D, "nb_frames:%d buf_size:%d\n", plan.nb_frames, plan.buf_size);
    if (!plan.usable) {
        log_as(function, LOG_LEVEL_W, "invalid frame, data:%p size:%d sample_rate:%d channels:%d\n",
               static_cast<void*>(src->data), src->size, src->sample_rate, src->channels);
        ctx.input_queue_put_cb(src);
        return;
    }
    if (src->size % ctx.src_param.frame_size != 0)
        log_as(function, LOG_LEVEL_W, "frame size:%d is not whole samples\n", src->size);
    frame_info_t* dst = frame_queue_pool_acquire(queue, plan.buf_size);
    if (dst == nullptr) {
        ctx.input_queue_put_cb(src);
        if (!ctx.abort_request)
            log_as(function, LOG_LEVEL_E, "frame_queue_pool_acquire(size:%d) failed.\n", plan.buf_size);
        return;
    }
    if (!convert(ctx, *src, plan, dst->frame)) {
        ctx.input_queue_put_cb(src);
        frame_queue_put(queue, &dst->frame);
        return;
    }
    dst->frame.serial = src->serial;
    dst->frame.pts = src->pts;
    ctx.input_queue_put_cb(src);
    dst->frame.sample_rate = ctx.tgt_param.sample_rate;
    dst->frame.channels = ctx.tgt_param.channels;
    frame_queue_done_enqueue(queue, dst);
}

/// The output queue's id, for what is no entry point: the worker and a stop.
int32_t output_queue(resample_context_t& ctx)
{
    const read_guard api(ctx.api_rwlock);
    return ctx.frame_resample_queue;
}

void* audio_resample(void* arg)
{
    resample_context_t& ctx = *static_cast<resample_context_t*>(arg);
    set_thread_name("audio_resample");
    log_i("thread_id: %llx\n", llu(pthread_self()));
    const int32_t queue = output_queue(ctx);
    int32_t serial = -1;
    empty_answers answers(kIdleUs);
    while (!ctx.abort_request) {
        if (!ctx.enable_resample) {
            usleep(kIdleUs);
            continue;
        }
        hdmi_player_audio_frame_t* src = fetch(ctx, answers);
        if (src == nullptr) {
            log_d("frame_queue_done_dequeue failed.\n");
            continue;
        }
        if (src->serial != serial) {
            log_i("frame_serial:%d -> %d\n", serial, src->serial);
            serial = src->serial;
        }
        // The first frame of a new time line: what waits belongs to the old one.
        if (src->pts == 0 && frame_queue_get_done_counts(queue) > 0) {
            frame_queue_done_release(queue);
            log_w("audio resample queue need flush!\n");
        }
        process(ctx, queue, src, __func__);
    }
    log_i("exit\n");
    return nullptr;
}

/// Begins an interval without delay at @p now_us; random mode draws its length and the delay after it.
void begin_delay_interval(resample_context_t& ctx, int64_t now_us) REQUIRES(ctx.internal_mutex)
{
    ctx.dummy_alg_delay_start_time_us = now_us;
    if (ctx.enable_dummy_alg_delay == kRandomDelay) {
        ctx.dummy_alg_delay_interval = rand() % 10 + 1;
        ctx.dummy_alg_delay_time = rand() % 100 + 1;
    }
}

/// The delay due at @p now_us, in ms.
uint32_t dummy_delay_due(resample_context_t& ctx, int64_t now_us, const char* function)
{
    mutex_guard lock(ctx.internal_mutex);
    if (ctx.enable_dummy_alg_delay == 0)
        return 0;
    if (ctx.dummy_alg_delay_start_time_us <= 0) {
        if (ctx.enable_dummy_alg_delay == kRandomDelay)
            srand(static_cast<unsigned>(time(nullptr)));
        begin_delay_interval(ctx, now_us);
    }
    if (now_us - ctx.dummy_alg_delay_start_time_us <= int64_t{ctx.dummy_alg_delay_interval} * 1000000)
        return 0;
    log_as(function, LOG_LEVEL_I, "dummy alg delay %d ms\n", static_cast<int>(ctx.dummy_alg_delay_time));
    begin_delay_interval(ctx, now_us);
    return static_cast<uint32_t>(ctx.dummy_alg_delay_time);
}

/// Holds a consumer for @p milliseconds, or until a stop.
void delay(resample_context_t& ctx, uint32_t milliseconds)
{
    const struct timespec deadline = get_monotonic_timeout_us(uint64_t{milliseconds} * 1000);
    mutex_guard lock(ctx.internal_mutex);
    while (!ctx.abort_request && lock.wait_until(ctx.abort_cond, deadline) == 0) {
    }
}

/// Ends the worker, consumers blocked in the queue and those in a dummy delay.
void stop(resample_context_t& ctx) REQUIRES(ctx.lifecycle_mutex)
{
    {
        mutex_guard lock(ctx.internal_mutex);
        ctx.abort_request = true;
        pthread_cond_broadcast(&ctx.abort_cond);
    }
    const int32_t queue = output_queue(ctx);
    if (queue >= 0)
        frame_queue_abort(queue);
    if (ctx.resample_thread != 0)
        pthread_join(ctx.resample_thread, nullptr);
    ctx.resample_thread = 0;
}

/// Frees what a stopped stage holds and clears the record, except its locks.
void release(resample_context_t& ctx) REQUIRES(ctx.lifecycle_mutex, ctx.api_rwlock)
{
    swr_free(&ctx.audio_swr_ctx);
    if (ctx.frame_resample_queue >= 0)
        frame_queue_deinit(ctx.frame_resample_queue);
    ctx.frame_resample_queue = -1;
    ctx.src_param = {};
    ctx.tgt_param = {};
    ctx.enable_resample = false;
    ctx.initialized = false;
    ctx.input_queue_dequeue_cb = nullptr;
    ctx.input_queue_put_cb = nullptr;
    mutex_guard lock(ctx.internal_mutex);
    ctx.abort_request = false;
    ctx.enable_dummy_alg_delay = 0;
    ctx.dummy_alg_delay_interval = 0;
    ctx.dummy_alg_delay_time = 0;
    ctx.dummy_alg_delay_start_time_us = 0;
}

void read_switches(resample_context_t& ctx)
{
    mutex_guard lock(ctx.internal_mutex);
    ctx.enable_resample = env_get_value("debug_hdmiplayer_enable_resample", 1) != 0;
    ctx.enable_dummy_alg_delay = static_cast<uint8_t>(env_get_value("debug_hdmiplayer_dummy_alg_delay", 0));
    ctx.dummy_alg_delay_interval = env_get_value("debug_hdmiplayer_dummy_alg_delay_interval", 5);
    ctx.dummy_alg_delay_time = env_get_value("debug_hdmiplayer_dummy_alg_delay_time", 100);
}

/// Builds converter, queue and worker on a cleared record. After a failure release() frees what was built.
bool start(resample_context_t& ctx, const resample_config_t& cfg, const char* function)
    REQUIRES(ctx.lifecycle_mutex, ctx.api_rwlock)
{
    read_switches(ctx);
    log_as(function, LOG_LEVEL_I, "enable_resample:%d\n", ctx.enable_resample ? 1 : 0);
    ctx.input_queue_dequeue_cb = cfg.input_queue_dequeue_cb;
    ctx.input_queue_put_cb = cfg.input_queue_put_cb;
    ctx.src_param = derived(cfg.src_param);
    ctx.tgt_param = derived(cfg.tgt_param);
    if (ctx.src_param.channel_layout != ctx.tgt_param.channel_layout ||
        ctx.src_param.sample_rate != ctx.tgt_param.sample_rate) {
        ctx.audio_swr_ctx = create_converter(ctx.tgt_param, ctx.src_param, ctx.src_param.sample_rate);
        if (ctx.audio_swr_ctx == nullptr) {
            log_as(function, LOG_LEVEL_E, "swr_alloc_set_opts failed.\n");
            return false;
        }
        // A failure shows when the first frame is converted: frames of another rate may still be possible.
        swr_init(ctx.audio_swr_ctx);
        log_as(function, LOG_LEVEL_I,
               "input sample_rate:%d channel_layout:%d, output sample_rate:%d channel_layout:%d\n",
               ctx.src_param.sample_rate, static_cast<int>(ctx.src_param.channel_layout), ctx.tgt_param.sample_rate,
               static_cast<int>(ctx.tgt_param.channel_layout));
    }
    ctx.frame_resample_queue = frame_queue_init(kQueueFrames, "RESAMPLE");
    if (ctx.frame_resample_queue < 0) {
        log_as(function, LOG_LEVEL_E, "frame_queue_init failed.\n");
        return false;
    }
    log_as(function, LOG_LEVEL_I, "frame_resample_queue id:%d.\n", ctx.frame_resample_queue);
    if (pthread_create(&ctx.resample_thread, nullptr, audio_resample, &ctx) != 0) {
        log_as(function, LOG_LEVEL_E, "create read thread failed!\n");
        ctx.resample_thread = 0;
        return false;
    }
    return true;
}

constexpr const char* kInitializedMessage = "module has been initialized";

/// Entry points run in every state, since `initialized` is never set; without a queue they fail by themselves.
bool is_open() { return !g_resample_ctx.initialized; }

/// Null while it is an init or deinit that refuses calls: that logs nothing.
const char* refusal() { return g_resample_ctx.initialized ? kInitializedMessage : nullptr; }

} // namespace

int32_t audio_resample_init(resample_config_t cfg)
{
    log_i(">>> enter!\n");
    if (cfg.input_queue_dequeue_cb == nullptr || cfg.input_queue_put_cb == nullptr) {
        log_e("invalid callback function.\n");
        return -1;
    }
    resample_context_t& ctx = g_resample_ctx;
    mutex_guard lifecycle(ctx.lifecycle_mutex);
    if (!ctx.initialized)
        stop(ctx); // the worker of a stage that runs uses the record that is rebuilt here
    {
        write_guard lock(ctx.api_rwlock);
        if (ctx.initialized) {
            log_w("%s\n", kInitializedMessage);
            return -1;
        }
        release(ctx);
        if (!start(ctx, cfg, __func__)) {
            release(ctx);
            return -1;
        }
    }
    log_i("done! <<<\n");
    return 0;
}

int32_t audio_resample_deinit(void)
{
    log_i(">>> enter!\n");
    resample_context_t& ctx = g_resample_ctx;
    mutex_guard lifecycle(ctx.lifecycle_mutex);
    if (ctx.initialized) {
        log_w("%s\n", kInitializedMessage);
        return -1;
    }
    stop(ctx);
    {
        write_guard lock(ctx.api_rwlock);
        release(ctx);
    }
    log_i("done! <<<\n");
    return 0;
}

int32_t audio_resample_get_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms)
{
    if (missing(frame, "frame is null."))
        return -1;
    resample_context_t& ctx = g_resample_ctx;
    const entry_guard api(ctx.api_rwlock, is_open, LOG_LEVEL_W, refusal());
    if (!api)
        return -1;
    frame_info_t* done = frame_queue_done_dequeue(ctx.frame_resample_queue, timeout_ms);
    if (done == nullptr) {
        log_d("frame_queue_done_dequeue failed.\n");
        return -1;
    }
    *frame = &done->frame;
    const uint32_t delay_ms = dummy_delay_due(ctx, static_cast<int64_t>(get_system_time_us()), __func__);
    if (delay_ms > 0)
        delay(ctx, delay_ms);
    return 0;
}

int32_t audio_resample_put_pcm_frame(hdmi_player_audio_frame_t* frame)
{
    if (missing(frame, "frame is null."))
        return -1;
    const entry_guard api(g_resample_ctx.api_rwlock, is_open, LOG_LEVEL_W, refusal());
    if (!api)
        return -1;
    return frame_queue_put(g_resample_ctx.frame_resample_queue, frame);
}

bool audio_resample_is_enable_resample(void)
{
    const entry_guard api(g_resample_ctx.api_rwlock, is_open, LOG_LEVEL_W, refusal());
    return api && g_resample_ctx.enable_resample;
}
