// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "edges/alsa_pcm.h"
#include "edges/sound_output.h"
#include "signal/sound_file.h"

namespace play
{

/// Records an ALSA capture device; opens it again after a loss.
class AlsaObserver
{
public:
    AlsaObserver(std::string device, const std::string& wav_path, int rate);
    ~AlsaObserver() { stop(); }

    /// Listens from now on. @return false with one line in @p error
    bool start(std::string* error);
    /// Stops and completes the recording. @return false with one line in @p error
    bool finish(std::string* error);

    RecordedSound heard() const { return {file_.path(), file_.blocks()}; }
    double drift_ppm() const { return file_.drift_ppm(); }
    /// How often sound was missed: overruns and losses of its own device.
    int64_t breaks() const { return breaks_; }

private:
    void listen();
    bool take_period();
    void open_again();
    void stop();

    const std::string device_;
    const int rate_;
    SoundFile file_;
    std::unique_ptr<AlsaPcm> pcm_; ///< the thread's; null: the device is gone
    std::vector<int16_t> period_;
    std::atomic<bool> stop_{false};
    std::atomic<int64_t> breaks_{0};
    std::thread thread_;
};

} // namespace play
