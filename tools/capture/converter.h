// SPDX-License-Identifier: MIT
// Frames that no display reads, made into pixels that every display shows.
#pragma once

#include <cstdint>
#include <memory>

#include "display/canvas.h"
#include "display/layout.h"

namespace capture
{

/// Converts and scales, and decodes motion JPEG. One thread at a time.
class Converter
{
public:
    Converter();
    ~Converter();
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// Paints @p frame on the canvas, as large as fits with black beside it.
    /// @param bytes used of a compressed frame
    /// @return false for a compressed frame that is damaged, and for a format that cannot be converted
    bool paint(const display::ForeignFrame& frame, uint32_t bytes, const display::Canvas& canvas);

private:
    struct Parts;
    const std::unique_ptr<Parts> parts_;
};

} // namespace capture
