// SPDX-License-Identifier: MIT
#include "host/host.h"

#include <pthread.h>

#include <cmath>
#include <utility>

#include "common/clock.h"

namespace play
{
namespace
{

using common::now_ns;
using common::sleep_until_ns;

/// How long a pull of sound waits: long enough not to spin, short enough to notice the end.
constexpr int32_t kPullTimeoutMs = 100;
/// Sound that was not written for longer has paused.
constexpr int64_t kPauseNs = 200'000'000;
/// A pull that takes longer has waited.
constexpr int64_t kAtOnceNs = 2'000'000;
/// When the sound's thread stands still, if it is to, after the first block.
constexpr int64_t kStallAfterNs = 3'000'000'000;
/// Empty pulls in a row after which the pipeline counts as run dry.
constexpr int kDryPulls = 3;
/// From the first reset on: by then the player has found the format, and what was cut off is no loss.
constexpr int64_t kStartNs = 1'000'000'000;
/// What the player holds the first block of a sequence back by, to match the picture's way to the light.
constexpr double kFixedDelayS = 0.076;
/// Buffers beyond the player's queue: one on screen, two waiting for it, one being filled, and one spare.
constexpr int kBuffersBesideQueue = 5;
/// What the player may hold beyond its queue: the frame that it is about to flip or drop.
constexpr int kHeldBesideQueue = 1;
constexpr int kBytesPerFrame = 4;

/**
 * How much later than the picture's zero the zero of decoded sound lies, on
 * average, in microseconds: its time line begins with the first burst that is
 * decoded after a reset, and that one began up to a burst after it.
 */
int64_t decoder_start_us(const Source& source)
{
    return source.coding() == Coding::pcm ? 0 : int64_t{kBurstSamples} * 1'000'000 / source.audio_rate() / 2;
}

/// Buffers that wait at the same time.
int held_buffers(const HostConfig& config, double fps)
{
    // The gate lets no more than one flip through for each refresh, but for a burst's first and last.
    const double per_s = std::min(fps, static_cast<double>(config.display.panel_refresh_rate));
    const double held_s = static_cast<double>(config.holds.flip_ns) / 1e9;
    return config.holds.holds_flips() ? 2 + static_cast<int>(std::ceil(held_s * per_s)) : 0;
}

/// Seconds of one block: the device's period at that rate.
double period_s(int rate) { return (rate == 44100 ? 896.0 : 960.0) / rate; }

} // namespace

Host* Host::host_ = nullptr;

int video_queue_slots(double fps, int audio_rate, Coding coding, int algorithm_delay_ms)
{
    constexpr int kOutputRate = 48000;
    double decoder_s = coding == Coding::pcm ? 0 : static_cast<double>(kBurstSamples) / audio_rate;
    double sound_s =
        period_s(audio_rate) + decoder_s + period_s(kOutputRate) + algorithm_delay_ms / 1000.0 + kFixedDelayS;
    return 2 + static_cast<int>(std::ceil(fps * sound_s));
}

Host::Host(HostConfig config, Source* source, SourceClock clock)
    : config_(std::move(config)), source_(source), clock_(clock),
      video_queue_size_(config_.video_queue_slots > 0
                            ? config_.video_queue_slots
                            : video_queue_slots(source->fps().value(), source->audio_rate(), source->coding(),
                                                config_.algorithm_delay_ms)),
      pool_(video_queue_size_ + kBuffersBesideQueue + held_buffers(config_, source->fps().value())),
      line_(config_.algorithm_delay_ms), sound_hold_(config_.holds.sound_ns), wait_for_serial_(config_.sync)
{
}

Host::~Host()
{
    stop_video();
    close();
}

bool Host::start()
{
    hdmi_player_config_t config = {};
    config.ao_dev = config_.output;
    config.ao_format = config_.raw ? E_HDMI_PLAYER_AO_FORMAT_RAW : E_HDMI_PLAYER_AO_FORMAT_PCM;
    config.drm_info = config_.display;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.audio_alg_max_delay_time_ms = config_.algorithm_delay_ms;
    config.video_frame_queue_size = video_queue_size_;
    config.event_cb = on_event;
    config.video_frame_drop_cb = on_drop;
    config.video_frame_flip_cb = on_flip;

    host_ = this;
    held_flips_ = std::make_unique<common::HeldFlips>(
        config_.holds, config_.display.panel_refresh_rate,
        [this](void* buffer) { config_.present(static_cast<PictureBuffer*>(buffer)); },
        [this](void* buffer) { leave_out(static_cast<PictureBuffer*>(buffer)); });
    if (hdmi_player_open(config) != 0) {
        host_ = nullptr;
        return false;
    }
    opened_ns_ = now_ns();
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    audio_ = std::thread(&Host::audio_thread, this);
    video_running_ = true;
    video_ = std::thread(&Host::video_thread, this);
    return true;
}

void Host::stop_video()
{
    video_stop_ = true;
    if (video_.joinable())
        video_.join();
}

void Host::drain_audio()
{
    drained_ns_ = now_ns() + config_.drain_ns;
    audio_draining_ = true;
    if (audio_.joinable())
        audio_.join();
}

void Host::close()
{
    if (host_ != this)
        return;
    // Blocks of hdmi_player_get_pcm die at close: the audio thread is gone before.
    drain_audio();
    hdmi_player_close();
    held_flips_->finish();
    held_ = pool_.count(Owner::player);
    lost_ = pool_.count(Owner::player, rendered_ - video_queue_size_ - kHeldBesideQueue);
    host_ = nullptr;
}

// --- Pictures ---------------------------------------------------------------

void Host::video_thread()
{
    pthread_setname_np(pthread_self(), "host_video");
    common::WallClockWatch wall_clock;
    const auto clock_was_set =
        config_.clock_was_set ? config_.clock_was_set : [&wall_clock] { return wall_clock.was_set(); };
    common::FrameBreak frame_break;
    int64_t first_ns = opened_ns_ + config_.video_start_ns;
    VideoFrame frame;
    while (!video_stop_ && source_->next_video(&frame)) {
        last_picture_ = frame.number;
        int64_t due_ns = clock_.to_monotonic(frame.source_ns);
        if (due_ns < first_ns)
            continue;
        // Painted ahead: the moment of the call is the picture's time.
        PictureBuffer* buffer = fill(frame);
        sleep_until_ns(due_ns);
        take_stall(&video_stall_ns_);
        const bool set = clock_was_set();
        const int64_t came_ns = now_ns();
        const bool withheld = frame_break.withholds(came_ns, plan_.left(came_ns) || set, resets_);
        if (buffer == nullptr)
            continue;
        if (withheld) {
            withheld_++;
            display::pass(buffer, Owner::host, Owner::free);
        } else {
            render(buffer);
        }
    }
    video_running_ = false;
}

void Host::take_stall(std::atomic<int64_t>* stall_ns)
{
    if (*stall_ns > 0)
        sleep_until_ns(now_ns() + stall_ns->exchange(0));
}

PictureBuffer* Host::fill(const VideoFrame& frame)
{
    PictureBuffer* buffer = pool_.acquire();
    if (buffer == nullptr) {
        no_buffer_++;
        return nullptr;
    }
    buffer->picture = frame.picture;
    buffer->number = frame.number;
    if (config_.paint)
        config_.paint(buffer, frame.image.get());
    return buffer;
}

void Host::render(PictureBuffer* buffer)
{
    buffer->turn = rendered_;
    buffer->rendered_ns = now_ns();
    // Flip or drop may come before the call returns: the buffer must be the player's by then.
    display::pass(buffer, Owner::host, Owner::player);
    int64_t resets_before = resets_;
    hdmi_player_video_frame_t rendered = {buffer, 0};
    bool passed = hdmi_player_video_render(&rendered) == 0;
    // A reset reports failure although it has queued the picture.
    passed = passed || resets_ != resets_before;
    if (passed) {
        rendered_++;
        return;
    }
    refused_++;
    display::pass(buffer, Owner::player, Owner::free);
}

PictureBuffer* Host::take_back(void* handle, Owner next)
{
    auto* buffer = static_cast<PictureBuffer*>(handle);
    if (pool_.owns(buffer) && display::pass(buffer, Owner::player, next))
        return buffer;
    foreign_++;
    return nullptr;
}

// The callbacks come from the player's pacing thread and from inside of hdmi_player_video_render,
// possibly both at once. None takes a lock that is held over a call into the player.

void Host::on_flip(hdmi_player_video_frame_t frame)
{
    PictureBuffer* buffer = host_->take_back(frame.buf_handle, Owner::display);
    if (buffer == nullptr)
        return;
    host_->flipped_++;
    int64_t flipped_ns = now_ns();
    if (host_->has_plan())
        host_->plan_.flip(flipped_ns, flipped_ns - buffer->rendered_ns);
    bool admitted = host_->config_.gate->admit(flipped_ns);
    if (Trace* trace = host_->config_.trace)
        trace->flips.add({flipped_ns, buffer->number, admitted});
    host_->held_flips_->flip(buffer, {buffer->rendered_ns, flipped_ns, host_->config_.gate->vblank_ns(), !admitted});
}

void Host::leave_out(PictureBuffer* buffer)
{
    skipped_++;
    display::pass(buffer, Owner::display, Owner::free);
}

void Host::on_drop(hdmi_player_video_frame_t frame)
{
    if (host_->take_back(frame.buf_handle, Owner::free) != nullptr)
        host_->dropped_++;
}

void Host::on_event(hdmi_player_event_e event)
{
    if (event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET) {
        host_->reset_ns_ = now_ns();
        host_->held_flips_->start(host_->reset_ns_);
        host_->plan_.reset(host_->reset_ns_);
        if (host_->resets_++ == 0)
            host_->first_reset_ns_ = host_->reset_ns_.load();
        if (Trace* trace = host_->config_.trace)
            trace->resets.add(host_->reset_ns_);
    } else {
        host_->unsupported_++;
    }
}

// --- Sound ------------------------------------------------------------------

void Host::audio_thread()
{
    pthread_setname_np(pthread_self(), "host_audio");
    hdmi_player_audio_frame_t last = {};
    int64_t planned_stall_ns = config_.stall_ns;
    int64_t first_ns = 0;
    int dry = 0;
    while (!audio_draining_ || (dry < kDryPulls && now_ns() < drained_ns_)) {
        hdmi_player_audio_frame_t* block = nullptr;
        const int64_t asked_ns = now_ns();
        if (hdmi_player_get_pcm(&block, kPullTimeoutMs) != 0) {
            dry++;
            continue;
        }
        dry = 0;
        taken_ns_ = now_ns();
        waited_ = taken_ns_ - asked_ns >= kAtOnceNs;
        if (first_ns == 0)
            first_ns = now_ns();
        if (planned_stall_ns > 0 && now_ns() >= first_ns + kStallAfterNs)
            stall_ns_ = std::exchange(planned_stall_ns, 0);
        take_stall(&stall_ns_);
        last = *block;
        play_block(*block);
        hdmi_player_put_pcm(block);
    }
    if (last.sample_rate <= 0)
        return; // no sound came
    line_.drain();
    write_from_line(last);
    processed_ = sound_hold_.rest();
    if (!processed_.empty() && audio_account_.written > 0)
        write(last, next_pts_us_);
}

/**
 * Sound from before the reset must not reach the output: it would lie in the
 * device when the new sequence starts, and delay it for good.
 */
bool Host::belongs_to_new_sequence(int32_t serial)
{
    int64_t resets = resets_;
    if (resets != resets_seen_) {
        resets_seen_ = resets;
        wait_for_serial_ = true;
    }
    bool changed = serial != serial_;
    serial_ = serial;
    // Without A/V sync no reset is announced, and every sequence is played.
    if (changed && (resets_seen_ > 0 || !config_.sync))
        wait_for_serial_ = false;
    return !wait_for_serial_;
}

void Host::play_block(const hdmi_player_audio_frame_t& block)
{
    int frames = block.size / kBytesPerFrame;
    int32_t serial_before = serial_;
    bool first = audio_account_.written == 0 && line_.empty();
    audio_account_.pulled += frames;
    const bool silenced = plan_.silences(taken_ns_);
    if (!belongs_to_new_sequence(block.serial) || silenced) {
        silenced_ = silenced_ || silenced;
        audio_account_.discarded += frames;
        audio_account_.cut_off += audio_account_.written > 0 ? frames : 0;
        return;
    }
    const bool begins = std::exchange(silenced_, false) || first || block.serial != serial_before;
    if (has_plan())
        plan_.block(block.pts, taken_ns_, begins);
    if (begins) {
        if (now_ns() - first_reset_ns_ < kStartNs)
            audio_account_.cut_off_at_start = audio_account_.written;
        line_.start(block.pts + decoder_start_us(*source_), block.sample_rate);
        late_sound_.start();
        // Sound that goes on through a reset goes on through the hold as well.
        if (first || now_ns() - written_ns_ > kPauseNs || !sound_hold_.suits(block.sample_rate))
            sound_hold_.start(block.sample_rate);
    }
    line_.push(reinterpret_cast<const int16_t*>(block.data), frames);
    write_from_line(block);
}

void Host::write_from_line(const hdmi_player_audio_frame_t& like)
{
    int64_t pts_us = 0;
    int frames = line_.pop(&processed_, &pts_us);
    if (frames == 0)
        return;
    sound_hold_.pass(processed_.data(), frames);
    if (throws_away(pts_us, like.sample_rate))
        return;
    splice_.join(processed_.data(), frames);
    write(like, pts_us);
}

/// Whether processed_ is older than the plan, because this thread stood still.
bool Host::throws_away(int64_t pts_us, int sample_rate)
{
    const auto frames = static_cast<int>(processed_.size() / 2);
    const int64_t duration_us = int64_t{frames} * 1'000'000 / sample_rate;
    if (!late_sound_.too_late(pts_us, duration_us, taken_ns_ / 1000, waited_))
        return false;
    splice_.leave_out(processed_.data(), frames);
    audio_account_.late += frames;
    return true;
}

/// Writes processed_, with what else a block says as in @p like.
void Host::write(const hdmi_player_audio_frame_t& like, int64_t pts_us)
{
    const auto frames = static_cast<int>(processed_.size() / 2);
    next_pts_us_ = pts_us + int64_t{frames} * 1'000'000 / like.sample_rate;
    hdmi_player_audio_frame_t out = like;
    out.data = reinterpret_cast<uint8_t*>(processed_.data());
    out.size = frames * kBytesPerFrame;
    out.buf_size = out.size;
    out.pts = pts_us;
    int64_t handed_ns = now_ns();
    written_ns_ = handed_ns;
    plan_.wrote(handed_ns);
    // Waits while the player's output queue is full: the sound device sets the pace.
    if (hdmi_player_write_pcm(&out) != 0) {
        audio_account_.failed_writes++;
        return;
    }
    if (config_.trace != nullptr)
        config_.trace->handed.add({handed_ns, pts_us, out.serial, frames, mark_of(out.data, out.size)});
    audio_account_.written += frames;
}

// --- Accounts ---------------------------------------------------------------

FrameAccount Host::frames() const
{
    FrameAccount account;
    account.rendered = rendered_;
    account.flipped = flipped_;
    account.skipped = skipped_;
    account.dropped = dropped_;
    account.refused = refused_;
    account.held = held_;
    account.lost = lost_;
    account.foreign = foreign_;
    account.no_buffer = no_buffer_;
    account.withheld = withheld_;
    return account;
}

AudioAccount Host::audio() const { return audio_account_; }

} // namespace play
