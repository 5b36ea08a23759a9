// SPDX-License-Identifier: MIT
/**
 * @file
 * From the start of the program to its end: finds the device, waits for the
 * signal, shows it, and begins again when something went away.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "control/commands.h"
#include "control/terminal.h"
#include "picture/black.h"
#include "process/stop_signals.h"
#include "session/messages.h"
#include "session/options.h"
#include "session/viewing.h"

namespace view
{

class Viewer
{
public:
    Viewer(const Options& options, const process::StopSignals& signals);
    ~Viewer();
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;

    /// @return the program's exit status
    int run();

private:
    bool ended() const;
    bool open_device();
    void drop_lost_device();
    bool choose_sound(const std::string& of_device);
    bool start_receiver();
    bool wait_for_signal(machine::VideoSignal* signal);
    bool begin_viewing(const machine::VideoSignal& signal);
    bool take_display(const machine::VideoSignal& signal);
    bool start_display();
    std::optional<capture::CaptureMode> choose_capture_mode(const machine::VideoSignal& signal);
    void watch();
    void watch_sound();
    void watch_for_black();
    void end_viewing();
    void pause(int milliseconds);
    void handle_key(const std::string& key);
    void toggle_mute();
    void change_volume(int step);
    void take_next_output();
    void delay_sound(int step_ms);
    void report(const machine::Finding& finding);

    const Options options_;
    const process::StopSignals& signals_;
    const DisplayKind kind_;
    const int64_t began_ns_;
    Terminal terminal_;
    Messages messages_;
    bool quit_ = false;
    int status_ = 0;

    std::unique_ptr<VideoDevice> device_;
    std::unique_ptr<display::Display> display_;
    bool display_runs_ = false;
    std::unique_ptr<display::FlipGate> gate_;
    hdmi_player_drm_info_t info_ = {0, 60};
    const std::unique_ptr<FrameLog> log_; ///< null: nobody wants it
    ShownFrames shown_frames_;
    std::unique_ptr<Viewing> viewing_;
    ViewingConfig config_;
    std::string sound_input_; ///< ALSA's name; empty: none
    bool had_sound_ = true;
    BlackSpell black_spell_;

    int volume_ = 100;
    bool muted_ = false;
    bool volume_waits_ = false; ///< it was changed while muted

    std::mutex keys_mutex_;
    std::deque<std::string> keys_; ///< from the window's thread
};

} // namespace view
