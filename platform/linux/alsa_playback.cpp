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

/// The ring holds the longer of this many requested buffers and this many seconds, because what is not heard yet may
/// exceed the requested buffer: by a sound server's delay, or by the buffer size that the configuration sets.
constexpr int kRingBuffers = 8;
constexpr int kRingSeconds = 2;
/// A device that takes no frame for the length of its buffer and this much longer is lost. A sound server may need two
/// seconds to wake up an idle sink.
constexpr int64_t kStuckNs = 3 * kNsPerSecond;
/// For this long after its start a device's delay is checked against the clock. Not longer, because their rates differ.
constexpr int64_t kFreshNs = kNsPerSecond;
/// How often an opening in progress is checked.
constexpr int64_t kOpeningPollNs = 10 * kNsPerMs;
/// Stands for the delay of a device that is not asked for it.
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
        apply_channel_status(&request, false);
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
    matching_.open(config.sample_rate, config.channels, config.period_frames);
    reserve_.start(config.sample_rate, now_ns());
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
        // Logged once, because the player tries again for every block.
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

// The device works from here on, and gets the frames of the ring that were not sent.
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
    matching_.attach(config.rate_matching, pcm_.card());
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
    // Another thread may have opened it again meanwhile.
    if (opening_ == closing) {
        pcm_.close();
        volume_.detach();
        reserve_.closed(now_ns());
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

// @return frames, or an error code. Before its start a device has played nothing, whatever delay it reports. After the
// start no more can be heard than the time allows: a sound server reports no delay before its first update.
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

// Before a transfer, see Pcm::stamp(). Not just after a start, when a sound server guesses its delay.
void Playback::note_clock(int64_t now)
{
    if (state_ != State::working || !matching_.at_work() || now - started_ns_ < kFreshNs)
        return;
    const std::optional<PcmStamp> stamp = pcm_.stamp();
    if (stamp && stamp->frames > 0)
        matching_.played(stamp->ns, sent_ - stamp->frames);
}

// From here on the clock says what would be heard.
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
    // While the device works, the ring holds at most one period, since the device has its own buffer; otherwise the
    // ring stands in for that buffer.
    const int64_t free = state_ == State::working
                             ? config_.period_frames - (ring_.end() - sent_)
                             : config_.period_frames * config_.period_count - (ring_.end() - heard(now));
    return static_cast<int>(std::max<int64_t>(free, 0));
}

int Playback::accept(const uint8_t* data, int frames, int64_t now)
{
    const int count = std::min({frames, room(now), config_.period_frames});
    if (count <= 0)
        return 0;
    if (state_ != State::working && heard(now) == ring_.end()) {
        // Everything was played: the clock stood still and starts again now.
        heard_ = ring_.end();
        heard_ns_ = now;
    }
    matching_.append(data, count, now, &ring_);
    return count;
}

// Where the device ran empty, brings what is not heard yet back to what it was. @return how many of @p frames came too
// late and are left out
int Playback::keep_reserve(int frames, int64_t now)
{
    const auto [late, silence] = reserve_.before_write(now, frames, static_cast<int>(ring_.end() - heard(now)));
    for (int left = silence; left > 0; left -= config_.period_frames) {
        const int run = std::min(left, config_.period_frames);
        std::fill_n(scaled_.get(), run * config_.channels, int16_t{0});
        ring_.append(reinterpret_cast<const uint8_t*>(scaled_.get()), run);
    }
    stats_.frames += late;
    stats_.left_out += late;
    stats_.refilled += silence;
    if (late > 0 || silence > 0)
        matching_.disturbed();
    return late;
}

// Whether a device would have taken all that was written.
bool Playback::taken() const { return state_ != State::working || sent_ == ring_.end(); }

