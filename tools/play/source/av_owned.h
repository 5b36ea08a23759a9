// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
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

/// Memory that is aligned for FFmpeg's vector code. Elsewhere libswresample rounds differently on ARM, where malloc()
/// aligns to 8.
class AvBuffer
{
public:
    AvBuffer() = default;
    AvBuffer(const AvBuffer&) = delete;
    AvBuffer& operator=(const AvBuffer&) = delete;
    ~AvBuffer() { av_free(memory_); }

    /// What was in it is lost. @return null: there is no memory for it
    template <typename T> T* room_for(size_t count)
    {
        av_fast_malloc(&memory_, &bytes_, std::max<size_t>(count * sizeof(T), 1));
        return static_cast<T*>(memory_);
    }

private:
    void* memory_ = nullptr;
    unsigned bytes_ = 0;
};

} // namespace play
