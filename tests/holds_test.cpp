// SPDX-License-Identifier: MIT
// What the hosts among the tools hold back: the plan, the flips, the sound.
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "common/flip_hold.h"
#include "common/holds.h"
#include "common/late_sound.h"
#include "common/light_plan.h"
#include "common/picture_plan.h"
#include "common/plan_watch.h"
#include "common/sound_hold.h"
#include "common/sound_plan.h"
#include "common/wall_clock.h"

namespace common
{
namespace
{

constexpr int64_t kMs = 1'000'000;

TEST(Holds, MakeUpForTheDifferenceToTheNanosecond)
{
    for (double hz : {24.0, 50.0, 60000.0 / 1001, 60.0, 240.0})
        for (bool vblanks : {true, false})
            for (int64_t later_ns : {-1000 * kMs, -74 * kMs, int64_t{-1}, int64_t{0}, int64_t{1}, 16 * kMs, 20 * kMs,
                                     61 * kMs, 261 * kMs}) {
                const int64_t offset_ns = later_ns > 61 * kMs ? -200 * kMs : 50 * kMs;
                const Holds holds = plan_holds(76 * kMs - 15 * kMs - offset_ns - later_ns, offset_ns, hz, vblanks);
                EXPECT_EQ(holds.flip_ns - holds.sound_ns, later_ns) << hz;
                EXPECT_EQ(holds.holds_flips(), later_ns > 0 || vblanks);
                EXPECT_GE(holds.sound_ns, 0);
                EXPECT_EQ(holds.refreshes > 0, vblanks && later_ns > 0);
                EXPECT_LE(holds.flip_ns, std::max<int64_t>(later_ns, 0) + (vblanks ? 1e9 / hz + 1 : 0));
                EXPECT_NEAR(static_cast<double>(holds.flip_ns), vblanks ? holds.refreshes * 1e9 / hz : holds.flip_ns,
                            1);
            }
}

// A refresh of 10 ms; vertical blanks at 1000, 1010, ... ms.
TEST(FlipHold, EndsEarlyInTheSameRefreshLater)
{
    struct Case {
        double flipped_ms;
        double vblank_ms; // that was known
        double due_ms;
    };
    const Case cases[] = {
        {1000.01, 1000, 1052}, {1005, 1000, 1052},
        {1009.99, 1000, 1052}, {1010.01, 1000, 1062}, // the vertical blank in between is not known yet
        {999.99, 1000, 1042},                         // it came while the flip was being made
        {1033, 700, 1082},                            // long without one
        {1005, 0, 1055},                              // none known: by time alone
    };
    for (const Case& c : cases) {
        FlipHold hold({5, 50 * kMs, 0}, 100);
        int buffer = 0;
        hold.push(&buffer, {0, std::llround(c.flipped_ms * kMs), std::llround(c.vblank_ms * kMs)});
        EXPECT_EQ(hold.due_ns(), std::llround(c.due_ms * kMs)) << c.flipped_ms;
    }
}

TEST(FlipHold, IsFirstInFirstOut)
{
    FlipHold hold({2, 20 * kMs, 0}, 100);
    int buffers[4];
    hold.push(&buffers[0], {0, 1001 * kMs, 1000 * kMs}); // until 1022
    hold.push(&buffers[1], {0, 1008 * kMs, 1000 * kMs}); // the same refresh
    hold.push(&buffers[2], {0, 1009 * kMs, 0});          // 1029
    hold.push(&buffers[3], {0, 1004 * kMs, 1000 * kMs}); // threads overtook each other
    EXPECT_EQ(hold.pop(1022 * kMs - 1).buffer, nullptr);
    EXPECT_EQ(hold.pop(1022 * kMs).buffer, &buffers[0]);
    EXPECT_EQ(hold.pop(1022 * kMs).buffer, &buffers[1]);
    EXPECT_EQ(hold.pop(1028 * kMs).buffer, nullptr);
    EXPECT_EQ(hold.pop(1029 * kMs).buffer, &buffers[2]);
    EXPECT_EQ(hold.pop(1029 * kMs).buffer, &buffers[3]);
    EXPECT_EQ(hold.due_ns(), std::nullopt);
    EXPECT_EQ(hold.pop(2000 * kMs).buffer, nullptr);
}

TEST(FlipHold, IsMovedByRefreshesOrTheirTime)
{
    int buffer = 0;
    const auto due_after = [&](FlipHold& hold, int refreshes, int64_t flipped_ns) {
        hold.shift(refreshes);
        hold.push(&buffer, {0, flipped_ns, flipped_ns - kMs});
        const int64_t due_ns = hold.due_ns().value_or(0);
        hold.pop(due_ns);
        return due_ns;
    };
    FlipHold hold({2, 20 * kMs, 0}, 100);
    EXPECT_EQ(due_after(hold, 1, 1001 * kMs), 1032 * kMs);
    EXPECT_EQ(due_after(hold, -2, 1031 * kMs), 1042 * kMs);
    EXPECT_EQ(due_after(hold, -9, 1041 * kMs), 1052 * kMs) << "less than nothing";
    FlipHold window({0, 20 * kMs, 0}, 100);
    EXPECT_EQ(due_after(window, 1, 1101 * kMs), 1131 * kMs) << "a display without vertical blanks";
}

/// A minute of frames that the player flips later after their arrival at first than in the end, as its clocks run
/// apart.
struct Minute {
    double fps, hz;
    int refreshes; // held
    double first_way_ms, last_way_ms;
    double unsettled_ms = 0; // longer in the first 1.5 s
    double late_ms = 6;      // of each 97th frame

