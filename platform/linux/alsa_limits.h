// SPDX-License-Identifier: MIT
/**
 * @file
 * Limits that playback and capture share: valid requests, and the times of recovery from errors.
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
constexpr int kMaxPeriods = 64; ///< more than a second of the player's periods

/// Whether @p config names a device of the platform and has valid sizes. A rate of 0 or less is not refused here.
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

/// Result of a call on a device that is closed, or that was closed during the call.
constexpr int kClosed = -EBADFD;

/// How often a wait checks the device's state: without a signal there may be no data for hours.
constexpr int kPollMs = 100;
/// Recoveries per transfer; a device that needs more is treated as lost.
constexpr int kMaxRecoveries = 3;
/// Pause between two attempts to open a lost device.
constexpr int64_t kReopenPauseNs = 200 * kNsPerMs;
/// A device that is lost within this time after its recovery is opened again only after kRelapsePauseNs, others at
/// once.
constexpr int64_t kRelapseNs = 200 * kNsPerMs;
constexpr int64_t kRelapsePauseNs = kNsPerSecond;
/// When to open a device again that was lost @p now and had recovered at @p back_ns.
inline int64_t retry_after_loss(int64_t now, int64_t back_ns)
{
    return now - back_ns < kRelapseNs ? now + kRelapsePauseNs : now;
}
/// Pause between two attempts to resume a suspended device.
constexpr int64_t kResumePauseNs = 20 * kNsPerMs;
/// A device that has not resumed by then is opened anew.
constexpr int64_t kResumeLimitNs = 5 * kNsPerSecond;
/// Overruns and underruns often come in large numbers: at most one message in this time.
constexpr int64_t kXrunLogNs = 5 * kNsPerSecond;

} // namespace hdmi_linux
