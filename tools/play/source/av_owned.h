// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace play
{

/// Frees what FFmpeg's libraries allocate. A format context is an opened input, or a muxer that writes to a buffer.
struct AvFreed {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(SwrContext* converter) const { swr_free(&converter); }
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
    void operator()(AVFormatContext* format) const
    {
        if (format->iformat != nullptr) {
            avformat_close_input(&format);
            return;
        }
        if (format->pb != nullptr)
            av_freep(&format->pb->buffer);
        avio_context_free(&format->pb);
        avformat_free_context(format);
    }
};
template <typename T> using AvOwned = std::unique_ptr<T, AvFreed>;

} // namespace play
