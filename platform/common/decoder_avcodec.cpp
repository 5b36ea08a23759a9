// SPDX-License-Identifier: MIT
/**
 * @file
 * The decoder of compressed audio on libavcodec.
 *
 * Every frame is decoded as soon as its last byte was written. A damaged or lost
 * frame is concealed, or replaced by silence of its duration, so that the sound
 * after it keeps its place in time. Frames that never came are found by the time
 * that has passed (frame_clock.h). Noise is generated consistently (the
 * decoder's "cons_noisegen"): equal input gives equal output.
 *
 * Memory: at most the framer's 40 kB of input, in the asynchronous mode two
 * blocks of 64 kB more, and 17 frames of PCM. While the PCM is full, a write
 * accepts nothing.
 */
#include "decoder_avcodec.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <exception>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/downmix_info.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "ac3_framer.h"
#include "frame_clock.h"
#include "internal/locks.h"
#include "time_line.h"

namespace
{

constexpr size_t kPcmFramesMax = 16 * ac3::kFrameSamplesMax;
constexpr size_t kPendingBytesMax = 64 * 1024;

int64_t monotonic_us()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::atomic<decoder_avcodec::Clock> g_clock{monotonic_us};

struct AvDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(SwrContext* converter) const { swr_free(&converter); }
};
template <typename Type> using AvPtr = std::unique_ptr<Type, AvDeleter>;

/// Decoded PCM between the writing and the reading thread: a ring of constant size.
class PcmRing
{
public:
    explicit PcmRing(size_t channels) : channels_(channels), samples_(kPcmFramesMax * channels) {}

    size_t frames() const
    {
        mutex_guard lock(mutex_);
        return count_ / channels_;
    }
    size_t room() const { return kPcmFramesMax - frames(); }

    /// Drops frames for which there is no room.
    void push(const int16_t* data, size_t frames)
    {
        push_with(frames, [&data](int16_t* to, size_t samples) {
            std::copy_n(data, samples, to);
            data += samples;
        });
    }
    void push_silence(size_t frames)
    {
        push_with(frames, [](int16_t* to, size_t samples) { std::fill_n(to, samples, int16_t{0}); });
    }

    /// @return how many frames it has stored in @p data, at most @p frames.
    size_t pop(int16_t* data, size_t frames)
    {
        mutex_guard lock(mutex_);
        const size_t samples = std::min(frames * channels_, count_);
        const size_t first = std::min(samples, samples_.size() - head_);
        std::copy_n(samples_.data() + head_, first, data);
        std::copy_n(samples_.data(), samples - first, data + first);
        head_ = (head_ + samples) % samples_.size();
        count_ -= samples;
        return samples / channels_;
    }

private:
    template <typename Fill> void push_with(size_t frames, Fill fill)
    {
        mutex_guard lock(mutex_);
        const size_t samples = std::min(frames * channels_, samples_.size() - count_);
        const size_t tail = (head_ + count_) % samples_.size();
        const size_t first = std::min(samples, samples_.size() - tail);
        fill(samples_.data() + tail, first);
        fill(samples_.data(), samples - first);
        count_ += samples;
    }

    const size_t channels_;
    mutable mutex_t mutex_;
    std::vector<int16_t> samples_ GUARDED_BY(mutex_); ///< of constant size
    size_t head_ GUARDED_BY(mutex_) = 0;
    size_t count_ GUARDED_BY(mutex_) = 0;
};

/// The levels at which channels are mixed into an output that lacks them.
struct MixLevels {
    double center = 0;
    double surround = 0;
    double lfe = 0;

    bool operator==(const MixLevels& other) const
    {
        return center == other.center && surround == other.surround && lfe == other.lfe;
    }
};

MixLevels mix_levels(const AVFrame& frame)
{
    const AVFrameSideData* side = av_frame_get_side_data(&frame, AV_FRAME_DATA_DOWNMIX_INFO);
    if (side == nullptr)
        return {M_SQRT1_2, M_SQRT1_2, 0};
    const auto* info = reinterpret_cast<const AVDownmixInfo*>(side->data);
    if (info->preferred_downmix_type == AV_DOWNMIX_TYPE_LTRT)
        return {info->center_mix_level_ltrt, info->surround_mix_level_ltrt, info->lfe_mix_level};
    return {info->center_mix_level, info->surround_mix_level, info->lfe_mix_level};
}

/// libswresample's vector code needs this alignment on ARM. It rounds differently from the code for other addresses, so
/// that equal input gives equal output only at aligned ones; malloc() aligns to 8 there.
constexpr size_t kVectorBytes = 16;

