// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "edges/alsa_pcm.h"
#include "signal/sound_file.h"
#include "edges/sound_output.h"

namespace play
{

/// Listens to an ALSA capture device, across its disappearance, and keeps what it hears.
class AlsaObserver
{
public:
    AlsaObserver(std::string device, const std::string& wav_path, int rate);
    ~AlsaObserver() { stop(); }

    /// Listens from now on. @return false with one line in @p error
    bool start(std::string* error);
    /// Stops and completes the recording. @return false with one line in @p error
    bool finish(std::string* error);

    RecordedSound heard() const { return {m_file.path(), m_file.blocks()}; }
    double drift_ppm() const { return m_file.drift_ppm(); }
    /// Times that something was not heard: overruns of its own device, and losses.
    int64_t breaks() const { return m_breaks; }

private:
    void listen();
    bool take_period();
    void open_again();
    void stop();

    const std::string m_device;
    const int m_rate;
    SoundFile m_file;
    std::unique_ptr<AlsaPcm> m_pcm; ///< the thread's; null: the device is gone
    std::vector<int16_t> m_period;
    std::atomic<bool> m_stop{false};
    std::atomic<int64_t> m_breaks{0};
    std::thread m_thread;
};

} // namespace play
