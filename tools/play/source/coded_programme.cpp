// SPDX-License-Identifier: MIT
#include "source/coded_programme.h"

#include <algorithm>
#include <cstdlib>

#include "signal/onset.h"
#include "source/av_owned.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace play
{
namespace
{

constexpr int64_t kSecondNs = 1'000'000'000;
/// The encoder's scale of full amplitude.
constexpr float kFullScale = 32768;
/// The coder may move a beep's onset by this much.
constexpr int64_t kMostSmearMs = 5;

AvOwned<AVCodecContext> open_encoder(Coding coding, int rate, int64_t bit_rate)
{
    const AVCodec* codec = avcodec_find_encoder(coding == Coding::ac3 ? AV_CODEC_ID_AC3 : AV_CODEC_ID_EAC3);
    AvOwned<AVCodecContext> encoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (!encoder)
        return nullptr;
    encoder->sample_rate = rate;
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->bit_rate = bit_rate;
    encoder->time_base = {1, rate};
    av_channel_layout_default(&encoder->ch_layout, 2);
    bool good = avcodec_open2(encoder.get(), codec, nullptr) == 0 && encoder->frame_size == kBurstSamples;
    return good ? std::move(encoder) : nullptr;
}

/// Samples @p first and following of a track or a programme, of which @p loop comes again: @p read is asked for those
/// that are there.
template <typename Read>
void read_looped(const Loop& loop, int64_t first, int16_t* stereo, int64_t frames, const Read& read)
{
    for (int64_t done = 0; done < frames;) {
        const int64_t place = loop.place_of(first + done);
        const int64_t count = std::min(frames - done, loop.end - place);
        read(place, stereo + 2 * done, static_cast<int>(count));
        done += count;
    }
}

/// Zeros for those of the @p frames from @p first on that lie behind @p end.
void silence_behind(int64_t end, int64_t first, int16_t* stereo, int64_t frames)
{
    const int64_t kept = std::clamp<int64_t>(end - first, 0, frames);
    std::fill_n(stereo + 2 * kept, 2 * (frames - kept), int16_t{0});
}

// A frame of the programme from sample @p first on.
AvOwned<AVFrame> make_frame(const AVCodecContext& encoder, const Programme& programme, const Loop& loop, int64_t first)
{
    AvOwned<AVFrame> frame(av_frame_alloc());
    if (!frame)
        return nullptr;
    frame->nb_samples = encoder.frame_size;
    frame->format = encoder.sample_fmt;
    frame->sample_rate = encoder.sample_rate;
    frame->pts = first;
    if (av_channel_layout_copy(&frame->ch_layout, &encoder.ch_layout) < 0 || av_frame_get_buffer(frame.get(), 0) < 0)
        return nullptr;
    std::vector<int16_t> stereo(static_cast<size_t>(2 * encoder.frame_size));
    read_looped(loop, first, stereo.data(), encoder.frame_size,
                [&programme](int64_t place, int16_t* to, int frames) { programme.audio(place, to, frames); });
    for (size_t channel = 0; channel < 2; channel++) {
        auto* to = reinterpret_cast<float*>(frame->extended_data[channel]);
        for (int i = 0; i < encoder.frame_size; i++)
            to[i] = static_cast<float>(stereo[2 * static_cast<size_t>(i) + channel]) / kFullScale;
    }
    return frame;
}

} // namespace

std::unique_ptr<CodedProgramme> CodedProgramme::make(Coding coding, const Programme& programme, int64_t length_ns,
                                                     int64_t bit_rate, std::string* error)
{
    // The link goes on until the host has stopped sending pictures.
    const int64_t samples = (length_ns + kSecondNs) * programme.audio_rate() / kSecondNs;
    const int64_t end = (samples + kBurstSamples - 1) / kBurstSamples * kBurstSamples;
    std::unique_ptr<CodedProgramme> made(new CodedProgramme(coding, programme, end));
    if (!made->track_.usable() || !made->encode(bit_rate) || !made->find_onsets()) {
        *error = std::string("the programme's sound could not be encoded as ") + coding_name(coding);
        return nullptr;
    }
    return made;
}

Loop CodedProgramme::programme_loop() const
{
    constexpr int64_t kRoundsWorthIt = 3;
    const int64_t round = int64_t{Programme::kComesRoundS} * programme_.audio_rate();
    // With other frame rates a second's first picture comes at another time each minute, and its beep with it.
    const bool comes_round = round % kBurstSamples == 0 && programme_.fps().den == 1;
    // In the first round there is no beep at its beginning.
    return comes_round && end_ > kRoundsWorthIt * round ? Loop{round, 2 * round} : Loop{};
}

Storage CodedProgramme::storage() const
{
    constexpr int64_t kMostRounds = 3;
    const int64_t stored = std::min(end_, programme_loop().end);
    return stored <= kMostRounds * Programme::kComesRoundS * programme_.audio_rate() ? Storage::memory : Storage::disk;
}

bool CodedProgramme::encode(int64_t bit_rate)
{
    AvOwned<AVCodecContext> encoder = open_encoder(track_.coding(), audio_rate(), bit_rate);
    AvOwned<AVPacket> packet(av_packet_alloc());
    if (!encoder || !packet)
        return false;
    const Loop loop = programme_loop();
    const int64_t end = std::min(end_, loop.end);
    AvOwned<AVPacket> loop_first;
    // The coder overlaps its blocks: what goes in as sample n comes out of a decoder this much later.
    int64_t first = encoder->initial_padding;
    for (; track_.samples() < end; first += encoder->frame_size) {
        AvOwned<AVFrame> frame = make_frame(*encoder, programme_, loop, first);
        if (!frame || avcodec_send_frame(encoder.get(), frame.get()) < 0)
            return false;
        while (avcodec_receive_packet(encoder.get(), packet.get()) >= 0) {
            if (track_.samples() == loop.begin)
                loop_first.reset(av_packet_clone(packet.get()));
            bool added = track_.add(packet.get());
            av_packet_unref(packet.get());
            if (!added)
                return false;
        }
    }
    if (end == end_)
        return true;
    // The decode of a burst depends on the one before. So the loop's first burst is there a second time, as it sounds
    // behind the last one, and the loop begins behind it.
    loop_ = {loop.begin + kBurstSamples, loop.end + kBurstSamples};
    return loop_first && track_.add(loop_first.get());
}

// Each beep must be found again where the coder was given it.
bool CodedProgramme::find_onsets()
{
    OnsetDetector detector(audio_rate(), Programme::kBeepPeak);
    std::vector<int16_t> stereo(2 * kBurstSamples);
    for (int64_t first = 0; first < track_.samples(); first += kBurstSamples) {
        audio(first, stereo.data(), kBurstSamples);
        detector.feed(stereo.data(), kBurstSamples);
    }
    onsets_ = detector.onsets();
    std::vector<int64_t> given = programme_.onsets();
    // In a loop, beeps come as often as in the programme.
    while (track_.samples() < end_ && onsets_.size() < given.size())
        onsets_.push_back(onsets_[onsets_.size() - Programme::kComesRoundS] + loop_.length());
    return std::equal(onsets_.begin(), onsets_.end(), given.begin(), given.end(),
                      [this](int64_t a, int64_t b) { return std::abs(a - b) * 1000 < kMostSmearMs * audio_rate(); });
}

void CodedProgramme::audio(int64_t first, int16_t* stereo, int frames) const
{
    read_looped(loop_, first, stereo, frames,
                [this](int64_t place, int16_t* to, int count) { track_.audio(place, to, count); });
    silence_behind(end_, first, stereo, frames);
}

void CodedProgramme::link(int64_t first, int16_t* words, int frames) const
{
    const int64_t scale = link_frames_per_sample(coding());
    read_looped({loop_.begin * scale, loop_.end * scale}, first, words, frames,
                [this](int64_t place, int16_t* to, int count) { track_.link(place, to, count); });
    silence_behind(end_ * scale, first, words, frames);
}

std::string CodedProgramme::description() const
{
    return programme_.description() + ", sent as " + coding_name(coding());
}

} // namespace play
