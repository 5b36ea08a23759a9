// SPDX-License-Identifier: MIT
// Rate matching on two simulated clocks: hours of them, with stamps as devices give them.
#include "rate_matcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace
{

constexpr int kRate = 48000;
constexpr int kPeriod = 960;
constexpr double kPpm = 1e-6;
constexpr double kTwoPi = 6.28318530717958647692;

int64_t ns(double seconds) { return std::llround(seconds * 1e9); }

/// Repeatable noise between -1 and 1.
struct Noise {
    double next()
    {
        seed = seed * 1664525 + 1013904223;
        return static_cast<double>(seed) / 2147483648.0 - 1;
    }
    uint32_t seed = 1;
};

/// A crystal whose error may change.
struct Crystal {
    double ppm;
    double frames = 0;

    void advance(double seconds) { frames += seconds * kRate * (1 + ppm * kPpm); }
};

// --- The estimator ----------------------------------------------------------------

TEST(ClockEstimator, FindsRateAndPositionFromJitteredStamps)
{
    for (const double ppm : {0.0, 50.0, -50.0, 1000.0, -1000.0}) {
        Noise noise;
        Crystal crystal{ppm};
        clocks::ClockEstimator estimator;
        estimator.start(kRate);
        double now = 1000;
        for (int i = 0; i < 50 * 3600; i++) {
            // Reads come unevenly, and are stamped up to 0.2 ms beside their time.
            const double interval = 0.02 * (1 + 0.5 * noise.next());
            now += interval;
            crystal.advance(interval);
            ASSERT_TRUE(estimator.update(ns(now + 0.0002 * noise.next()), std::llround(crystal.frames)));
            const double rate_error = std::fabs(estimator.speed() - 1 - ppm * kPpm);
            const double position_error = std::fabs(estimator.frames_at(ns(now)) - crystal.frames);
            if (estimator.settled()) {
                ASSERT_LT(rate_error, 60 * kPpm) << ppm << " after " << now - 1000;
                ASSERT_LT(position_error, 0.0001 * kRate) << ppm << " after " << now - 1000;
            }
            if (now > 1060) {
                ASSERT_LT(rate_error, 4 * kPpm) << ppm << " after " << now - 1000;
                ASSERT_LT(position_error, 0.00005 * kRate) << ppm << " after " << now - 1000;
            }
        }
    }
}

TEST(ClockEstimator, KeepsTheRateOverAJumpOfTheCountAndARebase)
{
    Crystal crystal{300};
    clocks::ClockEstimator estimator;
    estimator.start(kRate);
    int64_t skipped = 0;
    for (int i = 1; i < 3000; i++) {
        crystal.advance(0.02);
        if (i == 1000)
            skipped += kRate / 10; // a count that lost 100 ms
        if (i == 2000) {
            skipped += kRate / 50; // too little to be seen
            estimator.rebase();
        }
        EXPECT_EQ(estimator.update(ns(0.02 * i), std::llround(crystal.frames) - skipped), i != 1000);
        if (i > 200) {
            ASSERT_NEAR(estimator.speed(), 1.0003, 1 * kPpm) << i;
        }
    }
    EXPECT_NEAR(estimator.frames_at(ns(0.02 * 2999)), crystal.frames - static_cast<double>(skipped), 1);
}

// --- The controller, on clocks alone ----------------------------------------------

/// A capture device, an ideal resampler and an output with its queue, in virtual time: a step is one period.
class Machine
{
public:
    Machine(double capture_ppm, double playback_ppm, double jitter_seconds)
        : capture{capture_ppm}, playback{playback_ppm}, jitter_(jitter_seconds)
    {
        in_flight.capture_started(kRate);
        in_flight.playback_started(kRate);
        controller.start();
    }

    void step()
    {
        constexpr double kSeconds = static_cast<double>(kPeriod) / kRate;
        now += kSeconds;
        capture.advance(kSeconds);
        playback.advance(kSeconds);
        in_flight.captured(ns(now + jitter_ * noise_.next()), std::llround(capture.frames));
        in_flight.played(ns(now + jitter_ * noise_.next()), std::llround(played()));
        // What was captured is converted at once: the rest of its way takes a constant time.
        const double in = capture.frames - discarded_ - flow.in_end;
        flow.in_end += in;
        flow.out_end += in / controller.step();
        flow.step = controller.step();
        const double before = controller.step();
        excess = in_flight.excess(ns(now), flow);
        controller.update(ns(now), excess, in_flight.speed_ratio());
        slew = std::fabs(controller.step() - before) / kSeconds;
        if (!excess)
            set_point = true_in_flight();
    }
    /// @return the largest error on the way.
    double run(double seconds)
    {
        double worst = 0;
        for (const double end = now + seconds; now < end; worst = std::max(worst, std::fabs(error())))
            step();
        return worst;
    }

    /// The output played silence instead of the sound that came so late.
    void underrun(double seconds)
    {
        silence_ += seconds * kRate;
        in_flight.disturbed();
    }

    /// The host throws away captured sound, as it does at a new serial: so much less waits in the output.
    void discard(double seconds) { discarded_ += seconds * kRate; }

    /// Output frames that were heard; 100 ms are queued at first.
    double played() const { return playback.frames - silence_ - 0.1 * kRate; }
    double true_in_flight() const
    {
        const double heard = flow.in_end - (flow.out_end - played()) * flow.step;
        return (capture.frames - heard) / kRate;
    }
    double error() const { return true_in_flight() - set_point; }
    double ratio_error() const { return controller.step() - (1 + capture.ppm * kPpm) / (1 + playback.ppm * kPpm); }

    Crystal capture;
    Crystal playback;
    clocks::TimeInFlight in_flight;
    clocks::RateController controller;
    clocks::Flow flow;
    std::optional<double> excess;
    double set_point = 0; ///< the true time in flight when the machine took it
    double slew = 0;      ///< of the ratio in the latest step, per second
    double now = 0;

private:
    double jitter_;
    double silence_ = 0;
    double discarded_ = 0;
    Noise noise_;
};

/// The errors of the two crystals in ppm.
class Drifts : public testing::TestWithParam<std::pair<double, double>>
{
};
INSTANTIATE_TEST_SUITE_P(
    RateController, Drifts,
    testing::ValuesIn(std::vector<std::pair<double, double>>{
        {0, 0}, {50, -50}, {-50, 50}, {1000, 0}, {-1000, 0}, {0, 1000}, {0, -1000}, {900, -1000}, {-1000, 900}}));

TEST_P(Drifts, SoundKeepsItsAgeForHoursWithoutAnAudibleChangeOfPitch)
{
    Machine machine(GetParam().first, GetParam().second, 0.0005);
    double worst_early = 0, worst_late = 0, worst_ratio = 0;
    while (machine.now < 6 * 3600) {
        machine.step();
        ASSERT_LE(std::fabs(machine.controller.step() - 1), 2000 * kPpm);
        if (machine.now > 15) {
            ASSERT_TRUE(machine.excess);
            ASSERT_LE(machine.slew, 20.001 * kPpm) << machine.now;
            double& worst = machine.now < 120 ? worst_early : worst_late;
            worst = std::max(worst, std::fabs(machine.error()));
        }
        if (machine.now > 60)
            worst_ratio = std::max(worst_ratio, std::fabs(machine.ratio_error()));
    }
    EXPECT_LT(worst_early, 0.001);
    EXPECT_LT(worst_late, 0.0003);
    EXPECT_LT(worst_ratio, 10 * kPpm);
}

TEST(RateController, FollowsACrystalThatWarmsUpAndOneThatIsSwitched)
{
    Machine machine(100, -100, 0.0002);
    machine.run(60);
    double worst = 0;
    for (double ppm = 100; ppm < 160; ppm += 0.02 * 0.1) {
        machine.capture.ppm = ppm;
        worst = std::max(worst, machine.run(0.01));
    }
    EXPECT_LT(worst, 0.0003);

    machine.playback.ppm = 200;
    for (const double end = machine.now + 300; machine.now < end;) {
        machine.step();
        worst = std::max(worst, std::fabs(machine.error()));
        ASSERT_LE(machine.slew, 20.001 * kPpm);
    }
    // Half the time that the slew limit alone would need, and that of the loop.
    EXPECT_LT(worst, 0.01);
    EXPECT_LT(std::fabs(machine.error()), 0.0001);
    EXPECT_LT(std::fabs(machine.ratio_error()), 10 * kPpm);
}

TEST(RateController, AnUnderrunAndANewSignalTakeANewSetPointAndKeepThePitch)
{
    Machine machine(400, -300, 0.0002);
    machine.run(120);
    for (const double late : {0.03, 0.4}) {
        const double before = machine.true_in_flight();
        machine.underrun(late);
        for (const double end = machine.now + 600; machine.now < end;) {
            machine.step();
            ASSERT_LT(std::fabs(machine.ratio_error()), 10 * kPpm) << late << " s late, at " << machine.now;
        }
        ASSERT_TRUE(machine.excess);
        EXPECT_NEAR(machine.true_in_flight(), before + late, 0.0003);
    }
    // A new serial within a running device: the time in flight is as it was, and no frame is made up for.
    for (const double seconds : {0.02, 0.07}) {
        const double before = machine.true_in_flight();
        machine.discard(seconds);
        for (const double end = machine.now + 120; machine.now < end;) {
            machine.step();
            ASSERT_TRUE(machine.excess);
            ASSERT_LT(std::fabs(machine.ratio_error()), 10 * kPpm) << seconds << " s, at " << machine.now;
        }
        EXPECT_NEAR(machine.true_in_flight(), before, 0.0003);
    }
    // The capture device goes, and comes back with another crystal.
    machine.in_flight.capture_ended();
    const double kept = machine.controller.step();
    for (int i = 0; i < 500; i++) {
        machine.step();
        ASSERT_FALSE(machine.excess);
        ASSERT_EQ(machine.controller.step(), kept);
    }
    machine.capture.ppm = -600;
    machine.in_flight.capture_started(kRate);
    machine.controller.start();
    machine.run(15);
    EXPECT_LT(machine.run(600), 0.001);
}

TEST(SlipController, SlipsAsManyFramesAsTheClocksAskForAndNoMore)
{
    constexpr int kSlip = 4;
    // The set point is taken after four seconds. The first millisecond beside it is never made up for, nor what is less
    // than a slip; by 0.05 ms the estimate moves.
    constexpr double kSeconds = 3600 - 4;
    constexpr double kLeft = 0.00105 * kRate + kSlip;
    for (const double ppm : {0.0, 4.0, -4.0, 300.0, -300.0}) {
        Machine machine(ppm, 0, 0.0002);
        const clocks::SlipController slips(kSlip);
        int64_t slipped = 0, count = 0;
        while (machine.now < 3600) {
            machine.step();
            // Bit for bit: the ratio is 1, and what is left out or put in is heard as so many frames.
            machine.controller = {};
            const int due = slips.due(machine.excess);
            machine.flow.out_end -= due;
            slipped += due;
            count += due != 0 ? 1 : 0;
        }
        EXPECT_NEAR(static_cast<double>(slipped), ppm * kPpm * kRate * kSeconds, ppm == 0 ? 0 : kLeft) << ppm;
        EXPECT_EQ(count * kSlip, std::abs(slipped)) << ppm << ": back and forth";
    }
}

// --- The resampler ----------------------------------------------------------------

constexpr int kSweepSeconds = 120;

/// A sweep over two minutes, 20 Hz to 18 kHz.
double sweep_at(double frame)
{
    const double growth = std::log(18000.0 / 20) / kSweepSeconds;
    return 0.5 * std::sin(kTwoPi * 20 / growth * (std::exp(growth * frame / kRate) - 1));
}

int16_t sweep_sample(int64_t frame)
{
    return static_cast<int16_t>(std::lrint(32767 * sweep_at(static_cast<double>(frame))));
}

// The click detector: each sample is compared with the sweep where this sample must lie. A sample too many or too few
// is a step of some per cent from 500 Hz on, and of the full amplitude in the treble.
TEST(RatioResampler, NoSampleOfASweepIsLostOrDoubledWhileTheRatioMoves)
{
    for (const int channels : {1, 2, 6}) {
        clocks::RatioResampler resampler;
        ASSERT_TRUE(resampler.open(kRate, channels));
        std::vector<int16_t> in(static_cast<size_t>(kPeriod * channels));
        std::vector<int16_t> out(static_cast<size_t>(clocks::RatioResampler::room(kPeriod) * channels));
        int64_t taken = 0, made = 0;
        double worst = 0, step = 1 - 2000 * kPpm;
        while (taken < int64_t{kSweepSeconds} * kRate) {
            // Blocks of many sizes; the ratio runs through all that it may be.
            const int frames = static_cast<int>(1 + taken * 7919 % kPeriod);
            step = std::min(step + 20 * kPpm * frames / kRate * 2, 1 + 2000 * kPpm);
            resampler.set_step(step);
            for (int i = 0; i < frames * channels; i++)
                in[static_cast<size_t>(i)] = sweep_sample(taken + i / channels);
            const double begin = static_cast<double>(taken) - resampler.waiting_frames();
            const int count = resampler.convert(in.data(), frames, out.data());
            ASSERT_GE(count, 0);
            ASSERT_LE(count, clocks::RatioResampler::room(frames));
            taken += frames;
            const double end = static_cast<double>(taken) - resampler.waiting_frames();
            for (int i = 0; i < count && made > 100; i++) {
                const double want = sweep_at(begin + (end - begin) * i / count);
                for (int at = i * channels; at < (i + 1) * channels; at++)
                    worst = std::max(worst, std::fabs(out[static_cast<size_t>(at)] / 32768.0 - want));
            }
            made += count;
        }
        EXPECT_LT(worst, 0.004) << channels;
    }
}

TEST(RatioResampler, SilenceIsLeftAsSilenceAndTheFaintestSoundIsNot)
{
    clocks::RatioResampler resampler;
    ASSERT_TRUE(resampler.open(kRate, 2));
    std::vector<int16_t> in(2 * kPeriod), out(2 * static_cast<size_t>(clocks::RatioResampler::room(kPeriod)));
    const auto loud_samples = [&](int16_t level) {
        int loud = 0;
        for (int block = 0; block < 8; block++) {
            for (size_t i = 0; i < in.size(); i++)
                in[i] = i % 96 < 48 ? level : int16_t{0};
            resampler.set_step(1 + 100 * kPpm);
            const int made = resampler.convert(in.data(), kPeriod, out.data());
            if (block >= 2)
                loud += static_cast<int>(2 * made - std::count(out.begin(), out.begin() + 2 * made, 0));
        }
        return loud;
    };
    EXPECT_EQ(loud_samples(0), 0);
    EXPECT_GT(loud_samples(1), 1000);
    EXPECT_EQ(loud_samples(0), 0);
}

// --- All of it --------------------------------------------------------------------

// A player between two devices with 16-bit sound: as a platform drives it.
TEST(RateMatcher, HoldsThePlayersDelayAndTellsItTrue)
{
    for (const double ppm : {1000.0, -1000.0}) {
        clocks::RateMatcher matcher;
        ASSERT_TRUE(matcher.playback_started(kRate, 2));
        matcher.capture_started(kRate);
        Crystal playback{ppm};
        std::vector<int16_t> in(2 * kPeriod), out(2 * static_cast<size_t>(clocks::RatioResampler::room(kPeriod)));
        std::vector<int16_t> heard;
        int delay_early = 0;
        for (int64_t taken = 0; taken < kRate * 75; taken += kPeriod) {
            const double now = static_cast<double>(taken) / kRate;
            const auto made = static_cast<double>(heard.size());
            matcher.captured(ns(now), taken);
            // The output starts with 60 ms in front of it.
            const double played = std::max(0.0, playback.frames - 0.06 * kRate);
            if (played > 0)
                matcher.played(ns(now), std::llround(played));
            for (int i = 0; i < kPeriod; i++)
                in[2 * i] = in[2 * i + 1] = sweep_sample(taken + i);
            const int count = matcher.convert(ns(now), in.data(), kPeriod, out.data());
            ASSERT_GT(count, 0);
            for (int i = 0; i < count; i++)
                heard.push_back(out[2 * i]);
            // What is heard now, by the clock that the player makes of the delay.
            const int delay = matcher.delay(static_cast<int>(heard.size()) - static_cast<int>(played));
            const double position = static_cast<double>(taken + kPeriod - delay);
            if (played > kRate) {
                ASSERT_LT(played, made) << "underrun";
                ASSERT_NEAR(heard[static_cast<size_t>(played)] / 32768.0, sweep_at(position), 0.1) << now;
            }
            if (taken == kRate * 15)
                delay_early = delay;
            if (taken > kRate * 15) {
                ASSERT_NEAR(delay, delay_early, 1 + kRate / 1000) << now;
            }
            playback.advance(static_cast<double>(kPeriod) / kRate);
        }
        EXPECT_NEAR(matcher.state().step, 1 / (1 + ppm * kPpm), 5 * kPpm);
        EXPECT_EQ(matcher.state().set_points, 1);
    }
}

} // namespace
