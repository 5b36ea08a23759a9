// SPDX-License-Identifier: MIT
// Checks that a platform keeps the promises of aio_device.h, adecoder.h and hdmi_cec.h. The calls come in the order and
// from the threads of the player. It is built once for each platform; for a new one it runs on the board.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>
#include <vector>

#include "ac3_frame.h"
#include "adecoder.h"
#include "aio_device.h"
#include "audio_devices.h"
#include "blocked_call.h"
#include "hdmi_cec.h"
#include "stage.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kRate = 48000;
constexpr int kPeriod = 960;
constexpr int kFrameBytes = 4;
constexpr int kPeriodBytes = kPeriod * kFrameBytes;
/// The limit for "at once", on a busy machine.
constexpr double kPromptSeconds = 1.0;
/// From hdmi_cec.h.
constexpr double kCecCloseSeconds = 3.0;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

class PlatformContract : public testing::Test
{
protected:
    ~PlatformContract() override
    {
        aio_device_close(&playback_);
        aio_device_close(&capture_);
    }

    /// Reopens playback at @p rate, as the player does, with as many periods written as it holds.
    void play_at(int rate)
    {
        aio_device_close(&playback_);
        playback_.sample_rate = rate;
        playback_.period_frames = rate == 44100 ? 896 : kPeriod;
        ASSERT_EQ(0, aio_device_open(&playback_));
        for (int period = 0; period < playback_.period_count; ++period)
            ASSERT_GT(write_period(), 0);
    }
    int write_period() { return aio_device_write(&playback_, silence_.data(), playback_.period_frames * kFrameBytes); }
    int write_silence() { return aio_device_write(&playback_, silence_.data(), kPeriodBytes); }
    int read_period() { return aio_device_read(&capture_, captured_.data(), kPeriodBytes); }
    int delay()
    {
        int frames = -1;
        EXPECT_EQ(0, aio_device_get_write_bytes(&playback_, &frames));
        return frames;
    }

    audio_config_t playback_ = audio_device(E_AUDIO_STREAM_PLAYBACK);
    audio_config_t capture_ = audio_device(E_AUDIO_STREAM_CAPTURE);
    const std::vector<uint8_t> silence_ = std::vector<uint8_t>(kPeriodBytes);
    std::vector<uint8_t> captured_ = std::vector<uint8_t>(kPeriodBytes);
};

// --- Audio devices ------------------------------------------------------------------

TEST_F(PlatformContract, SizesAreKnownWithoutAnOpenDevice)
{
    for (audio_config_t* config : {&playback_, &capture_}) {
        EXPECT_EQ(kPeriodBytes, aio_device_frames_to_bytes(config, 0)) << "0 frames are one period";
        EXPECT_EQ(7 * kFrameBytes, aio_device_frames_to_bytes(config, 7));
        EXPECT_EQ(7, aio_device_bytes_to_frames(config, 7 * kFrameBytes));
    }
}

TEST_F(PlatformContract, ClosedDevicesRefuseAtOnceAndMayBeClosedAgain)
{
    for (int round = 0; round < 2; ++round) {
        const auto start = Clock::now();
        EXPECT_GE(aio_device_close(&playback_), 0);
        EXPECT_GE(aio_device_close(&capture_), 0);
        EXPECT_LT(write_silence(), 0);
        EXPECT_LT(read_period(), 0);
        int frames = 7;
        EXPECT_TRUE(aio_device_get_write_bytes(&playback_, &frames) >= 0 || frames == 7) << "stored by a failed call";
        EXPECT_LT(seconds_since(start), kPromptSeconds);
        ASSERT_EQ(0, aio_device_open(&playback_));
        ASSERT_EQ(0, aio_device_open(&capture_));
        EXPECT_EQ(0, aio_device_close(&playback_));
        EXPECT_EQ(0, aio_device_close(&capture_));
    }
}

