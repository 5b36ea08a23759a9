// SPDX-License-Identifier: MIT
#include "frame_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

namespace
{

constexpr int64_t kUnit = 1536;
constexpr int64_t kMs = 1000;

// A source of bursts and the chunks in which the capture device reads it.
struct Source {
    const char* name = "AC-3 48 kHz";
    int rate = 48000;
    int64_t chunk_us = 20 * kMs;
    double ppm = 0;
    int frames_per_burst = 1;
};

// The source, the machine behind the device, and a reader that asks every 10 ms and finds nothing queued whenever
// frames are late.
struct Stream : Source {
    Stream(const Source& source = {}) : Source(source) {}

    double speed = 1; ///< of the feeding against time

    ac3::FrameClock clock;
    int64_t sent = 0;        ///< samples of the source's time line
    int64_t count = 0;       ///< samples out
    int64_t most_behind = 0; ///< samples, once the first second has passed
    int64_t base_us = 3'600'000'000;
    int64_t polled_us = base_us;
    int64_t held_until_us = 0; ///< nothing comes before
    bool reader_held = false;  ///< the reader stands still as long

    int64_t at_us(int64_t samples) const
    {
        const double seconds = static_cast<double>(samples) / rate / speed / (1 + ppm / 1e6);
        return base_us + static_cast<int64_t>(1e6 * seconds);
    }
    int64_t arrival_us(int64_t samples) const
    {
        const int64_t end = at_us(samples) + 4 * kMs - base_us;
        return std::max(base_us + (end + chunk_us - 1) / chunk_us * chunk_us, held_until_us);
    }
    void poll_until(int64_t end_us)
    {
        for (; polled_us < end_us; polled_us += 10 * kMs) {
            if (!(reader_held && polled_us < held_until_us))
                count += clock.starving(polled_us, 16 * kUnit);
        }
    }
    void send(int bursts = 1, int64_t lost = 0, bool made_up = false)
    {
        for (int i = 0; i < bursts; ++i) {
            const int64_t now = arrival_us(sent);
            poll_until(now);
            for (int k = 0; k < frames_per_burst; ++k) {
                const int64_t samples = kUnit / frames_per_burst;
                const ac3::Correction correction = clock.frame_came(now, {rate, samples, lost, made_up}, 15 * kUnit);
                count += correction.silence + samples - correction.skip;
                lost = 0;
            }
            sent += kUnit;
        }
    }
    void send_seconds(double seconds) { send(static_cast<int>(seconds * rate / kUnit)); }
    void lose(int64_t samples) { sent += samples; }
    int64_t behind() const { return sent - count; }
};

const Source kSources[] = {
    {},
    {"AC-3 44.1 kHz", 44100, 896 * 1'000'000 / 44100, 50, 1},
    {"AC-3 32 kHz", 32000, 30 * kMs, -50, 1},
    {"E-AC-3 48 kHz", 48000, 5 * kMs, -200, 1},
    {"E-AC-3, short frames", 48000, 5 * kMs, 200, 6},
};

TEST(FrameClock, LostBurstsAreReplacedToTheSampleWithinHalfASecond)
{
    for (const Source& source : kSources) {
        for (const int64_t lost : {1, 2, 3, 10, 100}) {
            SCOPED_TRACE(testing::Message() << source.name << ", " << lost << " lost");
            Stream stream(source);
            for (int round = 0; round < 5; ++round) {
                stream.send_seconds(1.1);
                ASSERT_EQ(0, stream.behind()) << "round " << round;
                stream.lose(lost * kUnit);
                stream.send_seconds(0.5);
                ASSERT_EQ(0, stream.behind()) << "round " << round;
            }
        }
    }
}

TEST(FrameClock, PausesAreReplacedWithinFiveMilliseconds)
{
    for (const Source& source : kSources) {
        Stream stream(source);
        for (const double seconds : {0.1, 0.123, 0.5, 0.777, 1.0, 2.0}) {
            SCOPED_TRACE(testing::Message() << source.name << ", " << seconds << " s");
            stream.send_seconds(1.3);
            const int64_t before = stream.behind();
            stream.lose(static_cast<int64_t>(seconds * source.rate));
            stream.send_seconds(0.5);
            ASSERT_LE(std::abs(stream.behind() - before), source.rate * 5 / 1000);
        }
    }
}

TEST(FrameClock, ALateChunkIsNoLoss)
{
    for (const Source& source : kSources) {
        for (const int64_t held_ms : {30, 60, 100, 300, 900}) {
            for (const bool reader_held : {false, true}) {
                SCOPED_TRACE(testing::Message() << source.name << ", " << held_ms << " ms, " << reader_held);
                Stream stream(source);
                for (int round = 0; round < 5; ++round) {
                    stream.send_seconds(1.07);
                    ASSERT_EQ(0, stream.behind()) << "round " << round;
                    stream.held_until_us = stream.arrival_us(stream.sent) + held_ms * kMs;
                    stream.reader_held = reader_held;
                    stream.send_seconds(0.7 + 1e-3 * static_cast<double>(held_ms));
                    ASSERT_EQ(0, stream.behind()) << "round " << round;
                }
            }
        }
    }
}

TEST(FrameClock, WhatSilenceStoodForIsLeftOutAlsoWhereTheReaderStoodStillMeanwhile)
{
    for (const int64_t stood_ms : {80, 150, 300}) {
        Stream stream;
        stream.send_seconds(2);
        stream.held_until_us = stream.arrival_us(stream.sent) + 400 * kMs;
        stream.poll_until(stream.held_until_us - stood_ms * kMs);
        ASSERT_LT(stream.behind(), 0) << "silence was queued";
        stream.polled_us = stream.held_until_us;
        stream.send_seconds(1.1);
        EXPECT_EQ(0, stream.behind()) << stood_ms << " ms";
    }
}

TEST(FrameClock, WhatIsLostInAStallIsToldFromWhatIsLate)
{
    Stream stream;
    stream.send_seconds(2);
    stream.held_until_us = stream.arrival_us(stream.sent) + 400 * kMs;
    stream.send(2);
    stream.lose(3 * kUnit);
    stream.send_seconds(1);
    EXPECT_EQ(0, stream.behind());
}

TEST(FrameClock, SilenceComesBeforeTheOutputRunsDry)
{
    Stream stream;
    stream.send_seconds(2);
    const int64_t lost_us = stream.at_us(stream.sent);
    stream.lose(100 * kUnit);
    for (int64_t ms = 100; ms < 3000; ms += 100) {
        stream.poll_until(lost_us + ms * kMs);
        const int64_t heard = 2 * 48000 / kUnit * kUnit + ms * 48;
        EXPECT_LT(heard - stream.count, 72 * 48) << ms;
        EXPECT_GT(heard - stream.count, 0) << ms;
    }
}

TEST(FrameClock, DriftOverHoursIsNoLoss)
{
    for (const double ppm : {-1000.0, 1000.0}) {
        Stream stream;
        stream.ppm = ppm;
        stream.send_seconds(4 * 3600);
        EXPECT_EQ(0, stream.behind());
        stream.lose(2 * kUnit);
        stream.send_seconds(0.5);
        EXPECT_EQ(0, stream.behind());
    }
}

TEST(FrameClock, FasterThanTimeNothingIsInserted)
{
    for (const double speed : {1.5, 4.0, 1000.0}) {
        SCOPED_TRACE(speed);
        Stream stream;
        stream.speed = speed;
        stream.chunk_us = 1 * kMs;
        for (int pause = 0; pause < 20; ++pause) {
            stream.send(31);
            stream.base_us += 700 * kMs; // as a program that reads ahead
            EXPECT_EQ(0, stream.behind());
        }
    }
}

TEST(FrameClock, SlowFeedingAndAReaderThatStoodStillAreNotFilledUp)
{
    Stream slow;
    slow.speed = 0.4;
    slow.send_seconds(60);
    EXPECT_EQ(0, slow.behind()) << "no pace to go by";

    Stream stopped;
    stopped.send_seconds(2);
    stopped.base_us += 100'000 * kMs; // in a debugger: all at once
    stopped.polled_us = stopped.base_us + 2'000 * kMs;
    stopped.send_seconds(2);
    EXPECT_EQ(0, stopped.behind());

    Stream ended;
    ended.send_seconds(2);
    ended.poll_until(ended.polled_us + 600'000 * kMs);
    EXPECT_LE(-ended.behind(), ac3::FrameClock::kMostSilenceUs / 1000 * 48 + 16 * kUnit);
}

TEST(FrameClock, AReaderThatWasSoonBackStillHasWhatWasLostReplaced)
{
    for (const auto& [pause_ms, left] : {std::pair(90, int64_t{0}), std::pair(160, kUnit)}) {
        SCOPED_TRACE(pause_ms);
        Stream stream;
        stream.send_seconds(2);
        stream.poll_until(stream.arrival_us(stream.sent));
        stream.held_until_us = stream.polled_us + pause_ms * kMs;
        stream.reader_held = true;
        stream.lose(kUnit);
        stream.send_seconds(1);
        EXPECT_EQ(left, stream.behind());
    }
}

TEST(FrameClock, WhatTheBytesSayIsMissingIsBelievedAsFarAsTimeConfirmsIt)
{
    Stream stream;
    stream.send(1, 2 * kUnit);
    EXPECT_EQ(0, stream.behind()) << "before the first frame there is no place to keep";
    stream.send(1, 2 * kUnit);
    EXPECT_EQ(-2 * kUnit, stream.behind()) << "nothing else is known at first";
    stream = Stream();
    stream.send_seconds(2);
    stream.lose(kUnit);
    stream.send(1, kUnit);
    EXPECT_EQ(0, stream.behind()) << "at its place at once";
    stream.send_seconds(1);
    EXPECT_EQ(0, stream.behind()) << "and not again";
    stream.send(1, 4 * kUnit); // zeros behind a frame that stated too much
    EXPECT_EQ(0, stream.behind());
    stream.send(2, 0, true); // damaged, but there
    stream.send_seconds(1);
    EXPECT_EQ(0, stream.behind());
}

TEST(FrameClock, ANewTimeLineAndANewRateBeginAnew)
{
    Stream stream;
    stream.send_seconds(2);
    stream.clock.restart();
    stream.lose(10 * kUnit);
    stream.send_seconds(1);
    EXPECT_EQ(10 * kUnit, stream.behind());
}

} // namespace
