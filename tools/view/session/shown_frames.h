// SPDX-License-Identifier: MIT
// Counts what is seen on the display: every frame once, in order.
#pragma once

#include <atomic>
#include <cstdint>

#include "display/display.h"
#include "picture/feed.h"
#include "session/frame_log.h"
#include "session/transit.h"

namespace view
{

class ShownFrames : public display::Observer
{
public:
    /// @p log may be null; it outlives this.
    explicit ShownFrames(FrameLog* log) : log_(log) {}

    void shown(const display::FrameBuffer& buffer, int64_t seen_ns) override
    {
        const auto& frame = static_cast<const ViewBuffer&>(buffer);
        const int64_t number = frame.number;
        if (log_ != nullptr)
            log_->seen(frame, seen_ns);
        transit_.frames.add(seen_ns, static_cast<double>(seen_ns - frame.arrived_ns) / 1e6);
        const int64_t step = number - number_;
        if (step <= 0)
            disordered_++;
        else if (number_ > 0)
            unseen_ += step - 1;
        number_ = number;
        seen_++;
    }
    void stayed(int64_t) override {}

    /// The next frames come from another feed, which numbers them anew.
    void begin()
    {
        number_ = 0;
        if (log_ != nullptr)
            log_->begin();
    }

    FrameLog* log() const { return log_; }
    Transit& transit() { return transit_; }

    int64_t seen() const { return seen_; }
    int64_t unseen() const { return unseen_; }         ///< between two that were seen
    int64_t disordered() const { return disordered_; } ///< seen again, or after a newer one

private:
    FrameLog* const log_;
    Transit transit_;
    std::atomic<int64_t> number_{0}; ///< of the frame seen last
    std::atomic<int64_t> seen_{0};
    std::atomic<int64_t> unseen_{0};
    std::atomic<int64_t> disordered_{0};
};

} // namespace view
