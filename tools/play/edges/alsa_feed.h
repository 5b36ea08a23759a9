// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "edges/alsa_pcm.h"
#include "signal/clock_track.h"
#include "source/source.h"

namespace play
{

/**
 * Sends a source's link frames into an ALSA playback device, at that device's
 * rate. A source does not wait: after an underrun, or a loss of the device, the
 * frames that were due in the meantime are skipped.
 */
class AlsaFeed
{
public:
    AlsaFeed(std::string device, const Source* source);
    ~AlsaFeed() { stop(); }

    /// Sends from now on; returns when the first frame has passed. @return false with one line in @p error
    bool start(std::string* error);
    void stop();

    /// When each link frame passes.
    std::shared_ptr<const ClockTrack> track() const { return track_; }
    /// How often frames had to be skipped.
    int64_t breaks() const { return breaks_; }

private:
    void send();
    bool begin();
    int put_period();
    void learn();
    void recover();
    int64_t due() const;

    const std::string device_;
    const Source* source_;
    std::shared_ptr<ClockTrack> track_;
    std::unique_ptr<AlsaPcm> pcm_; ///< the thread's while it runs; null: the device is gone
    std::vector<int16_t> words_;
    int64_t next_ = 0; ///< link frame
    std::atomic<int64_t> breaks_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace play