    struct Seen {
        double least_ms = 1e9, most_ms = -1e9; // from source to light, from the third second on
        int frames = 0, repeats = 0;
    };
    Seen show(bool planned) const
    {
        const double refresh_ns = 1e9 / hz;
        FlipHold hold({refreshes, std::llround(refreshes * refresh_ns), 0, true}, hz);
        const int64_t begin_ns = 1000 * kMs;
        if (planned)
            hold.start(begin_ns);
        const auto count = static_cast<int>(60 * fps);
        std::vector<int64_t> sent(static_cast<size_t>(count));
        Seen seen;
        double last_blank = -1;
        int64_t flipped_ns = 0;
        const auto give_until = [&](int64_t now_ns) {
            while (hold.due_ns() && *hold.due_ns() <= now_ns) {
                const int64_t due_ns = *hold.due_ns();
                const FlipHold::Due due = hold.pop(due_ns);
                if (due.unseen)
                    continue;
                const double blank = std::floor(static_cast<double>(due_ns) / refresh_ns) + 1;
                const int64_t sent_ns = *static_cast<int64_t*>(due.buffer);
                const double way_ms = (blank * refresh_ns - static_cast<double>(sent_ns)) / kMs;
                if (sent_ns < begin_ns + 3000 * kMs)
                    continue;
                seen.least_ms = std::min(seen.least_ms, way_ms);
                seen.most_ms = std::max(seen.most_ms, way_ms);
                seen.frames++;
                if (planned && last_blank > 0) {
                    EXPECT_GT(blank, last_blank);
                    seen.repeats += static_cast<int>(blank - last_blank - 1);
                }
                last_blank = blank;
            }
        };
        for (int i = 0; i < count; i++) {
            int64_t& sent_ns = sent[static_cast<size_t>(i)];
            sent_ns = begin_ns + std::llround(1e9 * i / fps);
            // To and fro by 0.3 ms, and now and then late.
            const int64_t arrived_ns =
                sent_ns + (i * 7 % 5 - 2) * 150'000 + (i % 97 == 60 ? std::llround(late_ms * kMs) : 0);
            const double part = std::clamp((i / fps - 2) / 50, 0.0, 1.0);
            const double way_ms =
                first_way_ms + part * (last_way_ms - first_way_ms) + (i / fps < 1.5 ? unsettled_ms : 0);
            flipped_ns = std::max<int64_t>(flipped_ns, sent_ns + std::llround(way_ms * kMs));
            flipped_ns = std::max(flipped_ns, arrived_ns);
            give_until(flipped_ns);
            const double blank = std::floor(static_cast<double>(flipped_ns) / refresh_ns);
            hold.push(&sent_ns, {arrived_ns, flipped_ns, std::llround(blank * refresh_ns)});
        }
        return seen;
    }
};

TEST(FlipHold, ByPlanFramesAreSeenEquallyLongAfterTheirArrivalHoweverSoonTheyAreFlipped)
{
    for (const Minute& c : {Minute{60, 59.94, 0, 31, 0}, Minute{60, 50, 0, 31, 0}, Minute{60.01, 60, 2, 31, 0},
                            Minute{60, 50, 3, 25, 40}, Minute{25, 50.001, 0, 36, 2}, Minute{24, 60.01, 3, 12, 0},
                            Minute{50, 50.01, 0, 20, 20}, Minute{30, 60, 0, 31, 0}, Minute{60, 59.94, 4, 31, 0, 90},
                            Minute{60, 59.94, 4, 31, 31, 0, 14}, Minute{50, 50.01, 4, 31, 31, 0, 24}}) {
        SCOPED_TRACE(testing::Message() << c.fps << " on " << c.hz << ", held " << c.refreshes);
        const double refresh_ms = 1e3 / c.hz;
        const Minute::Seen seen = c.show(true);
        EXPECT_LT(seen.most_ms - seen.least_ms, 1.2 * refresh_ms + 1);
        EXPECT_LT(seen.most_ms,
                  c.first_way_ms + std::max(c.last_way_ms - c.first_way_ms, 0.0) + (c.refreshes + 2.2) * refresh_ms);
        const double due = 57 * std::min(c.fps, c.hz);
        EXPECT_NEAR(seen.frames, due, 8 + 0.002 * due);
        EXPECT_NEAR(seen.repeats, std::max(57 * (c.hz - c.fps), 0.0), 8 + 0.002 * due);
        if (std::abs(c.first_way_ms - c.last_way_ms) > refresh_ms) {
            const Minute::Seen unplanned = c.show(false);
            EXPECT_GT(unplanned.most_ms - unplanned.least_ms, seen.most_ms - seen.least_ms + 5) << "the control";
        }
    }
}

TEST(FlipHold, LosesHardlyAFrameOfABusyMachine)
{
    constexpr double kRefreshNs = 1e9 / 59.94;
    int buffers[600];
    for (int phase = 0; phase < 20; phase++) {
        FlipHold hold({4, std::llround(4 * kRefreshNs), 0, true}, 59.94);
        hold.start(0);
        std::mt19937 random(static_cast<unsigned>(phase));
        std::uniform_real_distribution<double> part(0, 1);
        const double begin_ns = 1e9 + phase / 20.0 * kRefreshNs;
        int64_t arrived_ns = 0;
        int unseen = 0;
        for (int i = 0; i < 600; i++) {
            // Three of ten come 2 to 6 ms late.
            const double late_ms = part(random) < 0.3 ? 2 + 4 * part(random) : part(random) / 2;
            arrived_ns = std::max<int64_t>(arrived_ns, std::llround(begin_ns + i / 60.0 * 1e9 + late_ms * kMs));
            const int64_t flipped_ns = arrived_ns + 30 * kMs;
            while (hold.due_ns() && *hold.due_ns() <= flipped_ns)
                unseen += hold.pop(*hold.due_ns()).unseen ? 1 : 0;
            const double vblank = std::floor(static_cast<double>(flipped_ns) / kRefreshNs);
            const bool lost =
                hold.push(&buffers[i], {arrived_ns, flipped_ns, std::llround(vblank * kRefreshNs)}) != nullptr;
            unseen += lost && i > 120 ? 1 : 0;
        }
        EXPECT_LE(unseen, 2) << "phase " << phase;
    }
}

TEST(FlipHold, ByPlanShowsEachFrameOfAPlayerThatFlipsTwoInOneRefresh)
{
    constexpr int64_t kRefreshNs = 20 * kMs;
    constexpr int64_t kIntoRefreshNs = 9 * kMs;
    int buffers[500];
    FlipHold hold({0, 0, 0, true}, 50);
    hold.start(0);
    std::mt19937 random(1);
    int coalesced = 0;
    int unseen = 0;
    int64_t last_ns = 0; // of a vertical blank for which there was a flip
    for (int i = 0; i < 500; i++) {
        const int64_t arrived_ns = i * kRefreshNs + kIntoRefreshNs;
        // As it comes, or at the vertical blank behind.
        const bool waits = random() % 3 == 0;
        const int64_t flipped_ns = waits ? (i + 1) * kRefreshNs : arrived_ns;
        const int64_t vblank_ns = flipped_ns / kRefreshNs * kRefreshNs;
        const bool second = vblank_ns == std::exchange(last_ns, vblank_ns);
        while (hold.due_ns() && *hold.due_ns() <= flipped_ns)
            unseen += hold.pop(*hold.due_ns()).unseen && i > 100 ? 1 : 0;
        const bool lost = hold.push(&buffers[i], {arrived_ns, flipped_ns, vblank_ns, second}) != nullptr;
        unseen += lost && i > 100 ? 1 : 0;
        coalesced += second && i > 100 ? 1 : 0;
    }
    EXPECT_EQ(unseen, 0);
    EXPECT_GT(coalesced, 50) << "the control";
}

TEST(FlipHold, ByPlanFramesInStepStayOnTheirVerticalBlanksWhateverTheirPhase)
{
    constexpr double kRefreshMs = 10;
    for (int phase = 0; phase < 20; phase++) {
        SCOPED_TRACE(phase);
        FlipHold hold({0, 0, 0, true}, 1000 / kRefreshMs);
        hold.start(0);
        int buffers[1000];
        double last_blank = -1;
        int moved = 0;
        for (int i = 0; i < 1000; i++) {
            // They come a sixth of a refresh earlier and as much later again.
            const double wander_ms = i < 200 ? 0 : kRefreshMs / 6 * std::sin((i - 200) * M_PI / 400);
            const double arrived_ms = (i + phase / 20.0) * kRefreshMs - std::abs(wander_ms);
            const auto flipped_ns = static_cast<int64_t>((arrived_ms + 25) * kMs);
            while (hold.due_ns() && *hold.due_ns() <= flipped_ns) {
                const int64_t due_ns = *hold.due_ns();
                if (hold.pop(due_ns).unseen)
                    continue;
                const double blank = std::floor(static_cast<double>(due_ns) / (kRefreshMs * kMs));
                moved += i > 200 && blank != last_blank + 1 ? 1 : 0;
                last_blank = blank;
            }
            const auto vblank_ns = static_cast<int64_t>(std::floor((arrived_ms + 25) / kRefreshMs) * kRefreshMs * kMs);
            moved += hold.push(&buffers[i], {static_cast<int64_t>(arrived_ms * kMs), flipped_ns, vblank_ns}) != nullptr;
        }
        EXPECT_EQ(moved, 0);
    }
}

TEST(FlipHold, TakesAnotherPlanWhenFramesKeepComingTooLateForIt)
{
    const Minute::Seen seen = Minute{60, 60.01, 0, 20, 90}.show(true);
    EXPECT_GT(seen.most_ms, 90);
    EXPECT_GT(seen.frames, 57 * 60 * 0.95);
}

/// Frames, the first of them 2 ms beside a refresh of 10 ms.
struct Frames {
    int64_t period_ns = 10 * kMs;
    LightPlan plan{10.0 * kMs};
    int64_t now_ns = 1000 * kMs;
    double seen_ms = 0; ///< from the last frame's arrival to its light
    double mean_ms = 0; ///< of the frames of the latest go()

