// SPDX-License-Identifier: MIT
#include "edges/captured_sound.h"

namespace play
{

void CapturedSound::opened(const audio_config_t& config)
{
    constexpr int kRateOfUnknownInput = 48000;
    const int rate = config.sample_rate != 0 ? config.sample_rate : kRateOfUnknownInput;
    if (!file_ || file_->frames() == 0) {
        file_.reset();
        file_ = std::make_unique<SoundFile>(path_, rate);
        rate_ = rate;
    }
    other_rate_ = other_rate_ || rate != rate_;
    file_->begin_run();
}

void CapturedSound::read(const uint8_t* data, int bytes, int64_t now_ns, int64_t waiting_frames)
{
    constexpr int kFrameBytes = 4;
    const int frames = bytes / kFrameBytes;
    if (!file_)
        return;
    file_->heard(file_->frames() + frames + waiting_frames, now_ns);
    file_->append(reinterpret_cast<const int16_t*>(data), frames);
}

bool CapturedSound::finish(Recording* recording, std::string* error)
{
    tap_capture(nullptr);
    if (!file_ || file_->frames() == 0)
        return true;
    if (!file_->finish(error))
        return false;
    if (!other_rate_)
        return recording->open(file_->path(), file_->blocks(), error);
    *error = "the captured sound changed its rate: it cannot be compared with what was played";
    return false;
}

} // namespace play