/// Converts the codec's samples to interleaved 16-bit samples in the requested layout.
class Converter
{
public:
    explicit Converter(int channels) { av_channel_layout_default(&target_, channels); }
    ~Converter()
    {
        av_channel_layout_uninit(&target_);
        av_channel_layout_uninit(&source_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// Appends the frame to @p pcm. @return false on failure.
    bool convert(const AVFrame& frame, std::vector<int16_t>* pcm)
    {
        if (!follow(frame))
            return false;
        auto* to = reinterpret_cast<uint8_t*>(samples_.data());
        const int frames = swr_convert(swr_.get(), &to, static_cast<int>(ac3::kFrameSamplesMax),
                                       const_cast<const uint8_t**>(frame.extended_data), frame.nb_samples);
        const auto samples = static_cast<size_t>(std::max(frames, 0)) * static_cast<size_t>(target_.nb_channels);
        pcm->insert(pcm->end(), samples_.data(), samples_.data() + samples);
        return frames >= 0;
    }

private:
    bool follow(const AVFrame& frame)
    {
        const MixLevels levels = mix_levels(frame);
        if (swr_ != nullptr && levels == levels_ && rate_ == frame.sample_rate && format_ == frame.format &&
            av_channel_layout_compare(&source_, &frame.ch_layout) == 0)
            return true;
        swr_.reset();
        SwrContext* swr = nullptr;
        if (av_channel_layout_copy(&source_, &frame.ch_layout) < 0 ||
            swr_alloc_set_opts2(&swr, &target_, AV_SAMPLE_FMT_S16, frame.sample_rate, &source_,
                                static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr) < 0)
            return false;
        AvPtr<SwrContext> fresh(swr);
        av_opt_set_double(swr, "center_mix_level", levels.center, 0);
        av_opt_set_double(swr, "surround_mix_level", levels.surround, 0);
        av_opt_set_double(swr, "lfe_mix_level", levels.lfe, 0);
        if (swr_init(swr) < 0)
            return false;
        swr_ = std::move(fresh);
        levels_ = levels;
        rate_ = frame.sample_rate;
        format_ = frame.format;
        return true;
    }

    alignas(kVectorBytes) std::array<int16_t, ac3::kFrameSamplesMax * ADECODER_CHANNEL_MAX> samples_;
    AVChannelLayout target_ = {};
    AVChannelLayout source_ = {};
    AvPtr<SwrContext> swr_;
    MixLevels levels_;
    int rate_ = 0;
    int format_ = AV_SAMPLE_FMT_NONE;
};

/// Decodes one unit at a time to PCM.
class UnitDecoder
{
public:
    explicit UnitDecoder(int channels) : converter_(channels), frame_(av_frame_alloc()), packet_(av_packet_alloc())
    {
        // The E-AC-3 decoder also decodes AC-3, and AC-3 with E-AC-3 extensions.
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_EAC3);
        if (codec == nullptr || frame_ == nullptr || packet_ == nullptr)
            return;
        AvPtr<AVCodecContext> context(avcodec_alloc_context3(codec));
        if (context == nullptr)
            return;
        context->thread_count = 1;
        // Damage on the link is expected. The status of the write reports it.
        context->log_level_offset = AV_LOG_VERBOSE - AV_LOG_ERROR;
        av_opt_set_int(context->priv_data, "cons_noisegen", 1, 0);
        if (avcodec_open2(context.get(), codec, nullptr) == 0)
            context_ = std::move(context);
    }

    bool ready() const { return context_ != nullptr; }
    int32_t rate() const { return rate_; }

    /// @return false when decoding failed; @p pcm then holds what was decoded nevertheless.
    bool decode(const ac3::Unit& unit, std::vector<int16_t>* pcm)
    {
        pcm->clear();
        // Frames with a wrong check sum are concealed, unless no frame of the stream had a right one.
        seen_intact_ = seen_intact_ || unit.intact;
        context_->err_recognition = seen_intact_ ? AV_EF_CRCCHECK : 0;
        if (av_new_packet(packet_.get(), static_cast<int>(unit.bytes)) < 0)
            return false;
        std::copy_n(unit.data, unit.bytes, packet_->data);
        bool good = avcodec_send_packet(context_.get(), packet_.get()) == 0;
        av_packet_unref(packet_.get());
        while (avcodec_receive_frame(context_.get(), frame_.get()) == 0) {
            // If the first frame of a stream is damaged, the decoder conceals it without a rate.
            if (frame_->sample_rate > 0 && converter_.convert(*frame_, pcm))
                rate_ = frame_->sample_rate;
            else
                good = false;
            av_frame_unref(frame_.get());
        }
        return good && !pcm->empty();
    }

private:
    Converter converter_;
    AvPtr<AVFrame> frame_;
    AvPtr<AVPacket> packet_;
    AvPtr<AVCodecContext> context_;
    bool seen_intact_ = false;
    std::atomic<int32_t> rate_{0};
};

/// Turns bytes into PCM. One thread at a time feeds it.
class Pipeline
{
public:
    explicit Pipeline(int channels)
        : channels_(static_cast<size_t>(channels)), decoder_(channels), pcm_(static_cast<size_t>(channels))
    {
        // Here, so that lack of memory fails the init and not the decoding.
        scratch_.reserve(ac3::kFrameSamplesMax * channels_);
    }

