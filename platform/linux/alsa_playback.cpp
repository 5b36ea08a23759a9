// SPDX-License-Identifier: MIT
#include "alsa_playback.h"

#include <algorithm>
#include <cerrno>

#include "alsa_clock.h"
#include "alsa_limits.h"
#include "internal/common.h"

namespace hdmi_linux
{
namespace
{

/// The ring holds this many of the asked buffers, and seconds: a sound server's delay is longer than the buffer in
/// front of it, and the configuration may ask for more.
constexpr int kRingBuffers = 8;
constexpr int kRingSeconds = 2;
/// A device that takes nothing for its whole buffer and this much longer is lost. A sound server may be silent for two
/// seconds before its idle sink wakes up.
constexpr int64_t kStuckNs = 3 * kNsPerSecond;
/// What a device says of its delay is checked against the clock for so long after its start; their paces differ.
constexpr int64_t kFreshNs = kNsPerSecond;
/// Between two looks at an opening in progress.
constexpr int64_t kOpeningLookNs = 10 * kNsPerMs;
/// The device is not asked.
constexpr int kNoDelay = -ENODEV;

} // namespace

// --- Opening and closing ----------------------------------------------------------

PcmRequest Playback::request_for(const Config& config, int device) const
{
    PcmRequest request;
    const bool named = config_.pcm_name != nullptr && device == config_.device_id;
    request.name = named ? config_.pcm_name : config.audio[device].pcm;
    request.channels = config_.channels;
    request.rate = config_.sample_rate;
    if (is_digital(device))
        say_status(&request, false);
    request.period_frames = config_.period_frames;
    const int periods = config.audio[device].periods;
    request.period_count = periods > 0 ? periods : config_.period_count;
    request.start_periods = config.start_periods;
    request.resample = config.audio[device].resample;
    return request;
}

void Playback::begin(const audio_config_t& config)
{
    config_ = config;
    sent_ = heard_ = lost_at_ = 0;
    heard_ns_ = progress_ns_ = now_ns();
    moving_ = false;
    const int buffer = config.period_frames * config.period_count;
    const int frame_bytes = config.channels * kBytesPerSample;
    ring_ = SoundRing(std::max(buffer * kRingBuffers, config.sample_rate * kRingSeconds), frame_bytes);
    scaled_ = std::make_unique<int16_t[]>(static_cast<size_t>(config.period_frames) * config.channels);
}

int Playback::open(const audio_config_t& config)
{
    const Config settings = current_config();
    mutex_guard guard(mutex_);
    if (state_ != State::closed)
        return -EBUSY;
    begin(config);
    const PcmRequest request = request_for(settings, config.device_id);
    Pcm pcm;
    std::string why;
    const int err = pcm.open(request, &why);
    if (err < 0) {
        const std::string refusal = request.name + ": " + why;
        // The player tries again for every block.
        if (refusal != last_refusal_)
            log_e("%s cannot play: %s\n", device_key(config.device_id), refusal.c_str());
        last_refusal_ = refusal;
        return err;
    }
    last_refusal_.clear();
    ++opening_;
    stats_.opens++;
    install(std::move(pcm), request, settings);
    gain_.set(volume_.software_gain());
    gain_.settle();
    return 0;
}

// The device is at work from here on; what is in the ring and was not sent goes to it.
void Playback::install(Pcm pcm, const PcmRequest& request, const Config& config)
{
    opener_.abandon();
    pcm_ = std::move(pcm);
    request_ = request;
    state_ = State::working;
    progress_ns_ = now_ns();
    const int device = config_.device_id;
    volume_.attach(config.audio[device], device, pcm_.card());
    gain_.set(volume_.software_gain());
    const std::string text = std::string(device_key(device)) + " plays on " + note_opening(request, pcm_, &stats_);
    if (text != last_report_)
        log_i("%s\n", text.c_str());
    last_report_ = text;
}

int Playback::close()
{
    mutex_guard guard(mutex_);
    if (state_ == State::closed)
        return 0;
    state_ = State::closed;
    const uint64_t closing = ++opening_;
    opener_.abandon();
    gate_.evict(guard);
    // It may have been opened anew meanwhile.
    if (opening_ == closing) {
        pcm_.close();
        volume_.detach();
    }
    return 0;
}

// --- The flow of frames -----------------------------------------------------------

int64_t Playback::heard(int64_t now) const
{
    if (!moving_)
        return heard_;
    const int64_t passed = frames_in(now - heard_ns_, config_.sample_rate);
    return std::min(heard_ + passed, state_ == State::working ? sent_ : ring_.end());
}

// Asks the device, for frames or an error code. One that has not started yet heard nothing, whatever it says, and none
// is heard faster than time passes: a sound server knows of no delay until its first report.
int Playback::device_delay(int64_t now)
{
    if (pcm_.prepared())
        return kNoDelay;
    const int delay = pcm_.delay();
    if (delay < 0 || now - started_ns_ > kFreshNs)
        return delay;
    const int64_t left = sent_ - started_at_ - frames_in(now - started_ns_, config_.sample_rate);
    return static_cast<int>(std::max<int64_t>(delay, left));
}

void Playback::note_heard(int64_t now)
{
    const int delay = device_delay(now);
    if (delay < 0)
        return;
    heard_ = std::clamp(sent_ - delay, ring_.oldest(), sent_);
    heard_ns_ = now;
    moving_ = pcm_.running();
}

// From here on it is the clock that plays.
void Playback::freeze_heard(int64_t now)
{
    heard_ = heard(now);
    heard_ns_ = now;
    moving_ = true;
    lost_at_ = heard_;
}

// Frames that a write may put into the ring now.
int Playback::room(int64_t now) const
{
    // The device's buffer is in front of a device at work, a period is on its way; without one this is the buffer.
    const int64_t free = state_ == State::working
                             ? config_.period_frames - (ring_.end() - sent_)
                             : config_.period_frames * config_.period_count - (ring_.end() - heard(now));
    return static_cast<int>(std::max<int64_t>(free, 0));
}

int Playback::accept(const uint8_t* data, int frames, int64_t now)
{
    const int count = std::min(frames, room(now));
    if (count <= 0)
        return 0;
    if (state_ != State::working && heard(now) == ring_.end()) {
        // Nothing was left to be played: the clock waits for what comes.
        heard_ = ring_.end();
        heard_ns_ = now;
    }
    ring_.append(data, count);
    return count;
}

// Whether what was written has gone where a device would have taken it.
bool Playback::taken() const { return state_ != State::working || sent_ == ring_.end(); }

// With the sound that is enough for a start the device goes to work.
int Playback::send(SoundRing::Piece piece, int64_t now)
{
    if (pcm_.prepared()) {
        started_at_ = heard_;
        started_ns_ = now;
    }
    if (gain_.is_unity())
        return pcm_.write(piece.data, piece.frames);
    gain_.apply(piece.data, scaled_.get(), piece.frames, config_.channels);
    const int sent = pcm_.write(reinterpret_cast<const uint8_t*>(scaled_.get()), piece.frames);
    if (sent > 0)
        gain_.advance(sent);
    return sent;
}

void Playback::pump(int64_t now)
{
    for (int troubles = 0; state_ == State::working && sent_ < ring_.end();) {
        const int result = send(ring_.piece(sent_, config_.period_frames), now);
        if (result > 0) {
            sent_ += result;
            progress_ns_ = now;
            continue;
        }
        const Trouble trouble = pcm_.trouble(result);
        if (trouble == Trouble::none)
            break;
        handle(++troubles <= kMaxTroubles ? trouble : Trouble::lost, result, now);
    }
    if (state_ == State::working)
        note_heard(now);
}

void Playback::wait(mutex_guard& guard, int64_t now)
{
    if (state_ == State::working) {
        const int64_t buffer_ns = ns_of(pcm_.buffer_frames(), config_.sample_rate);
        if (now - progress_ns_ > buffer_ns + kStuckNs)
            lose(-ETIMEDOUT, now);
        else
            gate_.wait(guard, &pcm_, kLookMs);
        return;
    }
    // Until a period's room is there, or the device may be looked for.
    const int64_t buffer = config_.period_frames * config_.period_count;
    const int64_t excess = ring_.end() - heard(now) + config_.period_frames - buffer;
    int64_t due = now + ns_of(std::max<int64_t>(excess, 1), config_.sample_rate);
    if (state_ != State::yielded)
        due = std::min(due, std::max(retry_ns_, now));
    gate_.wait(guard, nullptr, std::clamp(static_cast<int>((due - now) / kNsPerMs) + 1, 1, kLookMs));
}

int Playback::write(const uint8_t* data, int size)
{
    if (data == nullptr || size < 0)
        return -EINVAL;
    mutex_guard guard(mutex_);
    const uint64_t opening = opening_;
    if (state_ == State::closed)
        return kClosed;
    const int frame_bytes = config_.channels * kBytesPerSample;
    const int frames = size / frame_bytes;
    int done = 0;
    progress_ns_ = std::max(progress_ns_, now_ns());
    while (opening_ == opening) {
        mend(now_ns());
        const int64_t now = now_ns();
        const int count = accept(data + static_cast<size_t>(done) * frame_bytes, frames - done, now);
        done += count;
        stats_.frames += count;
        pump(now);
        if (done == frames && taken())
            return frames * frame_bytes;
        if (count == 0 || done == frames)
            wait(guard, now);
    }
    return done > 0 && done < frames ? done * frame_bytes : kClosed;
}

int Playback::delay(int* frames)
{
    mutex_guard guard(mutex_);
    if (state_ == State::closed)
        return kClosed;
    if (frames == nullptr)
        return -EINVAL;
    const int64_t now = now_ns();
    const int queued = state_ == State::working ? device_delay(now) : kNoDelay;
    if (queued >= 0)
        *frames = static_cast<int>(ring_.end() - sent_) + queued;
    else if (queued == -EPIPE) // an underrun: all of it was heard
        *frames = static_cast<int>(ring_.end() - sent_);
    else // a device that is gone or asleep: the clock goes on, before a write finds out as well as after
        *frames = static_cast<int>(ring_.end() - heard(now));
    return 0;
}

// --- Trouble, and the way back ----------------------------------------------------

void Playback::handle(Trouble trouble, int err, int64_t now)
{
    switch (trouble) {
    case Trouble::none: break;
    case Trouble::xrun: recover_xrun(now); break;
    case Trouble::suspended:
        log_w("%s is suspended\n", request_.name.c_str());
        stats_.suspends++;
        freeze_heard(now);
        state_ = State::suspended;
        trouble_ns_ = retry_ns_ = now;
        break;
    case Trouble::lost: lose(err, now); break;
    }
}

// It starts again with as much queued as the first time, not with more: what came too late is queued as well and is
// the reserve for the next time, and more would keep the sound behind the picture where it was lost.
void Playback::recover_xrun(int64_t now)
{
    heard_ = sent_;
    heard_ns_ = now;
    moving_ = false;
    if (const int err = pcm_.restart(); err < 0) {
        lose(err, now);
        return;
    }
    stats_.xruns++;
    if (now - xrun_log_ns_ > kXrunLogNs || xrun_log_ns_ == 0) {
        log_w("%s ran empty, %lld times so far\n", request_.name.c_str(), static_cast<long long>(stats_.xruns));
        xrun_log_ns_ = now;
    }
}

void Playback::lose(int err, int64_t now)
{
    log_w("%s is gone: %s; looking for it until it is back\n", request_.name.c_str(), snd_strerror(err));
    stats_.losses++;
    if (state_ == State::working)
        trouble_ns_ = now;
    give_up_pcm(State::lost, now);
}

void Playback::give_up_pcm(State state, int64_t now)
{
    if (state_ == State::working)
        freeze_heard(now);
    state_ = state;
    opener_.abandon();
    retry_ns_ = retry_after_loss(now, back_ns_);
    pcm_.close();
    volume_.detach();
}

void Playback::give_up_working_pcm(State state)
{
    trouble_ns_ = now_ns();
    if (state_ == State::working)
        note_heard(trouble_ns_);
    give_up_pcm(state, trouble_ns_);
}

void Playback::mend(int64_t now)
{
    if (now < retry_ns_)
        return;
    if (state_ == State::suspended)
        mend_suspend(now);
    else if (state_ == State::lost)
        mend_loss(now);
}

void Playback::mend_suspend(int64_t now)
{
    const int err = pcm_.resume();
    if (err == -EAGAIN && now - trouble_ns_ < kResumeLimitNs) {
        retry_ns_ = now + kResumePauseNs;
    } else if (err < 0) {
        lose(err, now);
    } else {
        const int64_t position = heard(now);
        state_ = State::working;
        resume_flow(position, now);
    }
}

void Playback::mend_loss(int64_t now)
{
    Pcm pcm;
    const int err = opener_.attempt(request_, &pcm);
    retry_ns_ = now + (err == -EINPROGRESS ? kOpeningLookNs : kReopenPauseNs);
    if (err < 0)
        return;
    const int64_t position = heard(now);
    install(std::move(pcm), PcmRequest(request_), current_config());
    resume_flow(position, now);
}

void Playback::requeue_from(int64_t position, int64_t now)
{
    heard_ = sent_ = std::max(position, ring_.oldest());
    heard_ns_ = progress_ns_ = now;
    moving_ = false;
}

// What would have been heard meanwhile is past; the rest is queued again.
void Playback::resume_flow(int64_t position, int64_t now)
{
    stats_.frames_lost += std::max<int64_t>(position - lost_at_, 0);
    stats_.recoveries++;
    stats_.recovery_us = (now - trouble_ns_) / kNsPerUs;
    back_ns_ = now;
    requeue_from(position, now);
    log_w("%s is back after %lld ms\n", request_.name.c_str(), static_cast<long long>((now - trouble_ns_) / kNsPerMs));
}

// --- Another device ---------------------------------------------------------------

int Playback::reselect(int device_id, int output_fmt)
{
    mutex_guard guard(mutex_);
    if (state_ == State::closed)
        return kClosed;
    const int err = move_to(guard, device_id);
    if (err >= 0)
        config_.output_fmt = output_fmt;
    return err;
}

// A name instead of a number was for that device only.
void Playback::select(int device_id)
{
    if (device_id != config_.device_id)
        config_.pcm_name = nullptr;
    config_.device_id = device_id;
}

int Playback::move_to(mutex_guard& guard, int device_id)
{
    const Config settings = current_config();
    const PcmRequest next = request_for(settings, device_id);
    if (pcm_.is_open() && next.name == request_.name) {
        select(device_id);
        volume_.attach(settings.audio[device_id], device_id, pcm_.card());
        gain_.set(volume_.software_gain());
        stats_.reselects++;
        return 0;
    }
    opener_.abandon();
    Pcm pcm;
    std::string why;
    int err = pcm.open(next, &why);
    const uint64_t opening = opening_;
    gate_.evict(guard);
    if (opening_ != opening)
        return kClosed;
    if (err == -EBUSY && pcm_.is_open()) {
        // Two names of one device: the old one has to go before the new one can come, or come back.
        give_up_working_pcm(State::lost);
        err = pcm.open(next, &why);
    }
    if (err < 0) {
        log_e("%s cannot play: %s: %s\n", device_key(device_id), next.name.c_str(), why.c_str());
        return err;
    }
    const int64_t now = now_ns();
    if (state_ == State::working)
        note_heard(now);
    const int64_t position = heard(now);
    const Pcm old = std::move(pcm_); // Closed at the end, as that may take long.
    select(device_id);
    install(std::move(pcm), next, settings);
    const int64_t start = now_ns();
    requeue_from(position, start);
    stats_.reselects++;
    pump(start);
    return 0;
}

void Playback::yield_output(int device)
{
    mutex_guard guard(mutex_);
    if (state_ == State::closed || state_ == State::yielded || config_.device_id != device)
        return;
    const uint64_t opening = opening_;
    gate_.evict(guard);
    // The player may have closed the device meanwhile, or selected another one.
    if (opening_ == opening && state_ != State::yielded && config_.device_id == device)
        give_up_working_pcm(State::yielded);
}

void Playback::reclaim_output()
{
    mutex_guard guard(mutex_);
    if (state_ != State::yielded)
        return;
    state_ = State::lost;
    retry_ns_ = now_ns();
    gate_.evict(guard);
}

// --- Volume -----------------------------------------------------------------------

int Playback::set_volume(int percent)
{
    mutex_guard guard(mutex_);
    const int err = volume_.set_percent(percent);
    gain_.set(volume_.software_gain());
    return err;
}

int Playback::set_direct_volume(int value)
{
    mutex_guard guard(mutex_);
    const int err = volume_.set_direct(value);
    gain_.set(volume_.software_gain());
    return err;
}

int Playback::set_mute(bool mute)
{
    mutex_guard guard(mutex_);
    const int err = volume_.set_mute(mute);
    gain_.set(volume_.software_gain());
    return err;
}

bool Playback::is_open()
{
    mutex_guard guard(mutex_);
    return state_ != State::closed;
}

DeviceStats Playback::stats()
{
    mutex_guard guard(mutex_);
    DeviceStats stats = stats_;
    stats.open = state_ != State::closed;
    stats.lost = stats.open && state_ != State::working;
    return stats;
}

} // namespace hdmi_linux
