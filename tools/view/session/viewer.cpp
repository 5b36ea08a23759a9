// SPDX-License-Identifier: MIT
#include "session/viewer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/clock.h"
#include "machine/capture_devices.h"

namespace view
{
namespace
{

using machine::Finding;
using machine::Verdict;

constexpr int64_t kMs = 1'000'000;
constexpr int kLookAgainMs = 50;
/// For a device or a signal that is not there.
constexpr int kTryAgainMs = 500;
constexpr int64_t kBlackNs = 5000 * kMs;
constexpr int kVolumeStep = 2;
constexpr int kDelayStepMs = 10;
constexpr int kLeastDelayMs = -500;
constexpr int kNoDisplay = 3;
constexpr char kCaptureVariable[] = "HDMIPLAYER_ALSA_HDMI_IN";
constexpr char kTitle[] = "hdmi-player-view";

const char* name_of_output(hdmi_player_ao_dev_e output)
{
    switch (output) {
    case E_HDMI_PLAYER_AO_DEV_HEADPHONE: return "headphone";
    case E_HDMI_PLAYER_AO_DEV_SPDIF: return "S/PDIF";
    case E_HDMI_PLAYER_AO_DEV_HDMI_ARC: return "HDMI ARC";
    case E_HDMI_PLAYER_AO_DEV_I2S_TXA: return "I2S";
    default: return "speaker";
    }
}

/// What was set from outside counts unless an option says otherwise.
std::string sound_input()
{
    const char* named = std::getenv(kCaptureVariable);
    return named != nullptr ? named : "";
}

} // namespace

Viewer::Viewer(const Options& options, const process::StopSignals& signals)
    : options_(options), signals_(signals), kind_(choose_display(options.display)), began_ns_(common::now_ns()),
      log_(options.frames.empty() ? nullptr : std::make_unique<FrameLog>()), audience_(log_.get())
{
    config_.wish = options.mode;
    config_.output = options.output;
    config_.display_latency_ms = options.display_latency_ms;
    config_.sound_delay_ms = options.sound_delay_ms;
}

Viewer::~Viewer()
{
    end_viewing();
    if (display_)
        display_->stop();
    if (log_ && !log_->write(options_.frames))
        tell({Verdict::refused, options_.frames, std::strerror(errno), ""});
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
            tell(no_device(devices));
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
        tell(why);
        pause(kTryAgainMs);
        return false;
    }
    config_.sound = name_sound(sound);
    return true;
}

/// Where the platform is to capture. @return false for no sound
bool Viewer::name_sound(const std::string& of_device)
{
    if (options_.capture == "none")
        return false;
    const std::string wanted = options_.capture.empty() ? of_device : options_.capture;
    if (!wanted.empty() && sound_input() != wanted)
        setenv(kCaptureVariable, wanted.c_str(), 1);
    if (!wanted.empty() || !sound_input().empty())
        return true;
    tell({Verdict::missing, device_->path(), "no sound comes in by the same device; the picture is shown without",
          "arecord -L   # lists names for --capture alsa:NAME"});
    return false;
}

void Viewer::drop_lost_device()
{
    if (!device_ || !device_->gone())
        return;
    tell({Verdict::missing, device_->path(), "was unplugged; waiting for it", "lsusb"});
    device_.reset();
}