    bool ready() const { return decoder_.ready(); }
    int32_t rate() const { return decoder_.rate(); }
    PcmRing& pcm() { return pcm_; }

    /// @return bytes accepted: fewer than @p bytes when the PCM is full.
    size_t feed(const uint8_t* data, size_t bytes, bool* failed)
    {
        const int64_t now_us = g_clock.load()();
        size_t taken = 0;
        while (decode_complete(now_us, failed) && taken < bytes)
            taken += framer_.write(data + taken, bytes - taken);
        return taken;
    }

    /// PCM frames stored, at most @p frames.
    size_t read(int16_t* data, size_t frames)
    {
        mutex_guard lock(mutex_);
        follow_time_line();
        const bool due = pcm_.frames() == 0 && !time_line::is_quiet(time_line::kQuiet) && !time_line::is_catching_up();
        const size_t room = due ? pcm_.room() : 0;
        pcm_.push_silence(static_cast<size_t>(frame_clock_.starving(g_clock.load()(), static_cast<int64_t>(room))));
        const size_t stored = pcm_.pop(data, frames);
        unasked_blocks_ += stored > 0 ? 1 : 0;
        return stored;
    }

    /// The reader asks once for each block that it was given.
    void note_rate_asked()
    {
        mutex_guard lock(mutex_);
        if (unasked_blocks_ > 0)
            unasked_blocks_--;
        else
            frame_clock_.restart(); // a block of the player's own
    }

private:
    // Decodes all complete units. @return false when the PCM is full.
    bool decode_complete(int64_t now_us, bool* failed)
    {
        ac3::Unit unit = {};
        while (pcm_.room() >= ac3::kFrameSamplesMax) {
            if (!framer_.next(&unit))
                return true;
            const bool started = decoder_.rate() != 0;
            const bool decoded = decoder_.decode(unit, &scratch_);
            *failed = !decoded || unit.lost > 0 || !unit.intact || *failed;
            if (scratch_.empty() && started)
                scratch_.assign(unit.samples * channels_, 0);
            if (!scratch_.empty())
                queue(now_us, started ? unit.lost * unit.samples : 0, !decoded || !unit.intact);
        }
        return false;
    }

    // Silence stands for what was lost before it, so that it keeps its place in time.
    void queue(int64_t now_us, uint32_t lost, bool made_up)
    {
        const size_t frames = scratch_.size() / channels_;
        mutex_guard lock(mutex_);
        follow_time_line();
        const size_t room = pcm_.room();
        const ac3::Correction correction =
            frame_clock_.frame_came(now_us, {decoder_.rate(), static_cast<int64_t>(frames), lost, made_up},
                                    static_cast<int64_t>(room - std::min(room, frames)));
        pcm_.push_silence(static_cast<size_t>(correction.silence));
        const auto skip = static_cast<size_t>(correction.skip);
        pcm_.push(scratch_.data() + skip * channels_, frames - skip);
    }

    void follow_time_line() REQUIRES(mutex_)
    {
        const uint32_t present = time_line::present();
        if (std::exchange(time_line_, present) != present)
            frame_clock_.restart();
        else if (time_line::is_quiet(time_line::kNoSignal))
            frame_clock_.paused();
    }

    const size_t channels_;
    ac3::Framer framer_;
    UnitDecoder decoder_;
    PcmRing pcm_;
    std::vector<int16_t> scratch_;
    mutex_t mutex_;
    ac3::FrameClock frame_clock_ GUARDED_BY(mutex_);
    uint32_t time_line_ GUARDED_BY(mutex_) = time_line::present();
    uint32_t unasked_blocks_ GUARDED_BY(mutex_) = 0; ///< read, but the rate was not asked for yet
};

} // namespace

struct adecoder_handle {
    adecoder_handle(int channels, bool async_mode) : channels(channels), async(async_mode), pipeline(channels)
    {
        if (async && pipeline.ready())
            worker = std::thread(&adecoder_handle::run, this);
    }
    ~adecoder_handle()
    {
        {
            mutex_guard lock(mutex);
            stopping = true;
        }
        pthread_cond_broadcast(&changed);
        if (worker.joinable())
            worker.join();
    }

