// SPDX-License-Identifier: MIT
// How long sound and frames take from the devices to the output's cable and to the screen, by calculation.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <optional>

#include "hdmi_linux.h"

namespace view
{

/// The mean of half a second. From any thread; times are CLOCK_MONOTONIC, in nanoseconds.
class WindowMean
{
public:
    /// Nothing counts that was added before, or is added before @p from_ns.
    void start(int64_t from_ns)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        begun_ns_ = from_ns;
        sum_ = count_ = 0;
        mean_.reset();
    }

    void add(int64_t now_ns, double value)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (now_ns < begun_ns_)
            return;
        sum_ += value;
        count_++;
        if (now_ns - begun_ns_ < kWindowNs)
            return;
        mean_ = sum_ / count_;
        begun_ns_ = now_ns;
        sum_ = count_ = 0;
    }

    /// Of the latest half second; nothing: none is over.
    std::optional<double> value() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return mean_;
    }

private:
    static constexpr int64_t kWindowNs = 500'000'000;

    mutable std::mutex mutex_;
    int64_t begun_ns_ = 0;
    double sum_ = 0;
    double count_ = 0;
    std::optional<double> mean_;
};

/// In ms.
struct Transit {
    WindowMean sound;  ///< of a sample, from its capture to the output's cable
    WindowMean frames; ///< from the frame's arrival to light

    /// The player begins anew: what settles within a moment does not count.
    void start(int64_t now_ns)
    {
        constexpr int64_t kSettlingNs = 500'000'000;
        sound.start(now_ns + kSettlingNs);
        frames.start(now_ns + kSettlingNs);
    }
};

/// Counts the frames between hdmi_player_write_pcm() and the output's cable: those in the player's queue, and those
/// that the device has.
class OutputBacklog
{
public:
    /// A block will be written. @p device: the playback device's counters. @p paused: the player's queue has run empty,
    /// since nothing was written for long. @return frames that are heard before it
    int64_t before_write(const hdmi_linux::DeviceStats& device, bool paused)
    {
        // A device that has room has taken all that was queued.
        const int64_t buffer = int64_t{device.period_frames} * device.period_count;
        if (paused || device.queued + device.period_frames <= buffer)
            untaken_ = device.frames - written_;
        return std::max<int64_t>(written_ + untaken_ - device.frames, 0) + device.queued;
    }
    void wrote(int frames) { written_ += frames; }

private:
    int64_t written_ = 0;
    int64_t untaken_ = 0; ///< the device's count when the queue was empty, less written_
};

/// For how many refreshes more frames are to be held, fewer if negative, where the sound comes @p sound_later_ms after
/// its picture instead of @p wanted_ms: the nearest number, between @p least and @p most.
inline int refreshes_to_hold(double sound_later_ms, double wanted_ms, double refresh_ms, int least, int most)
{
    return std::clamp(static_cast<int>(std::lround((sound_later_ms - wanted_ms) / refresh_ms)), least, most);
}

} // namespace view
