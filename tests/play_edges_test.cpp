// SPDX-License-Identifier: MIT
// What the play program concludes about real devices, from words of devices that are made up here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "allocations.h"
#include "signal/clock_track.h"
#include "edges/disturbances.h"
#include "edges/signal_watch.h"
#include "signal/sound_file.h"

using namespace play;

namespace
{

constexpr int64_t ms = 1'000'000;
constexpr int64_t second = 1000 * ms;
constexpr int rate = 48000;

/// A device whose clock is off, and that is asked up to @p late after its position moved.
class Device
{
public:
    Device(int64_t start_ns, double ppm, int64_t late_ns) : m_start_ns(start_ns), m_ppm(ppm), m_late(0, late_ns) {}

    int64_t true_ns(int64_t position) const
    {
        return m_start_ns + std::llround(static_cast<double>(position) * 1e9 / (rate * (1 + m_ppm * 1e-6)));
    }
    int64_t word_ns(int64_t position) { return true_ns(position) + m_late(m_random); }

private:
    const int64_t m_start_ns;
    const double m_ppm;
    std::uniform_int_distribution<int64_t> m_late;
    std::mt19937 m_random{7};
};

} // namespace

// --- Clocks ---------------------------------------------------------------------

TEST(ClockTrack, FindsTheTimeOfADriftingDeviceBetweenLateWords)
{
    Device device(500 * second, 150, 4 * ms);
    ClockTrack track(rate);
    for (int64_t position = 0; position < 60 * rate; position += 480)
        track.add(position, device.word_ns(position));
    for (int64_t position : {rate / 2, 7 * rate, 33 * rate + 17, 60 * rate}) {
        int64_t error_ns = track.time_of(static_cast<double>(position)) - device.true_ns(position);
        EXPECT_NEAR(static_cast<double>(error_ns) / ms, 0.5, 0.5) << position;
        EXPECT_NEAR(track.position_at(track.time_of(static_cast<double>(position))), position, 0.01);
    }
    EXPECT_NEAR(track.drift_ppm(), 150, 30);
}

TEST(ClockTrack, ForgetsTheFirstGuessesAndSingleErrorsOfADevice)
{
    Device device(500 * second, 0, ms);
    ClockTrack track(rate);
    for (int64_t position = 0; position < 5 * rate; position += 480) {
        bool guess = position < rate / 5;
        bool error = position % (20 * 480) == 0;
        track.add(position, device.word_ns(position) - (guess || error ? 40 * ms : 0));
    }
    for (int64_t position : {0, rate, 4 * rate})
        EXPECT_NEAR(static_cast<double>(track.time_of(static_cast<double>(position)) - device.true_ns(position)) / ms,
                    0.5, 0.6)
            << position;
}

TEST(ClockTrack, AnswersFromTheFirstWordOn)
{
    ClockTrack track(rate);
    EXPECT_TRUE(track.empty());
    track.add(480, 3 * second);
    EXPECT_FALSE(track.empty());
    EXPECT_EQ(track.time_of(480 + rate), 4 * second);
    EXPECT_NEAR(track.position_at(4 * second), 480 + rate, 0.01);
}

TEST(ClockTrack, AllocatesNothingWhileItLearns)
{
    Device device(500 * second, 50, ms);
    ClockTrack track(rate);
    int64_t before = allocations();
    for (int64_t position = 0; position < 1800 * rate; position += 480)
        track.add(position, device.word_ns(position));
    EXPECT_EQ(allocations(), before);
}

// --- What is captured --------------------------------------------------------------

