// SPDX-License-Identifier: MIT
// Counts what is seen on the display: every frame once, in order.
#pragma once

#include <atomic>
#include <cstdint>

#include "display/display.h"
#include "picture/feed.h"

namespace view
{

class Audience : public display::Observer
{
public:
    void shown(const display::FrameBuffer& buffer, int64_t) override
    {
        const int64_t number = static_cast<const ViewBuffer&>(buffer).number;
        const int64_t step = number - number_;
        if (step <= 0)
            disordered_++;
        else if (number_ > 0)
            unseen_ += step - 1;
        number_ = number;
        seen_++;
    }
    void stayed(int64_t) override {}

    /// Another feed counts anew.
    void begin() { number_ = 0; }

    int64_t seen() const { return seen_; }
    int64_t unseen() const { return unseen_; }         ///< between two that were seen
    int64_t disordered() const { return disordered_; } ///< seen again, or after a newer one

private:
    std::atomic<int64_t> number_{0}; ///< of the frame seen last
    std::atomic<int64_t> seen_{0};
    std::atomic<int64_t> unseen_{0};
    std::atomic<int64_t> disordered_{0};
};

} // namespace view
