// SPDX-License-Identifier: MIT
/**
 * @file
 * The owner of the machine's outputs.
 *
 * Two streams play: what the player writes (Playback), and captured bursts in
 * raw pass-through (Bypass). Neither knows the other, and an output serves one
 * of them at a time:
 *
 * - Pass-through begins on the digital output that playback used last. If
 *   playback is still open there, it goes on without a PCM until pass-through
 *   ends.
 * - From then on playback has priority: opened on that output, or moved there,
 *   it takes the output back. This pass-through stays without one until it ends.
 */
#pragma once

#include "aio_device.h"
#include "alsa_bypass.h"
#include "alsa_playback.h"
#include "hdmi_linux.h"
#include "internal/locks.h"

namespace hdmi_linux
{

class Output
{
public:
    int open(const audio_config_t& config);
    int reselect(int device_id, int output_fmt);
    /// Ends a blocked call, and so does not wait for an open or reselect in progress.
    int close() { return playback_.close(); }
    int write(const uint8_t* data, int size) { return playback_.write(data, size); }
    int delay(int* frames) { return playback_.delay(frames); }
    int set_volume(int percent) { return playback_.set_volume(percent); }
    int set_direct_volume(int value) { return playback_.set_direct_volume(value); }
    int set_mute(bool mute) { return playback_.set_mute(mute); }
    DeviceStats playback_stats() { return playback_.stats(); }

    /// @p capture is the opened capture device, @p rate the rate of its link.
    void start_pass_through(const audio_config_t& capture, int rate);
    /// Harmless when not started.
    void stop_pass_through();
    /// Sends captured frames. Never waits.
    void pass_through(const uint8_t* data, int frames, const CaptureClock& clock) { bypass_.put(data, frames, clock); }
    /// Tells playback of the capture device's clock. Never waits.
    void captured(const CaptureClock& clock) { playback_.captured(clock); }
    BypassStats bypass_stats() { return bypass_.stats(); }

private:
    void take_from_bypass(int device) REQUIRES(mutex_);

    mutex_t mutex_; ///< one decision at a time; before the mutexes of the two streams
    int last_digital_ GUARDED_BY(mutex_) = E_AUDIO_IO_DEV_NONE; ///< last digital output of playback; NONE: none yet
    int passing_ GUARDED_BY(mutex_) = E_AUDIO_IO_DEV_NONE;      ///< the output that pass-through has
    Playback playback_;
    Bypass bypass_;
};

Output& output();

} // namespace hdmi_linux
