// SPDX-License-Identifier: MIT
// The compressed signals of the simulated source, as arithmetic: no device, no player.
#include <gtest/gtest.h>

#include <bitset>
#include <cstring>
#include <random>

#include "packed_audio.h"

using coded_audio::Bytes;
using hdmi_sim::Bitstream;
using hdmi_sim::BurstOptions;
using hdmi_sim::Coding;

namespace
{

const coded_audio::Format kAc3 = {AV_CODEC_ID_AC3, 44100, 2, 192000};
const coded_audio::Format kEac3 = {AV_CODEC_ID_EAC3, 48000, 6, 448000};

Bytes link_bytes(const hdmi_sim::Signal& signal, int64_t first, int64_t frames)
{
    Bytes bytes(static_cast<size_t>(frames) * 4);
    std::vector<int16_t> words(bytes.size() / 2);
    signal.generate(first, words.data(), static_cast<int>(frames));
    memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

int64_t frames_of(const Bitstream& stream)
{
    return static_cast<int64_t>(stream.bursts.size()) * hdmi_sim::burst_frames(stream.coding);
}

} // namespace

TEST(Bursts, OnTheLinkAreWhatTheMuxerMakes)
{
    const coded_audio::Format two_frames_in_burst = {AV_CODEC_ID_EAC3, 48000, 2, 1536000};
    const coded_audio::Format three_frames_in_burst = {AV_CODEC_ID_EAC3, 48000, 2, 3024000};
    const coded_audio::Format dependent_frames = {AV_CODEC_ID_EAC3, 48000, 6, 384000, 300, true};
    for (const auto& format : {kAc3, kEac3, two_frames_in_burst, three_frames_in_burst, dependent_frames}) {
        const std::vector<Bytes> packets = coded_audio::encode(format, 12);
        const Bytes expected = coded_audio::mux_bursts(format, packets);
        const Bitstream stream = pack(format, packets);
        EXPECT_EQ(stream.sample_rate, format.rate);
        EXPECT_EQ(hdmi_sim::link_rate(stream), format.codec == AV_CODEC_ID_AC3 ? 44100 : 192000);
        ASSERT_EQ(static_cast<size_t>(frames_of(stream)) * 4, expected.size());
        const hdmi_sim::Signal signal = hdmi_sim::bitstream_signal(stream);
        EXPECT_EQ(link_bytes(signal, 0, frames_of(stream)), expected);
        EXPECT_EQ(link_bytes(signal, frames_of(stream), 999), Bytes(3996, 0));
    }
}

TEST(Bursts, TheLinkIsTheSameInPiecesOfAnySize)
{
    BurstOptions options;
    options.lead_frames = 700;
    options.gaps = {{0, 3}, {2, 5000}};
    options.repeat = true;
    options.bit_error_rate = 1e-4;
    const hdmi_sim::Signal signal = hdmi_sim::bitstream_signal(pack(kAc3, coded_audio::encode(kAc3, 4)), options);
    const int64_t total = 40000;
    const Bytes whole = link_bytes(signal, 0, total);
    std::mt19937 random(3);
    for (int64_t at = 0; at < total;) {
        const int64_t frames = std::min<int64_t>(total - at, 1 + static_cast<int64_t>(random() % 4000));
        const Bytes piece = link_bytes(signal, at, frames);
        ASSERT_TRUE(std::equal(piece.begin(), piece.end(), whole.begin() + at * 4)) << at;
        at += frames;
    }
}

TEST(Bursts, BeginWhereBurstStartSays)
{
    BurstOptions options;
    options.lead_frames = 100;
    options.gaps = {{1, 50}, {0, 7}};
    options.repeat = true;
    const Bitstream stream = hdmi_sim::dts_bitstream(Coding::dts2, 48000, 2, 5);
    const hdmi_sim::Signal signal = hdmi_sim::bitstream_signal(stream, options);
    const std::vector<int64_t> expected = {107, 107 + 1024 + 50, 2205 + 7, 2205 + 7 + 1024 + 50};
    for (size_t k = 0; k < expected.size(); ++k) {
        EXPECT_EQ(hdmi_sim::burst_start(stream, options, static_cast<int64_t>(k)), expected[k]);
        const Bytes preamble = link_bytes(signal, expected[k], 3);
        const auto pd = static_cast<int>(stream.bursts[k % 2].payload.size() * 8);
        EXPECT_EQ(preamble, (Bytes{0x72, 0xF8, 0x1F, 0x4E, 12, 0, static_cast<uint8_t>(pd),
                                   static_cast<uint8_t>(pd >> 8), 0xFE, 0x7F, 0x01, 0x80}));
    }
    options.repeat = false;
    EXPECT_EQ(hdmi_sim::burst_start(stream, options, 2), -1);
}

TEST(Bursts, AnOpeningBeginsAtThePhaseAskedFor)
{
    const Bitstream stream = pack(kAc3, coded_audio::encode(kAc3, 3));
    for (const int phase : {0, 768, 4, 1540, 6140}) {
        BurstOptions options;
        options.phase_bytes = phase;
        options.lead_frames = 5000;
        options.gaps = {{1, 777}};
        options.repeat = true;
        const hdmi_sim::Signal signal = hdmi_sim::bitstream_signal(stream, options);
        for (int64_t frame = 0; frame < 20000; frame += 7) {
            const int64_t opened = signal.open_at(frame);
            ASSERT_GE(opened, frame);
            ASSERT_LT(opened, frame + 2 * 1536 + 777);
            int64_t burst = 0;
            while (hdmi_sim::burst_start(stream, options, burst) < opened)
                burst++;
            ASSERT_EQ((hdmi_sim::burst_start(stream, options, burst) - opened) * 4 % 6144, phase) << frame;
        }
    }
}

TEST(Bursts, BitErrorsComeAtTheirRate)
{
    const Bitstream silent = {Coding::ac3, 48000, {}};
    BurstOptions options;
    options.bit_error_rate = 1e-3;
    const auto count = [&] {
        size_t ones = 0;
        for (const uint8_t byte : link_bytes(hdmi_sim::bitstream_signal(silent, options), 0, 100000))
            ones += std::bitset<8>(byte).count();
        return ones;
    };
    EXPECT_NEAR(static_cast<double>(count()), 3200, 300);
    const size_t first = count();
    options.seed = 2;
    EXPECT_NE(count(), first);
}

TEST(Bursts, APayloadLongerThanItsBurstIsCutByTheNextOne)
{
    Bitstream stream = hdmi_sim::dts_bitstream(Coding::dts1, 48000, 2, 1);
    stream.bursts[0].pd = 0xFFFF;
    stream.bursts[0].payload.assign(8191, 0x55);
    const Bytes bytes = link_bytes(hdmi_sim::bitstream_signal(stream), 0, 1024);
    EXPECT_EQ(bytes[2047], 0x55);
    EXPECT_EQ(bytes[2048], 0x72);
}

TEST(Bursts, WhatIsNoStreamIsRefusedWithAReason)
{
    const Bytes text(20000, 0x20);
    for (const Coding coding : {Coding::ac3, Coding::eac3, Coding::dts1}) {
        for (const size_t bytes : {size_t{0}, text.size()}) {
            Bitstream stream;
            std::string error;
            EXPECT_FALSE(hdmi_sim::pack_bitstream(coding, text.data(), bytes, &stream, &error));
            EXPECT_FALSE(error.empty());
        }
    }
}
