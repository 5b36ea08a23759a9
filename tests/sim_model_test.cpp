// SPDX-License-Identifier: MIT
// The simulated platform's clocks and decisions, as pure arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <utility>

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

/// Blocks of a source that are 20 ms each, an output of eight of them, and what its reserve does.
struct ReservedOutput {
    static constexpr int kPeriod = 960;
    static constexpr int kCapacity = 8 * kPeriod;
    static constexpr double kHeldBackMs = 96; ///< with the time that the block itself lasts

    clocks::OutputReserve reserve;
    double now_ms = 0;
    double due_ms = 0; ///< when the source's next block begins
    int queued = 0;
    int left_out = 0;
    int silence = 0;
    double stall_in_write_ms = 0;                       ///< the next one
    std::function<double()> late_ms = [] { return 0; }; ///< by which a block comes late

    explicit ReservedOutput(double late_ms = 0)
    {
        open(late_ms);
        play(200);
    }
    /// A sequence begins, whose first block comes so much late.
    void open(double late_ms = 0)
    {
        reserve.closed(ns());
        reserve.start(48000, ns());
        queued = 0;
        due_ms = now_ms;
        pass(kHeldBackMs + late_ms);
    }
    int64_t ns() const { return static_cast<int64_t>(now_ms * 1e6); }
    /// The writer stands still, or waits.
    void pass(double ms)
    {
        now_ms += ms;
        queued = std::max(queued - static_cast<int>(std::lround(ms * 48)), 0);
    }
    /// What the source sends is lost.
    void lose(double ms) { due_ms += ms; }
    void write(int frames = kPeriod, double lasts_ms = 20)
    {
        due_ms += lasts_ms;
        pass(std::max(due_ms + late_ms() - now_ms, 0.0));
        const auto advice = reserve.before_write(ns(), frames, queued);
        queued += frames - advice.leave_out + advice.silence;
        left_out += advice.leave_out;
        silence += advice.silence;
        pass(std::max(queued - kCapacity, 0) / 48.0);
        pass(std::exchange(stall_in_write_ms, 0));
        reserve.after_write(ns());
    }
    void play(int periods)
    {
        for (int i = 0; i < periods; ++i)
            write();
    }
    /// The decoder gives silence for what is lost, 50 ms late, and the rest of it when it knows how much that was.
    void lose_filled(double ms)
    {
        constexpr double kLateMs = 50;
        lose(kLateMs);
        for (; ms > 0; ms -= 10)
            write(kPeriod / 2, 10);
        play(11);
        lose(-kLateMs);
        write(kPeriod * 5 / 2, kLateMs);
    }
    /// From the source to the end of what is queued.
    double latency_ms() const { return now_ms - due_ms + queued / 48.0; }
};

constexpr int kOneSecond = 50; ///< of periods
constexpr int kThreeSeconds = 3 * kOneSecond;
constexpr double kInPlaceMs = 10;

TEST(OutputReserve, BringsTheSoundBackToItsPlaceWithinThreeSeconds)
{
    const double usual = ReservedOutput().latency_ms();
    EXPECT_NEAR(usual, ReservedOutput::kHeldBackMs, 1);
    const std::tuple<const char*, int, void (*)(ReservedOutput*)> late[] = {
        {"writer stood still", kOneSecond, [](ReservedOutput* o) { o->pass(260); }},
        {"for a second", 2 * kOneSecond, [](ReservedOutput* o) { o->pass(1000); }},
        {"silence of a decoder follows at once", kOneSecond, // in shorter blocks, which tell less exactly
         [](ReservedOutput* o) {
             o->pass(300);
             for (int i = 0; i < 30; ++i)
                 o->write(ReservedOutput::kPeriod / 2, 10);
         }},
        {"suspended, and resumed with all that it held", kThreeSeconds, [](ReservedOutput* o) { o->now_ms += 1000; }},
        {"more came than time went by", kThreeSeconds, [](ReservedOutput* o) { o->lose(-300); }},
        {"a little more", kThreeSeconds, [](ReservedOutput* o) { o->lose(-50); }},
        {"opened, first block late", kThreeSeconds, [](ReservedOutput* o) { o->open(300); }},
        {"opened, late again", kThreeSeconds,
         [](ReservedOutput* o) {
             o->open(500);
             o->play(5);
             o->open(700);
         }},
        {"opened, and empty at once", kThreeSeconds,
         [](ReservedOutput* o) {
             o->open();
             o->play(5);
             o->pass(700);
         }},
    };
    for (const auto& [name, within, happens] : late) {
        SCOPED_TRACE(name);
        ReservedOutput output;
        happens(&output);
        output.play(within);
        EXPECT_NEAR(output.latency_ms(), usual, kInPlaceMs);
        EXPECT_TRUE(output.left_out > 0 && output.silence < kInPlaceMs * 48)
            << output.left_out << " " << output.silence;
        const int left_out = output.left_out;
        output.play(10 * kThreeSeconds);
        EXPECT_EQ(output.left_out, left_out) << "once";
    }
    ReservedOutput nearly_full(60); // has always been
    nearly_full.lose(-300);
    nearly_full.play(kThreeSeconds);
    EXPECT_NEAR(nearly_full.latency_ms(), usual + 60, kInPlaceMs);

    ReservedOutput soon_reopened; // before anything was known
    soon_reopened.reserve = {};
    soon_reopened.open();
    soon_reopened.play(55);
    soon_reopened.open();
    soon_reopened.play(30);
    soon_reopened.pass(700);
    soon_reopened.play(kThreeSeconds);
    EXPECT_NEAR(soon_reopened.latency_ms(), usual, kInPlaceMs);

    ReservedOutput began_full(300); // until the host threw away what was too much
    began_full.lose(300);
    began_full.play(kThreeSeconds);
    began_full.lose(-300);
    began_full.play(kThreeSeconds);
    EXPECT_NEAR(began_full.latency_ms(), usual, kInPlaceMs);

    ReservedOutput always_full; // until its host pauses, so that the device plays all that it holds
    always_full.reserve = {};
    always_full.open();
    always_full.lose(-300);
    always_full.play(2 * kThreeSeconds);
    always_full.pass(1200 + ReservedOutput::kHeldBackMs);
    always_full.due_ms = always_full.now_ms - ReservedOutput::kHeldBackMs;
    always_full.play(kThreeSeconds);
    EXPECT_NEAR(always_full.latency_ms(), usual, kInPlaceMs);
    EXPECT_EQ(always_full.silence, 0);

    for (const double ms : {150, 300, 700}) {
        for (const bool in_write : {false, true}) {
            SCOPED_TRACE(std::to_string(ms) + (in_write ? " in the first write" : " behind the first writes"));
            ReservedOutput stalled; // before anything was known
            stalled.reserve = {};
            stalled.open();
            stalled.stall_in_write_ms = in_write ? ms : 0;
            stalled.play(3);
            stalled.pass(in_write ? 0 : ms);
            stalled.play(kThreeSeconds);
            EXPECT_NEAR(stalled.latency_ms(), usual, 3 * kInPlaceMs);
            EXPECT_TRUE(stalled.silence == 0 && stalled.left_out <= ms * 48)
                << stalled.silence << " " << stalled.left_out;
        }
    }

    for (const double ms : {100, 500, 2000}) {
        SCOPED_TRACE(ms);
        ReservedOutput lost;
        lost.lose(ms);
        lost.play(kThreeSeconds);
        EXPECT_NEAR(lost.latency_ms(), usual, kInPlaceMs);
        EXPECT_TRUE(lost.left_out == 0 && lost.silence > 0) << lost.left_out << " " << lost.silence;
    }
}