    explicit Frames(double period_ms = 10) : period_ns(std::llround(period_ms * kMs)) { plan.start(now_ns); }
    /// The player flips them so long after their arrival, at first and in the end.
    void go(int64_t for_ms, double flip_ms, double last_flip_ms)
    {
        double sum_ms = 0;
        int64_t count = 0;
        for (int64_t at_ns = 0; at_ns < for_ms * kMs; at_ns += period_ns, now_ns += period_ns, count++) {
            const double part = static_cast<double>(at_ns) / static_cast<double>(for_ms * kMs);
            const int64_t flipped_ns = now_ns + std::llround((flip_ms + part * (last_flip_ms - flip_ms)) * kMs);
            const int64_t vblank_ns = (now_ns + 2 * kMs) / (10 * kMs) * 10 * kMs - 2 * kMs;
            const double soonest = std::floor(static_cast<double>(flipped_ns - vblank_ns) / (10 * kMs)) + 1;
            plan.learn(now_ns, flipped_ns, vblank_ns + std::llround(soonest * 10 * kMs));
            const double seen = plan.known() ? std::max(plan.place_frame(now_ns, vblank_ns), soonest) : soonest;
            if (plan.known())
                plan.seen_from(flipped_ns, soonest);
            seen_ms = seen * 10 - static_cast<double>(now_ns - vblank_ns) / kMs;
            sum_ms += seen_ms;
        }
        mean_ms = sum_ms / static_cast<double>(count);
    }
    void go(int64_t for_ms, double flip_ms) { go(for_ms, flip_ms, flip_ms); }
};

TEST(LightPlan, IsTakenWhenFramesHaveSettledAndIsNeverLateForGood)
{
    Frames frames;
    frames.go(2000, 300, 50);
    EXPECT_FALSE(frames.plan.known()) << "they still move";
    frames.go(1500, 150);
    EXPECT_NEAR(frames.seen_ms, 158, 10) << "they seem to have settled";
    frames.go(2000, 51);
    EXPECT_NEAR(frames.seen_ms, 58, 10);
    frames.go(6000, 51);
    frames.go(5000, 1);
    EXPECT_NEAR(frames.seen_ms, 58, 10) << "the player's clock ran ahead of the sound";
    frames.go(5000, 101);
    EXPECT_NEAR(frames.seen_ms, 108, 10) << "a busy machine";
    frames.go(2000, 51);
    EXPECT_NEAR(frames.seen_ms, 58, 10) << "and one that is no more";
    frames.go(5000, 101);
    frames.go(3000, 57.5);
    EXPECT_NEAR(frames.seen_ms, 58, 1) << "the vertical blank that it was before";
    frames.go(5000, 101);
    frames.go(3000, 57.5);
    EXPECT_NEAR(frames.seen_ms, 68, 1) << "which may have been too soon";
    frames.plan.start(frames.now_ns);
    frames.go(2000, 11);
    EXPECT_NEAR(frames.seen_ms, 18, 10) << "a reset";
}

TEST(LightPlan, IsWhatItWasBeforeAPauseWhateverThePhaseThen)
{
    for (int64_t pause_ms = 3000; pause_ms < 4000; pause_ms += 100) {
        Frames frames(10.1); // the phase comes round in a second
        frames.go(8000, 51);
        frames.go(1010, 51);
        const double before_ms = frames.mean_ms;
        frames.go(pause_ms, 101);
        frames.go(3000, 51);
        frames.go(1010, 51);
        EXPECT_NEAR(frames.mean_ms, before_ms, 0.3) << pause_ms;
    }
}

TEST(FlipHold, LeavesOutWhatComesTooLateForItsVerticalBlankRatherThanBeLateForGood)
{
    FlipHold hold({2, 20 * kMs, 0, true}, 100);
    hold.start(kMs);
    int buffers[60];
    int64_t now_ns = 1001 * kMs;
    int unseen = 0;
    for (int i = 0; i < 60; i++, now_ns += 10 * kMs) {
        EXPECT_EQ(hold.push(&buffers[i], {now_ns - 5 * kMs, now_ns, now_ns - kMs}), nullptr);
        // The thread that shows them stands still for some refreshes.
        if (i >= 50 && i < 55)
            continue;
        for (FlipHold::Due due = hold.pop(now_ns + 5 * kMs); due.buffer != nullptr; due = hold.pop(now_ns + 5 * kMs))
            unseen += due.unseen ? 1 : 0;
    }
    EXPECT_EQ(unseen, 5);
}

TEST(FlipHold, ShowsFramesThatComeToAndFroAroundAVerticalBlank)
{
    for (int refreshes : {0, 3}) {
        FlipHold hold({refreshes, refreshes * 10 * kMs, 0, true}, 100);
        hold.start(1000 * kMs);
        int buffers[60];
        int shown = 0;
        for (int i = 0; i < 60; i++) {
            const int64_t flipped_ns = (1010 + 10 * i) * kMs + (i % 2 == 0 ? -kMs / 2 : kMs / 2);
            while (hold.due_ns() && *hold.due_ns() <= flipped_ns)
                shown += hold.pop(*hold.due_ns()).unseen ? 0 : 1;
            EXPECT_EQ(hold.push(&buffers[i], {flipped_ns - 5 * kMs, flipped_ns, flipped_ns / (10 * kMs) * 10 * kMs}),
                      nullptr);
        }
        while (hold.due_ns())
            shown += hold.pop(*hold.due_ns()).unseen ? 0 : 1;
        EXPECT_EQ(shown, 60) << refreshes;
    }
}

TEST(HeldFlips, ShowsEachInOrderAndTheLastBeforeItEnds)
{
    for (const Holds& holds : {Holds{0, 0, 0}, Holds{0, 30 * kMs, 0}, Holds{3, 30 * kMs, 0}}) {
        std::vector<int> buffers(100);
        std::vector<void*> shown;
        HeldFlips held(
            holds, 100, [&shown](void* buffer) { shown.push_back(buffer); }, [](void*) { ADD_FAILURE(); });
        for (int& buffer : buffers)
            held.flip(&buffer, {0, std::chrono::steady_clock::now().time_since_epoch().count(), 0});
        held.finish();
        ASSERT_EQ(shown.size(), buffers.size());
        for (size_t i = 0; i < shown.size(); i++)
            EXPECT_EQ(shown[i], &buffers[i]);
    }
}

TEST(SoundHold, DelaysInPlaceBehindSilence)
{
    constexpr int kHeld = 48; // 1 ms
    for (int block : {1, 7, kHeld, 960}) {
        SoundHold hold(kMs);
        std::vector<int16_t> sound(2 * 2000);
        for (int sequence = 0; sequence < 2; sequence++) { // nothing of the first is heard in the second
            std::iota(sound.begin(), sound.end(), static_cast<int16_t>(1));
            hold.start(48000);
            ASSERT_EQ(hold.frames(), kHeld);
            ASSERT_TRUE(hold.suits(48000) && !hold.suits(44100));
            for (int at = 0; at < 2000; at += block)
                hold.pass(sound.data() + 2 * at, std::min(block, 2000 - at));
            const std::vector<int16_t> rest = hold.rest();
            sound.insert(sound.end(), rest.begin(), rest.end());
            for (int i = 0; i < 2 * 2000 + 2 * kHeld; i++)
                ASSERT_EQ(sound[static_cast<size_t>(i)], std::max(0, i + 1 - 2 * kHeld)) << block;
            sound.resize(2 * 2000);
        }
    }
    SoundHold none(0);
    int16_t frame[2] = {1, 2};
    none.start(48000);
    none.pass(frame, 1);
    EXPECT_EQ(frame[1], 2);
    EXPECT_TRUE(none.rest().empty());
}

// Blocks of 20 ms through a host that stands still; drift_ppm: of the capture's clock.
struct Stalls {
    LateSound late;
    int64_t now_us = 1'000'000'000;
    int64_t captured_us = now_us; // the next block's first sample
    int64_t pts_us = 0;
    double drift_ppm = 0;
    int played = 0;

