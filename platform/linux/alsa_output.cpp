// SPDX-License-Identifier: MIT
#include "alsa_output.h"

#include <cerrno>

#include "alsa_limits.h"
#include "config.h"

namespace hdmi_linux
{

// Never destroyed: threads may still call when the program exits.
Output& output()
{
    static auto* instance = new Output;
    return *instance;
}

int Output::open(const audio_config_t& config)
{
    if (!valid_playback(config))
        return -EINVAL;
    mutex_guard guard(mutex_);
    if (playback_.is_open())
        return -EBUSY;
    take_from_bypass(config.device_id);
    const int err = playback_.open(config);
    if (err >= 0 && is_digital(config.device_id))
        last_digital_ = config.device_id;
    return err;
}

int Output::reselect(int device_id, int output_fmt)
{
    if (!valid_output(device_id, output_fmt))
        return -EINVAL;
    mutex_guard guard(mutex_);
    if (!playback_.is_open())
        return kClosed;
    take_from_bypass(device_id);
    const int err = playback_.reselect(device_id, output_fmt);
    if (err >= 0 && is_digital(device_id))
        last_digital_ = device_id;
    return err;
}

void Output::take_from_bypass(int device)
{
    if (device != passing_)
        return;
    passing_ = E_AUDIO_IO_DEV_NONE;
    bypass_.release_output();
}

void Output::start_pass_through(const audio_config_t& capture, int rate)
{
    mutex_guard guard(mutex_);
    passing_ = last_digital_ != E_AUDIO_IO_DEV_NONE ? last_digital_ : current_config().raw_output;
    playback_.yield_output(passing_);
    bypass_.start(capture, rate, passing_);
}

void Output::stop_pass_through()
{
    mutex_guard guard(mutex_);
    passing_ = E_AUDIO_IO_DEV_NONE;
    bypass_.stop();
    playback_.reclaim_output();
}

} // namespace hdmi_linux