TEST(OutputReserve, PutsTheSoundBackAsExactlyAsItsBlocksCome)
{
    constexpr int kPauses = 20;
    std::mt19937 random(1);
    std::uniform_real_distribution<double> part(0, 1);
    for (const double most_late_ms : {0, 1, 6}) {
        SCOPED_TRACE(most_late_ms);
        ReservedOutput output;
        const double usual = output.latency_ms();
        output.late_ms = [&] { return most_late_ms * part(random); };
        for (int i = 0; i < kPauses; ++i) {
            output.play(3 * kThreeSeconds);
            output.pass(100 + 40 * part(random));
        }
        output.play(kThreeSeconds);
        EXPECT_NEAR(output.latency_ms(), usual, most_late_ms + 2);
    }
}

TEST(OutputReserve, LeavesAloneWhatADecoderFillsInAndWhatBegins)
{
    for (const double ms : {100, 500, 2000, 20000}) {
        SCOPED_TRACE(ms);
        ReservedOutput output;
        for (int i = 0; i < 3; ++i) {
            output.lose_filled(ms);
            output.play(kThreeSeconds);
        }
        output.open(15); // another phase
        output.play(kThreeSeconds);
        EXPECT_TRUE(output.left_out == 0 && output.silence == 0) << output.left_out << " " << output.silence;
    }
    ReservedOutput early_for_a_moment;
    for (int i = 0; i < 25; ++i) {
        early_for_a_moment.lose(-60);
        early_for_a_moment.play(12);
        early_for_a_moment.lose(60);
        early_for_a_moment.play(kThreeSeconds + 1);
    }
    EXPECT_EQ(early_for_a_moment.left_out, 0);

    ReservedOutput ahead; // each block waits for room, from the first one on
    ahead.reserve = {};
    ahead.open();
    ahead.due_ms = -1e9;
    ahead.play(10 * kThreeSeconds);
    EXPECT_EQ(ahead.left_out, 0);
}

TEST(OutputReserve, KeepsItsPlanThroughASlowSourceAndOneThatComesInBursts)
{
    ReservedOutput output;
    const double usual = output.latency_ms();
    for (int i = 0; i < 150; ++i) {
        output.lose(1); // 5 %: it runs empty, over and over
        output.write();
    }
    output.pass(240);
    output.play(20);
    EXPECT_NEAR(output.latency_ms(), usual, kInPlaceMs);

    ReservedOutput begun_anew; // a few blocks each time, the last time with all that was held back before them
    for (int i = 0; i < 9; ++i) {
        begun_anew.lose(160);
        begun_anew.write();
    }
    begun_anew.lose(80);
    begun_anew.pass(80 + ReservedOutput::kHeldBackMs);
    begun_anew.play(20);
    EXPECT_NEAR(begun_anew.latency_ms(), usual, kInPlaceMs);
    EXPECT_EQ(begun_anew.silence, 0);

    ReservedOutput bursts;
    for (int i = 0; i < 30; ++i) {
        bursts.pass(bursts.due_ms + 100 - bursts.now_ms);
        bursts.play(5);
    }
    bursts.play(120);
    EXPECT_NEAR(bursts.latency_ms(), usual, kInPlaceMs);
}

} // namespace
