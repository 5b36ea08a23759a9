// SPDX-License-Identifier: MIT
// The Linux platform's sound devices on real ALSA. The null sinks of a private sound server stand in for the hardware,
// and their monitors record what was heard.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "aio_device.h"
#include "alsa_playback.h"
#include "alsa_volume.h"
#include "blocked_call.h"
#include "config.h"
#include "hdmi_linux.h"
#include "log_capture.h"
#include "pulse_server.h"
#include "sound_fixture.h"

// Replace alsa-lib's functions, to simulate a suspended and a broken card, and one with another clock.
extern "C" {
snd_pcm_sframes_t __real_snd_pcm_writei(snd_pcm_t* pcm, const void* data, snd_pcm_uframes_t frames);
snd_pcm_sframes_t __wrap_snd_pcm_writei(snd_pcm_t* pcm, const void* data, snd_pcm_uframes_t frames);
snd_pcm_sframes_t __real_snd_pcm_readi(snd_pcm_t* pcm, void* data, snd_pcm_uframes_t frames);
snd_pcm_sframes_t __wrap_snd_pcm_readi(snd_pcm_t* pcm, void* data, snd_pcm_uframes_t frames);
int __wrap_snd_pcm_resume(snd_pcm_t* pcm);
int __real_snd_pcm_delay(snd_pcm_t* pcm, snd_pcm_sframes_t* frames);
int __wrap_snd_pcm_delay(snd_pcm_t* pcm, snd_pcm_sframes_t* frames);
}

namespace
{

using Clock = std::chrono::steady_clock;
using hdmi_linux::capture_stats;
using hdmi_linux::playback_stats;

PulseServer* g_server = nullptr;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Calls of snd_pcm_resume() until the hardware is awake; 0: it is.
std::atomic<int> g_asleep{0};
// Every transfer fails with an xrun.
std::atomic<bool> g_broken{false};
// Likewise to an output.
std::atomic<bool> g_output_broken{false};

// @return the error of a transfer; 0: the device does it.
int transfer_error()
{
    if (g_broken)
        return -EPIPE;
    return g_asleep > 0 ? -ESTRPIPE : 0;
}

// The device "fast" is faster than others by so much, and was given so many frames since its first.
constexpr double kFaster = 0.002;
std::atomic<int64_t> g_given{0};
std::atomic<double> g_given_since{0};

// The state of the device that was last asked for its delay, and how often one was.
std::atomic<snd_pcm_state_t> g_state{SND_PCM_STATE_OPEN};
std::atomic<int> g_asked{0};

double steady_seconds() { return std::chrono::duration<double>(Clock::now().time_since_epoch()).count(); }
bool is_fast(snd_pcm_t* pcm) { return std::string(snd_pcm_name(pcm)) == "fast"; }

class AioAlsaTest : public AudioDevices
{
protected:
    // A transfer for a minute.
    BlockedCall<int> blocked_transfer(audio_config_t* device)
    {
        return BlockedCall<int>([this, device] {
            return device == &playback_ ? aio_device_write(device, minute_.data(), kMinuteBytes)
                                        : aio_device_read(device, minute_.data(), kMinuteBytes);
        });
    }
    bool captures() { return aio_device_read(&capture_, block_.data(), kBlockBytes) == kBlockBytes; }
    // Captures the link, to be passed on.
    void take_link()
    {
        capture_.pcm_name = "link_monitor";
        capture_.period_count = 16; // the machine may be busy
        capture_.in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_TO_RAW;
        ASSERT_EQ(aio_device_open(&capture_), 0);
    }

    static constexpr int kMinuteBytes = 60 * kRate * 4;
    std::vector<uint8_t> minute_ = std::vector<uint8_t>(kMinuteBytes);
    std::vector<uint8_t> block_ = std::vector<uint8_t>(kBlockBytes);
};

} // namespace

snd_pcm_sframes_t __wrap_snd_pcm_writei(snd_pcm_t* pcm, const void* data, snd_pcm_uframes_t frames)
{
    const int err = g_output_broken ? -EPIPE : transfer_error();
    if (err != 0)
        return err;
    const snd_pcm_sframes_t given = __real_snd_pcm_writei(pcm, data, frames);
    if (is_fast(pcm) && given > 0 && g_given.fetch_add(given) == 0)
        g_given_since = steady_seconds();
    return given;
}

int __wrap_snd_pcm_delay(snd_pcm_t* pcm, snd_pcm_sframes_t* frames)
{
    const int err = __real_snd_pcm_delay(pcm, frames);
    g_state = snd_pcm_state(pcm);
    ++g_asked;
    if (is_fast(pcm))
        *frames = g_given - std::lround((steady_seconds() - g_given_since) * kRate * (1 + kFaster)) + kRate / 10;
    return err;
}

