// SPDX-License-Identifier: MIT
/**
 * @file
 * What the devices have in common: the requests that are taken, and the way back from trouble.
 */
#pragma once

#include <cerrno>
#include <cstdint>

#include "aio_device.h"
#include "alsa_clock.h"

namespace hdmi_linux
{

constexpr int kMaxChannels = 8;
constexpr int kMaxRate = 192000;
constexpr int kMaxPeriodFrames = 1 << 16;
constexpr int kMaxPeriods = 64; ///< more than a second of the player's

/// Whether @p config names a device of the platform, and sound of a size that is taken; not whether its rate is one.
inline bool valid_request(const audio_config_t& config)
{
    return config.device_id >= E_AUDIO_IO_DEV_AUTO && config.device_id < E_AUDIO_IO_DEV_MAX && config.channels > 0 &&
           config.channels <= kMaxChannels && config.sample_rate <= kMaxRate && config.period_frames > 0 &&
           config.period_frames <= kMaxPeriodFrames && config.period_count > 0 && config.period_count <= kMaxPeriods;
}

inline bool is_digital(int device) { return device == E_AUDIO_IO_DEV_SPDIF || device == E_AUDIO_IO_DEV_HDMI_ARC; }

inline bool valid_output(int device_id, int output_fmt)
{
    return device_id >= E_AUDIO_IO_DEV_AUTO && device_id < E_AUDIO_IO_DEV_MAX && output_fmt >= E_AUDIO_IO_FORMAT_PCM &&
           output_fmt < E_AUDIO_IO_FORMAT_MAX;
}

inline bool valid_playback(const audio_config_t& config)
{
    return valid_request(config) && valid_output(config.device_id, config.output_fmt) && config.sample_rate > 0;
}

/// The result of a call on a device that is closed, or was closed meanwhile.
constexpr int kClosed = -EBADFD;

/// The longest wait without a look at the device's state; without a signal there may be no data for hours.
constexpr int kLookMs = 100;
/// Troubles of a device in the course of one transfer, each mended: one that fails again at once is not at work.
constexpr int kMaxTroubles = 3;
/// Between two attempts to open a device that is lost.
constexpr int64_t kReopenPauseNs = 200 * kNsPerMs;
/// A device that fails again so soon after its return is left alone for a while, others are looked for at once.
constexpr int64_t kRelapseNs = 200 * kNsPerMs;
constexpr int64_t kRelapsePauseNs = kNsPerSecond;
/// When to look for a device that is lost @p now and came to work at @p back_ns.
inline int64_t retry_after_loss(int64_t now, int64_t back_ns)
{
    return now - back_ns < kRelapseNs ? now + kRelapsePauseNs : now;
}
/// Between two attempts to wake a device that is suspended.
constexpr int64_t kResumePauseNs = 20 * kNsPerMs;
/// One that still says that it wakes up is opened anew.
constexpr int64_t kResumeLimitNs = 5 * kNsPerSecond;
/// Overruns and underruns come in dozens; one message per this time.
constexpr int64_t kXrunLogNs = 5 * kNsPerSecond;

} // namespace hdmi_linux
