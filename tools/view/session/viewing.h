// SPDX-License-Identifier: MIT
/**
 * @file
 * One signal being watched and heard, until it changes or goes away.
 */
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "capture/video_device.h"
#include "display/display.h"
#include "session/player.h"
#include "session/shown_frames.h"
#include "session/sound_delay.h"

namespace view
{

struct ViewingConfig {
    capture::ModeWish wish;
    bool sound = true;
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    int display_latency_ms = 0; ///< from the vertical blank to light
    int sound_delay_ms = 0;     ///< by which the viewer wants the sound later
};

/// start() and what follows are for one thread.
class Viewing
{
public:
    enum class End {
        none,
        signal,  ///< has changed, or may have
        stalled, ///< no frame comes any more
        gone,    ///< the device was unplugged
    };

    /// All outlive it.
    Viewing(VideoDevice* device, display::Display* display, display::FlipGate* gate, ShownFrames* shown_frames)
        : device_(device), display_(display), shown_frames_(shown_frames), feed_(device, display),
          player_(&feed_, gate, &shown_frames->transit())
    {
    }
    ~Viewing() { stop(); }

    /// Makes the buffers, in the device's mode; the display does not run yet, or shows other frames. @return false with
    /// what is wrong in @p why
    bool prepare(machine::Finding* why);
    /// Begins to show frames. @p info: of the display, which runs.
    void start(const ViewingConfig& config, hdmi_player_drm_info_t info);
    void stop();

    End end() const { return end_; }
    /// Opens the player once the age of frames is known, and again when the sound needs another delay. To be called
    /// several times a second. @return false if there should be sound, and the player does not open
    bool update_player(const ViewingConfig& config);
    bool started() const { return thread_.joinable(); }
    bool plays_sound() const { return player_.is_open(); }

    bool black() const { return feed_.black(); }
    /// "1920x1080 NV12 at 60 fps, not copied"
    std::string description() const;
    /// One line for the viewer.
    std::string figures(const ViewingConfig& config) const;

private:
    void run();
    Lateness measure_lateness(const ViewingConfig& config);
    std::optional<double> sound_later_ms() const;
    void aim(const ViewingConfig& config);
    bool open_player(const ViewingConfig& config);
    double sound_delay_ms(const ViewingConfig& config) const;

    VideoDevice* const device_;
    display::Display* const display_;
    ShownFrames* const shown_frames_;
    Feed feed_;
    hdmi_player_drm_info_t info_ = {0, 60};
    double fps_ = 60;
    double most_held_ms_ = 0;
    LeastAge sound_ages_;
    double sound_age_ms_ = 0; ///< of sound that is captured
    SoundDelay sound_delay_;  ///< that the player was opened with

    std::mutex mutex_; ///< the player is opened and closed while nobody renders
    Player player_;
    int64_t tried_ns_ = 0; ///< when it was opened last
    common::Holds holds_;  ///< that the player has
    int64_t aimed_ = 0;    ///< resets until then

    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<End> end_{End::none};
};

} // namespace view