snd_pcm_sframes_t __wrap_snd_pcm_readi(snd_pcm_t* pcm, void* data, snd_pcm_uframes_t frames)
{
    const int err = transfer_error();
    return err != 0 ? err : __real_snd_pcm_readi(pcm, data, frames);
}

int __wrap_snd_pcm_resume(snd_pcm_t*) { return --g_asleep > 0 ? -EAGAIN : -ENOSYS; }

namespace
{

// A recording has breaks where the machine was busy for longer than the buffers last.
int64_t longest(const std::vector<NumberRun>& runs)
{
    int64_t frames = 0;
    for (const NumberRun& run : runs)
        frames = std::max<int64_t>(frames, run.frames);
    return frames;
}

// --- Sound ------------------------------------------------------------------------

TEST_F(AioAlsaTest, PlaysWhatIsWrittenAndCapturesWhatIsPlayed)
{
    ASSERT_EQ(aio_device_open(&capture_), 0);
    ASSERT_EQ(aio_device_open(&playback_), 0);
    std::vector<int16_t> heard;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done && read_block(&heard) == kBlockBytes) {
        }
    });
    const auto start = Clock::now();
    int most = 0;
    for (int block = 0; block < 50; ++block) {
        ASSERT_EQ(write_numbered(), kBlockBytes);
        most = std::max(most, delay());
    }
    // A second of sound was written; the buffer and the server still hold a part of it.
    EXPECT_GT(seconds_since(start), 0.5);
    EXPECT_GT(most, kPeriod);
    EXPECT_LT(most, kRate);
    EXPECT_TRUE(eventually([&] { return delay() < kPeriod / 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    done = true;
    reader.join();
    const std::vector<NumberRun> runs = number_runs(heard);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].first, 1);
    EXPECT_EQ(runs[0].last, 50 * kPeriod % kNumbers);
    EXPECT_EQ(playback_stats().frames, 50 * kPeriod);
    EXPECT_GE(capture_stats().frames, 50 * kPeriod);
}

