// SPDX-License-Identifier: MIT
// A frame buffer that knows which picture it holds.
#pragma once

#include "display/frame_pool.h"
#include "source/picture.h"

namespace play
{

struct PictureBuffer : display::FrameBuffer {
    int64_t number = 0;      ///< of the picture
    int64_t rendered_ns = 0; ///< when the player was given it
    Picture picture;
};

} // namespace play
