// SPDX-License-Identifier: MIT
#include "capture/converter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <cstring>

#include "capture/aligned_image.h"
#include "capture/pixel_format.h"

namespace capture
{
namespace
{

struct Releaser {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
    void operator()(AVFrame* p) const { av_frame_free(&p); }
    void operator()(AVPacket* p) const { av_packet_free(&p); }
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};

using Decoder = std::unique_ptr<AVCodecContext, Releaser>;

Decoder open_decoder()
{
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    Decoder decoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder)
        return nullptr;
    // Threads would keep frames back.
    decoder->thread_count = 1;
    return avcodec_open2(decoder.get(), codec, nullptr) == 0 ? std::move(decoder) : nullptr;
}

/// Pixels as swscale takes them.
struct Pixels {
    AVPixelFormat format = AV_PIX_FMT_NONE;
    int width = 0;
    int height = 0;
    const uint8_t* planes[4] = {};
    int pitches[4] = {};
    bool full_range = false;
    bool bt709 = false;

    bool same_kind(const Pixels& other) const
    {
        return format == other.format && width == other.width && height == other.height &&
               full_range == other.full_range && bt709 == other.bt709;
    }
};

/// The formats that said so by another name: swscale wants to be told beside the format.
AVPixelFormat without_range(AVPixelFormat format, bool* full_range)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P: *full_range = true; return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: *full_range = true; return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: *full_range = true; return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: *full_range = true; return AV_PIX_FMT_YUV440P;
    default: return format;
    }
}

Pixels pixels_of(const AVFrame& frame)
{
    Pixels pixels;
    pixels.full_range = frame.color_range == AVCOL_RANGE_JPEG;
    pixels.format = without_range(static_cast<AVPixelFormat>(frame.format), &pixels.full_range);
    pixels.width = frame.width;
    pixels.height = frame.height;
    for (int plane = 0; plane < 4; plane++) {
        pixels.planes[plane] = frame.data[plane];
        pixels.pitches[plane] = frame.linesize[plane];
    }
    return pixels;
}

Pixels pixels_of(const display::ForeignFrame& frame)
{
    Pixels pixels;
    const display::PixelLayout& layout = frame.layout;
    pixels.format = av_format_of(layout.fourcc);
    pixels.width = layout.width;
    pixels.height = layout.height;
    pixels.full_range = layout.full_range;
    pixels.bt709 = layout.bt709;
    for (int plane = 0; plane < layout.planes; plane++) {
        const auto at = static_cast<size_t>(plane);
        pixels.planes[plane] = frame.memory + layout.offsets[at];
        pixels.pitches[plane] = static_cast<int>(layout.pitches[at]);
    }
    return pixels;
}

/// ARM's vector instructions, with which swscale writes, fault at other addresses than multiples of this.
constexpr uintptr_t kVectorBytes = 16;

bool is_aligned(const uint8_t* rows, int pitch)
{
    return reinterpret_cast<uintptr_t>(rows) % kVectorBytes == 0 && static_cast<uintptr_t>(pitch) % kVectorBytes == 0;
}

/// What lies beside the picture stays black.
void blacken_borders(const display::Canvas& canvas, int left, int top, display::Size size)
{
    const auto row_bytes = static_cast<size_t>(canvas.width) * sizeof(uint32_t);
    for (int y = 0; y < canvas.height; y++) {
        uint32_t* row = canvas.row(y);
        if (y < top || y >= top + size.height) {
            std::memset(row, 0, row_bytes);
            continue;
        }
        std::memset(row, 0, static_cast<size_t>(left) * sizeof(uint32_t));
        std::memset(row + left + size.width, 0,
                    static_cast<size_t>(canvas.width - left - size.width) * sizeof(uint32_t));
    }
}

} // namespace

struct Converter::Parts {
    Decoder decoder = open_decoder();
    std::unique_ptr<AVFrame, Releaser> decoded{av_frame_alloc()};
    std::unique_ptr<AVPacket, Releaser> packet{av_packet_alloc()};
    std::unique_ptr<SwsContext, Releaser> scaler;
    AlignedImage aligned; ///< the picture, where the canvas has no place for vectors
    Pixels scaled_from;
    display::Size scaled_to = {0, 0};

    bool decode(const display::ForeignFrame& frame, uint32_t bytes);
    bool prepare(const Pixels& from, display::Size to);
    bool scale(const Pixels& from, const display::Canvas& canvas);
};

Converter::Converter() : parts_(std::make_unique<Parts>()) {}
Converter::~Converter() = default;

bool Converter::paint(const display::ForeignFrame& frame, uint32_t bytes, const display::Canvas& canvas)
{
    if (frame.layout.fourcc != 0)
        return parts_->scale(pixels_of(frame), canvas);
    return parts_->decode(frame, bytes) && parts_->scale(pixels_of(*parts_->decoded), canvas);
}

bool Converter::Parts::decode(const display::ForeignFrame& frame, uint32_t bytes)
{
    // The decoder reads beyond the end of what it is given.
    if (!decoder || bytes == 0 || av_new_packet(packet.get(), static_cast<int>(bytes)) != 0)
        return false;
    std::memcpy(packet->data, frame.memory, bytes);
    const int sent = avcodec_send_packet(decoder.get(), packet.get());
    av_packet_unref(packet.get());
    return sent == 0 && avcodec_receive_frame(decoder.get(), decoded.get()) == 0;
}

bool Converter::Parts::prepare(const Pixels& from, display::Size to)
{
    if (scaler && from.same_kind(scaled_from) && to.width == scaled_to.width && to.height == scaled_to.height)
        return true;
    scaler.reset(sws_getContext(from.width, from.height, from.format, to.width, to.height, AV_PIX_FMT_BGR0,
                                SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!scaler)
        return false;
    constexpr int kOne = 1 << 16; // brightness, contrast and saturation as they are
    const int* matrix = sws_getCoefficients(from.bt709 ? SWS_CS_ITU709 : SWS_CS_ITU601);
    sws_setColorspaceDetails(scaler.get(), matrix, from.full_range ? 1 : 0, matrix, 1, 0, kOne, kOne);
    scaled_from = from;
    scaled_to = to;
    return true;
}

bool Converter::Parts::scale(const Pixels& from, const display::Canvas& canvas)
{
    if (from.format == AV_PIX_FMT_NONE || canvas.memory == nullptr)
        return false;
    const display::Size size = display::fit(from.width, from.height, {canvas.width, canvas.height});
    if (!prepare(from, size))
        return false;
    const int left = (canvas.width - size.width) / 2;
    const int top = (canvas.height - size.height) / 2;
    blacken_borders(canvas, left, top, size);
    auto* const place = reinterpret_cast<uint8_t*>(canvas.row(top) + left);
    const int pitch = static_cast<int>(canvas.pitch);
    const bool direct = is_aligned(place, pitch);
    if (!direct && !aligned.resize(size, AV_PIX_FMT_BGR0))
        return false;
    uint8_t* const to[4] = {direct ? place : aligned.pixels()};
    const int pitches[4] = {direct ? pitch : aligned.pitch()};
    // The number of rows is not told by all of its conversions: those for ARM's vector unit return 0.
    if (sws_scale(scaler.get(), from.planes, from.pitches, 0, from.height, to, pitches) < 0)
        return false;
    if (!direct)
        av_image_copy_plane(place, pitch, to[0], pitches[0], size.width * static_cast<int>(sizeof(uint32_t)),
                            size.height);
    return true;
}

} // namespace capture