TEST_F(AioAlsaTest, ARequestThatNoDeviceCanTakeIsRefused)
{
    const auto refused = [](audio_config_t config, auto member, auto value) {
        config.*member = value;
        EXPECT_LT(aio_device_open(&config), 0) << value;
        aio_device_close(&config);
    };
    for (const audio_config_t& config : {playback_, capture_}) {
        for (const int channels : {-1, 0, 9})
            refused(config, &audio_config_t::channels, channels);
        for (const int device : {-1, static_cast<int>(E_AUDIO_IO_DEV_MAX)})
            refused(config, &audio_config_t::device_id, device);
        for (const int number : {-1, 0, 1 << 30}) {
            refused(config, &audio_config_t::period_frames, number);
            refused(config, &audio_config_t::period_count, number);
        }
        refused(config, &audio_config_t::sample_rate, -1);
        refused(config, &audio_config_t::sample_rate, 1 << 30);
    }
    refused(playback_, &audio_config_t::sample_rate, 0);
    refused(playback_, &audio_config_t::output_fmt, static_cast<int>(E_AUDIO_IO_FORMAT_MAX));
    capture_.in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_TO_RAW;
    refused(capture_, &audio_config_t::channels, 1); // a burst's words come in pairs
    EXPECT_EQ(aio_device_open(&playback_), 0) << "as it was";
    EXPECT_LT(aio_device_open(&playback_), 0) << "open already";
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

TEST_F(AioAlsaTest, ADeviceThatRanEmptyStartsAgainWithNoMoreThanAtFirst)
{
    Recorder recorder("out_monitor");
    ASSERT_EQ(aio_device_open(&playback_), 0);
    const int64_t xruns = playback_stats().xruns;
    for (int64_t start = 0; start < 5; ++start) {
        ASSERT_EQ(write_numbered(), kBlockBytes);
        EXPECT_EQ(delay(), kPeriod) << "waits, whatever was queued before";
        EXPECT_EQ(playback_stats().queued, kPeriod);
        const auto begin = Clock::now();
        ASSERT_EQ(write_numbered(), kBlockBytes);
        const int asked = g_asked;
        const int64_t counted = playback_stats().queued;
        EXPECT_EQ(g_asked, asked) << "who reads the counters does not disturb the device";
        const int left = delay();
        const int heard = static_cast<int>(seconds_since(begin) * kRate);
        EXPECT_GE(std::min<int64_t>(counted, left), 2 * kPeriod - heard) << "not heard before its time";
        EXPECT_TRUE(eventually([&] {
            const std::vector<NumberRun> runs = number_runs(recorder.left());
            return !runs.empty() && runs.back().last == written_;
        })) << "two periods are enough";
        EXPECT_TRUE(eventually([&] { return delay() == 0 && g_state == SND_PCM_STATE_XRUN; }));
        EXPECT_TRUE(eventually([] { return playback_stats().queued == 0; }));
        EXPECT_EQ(playback_stats().xruns, xruns + start);
    }
}

TEST_F(AioAlsaTest, WhatComesTooLateAfterAnUnderrunIsLeftOutAndThePlanIsKept)
{
    constexpr int kReserve = 3 * kPeriod;
    ASSERT_EQ(aio_device_open(&playback_), 0);
    const auto keep_reserve = [this](int blocks) {
        for (; blocks > 0; --blocks) {
            eventually([this] { return delay() <= kReserve; });
            ASSERT_EQ(write_numbered(), kBlockBytes);
        }
    };
    // On a machine that was busy for longer than the reserve lasts, the device learns it anew.
    EXPECT_TRUE(eventually([&] {
        keep_reserve(100);
        const bool ran_empty = eventually([&] { return delay() == 0 && g_state == SND_PCM_STATE_XRUN; });
        write_numbered(15);
        return ran_empty && playback_stats().left_out > 0;
    }));
    EXPECT_LE(delay(), kReserve + 2 * kPeriod) << "the device takes eight periods";
}

TEST_F(AioAlsaTest, SoundFromAnotherClockIsMatchedUnlessTheConfigurationSaysThatItIsTheSame)
{
    for (const bool matched : {true, false}) {
        setenv("HDMIPLAYER_RATE_MATCHING", matched ? "auto" : "off", 1);
        Recorder recorder("out_monitor");
        ASSERT_EQ(aio_device_open(&playback_), 0);
        ASSERT_EQ(write_numbered(2), kBlockBytes);
        EXPECT_FALSE(playback_stats().matched) << "nothing is captured";
        ASSERT_EQ(aio_device_open(&capture_), 0);
        const int before = delay();
        ASSERT_EQ(write_numbered(), kBlockBytes);
        EXPECT_EQ(playback_stats().matched, matched);
        EXPECT_LE(delay(), before + kPeriod);
        ASSERT_EQ(write_numbered(25), kBlockBytes);
        ASSERT_EQ(aio_device_reselect(&playback_, E_AUDIO_IO_DEV_HEADPHONE, E_AUDIO_IO_FORMAT_PCM), 0);
        EXPECT_EQ(playback_stats().matched, matched) << "goes along";
        ASSERT_EQ(write_numbered(25), kBlockBytes);
        aio_device_close(&playback_);
        aio_device_close(&capture_);
        // A resampler's filter is heard, if only in the last bit.
        EXPECT_EQ(longest(number_runs(recorder.left())) > 4 * kPeriod, !matched);
        EXPECT_FALSE(recorder.left().empty());
    }
}

// --- Devices that change --------------------------------------------------------------

TEST_F(AioAlsaTest, AReselectedDeviceGoesOnWithWhatWasNotHeardYet)
{
    Recorder first("out_monitor");
    Recorder second("other_monitor");
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(write_numbered(20), kBlockBytes);
    EXPECT_LT(aio_device_reselect(&playback_, E_AUDIO_IO_DEV_I2S_TXA, E_AUDIO_IO_FORMAT_PCM), 0) << "there is none";
    ASSERT_EQ(write_numbered(), kBlockBytes);
    const auto start = Clock::now();
    const int before = delay();
    ASSERT_EQ(aio_device_reselect(&playback_, E_AUDIO_IO_DEV_HEADPHONE, E_AUDIO_IO_FORMAT_PCM), 0);
    const int after = delay();
    EXPECT_LE(after, before + kRate / 20);
    EXPECT_GE(after, before - static_cast<int>(seconds_since(start) * kRate) - kRate / 20) << "only time takes from it";
    ASSERT_EQ(write_numbered(12), kBlockBytes);
    EXPECT_TRUE(eventually([&] {
        const std::vector<NumberRun> runs = number_runs(second.left());
        return !runs.empty() && runs.back().last == written_ % kNumbers;
    }));
    const std::vector<NumberRun> old_device = number_runs(first.left());
    const std::vector<NumberRun> new_device = number_runs(second.left());
    ASSERT_EQ(old_device.size(), 1u);
    ASSERT_EQ(new_device.size(), 1u);
    // Every frame is heard. A few are heard on both devices, because the server had mixed them already.
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
        ASSERT_EQ(write_numbered(), kBlockBytes);
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
        EXPECT_EQ(write_numbered(), kBlockBytes);
        return !playback_stats().lost && number_runs(recorder.left()).size() == 1;
    }));
    EXPECT_GT(playback_stats().frames_lost, 0);
    EXPECT_GT(playback_stats().recoveries, 0);
}

