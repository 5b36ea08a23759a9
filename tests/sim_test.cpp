// SPDX-License-Identifier: MIT
// The simulated platform: its clocks and decisions as pure arithmetic, then the
// devices behind the platform's functions in real time.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sndfile.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xf86drm.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <set>
#include <sstream>
#include <thread>

#include "adecoder.h"
#include "aio_device.h"
#include "capture_ring.h"
#include "hdmi_cec.h"
#include "hdmi_sim.h"
#include "latch.h"
#include "pacing.h"
#include "play_queue.h"

using hdmi_sim::FaultKind;
using hdmi_sim::Op;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr auto kGenerous = std::chrono::seconds(5);

// What main() saw of the machine before and after it entered the namespaces.
struct Machine {
    bool announced_before = true;
    int errno_before = 0;
    std::set<std::string> classes_before;
    bool entered = false;
    std::string error;
} g_machine;

bool wait_for(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kGenerous;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

template <typename Result> bool ends(std::future<Result>& call)
{
    return call.wait_for(kGenerous) == std::future_status::ready;
}

std::string temporary_file(const std::string& name)
{
    return testing::TempDir() + std::to_string(getpid()) + "-" + name;
}

audio_config_t capture_config(int period_frames = 480)
{
    audio_config_t config = {};
    config.stream_type = E_AUDIO_STREAM_CAPTURE;
    config.device_id = E_AUDIO_IO_DEV_HDMI_IN;
    config.channels = 2;
    config.sample_rate = 48000;
    config.open_mode = 1;
    config.period_frames = period_frames;
    config.period_count = 4;
    return config;
}

audio_config_t playback_config(int rate = 48000, int period_frames = 480)
{
    audio_config_t config = {};
    config.stream_type = E_AUDIO_STREAM_PLAYBACK;
    config.device_id = E_AUDIO_IO_DEV_SPEAKER;
    config.channels = 2;
    config.sample_rate = rate;
    config.period_frames = period_frames;
    config.period_count = 8;
    return config;
}

// The link frame's number in both words: low half left, high half right.
void number_frames(int64_t first, int16_t* words, int frames)
{
    for (int i = 0; i < frames; i++) {
        words[2 * i] = static_cast<int16_t>((first + i) & 0xffff);
        words[2 * i + 1] = static_cast<int16_t>((first + i) >> 16);
    }
}

int64_t number_at(const uint8_t* frame)
{
    uint16_t words[2];
    memcpy(words, frame, sizeof(words));
    return words[0] | static_cast<int64_t>(words[1]) << 16;
}

hdmi_sim::Signal numbered_signal(int rate = 48000)
{
    hdmi_sim::Signal signal;
    signal.rate = rate;
    signal.generate = number_frames;
    return signal;
}

std::vector<uint8_t> ramp(int frames, int16_t first = 1)
{
    std::vector<int16_t> samples(static_cast<size_t>(frames) * 2);
    for (size_t i = 0; i < samples.size(); i++)
        samples[i] = static_cast<int16_t>(first + static_cast<int>(i / 2));
    std::vector<uint8_t> bytes(samples.size() * 2);
    memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

int write_all(audio_config_t& config, const std::vector<uint8_t>& bytes)
{
    return aio_device_write(&config, bytes.data(), static_cast<int>(bytes.size()));
}

struct Sound {
    SF_INFO info = {};
    std::vector<int16_t> left;
};

Sound read_wav(const std::string& path)
{
    Sound sound;
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &sound.info);
    if (file == nullptr)
        return sound;
    std::vector<int16_t> samples(static_cast<size_t>(sound.info.frames * sound.info.channels));
    sf_readf_short(file, samples.data(), sound.info.frames);
    sf_close(file);
    for (size_t i = 0; i < samples.size(); i += static_cast<size_t>(sound.info.channels))
        sound.left.push_back(samples[i]);
    return sound;
}

class Sim : public testing::Test
{
protected:
    void TearDown() override
    {
        for (int op = 0; op < static_cast<int>(Op::count); op++)
            hdmi_sim::clear_fault(static_cast<Op>(op));
        audio_config_t capture = capture_config();
        audio_config_t playback = playback_config();
        aio_device_close(&capture);
        aio_device_close(&playback);
        hdmi_sim::display_stop();
        hdmi_sim::reset();
    }
};

// --- Pure -----------------------------------------------------------------------

TEST(Pace, CountsTicksExactlyAfterDays)
{
    const sim::Pace exact(48000, 0);
    EXPECT_EQ(exact.time_of(48000 * 86400LL * 1000), 86400LL * 1000 * kSecond);
    const sim::Pace fast(48000, 100);
    EXPECT_EQ(fast.count_at(1'000'000 * kSecond), 48'004'800'000);
    const sim::Pace display(60000.0 / 1001, 0);
    // The rate is resolved to a billionth of a tick per second.
    EXPECT_NEAR(static_cast<double>(display.time_of(60000)), 1001.0 * kSecond, 1000);
}

TEST(Pace, TimeOfACountIsTheFirstInstantWithThatCount)
{
    for (const double rate : {1.0, 24 / 1.001, 59.94, 32000.0, 44100.0, 48000.0, 192000.0}) {
        for (const double ppm : {0.0, -350.0, 17.3, 1000.0}) {
            const sim::Pace pace(rate, ppm);
            const auto month = static_cast<long long>(rate * 86400 * 30);
            for (const int64_t count : {1LL, 2LL, 895LL, 44100LL, 48001LL, 4'000'000'007LL, month}) {
                const int64_t at = pace.time_of(count);
                ASSERT_EQ(pace.count_at(at), count) << rate << " " << ppm;
                ASSERT_EQ(pace.count_at(at - 1), count - 1) << rate << " " << ppm;
            }
        }
    }
}

sim::LinkSignalPtr link(int rate, int64_t start_ns)
{
    auto signal = std::make_shared<sim::LinkSignal>();
    signal->start_ns = start_ns;
    signal->pace = sim::Pace(rate, 0);
    return signal;
}

TEST(CaptureRing, PeriodIsReadableWhenItsLastFramePassed)
{
    sim::CaptureRing ring(1000, 4);
    // One and a half frames have passed at the open: capture begins with frame 1.
    const int64_t open_ns = kSecond + 1'500'000;
    ring.attach(link(1000, kSecond), open_ns);
    EXPECT_EQ(ring.next_period_ns(open_ns), kSecond + 1001 * kMs);
    EXPECT_EQ(ring.ready_bytes(kSecond + 1001 * kMs - 1), 0);
    ASSERT_EQ(ring.ready_bytes(kSecond + 1001 * kMs), 4000);
    const auto piece = ring.take(4000);
    EXPECT_EQ(piece.link_frame, 1);
    EXPECT_EQ(piece.bytes, 4000);
}

TEST(CaptureRing, LosesTheOldestPeriodsAndKeepsTheRest)
{
    sim::CaptureRing ring(10, 4);
    ring.attach(link(1000, 0), 0);
    EXPECT_EQ(ring.drop_overrun(49 * kMs), 0);
    EXPECT_EQ(ring.drop_overrun(75 * kMs), 3);
    EXPECT_EQ(ring.ready_bytes(75 * kMs), 160);
    EXPECT_EQ(ring.take(40).link_frame, 30);
    // A reader inside a period loses that period, and stands at the start of one afterwards.
    EXPECT_EQ(ring.take(6).bytes, 4);
    EXPECT_EQ(ring.drop_overrun(91 * kMs), 1);
    EXPECT_EQ(ring.take(40).link_frame, 50);
}

TEST(CaptureRing, NextSignalFillsTheRestOfThePeriod)
{
    sim::CaptureRing ring(10, 4);
    ring.attach(link(1000, 0), 0);
    ring.detach(7 * kMs);
    EXPECT_EQ(ring.next_period_ns(500 * kMs), sim::kNever);
    const auto second = link(500, 500 * kMs);
    ring.attach(second, 500 * kMs);
    EXPECT_EQ(ring.next_period_ns(501 * kMs), 506 * kMs);
    ASSERT_EQ(ring.ready_bytes(506 * kMs), 40);
    EXPECT_EQ(ring.take(40).bytes, 28);
    const auto rest = ring.take(12);
    EXPECT_EQ(rest.signal, second);
    EXPECT_EQ(rest.link_frame, 0);
    EXPECT_EQ(rest.bytes, 12);
}

TEST(CaptureRing, ReadsOfOddSizesAreOneByteStream)
{
    sim::CaptureRing ring(10, 4);
    ring.attach(link(1000, 0), 0);
    EXPECT_EQ(ring.take(3).bytes, 3);
    const auto rest = ring.take(9);
    EXPECT_EQ(rest.link_frame, 0);
    EXPECT_EQ(rest.skip_bytes, 3);
    EXPECT_EQ(rest.bytes, 1);
    EXPECT_EQ(ring.take(9).bytes, 8);
    EXPECT_EQ(ring.position_bytes(), 12);
}

struct Heard : sim::PlaySink {
    std::vector<hdmi_sim::PlayedBlock> blocks;
    std::vector<int16_t> left;

    void sound(const int16_t* samples, int64_t frames, int64_t heard_ns, bool begins_block) override
    {
        if (begins_block || blocks.empty() || blocks.back().silence)
            blocks.push_back({static_cast<int64_t>(left.size()), 0, heard_ns, false});
        blocks.back().frames += frames;
        for (int64_t i = 0; i < frames; i++)
            left.push_back(samples[2 * i]);
    }
    void silence(int64_t frames, int64_t heard_ns) override
    {
        blocks.push_back({static_cast<int64_t>(left.size()), frames, heard_ns, true});
        left.insert(left.end(), static_cast<size_t>(frames), 0);
    }
};

TEST(PlayQueue, FillsBlocksAndDrainsAtItsOwnClock)
{
    Heard heard;
    sim::PlayQueue queue(1000, 1000, 2, 10, 4); // 1001 frames a second
    queue.put(kSecond, ramp(40).data(), 40, 1.0f, &heard);
    EXPECT_EQ(queue.room(kSecond), 0);
    EXPECT_EQ(queue.queued(kSecond), 40);
    const int64_t ten = queue.room_ns(10);
    EXPECT_NEAR(static_cast<double>(ten - kSecond), 1e10 / 1001, 1);
    EXPECT_EQ(queue.room(ten - 1), 9);
    EXPECT_EQ(queue.room(ten), 10);
    // Half a frame short of 35: the frame under way is not heard yet.
    queue.drain(kSecond + 34 * kMs + 500'000, &heard);
    EXPECT_EQ(heard.left.size(), 34u);
    queue.put(kSecond + 35 * kMs, ramp(30, 41).data(), 30, 1.0f, &heard);
    queue.drain(2 * kSecond, &heard);
    ASSERT_EQ(heard.left.size(), 70u);
    for (int i = 0; i < 70; i++)
        ASSERT_EQ(heard.left[static_cast<size_t>(i)], i + 1);
    ASSERT_EQ(heard.blocks.size(), 7u);
    EXPECT_NEAR(static_cast<double>(heard.blocks[6].heard_ns - kSecond), 6e10 / 1001, 1);
}

TEST(PlayQueue, UnderrunIsSilenceUntilTheNextWrite)
{
    Heard heard;
    sim::PlayQueue queue(1000, 0, 2, 10, 4);
    EXPECT_EQ(queue.empty_ns(), sim::kNever);
    queue.put(0, ramp(15).data(), 15, 1.0f, &heard);
    EXPECT_EQ(queue.empty_ns(), 15 * kMs);
    // Just in time is no gap; then 4.3 frames late: silence to the end of the fifth.
    queue.drain(15 * kMs, &heard);
    queue.put(15 * kMs, ramp(5).data(), 5, 1.0f, &heard);
    const int64_t late = 24 * kMs + 300'000;
    queue.drain(late, &heard);
    EXPECT_EQ(queue.queued(late), 0);
    queue.put(late, ramp(5).data(), 5, 1.0f, &heard);
    queue.drain(kSecond, &heard);
    ASSERT_EQ(heard.blocks.size(), 4u);
    EXPECT_TRUE(heard.blocks[2].silence);
    EXPECT_EQ(heard.blocks[2].first_frame, 20);
    EXPECT_EQ(heard.blocks[2].frames, 5);
    EXPECT_EQ(heard.blocks[2].heard_ns, 20 * kMs);
    EXPECT_EQ(heard.blocks[3].heard_ns, 25 * kMs);
    EXPECT_EQ(heard.left.size(), 30u);
}

void* buffer(intptr_t number) { return reinterpret_cast<void*>(number); }

TEST(Latch, FlipBelongsToTheFirstVerticalBlankAfterItHoweverLateThatIsDecided)
{
    sim::Latch latch;
    latch.flip(buffer(1), 5);
    latch.flip(buffer(2), 10); // at the vertical blank itself: the next one's
    latch.flip(buffer(3), 25);
    EXPECT_EQ(latch.vblank(10).buffer, buffer(1));
    EXPECT_EQ(latch.vblank(20).buffer, buffer(2));
    const auto third = latch.vblank(30);
    EXPECT_EQ(third.buffer, buffer(3));
    ASSERT_EQ(third.released.size(), 1u);
    EXPECT_EQ(third.released[0].buffer, buffer(2));
    EXPECT_FALSE(third.released[0].superseded);
    EXPECT_FALSE(third.repeated);
    EXPECT_TRUE(latch.vblank(40).repeated);
}

TEST(Latch, OfABurstOnlyTheNewestBufferIsShown)
{
    sim::Latch latch;
    EXPECT_FALSE(latch.vblank(1).repeated) << "nothing was shown yet";
    for (int i = 1; i <= 4; i++)
        latch.flip(buffer(i), 1 + i);
    const auto first = latch.vblank(10);
    EXPECT_EQ(first.buffer, buffer(4));
    ASSERT_EQ(first.released.size(), 3u);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(first.released[static_cast<size_t>(i)].buffer, buffer(i + 1));
        EXPECT_TRUE(first.released[static_cast<size_t>(i)].superseded);
    }
    EXPECT_TRUE(latch.vblank(20).repeated) << "the burst left nothing behind";
    latch.flip(buffer(5), 21);
    const auto rest = latch.clear();
    ASSERT_EQ(rest.size(), 2u);
    EXPECT_EQ(rest[0].buffer, buffer(4));
    EXPECT_FALSE(rest[0].superseded);
    EXPECT_TRUE(rest[1].superseded);
}

// --- Receiver ---------------------------------------------------------------------

TEST_F(Sim, ReceiverGivesConsecutivePeriodsAtTheSourcesPace)
{
    hdmi_sim::Signal signal = numbered_signal();
    signal.clock_error_ppm = 100'000; // a tenth fast: plain to see in a short time
    hdmi_sim::receiver_connect(signal);
    audio_config_t config = capture_config();
    config.sample_rate = 0;
    ASSERT_EQ(aio_device_open(&config), 0);
    EXPECT_EQ(hdmi_sim::receiver_stats().sample_rate, 48000);
    ASSERT_EQ(aio_device_frames_to_bytes(&config, 0), 1920);

    const int64_t begin = hdmi_sim::now_ns();
    std::vector<uint8_t> period(1920);
    int64_t expected = -1;
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(aio_device_read(&config, period.data(), 1920), 1920);
        if (expected < 0)
            expected = hdmi_sim::receiver_stats().first_read_frame;
        // A machine that stalls for the ring's whole length may lose periods, never frames inside one.
        if (hdmi_sim::receiver_stats().overruns == 0) {
            ASSERT_EQ(number_at(period.data()), expected);
        }
        ASSERT_EQ(number_at(&period[1916]), number_at(period.data()) + 479);
        expected += 480;
    }
    const double elapsed = static_cast<double>(hdmi_sim::now_ns() - begin);
    EXPECT_GE(elapsed, 20 * 480 / 52800.0 * 1e9 * 0.98);
    EXPECT_LT(elapsed, 10 * 20 * 480 / 52800.0 * 1e9);
    EXPECT_EQ(hdmi_sim::receiver_stats().periods_read, 20);
    EXPECT_EQ(hdmi_sim::receiver_stats().frames_read, 20 * 480);
}

TEST_F(Sim, ReceiverOverrunsWhenNobodyReadsAndReopensEmpty)
{
    hdmi_sim::receiver_connect(numbered_signal(192000));
    audio_config_t config = capture_config(96);
    ASSERT_EQ(aio_device_open(&config), 0);
    EXPECT_EQ(aio_device_open(&config), -EBUSY);
    ASSERT_TRUE(wait_for([] { return hdmi_sim::receiver_stats().overruns >= 5; }));
    std::vector<uint8_t> period(384);
    ASSERT_EQ(aio_device_read(&config, period.data(), 384), 384);
    const int64_t lost = hdmi_sim::receiver_stats().overruns;
    EXPECT_GE(lost, 5);
    const int64_t oldest = number_at(period.data());
    EXPECT_EQ(hdmi_sim::receiver_stats().first_read_frame, oldest);
    ASSERT_EQ(aio_device_close(&config), 0);
    EXPECT_EQ(aio_device_close(&config), 0) << "closing a closed device is harmless";
    EXPECT_EQ(aio_device_read(&config, period.data(), 384), -EBADF);

    ASSERT_EQ(aio_device_open(&config), 0);
    ASSERT_EQ(aio_device_read(&config, period.data(), 384), 384);
    EXPECT_GE(number_at(period.data()), oldest + 4 * 96) << "what was captured before is gone";
    EXPECT_EQ(hdmi_sim::receiver_stats().opens, 2);
}

TEST_F(Sim, ReadWaitsForASignalAndEndsWithTheDevice)
{
    audio_config_t config = capture_config();
    config.period_count = 64; // a machine that stalls for a moment loses nothing
    ASSERT_EQ(aio_device_open(&config), 0);
    std::vector<uint8_t> data(1920);
    auto read = std::async(std::launch::async, [&] { return aio_device_read(&config, data.data(), 1920); });
    EXPECT_EQ(read.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    hdmi_sim::receiver_connect(numbered_signal());
    ASSERT_TRUE(ends(read));
    EXPECT_EQ(read.get(), 1920);
    EXPECT_EQ(number_at(data.data()), 0);

    hdmi_sim::receiver_disconnect();
    std::vector<uint8_t> more(1 << 20);
    auto blocked = std::async(std::launch::async, [&] { return aio_device_read(&config, more.data(), 1 << 20); });
    EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    audio_config_t same = config;
    ASSERT_EQ(aio_device_close(&same), 0);
    ASSERT_TRUE(ends(blocked));
    EXPECT_LT(blocked.get(), 1 << 20);
}

// --- Playback -----------------------------------------------------------------------

TEST_F(Sim, PlaybackRecordsWhatWasHeardWithUnderrunsAsSilence)
{
    const std::string wav = temporary_file("underrun.wav");
    hdmi_sim::playback_configure({wav, 0});
    audio_config_t config = playback_config();
    ASSERT_EQ(aio_device_open(&config), 0);
    ASSERT_EQ(write_all(config, ramp(960)), 3840);
    ASSERT_TRUE(wait_for([] { return hdmi_sim::playback_stats().underruns == 1; }));
    const int64_t ran_empty = hdmi_sim::playback_stats().last_underrun_ns;
    EXPECT_EQ(ran_empty, hdmi_sim::playback_stats().first_write_ns + 20 * kMs);
    ASSERT_EQ(write_all(config, ramp(480, 2000)), 1920);
    int delay = -1;
    ASSERT_TRUE(wait_for([&] { return aio_device_get_write_bytes(&config, &delay) == 0 && delay == 0; }));
    ASSERT_TRUE(hdmi_sim::playback_finish_recording());
    EXPECT_LE(hdmi_sim::playback_stats().underruns, 2) << "one for each time it ran empty";

    const Sound sound = read_wav(wav);
    const auto blocks = hdmi_sim::playback_blocks();
    ASSERT_EQ(sound.info.samplerate, 48000);
    ASSERT_GE(blocks.size(), 4u);
    EXPECT_FALSE(blocks[1].silence);
    ASSERT_TRUE(blocks[2].silence);
    EXPECT_EQ(blocks[2].first_frame, 960);
    EXPECT_EQ(blocks[2].heard_ns, ran_empty);
    const auto gap = static_cast<size_t>(blocks[2].frames);
    ASSERT_EQ(sound.left.size(), 960 + gap + 480);
    EXPECT_EQ(sound.left[0], 1);
    EXPECT_EQ(sound.left[959], 960);
    EXPECT_EQ(sound.left[960], 0);
    EXPECT_EQ(sound.left[960 + gap - 1], 0);
    EXPECT_EQ(sound.left[960 + gap], 2000);
    EXPECT_EQ(sound.left.back(), 2479);

    std::ifstream list(wav + ".blocks.csv");
    std::string line;
    std::getline(list, line);
    EXPECT_EQ(line, "first_frame,frames,heard_ns,silence");
    std::getline(list, line);
    EXPECT_EQ(line, "0,480," + std::to_string(blocks[0].heard_ns) + ",0");
    unlink(wav.c_str());
    unlink((wav + ".blocks.csv").c_str());
}

TEST_F(Sim, WriteBlocksWhileTheBufferIsFullAndEndsWithTheDevice)
{
    audio_config_t config = playback_config();
    EXPECT_EQ(write_all(config, ramp(10)), -EBADF);
    ASSERT_EQ(aio_device_open(&config), 0);
    const int64_t begin = hdmi_sim::now_ns();
    ASSERT_EQ(write_all(config, ramp(8 * 480 + 2400)), (8 * 480 + 2400) * 4);
    EXPECT_GE(hdmi_sim::now_ns() - begin, 50 * kMs);
    int delay = -1;
    ASSERT_EQ(aio_device_get_write_bytes(&config, &delay), 0);
    EXPECT_LE(delay, 8 * 480);
    EXPECT_EQ(aio_device_write(&config, ramp(3).data(), 11), 8) << "whole frames only";

    auto blocked = std::async(std::launch::async, [&] { return write_all(config, ramp(480'000)); });
    ASSERT_TRUE(wait_for([] { return hdmi_sim::playback_stats().frames_written > 8 * 480 + 2400 + 2; }));
    audio_config_t same = config;
    ASSERT_EQ(aio_device_close(&same), 0);
    ASSERT_TRUE(ends(blocked));
    EXPECT_LT(blocked.get(), 480'000 * 4);
    EXPECT_EQ(aio_device_get_write_bytes(&config, &delay), -EBADF);
}

TEST_F(Sim, VolumeAndMuteActOnWhatIsWrittenAndUnityIsBitExact)
{
    const std::string wav = temporary_file("volume.wav");
    hdmi_sim::playback_configure({wav, 0});
    audio_config_t config = playback_config(48000, 4800);
    ASSERT_EQ(aio_device_open(&config), 0);
    const std::vector<uint8_t> frame = ramp(1, 10000);
    const auto write_one = [&] { ASSERT_EQ(write_all(config, frame), 4); };
    // One long write keeps the device busy meanwhile: no silence between the frames of interest.
    ASSERT_EQ(write_all(config, ramp(19200)), 19200 * 4);
    write_one();
    ASSERT_EQ(aio_device_set_volume(&config, 50), 0); // -30 dB
    write_one();
    ASSERT_EQ(aio_device_set_mute(&config, true), 0);
    write_one();
    ASSERT_EQ(aio_device_set_mute(&config, false), 0);
    ASSERT_EQ(aio_device_set_volume(&config, 0), 0);
    write_one();
    ASSERT_EQ(aio_device_set_volume_direct(&config, 51), 0); // a fifth
    write_one();
    ASSERT_EQ(aio_device_set_volume(&config, 100), 0);
    write_one();
    EXPECT_NE(aio_device_set_volume(&config, 101), 0);
    EXPECT_EQ(hdmi_sim::playback_stats().volume, 100);
    EXPECT_EQ(hdmi_sim::playback_stats().direct_volume, 51);

    ASSERT_EQ(aio_device_reselect(&config, E_AUDIO_IO_DEV_HDMI_ARC, E_AUDIO_IO_FORMAT_PCM), 0);
    EXPECT_EQ(hdmi_sim::playback_stats().device_id, E_AUDIO_IO_DEV_HDMI_ARC);
    int delay = 0;
    ASSERT_EQ(aio_device_get_write_bytes(&config, &delay), 0);
    EXPECT_GT(delay, 0) << "reselect keeps the queue";
    ASSERT_TRUE(wait_for([&] { return aio_device_get_write_bytes(&config, &delay) == 0 && delay == 0; }));
    ASSERT_TRUE(hdmi_sim::playback_finish_recording());
    const Sound sound = read_wav(wav);
    ASSERT_EQ(sound.left.size(), 19206u);
    const std::vector<int16_t> tail(sound.left.end() - 6, sound.left.end());
    EXPECT_EQ(tail, (std::vector<int16_t>{10000, 316, 0, 0, 2000, 10000}));
    unlink(wav.c_str());
    unlink((wav + ".blocks.csv").c_str());
}

TEST_F(Sim, RecordingGoesOnAcrossReopensAndAnotherRateBeginsAnotherFile)
{
    const std::string wav = temporary_file("rates.wav");
    const std::string second = temporary_file("rates-2.wav");
    hdmi_sim::playback_configure({wav, 0});
    const auto play = [](int rate) {
        audio_config_t config = playback_config(rate);
        ASSERT_EQ(aio_device_open(&config), 0);
        const int64_t before = static_cast<int64_t>(hdmi_sim::playback_stats().underruns);
        ASSERT_EQ(write_all(config, ramp(480)), 1920);
        ASSERT_TRUE(wait_for([&] { return hdmi_sim::playback_stats().underruns > before; }));
        ASSERT_EQ(aio_device_close(&config), 0);
    };
    play(48000);
    play(48000);
    const auto blocks = hdmi_sim::playback_blocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[1].first_frame, 480);
    EXPECT_GT(blocks[1].heard_ns, blocks[0].heard_ns + 10 * kMs);
    play(44100);
    ASSERT_TRUE(hdmi_sim::playback_finish_recording());
    EXPECT_EQ(read_wav(wav).left.size(), 960u);
    EXPECT_EQ(read_wav(second).info.samplerate, 44100);
    EXPECT_EQ(read_wav(second).left.size(), 480u);

    hdmi_sim::playback_configure({"/nonexistent/directory/x.wav", 0});
    play(48000);
    std::string error;
    EXPECT_FALSE(hdmi_sim::playback_finish_recording(&error));
    EXPECT_NE(error.find("/nonexistent/directory/x.wav"), std::string::npos);
    for (const std::string& path : {wav, second}) {
        unlink(path.c_str());
        unlink((path + ".blocks.csv").c_str());
    }
}

// --- Display ------------------------------------------------------------------------

struct Screen {
    std::mutex mutex;
    std::vector<hdmi_sim::ScanOut> scans;
    std::vector<std::pair<void*, bool>> released;

    ~Screen() { hdmi_sim::display_stop(); }

    int start(double refresh_hz)
    {
        return hdmi_sim::display_start(
            {refresh_hz, 76 * kMs},
            [this](const hdmi_sim::ScanOut& scan) {
                const std::lock_guard<std::mutex> lock(mutex);
                scans.push_back(scan);
            },
            [this](void* buffer, bool superseded) {
                const std::lock_guard<std::mutex> lock(mutex);
                released.emplace_back(buffer, superseded);
            });
    }
    bool shows(void* buffer)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return !scans.empty() && scans.back().buffer == buffer;
    }
};

int wait_vblanks(int fd, unsigned int count, drmVBlank& vblank)
{
    vblank = {};
    vblank.request.type = DRM_VBLANK_RELATIVE;
    vblank.request.sequence = count;
    return drmWaitVBlank(fd, &vblank);
}

TEST_F(Sim, DisplayShowsFlippedBuffersInOrderAndReleasesEachOnce)
{
    Screen screen;
    EXPECT_LT(screen.start(std::nan("")), 0);
    const int fd = screen.start(100);
    ASSERT_GT(fd, 2);
    EXPECT_LT(screen.start(100), 0) << "one at a time";
    for (intptr_t i = 1; i <= 5; i++) {
        ASSERT_TRUE(hdmi_sim::display_flip(buffer(i)));
        ASSERT_TRUE(wait_for([&] { return screen.shows(buffer(i)); }));
    }
    hdmi_sim::display_stop();
    EXPECT_FALSE(hdmi_sim::display_flip(buffer(6)));
    std::vector<std::pair<void*, bool>> expected;
    for (intptr_t i = 1; i <= 5; i++)
        expected.emplace_back(buffer(i), false);
    EXPECT_EQ(screen.released, expected);
    for (size_t i = 0; i < screen.scans.size(); i++) {
        EXPECT_EQ(screen.scans[i].vblank, static_cast<int64_t>(i) + 1);
        EXPECT_EQ(screen.scans[i].seen_ns, screen.scans[i].vblank_ns + 76 * kMs);
        if (i > 0) {
            EXPECT_EQ(screen.scans[i].vblank_ns - screen.scans[i - 1].vblank_ns, 10 * kMs);
            EXPECT_EQ(screen.scans[i].repeated,
                      screen.scans[i].buffer != nullptr && screen.scans[i].buffer == screen.scans[i - 1].buffer);
        }
    }
    const hdmi_sim::DisplayStats stats = hdmi_sim::display_stats();
    EXPECT_EQ(stats.flips, 5);
    EXPECT_EQ(stats.superseded, 0);
    EXPECT_EQ(stats.vblanks, static_cast<int64_t>(screen.scans.size()));
}

TEST_F(Sim, FlipMayBeCalledFromWithinARelease)
{
    std::atomic<int> shown{0};
    ASSERT_GT(hdmi_sim::display_start({200, 0}, nullptr,
                                      [&](void* old, bool) {
                                          if (++shown < 5)
                                              hdmi_sim::display_flip(old);
                                      }),
              0);
    hdmi_sim::display_flip(buffer(1));
    hdmi_sim::display_flip(buffer(2));
    EXPECT_TRUE(wait_for([&] { return shown >= 5; }));
    hdmi_sim::display_stop();
}

TEST_F(Sim, VblankWaitFollowsTheDisplayAndLeavesOtherDescriptorsToLibdrm)
{
    Screen screen;
    const int fd = screen.start(100);
    ASSERT_GT(fd, 0);
    drmVBlank first;
    drmVBlank third;
    ASSERT_EQ(wait_vblanks(fd, 1, first), 0);
    ASSERT_EQ(wait_vblanks(fd, 2, third), 0);
    EXPECT_GE(third.reply.sequence, first.reply.sequence + 2);
    const int64_t span_us =
        (third.reply.tval_sec - first.reply.tval_sec) * 1'000'000LL + third.reply.tval_usec - first.reply.tval_usec;
    EXPECT_NEAR(static_cast<double>(span_us), 10'000.0 * (third.reply.sequence - first.reply.sequence), 1);
    EXPECT_GE(hdmi_sim::now_ns() / 1000, third.reply.tval_sec * 1'000'000LL + third.reply.tval_usec);

    drmVBlank absolute = {};
    absolute.request.type = DRM_VBLANK_ABSOLUTE;
    EXPECT_EQ(drmWaitVBlank(fd, &absolute), -1);
    EXPECT_EQ(errno, EINVAL);

    const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
    EXPECT_NE(wait_vblanks(file, 1, first), 0);
    EXPECT_EQ(errno, ENOTTY) << "the kernel's word on a descriptor that is no display";
    close(file);

    auto blocked = std::async(std::launch::async, [&] {
        drmVBlank far;
        return wait_vblanks(fd, 100'000, far);
    });
    EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    hdmi_sim::display_stop();
    ASSERT_TRUE(ends(blocked));
    EXPECT_EQ(blocked.get(), -1);
}

// --- Announcements --------------------------------------------------------------------

std::set<std::string> entries_of(const char* directory)
{
    std::set<std::string> names;
    DIR* entries = opendir(directory);
    while (const dirent* entry = entries != nullptr ? readdir(entries) : nullptr)
        names.insert(entry->d_name);
    if (entries != nullptr)
        closedir(entries);
    return names;
}

std::string state_file()
{
    std::ifstream file("/sys/class/extcon/hdmirx_aud/state");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// As a device manager or a player listens.
class Listener
{
public:
    Listener() : fd_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT))
    {
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 0xffffffff;
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~Listener() { close(fd_); }
    bool bound() const { return bound_; }

    std::string receive(int timeout_ms)
    {
        pollfd ready = {fd_, POLLIN, 0};
        char data[512];
        const ssize_t size = poll(&ready, 1, timeout_ms) == 1 ? recv(fd_, data, sizeof(data), 0) : 0;
        return std::string(data, size > 0 ? static_cast<size_t>(size) : 0);
    }

private:
    int fd_;
    bool bound_ = false;
};

TEST(Announcements, AreRefusedInTheMachinesOwnNamespaces)
{
    EXPECT_FALSE(g_machine.announced_before);
    EXPECT_EQ(g_machine.errno_before, EPERM);
}

TEST(Announcements, NameTheDriversStates)
{
    EXPECT_EQ(hdmi_sim::announce_text(true, 44100), "HEADDONE_COMP_44=1");
    EXPECT_EQ(hdmi_sim::announce_text(false, 48000), "HEADDONE_PCM_48=1");
    EXPECT_EQ(hdmi_sim::announce_text(false, 32000), "HEADDONE_PCM_32=1");
    EXPECT_EQ(hdmi_sim::announce_text(false, 96000), "");
}

TEST(Announcements, ReachAListenerOnceAndTheStateFile)
{
    if (!g_machine.entered)
        GTEST_SKIP() << g_machine.error;
    Listener listener;
    ASSERT_TRUE(listener.bound());
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_44=1"));
    EXPECT_EQ(state_file(), "HEADDONE_PCM_44=1");
    const std::string message = listener.receive(5000);
    EXPECT_EQ(message.substr(0, message.find('\0')), "change@/devices/platform/hdmirx_aud/extcon/hdmirx_aud");
    for (const char* line : {"ACTION=change", "SUBSYSTEM=extcon", "NAME=hdmirx_aud", "STATE=HEADDONE_PCM_44=1"})
        EXPECT_NE(message.find('\0' + std::string(line) + '\0'), std::string::npos) << line;
    EXPECT_EQ(listener.receive(50), "");

    const std::string raw("one\0STATE=HEADDONE\0\0rest", 24);
    ASSERT_TRUE(hdmi_sim::send_uevent(raw));
    EXPECT_EQ(listener.receive(5000), raw);
    ASSERT_TRUE(hdmi_sim::write_state_file(""));
    EXPECT_EQ(state_file(), "");
    EXPECT_EQ(listener.receive(50), "") << "the file alone is no event";
}

TEST(Announcements, HideNothingElseOfTheMachinesClasses)
{
    if (!g_machine.entered)
        GTEST_SKIP() << g_machine.error;
    std::set<std::string> expected = g_machine.classes_before;
    expected.insert({".", "..", "extcon"});
    EXPECT_EQ(entries_of("/sys/class"), expected);
    if (expected.count("net") != 0) {
        EXPECT_EQ(access("/sys/class/net/lo/address", R_OK), 0) << "links inside a class still lead somewhere";
    }
    std::string error;
    EXPECT_TRUE(hdmi_sim::enter_private_namespaces(&error)) << "again: " << error;
}

// --- Faults and CEC ---------------------------------------------------------------------

TEST_F(Sim, EveryOperationFailsOnDemandAndRecovers)
{
    audio_config_t capture = capture_config();
    audio_config_t playback = playback_config();
    hdmi_cec_config_t cec = {};
    uint8_t data[8] = {};
    int delay = 77;
    int32_t status = 0;
    adecoder_handle_t* decoder = nullptr;
    hdmi_sim::receiver_connect(numbered_signal());
    Screen screen;
    const int fd = screen.start(200);
    const auto init_decoder = [] {
        return adecoder_init(ADECODER_FORMAT_AC3, 1, 0, ADECODER_CHANNEL_STEREO, 0, false);
    };
    drmVBlank vblank;
    // In an order in which every call works without its fault.
    const std::vector<std::pair<Op, std::function<int()>>> calls = {
        {Op::capture_open, [&] { return aio_device_open(&capture); }},
        {Op::capture_frames_to_bytes, [&] { return aio_device_frames_to_bytes(&capture, 0); }},
        {Op::capture_read, [&] { return aio_device_read(&capture, data, 8); }},
        {Op::playback_open, [&] { return aio_device_open(&playback); }},
        {Op::playback_write, [&] { return aio_device_write(&playback, data, 8); }},
        {Op::playback_delay, [&] { return aio_device_get_write_bytes(&playback, &delay); }},
        {Op::set_volume, [&] { return aio_device_set_volume(&playback, 30); }},
        {Op::set_volume_direct, [&] { return aio_device_set_volume_direct(&playback, 30); }},
        {Op::set_mute, [&] { return aio_device_set_mute(&playback, true); }},
        {Op::reselect, [&] { return aio_device_reselect(&playback, 2, 0); }},
        {Op::wait_vblank, [&] { return wait_vblanks(fd, 1, vblank); }},
        {Op::cec_init, [&] { return vendor_hdmi_cec_init(&cec); }},
        {Op::cec_open_arc, [&] { return vendor_hdmi_cec_open_arc(); }},
        {Op::cec_deinit, [&] { return vendor_hdmi_cec_deinit(); }},
        {Op::decoder_init, [&] { return (decoder = init_decoder()) != nullptr ? 0 : -42; }},
        {Op::decoder_write, [&] { return adecoder_write(decoder, data, 8, 0, -1, &status); }},
        {Op::decoder_read, [&] { return adecoder_read(decoder, 0, 0, data, 8, 0); }},
        {Op::decoder_rate, [&] { return adecoder_get_output_sample_rate(decoder); }},
        {Op::decoder_deinit, [&] { return adecoder_deinit(decoder); }},
        {Op::bytes_to_frames, [&] { return aio_device_bytes_to_frames(&playback, 8); }},
        {Op::capture_close, [&] { return aio_device_close(&capture); }},
        {Op::playback_close, [&] { return aio_device_close(&playback); }},
    };
    ASSERT_EQ(calls.size(), static_cast<size_t>(Op::count));
    for (const auto& [op, call] : calls) {
        SCOPED_TRACE(static_cast<int>(op));
        hdmi_sim::set_fault(op, {FaultKind::fail, -42, 0, 1, false});
        EXPECT_EQ(call(), -42);
        EXPECT_EQ(hdmi_sim::fault_hits(op), 1);
        if (op == Op::playback_delay) {
            EXPECT_EQ(delay, 77) << "a failed call stores nothing";
        }
        EXPECT_GE(call(), 0) << "one call was to fail";
        hdmi_sim::clear_fault(op);
    }
    EXPECT_EQ(hdmi_sim::cec_calls(),
              (std::vector<std::string>{"init", "init", "open_arc", "open_arc", "deinit", "deinit"}));
}

TEST_F(Sim, BriefTransfersAreHalvesAndWithheldWritesAreNotHeard)
{
    hdmi_sim::receiver_connect(numbered_signal());
    audio_config_t capture = capture_config();
    audio_config_t playback = playback_config();
    capture.period_count = 64;
    ASSERT_EQ(aio_device_open(&capture), 0);
    ASSERT_EQ(aio_device_open(&playback), 0);
    std::vector<uint8_t> data(1920);
    hdmi_sim::set_fault(Op::capture_read, {FaultKind::brief, 0, 1, 2, true});
    EXPECT_EQ(aio_device_read(&capture, data.data(), 1920), 1920) << "the first call passes";
    const int64_t first = number_at(data.data());
    EXPECT_EQ(aio_device_read(&capture, data.data(), 1920), 959);
    EXPECT_EQ(aio_device_read(&capture, data.data(), 1920), 959);
    EXPECT_EQ(number_at(data.data()), first + 480 + 240) << "the next read begins with a whole frame";
    EXPECT_EQ(aio_device_read(&capture, data.data(), 1920), 1920);

    hdmi_sim::set_fault(Op::playback_write, {FaultKind::brief, 0, 0, 1, false});
    EXPECT_EQ(write_all(playback, ramp(101)), 200);
    hdmi_sim::set_fault(Op::playback_write, {FaultKind::brief, 0, 0, 1, true});
    EXPECT_EQ(write_all(playback, ramp(100)), 199);
    EXPECT_EQ(hdmi_sim::playback_stats().frames_written, 50 + 49);
    hdmi_sim::set_fault(Op::playback_write, {FaultKind::withhold, 0, 0, 1, false});
    EXPECT_EQ(write_all(playback, ramp(100)), 400);
    EXPECT_EQ(hdmi_sim::playback_stats().frames_written, 50 + 49);
}

TEST_F(Sim, BriefDecoderTakesHalf)
{
    adecoder_handle_t* decoder = adecoder_init(ADECODER_FORMAT_AC3, 1, 0, ADECODER_CHANNEL_STEREO, 0, false);
    ASSERT_NE(decoder, nullptr);
    const uint8_t data[8] = {};
    int32_t status = 0;
    hdmi_sim::set_fault(Op::decoder_write, {FaultKind::brief, 0, 0, 1, false});
    EXPECT_EQ(adecoder_write(decoder, data, 8, 0, -1, &status), 4);
    EXPECT_EQ(adecoder_write(decoder, data, 8, 0, -1, &status), 8);
    adecoder_deinit(decoder);
}

TEST_F(Sim, BlockingFaultEndsWhenClearedOrWithTheDevice)
{
    hdmi_sim::receiver_connect(numbered_signal());
    audio_config_t capture = capture_config();
    audio_config_t playback = playback_config();
    for (const Op op : {Op::capture_open, Op::capture_read, Op::playback_write})
        hdmi_sim::set_fault(op, {FaultKind::block, 0, 0, -1, false});
    auto open_call = std::async(std::launch::async, [&] { return aio_device_open(&capture); });
    ASSERT_TRUE(wait_for([] { return hdmi_sim::fault_hits(Op::capture_open) == 1; }));
    EXPECT_EQ(open_call.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    hdmi_sim::clear_fault(Op::capture_open);
    ASSERT_TRUE(ends(open_call));
    EXPECT_EQ(open_call.get(), 0);

    ASSERT_EQ(aio_device_open(&playback), 0);
    std::vector<uint8_t> data(1920);
    auto read = std::async(std::launch::async, [&] { return aio_device_read(&capture, data.data(), 1920); });
    auto write = std::async(std::launch::async, [&] { return write_all(playback, ramp(10)); });
    ASSERT_TRUE(wait_for([] { return hdmi_sim::fault_hits(Op::capture_read) == 1; }));
    ASSERT_TRUE(wait_for([] { return hdmi_sim::fault_hits(Op::playback_write) == 1; }));
    audio_config_t capture_again = capture;
    audio_config_t playback_again = playback;
    aio_device_close(&capture_again);
    aio_device_close(&playback_again);
    ASSERT_TRUE(ends(read));
    ASSERT_TRUE(ends(write));
    EXPECT_LT(read.get(), 0);
    EXPECT_LT(write.get(), 0);
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    errno = 0;
    g_machine.announced_before = hdmi_sim::announce("HEADDONE_PCM_48=1");
    g_machine.errno_before = errno;
    g_machine.classes_before = entries_of("/sys/class");
    g_machine.entered = hdmi_sim::enter_private_namespaces(&g_machine.error);
    return RUN_ALL_TESTS();
}
