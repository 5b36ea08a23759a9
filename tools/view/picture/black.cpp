// SPDX-License-Identifier: MIT
#include "picture/black.h"

#include <drm_fourcc.h>

#include <algorithm>

namespace view
{
namespace
{

constexpr int kPointsAcross = 16;
/// Above black by the noise of an analog stage, in 255 steps.
constexpr int kNoise = 6;
constexpr int kLimitedBlack = 16;

/// Whether @p value, by column and row, is at most @p limit at each point of a grid.
template <typename Value> bool all_black(int width, int height, int limit, Value value)
{
    for (int y = 0; y < kPointsAcross; y++)
        for (int x = 0; x < kPointsAcross; x++)
            if (value((2 * x + 1) * width / (2 * kPointsAcross), (2 * y + 1) * height / (2 * kPointsAcross)) > limit)
                return false;
    return width > 0 && height > 0;
}

/// A pixel in the first plane, and those of its bytes that tell how bright it is: the luma, or red, green and blue.
struct PixelBytes {
    int size;
    int first;
    int count;
};

PixelBytes pixel_bytes(uint32_t fourcc)
{
    switch (fourcc) {
    case DRM_FORMAT_YUYV: return {2, 0, 1};
    case DRM_FORMAT_UYVY: return {2, 1, 1};
    case DRM_FORMAT_XRGB8888:
    case DRM_FORMAT_XBGR8888: return {4, 0, 3};
    case DRM_FORMAT_BGRX8888: return {4, 1, 3};
    case DRM_FORMAT_RGB888:
    case DRM_FORMAT_BGR888: return {3, 0, 3};
    default: return {1, 0, 1};
    }
}

} // namespace

bool is_black(const display::ForeignFrame& frame)
{
    const display::PixelLayout& layout = frame.layout;
    const PixelBytes pixel = pixel_bytes(layout.fourcc);
    const int limit = kNoise + (layout.full_range ? 0 : kLimitedBlack);
    return all_black(layout.width, layout.height, limit, [&](int x, int y) {
        const uint8_t* bytes = frame.memory + layout.offsets[0] + static_cast<size_t>(y) * layout.pitches[0] +
                               static_cast<size_t>(x) * static_cast<size_t>(pixel.size) + pixel.first;
        return int{*std::max_element(bytes, bytes + pixel.count)};
    });
}

bool is_black(const display::Canvas& canvas)
{
    return all_black(canvas.width, canvas.height, kNoise, [&](int x, int y) {
        const uint32_t pixel = canvas.row(y)[x];
        int brightest = 0;
        for (int shift = 0; shift <= 16; shift += 8)
            brightest = std::max(brightest, static_cast<int>(pixel >> shift & 0xFF));
        return brightest;
    });
}

} // namespace view
