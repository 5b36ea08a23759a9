// SPDX-License-Identifier: MIT
#include "coded_audio.h"

#include <cmath>
#include <random>
#include <stdexcept>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/crc.h>
#include <libavutil/downmix_info.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace coded_audio
{

namespace
{

void check(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(what);
}

void fill_tones(AVFrame* frame, int64_t start, double tone_hz, std::mt19937* random)
{
    std::uniform_real_distribution<float> noise(-0.01f, 0.01f);
    for (int channel = 0; channel < frame->ch_layout.nb_channels; ++channel) {
        auto* to = reinterpret_cast<float*>(frame->extended_data[channel]);
        const double step = 2 * M_PI * (tone_hz + 170.0 * channel) / frame->sample_rate;
        for (int i = 0; i < frame->nb_samples; ++i)
            to[i] = static_cast<float>(0.2 * std::sin(step * static_cast<double>(start + i))) + noise(*random);
    }
}

// A dependent frame (A/52, annex E), which no encoder here makes: the surround channels anew, and two back channels.
// All exponents of a channel are equal and no mantissa is coded, so that the decoder puts in noise of that level.
Bytes dependent_frame()
{
    Bytes frame(112);
    size_t at = 0;
    const auto put = [&](int bits, uint64_t value) {
        for (; bits > 0; --bits, ++at)
            frame[at / 8] |= static_cast<uint8_t>((value >> (bits - 1) & 1) << (7 - at % 8));
    };
    put(16, 0x0B77);
    put(5, 8); // dependent, of the first program
    put(11, static_cast<unsigned>(frame.size() / 2 - 1));
    put(8, 3 << 4 | 6 << 1);    // 48 kHz, six blocks; four channels, none for effects
    put(11, 16 << 6 | 31 << 1); // E-AC-3; dialogue level, nothing to compress
    put(20, 0x11A00 << 3);      // which channels: Ls, Rs and the pair behind them; nothing more
    // Of the frame: nothing but exponents in the first block, reused in the others, and the lowest ratio to noise.
    put(12 + 6 + 4 * 5 + 10 + 1, 0);
    // Of the first block: no dynamic range, no extension, the bandwidths.
    put(2 + 4 * 6, 0);
    for (unsigned channel = 0; channel < 4; ++channel) {
        put(4, 5 + channel);
        for (int group = 0; group < 24; ++group)
            put(7, 62); // three differences of nothing
        put(2, 0);
    }
    set_check_sum(&frame);
    return frame;
}

void take_packets(AVCodecContext* encoder, AVPacket* packet, std::vector<Bytes>* packets)
{
    while (avcodec_receive_packet(encoder, packet) == 0) {
        packets->emplace_back(packet->data, packet->data + packet->size);
        av_packet_unref(packet);
    }
}

// As the stream says, with the library's defaults where it says nothing.
SwrContext* make_converter(AVFrame* frame, int channels)
{
    AVChannelLayout target = {};
    av_channel_layout_default(&target, channels);
    SwrContext* swr = nullptr;
    swr_alloc_set_opts2(&swr, &target, AV_SAMPLE_FMT_S16, frame->sample_rate, &frame->ch_layout,
                        static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
    if (const AVFrameSideData* side = av_frame_get_side_data(frame, AV_FRAME_DATA_DOWNMIX_INFO)) {
        const auto* info = reinterpret_cast<const AVDownmixInfo*>(side->data);
        av_opt_set_double(swr, "clev", info->center_mix_level, 0);
        av_opt_set_double(swr, "slev", info->surround_mix_level, 0);
    }
    check(swr_init(swr) == 0, "swr_init");
    return swr;
}

} // namespace

std::vector<Bytes> encode(const Format& format, int count)
{
    const AVCodec* codec = avcodec_find_encoder(format.codec);
    AVCodecContext* encoder = avcodec_alloc_context3(codec);
    encoder->sample_rate = format.rate;
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->bit_rate = format.bit_rate;
    encoder->time_base = {1, format.rate};
    av_channel_layout_default(&encoder->ch_layout, format.channels);
    check(avcodec_open2(encoder, codec, nullptr) == 0, "encoder");

    std::mt19937 random(1);
    std::vector<Bytes> packets;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    for (int64_t start = 0; static_cast<int>(packets.size()) < count; start += encoder->frame_size) {
        frame->nb_samples = encoder->frame_size;
        frame->format = AV_SAMPLE_FMT_FLTP;
        frame->sample_rate = format.rate;
        frame->pts = start;
        av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout);
        check(av_frame_get_buffer(frame, 0) == 0, "frame");
        fill_tones(frame, start, format.tone_hz, &random);
        check(avcodec_send_frame(encoder, frame) == 0, "encode");
        av_frame_unref(frame);
        take_packets(encoder, packet, &packets);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&encoder);
    packets.resize(static_cast<size_t>(count));
    for (Bytes& bytes : packets)
        bytes = format.extended_7_1 ? join({bytes, dependent_frame()}) : bytes;
    return packets;
}

/// Of a frame with eight channels.
constexpr int kBlockSamples = 8 * 1536;

std::vector<int16_t> decode(const Format& format, const std::vector<Bytes>& packets, int channels)
{
    const AVCodec* codec = avcodec_find_decoder(format.codec);
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    av_opt_set_int(decoder->priv_data, "cons_noisegen", 1, 0);
    check(avcodec_open2(decoder, codec, nullptr) == 0, "decoder");

    std::vector<int16_t> pcm;
    SwrContext* swr = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    for (const Bytes& bytes : packets) {
        check(av_new_packet(packet, static_cast<int>(bytes.size())) == 0, "packet");
        std::copy(bytes.begin(), bytes.end(), packet->data);
        check(avcodec_send_packet(decoder, packet) == 0, "decode");
        av_packet_unref(packet);
        while (avcodec_receive_frame(decoder, frame) == 0) {
            if (swr == nullptr)
                swr = make_converter(frame, channels);
            // On ARM, libswresample rounds differently at addresses that are not aligned.
            alignas(16) int16_t block[kBlockSamples];
            check(frame->nb_samples * channels <= kBlockSamples, "frame");
            auto* to = reinterpret_cast<uint8_t*>(block);
            swr_convert(swr, &to, frame->nb_samples, const_cast<const uint8_t**>(frame->extended_data),
                        frame->nb_samples);
            pcm.insert(pcm.end(), block, block + frame->nb_samples * channels);
            av_frame_unref(frame);
        }
    }
    swr_free(&swr);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    return pcm;
}

Bytes mux_bursts(const Format& format, const std::vector<Bytes>& packets)
{
    AVFormatContext* muxer = nullptr;
    check(avformat_alloc_output_context2(&muxer, nullptr, "spdif", nullptr) >= 0, "muxer");
    AVStream* stream = avformat_new_stream(muxer, nullptr);
    stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    stream->codecpar->codec_id = format.codec;
    stream->codecpar->sample_rate = format.rate;
    check(avio_open_dyn_buf(&muxer->pb) == 0 && avformat_write_header(muxer, nullptr) >= 0, "header");
    AVPacket* packet = av_packet_alloc();
    for (const Bytes& bytes : packets) {
        check(av_new_packet(packet, static_cast<int>(bytes.size())) == 0, "packet");
        std::copy(bytes.begin(), bytes.end(), packet->data);
        check(av_write_frame(muxer, packet) == 0, "mux");
        av_packet_unref(packet);
    }
    av_write_trailer(muxer);
    uint8_t* data = nullptr;
    const int size = avio_close_dyn_buf(muxer->pb, &data);
    Bytes bursts(data, data + size);
    av_free(data);
    av_packet_free(&packet);
    avformat_free_context(muxer);
    return bursts;
}

void set_check_sum(Bytes* frame)
{
    const size_t end = frame->size() - 2;
    const uint32_t crc = av_crc(av_crc_get_table(AV_CRC_16_ANSI), 0, frame->data() + 2, end - 2);
    (*frame)[end] = static_cast<uint8_t>(crc);
    (*frame)[end + 1] = static_cast<uint8_t>(crc >> 8);
}

Bytes join(const std::vector<Bytes>& packets)
{
    Bytes all;
    for (const Bytes& packet : packets)
        all.insert(all.end(), packet.begin(), packet.end());
    return all;
}

} // namespace coded_audio