// The device starts by itself once enough frames are queued.
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
    for (int recoveries = 0; state_ == State::working && sent_ < ring_.end();) {
        const int result = send(ring_.piece(sent_, config_.period_frames), now);
        if (result > 0) {
            gate_.moved();
            sent_ += result;
            progress_ns_ = now;
            continue;
        }
        const StreamError error = pcm_.classify(result);
        if (error == StreamError::none)
            break;
        handle_error(++recoveries <= kMaxRecoveries ? error : StreamError::lost, result, now);
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
            gate_.wait(guard, &pcm_, kPollMs);
        return;
    }
    // Waits until there is room for a period, or until the next attempt to open the device is due.
    const int64_t buffer = config_.period_frames * config_.period_count;
    const int64_t excess = ring_.end() - heard(now) + config_.period_frames - buffer;
    int64_t due = now + ns_of(std::max<int64_t>(excess, 1), config_.sample_rate);
    if (state_ != State::yielded)
        due = std::min(due, std::max(retry_ns_, now));
    gate_.wait(guard, nullptr, std::clamp(static_cast<int>((due - now) / kNsPerMs) + 1, 1, kPollMs));
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
    progress_ns_ = std::max(progress_ns_, now_ns());
    int done = keep_reserve(frames, now_ns());
    while (opening_ == opening) {
        recover(now_ns());
        const int64_t now = now_ns();
        note_clock(now);
        const int count = accept(data + static_cast<size_t>(done) * frame_bytes, frames - done, now);
        done += count;
        stats_.frames += count;
        pump(now);
        if (done == frames && taken()) {
            reserve_.after_write(now_ns());
            return frames * frame_bytes;
        }
        if (count == 0 || done == frames)
            wait(guard, now);
    }
    return done > 0 && done < frames ? done * frame_bytes : kClosed;
}

/// Of the player's frames, those that are not heard yet.
int Playback::queued(int64_t now)
{
    const int delay = state_ == State::working ? device_delay(now) : kNoDelay;
    int64_t played = sent_;
    if (delay >= 0)
        played = sent_ - delay;
    else if (delay != -EPIPE) // a device that is gone or suspended, whether a write has noticed it yet or not
        played = heard(now);
    // With -EPIPE, an underrun, the device has played everything.
    return matching_.delay(static_cast<int>(ring_.end() - played));
}

int Playback::delay(int* frames)
{
    mutex_guard guard(mutex_);
    if (state_ == State::closed)
        return kClosed;
    if (frames == nullptr)
        return -EINVAL;
    *frames = queued(now_ns());
    return 0;
}

// --- Errors and recovery ----------------------------------------------------------

void Playback::handle_error(StreamError error, int err, int64_t now)
{
    switch (error) {
    case StreamError::none: break;
    case StreamError::xrun: recover_xrun(now); break;
    case StreamError::suspended:
        log_w("%s is suspended\n", request_.name.c_str());
        stats_.suspends++;
        freeze_heard(now);
        state_ = State::suspended;
        failed_ns_ = retry_ns_ = now;
        break;
    case StreamError::lost: lose(err, now); break;
    }
}

// The device starts again with as many periods queued as at first. What follows is brought to the reserve that it had,
// see keep_reserve().
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
    matching_.disturbed();
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
        failed_ns_ = now;
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
    failed_ns_ = now_ns();
    if (state_ == State::working)
        note_heard(failed_ns_);
    give_up_pcm(state, failed_ns_);
}

void Playback::recover(int64_t now)
{
    if (now < retry_ns_)
        return;
    if (state_ == State::suspended)
        recover_suspend(now);
    else if (state_ == State::lost)
        recover_loss(now);
}

void Playback::recover_suspend(int64_t now)
{
    const int err = pcm_.resume();
    if (err == -EAGAIN && now - failed_ns_ < kResumeLimitNs) {
        retry_ns_ = now + kResumePauseNs;
    } else if (err < 0) {
        lose(err, now);
    } else {
        const int64_t position = heard(now);
        state_ = State::working;
        matching_.disturbed();
        resume_flow(position, now);
    }
}

void Playback::recover_loss(int64_t now)
{
    Pcm pcm;
    const int err = opener_.attempt(request_, &pcm);
    retry_ns_ = now + (err == -EINPROGRESS ? kOpeningPollNs : kReopenPauseNs);
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

// Frames whose time passed without a device are lost; the rest is queued again.
void Playback::resume_flow(int64_t position, int64_t now)
{
    stats_.frames_lost += std::max<int64_t>(position - lost_at_, 0);
    stats_.recoveries++;
    stats_.recovery_us = (now - failed_ns_) / kNsPerUs;
    back_ns_ = now;
    requeue_from(position, now);
    log_w("%s is back after %lld ms\n", request_.name.c_str(), static_cast<long long>((now - failed_ns_) / kNsPerMs));
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

// A pcm_name belongs to the device that it was given with.
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
        // Two names of one device: the old PCM must be closed before the new one can be opened.
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
    // Meanwhile the player may have closed the device or selected another one.
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
    // Not by the device's own delay: asking for it would replace the stamp by which note_clock() follows its clock.
    stats.queued = stats.open ? matching_.delay(static_cast<int>(ring_.end() - heard(now_ns()))) : 0;
    stats.matched = matching_.at_work();
    stats.matching_ppm = matching_.ppm();
    return stats;
}

} // namespace hdmi_linux