TEST_F(AioAlsaTest, ALostCaptureDeviceIsSilentAtItsPaceAndComesBack)
{
    ASSERT_EQ(aio_device_open(&capture_), 0);
    ASSERT_TRUE(captures());
    const auto start = Clock::now();
    int64_t frames = 0;
    const auto read_on = [&](double seconds) {
        for (const auto begin = Clock::now(); seconds_since(begin) < seconds; frames += kPeriod)
            ASSERT_TRUE(captures());
    };
    g_server->kill();
    read_on(0.5);
    EXPECT_TRUE(capture_stats().lost);
    EXPECT_EQ(block_, std::vector<uint8_t>(kBlockBytes));
    ASSERT_TRUE(g_server->start()) << g_server->why();
    const int64_t recoveries = capture_stats().recoveries;
    while (capture_stats().recoveries == recoveries && seconds_since(start) < 10)
        read_on(0.02);
    read_on(0.2);
    EXPECT_FALSE(capture_stats().lost);
    // The silence has the length of the loss, so the sound after it is in sync with the video.
    EXPECT_NEAR(static_cast<double>(frames) / kRate, seconds_since(start), 0.1);
    // A close does not wait for the device.
    g_server->kill();
    BlockedCall<int> blocked([&] {
        while (captures()) {
        }
        return 0;
    });
    EXPECT_TRUE(eventually([] { return capture_stats().lost; }));
    aio_device_close(&capture_);
    EXPECT_EQ(blocked.result(), 0);
    ASSERT_TRUE(g_server->start()) << g_server->why();
}

// Stops the sound server, the only child of this program, for a scope.
class ServerPause
{
public:
    ServerPause()
    {
        std::ifstream("/proc/self/task/" + std::to_string(getpid()) + "/children") >> pid_;
        if (pid_ > 0)
            kill(pid_, SIGSTOP);
    }
    ~ServerPause() { end(); }
    ServerPause(const ServerPause&) = delete;
    ServerPause& operator=(const ServerPause&) = delete;

