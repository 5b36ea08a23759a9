// SPDX-License-Identifier: MIT
// The Linux platform's sound devices on real ALSA: a private sound server with null sinks is the hardware, what
// their monitors give is what was heard.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "aio_device.h"
#include "alsa_volume.h"
#include "blocked_call.h"
#include "config.h"
#include "hdmi_linux.h"
#include "iec958.h"
#include "log_capture.h"
#include "pulse_server.h"

namespace
{

using Clock = std::chrono::steady_clock;
using hdmi_linux::capture_stats;
using hdmi_linux::playback_stats;

constexpr int kRate = 48000;
constexpr int kPeriod = 960;
constexpr int kBlockBytes = kPeriod * 4;

PulseServer* g_server = nullptr;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Frames numbered from 1 on, wrapping before the sign: what is lost, doubled or changed shows.
constexpr int kNumbers = 32000;
std::vector<int16_t> numbered(int64_t first, int frames)
{
    std::vector<int16_t> words;
    for (int64_t frame = first; frame < first + frames; ++frame)
        words.insert(words.end(), 2, static_cast<int16_t>(frame % kNumbers + 1));
    return words;
}

// The runs of consecutive numbers in a recording, silence left out.
struct Stretch {
    int first;
    int last;
};
std::vector<Stretch> stretches(const std::vector<int16_t>& recorded)
{
    std::vector<Stretch> runs;
    for (const int16_t number : recorded) {
        if (number == 0)
            continue;
        if (!runs.empty() && number == runs.back().last % kNumbers + 1)
            runs.back().last = number;
        else
            runs.push_back({number, number});
    }
    return runs;
}

class AioAlsaTest : public testing::Test
{
protected:
    AioAlsaTest()
    {
        playback_.stream_type = E_AUDIO_STREAM_PLAYBACK;
        playback_.device_id = E_AUDIO_IO_DEV_SPEAKER;
        playback_.channels = 2;
        playback_.sample_rate = kRate;
        playback_.period_frames = kPeriod;
        playback_.period_count = 8;
        capture_ = playback_;
        capture_.stream_type = E_AUDIO_STREAM_CAPTURE;
        capture_.device_id = E_AUDIO_IO_DEV_HDMI_IN;
        capture_.period_count = 4;
        capture_.open_mode = 1;
        capture_.in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_NONE;
    }
    ~AioAlsaTest() override
    {
        aio_device_close(&playback_);
        aio_device_close(&capture_);
    }

    int write_numbered(int blocks)
    {
        int result = 0;
        for (; blocks > 0; --blocks) {
            const std::vector<int16_t> words = numbered(written_, kPeriod);
            result = aio_device_write(&playback_, reinterpret_cast<const uint8_t*>(words.data()), kBlockBytes);
            written_ += kPeriod;
        }
        return result;
    }
    int delay()
    {
        int frames = -1;
        EXPECT_EQ(aio_device_get_write_bytes(&playback_, &frames), 0);
        return frames;
    }

    audio_config_t playback_ = {};
    audio_config_t capture_ = {};
    int64_t written_ = 0;
};

// --- Sound ------------------------------------------------------------------------

TEST_F(AioAlsaTest, PlaysWhatIsWrittenAndCapturesWhatIsPlayed)
{
    ASSERT_EQ(aio_device_open(&capture_), 0);
    ASSERT_EQ(aio_device_open(&playback_), 0);
    std::vector<int16_t> heard;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::vector<int16_t> block(2 * kPeriod);
        while (!done &&
               aio_device_read(&capture_, reinterpret_cast<uint8_t*>(block.data()), kBlockBytes) == kBlockBytes)
            for (size_t at = 0; at < block.size(); at += 2)
                heard.push_back(block[at]);
    });
    const auto start = Clock::now();
    int most = 0;
    for (int block = 0; block < 50; ++block) {
        ASSERT_EQ(write_numbered(1), kBlockBytes);
        most = std::max(most, delay());
    }
    // A second of sound, less what the buffer and the server still hold.
    EXPECT_GT(seconds_since(start), 0.5);
    EXPECT_GT(most, kPeriod);
    EXPECT_LT(most, kRate);
    EXPECT_TRUE(eventually([&] { return delay() == 0 || playback_stats().xruns > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    done = true;
    reader.join();
    const std::vector<Stretch> runs = stretches(heard);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].first, 1);
    EXPECT_EQ(runs[0].last, 50 * kPeriod % kNumbers);
    EXPECT_EQ(playback_stats().frames, 50 * kPeriod);
    EXPECT_GE(capture_stats().frames, 50 * kPeriod);
}

