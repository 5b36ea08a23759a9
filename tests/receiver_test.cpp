// SPDX-License-Identifier: MIT
// What the stand-in for the receiver's driver concludes from captured sound, made up here, and how its announcements
// reach the player inside the process.
#include "receiver/receiver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace hdmi_linux;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int kRate = 48000;

/// Feeds a watch period by period, at the pace of @p link_rate.
template <typename Watch> class Feeder
{
public:
    explicit Feeder(Watch* watch) : watch_(watch) {}

    /// @p frames of noise; every @p burst frames (0: never) a preamble, and the burst's data type.
    void feed(int64_t frames, int64_t burst, int type, double link_rate = kRate, int noise = 1000)
    {
        constexpr int kPeriod = 480;
        for (int64_t done = 0; done < frames; done += kPeriod) {
            int16_t words[2 * kPeriod];
            for (int i = 0; i < kPeriod; i++)
                put(&words[2 * i], burst, type, noise, position_++);
            now_ns_ += std::llround(kPeriod * 1e9 / link_rate);
            int64_t late_ns = late_(random_);
            watch_->feed(reinterpret_cast<const uint8_t*>(words), sizeof words, now_ns_ + late_ns);
        }
    }
    void pause(int64_t ns) { now_ns_ += ns; }

private:
    void put(int16_t* frame, int64_t burst, int type, int noise, int64_t position)
    {
        frame[0] = noise != 0 ? static_cast<int16_t>(random_() % noise + 1) : int16_t{0};
        frame[1] = frame[0];
        if (burst == 0 || position % burst > 1)
            return;
        bool preamble = position % burst == 0;
        frame[0] = preamble ? static_cast<int16_t>(0xF872) : static_cast<int16_t>(type);
        frame[1] = preamble ? int16_t{0x4E1F} : int16_t{6000};
    }

    Watch* watch_;
    int64_t position_ = 0;
    int64_t now_ns_ = kSecond;
    std::uniform_int_distribution<int64_t> late_{0, 3 * kMs};
    std::mt19937 random_{3};
};

LinkEvidence measured(double link_rate)
{
    LinkEvidence evidence;
    evidence.link_rate = link_rate;
    return evidence;
}

} // namespace

TEST(SignalWatch, TellsCompressedSoundFromPcmByItsPreambles)
{
    SignalWatch watch;
    Feeder feeder(&watch);
    feeder.feed(kRate, 0, 0, kRate, 0);
    EXPECT_EQ(watch.content(), Content::unknown) << "silence says nothing";
    feeder.feed(kRate / 3, 0, 0);
    EXPECT_EQ(watch.content(), Content::pcm);
    feeder.feed(4 * 1536, 1536, 1);
    EXPECT_EQ(watch.content(), Content::compressed);
    EXPECT_EQ(watch.frames_per_sample(), 1);
    feeder.feed(kRate, 0, 0, kRate, 0);
    EXPECT_EQ(watch.content(), Content::compressed) << "a pause of the source";
    feeder.feed(5 * 6144, 6144, 21);
    EXPECT_EQ(watch.frames_per_sample(), 4);
    feeder.feed(kRate / 3, 0, 0);
    EXPECT_EQ(watch.content(), Content::pcm);
}

TEST(SignalWatch, TakesPreamblesByChanceForPcm)
{
    SignalWatch watch;
    Feeder feeder(&watch);
    for (int64_t burst : {701, 1433, 997, 2111})
        feeder.feed(burst, burst, 1);
    EXPECT_NE(watch.content(), Content::compressed);
}

TEST(SignalWatch, MeasuresThePaceThroughJitterAndPauses)
{
    SignalWatch watch;
    Feeder feeder(&watch);
    feeder.feed(3 * kRate, 0, 0, 44100);
    EXPECT_EQ(watch.link_rate(), 0) << "one measurement may be wrong";
    feeder.feed(3 * kRate, 0, 0, 44100);
    EXPECT_NEAR(watch.link_rate(), 44100, 44100 * 0.002);
    feeder.pause(3 * kSecond);
    feeder.feed(5 * kRate, 0, 0, 44100);
    EXPECT_NEAR(watch.link_rate(), 44100, 44100 * 0.002);
    watch.restart_pace();
    feeder.feed(6 * kRate, 0, 0, 48000);
    EXPECT_NEAR(watch.link_rate(), 48000, 48000 * 0.002);
}

TEST(SharedWatch, ForgetsAtAChangeWhatWasMeasuredBeforeIt)
{
    SharedWatch watch;
    Feeder feeder(&watch);
    RateWatch rates;
    feeder.feed(6 * kRate, 0, 0, 44100);
    EXPECT_NEAR(watch.evidence().link_rate, 44100, 44100 * 0.002);
    watch.measure_anew();
    EXPECT_EQ(rates.look({false, 48000}, watch.evidence()), "") << "nothing was captured since";
    feeder.feed(kRate, 0, 0, 48000);
    EXPECT_EQ(rates.look({false, 48000}, watch.evidence()), "") << "too little was captured since";
    feeder.feed(5 * kRate, 0, 0, 48000);
    EXPECT_NEAR(watch.evidence().link_rate, 48000, 48000 * 0.002);
    EXPECT_EQ(watch.evidence().content, Content::pcm);
    watch.opened();
    EXPECT_EQ(watch.evidence().link_rate, 0) << "another stream";
}

TEST(DeriveState, PrefersControlsToMeasurementAndBothToWhatWasAnnounced)
{
    LinkState before = {false, 48000};
    EXPECT_EQ(derive_state(before, {}), before);
    EXPECT_EQ(derive_state(before, measured(44113)), (LinkState{false, 44100}));
    EXPECT_EQ(derive_state(before, measured(46000)), before) << "no rate of a source";
    LinkEvidence evidence = measured(44100);
    evidence.control_rate = 32000;
    EXPECT_EQ(derive_state(before, evidence), (LinkState{false, 32000}));
    evidence.control_rate = 96000;
    EXPECT_EQ(derive_state(before, evidence), (LinkState{false, 0})) << "not supported";
    evidence = {192000, Content::compressed, 4, 0};
    EXPECT_EQ(derive_state(before, evidence), (LinkState{true, 48000}));
    evidence.content = Content::pcm;
    evidence.control_rate = 48000;
    EXPECT_EQ(derive_state({true, 48000}, evidence), (LinkState{false, 48000}));
}

TEST(RateWatch, NamesASourceOfAnotherRateOncePerChange)
{
    RateWatch watch;
    LinkState announced = {false, 48000};
    EXPECT_EQ(watch.look(announced, measured(0)), "");
    EXPECT_EQ(watch.look(announced, measured(48200)), "");
    EXPECT_NE(watch.look(announced, measured(47700)).find("47700"), std::string::npos);
    EXPECT_EQ(watch.look(announced, measured(47690)), "");
    EXPECT_NE(watch.look(announced, measured(44100)), "");
    EXPECT_EQ(watch.look(announced, measured(48000)), "");
    EXPECT_NE(watch.look(announced, measured(44100)), "") << "gone and come again";
    EXPECT_EQ(watch.look({false, 44100}, measured(44100)), "");
    LinkEvidence coded = {-1, Content::compressed, 4, 192000};
    EXPECT_EQ(watch.look({true, 48000}, coded), "");
}
