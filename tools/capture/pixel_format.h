// SPDX-License-Identifier: MIT
/**
 * @file
 * Pixel formats as V4L2, DRM and libav name them, and the choice among the modes
 * of a capture device.
 */
#pragma once

#include <linux/videodev2.h>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "display/layout.h"

namespace capture
{

struct PixelFormat {
    uint32_t v4l2;
    uint32_t drm;     ///< 0: compressed
    AVPixelFormat av; ///< none: compressed
    int planes;
};

/// Null for a format that is not shown.
const PixelFormat* find_format(uint32_t v4l2);
/// By DRM's name; none for a format that is not converted.
AVPixelFormat av_format_of(uint32_t drm);
/// "NV12"
std::string name_of(uint32_t fourcc);
/// The code of a name, whatever its case; 0 for one that is not shown.
uint32_t fourcc_of(const std::string& name);

/// Where the pixels of a format with one memory plane lie.
struct Geometry {
    uint32_t v4l2 = 0;
    int width = 0;
    int height = 0;
    uint32_t bytes_per_line = 0; ///< of the first plane
    uint32_t ycbcr = 0;          ///< v4l2_ycbcr_encoding
    uint32_t quantization = 0;   ///< v4l2_quantization
    uint32_t colorspace = 0;     ///< v4l2_colorspace
};
display::PixelLayout layout_of(const Geometry& geometry);

/// One way in which a device can send frames.
struct CaptureMode {
    uint32_t v4l2 = 0;
    int width = 0;
    int height = 0;
    double fps = 0; ///< 0: the signal's
};

/// What the viewer asked for; zero: nothing.
struct ModeWish {
    uint32_t v4l2 = 0;
    int width = 0;
    int height = 0;
    double fps = 0;
};

/**
 * The most pixels a second, up to 60 frames; then a format that the display shows as it is; then any that is not
 * compressed.
 * @param shown_as_is tells of a format, as DRM names it
 * @return nothing, if no mode fits the wish
 */
std::optional<CaptureMode> choose_mode(const std::vector<CaptureMode>& modes, const ModeWish& wish,
                                       const std::function<bool(uint32_t drm)>& shown_as_is);

} // namespace capture
