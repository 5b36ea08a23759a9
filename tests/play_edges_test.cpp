// SPDX-License-Identifier: MIT
// What the play program concludes about real devices, from words of devices that are made up here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "allocations.h"
#include "edges/disturbances.h"
#include "signal/clock_track.h"
#include "signal/sound_file.h"

using namespace play;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int kRate = 48000;

/// A device whose clock is off, and that is asked up to @p late after its position moved.
class Device
{
public:
    Device(int64_t start_ns, double ppm, int64_t late_ns) : start_ns_(start_ns), ppm_(ppm), late_(0, late_ns) {}

    int64_t true_ns(int64_t position) const
    {
        return start_ns_ + std::llround(static_cast<double>(position) * 1e9 / (kRate * (1 + ppm_ * 1e-6)));
    }
    int64_t word_ns(int64_t position) { return true_ns(position) + late_(random_); }

private:
    const int64_t start_ns_;
    const double ppm_;
    std::uniform_int_distribution<int64_t> late_;
    std::mt19937 random_{7};
};

} // namespace

// --- Clocks ---------------------------------------------------------------------

TEST(ClockTrack, FindsTheTimeOfADriftingDeviceBetweenLateWords)
{
    Device device(500 * kSecond, 150, 4 * kMs);
    ClockTrack track(kRate);
    for (int64_t position = 0; position < 60 * kRate; position += 480)
        track.add(position, device.word_ns(position));
    for (int64_t position : {kRate / 2, 7 * kRate, 33 * kRate + 17, 60 * kRate}) {
        int64_t error_ns = track.time_of(static_cast<double>(position)) - device.true_ns(position);
        EXPECT_NEAR(static_cast<double>(error_ns) / kMs, 0.5, 0.5) << position;
        EXPECT_NEAR(track.position_at(track.time_of(static_cast<double>(position))), position, 0.01);
    }
    EXPECT_NEAR(track.drift_ppm(), 150, 30);
}

TEST(ClockTrack, ForgetsTheFirstGuessesAndSingleErrorsOfADevice)
{
    Device device(500 * kSecond, 0, kMs);
    ClockTrack track(kRate);
    for (int64_t position = 0; position < 5 * kRate; position += 480) {
        bool guess = position < kRate / 5;
        bool error = position % (20 * 480) == 0;
        track.add(position, device.word_ns(position) - (guess || error ? 40 * kMs : 0));
    }
    for (int64_t position : {0, kRate, 4 * kRate})
        EXPECT_NEAR(static_cast<double>(track.time_of(static_cast<double>(position)) - device.true_ns(position)) / kMs,
                    0.5, 0.6)
            << position;
}

