// SPDX-License-Identifier: MIT
/**
 * @file
 * Pictures as a display shows them: the film, or the picture's own content, in
 * full size, and in the top left corner a strip of blocks with the picture's
 * number, by which the eye at the display tells it from every other.
 */
#pragma once

#include <cstdint>
#include <vector>

#include "display/canvas.h"
#include "source/picture.h"

namespace play
{

/// A frame of a film in colour, made ready for a display.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<uint32_t> pixels; ///< 0x00RRGGBB, rows from the top
};

using display::Canvas;
using display::fit;
using display::Size;

/// The smallest canvas on which a number can be read.
constexpr int kLeastCanvasWidth = 64;
constexpr int kLeastCanvasHeight = 48;

/// Paints @p image, scaled to fit with black beside it, or without one the picture's field; then the number.
void paint(const Picture& picture, const Image* image, const Canvas& canvas);

/// What can be seen on a canvas: the number in its strip, and the field.
Picture look_at(const Canvas& canvas);

} // namespace play