TEST_F(AioAlsaTest, AClosedDeviceEndsABlockedCallAndRefusesTheNext)
{
    const auto minute = static_cast<size_t>(60) * kRate * 4;
    std::vector<uint8_t> out(minute);
    std::vector<uint8_t> in(minute);
    for (audio_config_t* device : {&playback_, &capture_}) {
        for (int round = 0; round < 3; ++round) {
            ASSERT_EQ(aio_device_open(device), 0);
            EXPECT_LT(aio_device_open(device), 0) << "open already";
            BlockedCall<int> call([&] {
                return device == &playback_ ? aio_device_write(device, out.data(), static_cast<int>(out.size()))
                                            : aio_device_read(device, in.data(), static_cast<int>(in.size()));
            });
            ASSERT_TRUE(call.asleep());
            if (device == &playback_)
                delay(); // does not wait for the write
            const auto start = Clock::now();
            EXPECT_EQ(aio_device_close(device), 0);
            EXPECT_LT(call.result(), static_cast<int>(minute));
            EXPECT_LT(seconds_since(start), 1.0);
            EXPECT_EQ(aio_device_close(device), 0) << "harmless";
        }
    }
    EXPECT_LT(aio_device_write(&playback_, out.data(), kBlockBytes), 0);
    EXPECT_LT(aio_device_read(&capture_, in.data(), kBlockBytes), 0);
    int frames = 7;
    EXPECT_LT(aio_device_get_write_bytes(&playback_, &frames), 0);
    EXPECT_EQ(frames, 7);
}

TEST_F(AioAlsaTest, ADeviceThatCannotGiveTheRateFailsToOpenAndSaysWhy)
{
    playback_.pcm_name = capture_.pcm_name = "fixed44";
    playback_.device_id = E_AUDIO_IO_DEV_SPDIF;
    const std::string log = logged("2", [&] {
        EXPECT_LT(aio_device_open(&playback_), 0);
        EXPECT_LT(aio_device_open(&playback_), 0);
        EXPECT_LT(aio_device_open(&capture_), 0);
    });
    EXPECT_EQ(occurrences(log, "spdif cannot play: fixed44: it cannot run at 48000 Hz, the nearest is 44100 Hz\n"), 1)
        << log;
    EXPECT_EQ(occurrences(log, "hdmi_in cannot capture: fixed44: it cannot run at 48000 Hz, the nearest is 44100 Hz\n"),
              1)
        << log;
    playback_.sample_rate = 44100;
    EXPECT_EQ(aio_device_open(&playback_), 0);
    aio_device_close(&playback_);
    // An analog output may convert.
    playback_.sample_rate = kRate;
    playback_.device_id = E_AUDIO_IO_DEV_SPEAKER;
    EXPECT_EQ(aio_device_open(&playback_), 0);
}

// --- Devices that change --------------------------------------------------------------

TEST_F(AioAlsaTest, AReselectedDeviceGoesOnWithWhatWasNotHeardYet)
{
    Recorder first("out_monitor");
    Recorder second("other_monitor");
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(write_numbered(20), kBlockBytes);
    EXPECT_LT(aio_device_reselect(&playback_, E_AUDIO_IO_DEV_I2S_TXA, E_AUDIO_IO_FORMAT_PCM), 0) << "there is none";
    ASSERT_EQ(write_numbered(1), kBlockBytes);
    const int before = delay();
    ASSERT_EQ(aio_device_reselect(&playback_, E_AUDIO_IO_DEV_HEADPHONE, E_AUDIO_IO_FORMAT_PCM), 0);
    EXPECT_NEAR(delay(), before, kRate / 20);
    ASSERT_EQ(write_numbered(12), kBlockBytes);
    EXPECT_TRUE(eventually([&] {
        const std::vector<Stretch> runs = stretches(second.left());
        return !runs.empty() && runs.back().last == written_ % kNumbers;
    }));
    const std::vector<Stretch> old_device = stretches(first.left());
    const std::vector<Stretch> new_device = stretches(second.left());
    ASSERT_EQ(old_device.size(), 1u);
    ASSERT_EQ(new_device.size(), 1u);
    // Every frame is heard; a few at the seam twice, as the server had mixed them already.
    EXPECT_EQ(old_device[0].first, 1);
    EXPECT_LE(new_device[0].first, old_device[0].last + 1);
    EXPECT_GT(new_device[0].first, old_device[0].last - kRate / 5);
    EXPECT_EQ(playback_stats().pcm, "other");
}

TEST_F(AioAlsaTest, ALostPlaybackDeviceComesBackAndTheClockNeverStops)
{
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(write_numbered(20), kBlockBytes);
    const int64_t losses = playback_stats().losses;
    g_server->kill();
    const auto start = Clock::now();
    for (int block = 0; block < 25; ++block) {
        ASSERT_EQ(write_numbered(1), kBlockBytes);
        ASSERT_GE(delay(), 0);
        ASSERT_LE(delay(), kRate / 2);
    }
    // Half a second of writes takes about that long without a device.
    EXPECT_GT(seconds_since(start), 0.25);
    EXPECT_EQ(playback_stats().losses, losses + 1);
    EXPECT_TRUE(playback_stats().lost);
    ASSERT_TRUE(g_server->start()) << g_server->why();
    Recorder recorder("out_monitor");
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(write_numbered(1), kBlockBytes);
        return !playback_stats().lost && stretches(recorder.left()).size() == 1;
    }));
    EXPECT_GT(playback_stats().frames_lost, 0);
    EXPECT_GT(playback_stats().recoveries, 0);
}

