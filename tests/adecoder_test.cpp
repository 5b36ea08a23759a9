// SPDX-License-Identifier: MIT
#include "adecoder.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "ac3_framer.h"
#include "coded_audio.h"
#include "decoder_avcodec.h"
#include "time_line.h"

namespace
{

using coded_audio::Bytes;
using coded_audio::Format;
using Pcm = std::vector<int16_t>;

constexpr size_t kFrame = ac3::kFrameSamplesMax;

// The decoder's clock stands still, so that nothing is missing by it, but where a test moves it.
std::atomic<int64_t> g_now_us{0};
const bool kClockIsSet = [] {
    decoder_avcodec::set_clock([] { return g_now_us.load(); });
    return true;
}();

struct Closer {
    void operator()(adecoder_handle_t* handle) const { EXPECT_EQ(0, adecoder_deinit(handle)); }
};
using Decoder = std::unique_ptr<adecoder_handle_t, Closer>;

Decoder open_decoder(adecoder_format_t format = ADECODER_FORMAT_AC3, int channels = 2, bool async_mode = false)
{
    return Decoder(adecoder_init(format, 1, 0, static_cast<adecoder_channel_t>(channels - 1), 0, async_mode));
}

void read_all(adecoder_handle_t* decoder, Pcm* pcm)
{
    int16_t block[1000];
    for (int32_t bytes; (bytes = adecoder_read(decoder, 0, 0, block, sizeof(block), 0)) > 0;)
        pcm->insert(pcm->end(), block, block + bytes / 2);
}

// Writes at most @p size bytes and skips those that were accepted. @return the status.
int32_t write_some(adecoder_handle_t* decoder, const Bytes& stream, size_t size, size_t* at)
{
    int32_t status = 0;
    const auto bytes = static_cast<int32_t>(std::min(size, stream.size() - *at));
    const int32_t taken = adecoder_write(decoder, stream.data() + *at, bytes, 0, -1, &status);
    EXPECT_LE(0, taken);
    *at += static_cast<size_t>(std::max(taken, 0));
    return status;
}

// Writes the stream in parts and reads all PCM.
template <typename NextSize> Pcm play(adecoder_handle_t* decoder, const Bytes& stream, NextSize next_size)
{
    Pcm pcm;
    for (size_t at = 0; at < stream.size();) {
        const int32_t status = write_some(decoder, stream, next_size(), &at);
        const size_t before = pcm.size();
        read_all(decoder, &pcm);
        EXPECT_EQ(pcm.size() > before, status > 0);
    }
    return pcm;
}

Pcm play(adecoder_handle_t* decoder, const Bytes& stream)
{
    return play(decoder, stream, [] { return size_t{4096}; });
}

Bytes swap_words(Bytes bytes)
{
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        std::swap(bytes[i], bytes[i + 1]);
    return bytes;
}

int peak(const Pcm& pcm, size_t from, size_t to)
{
    int highest = 0;
    for (size_t i = from; i < to; ++i)
        highest = std::max(highest, std::abs(pcm[i]));
    return highest;
}

size_t count_differences(const Pcm& a, const Pcm& b, size_t from, size_t to)
{
    size_t count = 0;
    for (size_t i = from; i < to; ++i)
        count += i >= a.size() || i >= b.size() || a[i] != b[i] ? 1 : 0;
    return count;
}

const Format kFormats[] = {
    {AV_CODEC_ID_AC3, 48000, 2, 192000},   {AV_CODEC_ID_AC3, 44100, 2, 128000},
    {AV_CODEC_ID_AC3, 32000, 1, 64000},    {AV_CODEC_ID_AC3, 48000, 6, 448000},
    {AV_CODEC_ID_EAC3, 48000, 2, 96000},   {AV_CODEC_ID_EAC3, 44100, 6, 384000},
    {AV_CODEC_ID_EAC3, 48000, 6, 1024000}, {AV_CODEC_ID_EAC3, 48000, 6, 384000, 300, true},
};

class AdecoderFormats : public testing::TestWithParam<Format>
{
};

TEST_P(AdecoderFormats, AnyCutInEitherByteOrderGivesWhatADirectDecodeGives)
{
    const Format format = GetParam();
    const std::vector<Bytes> packets = coded_audio::encode(format, 12);
    for (int channels : {2, 6, 8}) {
        const Pcm expected = coded_audio::decode(format, packets, channels);
        ASSERT_EQ(12 * kFrame * static_cast<size_t>(channels), expected.size());
        // Until the first dependent frame it is not known that there are any, so the cut one comes too late.
        const size_t known = format.extended_7_1 ? (kFrame + 256) * static_cast<size_t>(channels) : 0;
        for (const Bytes& stream : {coded_audio::join(packets), swap_words(coded_audio::join(packets))}) {
            std::mt19937 random(5);
            for (size_t most : {size_t{1}, size_t{40}, size_t{5000}}) {
                const Decoder decoder = open_decoder(
                    format.codec == AV_CODEC_ID_AC3 ? ADECODER_FORMAT_AC3 : ADECODER_FORMAT_EAC3, channels);
                ASSERT_NE(nullptr, decoder);
                EXPECT_EQ(0, adecoder_get_output_sample_rate(decoder.get()));
                const Pcm pcm = play(decoder.get(), stream, [&] { return 1 + random() % most; });
                EXPECT_EQ(0u, count_differences(expected, pcm, known, std::max(expected.size(), pcm.size())))
                    << channels << " channels, pieces up to " << most;
                EXPECT_EQ(format.rate, adecoder_get_output_sample_rate(decoder.get()));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, AdecoderFormats, testing::ValuesIn(kFormats));

TEST(Adecoder, OneDecoderFollowsFromAc3ToEac3AndToAnotherRate)
{
    Bytes stream;
    for (const Format& format : {kFormats[0], kFormats[4], kFormats[1]}) {
        const Bytes part = coded_audio::join(coded_audio::encode(format, 4));
        stream.insert(stream.end(), part.begin(), part.end());
    }
    const Decoder decoder = open_decoder(ADECODER_FORMAT_AC3);
    EXPECT_EQ(12 * kFrame * 2, play(decoder.get(), stream).size());
    EXPECT_EQ(44100, adecoder_get_output_sample_rate(decoder.get()));
}

bool is_ac3(const Bytes& frame) { return frame[5] >> 3 <= 10; }

// What happens to the sixth of twelve frames.
struct Damage {
    const char* name;
    void (*apply)(Bytes* frame);
};

const Damage kDamages[] = {
    {"half of the sound",
     [](Bytes* frame) {
         for (size_t i = frame->size() / 2; i < frame->size(); ++i)
             (*frame)[i] ^= 0x55;
     }},
    {"the sync", [](Bytes* frame) { (*frame)[0] ^= 1; }},
    {"a size too large", [](Bytes* frame) { is_ac3(*frame) ? (*frame)[4] += 8 : (*frame)[2] |= 7; }},
    {"a size too small", [](Bytes* frame) { is_ac3(*frame) ? (*frame)[4] -= 8 : (*frame)[3] -= 9; }},
    {"half of it missing", [](Bytes* frame) { frame->erase(frame->begin() + 100, frame->begin() + 100 + 240); }},
    {"all zero", [](Bytes* frame) { std::fill(frame->begin(), frame->end(), uint8_t{0}); }},
    {"all random", [](Bytes* frame) {
         std::mt19937 random(9);
         for (uint8_t& byte : *frame)
             byte = static_cast<uint8_t>(random());
     }}};

TEST(Adecoder, DamagedFrameCostsItsOwnDurationAndNothingAfter)
{
    for (const Format& format : {kFormats[0], kFormats[1], kFormats[3], kFormats[4], kFormats[6], kFormats[7]}) {
        const std::vector<Bytes> good = coded_audio::encode(format, 12);
        const Pcm expected = coded_audio::decode(format, good, 2);
        for (const Damage& damage : kDamages) {
            SCOPED_TRACE(testing::Message() << damage.name << ", codec " << format.codec << ", " << format.bit_rate);
            std::vector<Bytes> packets = good;
            damage.apply(&packets[5]);
            for (bool whole : {false, true}) {
                const Decoder decoder = open_decoder();
                std::mt19937 random(2);
                const Pcm pcm = play(decoder.get(), coded_audio::join(packets),
                                     [&] { return whole ? size_t{1} << 20 : 1 + random() % 700; });
                ASSERT_EQ(expected.size(), pcm.size()) << "the time line holds";
                EXPECT_EQ(0u, count_differences(expected, pcm, 0, 5 * kFrame * 2));
                EXPECT_LT(peak(pcm, 5 * kFrame * 2, 6 * kFrame * 2), peak(expected, 0, expected.size()) * 11 / 10);
                // The overlap with the damaged frame reaches one block into the next.
                EXPECT_EQ(0u, count_differences(expected, pcm, (6 * kFrame + 256) * 2, expected.size()));
            }
        }
    }
}

// Writes as captured chunks bring it and reads as the player does; the clock goes on as time does.
class PacedPlayer
{
public:
    explicit PacedPlayer(bool async_mode = false)
        : async_(async_mode), decoder_(open_decoder(ADECODER_FORMAT_AC3, 2, async_mode))
    {
    }

    void send(const Bytes& packet)
    {
        const int64_t ends_us = start_us_ + static_cast<int64_t>(bursts_++) * 32000 + 5000;
        pass_until((ends_us + 19999) / 20000 * 20000);
        const size_t before = pcm.size();
        for (size_t at = 0; at < packet.size();)
            write_some(decoder_.get(), packet, packet.size(), &at);
        // A thread decodes it, at this time.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        do
            read();
        while (async_ && pcm.size() == before && std::chrono::steady_clock::now() < deadline);
    }
    void send(const std::vector<Bytes>& packets, size_t from, size_t to)
    {
        for (size_t i = from; i < to; ++i)
            send(packets[i]);
    }
    void lose(size_t bursts) { bursts_ += bursts; }
    void pass(int64_t us) { pass_until(g_now_us + us); }
    void ask_rate() { adecoder_get_output_sample_rate(decoder_.get()); }

    Pcm pcm;

private:
    void read()
    {
        int16_t block[1920];
        for (int32_t bytes; (bytes = adecoder_read(decoder_.get(), 0, 0, block, sizeof(block), 0)) > 0; ask_rate())
            pcm.insert(pcm.end(), block, block + bytes / 2);
    }
    void pass_until(int64_t time_us)
    {
        for (; g_now_us + 10000 < time_us; read())
            g_now_us += 10000;
        g_now_us = std::max(g_now_us.load(), time_us);
        read();
    }

    const bool async_;
    const Decoder decoder_;
    const int64_t start_us_ = g_now_us;
    size_t bursts_ = 0;
};

TEST(Adecoder, LostFramesLeaveTheSoundBehindThemInItsPlace)
{
    for (const Format& format : {kFormats[0], kFormats[4]}) {
        for (const bool async_mode : {false, true}) {
            for (const size_t lost : {1, 10, 100}) {
                SCOPED_TRACE(testing::Message() << "codec " << format.codec << ", " << async_mode << ", " << lost);
                const std::vector<Bytes> packets = coded_audio::encode(format, 60 + static_cast<int>(lost));
                const Pcm expected = coded_audio::decode(format, packets, 2);
                PacedPlayer player(async_mode);
                player.send(packets, 0, 30);
                EXPECT_EQ(30 * kFrame * 2, player.pcm.size());
                player.lose(lost);
                player.send(packets, 30 + lost, packets.size());
                ASSERT_EQ(expected.size(), player.pcm.size());
                const size_t half_a_second = (30 + lost + 16) * kFrame * 2;
                EXPECT_EQ(0u, count_differences(expected, player.pcm, half_a_second, expected.size()));
            }
        }
    }
}

TEST(Adecoder, WhatThePlayerKeepsTheTimeOfIsNotFilledIn)
{
    const std::vector<Bytes> packets = coded_audio::encode(kFormats[0], 60);
    // The capture device is opened, or the player queues silence of its own.
    for (const bool reopened : {true, false}) {
        PacedPlayer player;
        player.send(packets, 0, 30);
        reopened ? time_line::begin() : player.ask_rate();
        player.lose(10);
        player.send(packets, 40, 60);
        EXPECT_EQ(50 * kFrame * 2, player.pcm.size()) << reopened;
    }
}

TEST(Adecoder, WhatTheCaptureDeviceHeldUpIsNotFilledIn)
{
    constexpr int kHeldMs = 100;
    const std::vector<Bytes> packets = coded_audio::encode(kFormats[0], 60);
    PacedPlayer player;
    time_line::begin();
    player.send(packets, 0, 30);
    time_line::delivered();
    std::this_thread::sleep_for(std::chrono::milliseconds(kHeldMs));
    // It delivers again, and the player reads before the frames are decoded.
    time_line::delivered();
    player.pass(kHeldMs * 1000);
    player.send(packets, 30, packets.size());
    time_line::end();
    EXPECT_EQ(0u, count_differences(coded_audio::decode(kFormats[0], packets, 2), player.pcm, 0, player.pcm.size()));
    EXPECT_EQ(packets.size() * kFrame * 2, player.pcm.size());
}

TEST(Adecoder, ALengthThatLiesMovesNothing)
{
    std::vector<Bytes> packets = coded_audio::encode(kFormats[0], 60);
    const Pcm expected = coded_audio::decode(kFormats[0], packets, 2);
    packets[29].resize(6136); // the burst's stuffing
    packets[33].resize(2);    // next to nothing
    PacedPlayer player;
    player.send(packets, 0, packets.size());
    ASSERT_EQ(expected.size(), player.pcm.size());
    EXPECT_EQ(0u, count_differences(expected, player.pcm, 50 * kFrame * 2, expected.size()));
}

TEST(Adecoder, FullOutputTakesNothingAndGoesOnWhenItWasRead)
{
    for (bool async_mode : {false, true}) {
        const std::vector<Bytes> packets = coded_audio::encode(kFormats[0], 400);
        const Bytes stream = coded_audio::join(packets);
        const Decoder decoder = open_decoder(ADECODER_FORMAT_AC3, 2, async_mode);
        size_t at = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        int refused = 0;
        // Without reads, writes are refused at some point.
        while (refused < 50 && at < stream.size() && std::chrono::steady_clock::now() < deadline) {
            const size_t before = at;
            write_some(decoder.get(), stream, 5000, &at);
            refused = at == before ? refused + 1 : 0;
            if (at == before)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_LT(at, size_t{300 * 1024}) << "what is held is bounded";
        // With reads it goes on without loss.
        Pcm pcm;
        const Pcm expected = coded_audio::decode(kFormats[0], packets, 2);
        while (pcm.size() + 2 * 2 * kFrame * 16 < expected.size() && std::chrono::steady_clock::now() < deadline) {
            read_all(decoder.get(), &pcm);
            write_some(decoder.get(), stream, 5000, &at);
        }
        EXPECT_EQ(0u, count_differences(expected, pcm, 0, pcm.size()));
        EXPECT_LT(expected.size() / 2, pcm.size());
    }
}

TEST(Adecoder, AsynchronousModeDecodesTheSameAndCanBeReadMeanwhile)
{
    for (int round = 0; round < 10; ++round) {
        const std::vector<Bytes> packets = coded_audio::encode(kFormats[3], 30);
        const Pcm expected = coded_audio::decode(kFormats[3], packets, 2);
        const Decoder decoder = open_decoder(ADECODER_FORMAT_AC3, 2, true);
        Pcm pcm;
        std::thread reader([&] {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (pcm.size() < expected.size() && std::chrono::steady_clock::now() < deadline) {
                read_all(decoder.get(), &pcm);
                std::this_thread::yield();
            }
        });
        const Bytes stream = coded_audio::join(packets);
        for (size_t at = 0; at < stream.size();) {
            write_some(decoder.get(), stream, 1700, &at);
            adecoder_get_output_sample_rate(decoder.get());
        }
        reader.join();
        EXPECT_TRUE(expected == pcm);
    }
    // Closed while it decodes.
    const Decoder decoder = open_decoder(ADECODER_FORMAT_AC3, 2, true);
    const Bytes stream = coded_audio::join(coded_audio::encode(kFormats[0], 60));
    int32_t status = 0;
    EXPECT_LT(0, adecoder_write(decoder.get(), stream.data(), static_cast<int32_t>(stream.size()), 0, -1, &status));
}

TEST(Adecoder, RandomAndFlippedStreamsAreHarmlessAndRecoveredFrom)
{
    std::mt19937 random(11);
    const Bytes tail = coded_audio::join(coded_audio::encode(kFormats[0], 12));
    for (int round = 0; round < 60; ++round) {
        const Format& format = kFormats[random() % std::size(kFormats)];
        Bytes stream = coded_audio::join(coded_audio::encode(format, 6));
        for (size_t flips = random() % 400; flips > 0; --flips)
            stream[random() % stream.size()] ^= static_cast<uint8_t>(1u << random() % 8);
        const Decoder decoder = open_decoder(ADECODER_FORMAT_EAC3, 1 + static_cast<int>(random() % 8));
        const Pcm noise = play(decoder.get(), stream, [&] { return 1 + random() % 3000; });
        EXPECT_LE(noise.size(), stream.size() / 16 * 256 * 8);
        Pcm pcm = play(decoder.get(), tail);
        EXPECT_LT(8 * kFrame, pcm.size()) << "the good frames behind it come out";
    }
}

TEST(Adecoder, MemoryDoesNotGrow)
{
    const Bytes stream = coded_audio::join(coded_audio::encode(kFormats[3], 100));
    const Decoder decoder = open_decoder();
    play(decoder.get(), stream);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 5; ++i)
        play(decoder.get(), stream);
    EXPECT_LT(mallinfo2().uordblks, before + 64 * 1024);
}

TEST(Adecoder, NonsenseIsRefused)
{
    EXPECT_EQ(nullptr, adecoder_init(ADECODER_FORMAT_DTS, 1, 0, ADECODER_CHANNEL_STEREO, 0, false));
    EXPECT_EQ(nullptr, adecoder_init(ADECODER_FORMAT_AC3, 1, 0, ADECODER_CHANNEL_MAX, 0, false));
    const Decoder decoder = open_decoder();
    int32_t status = 0;
    EXPECT_GT(0, adecoder_write(nullptr, &status, 4, 0, -1, &status));
    EXPECT_GT(0, adecoder_write(decoder.get(), nullptr, 4, 0, -1, &status));
    EXPECT_GT(0, adecoder_write(decoder.get(), &status, -4, 0, -1, &status));
    EXPECT_EQ(0, adecoder_write(decoder.get(), &status, 0, 0, -1, &status));
    EXPECT_EQ(0, adecoder_read(decoder.get(), 0, 0, &status, 3, 0)) << "no room for a frame";
    EXPECT_GE(0, adecoder_read(nullptr, 0, 0, &status, 3, 0));
    EXPECT_GT(0, adecoder_deinit(nullptr));
}

// A frame of E-AC-3 with valid framing and check sum, but no valid content.
Bytes make_frame(int type, int substream, size_t bytes)
{
    Bytes frame(bytes, 0x55);
    const size_t words = bytes / 2 - 1;
    frame[0] = 0x0B;
    frame[1] = 0x77;
    frame[2] = static_cast<uint8_t>(type << 6 | substream << 3 | static_cast<int>(words >> 8));
    frame[3] = static_cast<uint8_t>(words);
    frame[4] = 0x34;
    frame[5] = 0x80;
    coded_audio::set_check_sum(&frame);
    return frame;
}

TEST(Adecoder, DecodingErrorIsToldByANegativeStatus)
{
    const Decoder decoder = open_decoder();
    int32_t status = 0;
    for (int i = 0; i < 2; ++i) {
        const Bytes frame = make_frame(2, 0, 400);
        EXPECT_EQ(400, adecoder_write(decoder.get(), frame.data(), 400, 0, -1, &status));
        EXPECT_EQ(-1, status);
    }
    EXPECT_EQ(2 * 12 * kFrame, play(decoder.get(), coded_audio::join(coded_audio::encode(kFormats[0], 12))).size());
}

TEST(Adecoder, StreamWithoutARightCheckSumIsDecodedNevertheless)
{
    std::vector<Bytes> packets = coded_audio::encode(kFormats[4], 12);
    for (Bytes& packet : packets)
        packet.back() ^= 1;
    EXPECT_TRUE(coded_audio::decode(kFormats[4], packets, 2) == play(open_decoder().get(), coded_audio::join(packets)));
}

std::vector<size_t> units_of(ac3::Framer* framer, const std::vector<Bytes>& writes)
{
    std::vector<size_t> sizes;
    for (const Bytes& bytes : writes) {
        EXPECT_EQ(bytes.size(), framer->write(bytes.data(), bytes.size()));
        for (ac3::Unit unit = {}; framer->next(&unit);)
            sizes.push_back(unit.bytes);
    }
    return sizes;
}

TEST(Ac3Framer, DependentFramesBelongToTheFrameBeforeThem)
{
    const Bytes main = make_frame(0, 0, 400);
    const Bytes dependent = make_frame(1, 0, 200);
    const Bytes other_program = make_frame(0, 1, 300);
    const Bytes burst = coded_audio::join({main, dependent, other_program});
    ac3::Framer framer;
    EXPECT_EQ(std::vector<size_t>({600, 600}), units_of(&framer, {burst, burst}));

    // Cut between the two frames. The first dependent frame comes too late; from then on units wait for theirs.
    ac3::Framer cut;
    EXPECT_EQ(std::vector<size_t>({400, 600, 600}),
              units_of(&cut, {main, dependent, main, dependent, main, dependent}));
    // Without one, the next frame ends the wait.
    EXPECT_EQ(std::vector<size_t>({400, 400, 400}), units_of(&cut, {main, main, main}));

    std::vector<Bytes> endless(10, make_frame(1, 0, 4096));
    endless[0] = make_frame(0, 0, 4096);
    EXPECT_EQ(std::vector<size_t>({ac3::kUnitBytesMax}), units_of(&cut, {coded_audio::join(endless)}));
}

TEST(Ac3Framer, SizesFollowTheTables)
{
    const struct {
        uint8_t rate_and_size, version;
        uint32_t bytes; // 0 for what is no header
    } headers[] = {{0, 0x40, 128},          {20, 0x40, 768},
                   {37, 0x40, 2560},        {0x40 | 0, 0x40, 138},
                   {0x40 | 1, 0x40, 140},   {0x40 | 36, 0x40, 2786},
                   {0x80 | 37, 0x40, 3840}, {0xC0, 0x40, 0},
                   {0x26, 0x40, 0},         {0, 0x88, 0}};
    for (const auto& [rate_and_size, version, bytes] : headers) {
        const uint8_t data[ac3::kHeaderBytes] = {0x0B, 0x77, 0, 0, rate_and_size, version, 0, 0};
        ac3::Header header = {};
        ASSERT_EQ(bytes != 0, ac3::parse_header(data, &header)) << bytes;
        EXPECT_TRUE(bytes == 0 || bytes == header.bytes) << bytes;
    }
}

} // namespace