    /// The host takes blocks for @p us, then stands still for @p still_us. @return how many it threw away
    int go(int64_t us, int64_t still_us = 0)
    {
        int thrown_away = 0;
        for (const int64_t end_us = now_us + us; now_us < end_us;) {
            const auto length_us = static_cast<int64_t>(20'000 * (1 + drift_ppm / 1e6));
            const bool waited = captured_us + length_us > now_us;
            now_us = std::max(now_us, captured_us + length_us);
            const bool late_block = late.too_late(pts_us, 20'000, now_us, waited);
            thrown_away += late_block ? 1 : 0;
            played += late_block ? 0 : 1;
            captured_us += length_us;
            pts_us += 20'000;
        }
        now_us += still_us;
        return thrown_away;
    }
};

TEST(LateSound, ThrowsAwayWhatIsOlderThanThePlan)
{
    Stalls s;
    EXPECT_EQ(s.go(2'000'000, 60'000), 0);
    EXPECT_EQ(s.go(2'000'000, 1'000'000), 0) << "the output has not run dry";
    const int thrown_away = s.go(1'000'000);
    EXPECT_GE(thrown_away, (1000 - 96) / 20);
    EXPECT_LE(thrown_away, (1000 - 56) / 20);
    EXPECT_EQ(s.go(3'000'000, 500'000), 0);
    EXPECT_EQ(s.go(5'000'000), 0) << "too soon after the last time";
    const int made_up = s.go(3'000'000);
    EXPECT_GE(made_up, (500 - 96) / 20);
    EXPECT_LE(made_up, (500 - 56) / 20);
    s.late.start();
    EXPECT_EQ(s.go(20'000'000), 0);
}

TEST(LateSound, LeavesSoundThatIsNotLate)
{
    for (double ppm : {-400.0, 400.0}) {
        Stalls s;
        s.drift_ppm = ppm;
        EXPECT_EQ(s.go(3600'000'000), 0) << ppm;
    }
    Stalls lost; // half a second never came: what comes after it is new all the same
    lost.go(5'000'000);
    lost.captured_us += 500'000;
    EXPECT_EQ(lost.go(30'000'000), 0);
}

TEST(Splice, FadesFromTheFirstBlockLeftOut)
{
    Splice splice;
    std::vector<int16_t> left_out(2 * 960, 10000), later(2 * 960, 30000), played(2 * 960, -10000), next = played;
    splice.leave_out(left_out.data(), 960);
    splice.leave_out(later.data(), 960);
    splice.join(played.data(), 960);
    for (size_t i = 2; i < played.size(); i++)
        ASSERT_LE(std::abs(played[i] - played[i - 2]), 84);
    EXPECT_NEAR(played[0], 10000, 84);
    EXPECT_EQ(played[2 * 240], -10000);
    splice.join(next.data(), 960);
    EXPECT_EQ(next[0], -10000);
}

/// Frames 20 ms apart that wait for @p waited_ms each. @return how often they left the plan
int leaves(PicturePlan* plan, int64_t* now_ns, int64_t for_ms, int64_t waited_ms, bool with_sound = true)
{
    int times = 0;
    for (int64_t end = *now_ns + for_ms * kMs; *now_ns < end; *now_ns += 20 * kMs)
        times += plan->left(*now_ns, waited_ms * kMs, with_sound) ? 1 : 0;
    return times;
}

TEST(PicturePlan, IsLeftByFramesThatWaitForAnotherTimeUntilTwoResetsShowThatTheyMust)
{
    PicturePlan plan;
    int64_t now_ns = 0;
    plan.start(now_ns);
    EXPECT_EQ(leaves(&plan, &now_ns, 400, 300), 0) << "not settled";
    EXPECT_EQ(leaves(&plan, &now_ns, 2000, 80), 0);
    EXPECT_EQ(leaves(&plan, &now_ns, 2000, 125), 0) << "near enough";
    EXPECT_EQ(leaves(&plan, &now_ns, 5000, 20, false), 0) << "no sound";
    EXPECT_EQ(leaves(&plan, &now_ns, 1500, 20), 1);
    EXPECT_EQ(leaves(&plan, &now_ns, 1500, 20), 1) << "no reset came";
    plan.start(now_ns);
    EXPECT_EQ(leaves(&plan, &now_ns, 2500, 20), 1) << "this one may have come too soon";
    plan.start(now_ns);
    EXPECT_EQ(leaves(&plan, &now_ns, 10000, 20), 0) << "how it has to be";
    EXPECT_EQ(leaves(&plan, &now_ns, 1500, 100), 1);
    plan.start(now_ns);
    EXPECT_EQ(leaves(&plan, &now_ns, 10000, 20), 0) << "back in the plan";
    EXPECT_EQ(leaves(&plan, &now_ns, 60'000, 20), 1) << "tried again after a minute";
    plan.start(now_ns);
    EXPECT_EQ(leaves(&plan, &now_ns, 100'000, 20), 0) << "in vain: not so soon again";
    EXPECT_EQ(leaves(&plan, &now_ns, 40'000, 20), 1);
    plan.start(now_ns);
    EXPECT_EQ(leaves(&plan, &now_ns, 300'000, 90), 0) << "the machine had been busy: as before all that";
    EXPECT_EQ(leaves(&plan, &now_ns, 1500, 0), 1);
}

/// Blocks of 20 ms on the time line of one reset after the other.
struct Sequences {
    SoundPlan plan;
    int64_t reset_us = 0;
    int64_t pts_us = 0;

    void reset()
    {
        reset_us += pts_us + 1'000'000;
        pts_us = 0;
        plan.start(reset_us);
    }
    /// Blocks lag by @p lag_ms; two in three come late. @return how often they left the plan
    int play(int64_t for_ms, int64_t lag_ms)
    {
        int times = 0;
        for (const int64_t end_us = pts_us + for_ms * 1000; pts_us < end_us; pts_us += 20'000) {
            const int64_t late_us = pts_us % 60'000 == 0 ? 0 : 50'000;
            times += plan.left(pts_us, reset_us + pts_us + lag_ms * 1000 + late_us) ? 1 : 0;
        }
        return times;
    }
};

TEST(SoundPlan, IsLeftWhereSoundIsLostOldOrComesLate)
{
    Sequences s;
    s.reset();
    EXPECT_EQ(s.play(5000, 30), 0);
    EXPECT_EQ(s.play(2500, 70), 1) << "sound was lost";
    EXPECT_EQ(s.play(5000, 70), 0) << "not once more";
    s.reset();
    int times = 0;
    for (int lag_ms = -20; lag_ms < 80; lag_ms++)
        times += s.play(1000, lag_ms);
    EXPECT_EQ(times, 0) << "1000 ppm";
    for (int lag_ms = 80; lag_ms < 1000; lag_ms++)
        times += s.play(20, lag_ms);
    EXPECT_EQ(times, 0) << "a source that goes on losing sound";
    for (const int64_t lag_ms : {-40, 700}) {
        s.reset();
        EXPECT_EQ(s.play(3000, lag_ms), 1) << lag_ms;
        s.reset();
        EXPECT_EQ(s.play(3000, lag_ms), 0) << "how it has to be: " << lag_ms;
        EXPECT_EQ(s.play(60'000, lag_ms), 1) << "tried again after a minute";
        s.reset();
        EXPECT_EQ(s.play(70'000, lag_ms), 0) << "in vain: not so soon again";
        s.reset();
        EXPECT_EQ(s.play(3000, 30), 0);
    }
}

TEST(SoundPlan, IsLeftWhereABusyMachineMadeOneOfIt)
{
    Sequences s;
    for (const int64_t lag_ms : {600, 273}) {
        s.reset();
        EXPECT_EQ(s.play(3000, lag_ms), 1) << "no two sequences begin so late the same way: " << lag_ms;
    }
    s.reset();
    EXPECT_EQ(s.play(1000, 190), 0);
    EXPECT_EQ(s.play(3000, 30), 0) << "threads were late at first";
    EXPECT_EQ(s.play(2500, 100), 1) << "less than they were late by";
    s.reset();
    EXPECT_EQ(s.play(5000, 30), 0);
    EXPECT_EQ(s.play(2500, -243), 1) << "silence for sound that came after all";
    EXPECT_EQ(s.play(5000, -243), 0) << "not once more";
}

TEST(PlanWatch, AsksForFewResetsWhereTheyDoNotHelp)
{
    PlanWatch watch;
    int times = 0;
    for (int64_t now_ns = 1000 * kMs; now_ns < 101'000 * kMs; now_ns += 500 * kMs) {
        watch.reset(now_ns);
        // Every other sequence begins with old sound.
        const int64_t old_us = now_ns / (500 * kMs) % 2 == 0 ? 100'000 : 0;
        for (int64_t pts_us = 0; pts_us < 200'000; pts_us += 20'000)
            watch.block(pts_us, now_ns + (pts_us - old_us) * 1000, pts_us == 0);
        times += watch.left(now_ns + 400 * kMs) ? 1 : 0;
    }
    EXPECT_GE(times, 4);
    EXPECT_LE(times, 4 + 10);
}

TEST(PlanWatch, LetsTheOutputPlayWhatItHoldsBeforeTheNextResetWhereOneDidNotHelp)
{
    PlanWatch watch;
    const auto begins_with_old_sound = [&](int64_t now_ns, int64_t old_us) {
        watch.reset(now_ns);
        for (int64_t pts_us = 0; pts_us < 200'000; pts_us += 20'000)
            watch.block(pts_us, now_ns + (pts_us - old_us) * 1000, pts_us == 0);
        return watch.left(now_ns + 400 * kMs);
    };
    ASSERT_TRUE(begins_with_old_sound(1000 * kMs, 100'000));
    EXPECT_FALSE(watch.silences(1500 * kMs));
    ASSERT_TRUE(begins_with_old_sound(3000 * kMs, 200'000));
    EXPECT_TRUE(watch.silences(3500 * kMs));
    EXPECT_FALSE(watch.silences(6000 * kMs)) << "no reset came";
    watch.reset(4500 * kMs);
    EXPECT_FALSE(watch.silences(4501 * kMs));
    ASSERT_TRUE(begins_with_old_sound(60'000 * kMs, 100'000)) << "long ago";
    EXPECT_FALSE(watch.silences(60'500 * kMs));
}

TEST(FrameBreak, LetsOneFrameThroughAndThenNoneForMoreThanASecondOrUntilAReset)
{
    for (const int64_t reset_ns : {INT64_MAX, 1020 * kMs}) {
        FrameBreak frames;
        int64_t last_ns = 0;
        int64_t longest_ns = 0;
        for (int64_t now_ns = 0; now_ns < 5000 * kMs; now_ns += 20 * kMs) {
            if (frames.withholds(now_ns, now_ns == 1000 * kMs, now_ns < reset_ns ? 1 : 2))
                continue;
            longest_ns = std::max(longest_ns, now_ns - last_ns);
            last_ns = now_ns;
        }
        EXPECT_EQ(longest_ns, reset_ns == INT64_MAX ? 1100 * kMs : 20 * kMs);
    }
    WallClockWatch clock;
    EXPECT_FALSE(clock.was_set());
}

} // namespace
} // namespace common
