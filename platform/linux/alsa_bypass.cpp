// SPDX-License-Identifier: MIT
#include "alsa_bypass.h"

#include <algorithm>
#include <cerrno>

#include "alsa_clock.h"
#include "alsa_limits.h"
#include "config.h"
#include "contained.h"
#include "iec958.h"
#include "internal/common.h"

namespace hdmi_linux
{
namespace
{

/// The output's buffer in periods: large enough for captured periods that come late.
constexpr int kPeriodCount = 8;
/// Periods queued before the output starts, some 60 ms: one that is being played, and two by which captured periods may
/// be late. There is no other queue on this way.
constexpr int kStartPeriods = 3;

/**
 * Capture and output have clocks of their own, so that the queue between them
 * grows or runs low. Where the two counts tell so, this many frames of stuffing
 * between two bursts are left out or inserted. The queue's level would tell it
 * too early: it moves by a period with each period that comes late. The receiver
 * does not mind, because it searches for the next preamble; payloads are never
 * changed. DTS leaves at most seven frames of stuffing between its bursts. With
 * one correction per period, four frames make up for clocks that differ by 0.4 %.
 */
constexpr int kSlipFrames = 4;

} // namespace

void Bypass::start(const audio_config_t& capture, int rate, int device)
{
    const Config settings = current_config();
    mutex_guard guard(mutex_);
    active_ = true;
    device_ = device;
    request_ = PcmRequest();
    request_.name = settings.audio[device].pcm;
    request_.channels = capture.channels;
    request_.rate = rate;
    apply_channel_status(&request_, true);
    request_.period_frames = capture.period_frames;
    request_.period_count = kPeriodCount;
    request_.start_periods = kStartPeriods;
    retry_ns_ = now_ns();
    reported_ = stats_.lost = false;
    bursts_ = BurstFollower();
    zeros_.reset(new uint8_t[static_cast<size_t>(kSlipFrames) * capture.channels * kBytesPerSample]());
    stats_.pcm = request_.name;
    stats_.rate = rate;
}

void Bypass::stop()
{
    mutex_guard guard(mutex_);
    if (!active_)
        return;
    active_ = false;
    close_output();
}

void Bypass::release_output()
{
    mutex_guard guard(mutex_);
    device_ = E_AUDIO_IO_DEV_NONE;
    close_output();
}

void Bypass::close_output()
{
    if (!pcm_.is_open())
        return;
    pcm_.close();
    restore_channel_status();
}

// Other programs that play there later may not set the status back to sound.
void Bypass::restore_channel_status()
{
    if (!pcm_.status_set())
        return;
    const auto restore = [card = pcm_.card(), device = pcm_.device(), rate = request_.rate] {
        return set_status_control(card, device, channel_status(rate, false));
    };
    contained(restore, false); // the rest of a close follows in any case
}

void Bypass::open_when_due()
{
    if (device_ == E_AUDIO_IO_DEV_NONE || now_ns() < retry_ns_)
        return;
    std::string why;
    const bool opened = pcm_.open(request_, &why) >= 0;
    // Counted from the end of the opening, which may have taken long: captured data must be read in between.
    const int64_t now = now_ns();
    retry_ns_ = now + kReopenPauseNs;
    if (!opened && !reported_)
        log_e("%s cannot pass coded sound through: %s: %s\n", device_key(device_), request_.name.c_str(), why.c_str());
    if (opened) {
        back_ns_ = now;
        in_flight_.playback_started(request_.rate);
        taken_ = sent_ = 0;
        if (!pcm_.status_set() && !has_channel_status(request_.name))
            log_w("%s does not say that it carries coded data: the receiver must find out\n", request_.name.c_str());
        log_i("%s passes coded sound through on %s at %d Hz\n", device_key(device_), request_.name.c_str(),
              request_.rate);
        stats_.recoveries += stats_.lost ? 1 : 0;
    } else {
        restore_channel_status();
    }
    reported_ = !opened;
    stats_.lost = !opened;
}

void Bypass::put(const uint8_t* data, int frames, const CaptureClock& clock)
{
    mutex_guard guard(mutex_);
    if (!active_)
        return;
    capture_.follow(clock, &in_flight_);
    const int stuffing = bursts_.find_stuffing(reinterpret_cast<const int16_t*>(data), frames, kSlipFrames);
    if (!pcm_.is_open())
        open_when_due();
    if (pcm_.is_open())
        send_period(data, frames, stuffing);
    else
        stats_.dropped += frames;
}

// Before a transfer, see Pcm::stamp(). @return as SlipController::due()
int Bypass::slip_due()
{
    if (const std::optional<PcmStamp> stamp = pcm_.stamp())
        in_flight_.played(stamp->ns, sent_ - stamp->frames);
    const clocks::Flow flow = {static_cast<double>(taken_), static_cast<double>(sent_), 1};
    return clocks::SlipController(kSlipFrames).due(in_flight_.excess(now_ns(), flow));
}

// @p stuffing: its first frame, or -1.
void Bypass::send_period(const uint8_t* data, int frames, int stuffing)
{
    const int frame_bytes = request_.channels * kBytesPerSample;
    const int due = slip_due();
    if (stuffing < 0 || due == 0) {
        send(data, frames);
    } else {
        send(data, stuffing);
        if (due < 0)
            send(zeros_.get(), -due);
        const int next = stuffing + std::max(due, 0);
        send(data + static_cast<size_t>(next) * frame_bytes, frames - next);
        stats_.slips++;
    }
    taken_ += frames;
}

void Bypass::send(const uint8_t* data, int frames)
{
    const int frame_bytes = request_.channels * kBytesPerSample;
    for (int recoveries = 0; frames > 0 && pcm_.is_open();) {
        const int sent = pcm_.write(data, frames);
        if (sent > 0) {
            stats_.frames += sent;
            sent_ += sent;
            data += static_cast<size_t>(sent) * frame_bytes;
            frames -= sent;
        } else if (!recover(sent, ++recoveries)) {
            break;
        }
    }
    // Dropped frames shorten the queue: the clocks have no part in that.
    if (frames > 0)
        in_flight_.disturbed();
    stats_.dropped += frames;
}

// @return whether the rest can be sent.
bool Bypass::recover(int result, int recoveries)
{
    int err = result;
    const StreamError error = pcm_.classify(result);
    switch (recoveries <= kMaxRecoveries || error == StreamError::none ? error : StreamError::lost) {
    case StreamError::none: return false;
    case StreamError::xrun:
        stats_.xruns++;
        in_flight_.disturbed();
        err = pcm_.restart();
        break;
    case StreamError::suspended:
        err = pcm_.resume();
        in_flight_.disturbed();
        if (err == -EAGAIN)
            return false;
        break;
    case StreamError::lost: break;
    }
    if (err >= 0)
        return true;
    log_w("%s is gone: %s; looking for it until it is back\n", request_.name.c_str(), snd_strerror(err));
    stats_.lost = reported_ = true;
    retry_ns_ = retry_after_loss(now_ns(), back_ns_);
    close_output();
    return false;
}

BypassStats Bypass::stats()
{
    mutex_guard guard(mutex_);
    BypassStats stats = stats_;
    stats.active = active_;
    return stats;
}

} // namespace hdmi_linux