TEST_F(AioAlsaTest, ALostCaptureDeviceFailsAtOnceAndComesBack)
{
    ASSERT_EQ(aio_device_open(&capture_), 0);
    std::vector<uint8_t> block(kBlockBytes);
    ASSERT_EQ(aio_device_read(&capture_, block.data(), kBlockBytes), kBlockBytes);
    std::vector<uint8_t> minute(static_cast<size_t>(60) * kRate * 4);
    BlockedCall<int> blocked(
        [&] { return aio_device_read(&capture_, minute.data(), static_cast<int>(minute.size())); });
    ASSERT_TRUE(blocked.asleep());
    g_server->kill();
    EXPECT_LT(blocked.result(), 0);
    const auto start = Clock::now();
    EXPECT_LT(aio_device_read(&capture_, block.data(), kBlockBytes), 0);
    EXPECT_LT(seconds_since(start), 0.5);
    ASSERT_TRUE(g_server->start()) << g_server->why();
    EXPECT_TRUE(eventually([&] { return aio_device_read(&capture_, block.data(), kBlockBytes) == kBlockBytes; }));
    EXPECT_GT(capture_stats().recoveries, 0);
}

// --- Volume ---------------------------------------------------------------------------

TEST_F(AioAlsaTest, VolumeAndMuteScaleTheSamplesWhereThereIsNoMixer)
{
    Recorder recorder("out_monitor");
    ASSERT_EQ(aio_device_set_volume(&playback_, 50), 0);
    EXPECT_LT(aio_device_set_volume(&playback_, 101), 0);
    ASSERT_EQ(aio_device_open(&playback_), 0);
    const std::vector<int16_t> level(2 * kPeriod, 16000);
    const auto heard = [&](int value) {
        return eventually([&] {
            aio_device_write(&playback_, reinterpret_cast<const uint8_t*>(level.data()), kBlockBytes);
            const std::vector<int16_t> samples = recorder.left();
            return samples.size() > 500 &&
                   std::all_of(samples.end() - 500, samples.end(), [value](int16_t sample) { return sample == value; });
        });
    };
    EXPECT_TRUE(heard(2000)) << "an eighth: 18 dB less";
    ASSERT_EQ(aio_device_set_mute(&playback_, true), 0);
    EXPECT_TRUE(heard(0));
    ASSERT_EQ(aio_device_set_volume(&playback_, 100), 0);
    EXPECT_TRUE(heard(0)) << "still muted";
    ASSERT_EQ(aio_device_set_mute(&playback_, false), 0);
    EXPECT_TRUE(heard(16000));
    ASSERT_EQ(aio_device_set_volume_direct(&playback_, 51), 0);
    EXPECT_TRUE(heard(3200)) << "51 of 255 steps";
    EXPECT_LT(aio_device_set_volume_direct(&playback_, 256), 0);
    ASSERT_EQ(aio_device_set_volume(&playback_, 100), 0);
    // No step: the change from one volume to the next passes every level between.
    const std::vector<int16_t> samples = recorder.left();
    for (size_t at = 1; at < samples.size(); ++at)
        ASSERT_LE(std::abs(samples[at] - samples[at - 1]), at > 1 && samples[at - 1] == 0 ? 16000 : 100) << at;
}

TEST(AlsaVolume, PercentIsEvenToTheEar)
{
    using hdmi_linux::volume_decibels;
    // A control of a small range moves by the decibel.
    EXPECT_EQ(volume_decibels(50, -2000, 400), -800);
    // One of a large range, or one that ends in silence, by the cube root of the amplitude.
    EXPECT_EQ(volume_decibels(50, SND_CTL_TLV_DB_GAIN_MUTE, 0), -1806);
    EXPECT_EQ(volume_decibels(50, -6000, 0), -1558);
    for (const long min : {-9000L, -2400L, static_cast<long>(SND_CTL_TLV_DB_GAIN_MUTE)}) {
        EXPECT_EQ(volume_decibels(0, min, 600), min);
        EXPECT_EQ(volume_decibels(100, min, 600), 600);
    }
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    PulseServer server({"out", "other", "link"}, "pcm.fixed44 { type plug slave { pcm { type null } rate 44100 } }\n");
    g_server = &server;
    setenv("HDMIPLAYER_ALSA_SPEAKER", "out", 1);
    setenv("HDMIPLAYER_ALSA_HEADPHONE", "other", 1);
    setenv("HDMIPLAYER_ALSA_HDMI_IN", "out_monitor", 1);
    if (!server.start()) {
        std::cout << "SKIPPED: " << server.why() << std::endl;
        return 77;
    }
    return RUN_ALL_TESTS();
}