TEST(ClockTrack, AnswersFromTheFirstWordOnAndAllocatesNothingWhileItLearns)
{
    Device device(500 * kSecond, 50, kMs);
    ClockTrack track(kRate);
    EXPECT_TRUE(track.empty());
    int64_t before = allocations();
    track.add(480, 501 * kSecond);
    EXPECT_FALSE(track.empty());
    EXPECT_EQ(track.time_of(480 + kRate), 502 * kSecond);
    EXPECT_NEAR(track.position_at(502 * kSecond), 480 + kRate, 0.01);
    for (int64_t position = 960; position < 1800 * kRate; position += 480)
        track.add(position, device.word_ns(position));
    EXPECT_EQ(allocations(), before);
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
        constexpr int kPeriod = 480;
        std::vector<int16_t> stereo(2 * kPeriod, value);
        for (int64_t done = 0; done < frames; done += kPeriod) {
            file->heard(file->frames() + kPeriod, heard_ns + (done + kPeriod) * kSecond / kRate);
            file->append(stereo.data(), kPeriod);
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
    SoundFile file(path, kRate);
    play(&file, 2 * kRate, 100 * kSecond);
    play(&file, 2 * kRate, 103 * kSecond);
    finish(&file);
    ASSERT_EQ(recording.frames(), 4 * kRate);
    EXPECT_NEAR(static_cast<double>(recording.heard_ns(kRate) - 101 * kSecond) / kMs, 0, 1);
    EXPECT_NEAR(static_cast<double>(recording.heard_ns(3 * kRate) - 104 * kSecond) / kMs, 0, 1);
    EXPECT_EQ(recording.gaps(0, 200 * kSecond), 1);
    int16_t frame[2] = {};
    EXPECT_EQ(recording.read(4 * kRate - 1, frame, 1), 1);
    EXPECT_EQ(frame[1], 100);
}

TEST_F(RecordedSoundFile, IsNotBrokenUpByAWrongWordNowAndThen)
{
    SoundFile file(path, kRate);
    for (int i = 0; i < 20; i++) {
        play(&file, kRate / 10, 100 * kSecond + i * kSecond / 10);
        file.heard(file.frames(), 90 * kSecond);
    }
    finish(&file);
    EXPECT_EQ(recording.gaps(0, 200 * kSecond), 0);
}

TEST_F(RecordedSoundFile, TellsWhenSoundIsBackAfterADisturbance)
{
    SoundFile file(path, kRate);
    play(&file, kRate, 100 * kSecond);
    play(&file, kRate / 2, 101 * kSecond, 0);
    play(&file, kRate, 101 * kSecond + 500 * kMs);
    file.begin_run();
    play(&file, kRate, 105 * kSecond);
    play(&file, kRate, 106 * kSecond, 0);
    finish(&file);
    auto found = [this](int64_t at_ns, int64_t from_ns, int64_t to_ns) {
        Silence silence = silence_around(recording, at_ns);
        return std::abs(silence.from_ns - from_ns) <= 2 * kMs && std::abs(silence.to_ns - to_ns) <= 2 * kMs;
    };
    EXPECT_TRUE(found(101 * kSecond + 20 * kMs, 101 * kSecond, 101500 * kMs)) << "noticed in the silence";
    EXPECT_TRUE(found(100700 * kMs, 101 * kSecond, 101500 * kMs)) << "noticed before what was queued ran out";
    EXPECT_TRUE(found(101900 * kMs, 101 * kSecond, 101500 * kMs)) << "noticed late";
    EXPECT_TRUE(found(103 * kSecond, 102500 * kMs, 105 * kSecond)) << "nothing was heard at all";
    EXPECT_TRUE(found(100300 * kMs, 0, 0)) << "no silence came of it";
    EXPECT_FALSE(silence_around(recording, 106 * kSecond + 10 * kMs).ends()) << "it did not come back";
}

TEST_F(RecordedSoundFile, AllocatesNothingWhereSoundIsHandedOver)
{
    SoundFile file(path, kRate);
    const std::vector<int16_t> period(2 * 480, 100);
    int64_t before = allocations();
    for (int64_t i = 0; i < 400; i++) {
        // A leap that nobody tells of.
        int64_t gone_ns = i < 200 ? 0 : 3 * kSecond;
        file.heard(file.frames() + 480, 100 * kSecond + i * 10 * kMs + gone_ns);
        file.append(period.data(), 480);
    }
    EXPECT_EQ(allocations(), before);
    finish(&file);
    EXPECT_EQ(recording.gaps(0, 200 * kSecond), 1);
}

TEST(DisturbanceLog, NotesEachTroubleAndWhenTheDeviceWorksAgain)
{
    DisturbanceLog log;
    DeviceCounts counts = {true, 1000, 5, 0, 0};
    log.look(counts, kSecond);
    counts.frames += 480;
    log.look(counts, kSecond + 10 * kMs);
    EXPECT_TRUE(log.all().empty()) << "what was counted before is not of this run";
    counts.losses++;
    counts.xruns++;
    counts.works = false;
    log.look(counts, kSecond + 20 * kMs);
    counts.frames += 480; // into nowhere
    log.look(counts, kSecond + 30 * kMs);
    ASSERT_EQ(log.all().size(), 1u);
    EXPECT_EQ(log.all()[0].kind, Disturbance::Kind::loss);
    EXPECT_EQ(log.all()[0].back_ns, -1);
    counts.works = true;
    counts.frames += 480;
    log.look(counts, kSecond + 90 * kMs);
    EXPECT_EQ(log.all()[0].back_ns, kSecond + 90 * kMs);
    EXPECT_EQ(log.count(0, kSecond + 20 * kMs), 0);
    EXPECT_EQ(log.count(0, kSecond + 21 * kMs), 1);
}
