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
 * pace. A source does not wait: what could not be sent, because the device ran
 * dry or was gone for a while, is left out, and the frames go on with those
 * whose time it is.
 */
class AlsaFeed
{
public:
    AlsaFeed(std::string device, const Source* source);
    ~AlsaFeed() { stop(); }

    /// Sends from now on; returns when the first frame has passed. @return false with one line in @p error
    bool start(std::string* error);
    void stop();

    /// When which link frame passes.
    std::shared_ptr<const ClockTrack> track() const { return m_track; }
    /// Times that it could not go on where it was.
    int64_t breaks() const { return m_breaks; }

private:
    void send();
    bool begin();
    int put_period();
    void learn();
    void recover();
    int64_t due() const;

    const std::string m_device;
    const Source* m_source;
    std::shared_ptr<ClockTrack> m_track;
    std::unique_ptr<AlsaPcm> m_pcm; ///< the thread's while it runs; null: the device is gone
    std::vector<int16_t> m_words;
    int64_t m_next = 0; ///< link frame
    std::atomic<int64_t> m_breaks{0};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace play