    bool begun() const { return pid_ > 0; }
    void end()
    {
        if (pid_ > 0)
            kill(pid_, SIGCONT);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

TEST_F(AioAlsaTest, AServerThatDoesNotAnswerHoldsUpNoClose)
{
    for (audio_config_t* device : {&playback_, &capture_}) {
        ASSERT_EQ(aio_device_open(device), 0);
        const int64_t frames = playback_stats().frames;
        BlockedCall<int> call = blocked_transfer(device);
        ASSERT_TRUE(call.asleep());
        // The start of playback waits for the server, so it must be over.
        const bool plays = device == &playback_;
        ASSERT_TRUE(eventually([&] { return !plays || playback_stats().frames > frames + 12 * kPeriod; }));
        ServerPause pause;
        ASSERT_TRUE(pause.begun());
        const auto start = Clock::now();
        const std::string log = logged("2", [&] { EXPECT_EQ(aio_device_close(device), 0); });
        EXPECT_LT(seconds_since(start), 5);
        EXPECT_EQ(occurrences(log, "a sound server does not answer"), 1) << log;
        EXPECT_LT(call.result(), kMinuteBytes);
        pause.end();
        EXPECT_TRUE(eventually([&] { return aio_device_open(device) == 0; }));
        EXPECT_EQ(aio_device_close(device), 0);
    }
}

TEST_F(AioAlsaTest, AServerThatDoesNotAnswerIsLostAndTheClockGoesOn)
{
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(write_numbered(20), kBlockBytes);
    const int64_t losses = playback_stats().losses;
    ServerPause pause;
    ASSERT_TRUE(pause.begun());
    EXPECT_TRUE(eventually([&] { return write_numbered() == kBlockBytes && playback_stats().losses > losses; }));
    const auto start = Clock::now();
    ASSERT_EQ(write_numbered(50), kBlockBytes);
    EXPECT_GT(seconds_since(start), 0.5);
    EXPECT_LT(seconds_since(start), 5) << "nothing waits for the server";
    EXPECT_LE(delay(), kRate / 2);
    pause.end();
    EXPECT_TRUE(plays_again());
}

TEST_F(AioAlsaTest, ASuspendedDeviceWakesUpInItsOwnTime)
{
    constexpr int kTries = 10; // some 200 ms
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(write_numbered(12), kBlockBytes);
    g_asleep = kTries;
    const auto start = Clock::now();
    const int64_t recoveries = playback_stats().recoveries;
    EXPECT_TRUE(
        eventually([&] { return write_numbered() == kBlockBytes && playback_stats().recoveries > recoveries; }));
    EXPECT_GT(seconds_since(start), 0.15);
    EXPECT_EQ(playback_stats().suspends, 1);
    Recorder recorder("out_monitor");
    EXPECT_TRUE(is_heard(recorder));
    aio_device_close(&playback_);

    ASSERT_EQ(aio_device_open(&capture_), 0);
    recorder.stop();
    ASSERT_TRUE(captures());
    g_asleep = kTries;
    EXPECT_TRUE(eventually([&] { return captures() && capture_stats().suspends == 1 && !capture_stats().lost; }));
}

TEST_F(AioAlsaTest, ADeviceThatFailsOverAndOverIsGivenUpAndTriedOnceASecond)
{
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(aio_device_open(&capture_), 0);
    ASSERT_TRUE(captures());
    const int64_t losses = playback_stats().losses + capture_stats().losses;
    g_broken = true;
    const auto start = Clock::now();
    while (seconds_since(start) < 0.5) {
        EXPECT_EQ(write_numbered(), kBlockBytes);
        EXPECT_TRUE(captures()) << "of silence";
    }
    // Per device: one loss at once, one after its first recovery, and one a second later on a slow machine.
    EXPECT_LE(playback_stats().losses + capture_stats().losses, losses + 6);
    g_broken = false;
    EXPECT_TRUE(plays_again());
    EXPECT_TRUE(eventually([&] { return captures() && !capture_stats().lost; }));
}

TEST_F(AioAlsaTest, SilenceStandsForTheLossAloneAndForASecondAtMost)
{
    ASSERT_EQ(aio_device_open(&capture_), 0);
    ASSERT_TRUE(captures());
    const auto read_for = [this](int blocks) {
        const auto start = Clock::now();
        while (blocks-- > 0)
            EXPECT_TRUE(captures());
        return seconds_since(start);
    };
    constexpr double kBlock = static_cast<double>(kPeriod) / kRate;
    const int64_t recoveries = capture_stats().recoveries;
    // Nobody reads, for longer than the device collects: that time is no loss.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    g_asleep = 100'000;
    EXPECT_GT(read_for(static_cast<int>(0.3 / kBlock)), 0.25);
    // Nobody reads during the loss.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_GT(read_for(static_cast<int>(1.25 / kBlock)), 0.2);
    g_asleep = 1;
    EXPECT_TRUE(eventually([&] { return captures() && capture_stats().recoveries > recoveries; }));
}

// --- Raw pass-through ------------------------------------------------------------------

TEST_F(AioAlsaTest, PassesTheLinkOnUnalteredWhetherThePlayerReadsOrNot)
{
    playback_.device_id = E_AUDIO_IO_DEV_HDMI_ARC;
    ASSERT_EQ(aio_device_open(&playback_), 0);
    Recorder output("digital_monitor");
    const Feeder link("link");
    take_link();
    // Nobody reads.
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(write_numbered(), kBlockBytes) << "goes nowhere";
        return longest(number_runs(output.left())) > kRate / 2;
    })) << "unbroken, none of the playback's sound in it";
    EXPECT_TRUE(hdmi_linux::bypass_stats().active);
    EXPECT_TRUE(playback_stats().lost) << "the data have the output";
    // The player reads the same.
    std::vector<int16_t> read;
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(read_block(&read), kBlockBytes);
        return longest(number_runs(read)) >= 8 * kPeriod;
    }));
    BlockedCall<int> blocked = blocked_transfer(&capture_);
    ASSERT_TRUE(blocked.asleep());
    ASSERT_EQ(aio_device_close(&capture_), 0);
    EXPECT_LT(blocked.result(), 0);
    EXPECT_FALSE(hdmi_linux::bypass_stats().active);
    EXPECT_TRUE(plays_again()) << "sound again";
    // Playback that is moved to the output takes it back.
    ASSERT_EQ(aio_device_open(&capture_), 0);
    EXPECT_LT(aio_device_open(&playback_), 0) << "open already";
    EXPECT_TRUE(playback_stats().lost);
    ASSERT_EQ(aio_device_reselect(&playback_, E_AUDIO_IO_DEV_HDMI_ARC, E_AUDIO_IO_FORMAT_PCM), 0);
    EXPECT_FALSE(playback_stats().lost);
    const int64_t dropped = hdmi_linux::bypass_stats().dropped;
    EXPECT_TRUE(eventually([&] { return hdmi_linux::bypass_stats().dropped > dropped; }));
}

