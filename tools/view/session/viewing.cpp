// SPDX-License-Identifier: MIT
#include "session/viewing.h"

#include <pthread.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/clock.h"
#include "common/wall_clock.h"
#include "hdmi_linux.h"
#include "process/realtime.h"
#include "session/outputs.h"

namespace view
{
namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int kWaitMs = 50;
/// Longer than a source takes between two modes while its signal lasts.
constexpr int64_t kStallNs = 2000 * kMs;
/// So many frames tell how old frames are when they come.
constexpr int64_t kFramesToKnow = 12;
constexpr int64_t kTryAgainNs = 5000 * kMs;
constexpr int kRealtimePriority = 20;
constexpr double kUnstatedFps = 60;

/// Buffers that a device gives at most, less those that it needs itself.
constexpr int kMostKept = 29;
constexpr double kMostHeldMs = 160;
/// Flips that are held for whole refreshes stay so for one at least.
constexpr double kLeastHeldMs = 1;
constexpr double kHeldStepMs = 4;

/// For how long flips can be held before buffers run short.
double most_held_ms(double fps, double refresh_hz)
{
    constexpr double kPlannedMs = static_cast<double>(common::kPlannedLatencyNs) / 1e6;
    double held_ms = kMostHeldMs;
    auto kept = [&] {
        common::Holds holds;
        holds.flip_ns = static_cast<int64_t>(held_ms * 1e6);
        return frames_kept(fps, refresh_hz, holds);
    };
    while (held_ms > kPlannedMs && kept() > kMostKept)
        held_ms -= kHeldStepMs;
    return held_ms;
}

/// Whether what the receiver announced last is compressed.
bool sound_is_compressed()
{
    constexpr int kMostEvents = 16;
    hdmi_linux_receiver_event_t events[kMostEvents];
    for (int i = std::min(hdmi_linux_receiver_events(events, kMostEvents), kMostEvents) - 1; i >= 0; i--)
        if (events[i].announced)
            return std::strstr(events[i].text, "COMP") != nullptr;
    return false;
}

// From the input to the output.
std::string way_of_sound(hdmi_player_ao_dev_e device)
{
    const hdmi_linux::DeviceStats input = hdmi_linux::capture_stats();
    const hdmi_linux::DeviceStats output = hdmi_linux::playback_stats();
    if (!input.open || !output.open)
        return "";
    return (sound_is_compressed() ? "; compressed, " : "; PCM, ") + std::to_string(input.rate) + " Hz, to the " +
           output_after(device, 0).name + " at " + std::to_string(output.rate) + " Hz";
}

/// @p format with the figure; empty while it is not known.
std::string if_known(const char* format, std::optional<double> ms)
{
    char text[96];
    std::snprintf(text, sizeof text, format, ms.value_or(0));
    return ms ? text : "";
}

} // namespace

bool Viewing::prepare(machine::Finding* why)
{
    if (shown_frames_->log() != nullptr)
        feed_.look_for_flashes();
    fps_ = device_->fps() > 0 ? device_->fps() : kUnstatedFps;
    display_->expect({device_->layout().width, device_->layout().height});
    most_held_ms_ = most_held_ms(fps_, display_->refresh_hz());
    common::Holds most;
    most.flip_ns = static_cast<int64_t>(most_held_ms_ * 1e6);
    shown_frames_->begin();
    return feed_.start(frames_kept(fps_, display_->refresh_hz(), most), why);
}

void Viewing::start(const ViewingConfig& config, hdmi_player_drm_info_t info)
{
    info_ = info;
    sound_delay_ = SoundDelay({0, false, config.sound_delay_ms});
    process::RealtimeScope realtime(kRealtimePriority);
    thread_ = std::thread(&Viewing::run, this);
}

void Viewing::stop()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    player_.close();
    feed_.halt();
    display_->clear();
    feed_.stop();
}

void Viewing::run()
{
    pthread_setname_np(pthread_self(), "view_capture");
    int64_t came_ns = common::now_ns();
    common::WallClockWatch wall_clock;
    common::FrameBreak frame_break;
    while (!stop_ && end_ == End::none) {
        const VideoDevice::News news = device_->wait(kWaitMs);
        if (news.gone)
            end_ = End::gone;
        else if (news.signal)
            end_ = End::signal;
        else if (common::now_ns() - came_ns > kStallNs)
            end_ = End::stalled;
        if (!news.frame)
            continue;
        came_ns = common::now_ns();
        ViewBuffer* buffer = feed_.take();
        if (buffer == nullptr)
            continue;
        std::lock_guard<std::mutex> lock(mutex_);
        const bool withheld =
            frame_break.withholds(came_ns, player_.left_plan(came_ns) || wall_clock.was_set(), player_.resets());
        if (withheld && player_.is_open()) {
            feed_.dropped(buffer);
            continue;
        }
        if (FrameLog* log = shown_frames_->log())
            log->came(*buffer);
        player_.render(buffer);
    }
}

Lateness Viewing::measure_lateness(const ViewingConfig& config)
{
    const hdmi_linux::DeviceStats capture = hdmi_linux::capture_stats();
    if (player_.is_open() && capture.open && capture.rate > 0)
        sound_age_ms_ = sound_ages_.add(1e3 * static_cast<double>(capture.waiting) / capture.rate);
    return {feed_.age_ms() - sound_age_ms_, capture.frames_per_sample > 1, config.sound_delay_ms};
}