TEST_F(PlatformContract, WritingIsPacedByTheDeviceAndItsDelayRunsOut)
{
    ASSERT_EQ(0, aio_device_open(&playback_));
    EXPECT_EQ(0, delay()) << "nothing was written yet";
    const auto start = Clock::now();
    int most = 0;
    for (int period = 0; period < 100; ++period) {
        ASSERT_EQ(kPeriodBytes, write_silence());
        const int now = delay();
        EXPECT_GE(now, 0);
        most = std::max(most, now);
    }
    const double played = 100.0 * kPeriod / kRate;
    EXPECT_GT(seconds_since(start), played / 2) << "does write() wait while the buffer is full?";
    EXPECT_LT(seconds_since(start), 2 * played + kPromptSeconds);
    EXPECT_GE(most, kPeriod) << "is it frames, and all that is not heard yet?";
    std::printf("device holds %.0f ms of sound\n", 1e3 * most / kRate);
    EXPECT_TRUE(eventually([&] { return delay() < kPeriod; })) << "an empty device has nothing left to play";
    EXPECT_EQ(kPeriodBytes, write_silence()) << "and goes on with the next write";
}

// Half or four times of it would pass for a device with another buffer: only its pace tells.
TEST_F(PlatformContract, WithoutWritesTheDelayFallsAsTimePassesAndStopsAtZero)
{
    constexpr int kLooks = 20;
    constexpr int kSecond = 50; // periods
    for (const int rate : {48000, 44100}) {
        ASSERT_NO_FATAL_FAILURE(play_at(rate));
        // Just after its start a sound server guesses.
        for (int period = 0; period < kSecond; ++period)
            ASSERT_GT(write_period(), 0);
        // The line through all looks: the position of some devices moves by periods.
        double n = 0, sum_t = 0, sum_d = 0, sum_tt = 0, sum_td = 0;
        const auto start = Clock::now();
        for (int frames = delay(); frames > playback_.period_frames && n < kLooks; frames = delay()) {
            const double t = seconds_since(start);
            n++, sum_t += t, sum_d += frames, sum_tt += t * t, sum_td += t * frames;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ASSERT_GT(n, kLooks / 4) << "it holds less than it was asked for, or the machine is busy";
        const double slope = (n * sum_td - sum_t * sum_d) / (n * sum_tt - sum_t * sum_t);
        EXPECT_NEAR(-slope, rate, 0.3 * rate) << "frames, and all that is not heard yet?";
        EXPECT_TRUE(eventually([&] { return delay() <= 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(0, delay()) << "nothing is left to be heard; the delay is never negative";
    }
}

TEST_F(PlatformContract, PlaybackRunsAtTheRateThatWasAskedFor)
{
    for (const int rate : {48000, 44100}) {
        ASSERT_NO_FATAL_FAILURE(play_at(rate));
        int64_t written = 0;
        double slowest = 0;
        const int64_t first = written - delay();
        const auto start = Clock::now();
        while (seconds_since(start) < 1.5) {
            const auto before = Clock::now();
            ASSERT_GT(write_period(), 0);
            written += playback_.period_frames;
            slowest = std::max(slowest, seconds_since(before));
        }
        const double played = static_cast<double>(written - delay() - first);
        const double pace = played / seconds_since(start);
        if (slowest > 0.1)
            GTEST_SKIP() << "the machine was busy meanwhile";
        // Half of what is between the two rates.
        EXPECT_NEAR(pace, rate, 0.04 * rate);
    }
}

TEST_F(PlatformContract, CaptureOpensWithoutAKnownRateAndBeginsWithWhatArrivesFromThenOn)
{
    constexpr int kFirst = 8;
    constexpr int kMore = 50;
    for (const int rate : {0, kRate}) {
        capture_.sample_rate = rate;
        const auto start = Clock::now();
        ASSERT_EQ(0, aio_device_open(&capture_)) << "a rate of 0 opens at 48000";
        for (int period = 0; period < kFirst; ++period)
            ASSERT_EQ(kPeriodBytes, read_period());
        const double first = seconds_since(start);
        const auto steady = Clock::now();
        for (int period = 0; period < kMore; ++period)
            ASSERT_EQ(kPeriodBytes, read_period());
        const double per_period = seconds_since(steady) / kMore;
        EXPECT_GT(first, (kFirst - 2) * per_period) << "sound that arrived before the opening was read";
        ASSERT_EQ(0, aio_device_close(&capture_));
    }
}

TEST_F(PlatformContract, ReadingIsPacedByTheSource)
{
    ASSERT_EQ(0, aio_device_open(&capture_));
    ASSERT_EQ(kPeriodBytes, read_period()) << "is a source connected?";
    const auto start = Clock::now();
    for (int period = 0; period < 100; ++period)
        ASSERT_EQ(kPeriodBytes, read_period());
    // 32 kHz to 192 kHz, the latter an E-AC-3 stream's.
    EXPECT_GT(seconds_since(start), 100.0 * kPeriod / 192000 / 2);
    EXPECT_LT(seconds_since(start), 2 * 100.0 * kPeriod / 32000 + kPromptSeconds);
    std::printf("source sends %.0f frames a second\n", 100 * kPeriod / seconds_since(start));
}

TEST_F(PlatformContract, CloseEndsABlockedWriteAndABlockedReadThatDoNotHoldEachOtherUp)
{
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(0, aio_device_open(&playback_));
        ASSERT_EQ(0, aio_device_open(&capture_));
        // One thread each, as in the player, until a call fails.
        BlockedCall<int> writing([this] {
            int result = 0;
            while ((result = write_silence()) == kPeriodBytes) {
            }
            return result;
        });
        std::atomic<int> reads{0};
        BlockedCall<int> reading([&] {
            int result = 0;
            while ((result = read_period()) == kPeriodBytes)
                ++reads;
            return result;
        });
        EXPECT_TRUE(eventually([&] { return delay() > 2 * kPeriod && reads > 2; }));
        const auto start = Clock::now();
        EXPECT_EQ(0, aio_device_close(&playback_));
        EXPECT_EQ(0, aio_device_close(&capture_));
        EXPECT_LT(writing.result(), kPeriodBytes);
        EXPECT_LT(reading.result(), kPeriodBytes);
        EXPECT_LT(seconds_since(start), kPromptSeconds);
    }
}

TEST_F(PlatformContract, VolumeMuteAndReselectWorkWhileTheDeviceIsOpen)
{
    ASSERT_EQ(0, aio_device_open(&playback_));
    ASSERT_EQ(kPeriodBytes, write_silence());
    for (const int percent : {0, 50, 100})
        EXPECT_EQ(0, aio_device_set_volume(&playback_, percent));
    EXPECT_EQ(0, aio_device_set_mute(&playback_, true));
    EXPECT_EQ(0, aio_device_set_mute(&playback_, false));
    EXPECT_EQ(0, aio_device_reselect(&playback_, E_AUDIO_IO_DEV_SPEAKER, E_AUDIO_IO_FORMAT_PCM));
    EXPECT_EQ(kPeriodBytes, write_silence());
}

// --- CEC ------------------------------------------------------------------------------

// @return how long it took.
double close_cec()
{
    const auto start = Clock::now();
    vendor_hdmi_cec_deinit();
    return seconds_since(start);
}

TEST(PlatformCec, OpensWithoutWaitingForTheBusAndClosesInTime)
{
    EXPECT_LT(close_cec(), kPromptSeconds) << "without init there is nothing to close";
    const auto start = Clock::now();
    hdmi_cec_config_t config = {false};
    std::printf("adapter: init %d", vendor_hdmi_cec_init(&config));
    std::printf(", ARC %d", vendor_hdmi_cec_open_arc());
    EXPECT_LT(seconds_since(start), kPromptSeconds) << "it would delay open";
    // During the exchange.
    const double seconds = close_cec();
    std::printf(", deinit %.2f s\n", seconds);
    EXPECT_LT(seconds, kCecCloseSeconds) << "it would delay close";
    EXPECT_LT(close_cec(), kPromptSeconds) << "it is closed already";
}

// --- Decoder ----------------------------------------------------------------------------

// As the link carries it: the bytes of each word swapped.
std::vector<uint8_t> payload_of(adecoder_format_t format)
{
    const bool ac3 = format == ADECODER_FORMAT_AC3;
    std::vector<uint8_t> payload(ac3 ? std::begin(kAc3Frame) : std::begin(kEac3Frame),
                                 ac3 ? std::end(kAc3Frame) : std::end(kEac3Frame));
    for (size_t at = 0; at + 1 < payload.size(); at += 2)
        std::swap(payload[at], payload[at + 1]);
    return payload;
}

TEST(PlatformDecoder, AFrameIsDecodedAsSoonAsItIsComplete)
{
    adecoder_handle_t* decoder = adecoder_init(ADECODER_FORMAT_AC3, 1, 0, ADECODER_CHANNEL_STEREO, 0, false);
    if (decoder == nullptr && platform_stage::may_lack_decoder())
        GTEST_SKIP() << "no decoder, so none was checked: the player will report compressed input as unsupported";
    ASSERT_NE(nullptr, decoder);
    std::vector<uint8_t> pcm(16384);
    EXPECT_LE(adecoder_read(decoder, 0, 0, pcm.data(), static_cast<int32_t>(pcm.size()), 0), 0);
    const std::vector<uint8_t> payload = payload_of(ADECODER_FORMAT_AC3);
    const auto size = static_cast<int32_t>(payload.size());
    bool audible = false;
    for (int frame = 0; frame < 4; ++frame) {
        // In two parts, as captured chunks may cut it.
        int32_t status = -1;
        EXPECT_EQ(101, adecoder_write(decoder, payload.data(), 101, 0, -1, &status));
        EXPECT_EQ(0, status);
        EXPECT_EQ(size - 101, adecoder_write(decoder, payload.data() + 101, size - 101, 0, -1, &status));
        EXPECT_GT(status, 0) << "waits for the next frame's header?";
        EXPECT_EQ(kRate, adecoder_get_output_sample_rate(decoder));
        int32_t bytes = 0;
        for (int32_t got = 0; (got = adecoder_read(decoder, 0, 0, pcm.data(), kPeriodBytes, 0)) > 0; bytes += got)
            audible |= std::any_of(pcm.begin(), pcm.begin() + got, [](uint8_t byte) { return byte != 0; });
        EXPECT_EQ(kAc3Samples * kFrameBytes, bytes);
    }
    EXPECT_TRUE(audible) << "a tone decoded to silence";
    EXPECT_EQ(0, adecoder_deinit(decoder));
}

// Feeds a decoder at the pace of time and reads it every few milliseconds.
class PacedDecoder
{
public:
    explicit PacedDecoder(adecoder_format_t format) : format_(format), decoder_(open()), payload_(payload_of(format))
    {
        // The first frame of a process takes long, as code and tables are loaded, under an emulator most of all.
        write();
        if (decoder_ != nullptr)
            adecoder_deinit(decoder_);
        decoder_ = open();
        start_ = Clock::now();
    }
    ~PacedDecoder()
    {
        if (decoder_ != nullptr)
            adecoder_deinit(decoder_);
    }
    PacedDecoder(const PacedDecoder&) = delete;
    PacedDecoder& operator=(const PacedDecoder&) = delete;

    bool usable() const { return decoder_ != nullptr; }
    /// The machine took longer for a moment than the player has sound in hand.
    bool held_up() const { return held_up_; }
    /// Frames of PCM that were read.
    int64_t count() const { return bytes_ / kFrameBytes; }

    void send(int frames)
    {
        for (; frames > 0; --frames) {
            wait_until(start_ + std::chrono::milliseconds(32 * sent_++));
            const auto before = Clock::now();
            write();
            held_up_ = held_up_ || seconds_since(before) > kHeldUpSeconds;
        }
        read();
    }
    void lose(int frames) { sent_ += frames; }
    /// The source sends nothing for so long. @return frames of PCM that were read until then
    int64_t pause(std::chrono::milliseconds time)
    {
        const int64_t before = count();
        wait_until(start_ + std::chrono::milliseconds(32 * sent_) + time);
        start_ += time;
        return count() - before;
    }
    /// The frames to come wait, and then come at once.
    void hold(std::chrono::milliseconds time) { wait_until(Clock::now() + time); }

private:
    static constexpr double kHeldUpSeconds = 0.02;

    adecoder_handle_t* open() const { return adecoder_init(format_, 1, 0, ADECODER_CHANNEL_STEREO, 0, false); }
    void write()
    {
        int32_t status = 0;
        if (decoder_ != nullptr)
            adecoder_write(decoder_, payload_.data(), static_cast<int32_t>(payload_.size()), 0, -1, &status);
    }
    void wait_until(Clock::time_point end)
    {
        for (;;) {
            read();
            const auto before = Clock::now();
            if (before >= end)
                return;
            std::this_thread::sleep_until(std::min(end, before + std::chrono::milliseconds(5)));
            held_up_ = held_up_ || seconds_since(before) > kHeldUpSeconds;
        }
    }
    void read()
    {
        uint8_t pcm[kPeriodBytes];
        for (int32_t got = 0; (got = adecoder_read(decoder_, 0, 0, pcm, kPeriodBytes, 0)) > 0; bytes_ += got)
            adecoder_get_output_sample_rate(decoder_);
    }

    const adecoder_format_t format_;
    adecoder_handle_t* decoder_;
    const std::vector<uint8_t> payload_;
    Clock::time_point start_;
    int sent_ = 0;
    int64_t bytes_ = 0;
    bool held_up_ = false;
};

TEST_F(PlatformContract, TheDecoderKeepsTheCountWhereFramesAreLost)
{
    constexpr int kMs = kRate / 1000;
    constexpr int kPauseMs = 500;
    for (const adecoder_format_t format : {ADECODER_FORMAT_AC3, ADECODER_FORMAT_EAC3}) {
        SCOPED_TRACE(format == ADECODER_FORMAT_AC3 ? "AC-3" : "E-AC-3");
        PacedDecoder decoder(format);
        if (!decoder.usable() && platform_stage::may_lack_decoder())
            GTEST_SKIP() << "no decoder, so none was checked";
        ASSERT_TRUE(decoder.usable());
        int64_t due = 0;
        const auto send = [&](int count, int lost) {
            decoder.lose(lost);
            decoder.send(count);
            due += int64_t{count + lost} * kAc3Samples;
            return decoder.count() - due;
        };
        send(12, 0);
        const int64_t lost = send(16, 3);
        decoder.hold(std::chrono::milliseconds(45));
        const int64_t late = send(16, 0);
        const int64_t in_pause = decoder.pause(std::chrono::milliseconds(kPauseMs));
        due += kPauseMs * kMs;
        const int64_t paused = send(16, 0);
        ASSERT_EQ(0, aio_device_open(&capture_));
        const int64_t reopened = send(16, 3) + 3 * kAc3Samples;
        EXPECT_EQ(0, aio_device_close(&capture_));
        if (decoder.held_up())
            GTEST_SKIP() << "the machine was busy meanwhile";
        EXPECT_EQ(0, lost) << "sound behind a loss must not move ahead: adecoder.h";
        EXPECT_EQ(0, late) << "frames that came late are not lost";
        EXPECT_GT(in_pause, (kPauseMs - 100) * kMs) << "the player has 76 ms of sound in hand, then it runs dry";
        EXPECT_NEAR(static_cast<double>(paused), 0, 5 * kMs) << "behind a pause as well";
        EXPECT_EQ(paused, reopened) << "what is lost when the capture device is opened is forgotten";
    }
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::string why;
    if (!platform_stage::set_up(&why)) {
        std::printf("SKIPPED: %s\n", why.c_str());
        platform_stage::tear_down();
        return 77;
    }
    const int result = RUN_ALL_TESTS();
    platform_stage::tear_down();
    return result;
}