TEST_F(AioAlsaTest, PassThroughGoesOnAfterASleepAndAfterAnOutputThatFailsOverAndOver)
{
    playback_.device_id = E_AUDIO_IO_DEV_HDMI_ARC;
    ASSERT_EQ(aio_device_open(&playback_), 0);
    aio_device_close(&playback_);
    const Feeder link("link");
    take_link();
    const auto in_time = [](const auto& condition) { return eventually(condition, std::chrono::seconds(30)); };
    const auto passes = [&] {
        const int64_t frames = hdmi_linux::bypass_stats().frames;
        return in_time([&] { return hdmi_linux::bypass_stats().frames > frames + kRate / 10; });
    };
    ASSERT_TRUE(passes());
    g_asleep = 4;
    EXPECT_TRUE(in_time([] { return g_asleep <= 0; }));
    g_asleep = 0;
    ASSERT_TRUE(passes());
    const hdmi_linux::BypassStats before = hdmi_linux::bypass_stats();
    g_output_broken = true;
    EXPECT_TRUE(in_time([] { return hdmi_linux::bypass_stats().lost; }));
    EXPECT_TRUE(in_time([&] { return hdmi_linux_bypass().dropped > before.dropped + kRate / 10; }));
    g_output_broken = false;
    EXPECT_TRUE(in_time([&] { return hdmi_linux::bypass_stats().recoveries > before.recoveries; }));
    ASSERT_TRUE(passes());
    // What hosts in C read is the same.
    const hdmi_linux_bypass_t bypass = hdmi_linux_bypass();
    EXPECT_TRUE(bypass.active && !bypass.lost && bypass.rate == kRate);
    EXPECT_GT(bypass.xruns, before.xruns);
    EXPECT_STREQ(bypass.pcm, before.pcm.c_str());
    const hdmi_linux_device_t capture = hdmi_linux_capture();
    EXPECT_TRUE(capture.open && capture.rate == kRate);
    EXPECT_STREQ(capture.pcm, capture_stats().pcm.c_str());
    EXPECT_TRUE(!hdmi_linux_playback().open && !hdmi_linux_arc().active);
    aio_device_close(&capture_);
}

TEST_F(AioAlsaTest, ADeviceThatIsClosedWhilePassThroughTakesItStaysClosed)
{
    hdmi_linux::Playback device;
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(device.open(playback_), 0) << round;
        BlockedCall<int> writing([&] { return device.write(minute_.data(), kMinuteBytes); });
        ASSERT_TRUE(writing.asleep());
        std::thread taking([&] { device.yield_output(playback_.device_id); });
        EXPECT_EQ(device.close(), 0);
        taking.join();
        EXPECT_FALSE(device.is_open()) << round;
        EXPECT_LT(writing.result(), kMinuteBytes);
    }
}

TEST_F(AioAlsaTest, TwoClocksAreEvenedOutInTheStuffing)
{
    setenv("HDMIPLAYER_ALSA_HDMI_ARC", "fast", 1);
    playback_.device_id = E_AUDIO_IO_DEV_HDMI_ARC;
    ASSERT_EQ(aio_device_open(&playback_), 0);
    aio_device_close(&playback_);
    const Feeder link("link", kRate, 360);
    take_link();
    const int64_t before = hdmi_linux::bypass_stats().slips;
    const auto start = Clock::now();
    EXPECT_TRUE(eventually([&] { return hdmi_linux::bypass_stats().slips > before + 50; }, std::chrono::seconds(30)));
    EXPECT_LE(static_cast<double>(4 * (hdmi_linux::bypass_stats().slips - before)),
              seconds_since(start) * kRate * kFaster)
        << "no more than the clocks ask for";
    aio_device_close(&capture_);
    setenv("HDMIPLAYER_ALSA_HDMI_ARC", "digital", 1);
    std::ifstream stream(g_server->folder() + "/fast", std::ios::binary);
    std::vector<int16_t> sent;
    for (int16_t word = 0; stream.read(reinterpret_cast<char*>(&word), sizeof(word));)
        sent.push_back(word);
    EXPECT_EQ(number_runs(payloads(sent)).size(), 1u) << "what is between the stuffing is whole";
    EXPECT_GT(longest(number_runs(payloads(sent))), kPeriod);
}

