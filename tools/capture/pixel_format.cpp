// SPDX-License-Identifier: MIT
#include "capture/pixel_format.h"

#include <drm_fourcc.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <tuple>

namespace capture
{
namespace
{

// V4L2 names most RGB formats by the order in memory, DRM by the order in a little-endian word. The cheapest to show
// come first.
constexpr PixelFormat kFormats[] = {
    {V4L2_PIX_FMT_NV12, DRM_FORMAT_NV12, AV_PIX_FMT_NV12, 2},
    {V4L2_PIX_FMT_YUYV, DRM_FORMAT_YUYV, AV_PIX_FMT_YUYV422, 1},
    {V4L2_PIX_FMT_UYVY, DRM_FORMAT_UYVY, AV_PIX_FMT_UYVY422, 1},
    {V4L2_PIX_FMT_NV16, DRM_FORMAT_NV16, AV_PIX_FMT_NV16, 2},
    {V4L2_PIX_FMT_XBGR32, DRM_FORMAT_XRGB8888, AV_PIX_FMT_BGR0, 1},
    {V4L2_PIX_FMT_ABGR32, DRM_FORMAT_XRGB8888, AV_PIX_FMT_BGR0, 1},
    {V4L2_PIX_FMT_BGR32, DRM_FORMAT_XRGB8888, AV_PIX_FMT_BGR0, 1},
    {V4L2_PIX_FMT_RGBX32, DRM_FORMAT_XBGR8888, AV_PIX_FMT_RGB0, 1},
    {V4L2_PIX_FMT_XRGB32, DRM_FORMAT_BGRX8888, AV_PIX_FMT_0RGB, 1},
    {V4L2_PIX_FMT_BGR24, DRM_FORMAT_RGB888, AV_PIX_FMT_BGR24, 1},
    {V4L2_PIX_FMT_RGB24, DRM_FORMAT_BGR888, AV_PIX_FMT_RGB24, 1},
    {V4L2_PIX_FMT_YUV420, DRM_FORMAT_YUV420, AV_PIX_FMT_YUV420P, 3},
    {V4L2_PIX_FMT_NV24, DRM_FORMAT_NV24, AV_PIX_FMT_NV24, 2},
    {V4L2_PIX_FMT_MJPEG, 0, AV_PIX_FMT_NONE, 0},
    {V4L2_PIX_FMT_JPEG, 0, AV_PIX_FMT_NONE, 0},
};

/// Bytes of a row of the second and third plane, for each byte of the first.
uint32_t chroma_pitch(const PixelFormat& format, uint32_t luma_pitch)
{
    switch (format.drm) {
    case DRM_FORMAT_YUV420: return luma_pitch / 2;
    case DRM_FORMAT_NV24: return luma_pitch * 2;
    default: return luma_pitch;
    }
}

int chroma_rows(const PixelFormat& format, int rows)
{
    const bool half = format.drm == DRM_FORMAT_NV12 || format.drm == DRM_FORMAT_YUV420;
    return half ? (rows + 1) / 2 : rows;
}

/// What "default" stands for: RGB is full range, and so is JPEG; large pictures are BT.709's.
bool is_full_range(const PixelFormat& format, const Geometry& geometry)
{
    const bool rgb = format.planes == 1 && format.drm != DRM_FORMAT_YUYV && format.drm != DRM_FORMAT_UYVY;
    if (geometry.quantization == V4L2_QUANTIZATION_DEFAULT)
        return rgb || format.planes == 0 || geometry.colorspace == V4L2_COLORSPACE_JPEG;
    return geometry.quantization == V4L2_QUANTIZATION_FULL_RANGE;
}

bool is_bt709(const Geometry& geometry)
{
    constexpr int kHighDefinition = 720;
    switch (geometry.ycbcr) {
    case V4L2_YCBCR_ENC_601:
    case V4L2_YCBCR_ENC_XV601: return false;
    case V4L2_YCBCR_ENC_709:
    case V4L2_YCBCR_ENC_XV709: return true;
    default: break;
    }
    switch (geometry.colorspace) {
    case V4L2_COLORSPACE_REC709: return true;
    case V4L2_COLORSPACE_SMPTE170M:
    case V4L2_COLORSPACE_SRGB:
    case V4L2_COLORSPACE_JPEG: return false;
    default: return geometry.height >= kHighDefinition;
    }
}

bool fits(const CaptureMode& mode, const ModeWish& wish)
{
    constexpr double kRateTolerance = 0.01;
    return (wish.v4l2 == 0 || mode.v4l2 == wish.v4l2) && (wish.width == 0 || mode.width == wish.width) &&
           (wish.height == 0 || mode.height == wish.height) &&
           (wish.fps <= 0 || mode.fps <= 0 || std::abs(mode.fps / wish.fps - 1) < kRateTolerance);
}

} // namespace

const PixelFormat* find_format(uint32_t v4l2)
{
    const auto* end = std::end(kFormats);
    const auto* found =
        std::find_if(std::begin(kFormats), end, [v4l2](const PixelFormat& format) { return format.v4l2 == v4l2; });
    return found != end ? found : nullptr;
}

AVPixelFormat av_format_of(uint32_t drm)
{
    const auto* end = std::end(kFormats);
    const auto* found =
        std::find_if(std::begin(kFormats), end, [drm](const PixelFormat& format) { return format.drm == drm; });
    return drm != 0 && found != end ? found->av : AV_PIX_FMT_NONE;
}

std::string name_of(uint32_t fourcc)
{
    std::string name;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto letter = static_cast<char>(fourcc >> shift & 0x7F);
        if (letter > ' ')
            name += letter;
    }
    return name;
}

