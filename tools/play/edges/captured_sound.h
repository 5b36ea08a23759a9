// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <string>

#include "edges/platform_router.h"
#include "signal/recording.h"
#include "signal/sound_file.h"

namespace play
{

/// Records what the player reads from a real capture device, and when each frame of it was captured.
class CapturedSound : private SeamTap
{
public:
    explicit CapturedSound(std::string wav_path) : path_(std::move(wav_path)) { tap_capture(this); }
    ~CapturedSound() override { tap_capture(nullptr); }
    CapturedSound(const CapturedSound&) = delete;
    CapturedSound& operator=(const CapturedSound&) = delete;

    /// After the player was closed. @p recording stays empty if nothing was captured. @return false with one line in
    /// @p error
    bool finish(Recording* recording, std::string* error);

private:
    void opened(const audio_config_t& config) override;
    void read(const uint8_t* data, int bytes, int64_t now_ns, int64_t waiting_frames) override;

    const std::string path_;
    std::unique_ptr<SoundFile> file_; ///< from the first opening on
    int rate_ = 0;
    bool other_rate_ = false;
};

} // namespace play
