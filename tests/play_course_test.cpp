// SPDX-License-Identifier: MIT
// Where a run is heading, and what bursts that were lost leave behind, on made-up readings.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "measure/course.h"

using namespace play;

namespace
{

constexpr double kHourS = 3600;

/// A reading each second: a line of @p per_hour, and what @p beside adds.
template <typename Beside> std::vector<Reading> readings(int seconds, double per_hour, Beside beside)
{
    std::vector<Reading> all;
    for (int s = 0; s < seconds; s++)
        all.push_back({static_cast<double>(s), 5 + per_hour * s / kHourS + beside(s)});
    return all;
}

/// Of a picture that waits for its vertical blank.
double sawtooth(double s, double period_s) { return 16.7 * (s / period_s - std::floor(s / period_s) - 0.5); }

std::vector<Offset> offsets_of(const std::vector<Reading>& readings)
{
    std::vector<Offset> all;
    for (const Reading& reading : readings)
        all.push_back({static_cast<int64_t>(reading.at_s * 1e9), 100, 100 + reading.value});
    return all;
}

} // namespace

TEST(Trend, KnowsItsSlopeAsWellAsItSays)
{
    // Noise whose readings are like those before them: few of its slopes may be outside of their margin.
    for (double alike : {0.0, 0.8, 0.95}) {
        std::mt19937 random(7);
        std::normal_distribution<double> normal;
        int inside = 0;
        constexpr int kRuns = 200;
        for (int run = 0; run < kRuns; run++) {
            double noise = 0;
            auto trend = fit_trend(readings(400, 12, [&](int) { return noise = alike * noise + normal(random); }));
            ASSERT_TRUE(trend);
            inside += std::abs(trend->per_hour - 12) <= trend->margin ? 1 : 0;
        }
        EXPECT_GE(inside, 0.9 * kRuns) << alike;
    }
    // A few readings far away do not turn it.
    auto astray = fit_trend(readings(600, 12, [](int s) { return s % 97 == 3 ? 500.0 : 0.1 * (s % 3); }));
    EXPECT_NEAR(astray->per_hour, 12, 0.5);
    EXPECT_NEAR(astray->middle, 5 + 12 * 300 / kHourS + 0.1, 0.3);
    EXPECT_FALSE(fit_trend(readings(9, 12, [](int) { return 0.0; })));
}

TEST(Trend, PicturesThatMoveAgainstTheDisplayMakeASlopeOfTheirOwn)
{
    EXPECT_DOUBLE_EQ(phase_slope(60, 60, 300), 0);
    EXPECT_DOUBLE_EQ(phase_slope(24, 60, 300), 0);
    EXPECT_NEAR(phase_slope(60.003, 60, 300), 180, 1);
    EXPECT_NEAR(phase_slope(60.003, 60, 3600), 0, 1e-9);        // eleven rounds
    EXPECT_NEAR(phase_slope(60, 60000 / 1001.0, 300), 0, 1e-9); // 18
    EXPECT_NEAR(phase_slope(24.0012, 60, 300), 100, 1);         // two phases in a refresh
}

TEST(Course, FailsWhereTheOffsetSurelyLeavesTheLimitsWithinADay)
{
    struct Case {
        const char* what;
        int seconds;
        double per_hour;
        double saw_s;
        double fps;
        std::optional<Outlook> outlook;
    };
    for (const Case& c : {Case{"too short to tell", 299, 360, 17, 60.06, {}},
                          Case{"two clocks 100 ppm apart, five minutes", 310, -360, 17, 60.06, Outlook::leaves},
                          Case{"the phase of the pictures moves, five minutes", 310, 0, 333, 60.003, Outlook::unknown},
                          Case{"one part of a ppm, an hour", 3600, -3.6, 17, 60.06, Outlook::leaves},
                          Case{"no drift, an hour", 3600, 0, 17, 60.06, Outlook::stays},
                          Case{"little drift, an hour", 3600, 1, 333, 60.003, Outlook::unknown}}) {
        auto saw = [&c](int s) { return sawtooth(s, c.saw_s); };
        Course course = measure_course(offsets_of(readings(c.seconds, c.per_hour, saw)), {}, {c.fps, 60});
        EXPECT_EQ(course.outlook, c.outlook)
            << c.what << ": " << course.offset->per_hour << " +- " << course.offset->margin;
    }
}

TEST(Course, HasTheLastMinuteByTheSecondOneAndTheWorstOfAHundred)
{
    Course course = measure_course(offsets_of(readings(240, -60, [](int) { return 0.0; })), {}, {60, 60});
    ASSERT_TRUE(course.moved);
    EXPECT_NEAR(course.moved->offset_ms, -2, 0.02);
    EXPECT_DOUBLE_EQ(course.moved->sound_ms, 0);
    EXPECT_FALSE(measure_course(offsets_of(readings(170, 0, [](int) { return 0.0; })), {}, {60, 60}).moved);
    // A reset in the third minute: the second one is of another sequence, and was not measured.
    std::vector<Reading> behind_reset = readings(400, 0, [](int) { return 5.0; });
    behind_reset.erase(behind_reset.begin(), behind_reset.begin() + 150);
    course = measure_course(offsets_of(behind_reset), {}, {60, 60});
    EXPECT_FALSE(course.moved || course.light->moved_ms);
    EXPECT_LT(course.light->within_ms, 1);
    // One in a hundred may be anywhere; +14 is nearer to its limit than -40.
    auto some = [](int s) { return s % 100 == 7 ? 900.0 : s % 50 == 11 ? 9.0 : s % 50 == 12 ? -45.0 : 0.0; };
    course = measure_course(offsets_of(readings(200, 0, some)), {}, {60, 60});
    EXPECT_DOUBLE_EQ(course.p99_ms, 14);
    EXPECT_TRUE(course.p99_inside());
}

