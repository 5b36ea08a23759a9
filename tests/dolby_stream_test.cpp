// SPDX-License-Identifier: MIT
// Bursts of an independent muxer, cut every way, against the geometry of the stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "coded_audio.h"
#include "internal/dolby.h"
#include "platform_hooks.h"

namespace
{

using coded_audio::Bytes;

constexpr size_t kPreamble = 8;
constexpr size_t kAc3Burst = 6144;
constexpr size_t kEac3Burst = 24576;

struct Burst {
    size_t start, payload, end; ///< byte positions: preamble, end of the payload, end of the burst
};

struct Stream {
    Bytes bytes;
    std::vector<Burst> bursts;

    void add(const coded_audio::Format& format, int count)
    {
        const std::vector<Bytes> packets = coded_audio::encode(format, count);
        const size_t period = format.codec == AV_CODEC_ID_AC3 ? kAc3Burst : kEac3Burst;
        for (const Bytes& packet : packets) {
            const size_t start = bytes.size() + period * static_cast<size_t>(&packet - packets.data());
            bursts.push_back({start, start + kPreamble + packet.size(), start + period});
        }
        const Bytes muxed = coded_audio::mux_bursts(format, packets);
        ASSERT_EQ(period * packets.size(), muxed.size());
        bytes.insert(bytes.end(), muxed.begin(), muxed.end());
    }
};

// Ends of the chunks that a stream is cut into, ascending, the last one the stream's.
using Cuts = std::vector<size_t>;

// The payload bytes that arrive: of each burst those in the chunk that completes its preamble and those in
// the chunk that its payload ends in; what lies between is dropped. The decoder is there from the first
// stretch sent with the data type of its own burst, which is the one behind a preamble.
Bytes arriving(const Stream& stream, const Cuts& cuts)
{
    Bytes expected;
    bool decoding = false;
    const auto end_of_chunk = [&cuts](size_t position) {
        return *std::upper_bound(cuts.begin(), cuts.end(), position);
    };
    for (const Burst& burst : stream.bursts) {
        const size_t head = burst.start + kPreamble;
        const size_t head_end = std::min(end_of_chunk(head - 1), burst.payload);
        decoding = decoding || head_end > head;
        if (!decoding)
            continue;
        const size_t last_end = end_of_chunk(burst.payload - 1);
        const auto last = std::lower_bound(cuts.begin(), cuts.end(), last_end);
        const size_t last_start = last == cuts.begin() ? 0 : *std::prev(last);
        const size_t tail = std::max(head_end, last_start);
        const auto at = [&stream](size_t position) { return stream.bytes.begin() + static_cast<ptrdiff_t>(position); };
        expected.insert(expected.end(), at(head), at(head_end));
        expected.insert(expected.end(), at(tail), at(burst.payload));
    }
    return expected;
}

// Burst data to its end, unless the chunk ends inside a preamble.
int32_t expected_result(const Stream& stream, size_t chunk_end)
{
    for (const Burst& burst : stream.bursts) {
        if (chunk_end > burst.start && chunk_end < burst.start + kPreamble)
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
        stream = new Stream();
        stream->add({AV_CODEC_ID_AC3, 48000, 2, 192000}, 2);
        stream->add({AV_CODEC_ID_EAC3, 48000, 6, 1024000}, 1);
        stream->add({AV_CODEC_ID_AC3, 48000, 6, 640000}, 2);
        stream->add({AV_CODEC_ID_EAC3, 48000, 2, 96000}, 1);
    }
    static void TearDownTestSuite()
    {
        delete stream;
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

    void expect_geometry(const Cuts& cuts)
    {
        arrived.clear();
        dolby_info_t info;
        info.event_cb = [](hdmi_player_event_e) { ADD_FAILURE(); };
        info.format_changed_cb = [](bool, bool*) {};
        size_t wrong_results = 0;
        size_t start = 0;
        for (size_t end : cuts) {
            const int32_t result =
                dolby_disassemble_iec61937(&info, stream->bytes.data() + start, static_cast<uint32_t>(end - start));
            wrong_results += result != expected_result(*stream, end) ? 1 : 0;
            start = end;
        }
        EXPECT_EQ(0u, wrong_results);
        EXPECT_TRUE(arriving(*stream, cuts) == arrived);
        EXPECT_EQ(0u, info.iec61937_payload_insufficient_bytes + info.iec61937_burst_insufficient_bytes);
    }

    static Stream* stream;
    Bytes arrived;
};

Stream* DolbyStream::stream = nullptr;

TEST_F(DolbyStream, PayloadArrivesAtEveryChunkSize)
{
    for (size_t size = 1; size <= 7000 && !HasFailure(); ++size) {
        Cuts cuts;
        for (size_t end = size; end < stream->bytes.size(); end += size)
            cuts.push_back(end);
        cuts.push_back(stream->bytes.size());
        SCOPED_TRACE(testing::Message() << "chunks of " << size);
        expect_geometry(cuts);
    }
}

TEST_F(DolbyStream, PayloadArrivesAtEveryPhaseOfADevicePeriod)
{
    for (size_t phase = 4; phase <= 3840 && !HasFailure(); phase += 4) {
        Cuts cuts;
        for (size_t end = phase; end < stream->bytes.size(); end += 3840)
            cuts.push_back(end);
        cuts.push_back(stream->bytes.size());
        SCOPED_TRACE(testing::Message() << "phase " << phase);
        expect_geometry(cuts);
    }
}

TEST_F(DolbyStream, PayloadArrivesFromChunksOfAnySizes)
{
    std::mt19937 random(3);
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        Cuts cuts;
        const size_t most = size_t{2} << random() % 15;
        for (size_t end = 1 + random() % most; end < stream->bytes.size(); end += 1 + random() % most)
            cuts.push_back(end);
        cuts.push_back(stream->bytes.size());
        SCOPED_TRACE(testing::Message() << "round " << round);
        expect_geometry(cuts);
    }
}

} // namespace
