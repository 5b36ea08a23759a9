// SPDX-License-Identifier: MIT
/**
 * @file
 * Raw pass-through: sends captured bursts to the digital output as coded data,
 * without the player. The capture device's own thread calls put().
 */
#pragma once

#include <memory>
#include <string>

#include "aio_device.h"
#include "alsa_matching.h"
#include "alsa_pcm.h"
#include "burst_follower.h"
#include "hdmi_linux.h"
#include "internal/locks.h"
#include "rate_controller.h"

namespace hdmi_linux
{

class Bypass
{
public:
    /// Begins to send to digital output @p device. put() opens it, and opens it again after a loss.
    void start(const audio_config_t& capture, int rate, int device);
    /// Closes the output. Harmless when not started.
    void stop();
    /// Sends captured frames, of a device with @p clock. Never waits: frames that the output does not take are dropped.
    void put(const uint8_t* data, int frames, const CaptureClock& clock);
    /// Closes the output and does not open it again before the next start().
    void release_output();
    BypassStats stats();

private:
    void open_when_due() REQUIRES(mutex_);
    int slip_due() REQUIRES(mutex_);
    void send_period(const uint8_t* data, int frames, int stuffing) REQUIRES(mutex_);
    void send(const uint8_t* data, int frames) REQUIRES(mutex_);
    bool recover(int result, int recoveries) REQUIRES(mutex_);
    void close_output() REQUIRES(mutex_);
    void restore_channel_status() REQUIRES(mutex_);

    mutex_t mutex_;
    bool active_ GUARDED_BY(mutex_) = false;
    int device_ GUARDED_BY(mutex_) = E_AUDIO_IO_DEV_NONE;
    PcmRequest request_ GUARDED_BY(mutex_);
    Pcm pcm_ GUARDED_BY(mutex_);
    int64_t retry_ns_ GUARDED_BY(mutex_) = 0;
    int64_t back_ns_ GUARDED_BY(mutex_) = 0;   ///< when the output was last opened
    bool reported_ GUARDED_BY(mutex_) = false; ///< the log says already that the output is not there
    BurstFollower bursts_ GUARDED_BY(mutex_);
    std::unique_ptr<uint8_t[]> zeros_ GUARDED_BY(mutex_);
    CaptureFollower capture_ GUARDED_BY(mutex_);
    clocks::TimeInFlight in_flight_ GUARDED_BY(mutex_);
    int64_t taken_ GUARDED_BY(mutex_) = 0; ///< frames, since the output was opened
    int64_t sent_ GUARDED_BY(mutex_) = 0;  ///< of these and of stuffing, to the output
    BypassStats stats_ GUARDED_BY(mutex_);
};

} // namespace hdmi_linux
