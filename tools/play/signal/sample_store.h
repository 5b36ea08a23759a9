// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>

namespace play
{

/// The kernel may take back what is on the disk, and a reader in real time then waits until it is there again.
enum class Storage { disk, memory };

/**
 * Decoded sound, needed twice: when it is sent, and when the recording is compared with it. Of any length in an
 * unlinked temporary file; in memory what is short, or comes again and again. One thread appends, any thread reads.
 */
class SampleStore
{
public:
    explicit SampleStore(Storage storage = Storage::disk);
    ~SampleStore();
    SampleStore(const SampleStore&) = delete;
    SampleStore& operator=(const SampleStore&) = delete;

    bool usable() const { return fd_ >= 0; }
    /// @return false if the disk or the memory is full
    bool append(const int16_t* stereo, int64_t frames);
    bool append_silence(int64_t frames);
    int64_t frames() const { return frames_; }
    /// Frames that are not stored are silent. @return frames that are
    int64_t read(int64_t first, int16_t* stereo, int64_t frames) const;

private:
    int fd_ = -1;
    std::atomic<int64_t> frames_{0};
};

} // namespace play