uint32_t fourcc_of(const std::string& name)
{
    auto same = [](char a, char b) {
        return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
    };
    for (const PixelFormat& format : kFormats) {
        const std::string known = name_of(format.v4l2);
        if (std::equal(known.begin(), known.end(), name.begin(), name.end(), same))
            return format.v4l2;
    }
    return 0;
}

display::PixelLayout layout_of(const Geometry& geometry)
{
    const PixelFormat* format = find_format(geometry.v4l2);
    display::PixelLayout layout;
    layout.width = geometry.width;
    layout.height = geometry.height;
    if (format == nullptr)
        return layout;
    layout.fourcc = format->drm;
    layout.planes = format->planes;
    layout.full_range = is_full_range(*format, geometry);
    layout.bt709 = is_bt709(geometry);
    uint32_t end = 0;
    for (int plane = 0; plane < format->planes; plane++) {
        const auto at = static_cast<size_t>(plane);
        layout.offsets[at] = end;
        layout.pitches[at] = plane == 0 ? geometry.bytes_per_line : chroma_pitch(*format, geometry.bytes_per_line);
        const int rows = plane == 0 ? geometry.height : chroma_rows(*format, geometry.height);
        end += layout.pitches[at] * static_cast<uint32_t>(rows);
    }
    return layout;
}

std::optional<CaptureMode> choose_mode(const std::vector<CaptureMode>& modes, const ModeWish& wish,
                                       const std::function<bool(uint32_t drm)>& shown_as_is)
{
    constexpr double kFastEnough = 60;
    auto rank = [&](const CaptureMode& mode) {
        const PixelFormat& format = *find_format(mode.v4l2);
        const double pixels_a_second =
            static_cast<double>(mode.width) * mode.height * (mode.fps > 0 ? std::min(mode.fps, kFastEnough) : 1);
        const bool as_is = format.drm != 0 && shown_as_is(format.drm);
        const auto place = &format - std::begin(kFormats);
        return std::make_tuple(std::llround(pixels_a_second), as_is, format.drm != 0, mode.fps, -place);
    };
    std::optional<CaptureMode> best;
    for (const CaptureMode& mode : modes)
        if (find_format(mode.v4l2) != nullptr && fits(mode, wish) && (!best || rank(mode) > rank(*best)))
            best = mode;
    return best;
}

} // namespace capture
