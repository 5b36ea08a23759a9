// SPDX-License-Identifier: MIT
#include "session/viewer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/clock.h"
#include "hdmi_linux.h"
#include "machine/capture_devices.h"
#include "session/outputs.h"

namespace view
{
namespace
{

using machine::Finding;
using machine::Verdict;

constexpr int kLookAgainMs = 50;
/// For a device or a signal that is not there.
constexpr int kTryAgainMs = 500;
constexpr int kVolumeStep = 2;
constexpr int kDelayStepMs = 10;
constexpr int kNoDisplay = 3;
constexpr char kTitle[] = "hdmi-player-view";

} // namespace

Viewer::Viewer(const Options& options, const process::StopSignals& signals)
    : options_(options), signals_(signals), kind_(choose_display(options.display)), began_ns_(common::now_ns()),
      log_(options.frames.empty() ? nullptr : std::make_unique<FrameLog>()), shown_frames_(log_.get())
{
    config_.wish = options.mode;
    config_.output = options.output;
    config_.display_latency_ms = options.display_latency_ms;
    config_.sound_delay_ms = options.sound_delay_ms;
}

Viewer::~Viewer()
{
    end_viewing();
    hdmi_linux_receiver_stop();
    if (display_)
        display_->stop();
    if (log_ && !log_->write(options_.frames))
        report({Verdict::refused, options_.frames, std::strerror(errno), ""});
}

bool Viewer::ended() const
{
    const double seconds = static_cast<double>(common::now_ns() - began_ns_) / 1e9;
    return quit_ || signals_.number() != 0 || (display_ && display_->closed()) ||
           (options_.seconds > 0 && seconds >= options_.seconds);
}

int Viewer::run()
{
    while (!ended()) {
        drop_lost_device();
        machine::VideoSignal signal;
        if ((!device_ && !open_device()) || !wait_for_signal(&signal))
            continue;
        if (begin_viewing(signal))
            watch();
        else
            pause(kTryAgainMs);
        end_viewing();
    }
    return status_;
}

// --- The device and its signal -----------------------------------------------------------

bool Viewer::open_device()
{
    std::string path = options_.video;
    std::string sound;
    if (path.empty() || options_.capture.empty()) {
        const std::vector<machine::CaptureDevice> devices = machine::find_capture_devices("", machine::ask_video);
        const machine::CaptureDevice* chosen = machine::choose_device(devices);
        if (path.empty() && chosen == nullptr) {
            report(no_device(devices));
            pause(kTryAgainMs);
            return false;
        }
        if (path.empty())
            path = chosen->path;
        for (const machine::CaptureDevice& device : devices)
            sound = device.path == path ? device.sound : sound;
    }
    Finding why;
    device_ = VideoDevice::open(path, &why);
    if (!device_) {
        report(why);
        pause(kTryAgainMs);
        return false;
    }
    config_.sound = choose_sound(sound) && start_receiver();
    return true;
}

/// Tells the platform where to capture: what the command line names, else the device's own sound, else what the
/// environment names. @return false for no sound
bool Viewer::choose_sound(const std::string& of_device)
{
    if (options_.capture == "none")
        return false;
    sound_input_ = options_.capture.empty() ? of_device : options_.capture;
    hdmi_linux_set_device("hdmi_in", sound_input_.c_str());
    const char* const named = std::getenv("HDMIPLAYER_ALSA_HDMI_IN");
    if (sound_input_.empty() && named != nullptr)
        sound_input_ = named;
    if (!sound_input_.empty())
        return true;
    report({Verdict::missing, device_->path(), "no sound comes in by the same device; the picture is shown without",
            "arecord -L   # lists names for --capture alsa:NAME"});
    return false;
}

/// A capture card has no driver that announces formats: what the card captures tells them.
bool Viewer::start_receiver()
{
    char error[128];
    if (hdmi_linux_receiver_start(error, sizeof error) == 0)
        return true;
    report({Verdict::missing, sound_input_, std::string("no sound: ") + error, "hdmi-player-doctor"});
    return false;
}

void Viewer::drop_lost_device()
{
    if (!device_ || !device_->gone())
        return;
    hdmi_linux_receiver_stop(); // the next device may have another sound
    report({Verdict::missing, device_->path(), "was unplugged; waiting for it", "lsusb"});
    device_.reset();
}

bool Viewer::wait_for_signal(machine::VideoSignal* signal)
{
    *signal = device_->detect();
    const Finding objection = machine::objection_to(*signal, device_->path());
    if (objection.detail.empty())
        return true;
    report(objection);
    pause(kLookAgainMs);
    device_->wait(kTryAgainMs - kLookAgainMs);
    return false;
}

// --- Viewing -----------------------------------------------------------------------------

std::optional<capture::CaptureMode> Viewer::choose_capture_mode(const machine::VideoSignal& signal)
{
    const std::vector<capture::CaptureMode> modes = device_->modes(signal);
    const std::optional<capture::CaptureMode> mode =
        capture::choose_mode(modes, options_.mode, [this](uint32_t drm) { return display_->reads(drm); });
    if (!mode)
        report({Verdict::missing, device_->path(),
                modes.empty() ? "sends no pixel format that can be shown" : "has no mode such as was asked for",
                "v4l2-ctl -d " + device_->path() + " --list-formats-ext"});
    return mode;
}

/// The window stays; a screen of KMS is taken for each signal, in a mode that suits it, and given back while there is
/// none.
bool Viewer::take_display(const machine::VideoSignal& signal)
{
    if (display_)
        return true;
    display::DisplayOptions wanted;
    wanted.path = options_.display_path;
    wanted.size = {signal.width, signal.height};
    wanted.fps = signal.fps;
    wanted.latency_ms = options_.display_latency_ms;
    wanted.title = kTitle;
    wanted.on_key = [this](const std::string& key) {
        std::lock_guard<std::mutex> lock(keys_mutex_);
        keys_.push_back(key);
    };
    std::string error;
    display_ = kind_ == DisplayKind::window ? display::open_window_display(wanted, &error)
                                            : display::open_kms_display(wanted, &error);
    if (display_ && kind_ == DisplayKind::window && options_.fullscreen)
        display_->toggle_fullscreen();
    if (display_) {
        gate_ = std::make_unique<display::FlipGate>(display_->refresh_hz());
        return true;
    }
    report({Verdict::missing, "display", error,
            "hdmi-player-doctor   # or --display window, --display kms:/dev/dri/cardN"});
    // Where there was a display before, it may come back.
    if (shown_frames_.seen() == 0) {
        status_ = kNoDisplay;
        quit_ = true;
    }
    return false;
}

bool Viewer::begin_viewing(const machine::VideoSignal& signal)
{
    if (!take_display(signal))
        return false;
    const std::optional<capture::CaptureMode> mode = choose_capture_mode(signal);
    if (!mode)
        return false;
    Finding why;
    if (!device_->set_mode(*mode, &why)) {
        report(why);
        return false;
    }
    viewing_ = std::make_unique<Viewing>(device_.get(), display_.get(), gate_.get(), &shown_frames_);
    if (!viewing_->prepare(&why)) {
        report(why);
        return false;
    }
    if (!start_display())
        return false;
    viewing_->start(config_, info_);
    had_sound_ = true;
    black_spell_ = {};
    messages_.print(device_->path() + " (" + device_->card() + "): " + viewing_->description() + " on " +
                    display_->description());
    display_->set_title(device_->card());
    return true;
}

bool Viewer::start_display()
{
    if (display_runs_)
        return true;
    std::string error;
    const std::optional<hdmi_player_drm_info_t> info = display_->start(&shown_frames_, gate_.get(), &error);
    if (!info) {
        report({Verdict::missing, "display", error, "hdmi-player-doctor"});
        return false;
    }
    info_ = *info;
    display_runs_ = true;
    return true;
}

void Viewer::watch()
{
    while (!ended() && viewing_->end() == Viewing::End::none) {
        watch_sound();
        watch_for_black();
        pause(kLookAgainMs);
    }
    if (viewing_->end() == Viewing::End::stalled)
        report(stalled_picture(device_->path()));
}

void Viewer::watch_sound()
{
    const bool sounds = viewing_->update_player(config_);
    if (had_sound_ && !sounds)
        report({Verdict::missing, sound_input_, "no sound: the device cannot be opened, as said above",
                "hdmi-player-doctor"});
    else if (!had_sound_ && sounds)
        display_->set_title(device_->card());
    had_sound_ = sounds;
}

void Viewer::watch_for_black()
{
    switch (black_spell_.look(viewing_->black(), common::now_ns())) {
    case BlackSpell::News::none: break;
    case BlackSpell::News::lasts:
        messages_.allow_repetition();
        report(black_picture(device_->path()));
        break;
    case BlackSpell::News::over: display_->set_title(device_->card()); break;
    }
}

void Viewer::end_viewing()
{
    if (viewing_ && viewing_->started())
        std::fprintf(stderr, "%s: %s\n", kTitle, viewing_->figures(config_).c_str());
    viewing_.reset();
    if (kind_ == DisplayKind::kms) {
        display_.reset();
        display_runs_ = false;
    }
    if (device_)
        device_->reset();
}

// --- The viewer's wishes -----------------------------------------------------------------

void Viewer::pause(int milliseconds)
{
    for (const std::string& key : terminal_.keys(milliseconds))
        handle_key(key);
    std::unique_lock<std::mutex> lock(keys_mutex_);
    const std::deque<std::string> keys = std::exchange(keys_, {});
    lock.unlock();
    for (const std::string& key : keys)
        handle_key(key);
}

void Viewer::handle_key(const std::string& key)
{
    switch (command_of(key)) {
    case Command::quit: quit_ = true; break;
    case Command::mute: toggle_mute(); break;
    case Command::softer: change_volume(-kVolumeStep); break;
    case Command::louder: change_volume(kVolumeStep); break;
    case Command::fullscreen:
        if (display_)
            display_->toggle_fullscreen();
        break;
    case Command::next_output: take_next_output(); break;
    case Command::sound_later: delay_sound(kDelayStepMs); break;
    case Command::sound_earlier: delay_sound(-kDelayStepMs); break;
    case Command::figures:
        messages_.allow_repetition();
        messages_.print(viewing_ ? viewing_->figures(config_) : "no picture yet");
        break;
    case Command::none: break;
    }
}

void Viewer::toggle_mute()
{
    if (hdmi_player_set_mute(!muted_) == 0)
        muted_ = !muted_;
    if (!muted_ && std::exchange(volume_waits_, false))
        hdmi_player_set_volume(volume_);
    messages_.print(muted_ ? "muted" : "not muted");
}

/// The player only remembers a volume that it is given while it is muted.
void Viewer::change_volume(int step)
{
    const int wanted = std::clamp(volume_ + step, 0, 100);
    if (hdmi_player_set_volume(wanted) == 0 || muted_)
        volume_ = wanted;
    volume_waits_ = muted_;
    messages_.print("volume " + std::to_string(volume_) + " %");
}

void Viewer::take_next_output()
{
    for (size_t steps = 1; steps < std::size(kOutputs); steps++) {
        const Output& output = output_after(config_.output, steps);
        // What is chosen while nothing plays is opened when something does.
        if (viewing_ && viewing_->plays_sound() && hdmi_player_select_audio_output_device(output.device) != 0)
            continue;
        config_.output = output.device;
        messages_.print(std::string("sound to ") + output.name);
        return;
    }
    messages_.print("no other sound output can be opened");
}

void Viewer::delay_sound(int step_ms)
{
    config_.sound_delay_ms = std::clamp(config_.sound_delay_ms + step_ms, kLeastWantedDelayMs, kMostSoundDelayMs);
    messages_.print("sound " + std::to_string(config_.sound_delay_ms) + " ms later");
}

/// A window says it in its title too.
void Viewer::report(const Finding& finding)
{
    messages_.print(finding);
    if (display_)
        display_->set_title(std::string(kTitle) + ": " + finding.detail);
}

} // namespace view
