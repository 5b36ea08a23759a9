// SPDX-License-Identifier: MIT
// How the pixels of a frame lie in memory, and memory that is not a display's own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace display
{

struct PixelLayout {
    uint32_t fourcc = 0; ///< as DRM counts them; 0: not pixels, but compressed
    int width = 0;
    int height = 0;
    int planes = 1;
    std::array<uint32_t, 3> offsets = {}; ///< of each plane, in bytes
    std::array<uint32_t, 3> pitches = {}; ///< bytes from row to row
    bool full_range = false;              ///< 0 is black and 255 white, otherwise 16 and 235
    bool bt709 = true;                    ///< the matrix between RGB and YCbCr; otherwise that of BT.601

    bool operator==(const PixelLayout& other) const
    {
        return fourcc == other.fourcc && width == other.width && height == other.height && planes == other.planes &&
               offsets == other.offsets && pitches == other.pitches && full_range == other.full_range &&
               bt709 == other.bt709;
    }
    bool operator!=(const PixelLayout& other) const { return !(*this == other); }
};

/// A frame in memory of somebody else's, such as a capture device's.
struct ForeignFrame {
    PixelLayout layout;
    const uint8_t* memory = nullptr; ///< as the processor sees it
    int dmabuf = -1;                 ///< as other devices see it; -1: they do not
};

} // namespace display
