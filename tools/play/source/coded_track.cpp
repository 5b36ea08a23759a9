// SPDX-License-Identifier: MIT
#include "source/coded_track.h"

#include <algorithm>
#include <array>
#include <vector>

#include "signal/rate_conversion.h"
#include "source/av_owned.h"

extern "C" {
#include <libavutil/crc.h>
#include <libavutil/opt.h>
}

namespace play
{
namespace
{

constexpr int kIoBufferBytes = 4096;
constexpr size_t kLinkFrameBytes = 4;
/// Demanded by the muxer for E-AC-3, whose bursts do not depend on it.
constexpr int kMuxerRate = 48000;

#if LIBAVFORMAT_VERSION_MAJOR >= 61
using Written = const uint8_t;
#else
using Written = uint8_t;
#endif

int collect(void* opaque, Written* data, int bytes)
{
    auto* out = static_cast<std::vector<uint8_t>*>(opaque);
    out->insert(out->end(), data, data + bytes);
    return bytes;
}

/// Whether every sync frame in @p packet is whole: its checksum goes over all of it but the sync word.
bool is_intact(const AVPacket& packet, Coding coding)
{
    constexpr int kSyncBytes = 2;
    constexpr int kHeaderBytes = 6;
    int at = 0;
    while (packet.size - at >= kHeaderBytes) {
        const uint8_t* frame = packet.data + at;
        // E-AC-3 has the number of 16-bit words minus one; a packet of AC-3 is one frame.
        int bytes = coding == Coding::eac3 ? 2 * (((frame[2] & 7) << 8 | frame[3]) + 1) : packet.size;
        if (bytes > packet.size - at || av_crc(av_crc_get_table(AV_CRC_16_ANSI), 0, frame + kSyncBytes,
                                               static_cast<size_t>(bytes - kSyncBytes)) != 0)
            return false;
        at += bytes;
    }
    return at > 0;
}

} // namespace

bool is_damaged(const AVFrame& frame)
{
    return frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0;
}

struct CodedTrack::Codecs {
    AvOwned<AVFormatContext> muxer;
    AvOwned<AVCodecContext> decoder;
    AvOwned<AVFrame> frame{av_frame_alloc()};
    std::vector<uint8_t> muxed; ///< bytes of a burst that is not complete yet
    /// Aligned: elsewhere libswresample rounds differently on ARM, and the sound would not be what the player decodes.
    alignas(16) std::array<int16_t, 2 * kBurstSamples> stereo;