// The channel status in the output's subframes: AES0 to AES3, from the left subframes of one block.
std::vector<int> received_status(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::vector<uint32_t> words(4096);
    stream.read(reinterpret_cast<char*>(words.data()), static_cast<std::streamsize>(words.size() * 4));
    constexpr uint32_t kBlockStart = 0x8;
    constexpr uint32_t kStatusBit = 0x40000000;
    const auto start =
        std::find_if(words.begin(), words.end(), [](uint32_t word) { return (word & 0xF) == kBlockStart; });
    std::vector<int> bytes(4);
    if (words.end() - start >= 64)
        for (int bit = 0; bit < 32; ++bit)
            bytes[bit / 8] |= (start[2 * bit] & kStatusBit) != 0 ? 1 << bit % 8 : 0;
    return bytes;
}

TEST_F(AioAlsaTest, ADigitalOutputSaysItsRateAndWhetherItCarriesData)
{
    const std::string file = g_server->folder() + "/subframes";
    playback_.device_id = E_AUDIO_IO_DEV_SPDIF;
    playback_.sample_rate = 44100;
    ASSERT_EQ(aio_device_open(&playback_), 0);
    ASSERT_EQ(write_numbered(2), kBlockBytes);
    aio_device_close(&playback_);
    EXPECT_EQ(received_status(file), (std::vector<int>{0x04, 0x82, 0x00, 0x00})) << "sound at 44.1 kHz";
    // The player closed it as the last output before pass-through.
    const Feeder link("link");
    take_link();
    EXPECT_TRUE(eventually([&] {
        return received_status(file) == std::vector<int>{0x06, 0x82, 0x00, 0x02};
    })) << "data at 48 kHz";
    aio_device_close(&capture_);
}

// --- Configuration ----------------------------------------------------------------------

TEST_F(AioAlsaTest, ConfigurationIsCheckedAgainstTheMachine)
{
    const std::string path = g_server->folder() + "/linux.conf";
    setenv("HDMIPLAYER_LINUX_CONFIG", path.c_str(), 1);
    std::string error;
    EXPECT_FALSE(hdmi_linux::check_config(&error)) << "named, but not there";
    EXPECT_EQ(error, path + ": cannot be read: No such file or directory\n");
    std::ofstream(path) << "i2s_txa = nowhere\nmic01 = link_monitor\ncec = /dev/nothing\n";
    EXPECT_FALSE(hdmi_linux::check_config(&error));
    EXPECT_EQ(error, path +
                         ":1: i2s_txa: 'nowhere' cannot be opened: No such file or directory (Unknown PCM nowhere)\n" +
                         path + ":3: cec: '/dev/nothing' is not there: No such file or directory\n");
    char start[32];
    EXPECT_FALSE(hdmi_linux_check_config(start, sizeof start)) << "the same for hosts in C";
    EXPECT_EQ(start, error.substr(0, sizeof start - 1));
    setenv("HDMIPLAYER_RATE_MATCHING", "perhaps", 1);
    EXPECT_FALSE(hdmi_linux::check_config(&error));
    EXPECT_NE(error.find("HDMIPLAYER_RATE_MATCHING: 'perhaps'"), std::string::npos) << error;
    setenv("HDMIPLAYER_RATE_MATCHING", "off", 1);
    std::ofstream(path) << "i2s_txa = other\nspeaker = nowhere\n";
    EXPECT_TRUE(hdmi_linux::check_config(&error)) << "the environment names another speaker: " << error;
    std::ofstream(path) << "headphone = other\nheadphone.mixer = Master\n"
                           "i2s_txa = other\ni2s_txa.mixer = Digital\ni2s_txa.mixer_card = amplifier\n"
                           "spdif.mixer_card = amplifier\nhdmi_arc.mixer_card = hw:9\nspeaker.mixer =\n";
    EXPECT_FALSE(hdmi_linux::check_config(&error));
    EXPECT_EQ(error, path + ":8: speaker.mixer: no value\n" + path +
                         ":2: headphone.mixer: 'other' is on no card that could have it\n" + path +
                         ":6: spdif.mixer_card: 'amplifier' has none of the usual volume controls\n" + path +
                         ":7: hdmi_arc.mixer_card: 'hw:9' cannot be opened: No such file or directory (Invalid CTL "
                         "hw:9)\n" +
                         path + ":4: i2s_txa.mixer: 'amplifier' has no volume control 'Digital'\n");
    std::ofstream(path) << "speaker.mixer_card = amplifier\nspeaker.mixer = Master\n"
                           "headphone.mixer_card = amplifier\nspdif.mixer = none\n";
    EXPECT_TRUE(hdmi_linux::check_config(&error)) << error;
    std::ofstream(path) << std::string(100000, '#');
    EXPECT_FALSE(hdmi_linux::check_config(nullptr)) << "too long to be one";
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(hdmi_linux::check_config(nullptr)) << "nobody writes into it";
    std::filesystem::remove(path);
    unsetenv("HDMIPLAYER_LINUX_CONFIG");
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
}

