// SPDX-License-Identifier: MIT
// Bursts of an independent muxer, cut every way, against the geometry of the stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "burst_geometry.h"
#include "coded_audio.h"
#include "internal/dolby.h"
#include "platform_hooks.h"

namespace
{

using burst_geometry::Burst;
using burst_geometry::Cuts;
using burst_geometry::kPreambleBytes;
using coded_audio::Bytes;

constexpr size_t kAc3Burst = 6144;
constexpr size_t kEac3Burst = 24576;

struct Stream {
    Bytes bytes;
    std::vector<Burst> bursts;

    // All frames of a stream have one size here.
    void add(const coded_audio::Format& format, size_t count, size_t frames_in_burst = 1)
    {
        const std::vector<Bytes> packets = coded_audio::encode(format, static_cast<int>(count * frames_in_burst));
        const size_t period = format.codec == AV_CODEC_ID_AC3 ? kAc3Burst : kEac3Burst;
        for (size_t i = 0; i < count; ++i) {
            const size_t start = bytes.size() + period * i;
            bursts.push_back({start, start + kPreambleBytes + frames_in_burst * packets[0].size()});
        }
        const Bytes muxed = coded_audio::mux_bursts(format, packets);
        ASSERT_EQ(period * count, muxed.size());
        bytes.insert(bytes.end(), muxed.begin(), muxed.end());
    }
};

Bytes arriving_bytes(const Stream& stream, const Cuts& cuts)
{
    Bytes expected;
    for (const burst_geometry::Span& span : burst_geometry::arriving(stream.bursts, cuts))
        expected.insert(expected.end(), stream.bytes.data() + span.begin, stream.bytes.data() + span.end);
    return expected;
}

// Burst data to its end, unless the chunk ends inside a preamble.
int32_t expected_result(const Stream& stream, size_t chunk_end)
{
    for (const Burst& burst : stream.bursts) {
        if (chunk_end > burst.start && chunk_end < burst.start + kPreambleBytes)
            return -1;
    }
    return 0;
}

class DolbyStream : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        setenv("debug_hdmiplayer_log_level", "0", 1);
        stream_ = new Stream();
        stream_->add({AV_CODEC_ID_AC3, 48000, 2, 192000}, 2);
        stream_->add({AV_CODEC_ID_EAC3, 48000, 6, 1536000}, 1, 2);
        stream_->add({AV_CODEC_ID_AC3, 48000, 6, 640000}, 2);
        stream_->add({AV_CODEC_ID_EAC3, 48000, 2, 3024000}, 1, 3);
        stream_->add({AV_CODEC_ID_EAC3, 48000, 2, 96000}, 1);
    }
    static void TearDownTestSuite()
    {
        delete stream_;
        unsetenv("debug_hdmiplayer_log_level");
    }
    void SetUp() override
    {
        g_hooks = PlatformHooks();
        g_hooks.decoder_init = [this](adecoder_format_t, adecoder_channel_t, bool) {
            return reinterpret_cast<adecoder_handle_t*>(this);
        };
        g_hooks.decoder_write = [this](adecoder_handle_t*, const void* data, int32_t bytes, int32_t*) {
            const auto* from = static_cast<const uint8_t*>(data);
            arrived.insert(arrived.end(), from, from + bytes);
            return bytes;
        };
    }
    void TearDown() override { g_hooks = PlatformHooks(); }

    // Of the stream in chunks of what @p next_size gives.
    template <typename NextSize> void expect_geometry(NextSize next_size)
    {
        Cuts cuts;
        for (size_t end = next_size(); end < stream_->bytes.size(); end += next_size())
            cuts.push_back(end);
        cuts.push_back(stream_->bytes.size());
        arrived.clear();
        dolby_info_t info;
        info.event_cb = [](hdmi_player_event_e) { ADD_FAILURE(); };
        info.format_changed_cb = [](bool, bool*) {};
        size_t wrong_results = 0;
        size_t start = 0;
        for (size_t end : cuts) {
            const int32_t result =
                dolby_disassemble_iec61937(&info, stream_->bytes.data() + start, static_cast<uint32_t>(end - start));
            wrong_results += result != expected_result(*stream_, end) ? 1 : 0;
            start = end;
        }
        EXPECT_EQ(0u, wrong_results);
        EXPECT_TRUE(arriving_bytes(*stream_, cuts) == arrived);
        EXPECT_EQ(0u, info.iec61937_payload_insufficient_bytes + info.iec61937_burst_insufficient_bytes);
    }

    static Stream* stream_;
    Bytes arrived;
};

Stream* DolbyStream::stream_ = nullptr;

TEST_F(DolbyStream, PayloadArrivesAtEveryChunkSize)
{
    for (size_t size = 1; size <= 7000 && !HasFailure(); ++size) {
        SCOPED_TRACE(testing::Message() << "chunks of " << size);
        expect_geometry([size] { return size; });
    }
}

TEST_F(DolbyStream, PayloadArrivesFromChunksOfAnySizes)
{
    std::mt19937 random(3);
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        expect_geometry([&, most = size_t{2} << random() % 15] { return 1 + random() % most; });
    }
}

} // namespace
