// SPDX-License-Identifier: MIT
/**
 * @file
 * What came out of the sound device: the recorded samples, read back from the
 * WAV file, and when each of them was heard.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct sf_private_tag;

namespace play
{

/// Consecutive frames of a recording, heard without a gap.
struct HeardBlock {
    int64_t first_frame;
    int64_t frames;
    int64_t heard_ns; ///< when the first frame is heard, CLOCK_MONOTONIC
    bool silence;     ///< the device had nothing to play
};

class Recording
{
public:
    Recording() = default;
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// @return false with one line in @p error
    bool open(const std::string& path, std::vector<HeardBlock> blocks, std::string* error);

    int sample_rate() const { return sample_rate_; }
    int64_t frames() const { return frames_; }
    const std::vector<HeardBlock>& blocks() const { return blocks_; }

    /// Stereo frames from @p first on; frames outside of the recording are silent. @return frames inside
    int64_t read(int64_t first, int16_t* stereo, int64_t frames) const;

    /// When frame @p position is heard; -1 outside of the recording.
    int64_t heard_ns(int64_t position) const;
    /// The frame heard at @p monotonic_ns, by the block that was sounding then or last began before; -1: none yet.
    int64_t position_at(int64_t monotonic_ns) const;

    /// First frame heard since the device was opened last: after that came a pause that is not in the recording.
    int64_t last_opening() const;

    /// Frames that were written to the device, up to frame @p position: its silences do not count.
    int64_t written_before(int64_t position) const;
    int64_t written() const { return written_before(frames_); }

    /// Silences and pauses with sound after them that began between the two instants.
    int64_t gaps(int64_t from_ns, int64_t to_ns) const;

private:
    int64_t end_ns(size_t block) const;
    /// The device was closed and opened again before this block.
    bool pause_before(size_t block) const;

    sf_private_tag* file_ = nullptr;
    int sample_rate_ = 0;
    int64_t frames_ = 0;
    std::vector<HeardBlock> blocks_;
    std::vector<int64_t> written_; ///< frames written before each block
};

} // namespace play