TEST(Course, TellsPicturesThatMoveFromTheSawtoothOfTheDisplay)
{
    struct Case {
        const char* what;
        double hz;
        double ppm; // of the source's clock
        int seconds;
        double per_hour;  // of the pictures' latency
        double refreshes; // by which the last third is later
        bool whole_minutes, inside;
        std::optional<bool> still;
    };
    for (const Case& c : {Case{"as clocks let it", 50, 100, 3600, 0, 0, false, true, true},
                          Case{"the same, creeping", 50, 100, 3600, -5, 0, false, true, false},
                          Case{"the same, by little", 50, 100, 3600, 2.5, 0, false, true, false},
                          Case{"late by a refresh in the end", 50, 100, 3600, 0, 1, false, false, false},
                          Case{"a beat in 17 s", 59.94, 0, 3600, 0, 0, true, true, true},
                          Case{"late by half a refresh in the end", 59.94, 0, 3600, 0, 0.5, true, false, false},
                          Case{"no beat", 50, 0, 3600, 0, 0, true, true, true},
                          Case{"too short for two beats", 50, 25, 600, 0, 0, false, true, {}},
                          Case{"the same, late by a refresh in the end", 50, 25, 600, 0, 1.2, false, false, {}}}) {
        std::vector<Offset> offsets;
        for (int s = 0; s < c.seconds; s++) {
            const double blanks = (s * (1 - c.ppm * 1e-6)) * c.hz;
            const double refresh_ms = 1e3 / c.hz;
            const double late = 3 * s > 2 * c.seconds ? c.refreshes : 0;
            offsets.push_back({s * 1'000'000'000LL, 100,
                               110 + c.per_hour * s / kHourS + refresh_ms * (late + std::ceil(blanks) - blanks)});
        }
        const Course course = measure_course(offsets, {}, {60, c.hz, 0, 1 - c.ppm * 1e-6});
        ASSERT_TRUE(course.light) << c.what;
        EXPECT_EQ(course.light->whole_minutes, c.whole_minutes) << c.what;
        EXPECT_EQ(course.light->within_ms <= course.light->allowed_ms, c.inside)
            << c.what << ": " << course.light->within_ms;
        std::optional<bool> still;
        if (course.light->moved_ms)
            still = std::abs(*course.light->moved_ms) <= kMostMovedMs;
        EXPECT_EQ(still, c.still) << c.what << ": " << course.light->moved_ms.value_or(0);
    }
}

TEST(BurstLosses, EndHalfASecondBeforeTheSoundIsLookedAt)
{
    std::vector<BurstLoss> losses;
    ASSERT_TRUE(parse_losses("1,10@12:pause,100:noise", &losses));
    std::vector<LostBursts> placed;
    ASSERT_TRUE(place_losses(losses, 48000, &placed));
    ASSERT_EQ(placed.size(), 3u);
    EXPECT_EQ(placed[1].loss.kind, BurstLoss::Kind::pause);
    for (const LostBursts& lost : placed) {
        EXPECT_EQ(lost.end - lost.first, lost.loss.bursts);
        double after_s = lost.loss.looked_at_s - static_cast<double>(lost.to_ns) / 1e9;
        EXPECT_TRUE(after_s >= 0.5 && after_s < 0.533) << after_s;
    }
    for (const char* wrong : {"", "0", "1@", "1@x", "1@5:", "1@5:gone", "x", "1,,2", "1@-3"})
        EXPECT_FALSE(parse_losses(wrong, &losses)) << wrong;
    EXPECT_FALSE(place_losses({{BurstLoss::Kind::flag, 10, 3}}, 48000, &placed));
    EXPECT_FALSE(place_losses({{BurstLoss::Kind::flag, 1, 9}, {BurstLoss::Kind::flag, 1, 10}}, 48000, &placed));
}

TEST(BurstLosses, AreReadFromTheInstantsOnBothSidesOfThem)
{
    std::vector<Offset> offsets;
    for (int s = 1; s <= 9; s++)
        offsets.push_back({s * 1'000'000'000LL, s < 5 ? 100.0 : 68.0, 130});
    offsets.erase(offsets.begin() + 4);
    LostBursts lost = {{BurstLoss::Kind::flag, 1, 6}, 0, 0, 4'900'000'000, 4'932'000'000};
    std::vector<LossReading> readings = read_losses({lost}, offsets, {3'000'000'000, 5'000'000'000});
    ASSERT_TRUE(readings[0].measured());
    EXPECT_DOUBLE_EQ(readings[0].sound_moved_ms(), -32);
    EXPECT_EQ(readings[0].after->source_ns, 6'000'000'000);
    EXPECT_EQ(readings[0].resets, 1);
    lost.from_ns = lost.to_ns = 20'000'000'000;
    EXPECT_FALSE(read_losses({lost}, offsets, {})[0].measured());
}
