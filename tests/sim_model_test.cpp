// SPDX-License-Identifier: MIT
// The simulated platform's clocks and decisions, as pure arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <string>

#include "capture_ring.h"
#include "latch.h"
#include "output_reserve.h"
#include "pacing.h"
#include "play_queue.h"
#include "support/ramp.h"
#include "vblank_account.h"

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;

TEST(Pace, TimeOfACountIsTheFirstInstantWithThatCountEvenAfterDays)
{
    EXPECT_EQ(sim::Pace(48000, 0).time_of(48000 * 86400LL * 1000), 86400LL * 1000 * kSecond);
    EXPECT_EQ(sim::Pace(48000, 100).count_at(1'000'000 * kSecond), 48'004'800'000);
    // The rate is resolved to a billionth of a tick per second.
    EXPECT_NEAR(static_cast<double>(sim::Pace(60000.0 / 1001, 0).time_of(60000)), 1001.0 * kSecond, 1000);
    for (const double rate : {1.0, 24 / 1.001, 59.94, 44100.0, 192000.0}) {
        for (const double ppm : {0.0, -350.0, 17.3}) {
            const sim::Pace pace(rate, ppm);
            const auto month = static_cast<long long>(rate * 86400 * 30);
            for (const int64_t count : {1LL, 2LL, 895LL, 44100LL, 4'000'000'007LL, month}) {
                const int64_t at = pace.time_of(count);
                ASSERT_EQ(pace.count_at(at), count) << rate << " " << ppm;
                ASSERT_EQ(pace.count_at(at - 1), count - 1) << rate << " " << ppm;
            }
        }
    }
}

sim::LinkSignalPtr link(int rate, int64_t start_ns, int periods_at_once = 1)
{
    auto signal = std::make_shared<sim::LinkSignal>();
    signal->source.rate = rate;
    signal->source.periods_at_once = periods_at_once;
    signal->start_ns = start_ns;
    signal->pace = sim::Pace(rate, 0);
    return signal;
}

// @return the first frame, the bytes of it that were read before, and the bytes read.
std::array<int64_t, 3> take(sim::CaptureRing& ring, int max_bytes)
{
    const auto piece = ring.take(max_bytes);
    return {piece.link_frame, piece.skip_bytes, piece.bytes};
}
using Piece = std::array<int64_t, 3>;

TEST(CaptureRing, PeriodIsReadableWhenItsLastFramePassedAndReadInAnySizes)
{
    sim::CaptureRing ring(1000, 4, 1000);
    // One and a half frames have passed at the open: capture begins with frame 1.
    const int64_t open_ns = kSecond + 1'500'000, ready_ns = kSecond + 1001 * kMs;
    ring.attach(link(1000, kSecond), open_ns);
    EXPECT_EQ(ring.next_period_ns(open_ns), ready_ns);
    EXPECT_EQ(ring.ready_bytes(ready_ns - 1), 0);
    ASSERT_EQ(ring.ready_bytes(ready_ns), 4000);
    EXPECT_EQ(take(ring, 3), (Piece{1, 0, 3}));
    EXPECT_EQ(take(ring, 9), (Piece{1, 3, 1}));
    EXPECT_EQ(take(ring, 9), (Piece{2, 0, 8}));
    EXPECT_EQ(take(ring, 3988), (Piece{4, 0, 3988}));
}

TEST(CaptureRing, LosesTheOldestPeriodsAndKeepsTheRest)
{
    sim::CaptureRing ring(10, 4, 1000);
    ring.attach(link(1000, 0), 0);
    EXPECT_EQ(ring.drop_overrun(49 * kMs), 0);
    EXPECT_EQ(ring.drop_overrun(75 * kMs), 3);
    EXPECT_EQ(ring.ready_bytes(75 * kMs), 160);
    EXPECT_EQ(take(ring, 40), (Piece{30, 0, 40}));
    // A reader inside a lost period continues at the start of the oldest one left.
    EXPECT_EQ(take(ring, 6), (Piece{40, 0, 4}));
    EXPECT_EQ(ring.drop_overrun(91 * kMs), 1);
    EXPECT_EQ(take(ring, 40), (Piece{50, 0, 40}));

    // A link of four times the rate: as much time, in four times as many periods.
    sim::CaptureRing fast(10, 4, 1000);
    fast.attach(link(4000, 0, 2), 0);
    EXPECT_EQ(fast.drop_overrun(42 * kMs), 0);
    EXPECT_EQ(fast.drop_overrun(45 * kMs), 2);
    fast.detach(45 * kMs);
    EXPECT_EQ(fast.drop_overrun(45 * kMs), 0);
}

TEST(CaptureRing, PeriodsThatAreReadAtOnceAreCollectedUntilTheSignalEnds)
{
    sim::CaptureRing ring(10, 4, 1000);
    ring.attach(link(1000, 0, 2), 0);
    EXPECT_EQ(ring.next_period_ns(5 * kMs), 20 * kMs);
    EXPECT_LE(ring.ready_bytes(19 * kMs), 0);
    ASSERT_EQ(ring.ready_bytes(20 * kMs), 80);
    EXPECT_EQ(take(ring, 40), (Piece{0, 0, 40}));
    EXPECT_EQ(ring.ready_bytes(39 * kMs), 40);
    EXPECT_EQ(ring.drop_overrun(89 * kMs), 0) << "it holds four times two";
    EXPECT_EQ(ring.drop_overrun(110 * kMs), 2);
    EXPECT_EQ(ring.ready_bytes(119 * kMs), 280);
    ring.detach(119 * kMs);
    EXPECT_EQ(ring.ready_bytes(500 * kMs), 320);
}

TEST(CaptureRing, NextSignalFillsTheRestOfThePeriod)
{
    sim::CaptureRing ring(10, 4, 1000);
    ring.attach(link(1000, 0), 0);
    ring.detach(7 * kMs);
    EXPECT_EQ(ring.next_period_ns(500 * kMs), sim::kNever);
    ring.attach(link(500, 500 * kMs), 500 * kMs);
    EXPECT_EQ(ring.next_period_ns(501 * kMs), 506 * kMs);
    ASSERT_EQ(ring.ready_bytes(506 * kMs), 40);
    EXPECT_EQ(take(ring, 40), (Piece{0, 0, 28}));
    EXPECT_EQ(take(ring, 12), (Piece{0, 0, 12}));
}

struct Heard : sim::PlaySink {
    using Block = std::array<int64_t, 3>; // frames, time, silence
    std::vector<Block> blocks;
    std::vector<int16_t> left;

    void sound(const int16_t* samples, int64_t frames, int64_t heard_ns, bool begins_block) override
    {
        if (begins_block || blocks.empty() || blocks.back()[2] != 0)
            blocks.push_back({0, heard_ns, 0});
        blocks.back()[0] += frames;
        for (int64_t i = 0; i < frames; i++)
            left.push_back(samples[2 * i]);
    }
    void silence(int64_t frames, int64_t heard_ns) override { blocks.push_back({frames, heard_ns, 1}); }
};

TEST(PlayQueue, FillsBlocksAndDrainsAtItsOwnClock)
{
    Heard heard;
    sim::PlayQueue queue(1000, 1000, 2, 10, 4); // 1001 frames a second
    queue.put(kSecond, ramp(40).data(), 40, 1.0f, &heard);
    EXPECT_EQ(queue.room(kSecond), 0);
    EXPECT_EQ(queue.queued(kSecond), 40);
    const int64_t ten = queue.room_ns(10);
    EXPECT_NEAR(static_cast<double>(ten - kSecond), 1e10 / 1001, 1);
    EXPECT_EQ(queue.room(ten - 1), 9);
    EXPECT_EQ(queue.room(ten), 10);
    // After 34.5 frames, the half one is not heard yet.
    queue.drain(kSecond + 34 * kMs + 500'000, &heard);
    EXPECT_EQ(heard.left.size(), 34u);
    queue.put(kSecond + 35 * kMs, ramp(30, 41).data(), 30, 1.0f, &heard);
    queue.drain(2 * kSecond, &heard);
    std::vector<int16_t> expected(70);
    std::iota(expected.begin(), expected.end(), int16_t{1});
    EXPECT_EQ(heard.left, expected);
    ASSERT_EQ(heard.blocks.size(), 7u);
    EXPECT_NEAR(static_cast<double>(heard.blocks[6][1] - kSecond), 6e10 / 1001, 1);
}

TEST(PlayQueue, UnderrunIsSilenceUntilTheNextWrite)
{
    Heard heard;
    sim::PlayQueue queue(1000, 0, 2, 10, 4);
    EXPECT_EQ(queue.empty_ns(), sim::kNever);
    queue.put(0, ramp(15).data(), 15, 1.0f, &heard);
    EXPECT_EQ(queue.empty_ns(), 15 * kMs);
    // First in time, without a gap; then 4.3 frames late, with five frames of silence; then 7 frames late.
    for (const int64_t at : {15 * kMs, 24 * kMs + 300'000, 37 * kMs}) {
        queue.drain(at, &heard);
        EXPECT_EQ(queue.queued(at), 0);
        queue.put(at, ramp(5).data(), 5, 1.0f, &heard);
    }
    queue.drain(kSecond, &heard);
    EXPECT_EQ(heard.blocks, (std::vector<Heard::Block>{{10, 0, 0},
                                                       {10, 10 * kMs, 0},
                                                       {5, 20 * kMs, 1},
                                                       {5, 25 * kMs, 0},
                                                       {7, 30 * kMs, 1},
                                                       {3, 37 * kMs, 0},
                                                       {2, 40 * kMs, 0}}));
}

void* buffer(intptr_t number) { return reinterpret_cast<void*>(number); }

std::string text(const std::vector<sim::Latch::Release>& released)
{
    std::string all;
    for (const auto& release : released)
        all += (release.superseded ? " x" : " -") + std::to_string(reinterpret_cast<intptr_t>(release.buffer));
    return all;
}

// The buffer that a vertical blank shows, "again" for a repetition, then those it releases: -1, or x1 if 1 was never
// shown.
std::string vblank(sim::Latch& latch, int64_t at_ns)
{
    const auto result = latch.vblank(at_ns);
    return std::to_string(reinterpret_cast<intptr_t>(result.buffer)) + (result.repeated ? " again" : "") +
           text(result.released);
}

TEST(Latch, FlipBelongsToTheFirstVerticalBlankAfterItHoweverLateThatIsDecided)
{
    sim::Latch latch;
    latch.flip(buffer(1), 10); // at the vertical blank itself: belongs to the next one
    EXPECT_EQ(vblank(latch, 10), "0");
    latch.flip(buffer(2), 25);
    EXPECT_EQ(vblank(latch, 20), "1");
    EXPECT_EQ(vblank(latch, 30), "2 -1");
    EXPECT_EQ(vblank(latch, 40), "2 again");
}

TEST(Latch, OfABurstOnlyTheNewestBufferIsShown)
{
    sim::Latch latch;
    for (int i = 1; i <= 4; i++)
        latch.flip(buffer(i), 1 + i);
    EXPECT_EQ(vblank(latch, 10), "4 x1 x2 x3");
    EXPECT_EQ(vblank(latch, 20), "4 again") << "the burst left nothing behind";
    latch.flip(buffer(5), 21);
    latch.flip(buffer(6), 22);
    EXPECT_EQ(vblank(latch, 30), "5 -4") << "two are no burst";
    latch.flip(buffer(7), 31);
    EXPECT_EQ(text(latch.clear()), " -5 x6 x7");
}

TEST(VblankAccount, CountsWhatLiesBetweenTwoWaitsInARow)
{
    constexpr pid_t kThread = 7;
    constexpr int kFd = 5;
    constexpr uint32_t kLast = 0xFFFFFFFF;
    sim::VblankAccount account;
    account.returned(kThread, kFd, 1, kLast - 1);
    account.returned(kThread, kFd, 1, kLast);
    EXPECT_EQ(account.waits().missed, 0);
    account.returned(kThread, kFd, 1, 1);
    EXPECT_EQ(account.waits().missed, 1) << "the numbers go round";
    account.returned(kThread, kFd, 3, 4);
    EXPECT_EQ(account.waits().missed, 1) << "as many as were asked for";
    account.returned(kThread + 1, kFd, 1, 9);
    account.returned(kThread + 1, kFd + 1, 1, 19);
    account.interrupted();
    account.returned(kThread + 1, kFd + 1, 1, 29);
    account.returned(kThread + 1, kFd + 1, 1, 2);
    EXPECT_EQ(account.waits().missed, 1) << "another thread, another display, a failure, numbers that begin anew";
    EXPECT_EQ(account.waits().waits, 8);
}

/// An output that usually holds two periods when a block comes, and what its reserve does to it.
struct ReservedOutput {
    static constexpr int kPeriod = 960;

    clocks::OutputReserve reserve;
    int64_t now_ns = 0;
    int queued = 3 * kPeriod;
    int left_out = 0;
    int silence = 0;

    ReservedOutput()
    {
        reserve.start(48000);
        play(200);
    }
    /// A period, so many milliseconds after the one before.
    void write(double after_ms)
    {
        now_ns += static_cast<int64_t>(after_ms * 1e6);
        queued = std::max(queued - static_cast<int>(after_ms * 48), 0);
        const auto advice = reserve.before_write(now_ns, kPeriod, queued);
        queued += kPeriod - advice.leave_out + advice.silence;
        left_out += advice.leave_out;
        silence += advice.silence;
        reserve.after_write(now_ns);
    }
    void play(int periods)
    {
        for (int i = 0; i < periods; ++i)
            write(20);
    }
};

TEST(OutputReserve, HoldsAsMuchAsBeforeAfterAnUnderrun)
{
    ReservedOutput late;
    const int usual = late.queued;
    EXPECT_TRUE(late.left_out == 0 && late.silence == 0);
    late.write(260); // what is late follows at once
    for (int i = 0; i < 12; ++i)
        late.write(0);
    late.play(20);
    EXPECT_NEAR(late.queued, usual, ReservedOutput::kPeriod / 2);
    EXPECT_TRUE(late.left_out > 0 && late.silence == 0) << late.left_out << " " << late.silence;

    ReservedOutput lost;
    lost.write(260); // it was lost
    lost.play(20);
    EXPECT_NEAR(lost.queued, usual, ReservedOutput::kPeriod / 2);
    EXPECT_TRUE(lost.left_out == 0 && lost.silence > 0) << lost.left_out << " " << lost.silence;
}

TEST(OutputReserve, KeepsItsPlanThroughASlowSourceAndOneThatComesInBursts)
{
    ReservedOutput output;
    const int usual = output.queued;
    for (int i = 0; i < 150; ++i)
        output.write(21); // 5 %: it runs empty, over and over
    output.write(260);
    output.play(20);
    EXPECT_NEAR(output.queued, usual, ReservedOutput::kPeriod / 2);

    ReservedOutput begun_anew; // a few blocks each time, the last time with all that was held back before them
    for (int i = 0; i < 9; ++i)
        begun_anew.write(100);
    begun_anew.write(100);
    begun_anew.write(0);
    begun_anew.write(0);
    begun_anew.play(20);
    EXPECT_NEAR(begun_anew.queued, usual, ReservedOutput::kPeriod / 2);
    EXPECT_EQ(begun_anew.silence, 0);

    ReservedOutput bursts;
    for (int i = 0; i < 30; ++i)
        for (const double after_ms : {100, 0, 0, 0, 0})
            bursts.write(after_ms);
    bursts.play(120);
    EXPECT_NEAR(bursts.queued, usual, ReservedOutput::kPeriod / 2);
}

} // namespace
