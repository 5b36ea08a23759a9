// SPDX-License-Identifier: MIT
/**
 * @file
 * What happened when, for the charts of the report. The threads that did it
 * write it down, real-time threads among them; it is read when they have ended.
 */
#pragma once

#include <cstdint>
#include <cstring>

#include "display/event_log.h"

namespace play
{

using display::EventLog;

/// The player flipped a picture.
struct FlipEvent {
    int64_t at_ns = 0;
    int64_t number = 0;
    bool shown = false; ///< given to the display; otherwise coalesced with another flip
};

/// The host gave the player a block to play.
struct HandedEvent {
    int64_t at_ns = 0;
    int64_t pts_us = 0; ///< of its first frame
    int32_t serial = 0;
    int32_t frames = 0;
    uint64_t mark = 0; ///< see mark_of()
};

/// The playback device was opened.
struct OpenedEvent {
    int64_t at_ns = 0;
    int rate = 0;
};

/// The playback device took a block.
struct WrittenEvent {
    int64_t at_ns = 0;
    int32_t frames = 0;
    int32_t delay_frames = 0; ///< that it had to play then, this block included; negative: it did not tell
    uint64_t mark = 0;
};

/// A hash of a block: tells which block of those that went into the player comes out of it.
inline uint64_t mark_of(const uint8_t* data, int bytes)
{
    // FNV-1a, a word at a time: a block of 20 ms takes less than a microsecond.
    uint64_t mark = 14695981039346656037ULL;
    uint64_t word = 0;
    int at = 0;
    for (; at + static_cast<int>(sizeof word) <= bytes; at += static_cast<int>(sizeof word)) {
        std::memcpy(&word, data + at, sizeof word);
        mark = (mark ^ word) * 1099511628211ULL;
    }
    for (; at < bytes; at++)
        mark = (mark ^ data[at]) * 1099511628211ULL;
    return mark;
}

struct Trace {
    /// For a run of that length.
    Trace(double seconds, double pictures_per_s)
        : vblanks(room(seconds, pictures_per_s)), flips(room(seconds, pictures_per_s)),
          handed(room(seconds, kBlocksPerS)), written(room(seconds, kBlocksPerS)), opened(kOpenings)
    {
    }

    EventLog<int64_t> vblanks; ///< when the display told of one, CLOCK_MONOTONIC
    EventLog<FlipEvent> flips;
    EventLog<HandedEvent> handed;
    EventLog<WrittenEvent> written;
    EventLog<OpenedEvent> opened;
    EventLog<int64_t> resets{kOpenings}; ///< when the player told of one

    int64_t lost() const
    {
        return vblanks.lost() + flips.lost() + handed.lost() + written.lost() + opened.lost() + resets.lost();
    }

private:
    /// Periods of the device, 960 frames at 48 kHz.
    static constexpr double kBlocksPerS = 50;
    static constexpr size_t kOpenings = 4096;
    /// For what comes before and after the programme, and for clocks that run fast.
    static size_t room(double seconds, double per_s) { return static_cast<size_t>((1.1 * seconds + 10) * per_s); }
};

} // namespace play
