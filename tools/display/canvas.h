// SPDX-License-Identifier: MIT
// Pixels that a display shows, and how a picture fits among them.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace display
{

/// Memory that a display shows: 32 bits per pixel, 0x00RRGGBB.
struct Canvas {
    uint8_t* memory = nullptr;
    int width = 0;
    int height = 0;
    size_t pitch = 0; ///< bytes from row to row

    uint32_t* row(int y) const { return reinterpret_cast<uint32_t*>(memory + static_cast<size_t>(y) * pitch); }
};

struct Size {
    int width;
    int height;
};

/// The largest size of a @p width x @p height picture that fits into a box; the box itself for a picture without size.
inline Size fit(double width, double height, Size box)
{
    if (!(width > 0 && height > 0))
        return box;
    double scale = std::min(box.width / width, box.height / height);
    return {std::clamp(static_cast<int>(std::lround(width * scale)), 1, box.width),
            std::clamp(static_cast<int>(std::lround(height * scale)), 1, box.height)};
}

} // namespace display
