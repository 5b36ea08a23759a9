// SPDX-License-Identifier: MIT
/**
 * @file
 * A film's images and sound. On ARM libswscale's vector code faults at rows that
 * are not aligned, and libswresample rounds differently there: what they write to
 * is looked at here on every machine.
 */
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

extern "C" {
#include <libavutil/cpu.h>
}

#include "source/av_owned.h"
#include "source/media_file.h"

namespace
{

constexpr uintptr_t kVectorBytes = 16;
std::atomic<int> g_scaled{0};
std::atomic<int> g_unaligned{0};
std::atomic<int> g_converted{0};
std::atomic<int> g_unaligned_sound{0};

bool is_aligned(const uint8_t* place, size_t bytes) { return reinterpret_cast<uintptr_t>(place) % bytes == 0; }

} // namespace

/// Stands before libswscale's, and passes the call on.
extern "C" int sws_scale(SwsContext* context, const uint8_t* const from[], const int from_pitches[], int y, int height,
                         uint8_t* const to[], const int pitches[])
{
    static const auto real = reinterpret_cast<decltype(&sws_scale)>(dlsym(RTLD_NEXT, "sws_scale"));
    ++g_scaled;
    if (!is_aligned(to[0], kVectorBytes) || static_cast<uintptr_t>(pitches[0]) % kVectorBytes != 0)
        ++g_unaligned;
    return real(context, from, from_pitches, y, height, to, pitches);
}

/// Likewise before libswresample's, whose declaration differs between its versions.
extern "C" int watched_convert(SwrContext* context, uint8_t** to, int room, const uint8_t** from,
                               int count) __asm__("swr_convert");
int watched_convert(SwrContext* context, uint8_t** to, int room, const uint8_t** from, int count)
{
    static const auto real = reinterpret_cast<decltype(&watched_convert)>(dlsym(RTLD_NEXT, "swr_convert"));
    ++g_converted;
    if (!is_aligned(to[0], av_cpu_max_align())) // malloc()'s alignment is enough on few machines
        ++g_unaligned_sound;
    return real(context, to, room, from, count);
}

namespace
{

using namespace play;

/// Rows of its images, of four bytes a pixel, are not aligned where one follows the other at once.
constexpr Size kSize{102, 62};
constexpr int kFps = 25;
constexpr int kFrames = 2 * kFps;
constexpr int kRate = 48000;

/// Two seconds of grey with silence, uncompressed.
class GreyFilm
{
public:
    const std::string path = testing::TempDir() + std::to_string(getpid()) + "-grey.nut";

    GreyFilm()
    {
        AVFormatContext* file = nullptr;
        if (avformat_alloc_output_context2(&file, nullptr, "nut", path.c_str()) < 0)
            return;
        AvOwned<AVFormatContext> freed(file);
        AVCodecParameters& video = *add_stream(file, AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_RAWVIDEO, kFps);
        video.format = AV_PIX_FMT_YUV420P;
        video.codec_tag = MKTAG('I', '4', '2', '0');
        video.width = kSize.width;
        video.height = kSize.height;
        AVCodecParameters& audio = *add_stream(file, AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, kRate);
        audio.sample_rate = kRate;
        audio.block_align = 2 * sizeof(int16_t);
        av_channel_layout_default(&audio.ch_layout, 2);
        if (avio_open(&file->pb, path.c_str(), AVIO_FLAG_WRITE) < 0)
            return;
        written_ = avformat_write_header(file, nullptr) >= 0;
        for (int frame = 0; written_ && frame < kFrames; frame++)
            written_ = write(file, 0, frame, kSize.width * kSize.height * 3 / 2, 0x80) &&
                       write(file, 1, frame * (kRate / kFps), kRate / kFps * audio.block_align, 0);
        written_ = written_ && av_write_trailer(file) == 0;
        avio_closep(&file->pb);
    }
    ~GreyFilm() { unlink(path.c_str()); }

    bool written() const { return written_; }

private:
    static AVCodecParameters* add_stream(AVFormatContext* file, AVMediaType type, AVCodecID codec, int per_second)
    {
        AVStream* stream = avformat_new_stream(file, nullptr);
        stream->time_base = {1, per_second};
        stream->codecpar->codec_type = type;
        stream->codecpar->codec_id = codec;
        return stream->codecpar;
    }
    static bool write(AVFormatContext* file, int stream, int time, int bytes, int value)
    {
        AvOwned<AVPacket> packet(av_packet_alloc());
        if (av_new_packet(packet.get(), bytes) != 0)
            return false;
        std::memset(packet->data, value, static_cast<size_t>(bytes));
        const bool is_video = stream == 0;
        packet->stream_index = stream;
        packet->flags = AV_PKT_FLAG_KEY;
        packet->pts = packet->dts = av_rescale_q(time, {1, is_video ? kFps : kRate}, file->streams[stream]->time_base);
        return av_interleaved_write_frame(file, packet.get()) == 0;
    }

    bool written_ = false;
};

/// The images that the film shows in @p box: how many of them are grey all over.
int grey_images(const std::string& path, Size box)
{
    std::string error;
    const std::unique_ptr<MediaFile> film = MediaFile::open(path, 0, std::nullopt, &error);
    if (!film) {
        ADD_FAILURE() << error;
        return 0;
    }
    film->want_images(box);
    EXPECT_TRUE(film->start(0, &error)) << error;
    int grey = 0;
    for (VideoFrame frame; film->next_video(&frame);) {
        const std::vector<uint32_t>& pixels = frame.image->pixels;
        const auto is_grey = [](uint32_t pixel) { return std::abs(static_cast<int>(pixel & 0xff) - 0x82) <= 2; };
        grey += static_cast<int>(std::all_of(pixels.begin(), pixels.end(), is_grey));
    }
    return grey;
}

TEST(PlayFilm, ImagesAndSoundAreConvertedToAlignedPlaces)
{
    const GreyFilm film;
    ASSERT_TRUE(film.written());
    for (Size box : {kSize, Size{205, 121}, Size{53, 400}})
        EXPECT_EQ(grey_images(film.path, box), kFrames) << box.width;
    EXPECT_EQ(g_scaled, 3 * 2 * kFrames); // image and field of each frame
    EXPECT_EQ(g_unaligned, 0);
    EXPECT_GE(g_converted, 3 * kFrames);
    EXPECT_EQ(g_unaligned_sound, 0);
}

} // namespace
