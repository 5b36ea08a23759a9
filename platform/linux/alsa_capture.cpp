// SPDX-License-Identifier: MIT
#include "alsa_capture.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "alsa_cards.h"
#include "alsa_clock.h"
#include "alsa_limits.h"
#include "alsa_output.h"
#include "config.h"
#include "contained.h"
#include "internal/common.h"

namespace hdmi_linux
{
namespace
{

constexpr int kDefaultRate = 48000;
/// Bursts travel as stereo.
constexpr int kBurstChannels = 2;

/// Pause before silence is delivered again.
constexpr int kSilenceMs = 5;
/// At most this much silence is delivered late: a longer time means that nobody was reading.
constexpr int64_t kMostSilenceNs = kNsPerSecond;
/// Pause of the forwarding thread after a read that failed.
constexpr int kForwardPauseMs = 10;
/// The priority of the player's capture thread, which this thread replaces.
constexpr int kForwardPriority = 99;

bool passes_bursts(const audio_config_t& config) { return config.in_bypass_mode == E_AUDIO_IN_BYPASS_MODE_TO_RAW; }

bool valid(const audio_config_t& config)
{
    return valid_request(config) && config.sample_rate >= 0 &&
           (!passes_bursts(config) || config.channels == kBurstChannels);
}

PcmRequest request_for(const audio_config_t& config)
{
    const Config settings = current_config();
    const AudioDeviceConfig& device = settings.audio[config.device_id];
    PcmRequest request;
    request.name = config.pcm_name != nullptr ? config.pcm_name : device.pcm;
    if (request.name.empty())
        request.name = first_capture_device();
    request.stream = SND_PCM_STREAM_CAPTURE;
    request.channels = config.channels;
    request.rate = config.sample_rate > 0 ? config.sample_rate : kDefaultRate;
    request.period_frames = config.period_frames;
    request.period_count = device.periods > 0 ? device.periods : config.period_count;
    request.resample = device.resample;
    return request;
}

} // namespace

Capture& capture()
{
    static auto* instance = new Capture(output());
    return *instance;
}

// --- Opening and closing ----------------------------------------------------------

int Capture::open(const audio_config_t& config)
{
    if (!valid(config))
        return -EINVAL;
    const bool to_raw = passes_bursts(config);
    mutex_guard control(control_);
    const PcmRequest request = request_for(config);
    mutex_guard guard(mutex_);
    if (state_ != State::closed)
        return -EBUSY;
    guard.unlock();
    // Joins the forwarder of an earlier open that another thread is still closing.
    end_forwarding();
    Pcm pcm;
    std::string why;
    const int err = pcm.open(request, &why);
    guard.lock();
    report_opening(config, request, err, why);
    if (err < 0)
        return err;
    ++opening_;
    stats_.opens++;
    forwarding_ = to_raw;
    frame_bytes_ = config.channels * kBytesPerSample;
    position_ = 0;
    moved_ns_ = now_ns();
    silent_ = 0;
    owed_ = 0;
    ring_ = to_raw ? SoundRing(config.period_frames * config.period_count, frame_bytes_) : SoundRing();
    install(std::move(pcm), request);
    const uint64_t opening = opening_;
    guard.unlock();
    if (!to_raw)
        return 0;
    return start_forwarding(config, request.rate, opening) ? 0 : -EAGAIN;
}

// Logs each refusal once, because the player tries again every ten milliseconds.
void Capture::report_opening(const audio_config_t& config, const PcmRequest& request, int err, const std::string& why)
{
    const std::string refusal = err < 0 ? request.name + ": " + why : std::string();
    if (err < 0 && refusal != last_refusal_)
        log_e("%s cannot capture: %s\n", device_key(config.device_id), refusal.c_str());
    last_refusal_ = refusal;
}

void Capture::install(Pcm pcm, const PcmRequest& request)
{
    pcm_ = std::move(pcm);
    request_ = request;
    state_ = State::working;
    clock_ = {++clocks_, 0, pcm_.card(), request.rate, 0, 0};
    taken_ = 0;
    tell_clock();
    const std::string text = "captures from " + note_opening(request, pcm_, &stats_);
    if (text != last_report_)
        log_i("%s\n", text.c_str());
    last_report_ = text;
}

int Capture::close()
{
    // First, and without waiting: ends a read that is blocked.
    uint64_t closing = 0;
    {
        mutex_guard guard(mutex_);
        if (state_ == State::closed)
            return 0;
        state_ = State::closed;
        closing = ++opening_;
        opener_.abandon();
        pthread_cond_broadcast(&arrived_);
        gate_.evict(guard);
        // Another thread may have opened it again meanwhile.
        if (opening_ == closing) {
            pcm_.close();
            end_clock();
        }
    }
    mutex_guard control(control_);
    {
        mutex_guard guard(mutex_);
        if (opening_ != closing)
            return 0;
    }
    end_forwarding();
    return 0;
}

// --- Reading ----------------------------------------------------------------------

int Capture::read(uint8_t* data, int size)
{
    if (data == nullptr || size < 0)
        return -EINVAL;
    mutex_guard guard(mutex_);
    if (state_ == State::closed)
        return kClosed;
    const int frames = size / frame_bytes_;
    const int result = forwarding_ ? take_forwarded(guard, data, frames) : fetch(guard, data, frames);
    if (result < 0)
        return result;
    stats_.frames += result;
    return result * frame_bytes_;
}

// @return @p frames, or an error code.
int Capture::fetch(mutex_guard& guard, uint8_t* data, int frames)
{
    const uint64_t opening = opening_;
    int done = 0;
    for (int recoveries = 0; done < frames;) {
        const int err = recover();
        uint8_t* rest = data + static_cast<size_t>(done) * frame_bytes_;
        const int64_t due = err < 0 ? silence_due(now_ns()) : owed_;
        if (due > 0) {
            done += fill_silence(rest, frames - done, due);
            continue;
        }
        if (err < 0) {
            gate_.wait(guard, nullptr, kSilenceMs);
            if (opening_ != opening)
                return kClosed;
            continue;
        }
        note_clock();
        const int result = pcm_.read(rest, frames - done);
        if (result > 0) {
            gate_.moved();
            done += result;
            taken_ += result;
            recoveries = 0;
            moved_ns_ = now_ns();
            silent_ = 0;
            if (done == frames)
                stats_.waiting = std::max(pcm_.delay(), 0);
            continue;
        }
        const StreamError error = pcm_.classify(result);
        if (error != StreamError::none) {
            handle_error(++recoveries <= kMaxRecoveries ? error : StreamError::lost, result);
        } else {
            gate_.wait(guard, &pcm_, kPollMs);
            if (opening_ != opening)
                return kClosed;
        }
    }
    return done;
}

void Capture::tell_clock() { output_.captured(clock_); }

// Before a read, see Pcm::stamp().
void Capture::note_clock()
{
    const std::optional<PcmStamp> stamp = pcm_.stamp();
    if (!stamp)
        return;
    clock_.ns = stamp->ns;
    clock_.frames = taken_ + stamp->frames;
    tell_clock();
}

void Capture::end_clock()
{
    clock_ = {};
    tell_clock();
}

// The device has stopped. Frames still in its buffer count as elapsed time, unless there was no signal.
void Capture::note_silence(int64_t now)
{
    const int64_t collected = ns_of(pcm_.buffer_frames(), request_.rate);
    if (now - moved_ns_ <= collected)
        return;
    moved_ns_ = now;
    silent_ = 0;
}

// While a device is gone, silence takes the place of its frames. Without it, all sound that follows would be early.
int64_t Capture::silence_due(int64_t now)
{
    const int64_t due = frames_in(now - moved_ns_, request_.rate) - silent_;
    const int64_t most = frames_in(kMostSilenceNs, request_.rate);
    if (due <= most)
        return due;
    silent_ += due - most;
    return most;
}

// @return how many frames were stored.
int Capture::fill_silence(uint8_t* data, int frames, int64_t due)
{
    const auto count = static_cast<int>(std::min<int64_t>(frames, due));
    memset(data, 0, static_cast<size_t>(count) * frame_bytes_);
    silent_ += count;
    owed_ = std::max<int64_t>(0, owed_ - count);
    stats_.frames_lost += count;
    return count;
}

int Capture::take_forwarded(mutex_guard& guard, uint8_t* data, int frames)
{
    const uint64_t opening = opening_;
    // A read of more than the ring holds is filled in parts.
    for (int done = 0; done < frames;) {
        if (opening_ != opening)
            return kClosed;
        if (position_ < ring_.oldest()) {
            position_ = ring_.oldest();
            note_overrun();
        }
        const SoundRing::Piece piece = ring_.piece(position_, frames - done);
        if (piece.frames > 0) {
            memcpy(data + static_cast<size_t>(done) * frame_bytes_, piece.data,
                   static_cast<size_t>(piece.frames) * frame_bytes_);
            position_ += piece.frames;
            done += piece.frames;
        } else {
            guard.wait(arrived_);
        }
    }
    return frames;
}

// --- Forwarding -------------------------------------------------------------------

bool Capture::start_forwarding(const audio_config_t& config, int rate, uint64_t opening)
{
    try {
        output_.start_pass_through(config, rate);
        std::vector<uint8_t> period(static_cast<size_t>(config.period_frames) * config.channels * kBytesPerSample);
        forwarder_ = std::thread(&Capture::forward, this, opening, std::move(period));
    } catch (const std::exception&) { // no memory, or no thread
        log_e("no thread to pass coded sound through\n");
        output_.stop_pass_through();
        mutex_guard guard(mutex_);
        state_ = State::closed;
        ++opening_;
        pcm_.close();
        end_clock();
        return false;
    }
    struct sched_param priority = {};
    priority.sched_priority = kForwardPriority;
    // Without the permission it runs at normal priority, as the player's own threads do.
    (void)pthread_setschedparam(forwarder_.native_handle(), SCHED_RR, &priority);
    return true;
}

// Only when the device is closed: that is what ends the thread.
void Capture::end_forwarding()
{
    if (!forwarder_.joinable())
        return;
    forwarder_.join();
    output_.stop_pass_through();
}

void Capture::forward(uint64_t opening, std::vector<uint8_t> period)
{
    set_thread_name("audio_bypass");
    mutex_guard guard(mutex_);
    const int frames = static_cast<int>(period.size()) / frame_bytes_;
    while (opening_ == opening) {
        const int result =
            contained([&]() NO_THREAD_SAFETY_ANALYSIS { return fetch(guard, period.data(), frames); }, -ENOMEM);
        if (result < 0) {
            pthread_cond_broadcast(&arrived_);
            if (opening_ == opening)
                gate_.wait(guard, nullptr, kForwardPauseMs);
            continue;
        }
        const CaptureClock clock = clock_;
        guard.unlock();
        contained([&] { return output_.pass_through(period.data(), frames, clock), 0; }, 0);
        guard.lock();
        ring_.append(period.data(), frames);
        pthread_cond_broadcast(&arrived_);
    }
}

// --- Errors and recovery ------------------------------------------------------------

void Capture::handle_error(StreamError error, int err)
{
    switch (error) {
    case StreamError::none: break;
    case StreamError::xrun: recover_xrun(); break;
    case StreamError::suspended:
        log_w("%s is suspended\n", request_.name.c_str());
        stats_.suspends++;
        state_ = State::suspended;
        clock_.breaks++;
        failed_ns_ = retry_ns_ = now_ns();
        note_silence(failed_ns_);
        break;
    case StreamError::lost: lose(err); break;
    }
}

void Capture::note_overrun()
{
    stats_.xruns++;
    const int64_t now = now_ns();
    if (xrun_log_ns_ != 0 && now - xrun_log_ns_ < kXrunLogNs)
        return;
    log_w("%s was not read in time, %lld times so far\n", request_.name.c_str(), static_cast<long long>(stats_.xruns));
    xrun_log_ns_ = now;
}

void Capture::recover_xrun()
{
    clock_.breaks++;
    if (const int err = pcm_.restart(); err < 0)
        lose(err);
    else
        note_overrun();
}

void Capture::lose(int err)
{
    log_w("%s is gone: %s; looking for it until it is back\n", request_.name.c_str(), snd_strerror(err));
    stats_.losses++;
    const int64_t now = now_ns();
    if (state_ == State::working) {
        failed_ns_ = now;
        note_silence(now);
    }
    state_ = State::lost;
    opener_.abandon();
    retry_ns_ = retry_after_loss(now, back_ns_);
    pcm_.close();
    end_clock();
}

// @return 0 when the device works, or an error code.
int Capture::recover()
{
    switch (state_) {
    case State::closed: return kClosed;
    case State::working: return 0;
    case State::suspended: return recover_suspend();
    case State::lost: return recover_loss();
    }
    return 0;
}

int Capture::recover_suspend()
{
    const int64_t now = now_ns();
    if (now < retry_ns_)
        return -ESTRPIPE;
    const int err = pcm_.resume();
    if (err == -EAGAIN && now - failed_ns_ < kResumeLimitNs)
        retry_ns_ = now + kResumePauseNs;
    else if (err < 0)
        lose(err);
    else
        recovered();
    return err;
}

int Capture::recover_loss()
{
    if (now_ns() < retry_ns_)
        return -ENODEV;
    Pcm pcm;
    const int err = opener_.attempt(request_, &pcm);
    if (err < 0 && err != -EINPROGRESS)
        retry_ns_ = now_ns() + kReopenPauseNs;
    if (err < 0)
        return -ENODEV;
    install(std::move(pcm), PcmRequest(request_));
    recovered();
    return 0;
}

void Capture::recovered()
{
    const int64_t now = now_ns();
    state_ = State::working;
    back_ns_ = now;
    // The device may have captured frames before this thread found that it is back.
    owed_ = std::max<int64_t>(silence_due(now) - std::max(pcm_.delay(), 0), 0);
    stats_.recoveries++;
    stats_.recovery_us = (now - failed_ns_) / kNsPerUs;
    log_w("%s is back after %lld ms\n", request_.name.c_str(), static_cast<long long>((now - failed_ns_) / kNsPerMs));
}

DeviceStats Capture::stats()
{
    mutex_guard guard(mutex_);
    DeviceStats stats = stats_;
    stats.open = state_ != State::closed;
    stats.lost = stats.open && state_ != State::working;
    return stats;
}

} // namespace hdmi_linux
