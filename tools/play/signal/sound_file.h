// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "signal/clock_track.h"
#include "signal/recording.h"

struct sf_private_tag;

namespace play
{

/**
 * A WAV file of 16-bit stereo sound that one thread hands over while it plays
 * or captures, and when each of its frames is heard. The disk is written by a
 * thread of its own: handing over neither waits, allocates nor fails; what
 * finds no room is missed by finish().
 */
class SoundFile
{
public:
    SoundFile(std::string path, int rate);
    ~SoundFile();
    SoundFile(const SoundFile&) = delete;
    SoundFile& operator=(const SoundFile&) = delete;

    // The thread that hands over:

    void append(const int16_t* stereo, int frames);
    /// Frames so far: the number of the next one.
    int64_t frames() const { return frames_; }
    /// Before what is next is appended: frame @p position is heard at @p at_ns. A device that stays far from its own
    /// earlier words has lost or inserted sound: from there on it is another run.
    void heard(int64_t position, int64_t at_ns);
    /// What follows does not continue what came before.
    void begin_run();

    // Any thread:

    /// Completes the file, and "<path>.blocks.csv" beside it. @return false with one line in @p error
    bool finish(std::string* error);
    /// When was what heard; blocks of a run follow each other without a gap.
    std::vector<HeardBlock> blocks() const;
    double drift_ppm() const; ///< of the present run
    const std::string& path() const { return path_; }

private:
    struct Run {
        int64_t first_frame;
        ClockTrack track;
        Run(int64_t first, int rate) : first_frame(first), track(rate) {}
    };

    struct Word {
        int64_t frames; ///< handed over at that time
        int64_t position;
        int64_t at_ns;
    };

    ClockTrack* next_run(int64_t first_frame);
    void make_spare();
    void write_loop();
    void write_pending();
    bool write_block_list(std::string* error) const;

    const std::string path_;
    const int rate_;
    sf_private_tag* file_;
    std::string problem_; ///< the writing thread's while it runs
    std::vector<int16_t> ring_;
    std::atomic<int64_t> frames_{0};  ///< handed over
    std::atomic<int64_t> written_{0}; ///< of these, in the file
    std::atomic<int64_t> missed_{0};
    std::atomic<bool> ending_{false};
    mutable std::mutex mutex_;
    std::list<Run> runs_;
    std::list<Run> spare_;     ///< the next one, made ahead by the writing thread
    std::vector<Word> strays_; ///< words of the device, one after the other, that are far from the run's
    std::thread thread_;
};

} // namespace play