    int32_t write(const uint8_t* data, size_t bytes, int32_t* status)
    {
        bool bad = false;
        const size_t taken = async ? enqueue(data, bytes, &bad) : pipeline.feed(data, bytes, &bad);
        *status = pipeline.pcm().frames() > 0 ? 1 : bad ? -1 : 0;
        return static_cast<int32_t>(taken);
    }

    int32_t read(void* buffer, int32_t bytes)
    {
        const auto frame_bytes = static_cast<size_t>(channels) * sizeof(int16_t);
        const size_t frames = pipeline.read(static_cast<int16_t*>(buffer), static_cast<size_t>(bytes) / frame_bytes);
        if (async && frames > 0) {
            // Under the mutex, so that the worker is not between its test of the room and its wait.
            mutex_guard lock(mutex);
            pthread_cond_broadcast(&changed);
        }
        return static_cast<int32_t>(frames * frame_bytes);
    }

    size_t enqueue(const uint8_t* data, size_t bytes, bool* bad)
    {
        mutex_guard lock(mutex);
        const size_t taken = std::min(bytes, kPendingBytesMax - pending.size());
        pending.insert(pending.end(), data, data + taken);
        *bad = failed;
        failed = false;
        pthread_cond_broadcast(&changed);
        return taken;
    }

    // @return bytes accepted. Where memory is short, all of them: they are lost.
    size_t feed(const uint8_t* data, size_t bytes, bool* bad)
    {
        try {
            return pipeline.feed(data, bytes, bad);
        } catch (const std::bad_alloc&) {
            *bad = true;
            return bytes;
        }
    }

    bool has_room() { return pipeline.pcm().room() >= ac3::kFrameSamplesMax; }

    // The worker of the asynchronous mode.
    void run()
    {
        pthread_setname_np(pthread_self(), "adecoder");
        std::vector<uint8_t> block;
        mutex_guard lock(mutex);
        for (;;) {
            while (!stopping && pending.empty())
                lock.wait(changed);
            if (stopping)
                return;
            block.clear();
            block.swap(pending);
            // When the ring is full, complete units may remain even after all bytes were accepted.
            for (size_t at = 0; !stopping && (at < block.size() || !has_room());) {
                while (!stopping && !has_room())
                    lock.wait(changed);
                lock.unlock();
                bool bad = false;
                at += feed(block.data() + at, block.size() - at, &bad);
                lock.lock();
                failed = failed || bad;
            }
        }
    }

    const int channels;
    const bool async;
    Pipeline pipeline;
    // For the asynchronous mode only.
    mutex_t mutex;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER; ///< any of what the mutex guards, or the PCM's room
    std::vector<uint8_t> pending GUARDED_BY(mutex);
    bool failed GUARDED_BY(mutex) = false;
    bool stopping GUARDED_BY(mutex) = false;
    std::thread worker;
};

namespace decoder_avcodec
{

adecoder_handle_t* open(adecoder_format_t format, adecoder_channel_t num_channel, bool async_mode)
{
    if ((format != ADECODER_FORMAT_AC3 && format != ADECODER_FORMAT_EAC3) || num_channel < ADECODER_CHANNEL_MONO ||
        num_channel >= ADECODER_CHANNEL_MAX)
        return nullptr;
    try {
        auto handle = std::make_unique<adecoder_handle>(num_channel + 1, async_mode);
        return handle->pipeline.ready() ? handle.release() : nullptr;
    } catch (const std::exception&) {
        return nullptr; // no memory, or no thread
    }
}

int32_t write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t* status)
{
    int32_t ignored = 0;
    if (handle == nullptr || data == nullptr || bytes < 0)
        return -1;
    try {
        return handle->write(static_cast<const uint8_t*>(data), static_cast<size_t>(bytes),
                             status != nullptr ? status : &ignored);
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int32_t read(adecoder_handle_t* handle, void* buffer, int32_t buffer_size)
{
    if (handle == nullptr || buffer == nullptr || buffer_size < 0)
        return -1;
    return handle->read(buffer, buffer_size);
}

int32_t output_sample_rate(adecoder_handle_t* handle)
{
    if (handle == nullptr)
        return 0;
    handle->pipeline.note_rate_asked();
    return handle->pipeline.rate();
}

int32_t close(adecoder_handle_t* handle)
{
    delete handle;
    return handle != nullptr ? 0 : -1;
}

void set_clock(Clock clock) { g_clock = clock != nullptr ? clock : monotonic_us; }

} // namespace decoder_avcodec
