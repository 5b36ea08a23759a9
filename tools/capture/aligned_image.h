// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>

extern "C" {
#include <libavutil/frame.h>
}

#include "display/canvas.h"

namespace capture
{

/// An image of one plane to which libswscale writes: on ARM its vector code faults at rows that are not aligned.
class AlignedImage
{
public:
    /// What was in it is lost where the size differs. @return false: there is no memory for it
    bool resize(display::Size size, AVPixelFormat format)
    {
        if (frame_ && frame_->width == size.width && frame_->height == size.height && frame_->format == format)
            return true;
        frame_.reset(av_frame_alloc());
        if (!frame_)
            return false;
        frame_->format = format;
        frame_->width = size.width;
        frame_->height = size.height;
        if (av_frame_get_buffer(frame_.get(), 0) == 0)
            return true;
        frame_.reset();
        return false;
    }

    /// After a resize() that succeeded.
    uint8_t* pixels() const { return frame_->data[0]; }
    int pitch() const { return frame_->linesize[0]; } ///< bytes from row to row

private:
    struct Free {
        void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    };
    std::unique_ptr<AVFrame, Free> frame_;
};

} // namespace capture