// The mixer that the platform sets, as another program reads it.
struct MixerState {
    long volume = -1;
    int sounds = -1;
};
MixerState mixer_state()
{
    MixerState state;
    hdmi_linux::AudioDeviceConfig config;
    config.mixer = "Master";
    hdmi_linux::Mixer mixer;
    EXPECT_EQ(hdmi_linux::open_mixer("amplifier", &mixer), 0);
    if (snd_mixer_elem_t* master = hdmi_linux::find_volume(mixer.get(), config, E_AUDIO_IO_DEV_SPEAKER)) {
        snd_mixer_selem_get_playback_volume(master, SND_MIXER_SCHN_FRONT_LEFT, &state.volume);
        snd_mixer_selem_get_playback_switch(master, SND_MIXER_SCHN_FRONT_LEFT, &state.sounds);
    }
    return state;
}

TEST_F(AioAlsaTest, VolumeAndMuteAreTheMixersWhereThereIsOne)
{
    const std::string path = g_server->folder() + "/linux.conf";
    std::ofstream(path) << "speaker.mixer_card = amplifier\nspeaker.mixer = Master\n";
    setenv("HDMIPLAYER_LINUX_CONFIG", path.c_str(), 1);
    ASSERT_EQ(aio_device_set_volume(&playback_, 50), 0);
    ASSERT_EQ(aio_device_open(&playback_), 0);
    unsetenv("HDMIPLAYER_LINUX_CONFIG");
    std::filesystem::remove(path);
    EXPECT_EQ(mixer_state().volume, 32768) << "what was set before it was open";
    ASSERT_EQ(aio_device_set_mute(&playback_, true), 0);
    EXPECT_EQ(mixer_state().sounds, 0);
    EXPECT_EQ(mixer_state().volume, 32768);
    ASSERT_EQ(aio_device_set_mute(&playback_, false), 0);
    EXPECT_EQ(mixer_state().sounds, 1);
    ASSERT_EQ(aio_device_set_volume_direct(&playback_, 1000), 0) << "in its own units";
    EXPECT_LT(aio_device_set_volume_direct(&playback_, 70000), 0);
    EXPECT_EQ(mixer_state().volume, 1000);
    ASSERT_EQ(aio_device_set_volume(&playback_, 100), 0);
    EXPECT_EQ(mixer_state().volume, 65536);
    Recorder recorder("out_monitor");
    EXPECT_TRUE(is_heard(recorder)) << "not scaled";
}

} // namespace

// ALSA names in addition to the server's sinks: a device of one rate, a digital output whose subframes go to a file,
// and the mixer of sink "out".
std::string more_devices(const std::string& folder)
{
    return "pcm.fixed44 { type plug slave { pcm { type null } rate 44100 } }\n"
           "pcm.fast { type copy slave.pcm { type file format raw file \"" +
           folder +
           "/fast\" slave.pcm { type null } } }\n"
           "pcm.iec958 {\n"
           "    @args [ AES0 AES1 AES2 AES3 ]\n"
           "    @args.AES0 { type integer } @args.AES1 { type integer }\n"
           "    @args.AES2 { type integer } @args.AES3 { type integer }\n"
           "    type iec958\n"
           "    slave { format IEC958_SUBFRAME_LE pcm { type file format raw file \"" +
           folder +
           "/subframes\" slave.pcm { type null } } }\n"
           "    status [ $AES0 $AES1 $AES2 $AES3 ]\n"
           "}\n"
           "ctl.amplifier { type pulse server \"unix:" +
           folder + "/native\" sink out }\n";
}

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    PulseServer server({"out", "other", "link", "digital"}, more_devices);
    g_server = &server;
    setenv("HDMIPLAYER_ALSA_SPEAKER", "out", 1);
    setenv("HDMIPLAYER_ALSA_HEADPHONE", "other", 1);
    setenv("HDMIPLAYER_ALSA_HDMI_ARC", "digital", 1);
    setenv("HDMIPLAYER_ALSA_HDMI_IN", "out_monitor", 1);
    setenv("HDMIPLAYER_RATE_MATCHING", "off", 1); // numbers are looked for
    if (!server.start()) {
        std::cout << "SKIPPED: " << server.why() << std::endl;
        return 77;
    }
    return RUN_ALL_TESTS();
}
