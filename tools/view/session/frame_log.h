// SPDX-License-Identifier: MIT
// When each frame came and when it was seen, for who measures.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "display/event_log.h"
#include "picture/feed.h"

namespace view
{

/// came() is for one thread at a time, and so is seen(). Nothing is allocated after construction.
class FrameLog
{
public:
    /// The next frames come from another feed, which numbers them anew.
    void begin() { run_++; }
    /// From now on flips are held by some refreshes more or less: one frame stays for it, or is not seen.
    void moved() { moves_++; }
    /// One that is withheld, so that the player resets, is not told of: its number is left out.
    void came(const ViewBuffer& frame);
    void seen(const ViewBuffer& frame, int64_t seen_ns);

    /// After the last frame: a line for each that came, in order, with each time that it was seen. Times are
    /// CLOCK_MONOTONIC in ns. @return false, with errno, if the file cannot be written
    bool write(const std::string& path) const;

private:
    struct Arrival {
        int64_t run = 0;
        int64_t number = 0;
        int64_t sequence = 0;
        int64_t written_ns = 0;
        int64_t arrived_ns = 0;
        int64_t moves = 0; ///< until then
    };
    struct Sighting {
        int64_t run = 0;
        int64_t number = 0;
        int64_t seen_ns = 0;
        bool flash = false;
    };
    /// An hour of 60 a second; what comes later is left out.
    static constexpr size_t kMostFrames = 3600 * 60;

    std::atomic<int64_t> run_{0};
    std::atomic<int64_t> moves_{0};
    display::EventLog<Arrival> arrivals_{kMostFrames};
    display::EventLog<Sighting> sightings_{kMostFrames};
};

} // namespace view