namespace
{

/// Feeds a watch period by period, at the pace of @p link_rate.
template <typename Watch> class Feeder
{
public:
    explicit Feeder(Watch* watch) : m_watch(watch) {}

    /// @p frames of noise; every @p burst frames (0: never) a preamble, and the burst's data type.
    void feed(int64_t frames, int64_t burst, int type, double link_rate = rate, int noise = 1000)
    {
        constexpr int period = 480;
        for (int64_t done = 0; done < frames; done += period) {
            int16_t words[2 * period];
            for (int i = 0; i < period; i++)
                put(&words[2 * i], burst, type, noise, m_position++);
            m_now_ns += std::llround(period * 1e9 / link_rate);
            int64_t late_ns = m_late(m_random);
            m_watch->feed(reinterpret_cast<const uint8_t*>(words), sizeof words, m_now_ns + late_ns);
        }
    }
    void pause(int64_t ns) { m_now_ns += ns; }

private:
    void put(int16_t* frame, int64_t burst, int type, int noise, int64_t position)
    {
        frame[0] = noise != 0 ? static_cast<int16_t>(m_random() % noise + 1) : int16_t{0};
        frame[1] = frame[0];
        if (burst == 0 || position % burst > 1)
            return;
        bool preamble = position % burst == 0;
        frame[0] = preamble ? static_cast<int16_t>(0xF872) : static_cast<int16_t>(type);
        frame[1] = preamble ? int16_t{0x4E1F} : int16_t{6000};
    }

    Watch* m_watch;
    int64_t m_position = 0;
    int64_t m_now_ns = second;
    std::uniform_int_distribution<int64_t> m_late{0, 3 * ms};
    std::mt19937 m_random{3};
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
    feeder.feed(rate, 0, 0, rate, 0);
    EXPECT_EQ(watch.content(), Content::unknown) << "silence says nothing";
    feeder.feed(rate / 3, 0, 0);
    EXPECT_EQ(watch.content(), Content::pcm);
    feeder.feed(4 * 1536, 1536, 1);
    EXPECT_EQ(watch.content(), Content::compressed);
    EXPECT_EQ(watch.frames_per_sample(), 1);
    feeder.feed(rate, 0, 0, rate, 0);
    EXPECT_EQ(watch.content(), Content::compressed) << "a pause of the source";
    feeder.feed(5 * 6144, 6144, 21);
    EXPECT_EQ(watch.frames_per_sample(), 4);
    feeder.feed(rate / 3, 0, 0);
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
    feeder.feed(3 * rate, 0, 0, 44100);
    EXPECT_EQ(watch.link_rate(), 0) << "one measurement may be wrong";
    feeder.feed(3 * rate, 0, 0, 44100);
    EXPECT_NEAR(watch.link_rate(), 44100, 44100 * 0.002);
    feeder.pause(3 * second);
    feeder.feed(5 * rate, 0, 0, 44100);
    EXPECT_NEAR(watch.link_rate(), 44100, 44100 * 0.002);
    watch.restart_pace();
    feeder.feed(6 * rate, 0, 0, 48000);
    EXPECT_NEAR(watch.link_rate(), 48000, 48000 * 0.002);
}

TEST(SharedWatch, ForgetsAtAChangeWhatWasMeasuredBeforeIt)
{
    SharedWatch watch;
    Feeder feeder(&watch);
    RateWatch rates;
    feeder.feed(6 * rate, 0, 0, 44100);
    EXPECT_NEAR(watch.evidence().link_rate, 44100, 44100 * 0.002);
    watch.measure_anew();
    EXPECT_EQ(rates.look({false, 48000}, watch.evidence()), "") << "nothing was captured since";
    feeder.feed(rate, 0, 0, 48000);
    EXPECT_EQ(rates.look({false, 48000}, watch.evidence()), "") << "too little was captured since";
    feeder.feed(5 * rate, 0, 0, 48000);
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

// --- Recordings and disturbances -----------------------------------------------------

class RecordedSoundFile : public testing::Test
{
protected:
    RecordedSoundFile() : path(testing::TempDir() + "play_edges_" + std::to_string(getpid()) + ".wav") {}
    ~RecordedSoundFile() override
    {
        unlink(path.c_str());
        unlink((path + ".blocks.csv").c_str());
    }

    /// @p frames of sound (or of silence), heard from @p heard_ns on, each period announced as a device would.
    void play(SoundFile* file, int64_t frames, int64_t heard_ns, int16_t value = 100)
    {
        constexpr int period = 480;
        std::vector<int16_t> stereo(2 * period, value);
        for (int64_t done = 0; done < frames; done += period) {
            file->heard(file->frames() + period, heard_ns + (done + period) * second / rate);
            file->append(stereo.data(), period);
        }
    }
    void finish(SoundFile* file)
    {
        std::string error;
        ASSERT_TRUE(file->finish(&error)) << error;
        ASSERT_TRUE(recording.open(path, file->blocks(), &error)) << error;
    }

    const std::string path;
    Recording recording;
};

TEST_F(RecordedSoundFile, KnowsWhenWhatWasHeardAcrossABreakThatNobodyTold)
{
    SoundFile file(path, rate);
    play(&file, 2 * rate, 100 * second);
    play(&file, 2 * rate, 103 * second);
    finish(&file);
    ASSERT_EQ(recording.frames(), 4 * rate);
    EXPECT_NEAR(static_cast<double>(recording.heard_ns(rate) - 101 * second) / ms, 0, 1);
    EXPECT_NEAR(static_cast<double>(recording.heard_ns(3 * rate) - 104 * second) / ms, 0, 1);
    EXPECT_EQ(recording.gaps(0, 200 * second), 1);
    int16_t frame[2] = {};
    EXPECT_EQ(recording.read(4 * rate - 1, frame, 1), 1);
    EXPECT_EQ(frame[1], 100);
}

TEST_F(RecordedSoundFile, IsNotBrokenUpByAWrongWordNowAndThen)
{
    SoundFile file(path, rate);
    for (int i = 0; i < 20; i++) {
        play(&file, rate / 10, 100 * second + i * second / 10);
        file.heard(file.frames(), 90 * second);
    }
    finish(&file);
    EXPECT_EQ(recording.gaps(0, 200 * second), 0);
}

TEST_F(RecordedSoundFile, TellsWhenSoundIsBackAfterADisturbance)
{
    SoundFile file(path, rate);
    play(&file, rate, 100 * second);
    play(&file, rate / 2, 101 * second, 0);
    play(&file, rate, 101 * second + 500 * ms);
    file.begin_run();
    play(&file, rate, 105 * second);
    play(&file, rate, 106 * second, 0);
    finish(&file);
    auto found = [this](int64_t at_ns, int64_t from_ns, int64_t to_ns) {
        Silence silence = silence_around(recording, at_ns);
        return std::abs(silence.from_ns - from_ns) <= 2 * ms && std::abs(silence.to_ns - to_ns) <= 2 * ms;
    };
    EXPECT_TRUE(found(101 * second + 20 * ms, 101 * second, 101500 * ms)) << "noticed in the silence";
    EXPECT_TRUE(found(100700 * ms, 101 * second, 101500 * ms)) << "noticed before what was queued ran out";
    EXPECT_TRUE(found(101900 * ms, 101 * second, 101500 * ms)) << "noticed late";
    EXPECT_TRUE(found(103 * second, 102500 * ms, 105 * second)) << "nothing was heard at all";
    EXPECT_TRUE(found(100300 * ms, 0, 0)) << "no silence came of it";
    EXPECT_FALSE(silence_around(recording, 106 * second + 10 * ms).ends()) << "it did not come back";
}

TEST_F(RecordedSoundFile, AllocatesNothingWhereSoundIsHandedOver)
{
    SoundFile file(path, rate);
    const std::vector<int16_t> period(2 * 480, 100);
    int64_t before = allocations();
    for (int64_t i = 0; i < 400; i++) {
        // A leap that nobody tells of.
        int64_t gone_ns = i < 200 ? 0 : 3 * second;
        file.heard(file.frames() + 480, 100 * second + i * 10 * ms + gone_ns);
        file.append(period.data(), 480);
    }
    EXPECT_EQ(allocations(), before);
    finish(&file);
    EXPECT_EQ(recording.gaps(0, 200 * second), 1);
}

TEST(DisturbanceLog, NotesEachTroubleAndWhenTheDeviceWorksAgain)
{
    DisturbanceLog log;
    DeviceCounts counts = {true, 1000, 5, 0, 0};
    log.look(counts, second);
    counts.frames += 480;
    log.look(counts, second + 10 * ms);
    EXPECT_TRUE(log.all().empty()) << "what was counted before is not of this run";
    counts.losses++;
    counts.xruns++;
    counts.works = false;
    log.look(counts, second + 20 * ms);
    counts.frames += 480; // into nowhere
    log.look(counts, second + 30 * ms);
    ASSERT_EQ(log.all().size(), 1u);
    EXPECT_EQ(log.all()[0].kind, Disturbance::Kind::loss);
    EXPECT_EQ(log.all()[0].back_ns, -1);
    counts.works = true;
    counts.frames += 480;
    log.look(counts, second + 90 * ms);
    EXPECT_EQ(log.all()[0].back_ns, second + 90 * ms);
    EXPECT_EQ(log.count(0, second + 20 * ms), 0);
    EXPECT_EQ(log.count(0, second + 21 * ms), 1);
}
