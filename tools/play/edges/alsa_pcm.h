// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>
#include <string>

typedef struct _snd_pcm snd_pcm_t;

namespace play
{

/**
 * One ALSA device of the measurement's own, 16-bit stereo: what the programme
 * is sent into, or what listens to the player's output. No call waits longer
 * than a tenth of a second. Not for several threads at once.
 */
class AlsaPcm
{
public:
    enum class Direction { playback, capture };

    /// @return null with one line in @p error
    static std::unique_ptr<AlsaPcm> open(const std::string& name, Direction direction, int rate, std::string* error);
    ~AlsaPcm();
    AlsaPcm(const AlsaPcm&) = delete;
    AlsaPcm& operator=(const AlsaPcm&) = delete;

    int period_frames() const { return period_frames_; }
    /// Size of its buffer; possibly less than was asked for.
    int buffer_frames() const { return buffer_frames_; }

    /// @return frames taken or given, 0 if the device did not move for a while, or a negative error number
    int write(const int16_t* stereo, int frames);
    int read(int16_t* stereo, int frames);
    /// Begins to play what was written so far, or to capture.
    bool start();
    /// After an overrun or underrun: empty, and ready to go on.
    bool prepare();

    /// Where the device was at a certain time.
    struct Position {
        int64_t frames; ///< written and not played yet, or captured and not read yet
        int64_t at_ns;  ///< CLOCK_MONOTONIC
    };
    /// @return false while the device does not run
    bool ask_position(Position* position);

private:
    AlsaPcm(snd_pcm_t* pcm, int period_frames, int buffer_frames)
        : pcm_(pcm), period_frames_(period_frames), buffer_frames_(buffer_frames)
    {
    }

    [[maybe_unused]] snd_pcm_t* pcm_; // not where alsa-lib is missing
    int period_frames_;
    int buffer_frames_;
};

/// Whether the device can be opened. @return false with one line in @p error
bool alsa_opens(const std::string& name, AlsaPcm::Direction direction, std::string* error);

} // namespace play