bool Viewer::wait_for_signal(machine::VideoSignal* signal)
{
    *signal = device_->detect();
    const Finding objection = machine::objection_to(*signal, device_->path());
    if (objection.detail.empty())
        return true;
    tell(objection);
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
        tell({Verdict::missing, device_->path(),
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
    tell({Verdict::missing, "display", error,
          "hdmi-player-doctor   # or --display window, --display kms:/dev/dri/cardN"});
    // Where there was a display before, it may come back.
    if (audience_.seen() == 0) {
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
        tell(why);
        return false;
    }
    viewing_ = std::make_unique<Viewing>(device_.get(), display_.get(), gate_.get(), &audience_);
    if (!viewing_->prepare(&why)) {
        tell(why);
        return false;
    }
    if (!start_display())
        return false;
    viewing_->start(config_, info_);
    had_sound_ = true;
    black_since_ns_ = 0;
    const std::string line =
        device_->path() + " (" + device_->card() + "): " + viewing_->description() + " on " + display_->description();
    teller_.tell(line);
    display_->set_title(device_->card());
    return true;
}

bool Viewer::start_display()
{
    if (display_runs_)
        return true;
    std::string error;
    const std::optional<hdmi_player_drm_info_t> info = display_->start(&audience_, gate_.get(), &error);
    if (!info) {
        tell({Verdict::missing, "display", error, "hdmi-player-doctor"});
        return false;
    }
    info_ = *info;
    display_runs_ = true;
    return true;
}

void Viewer::watch()
{
    while (!ended() && viewing_->end() == Viewing::End::none) {
        const bool sounds = viewing_->tend_player(config_);
        if (!sounds && had_sound_)
            tell({Verdict::missing, sound_input(), "no sound: the device cannot be opened, as said above",
                  "hdmi-player-doctor"});
        had_sound_ = sounds;
        watch_for_black(common::now_ns());
        pause(kLookAgainMs);
    }
    if (viewing_->end() == Viewing::End::stalled)
        tell(stalled_picture(device_->path()));
}

void Viewer::watch_for_black(int64_t now_ns)
{
    if (!viewing_->black()) {
        black_since_ns_ = 0;
        return;
    }
    if (black_since_ns_ == 0)
        black_since_ns_ = now_ns;
    if (now_ns - black_since_ns_ > kBlackNs)
        tell(black_picture(device_->path()));
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
        obey(key);
    std::unique_lock<std::mutex> lock(keys_mutex_);
    const std::deque<std::string> keys = std::exchange(keys_, {});
    lock.unlock();
    for (const std::string& key : keys)
        obey(key);
}

void Viewer::obey(const std::string& key)
{
    switch (command_of(key)) {
    case Command::quit: quit_ = true; break;
    case Command::mute:
        if (hdmi_player_set_mute(!muted_) == 0)
            muted_ = !muted_;
        teller_.tell(muted_ ? "muted" : "not muted");
        break;
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
        teller_.forget();
        teller_.tell(viewing_ ? viewing_->figures(config_) : "no picture yet");
        break;
    case Command::none: break;
    }
}

void Viewer::change_volume(int step)
{
    const int wanted = std::clamp(volume_ + step, 0, 100);
    if (hdmi_player_set_volume(wanted) == 0)
        volume_ = wanted;
    teller_.tell("volume " + std::to_string(volume_) + " %");
}

void Viewer::take_next_output()
{
    constexpr hdmi_player_ao_dev_e kOutputs[] = {E_HDMI_PLAYER_AO_DEV_SPEAKER, E_HDMI_PLAYER_AO_DEV_HEADPHONE,
                                                 E_HDMI_PLAYER_AO_DEV_SPDIF, E_HDMI_PLAYER_AO_DEV_HDMI_ARC,
                                                 E_HDMI_PLAYER_AO_DEV_I2S_TXA};
    const auto* at = std::find(std::begin(kOutputs), std::end(kOutputs), config_.output);
    for (size_t tried = 1; tried < std::size(kOutputs); tried++) {
        at = at + 1 >= std::end(kOutputs) ? std::begin(kOutputs) : at + 1;
        if (hdmi_player_select_audio_output_device(*at) != 0)
            continue;
        config_.output = *at;
        teller_.tell(std::string("sound to ") + name_of_output(*at));
        return;
    }
    teller_.tell("no other sound output can be opened");
}

void Viewer::delay_sound(int step_ms)
{
    config_.sound_delay_ms =
        std::clamp(config_.sound_delay_ms + step_ms, kLeastDelayMs, static_cast<int>(kMostSoundDelayMs));
    teller_.tell("sound " + std::to_string(config_.sound_delay_ms) + " ms later");
}

/// Where there is a window, its title says it too.
void Viewer::tell(const Finding& finding)
{
    teller_.tell(finding);
    if (display_)
        display_->set_title(std::string(kTitle) + ": " + finding.detail);
}

} // namespace view
