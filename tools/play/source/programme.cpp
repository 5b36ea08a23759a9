// SPDX-License-Identifier: MIT
#include "source/programme.h"

#include <cmath>
#include <cstdio>

namespace play
{
namespace
{

constexpr int64_t second_ns = 1'000'000'000;

/// A well mixed 32-bit value for each input (the finaliser of a common hash).
uint32_t mix(uint32_t x)
{
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    x ^= x >> 16;
    return x;
}

} // namespace

Programme::Programme(int audio_rate, Rational fps, int64_t length_ns)
    : m_audio_rate(audio_rate), m_fps(fps), m_length_ns(length_ns)
{
    for (int64_t second = 0; second * second_ns <= length_ns; second++)
        m_beeps.push_back(std::llround(static_cast<double>(frame_ns(mark_frame(second))) * audio_rate / second_ns));
}

int16_t Programme::sample(int64_t number, int channel) const
{
    uint32_t hash = mix(static_cast<uint32_t>(number * 2 + channel));
    int value = static_cast<int>(hash % (2 * noise_peak + 1)) - noise_peak;
    auto second = static_cast<size_t>(number / m_audio_rate);
    // The mark's frame may come a little after the full second: then this sample may be the beep of the one before.
    if (second >= m_beeps.size() || number < m_beeps[second]) {
        if (second == 0 || second > m_beeps.size())
            return static_cast<int16_t>(value);
        second--;
    }
    int64_t since = number - m_beeps[second];
    // Sound and picture of second 0 come while the player starts.
    if (second > 0 && since * second_ns < stroke_ns * m_audio_rate) {
        double phase = 2 * M_PI * beep_hz * static_cast<double>(since) / m_audio_rate;
        value += static_cast<int>(std::lrint(beep_peak * std::cos(phase)));
    }
    return static_cast<int16_t>(value);
}

void Programme::audio(int64_t first, int16_t* stereo, int frames) const
{
    for (int i = 0; i < frames; i++) {
        stereo[2 * i] = sample(first + i, 0);
        stereo[2 * i + 1] = sample(first + i, 1);
    }
}

int64_t Programme::frame_ns(int64_t number) const
{
    // Full seconds apart: the product of all would overflow after some hours.
    int64_t ticks = number * m_fps.den;
    return ticks / m_fps.num * second_ns + ticks % m_fps.num * second_ns / m_fps.num;
}

bool Programme::next_video(VideoFrame* frame)
{
    frame->number = m_next_frame;
    frame->source_ns = frame_ns(m_next_frame);
    if (frame->source_ns >= m_length_ns)
        return false;
    int64_t second = frame->number * m_fps.den / m_fps.num;
    int64_t since_mark = frame->source_ns - frame_ns(mark_frame(second));
    bool flash = second > 0 && since_mark >= 0 && since_mark < stroke_ns;
    write_number(&frame->picture, frame->number);
    fill_field(&frame->picture, flash ? Picture::white : Picture::black);
    m_next_frame++;
    return true;
}

std::vector<int64_t> Programme::marks() const
{
    std::vector<int64_t> marks;
    for (size_t second = 1; second < m_beeps.size(); second++)
        marks.push_back(frame_ns(mark_frame(static_cast<int64_t>(second))));
    return marks;
}

std::string Programme::description() const
{
    char text[96];
    std::snprintf(text, sizeof text, "flash and beep each second, %d Hz, %.5g fps", m_audio_rate, m_fps.value());
    return text;
}

} // namespace play
