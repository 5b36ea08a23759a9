// SPDX-License-Identifier: MIT
// Whether a frame is black, by a few of its pixels.
#pragma once

#include <cstdint>

#include "display/canvas.h"
#include "display/layout.h"

namespace view
{

bool is_black(const display::ForeignFrame& frame);
bool is_black(const display::Canvas& canvas);

/// Once a second: reading another device's memory is slow.
class OnceASecond
{
public:
    bool due(int64_t now_ns)
    {
        constexpr int64_t kSecondNs = 1'000'000'000;
        if (now_ns - last_ns_ < kSecondNs)
            return false;
        last_ns_ = now_ns;
        return true;
    }

private:
    int64_t last_ns_ = 0;
};

} // namespace view
