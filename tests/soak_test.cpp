// SPDX-License-Identifier: MIT
// What the soak judges by: a judge that takes late sound for punctual, or a late recovery for a soon one, would pass
// all.
#include <gtest/gtest.h>

#include <set>

#include "heap_trend.h"
#include "observers.h"
#include "recovery.h"
#include "sender.h"
#include "transitions.h"

namespace soak
{
namespace
{

constexpr int64_t kMs = 1'000'000;

Meeting meeting_at(int64_t met_ns, double offset_ms)
{
    return {met_ns - 200 * kMs, 200 - std::max(offset_ms, 0.0), 200 + std::min(offset_ms, 0.0)};
}

TEST(Recovery, counts_from_the_first_of_a_second_in_sync)
{
    Recovery recovery(10'000 * kMs);
    recovery.met(meeting_at(9'900 * kMs, 0)); // before
    recovery.met(meeting_at(10'100 * kMs, 0));
    recovery.met(meeting_at(10'300 * kMs, -61)); // late sound
    for (int i = 0; i < 4; i++)
        recovery.met(meeting_at((11'500 + 200 * i) * kMs, 40));
    EXPECT_FALSE(recovery.back_ns());
    recovery.met(meeting_at(12'300 * kMs, -60));
    EXPECT_DOUBLE_EQ(recovery.seconds().value_or(0), 1.5);
}

TEST(Recovery, begins_anew_behind_a_gap)
{
    Recovery recovery(0);
    for (int i = 0; i < 4; i++)
        recovery.met(meeting_at((200 + 200 * i) * kMs, 0));
    for (int i = 0; i < 5; i++)
        recovery.met(meeting_at((1'500 + 200 * i) * kMs, 0));
    EXPECT_DOUBLE_EQ(recovery.seconds().value_or(0), 1.5);
}

/// A sample every ten seconds: the decoder every third minute and in the end, blocks that come and go, and a leak.
HeapTrend an_hour(int64_t leak_kb)
{
    HeapTrend trend;
    for (int at_s = 0; at_s < 3600; at_s += 10) {
        const bool decodes = at_s / 60 % 3 == 2 || at_s > 3300;
        const int64_t blocks_kb = at_s * 7 % 450;
        trend.note(at_s, decodes ? "eac3" : "pcm48", 18'000 + (decodes ? 530 : 0) + blocks_kb + leak_kb * at_s / 3600);
    }
    return trend;
}

TEST(HeapTrend, tells_a_leak_from_another_format)
{
    const auto of_none = an_hour(0).growths();
    ASSERT_EQ(of_none.size(), 2U);
    const auto of_leak = an_hour(1200).growths();
    ASSERT_EQ(of_leak.size(), 2U);
    for (size_t i = 0; i < 2; i++) {
        EXPECT_LE(of_none[i].kb(), 50) << of_none[i].state;
        EXPECT_NEAR(static_cast<double>(of_leak[i].kb()), 600, 50) << of_leak[i].state;
    }
}

TEST(HeapTrend, says_nothing_of_states_that_do_not_come_twice)
{
    HeapTrend trend;
    EXPECT_TRUE(trend.growths().empty());
    trend.note(300, "pcm48", 18'000);
    trend.note(900, "eac3", 18'500);
    trend.note(1000, "pcm32", 18'100);
    EXPECT_TRUE(trend.growths().empty());
    trend.note(1000, "pcm48", 18'001);
    ASSERT_EQ(trend.growths().size(), 1U);
    EXPECT_EQ(trend.growths()[0].state, "pcm48");
    EXPECT_EQ(trend.growths()[0].kb(), 1);
}

TEST(WayThrough, takes_each_step_once_and_hangs_together)
{
    const std::vector<Format> formats = {Format::none, Format::pcm48, Format::ac3, Format::dts};
    const std::vector<Step> way = way_through(formats, 0);
    std::set<std::tuple<Format, Format, bool>> taken;
    Format at = formats.front();
    for (const Step& step : way) {
        EXPECT_EQ(step.from, at);
        at = step.to;
        EXPECT_TRUE(taken.insert({step.from, step.to, step.cable}).second);
    }
    EXPECT_EQ(way.size(), 4U * 4 + 4 * 3);
}

/// Sound and pictures as the sender sends them, without a player between.
class Observers : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string error;
        sender_ = Sender::make({60, 1}, 0, 100, &error);
        ASSERT_NE(sender_, nullptr) << error;
        pairs_ = std::make_unique<Meetings>(sender_.get(), sender_->clock());
    }

    /// A second of the beeps of 48 kHz from @p from_ns of the source on, @p late_ns after they were sent.
    void hear(int64_t from_ns, int64_t late_ns)
    {
        const play::Programme beeps(48000, {60, 1}, 2 * kLoopNs, false, {kMarkNs, kPitches});
        std::vector<int16_t> stereo(2 * 960);
        for (int64_t at_ns = from_ns; at_ns < from_ns + 1000 * kMs; at_ns += 20 * kMs) {
            beeps.audio(at_ns * 48 / kMs, stereo.data(), 960);
            ears_.hear({stereo.data(), 960, sender_->clock().to_monotonic(at_ns) + late_ns, 48000, 2});
        }
        ears_.listen();
        for (const Beep& beep : ears_.take_beeps())
            pairs_->heard(beep);
    }

    /// All pictures of that second.
    void see(int64_t from_ns, int64_t late_ns)
    {
        for (int64_t number = from_ns * 60 / (1000 * kMs); sender_->frame_ns(number) < from_ns + 1000 * kMs; number++) {
            const int64_t in_mark = sender_->frame_ns(number) % kMarkNs;
            const int64_t seen_ns = sender_->clock().to_monotonic(sender_->frame_ns(number)) + late_ns;
            pairs_->seen({number, in_mark < play::Programme::kMarkDurationNs, seen_ns});
        }
    }

    std::unique_ptr<Sender> sender_;
    std::unique_ptr<Meetings> pairs_;
    Ears ears_;
};

TEST_F(Observers, tell_offsets_of_seconds_from_those_of_none)
{
    struct Late {
        int64_t sound_ms;
        int64_t picture_ms;
    };
    for (const Late late : {Late{100, 90}, Late{1100, 90}, Late{4900, 90}, Late{9500, 90}, Late{100, 9500}}) {
        pairs_ = std::make_unique<Meetings>(sender_.get(), sender_->clock());
        hear(2000 * kMs, late.sound_ms * kMs);
        see(2000 * kMs, late.picture_ms * kMs);
        const std::vector<Meeting> met = pairs_->take();
        EXPECT_GE(met.size(), 4U) << late.sound_ms;
        for (const Meeting& meeting : met) {
            EXPECT_NEAR(meeting.offset_ms(), static_cast<double>(late.picture_ms - late.sound_ms), 0.1);
            EXPECT_EQ(meeting.in_sync(), late.sound_ms + late.picture_ms == 190);
        }
    }
}

TEST_F(Observers, notice_pauses_of_zeros_and_of_nothing)
{
    hear(1000 * kMs, 0);
    ears_.hear({nullptr, 48000 / 2, sender_->clock().to_monotonic(2000 * kMs), 48000, 2});
    hear(2500 * kMs, 0);
    const std::vector<Pause> pauses = ears_.take_pauses();
    ASSERT_EQ(pauses.size(), 1U);
    EXPECT_NEAR(static_cast<double>(pauses[0].to_ns - pauses[0].from_ns), 500e6, 6e6);
}

} // namespace
} // namespace soak