    bool open(AVCodecID codec)
    {
        AVFormatContext* format = nullptr;
        if (!frame || avformat_alloc_output_context2(&format, nullptr, "spdif", nullptr) < 0)
            return false;
        muxer.reset(format);
        auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
        format->pb = avio_alloc_context(buffer, kIoBufferBytes, 1, &muxed, nullptr, collect, nullptr);
        AVStream* stream = avformat_new_stream(format, nullptr);
        if (format->pb == nullptr || stream == nullptr)
            return false;
        stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        stream->codecpar->codec_id = codec;
        stream->codecpar->sample_rate = kMuxerRate;
        if (avformat_write_header(format, nullptr) < 0)
            return false;
        decoder.reset(avcodec_alloc_context3(avcodec_find_decoder(codec)));
        if (!decoder)
            return false;
        // Equal input gives equal output, here and in the player's decoder.
        av_opt_set_int(decoder->priv_data, "cons_noisegen", 1, 0);
        return avcodec_open2(decoder.get(), nullptr, nullptr) == 0;
    }
};

CodedTrack::CodedTrack(Coding coding, int sample_rate, Storage storage)
    : coding_(coding), sample_rate_(sample_rate), link_(storage), sound_(storage)
{
    auto codecs = std::make_unique<Codecs>();
    if (link_.usable() && sound_.usable() && codecs->open(coding == Coding::ac3 ? AV_CODEC_ID_AC3 : AV_CODEC_ID_EAC3))
        codecs_ = std::move(codecs);
}

CodedTrack::~CodedTrack() = default;

bool CodedTrack::add(AVPacket* packet)
{
    // The muxer wants ascending time stamps and does nothing with them; those of a film may repeat themselves.
    packet->pts = packet->dts = packets_++;
    packet->stream_index = 0;
    if (!store_decoded(packet))
        return false;
    if (av_write_frame(codecs_->muxer.get(), packet) < 0)
        damaged_++;
    avio_flush(codecs_->muxer->pb);
    return store_bursts() && keep_in_step();
}

/// Zeros take the place of a burst that the muxer did not make: what follows keeps its place.
bool CodedTrack::keep_in_step()
{
    int64_t missing = (sound_.frames() - samples()) / kBurstSamples;
    return missing <= 0 || link_.append_silence(missing * burst_link_frames(coding_));
}

/// IEC 61937-1: Pd, the fourth word of a burst, is the length of its payload in bits, for E-AC-3 in bytes.
int64_t CodedTrack::payload_bytes(const uint8_t* burst) const
{
    int64_t length = burst[6] | burst[7] << 8;
    return coding_ == Coding::eac3 ? length : length / 8;
}

// Only the part of a burst before its stuffing takes room on the disk.
bool CodedTrack::store_bursts()
{
    std::vector<uint8_t>& muxed = codecs_->muxed;
    size_t burst_bytes = static_cast<size_t>(burst_link_frames(coding_)) * kLinkFrameBytes;
    size_t done = 0;
    for (; muxed.size() - done >= burst_bytes; done += burst_bytes) {
        const uint8_t* burst = muxed.data() + done;
        largest_burst_ = std::max(largest_burst_.load(), payload_bytes(burst));
        size_t used = burst_bytes;
        while (used > 0 && burst[used - 1] == 0)
            used--;
        auto used_frames = static_cast<int64_t>((used + kLinkFrameBytes - 1) / kLinkFrameBytes);
        std::vector<int16_t> words(static_cast<size_t>(2 * used_frames));
        std::copy_n(burst, words.size() * sizeof(int16_t), reinterpret_cast<uint8_t*>(words.data()));
        if (!link_.append(words.data(), used_frames) || !link_.append_silence(burst_link_frames(coding_) - used_frames))
            return false;
    }
    muxed.erase(muxed.begin(), muxed.begin() + static_cast<ptrdiff_t>(done));
    return true;
}

bool CodedTrack::store_decoded(AVPacket* packet)
{
    Codecs& codecs = *codecs_;
    AVFrame* frame = codecs.frame.get();
    int64_t before = sound_.frames();
    bool damaged = avcodec_send_packet(codecs.decoder.get(), packet) < 0 || !is_intact(*packet, coding_);
    while (avcodec_receive_frame(codecs.decoder.get(), frame) >= 0) {
        damaged = damaged || is_damaged(*frame);
        // Made anew each time: layout and levels may change with any frame.
        AvOwned<SwrContext> converter(make_downmixer(frame));
        const int samples = std::min(frame->nb_samples, static_cast<int>(kBurstSamples));
        codecs.stereo.fill(0);
        auto* bytes = reinterpret_cast<uint8_t*>(codecs.stereo.data());
        if (converter)
            swr_convert(converter.get(), &bytes, samples, const_cast<const uint8_t**>(frame->extended_data), samples);
        if (!sound_.append(codecs.stereo.data(), samples))
            return false;
    }
    bool silent = sound_.frames() == before;
    damaged_ += damaged || silent ? 1 : 0;
    // What cannot be decoded is silent: the next frame keeps its place.
    return !silent || sound_.append_silence(kBurstSamples);
}

bool CodedTrack::add_gap(int64_t samples)
{
    int64_t bursts = (samples + kBurstSamples / 2) / kBurstSamples;
    return link_.append_silence(bursts * burst_link_frames(coding_)) && sound_.append_silence(bursts * kBurstSamples);
}

} // namespace play
