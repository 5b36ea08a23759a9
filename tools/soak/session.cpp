// SPDX-License-Identifier: MIT
#include "session.h"

#include <unistd.h>

#include "common/clock.h"
#include "process/realtime.h"
#include "screen/open_display.h"
#include "wall_clock.h"

namespace soak
{
namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr useconds_t kOpenAgainUs = 100'000;
constexpr int kPanelLatencyMs = 76;
/// The queue of a host that does not know what will be sent: for sound of 32 kHz in bursts.
constexpr int kLowestRate = 32000;

void add(const play::Host& host, SessionAccount* account)
{
    const play::FrameAccount frames = host.frames();
    account->resets += host.resets();
    account->unsupported += host.unsupported();
    account->rendered += frames.rendered;
    account->flipped += frames.flipped;
    account->dropped += frames.dropped;
    account->lost += frames.lost + frames.foreign;
}

} // namespace

Session::~Session()
{
    close_player();
    if (display_)
        display_->stop();
}

bool Session::start(Format format, std::string* error)
{
    hdmi_sim::PlaybackConfig playback;
    playback.clock_error_ppm = config_.playback_ppm;
    playback.on_heard = [this](const hdmi_sim::HeardFrames& frames) { ears_.hear(frames); };
    hdmi_sim::playback_configure(playback);
    play::Options screen;
    screen.display_rate = play::Rational{static_cast<int64_t>(config_.display_hz * 1000), 1000};
    display_ = play::open_simulated_display(screen);
    gate_ = std::make_unique<display::FlipGate>(config_.display_hz);
    sender_ = Sender::make(config_.fps, config_.source_ppm, config_.seconds, error);
    if (!sender_)
        return false;
    pairs_ = std::make_unique<Meetings>(sender_.get(), sender_->clock());
    const process::RealtimeScope realtime(config_.realtime ? kRealtimePriority : 0);
    realtime_ = config_.realtime && realtime.active();
    const auto drm_info = display_->start(&eyes_, gate_.get(), error);
    if (!drm_info)
        return false;
    drm_info_ = *drm_info;
    if (!sender_->send(format)) {
        *error = "the source cannot be announced";
        return false;
    }
    if (open_player())
        return true;
    *error = "the player did not open";
    return false;
}

bool Session::open_player()
{
    play::HostConfig config;
    config.output = config_.output;
    config.raw = config_.raw;
    config.display = drm_info_;
    config.algorithm_delay_ms = config_.algorithm_delay_ms;
    config.video_queue_slots =
        play::video_queue_slots(config_.fps.value(), kLowestRate, play::Coding::ac3, config_.algorithm_delay_ms);
    config.holds =
        config_.raw ? common::Holds{} : common::plan_holds(kPanelLatencyMs * kMs, 0, config_.display_hz, true);
    config.drain_ns = 300 * kMs;
    config.clock_was_set = wall_clock_was_set;
    config.gate = gate_.get();
    config.present = [this](display::FrameBuffer* buffer) { display_->present(buffer); };
    host_ = std::make_unique<play::Host>(config, sender_.get(), sender_->clock());
    const process::RealtimeScope realtime(config_.realtime ? kRealtimePriority : 0);
    if (!host_->start()) {
        host_.reset();
        closed_.failed_openings++;
        return false;
    }
    closed_.openings++;
    return true;
}

void Session::close_player()
{
    if (!host_)
        return;
    host_->stop_video();
    host_->close();
    add(*host_, &closed_);
    closed_.late_frames += host_->audio().late;
    // Buffers that are on the screen are the pool's, which goes with the host.
    display_->stop();
    host_.reset();
}

void Session::reopen()
{
    close_player();
    if (on_closed_)
        on_closed_();
    std::string error;
    const process::RealtimeScope realtime(config_.realtime ? kRealtimePriority : 0);
    if (const auto drm_info = display_->start(&eyes_, gate_.get(), &error))
        drm_info_ = *drm_info;
    while (!open_player())
        usleep(kOpenAgainUs);
}

void Session::plug(bool in)
{
    hdmi_player_hotplug_status_changed(in ? E_HDMI_HOTPLUG_STATUS_IN : E_HDMI_HOTPLUG_STATUS_OUT);
    sender_->plug(in);
}

void Session::look()
{
    // Tells the ears of what was played meanwhile.
    hdmi_sim::playback_stats();
    ears_.listen();
    for (const Beep& beep : ears_.take_beeps())
        pairs_->heard(beep);
    for (const Sight& sight : eyes_.take()) {
        pairs_->seen(sight);
        sights_.push_back(sight);
    }
    for (const Meeting& meeting : pairs_->take())
        meetings_.push_back(meeting);
}

SessionAccount Session::account() const
{
    SessionAccount account = closed_;
    if (host_)
        add(*host_, &account);
    return account;
}

} // namespace soak
