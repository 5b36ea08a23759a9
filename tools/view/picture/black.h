// SPDX-License-Identifier: MIT
// Whether a frame is black, by a few of its pixels.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

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

/// When to say that the picture is black: scenes are, for a moment.
class BlackSpell
{
public:
    enum class News {
        none,
        lasts, ///< once in each spell
        over,  ///< after that
    };
    News look(bool black, int64_t now_ns)
    {
        constexpr int64_t kSceneNs = 5'000'000'000;
        if (!black) {
            began_ns_.reset();
            return std::exchange(told_, false) ? News::over : News::none;
        }
        if (!began_ns_)
            began_ns_ = now_ns;
        if (told_ || now_ns - *began_ns_ <= kSceneNs)
            return News::none;
        told_ = true;
        return News::lasts;
    }

private:
    std::optional<int64_t> began_ns_;
    bool told_ = false;
};

} // namespace view
