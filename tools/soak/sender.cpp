// SPDX-License-Identifier: MIT
#include "sender.h"

#include <algorithm>

#include "common/clock.h"
#include "hdmi_sim.h"
#include "source/coded_programme.h"

namespace soak
{
namespace
{

constexpr play::Programme::Marks kMarks = {kMarkNs, kPitches};
constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int kCodedRate = 48000;
constexpr uint32_t kDtsSeed = 1;
/// Of so many link frames one is damaged.
constexpr uint64_t kDamagedOneIn = 200;

/// Beeps at full multiples of their distance need a rate of which that is a whole number of pictures.
play::Programme beeps(int rate) { return {rate, {60, 1}, 2 * kLoopNs + kSecondNs, false, kMarks}; }

int64_t link_frames_of(int64_t source_ns, int rate)
{
    return source_ns / kSecondNs * rate + source_ns % kSecondNs * rate / kSecondNs;
}

void turn_bits_over(int64_t first, int16_t* words, int frames)
{
    for (int i = 0; i < frames; i++) {
        const uint64_t draw = static_cast<uint64_t>(first + i) * 0x9E3779B97F4A7C15U;
        if ((draw >> 32) % kDamagedOneIn == 0)
            words[2 * i] = static_cast<int16_t>(words[2 * i] ^ (1 << (draw >> 60)));
    }
}

} // namespace

std::unique_ptr<Sender> Sender::make(play::Rational fps, double ppm, double seconds, std::string* error)
{
    std::unique_ptr<Sender> sender(new Sender(fps, ppm, seconds));
    return sender->prepare(error) ? std::move(sender) : nullptr;
}

Sender::Sender(play::Rational fps, double ppm, double seconds)
    : pictures_(kCodedRate, fps, static_cast<int64_t>(seconds * 1e9), false, kMarks)
{
    clock_.ppm = ppm;
}

Sender::~Sender() { hdmi_sim::receiver_disconnect(); }

bool Sender::prepare(std::string* error)
{
    const auto at = [this](Format format) -> LoopPtr& { return loops_[static_cast<size_t>(format)]; };
    at(Format::pcm32) = pcm_loop(32000);
    at(Format::pcm44) = pcm_loop(44100);
    at(Format::pcm48) = pcm_loop(48000);
    at(Format::ac3) = coded_loop(play::Coding::ac3, error);
    at(Format::eac3) = coded_loop(play::Coding::eac3, error);
    at(Format::dts) = dts_loop();
    at(Format::wrong) = at(Format::pcm48);
    clock_.start_ns = common::now_ns();
    return at(Format::ac3) != nullptr && at(Format::eac3) != nullptr;
}

Sender::LoopPtr Sender::pcm_loop(int rate)
{
    Loop loop = {rate, {}};
    const int64_t frames = link_frames_of(kLoopNs, rate);
    loop.words.resize(static_cast<size_t>(2 * frames));
    // The second round: the first begins without a beep.
    beeps(rate).audio(frames, loop.words.data(), static_cast<int>(frames));
    return std::make_shared<const Loop>(std::move(loop));
}

Sender::LoopPtr Sender::coded_loop(play::Coding coding, std::string* error)
{
    const auto coded =
        play::CodedProgramme::make(coding, beeps(kCodedRate), 2 * kLoopNs, play::CodedProgramme::kBitRate, error);
    if (!coded)
        return nullptr;
    Loop loop = {kCodedRate * play::link_frames_per_sample(coding), {}};
    const int64_t frames = link_frames_of(kLoopNs, loop.rate);
    loop.words.resize(static_cast<size_t>(2 * frames));
    coded->link(frames, loop.words.data(), static_cast<int>(frames));
    return std::make_shared<const Loop>(std::move(loop));
}

Sender::LoopPtr Sender::dts_loop()
{
    Loop loop = {kCodedRate, {}};
    const int64_t frames = link_frames_of(kLoopNs, kCodedRate);
    const auto bursts = static_cast<int>(frames / hdmi_sim::burst_frames(hdmi_sim::Coding::dts1));
    loop.words.resize(static_cast<size_t>(2 * frames));
    hdmi_sim::bitstream_signal(hdmi_sim::dts_bitstream(hdmi_sim::Coding::dts1, kCodedRate, bursts, kDtsSeed))
        .generate(0, loop.words.data(), static_cast<int>(frames));
    return std::make_shared<const Loop>(std::move(loop));
}

play::Coding Sender::coding() const
{
    const Format format = format_;
    return format == Format::ac3 ? play::Coding::ac3 : format == Format::eac3 ? play::Coding::eac3 : play::Coding::pcm;
}

void Sender::audio(int64_t /*first*/, int16_t* stereo, int frames) const
{
    std::fill_n(stereo, 2 * frames, int16_t{0});
}

void Sender::put(const LoopPtr& loop)
{
    hdmi_sim::Signal signal;
    signal.rate = loop->rate;
    signal.clock_error_ppm = clock_.ppm - slow_ * 1e6;
    signal.start_ns = common::now_ns();
    const int64_t offset = link_frames_of(clock_.to_source(signal.start_ns), loop->rate);
    const bool bursts = is_bursts(format_);
    signal.generate = [this, loop, offset, bursts](int64_t first, int16_t* words, int frames) {
        const int64_t round = loop->frames();
        for (int done = 0; done < frames;) {
            const int64_t at = (offset + first + done) % round;
            const auto run = static_cast<int>(std::min<int64_t>(round - at, frames - done));
            std::copy_n(&loop->words[static_cast<size_t>(2 * at)], 2 * run, words + 2 * done);
            done += run;
        }
        if (bursts && damage_)
            turn_bits_over(first, words, frames);
    };
    hdmi_sim::receiver_connect(std::move(signal));
}

bool Sender::send(Format format)
{
    format_ = format;
    const LoopPtr& loop = loops_[static_cast<size_t>(format)];
    if (!plugged_ || loop == nullptr) {
        hdmi_sim::receiver_disconnect();
        return hdmi_sim::announce("HEADDONE=0");
    }
    put(loop);
    return hdmi_sim::announce(hdmi_sim::announce_text(is_announced_compressed(format), announced_rate(format)));
}

bool Sender::plug(bool in)
{
    plugged_ = in;
    return send(format_);
}

bool Sender::next_video(play::VideoFrame* frame)
{
    constexpr int64_t kMissedNs = 20'000'000;
    while (pictures_.next_video(frame)) {
        const int64_t due_ns = clock_.to_monotonic(frame->source_ns);
        if (!plugged_)
            common::sleep_until_ns(due_ns);
        else if (due_ns > common::now_ns() - kMissedNs)
            return true;
    }
    return false;
}

} // namespace soak
