// SPDX-License-Identifier: MIT
#include "session/player.h"

#include <pthread.h>

#include <cmath>
#include <limits>

#include "common/clock.h"
#include "hdmi_linux.h"

namespace view
{
namespace
{

using display::Owner;

constexpr int32_t kPullTimeoutMs = 100;
constexpr int kBytesPerFrame = 4;
/// On the screen, two on the way to it, one that was just taken, one to spare.
constexpr int kBesideQueue = 5;
constexpr int kBurstsOfHolds = 2;
/// Sound that was not written for longer has paused.
constexpr int64_t kPauseNs = 200'000'000;
/// A pull that takes longer has waited.
constexpr int64_t kAtOnceNs = 2'000'000;

/// From the arrival of a frame to the sound of its time: a period captured, the longest burst decoded, a period played,
/// and the time by which the first block of a sequence is held back.
constexpr double kSoundOnItsWayS = 0.0203 + 0.048 + 0.020 + 0.076;

} // namespace

Player* Player::player_ = nullptr;

int queue_slots(double fps) { return 2 + static_cast<int>(std::ceil(fps * kSoundOnItsWayS)); }

int frames_kept(double fps, double refresh_hz, const common::Holds& holds)
{
    const double held_s = static_cast<double>(holds.flip_ns) / 1e9;
    const int held =
        holds.holds_flips() ? kBurstsOfHolds + static_cast<int>(std::ceil(held_s * std::min(fps, refresh_hz))) : 0;
    return queue_slots(fps) + kBesideQueue + held;
}

bool Player::open(const PlayerConfig& config)
{
    hdmi_player_config_t wanted = {};
    wanted.ao_dev = config.output;
    wanted.drm_info = config.display;
    wanted.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    wanted.video_frame_queue_size = queue_slots(config.fps);
    wanted.event_cb = on_event;
    wanted.video_frame_drop_cb = on_drop;
    wanted.video_frame_flip_cb = on_flip;
    newest_serial_ = 0;
    held_serial_ = -1;
    written_ns_ = 0;
    splice_ = {};
    backlog_ = {};
    held_sound_ms_ = static_cast<double>(config.holds.sound_ns) / 1e6;
    plan_.emplace();
    taken_serial_ = 0;
    last_old_serial_ = std::numeric_limits<int32_t>::max(); // nothing is played before the first reset
    sound_hold_ = std::make_unique<common::SoundHold>(config.holds.sound_ns);
    held_flips_ = std::make_unique<common::HeldFlips>(
        config.holds, static_cast<double>(config.display.panel_refresh_rate),
        [this](void* buffer) { feed_->flipped(static_cast<ViewBuffer*>(buffer)); },
        [this](void* buffer) { leave_out(static_cast<ViewBuffer*>(buffer)); });
    transit_->start(common::now_ns());
    player_ = this;
    if (hdmi_player_open(wanted) != 0) {
        held_flips_.reset();
        player_ = nullptr;
        return false;
    }
    open_ = true;
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    stop_ = false;
    sound_ = std::thread(&Player::sound_thread, this);
    return true;
}

void Player::close()
{
    if (!open_)
        return;
    // Blocks die at close: nobody may hold one.
    stop_ = true;
    sound_.join();
    hdmi_player_close();
    open_ = false;
    held_flips_.reset();
    feed_->take_back();
    player_ = nullptr;
}

// --- Frames ------------------------------------------------------------------------------

void Player::render(ViewBuffer* buffer)
{
    if (!open_) {
        pass(buffer, Owner::host, Owner::display);
        shown_++;
        feed_->flipped(buffer);
        return;
    }
    // Flip or drop may come before the call returns: the buffer must be the player's by then.
    pass(buffer, Owner::host, Owner::player);
    const int64_t resets_before = resets_;
    hdmi_player_video_frame_t frame = {buffer, 0};
    // A reset reports failure although it has queued the frame.
    if (hdmi_player_video_render(&frame) == 0 || resets_ != resets_before)
        return;
    refused_++;
    pass(buffer, Owner::player, Owner::host);
    feed_->dropped(buffer);
}

// The callbacks come from the library's pacing thread and from inside of hdmi_player_video_render().

void Player::on_flip(hdmi_player_video_frame_t frame)
{
    auto* buffer = static_cast<ViewBuffer*>(frame.buf_handle);
    if (player_->feed_->owns(buffer) && pass(buffer, Owner::player, Owner::display))
        player_->show(buffer);
}

void Player::on_drop(hdmi_player_video_frame_t frame)
{
    auto* buffer = static_cast<ViewBuffer*>(frame.buf_handle);
    if (!player_->feed_->owns(buffer) || !pass(buffer, Owner::player, Owner::host))
        return;
    player_->dropped_++;
    player_->feed_->dropped(buffer);
}

void Player::show(ViewBuffer* buffer)
{
    const int64_t now_ns = common::now_ns();
    plan_->flip(now_ns, now_ns - buffer->arrived_ns);
    shown_++;
    const bool coalesced = !gate_->admit(now_ns);
    held_flips_->flip(buffer, {buffer->arrived_ns, now_ns, gate_->vblank_ns(), coalesced});
}

void Player::leave_out(ViewBuffer* buffer)
{
    shown_--;
    skipped_++;
    pass(buffer, Owner::display, Owner::host);
    feed_->dropped(buffer);
}

void Player::on_event(hdmi_player_event_e event)
{
    if (event != E_HDMI_PLAYER_EVENT_AVSYNC_RESET)
        return;
    player_->plan_->reset(common::now_ns());
    player_->transit_->start(common::now_ns());
    player_->last_old_serial_ = player_->taken_serial_.load();
    player_->resets_++;
}

// --- Sound -------------------------------------------------------------------------------

void Player::sound_thread()
{
    pthread_setname_np(pthread_self(), "view_sound");
    while (!stop_) {
        hdmi_player_audio_frame_t* block = nullptr;
        const int64_t asked_ns = common::now_ns();
        if (hdmi_player_get_pcm(&block, kPullTimeoutMs) != 0)
            continue;
        const int64_t taken_ns = common::now_ns();
        if (may_play(block->serial) && !plan_->silences(taken_ns))
            play(block, taken_ns, taken_ns - asked_ns >= kAtOnceNs);
        hdmi_player_put_pcm(block);
    }
}

/// Sound from before a reset would lie in the device ahead of the new sequence, and delay it for good.
bool Player::may_play(int32_t serial)
{
    newest_serial_ = std::max(newest_serial_, serial);
    taken_serial_ = newest_serial_;
    return serial > last_old_serial_;
}

/// @param waited the block came while this thread waited for it
void Player::play(hdmi_player_audio_frame_t* block, int64_t taken_ns, bool waited)
{
    const int frames = block->size / kBytesPerFrame;
    auto* const samples = reinterpret_cast<int16_t*>(block->data);
    const bool paused = taken_ns - written_ns_ > kPauseNs;
    plan_->block(block->pts, taken_ns, block->serial != held_serial_);
    if (block->serial != held_serial_) {
        late_sound_.start();
        // Sound that goes on through a reset goes on through the hold as well.
        if (paused || !sound_hold_->suits(block->sample_rate))
            sound_hold_->start(block->sample_rate);
    }
    held_serial_ = block->serial;
    sound_hold_->pass(samples, frames);
    const int64_t duration_us = int64_t{frames} * 1'000'000 / block->sample_rate;
    if (late_sound_.too_late(block->pts, duration_us, taken_ns / 1000, waited)) {
        splice_.leave_out(samples, frames);
        late_frames_ += frames;
        return;
    }
    splice_.join(samples, frames);
    write(block, waited, paused);
}

void Player::write(hdmi_player_audio_frame_t* block, bool waited, bool paused)
{
    const int frames = block->size / kBytesPerFrame;
    const int64_t ahead = backlog_.before_write(hdmi_linux::playback_stats(), paused);
    written_ns_ = common::now_ns();
    plan_->wrote(written_ns_);
    const hdmi_linux::DeviceStats capture = hdmi_linux::capture_stats();
    // A block that was waited for has just been captured to its end.
    if (waited && capture.rate > 0) {
        const double captured_ms = 1e3 * static_cast<double>(capture.waiting) / capture.rate + held_sound_ms_;
        const double queued_ms = 1e3 * static_cast<double>(frames + ahead) / block->sample_rate;
        transit_->sound.add(written_ns_, captured_ms + queued_ms);
    }
    backlog_.wrote(frames);
    // Waits while the output's queue is full: the sound device sets the pace.
    if (hdmi_player_write_pcm(block) == 0)
        sound_frames_ += frames;
}

PlayerFigures Player::figures() const
{
    PlayerFigures figures;
    figures.shown = shown_;
    figures.skipped = skipped_;
    figures.dropped = dropped_;
    figures.refused = refused_;
    figures.resets = resets_;
    figures.sound = sound_frames_;
    figures.late = late_frames_;
    return figures;
}

} // namespace view
