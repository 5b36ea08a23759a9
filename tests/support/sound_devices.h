// SPDX-License-Identifier: MIT
/**
 * @file
 * The other ends of ALSA devices, independent of the code under test, and sound
 * in which every frame has a number, so that lost, repeated and changed frames
 * show.
 */
#pragma once

#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

constexpr int kNumbers = 32000;
/// Stereo frames with the numbers from @p first on. Numbers repeat after kNumbers.
std::vector<int16_t> numbered(int64_t first, int frames);

/// A run of frames with consecutive numbers.
struct NumberRun {
    int first;
    int last;
    int frames;
};
/// The runs in a recording; silence is left out.
std::vector<NumberRun> number_runs(const std::vector<int16_t>& left);

/// The numbers in the payloads of coded bursts; @p words of both channels.
std::vector<int16_t> payloads(const std::vector<int16_t>& words);

/// Sends frame numbers into an ALSA device, as the other end of the capture's link.
class Feeder
{
public:
    /// @p stuffing above 0: sends bursts of coded data, of 960 frames each, of which the last @p stuffing are zeros.
    explicit Feeder(const std::string& pcm, int rate = 48000, int stuffing = 0);
    ~Feeder();
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

private:
    snd_pcm_t* pcm_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// Records an ALSA device, in stereo, on a thread of its own.
class Recorder
{
public:
    explicit Recorder(const std::string& pcm, int rate = 48000);
    ~Recorder() { stop(); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// The left channel so far.
    std::vector<int16_t> left() const;
    /// Both channels so far.
    std::vector<int16_t> words() const;
    void stop();

private:
    void run();

    snd_pcm_t* pcm_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<int16_t> words_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
