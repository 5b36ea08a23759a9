// SPDX-License-Identifier: MIT
/**
 * @file
 * The WAV file of what a playback device played. A thread of its own writes the
 * file, so that the playing thread only copies samples into memory.
 */
#pragma once

#include <sndfile.h>

#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "play_queue.h"

namespace sim
{

class Recording : public PlaySink
{
public:
    /// Creates @p path; finish() returns whether that and all writes succeeded.
    Recording(std::string path, int rate, int channels) NO_THREAD_SAFETY_ANALYSIS;
    ~Recording() override;
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    void sound(const int16_t* samples, int64_t frames, int64_t heard_ns, bool begins_block) override;
    void silence(int64_t frames, int64_t heard_ns) override;
    /// The next samples come from another opening of the device.
    void break_block();

    std::vector<hdmi_sim::PlayedBlock> blocks();
    /// Completes the file and writes the list of blocks beside it; what is recorded afterwards is ignored.
    bool finish(std::string* error);

    int rate() const { return rate_; }
    int channels() const { return channels_; }

private:
    /// Samples, or a number of frames of silence.
    struct Chunk {
        std::vector<int16_t> samples;
        int64_t silent_frames = 0;
    };

    void add_block(int64_t frames, int64_t heard_ns, bool silence, bool begins) REQUIRES(mutex_);
    void write_loop();
    void write_chunk(const Chunk& chunk);
    void write_samples(const int16_t* samples, int64_t frames);
    bool write_block_list(std::string* error);
    void stop_thread() REQUIRES(finish_mutex_);

    const std::string path_;
    const int rate_;
    const int channels_;
    mutex_t finish_mutex_; ///< one finish at a time
    std::thread thread_ GUARDED_BY(finish_mutex_);
    SNDFILE* file_ = nullptr; ///< only the thread uses it while it runs
    std::string problem_;     ///< the first error; used as file_

    mutex_t mutex_;
    Condition changed_;
    std::deque<Chunk> pending_ GUARDED_BY(mutex_);
    int64_t pending_frames_ GUARDED_BY(mutex_) = 0;
    int64_t frames_ GUARDED_BY(mutex_) = 0;
    std::vector<hdmi_sim::PlayedBlock> blocks_ GUARDED_BY(mutex_);
    bool block_broken_ GUARDED_BY(mutex_) = false;
    bool ending_ GUARDED_BY(mutex_) = false;
};

} // namespace sim
