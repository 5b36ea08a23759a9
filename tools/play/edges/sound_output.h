// SPDX-License-Identifier: MIT
/**
 * @file
 * Where the player's sound goes, and the ear that listens there.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/options.h"
#include "signal/recording.h"

namespace play
{

/// What happened at the sound device.
struct SoundAccount {
    int64_t first_write_ns = 0;  ///< 0: nothing was written
    int64_t frames = 0;          ///< written by the player
    double drift_ppm = 0;        ///< of a real device against CLOCK_MONOTONIC
    int64_t observer_breaks = 0; ///< times that the device that listens lost sound or went away
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
    /// What the player wrote, before anything could happen to it: where the device itself is what is listened to, the
    /// same. After finish().
    virtual RecordedSound sent() const = 0;
    virtual SoundAccount account() const = 0;
};

/// The second recording, of a device with an observer.
std::string sent_path(const std::string& wav_path);

/// The device that the options name; what is heard of it is kept in @p wav_path. @p link_rate: Hz, at which compressed
/// sound is passed on.
std::unique_ptr<SoundOutput> make_sound_output(const Options& options, const std::string& wav_path, int link_rate);

} // namespace play
