// SPDX-License-Identifier: MIT
/**
 * @file
 * The latest frames of a stream, by position. Pure; only its constructor allocates.
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace hdmi_linux
{

class SoundRing
{
public:
    SoundRing() = default;
    SoundRing(int capacity_frames, int frame_bytes)
        : capacity_(capacity_frames), frame_bytes_(frame_bytes),
          data_(static_cast<size_t>(capacity_frames) * static_cast<size_t>(frame_bytes))
    {
    }

    /// Positions count the frames since the ring was built. end() is that of the next frame, oldest() that of the
    /// oldest one that the ring still holds.
    int64_t end() const { return end_; }
    int64_t oldest() const { return std::max<int64_t>(end_ - capacity_, 0); }
    int capacity() const { return capacity_; }

    /// Overwrites the oldest frames.
    void append(const uint8_t* data, int frames)
    {
        while (frames > 0) {
            const int run = std::min(frames, to_wrap(end_));
            memcpy(at(end_), data, bytes(run));
            data += bytes(run);
            end_ += run;
            frames -= run;
        }
    }

    struct Piece {
        const uint8_t* data;
        int frames;
    };
    /// At most @p max_frames contiguous frames from @p position on, which the ring must still hold.
    Piece piece(int64_t position, int max_frames)
    {
        const auto left = static_cast<int>(std::min<int64_t>(end_ - position, max_frames));
        return {at(position), std::min(left, to_wrap(position))};
    }

private:
    size_t bytes(int frames) const { return static_cast<size_t>(frames) * static_cast<size_t>(frame_bytes_); }
    int to_wrap(int64_t position) const { return capacity_ - static_cast<int>(position % capacity_); }
    uint8_t* at(int64_t position) { return data_.data() + bytes(static_cast<int>(position % capacity_)); }

    int capacity_ = 1;
    int frame_bytes_ = 1;
    int64_t end_ = 0;
    std::vector<uint8_t> data_;
};

} // namespace hdmi_linux
