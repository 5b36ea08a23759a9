// SPDX-License-Identifier: MIT
/**
 * @file
 * Where the player's sound goes, and the recording of what is heard there.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "signal/recording.h"

namespace play
{

/// What happened at the sound device.
struct SoundAccount {
    int64_t first_write_ns = 0;  ///< 0: nothing was written
    int64_t frames = 0;          ///< written by the player
    double drift_ppm = 0;        ///< of a real device against CLOCK_MONOTONIC
    int64_t left_out = 0;        ///< frames that the simulated device did not play, since they came too late
    int64_t refilled = 0;        ///< frames of silence that it played beside them
    int64_t observer_breaks = 0; ///< times that the device that listens lost sound or went away
    bool matched = false;        ///< resampled from the source's clock to the device's
    double matching_ppm = 0;     ///< in the end, positive for a source that is the faster one
};

/// One run's recording: a file, and when its frames were heard.
struct RecordedSound {
    std::string path;
    std::vector<HeardBlock> blocks;
};

class SoundOutput
{
public:
    virtual ~SoundOutput() = default;
    SoundOutput() = default;
    SoundOutput(const SoundOutput&) = delete;
    SoundOutput& operator=(const SoundOutput&) = delete;

    /// Before the player opens. @return false with one line in @p error
    virtual bool start(std::string* error) = 0;
    /// Waits until the device has played all that it was given, but not for ever.
    virtual void wait_until_played() = 0;
    /// Completes the recordings; after the player was closed. @return false with one line in @p error
    virtual bool finish(std::string* error) = 0;

    /// What was heard. After finish().
    virtual RecordedSound heard() const = 0;
    /// What the player wrote; without an observer this is heard(). After finish().
    virtual RecordedSound sent() const = 0;
    virtual SoundAccount account() const = 0;
};

} // namespace play