bool Viewing::update_player(const ViewingConfig& config)
{
    if (!config.sound || feed_.figures().frames < kFramesToKnow)
        return true;
    const Lateness lateness = measure_lateness(config);
    if (player_.is_open() && sound_delay_.suits(lateness)) {
        aim(config);
        return true;
    }
    const int64_t now_ns = common::now_ns();
    if (!player_.is_open() && tried_ns_ != 0 && now_ns - tried_ns_ < kTryAgainNs)
        return false;
    tried_ns_ = now_ns;
    sound_delay_ = SoundDelay(lateness);
    return open_player(config);
}

/// By calculation; nothing: not known yet.
std::optional<double> Viewing::sound_later_ms() const
{
    const std::optional<double> sound_ms = shown_frames_->transit().sound.value();
    const std::optional<double> frames_ms = shown_frames_->transit().frames.value();
    if (!sound_ms || !frames_ms)
        return std::nullopt;
    return *sound_ms - *frames_ms - feed_.age_ms();
}

/// The player places frames when it begins, before it knows the sound's way, and leaves those that are early where they
/// are. So once after each of its resets they are brought to the refresh that is nearest to where they should be. Of
/// compressed sound the way is not known so well.
void Viewing::aim(const ViewingConfig& config)
{
    const int64_t resets = player_.figures().resets;
    const std::optional<double> later_ms = sound_later_ms();
    if (!later_ms || resets == aimed_ || !holds_.holds_flips() || sound_is_compressed())
        return;
    aimed_ = resets;
    const double refresh_ms = 1e3 / static_cast<double>(info_.panel_refresh_rate);
    const double held_ms = static_cast<double>(holds_.flip_ns) / kMs;
    const double wanted_ms = static_cast<double>(common::kAimNs) / kMs + config.sound_delay_ms;
    const int refreshes =
        refreshes_to_hold(*later_ms, wanted_ms, refresh_ms, -static_cast<int>((held_ms - kLeastHeldMs) / refresh_ms),
                          static_cast<int>((most_held_ms_ - held_ms) / refresh_ms));
    holds_.flip_ns += std::llround(refreshes * refresh_ms * kMs);
    if (refreshes == 0)
        return;
    if (FrameLog* log = shown_frames_->log())
        log->moved();
    player_.shift_flips(refreshes);
}

double Viewing::sound_delay_ms(const ViewingConfig& config) const
{
    return sound_delay_.ms(config.display_latency_ms, most_held_ms_);
}

bool Viewing::open_player(const ViewingConfig& config)
{
    PlayerConfig wanted;
    wanted.output = config.output;
    wanted.display = info_;
    wanted.fps = fps_;
    wanted.holds = common::plan_holds(config.display_latency_ms * kMs, std::llround(sound_delay_ms(config) * 1e6),
                                      static_cast<double>(info_.panel_refresh_rate), info_.fd > 0);
    // Frames of a capture device come too unevenly for a plan (LightPlan).
    wanted.holds.even = false;
    holds_ = wanted.holds;
    process::RealtimeScope realtime(kRealtimePriority);
    std::lock_guard<std::mutex> lock(mutex_);
    player_.close();
    return player_.open(wanted);
}

std::string Viewing::description() const
{
    char text[96];
    std::snprintf(text, sizeof text, "%dx%d %s at %.5g fps, ", device_->layout().width, device_->layout().height,
                  capture::name_of(device_->format()).c_str(), fps_);
    return text + (feed_.direct() ? std::string("not copied") : "copied (" + feed_.why_painted() + ")");
}

std::string Viewing::figures(const ViewingConfig& config) const
{
    constexpr double kOutputRate = 48000;
    const FeedFigures feed = feed_.figures();
    const PlayerFigures player = player_.figures();
    char frames[352];
    std::snprintf(frames, sizeof frames,
                  "; frames: %" PRId64 " captured, %" PRId64 " lost before, %" PRId64 " damaged, %" PRId64
                  " without a buffer, %" PRId64 " copied, %" PRId64 " in bursts, %" PRId64 " dropped, %" PRId64
                  " skipped, %" PRId64 " superseded, %" PRId64 " seen, %" PRId64 " unseen, %" PRId64
                  " out of order on a display of %.5g Hz",
                  feed.frames, feed.missing, feed.damaged, feed.no_buffer, feed.copied, feed.crowded, player.dropped,
                  player.skipped, display_->stats().superseded, shown_frames_->seen(), shown_frames_->unseen(),
                  shown_frames_->disordered(), display_->refresh_hz());
    char sound[160];
    std::snprintf(sound, sizeof sound,
                  "; frames are %.1f ms old when they come, sound %.1f ms; sound %+.0f ms (%+d ms by key)",
                  feed_.age_ms(), sound_age_ms_, sound_delay_ms(config), config.sound_delay_ms);
    char played[96];
    std::snprintf(played, sizeof played, "; %.1f s of sound, %.1f s too late, %" PRId64 " resets",
                  static_cast<double>(player.sound) / kOutputRate, static_cast<double>(player.late) / kOutputRate,
                  player.resets);
    const Transit& transit = shown_frames_->transit();
    return description() + frames + sound + played + way_of_sound(config.output) +
           if_known("; sound takes %.0f ms", transit.sound.value()) +
           if_known("; frames take %.0f ms", transit.frames.value()) +
           if_known("; by calculation sound %+.0f ms after its picture", sound_later_ms());
}

} // namespace view
