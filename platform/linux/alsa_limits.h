// SPDX-License-Identifier: MIT
/**
 * @file
 * What playback and capture have in common: the sizes that are taken, and the times of the way back from trouble.
 */
#pragma once

#include <cstdint>

#include "alsa_clock.h"

namespace hdmi_linux
{

constexpr int kMaxChannels = 8;
constexpr int kMaxRate = 192000;
constexpr int kMaxPeriodFrames = 1 << 16;
constexpr int kMaxPeriods = 64;

/// Between two attempts to open a device that is lost.
constexpr int64_t kReopenPauseNs = 200 * kNsPerMs;
/// A device that fails again so soon after its return is left alone for a while, others are looked for at once.
constexpr int64_t kRelapseNs = 200 * kNsPerMs;
constexpr int64_t kRelapsePauseNs = kNsPerSecond;
/// Between two attempts to wake a device that is suspended.
constexpr int64_t kResumePauseNs = 20 * kNsPerMs;
/// One that still says that it wakes up is opened anew.
constexpr int64_t kResumeLimitNs = 5 * kNsPerSecond;
/// Overruns and underruns come in dozens; one message per this time.
constexpr int64_t kXrunLogNs = 5 * kNsPerSecond;

} // namespace hdmi_linux
