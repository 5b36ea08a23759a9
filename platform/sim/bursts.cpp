// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

#include "sim.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace sim
{
namespace
{

using hdmi_sim::Bitstream;
using hdmi_sim::Burst;
using hdmi_sim::Coding;

constexpr size_t kFrameBytes = 4; ///< of the link: two words
constexpr size_t kPreambleBytes = 8;
constexpr uint8_t kSync[] = {0x72, 0xF8, 0x1F, 0x4E}; ///< Pa, Pb
constexpr size_t kIoBufferBytes = 4096;
constexpr int kMuxerRate = 48000; ///< required by the muxer; the bursts do not depend on it

/// A pause burst of IEC 61937-3, which leaves open how long the pause is.
const Burst kPause = {3, 32, {0, 0, 0, 0}};

/// The sync word of the DTS core, in the order of the link.
constexpr uint8_t kDtsSync[] = {0xFE, 0x7F, 0x01, 0x80};
constexpr size_t kDtsPayloadMin = 96; ///< the smallest frame of DTS
constexpr int kBitsPerFrame = 32;
/// A period of 20 ms at 48 kHz lasts 5 ms on an E-AC-3 link: as many at once are read as seldom as on another link.
constexpr int kFastLinkPeriods = 4;

// --- From elementary stream to bursts ---------------------------------------------

struct Freed {
    void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(AVFormatContext* muxer) const
    {
        if (muxer->pb != nullptr)
            av_freep(&muxer->pb->buffer);
        avio_context_free(&muxer->pb);
        avformat_free_context(muxer);
    }
};
template <typename T> using Owned = std::unique_ptr<T, Freed>;

AVCodecID codec_of(Coding coding) { return coding == Coding::ac3 ? AV_CODEC_ID_AC3 : AV_CODEC_ID_EAC3; }

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

uint16_t read_le16(const uint8_t* data) { return static_cast<uint16_t>(data[0] | data[1] << 8); }

/// Packs with libavformat's muxer. Takes the bursts from its output without the stuffing, which need not be kept.
class Packer
{
public:
    Packer(Coding coding, std::vector<Burst>* bursts) : coding_(coding), bursts_(bursts) {}

    bool begin()
    {
        AVFormatContext* muxer = nullptr;
        if (avformat_alloc_output_context2(&muxer, nullptr, "spdif", nullptr) < 0)
            return false;
        muxer_.reset(muxer);
        auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
        muxer->pb = avio_alloc_context(buffer, kIoBufferBytes, 1, &out_, nullptr, collect, nullptr);
        AVStream* stream = avformat_new_stream(muxer, nullptr);
        if (muxer->pb == nullptr || stream == nullptr)
            return false;
        stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        stream->codecpar->codec_id = codec_of(coding_);
        stream->codecpar->sample_rate = kMuxerRate;
        packet_.reset(av_packet_alloc());
        return packet_ != nullptr && avformat_write_header(muxer, nullptr) >= 0;
    }

    // A frame that the muxer refuses is left out.
    bool add(const uint8_t* data, int bytes)
    {
        if (av_new_packet(packet_.get(), bytes) < 0)
            return false;
        std::copy_n(data, bytes, packet_->data);
        packet_->pts = packet_->dts = frames_++;
        av_write_frame(muxer_.get(), packet_.get());
        av_packet_unref(packet_.get());
        avio_flush(muxer_->pb);
        return take_bursts();
    }

    bool end() { return av_write_trailer(muxer_.get()) >= 0 && take_bursts(); }

private:
    bool take_bursts()
    {
        const size_t burst_bytes = static_cast<size_t>(hdmi_sim::burst_frames(coding_)) * kFrameBytes;
        size_t done = 0;
        for (; out_.size() - done >= burst_bytes; done += burst_bytes) {
            const uint8_t* data = out_.data() + done;
            Burst burst = {read_le16(data + 4), read_le16(data + 6), {}};
            const size_t payload = coding_ == Coding::ac3 ? burst.pd / 8U : burst.pd;
            if (memcmp(data, kSync, sizeof(kSync)) != 0 || payload > burst_bytes - kPreambleBytes)
                return false;
            burst.payload.assign(data + kPreambleBytes, data + kPreambleBytes + payload);
            bursts_->push_back(std::move(burst));
        }
        out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(done));
        return true;
    }

    Coding coding_;
    std::vector<Burst>* bursts_;
    std::vector<uint8_t> out_; ///< of the muxer, not taken yet
    int64_t frames_ = 0;
    Owned<AVFormatContext> muxer_;
    Owned<AVPacket> packet_;
};

// The parser's last piece may be no frame.
bool is_frame(const uint8_t* data, int bytes) { return bytes > 2 && data[0] == 0x0B && data[1] == 0x77; }

// Packs the frames of the stream one by one, each with its dependent ones.
bool pack(const uint8_t* data, size_t bytes, Bitstream* stream)
{
    const Owned<AVCodecParserContext> parser(av_parser_init(codec_of(stream->coding)));
    const Owned<AVCodecContext> context(avcodec_alloc_context3(nullptr));
    Packer packer(stream->coding, &stream->bursts);
    if (parser == nullptr || context == nullptr || !packer.begin())
        return false;
    // The parser may read this far past its input.
    std::vector<uint8_t> padded(data, data + bytes);
    padded.resize(bytes + AV_INPUT_BUFFER_PADDING_SIZE);
    size_t done = 0;
    for (bool more = true; more;) {
        const size_t rest = std::min<size_t>(bytes - done, 1U << 20);
        uint8_t* frame = nullptr;
        int frame_bytes = 0;
        // An empty input makes the parser return the last frame.
        const int used = av_parser_parse2(parser.get(), context.get(), &frame, &frame_bytes, padded.data() + done,
                                          static_cast<int>(rest), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        done += static_cast<size_t>(std::max(used, 0));
        if (is_frame(frame, frame_bytes) && !packer.add(frame, frame_bytes))
            return false;
        more = rest > 0 || frame_bytes > 0;
    }
    stream->sample_rate = context->sample_rate;
    return packer.end();
}

// --- From bursts to the link --------------------------------------------------------

// A one-to-one hash of @p x (SplitMix64's finaliser).
uint64_t scatter(uint64_t x)
{
    x += 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

/// The link's bytes by their position; immutable, so that any thread may read any part at any time.
class Layout
{
public:
    Layout(Bitstream stream, const hdmi_sim::BurstOptions& options) : stream_(std::move(stream)), options_(options)
    {
        gaps_.resize(stream_.bursts.size());
        for (const hdmi_sim::BurstGap& gap : options_.gaps) {
            if (gap.before_burst < 0 || gap.before_burst >= static_cast<int64_t>(gaps_.size()))
                continue;
            hdmi_sim::BurstGap& before = gaps_[static_cast<size_t>(gap.before_burst)];
            before.frames += std::max<int64_t>(0, gap.frames);
            before.pause_frames = gap.pause_frames;
        }
        for (size_t i = 0; i < stream_.bursts.size(); ++i) {
            starts_.push_back(cycle_ + gaps_[i].frames);
            cycle_ = starts_.back() + frames();
        }
    }

    int frames() const { return hdmi_sim::burst_frames(stream_.coding); }

    int64_t start_of(int64_t burst) const
    {
        const auto count = static_cast<int64_t>(starts_.size());
        if (burst < 0 || count == 0 || (burst >= count && !options_.repeat))
            return -1;
        return options_.lead_frames + burst / count * cycle_ + starts_[static_cast<size_t>(burst % count)];
    }

    // The number of the first burst that begins at @p frame or later. It may be past the last burst.
    int64_t burst_from(int64_t frame) const
    {
        const int64_t in_stream = frame - options_.lead_frames;
        if (in_stream <= 0 || starts_.empty())
            return 0;
        const auto at = std::lower_bound(starts_.begin(), starts_.end(), in_stream % cycle_);
        return in_stream / cycle_ * static_cast<int64_t>(starts_.size()) + (at - starts_.begin());
    }

    // The first link frame from @p frame on that has the phase of the options.
    int64_t open_at(int64_t frame) const
    {
        const int64_t phase = options_.phase_bytes / static_cast<int64_t>(kFrameBytes) % frames();
        for (int64_t burst = burst_from(frame);; ++burst) {
            const int64_t start = start_of(burst);
            if (start < 0)
                return frame;
            const int64_t wait = ((start - phase - frame) % frames() + frames()) % frames();
            if (frame + wait <= start)
                return frame + wait;
            frame = start + 1;
        }
    }

    void generate(int64_t first, int16_t* words, int count) const
    {
        auto* to = reinterpret_cast<uint8_t*>(words);
        memset(to, 0, static_cast<size_t>(count) * kFrameBytes);
        for (int64_t burst = std::max<int64_t>(0, burst_from(first - frames() + 1));; ++burst) {
            const int64_t start = start_of(burst);
            if (start < 0)
                break;
            const hdmi_sim::BurstGap& gap = gaps_[static_cast<size_t>(burst) % gaps_.size()];
            if (start - gap.frames >= first + count)
                break;
            for (int64_t at = start - gap.frames; gap.pause_frames > 0 && at < start; at += gap.pause_frames)
                put(kPause, at - first, to, count);
            put(stream_.bursts[static_cast<size_t>(burst) % stream_.bursts.size()], start - first, to, count);
        }
        if (options_.bit_error_rate > 0)
            damage(first, to, count);
    }

private:
    // Copies the part of the burst that falls into the @p count link frames at @p to. It begins @p at frames after
    // them.
    void put(const Burst& burst, int64_t at, uint8_t* to, int count) const
    {
        const int64_t offset = at * static_cast<int64_t>(kFrameBytes);
        const int64_t bytes = static_cast<int64_t>(count) * static_cast<int64_t>(kFrameBytes);
        uint8_t preamble[kPreambleBytes];
        std::copy_n(kSync, sizeof(kSync), preamble);
        preamble[4] = static_cast<uint8_t>(burst.pc);
        preamble[5] = static_cast<uint8_t>(burst.pc >> 8);
        preamble[6] = static_cast<uint8_t>(burst.pd);
        preamble[7] = static_cast<uint8_t>(burst.pd >> 8);
        const size_t room = static_cast<size_t>(frames()) * kFrameBytes - kPreambleBytes;
        copy(preamble, kPreambleBytes, offset, to, bytes);
        copy(burst.payload.data(), std::min(burst.payload.size(), room), offset + static_cast<int64_t>(kPreambleBytes),
             to, bytes);
    }

    static void copy(const uint8_t* from, size_t size, int64_t offset, uint8_t* to, int64_t bytes)
    {
        const int64_t begin = std::max<int64_t>(0, -offset);
        const int64_t end = std::min<int64_t>(static_cast<int64_t>(size), bytes - offset);
        if (begin < end)
            std::copy_n(from + begin, end - begin, to + offset + begin);
    }

    // Depends on the frame's number only, so that the damage is the same however the link is read.
    void damage(int64_t first, uint8_t* to, int count) const
    {
        const double hit = options_.bit_error_rate * kBitsPerFrame;
        for (int i = 0; i < count; ++i) {
            const uint64_t draw = scatter(scatter(options_.seed) + static_cast<uint64_t>(first + i));
            if (static_cast<double>(draw >> 11) * 0x1p-53 >= hit)
                continue;
            const auto bit = static_cast<size_t>(scatter(draw) % kBitsPerFrame);
            to[static_cast<size_t>(i) * kFrameBytes + bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
        }
    }

    Bitstream stream_;
    hdmi_sim::BurstOptions options_;
    std::vector<hdmi_sim::BurstGap> gaps_; ///< before each burst
    std::vector<int64_t> starts_;          ///< start of each burst, in link frames from the end of the lead
    int64_t cycle_ = 0;                    ///< link frames of all bursts
};

} // namespace
} // namespace sim

namespace hdmi_sim
{

int burst_frames(Coding coding)
{
    switch (coding) {
    case Coding::ac3: return 1536;
    case Coding::dts1: return 512;
    case Coding::dts2: return 1024;
    case Coding::dts3: return 2048;
    case Coding::eac3: break;
    }
    return 6144;
}

int link_rate(const Bitstream& stream)
{
    return stream.coding == Coding::eac3 ? 4 * stream.sample_rate : stream.sample_rate;
}

bool pack_bitstream(Coding coding, const uint8_t* data, size_t bytes, Bitstream* stream, std::string* error)
{
    *stream = {};
    stream->coding = coding;
    const bool known = coding == Coding::ac3 || coding == Coding::eac3;
    if (known && sim::pack(data, bytes, stream) && !stream->bursts.empty())
        return true;
    if (error != nullptr)
        *error = !known ? "only AC-3 and E-AC-3 can be packed" : "no frames of this coding found";
    stream->bursts.clear();
    return false;
}

Bitstream dts_bitstream(Coding type, int sample_rate, int bursts, uint32_t seed)
{
    Bitstream stream = {type, sample_rate, {}};
    std::mt19937 random(seed);
    const size_t room = static_cast<size_t>(burst_frames(type)) * sim::kFrameBytes - sim::kPreambleBytes;
    std::uniform_int_distribution<size_t> size(sim::kDtsPayloadMin, std::min<size_t>(room, UINT16_MAX / 8));
    for (int i = 0; i < bursts; ++i) {
        Burst burst = {static_cast<uint16_t>(type), 0, std::vector<uint8_t>(size(random) & ~size_t{1})};
        for (uint8_t& byte : burst.payload)
            byte = static_cast<uint8_t>(random());
        std::copy(std::begin(sim::kDtsSync), std::end(sim::kDtsSync), burst.payload.begin());
        burst.pd = static_cast<uint16_t>(burst.payload.size() * 8);
        stream.bursts.push_back(std::move(burst));
    }
    return stream;
}

Signal bitstream_signal(const Bitstream& stream, const BurstOptions& options)
{
    const auto layout = std::make_shared<const sim::Layout>(stream, options);
    Signal signal;
    signal.rate = link_rate(stream);
    signal.periods_at_once = stream.coding == Coding::eac3 ? sim::kFastLinkPeriods : 1;
    signal.generate = [layout](int64_t first, int16_t* words, int frames) { layout->generate(first, words, frames); };
    if (options.phase_bytes >= 0)
        signal.open_at = [layout](int64_t frame) { return layout->open_at(frame); };
    return signal;
}

int64_t burst_start(const Bitstream& stream, const BurstOptions& options, int64_t burst)
{
    // The layout needs only the number of bursts.
    Bitstream shape = {stream.coding, stream.sample_rate, std::vector<Burst>(stream.bursts.size())};
    return sim::Layout(std::move(shape), options).start_of(burst);
}

} // namespace hdmi_sim
