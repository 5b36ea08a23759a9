// SPDX-License-Identifier: MIT
// The simulated devices behind the platform's functions, in real time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xf86drm.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <set>

#include "adecoder.h"
#include "aio_device.h"
#include "hdmi_cec.h"
#include "hdmi_sim.h"
#include "hdmi_sim_control.h"
#include "support/audio_devices.h"
#include "support/blocked_call.h"
#include "support/locked.h"
#include "support/ramp.h"
#include "support/wav_file.h"

using hdmi_sim::FaultKind;
using hdmi_sim::Op;

namespace
{

constexpr int64_t kMs = 1'000'000;

// The machine as main() found it before and after it entered the namespaces.
struct Machine {
    int errno_before = 0;
    std::set<std::string> classes_before;
    bool entered = false;
    std::string error;
} g_machine;

audio_config_t capture_config(int period_frames = 480, int period_count = 4)
{
    audio_config_t config = audio_device(E_AUDIO_STREAM_CAPTURE);
    config.period_frames = period_frames;
    config.period_count = period_count;
    return config;
}

audio_config_t playback_config(int rate = 48000, int period_frames = 480)
{
    audio_config_t config = audio_device(E_AUDIO_STREAM_PLAYBACK);
    config.period_frames = period_frames;
    config.sample_rate = rate;
    return config;
}

audio_config_t opened(audio_config_t config)
{
    EXPECT_EQ(aio_device_open(&config), 0);
    return config;
}

int read_into(audio_config_t& config, std::vector<uint8_t>& bytes)
{
    return aio_device_read(&config, bytes.data(), static_cast<int>(bytes.size()));
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

int write_all(audio_config_t& config, const std::vector<uint8_t>& bytes)
{
    return aio_device_write(&config, bytes.data(), static_cast<int>(bytes.size()));
}

// Waits until all that was written is heard.
void play_out(audio_config_t& config)
{
    int delay = -1;
    ASSERT_TRUE(eventually([&] { return aio_device_get_write_bytes(&config, &delay) == 0 && delay == 0; }));
}

class Sim : public testing::Test
{
protected:
    void TearDown() override
    {
        for (int op = 0; op < static_cast<int>(Op::count); op++)
            hdmi_sim::clear_fault(static_cast<Op>(op));
        audio_config_t capture = capture_config(), playback = playback_config();
        aio_device_close(&capture);
        aio_device_close(&playback);
        hdmi_sim::display_stop();
        hdmi_sim::reset();
    }
};

// --- Receiver ---------------------------------------------------------------------

TEST_F(Sim, ReceiverGivesConsecutivePeriodsAtTheSourcesPace)
{
    hdmi_sim::Signal signal = numbered_signal();
    signal.clock_error_ppm = 100'000; // a tenth fast, which shows in a short time
    hdmi_sim::receiver_connect(signal);
    audio_config_t config = capture_config();
    config.sample_rate = 0;
    ASSERT_EQ(aio_device_open(&config), 0);
    EXPECT_EQ(hdmi_sim::receiver_stats().sample_rate, 48000);
    ASSERT_EQ(aio_device_frames_to_bytes(&config, 0), 1920);

    const int64_t begin = hdmi_sim::now_ns();
    std::vector<uint8_t> period(1920);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(read_into(config, period), 1920);
        const hdmi_sim::ReceiverStats stats = hdmi_sim::receiver_stats();
        // If the machine stalls for the length of the ring, whole periods are lost, never frames inside one.
        if (stats.overruns == 0) {
            ASSERT_EQ(number_at(period.data()), stats.first_read_frame + 480 * i);
        }
        ASSERT_EQ(number_at(&period[1916]), number_at(period.data()) + 479);
    }
    const double elapsed = static_cast<double>(hdmi_sim::now_ns() - begin), expected = 20 * 480 / 52800.0 * 1e9;
    EXPECT_GE(elapsed, expected * 0.98);
    EXPECT_LT(elapsed, expected * 10);
    EXPECT_EQ(hdmi_sim::receiver_stats().periods_read, 20);
    EXPECT_EQ(hdmi_sim::receiver_stats().frames_read, 20 * 480);
}

TEST_F(Sim, ReceiverOverrunsWhenNobodyReadsAndReopensEmpty)
{
    hdmi_sim::receiver_connect(numbered_signal(192000));
    audio_config_t config = opened(capture_config(96));
    EXPECT_EQ(aio_device_open(&config), -EBUSY);
    ASSERT_TRUE(eventually([] { return hdmi_sim::receiver_stats().overruns >= 5; }));
    std::vector<uint8_t> period(384);
    ASSERT_EQ(read_into(config, period), 384);
    const int64_t oldest = number_at(period.data());
    EXPECT_EQ(aio_device_close(&config), 0);
    ASSERT_EQ(aio_device_open(&config), 0);
    ASSERT_EQ(read_into(config, period), 384);
    EXPECT_GE(number_at(period.data()), oldest + 4 * 96) << "what was captured before is gone";
}

TEST_F(Sim, ReadWaitsForASignal)
{
    audio_config_t config = capture_config(480, 64); // a machine that stalls for a moment loses nothing
    ASSERT_EQ(aio_device_open(&config), 0);
    std::vector<uint8_t> data(1920);
    BlockedCall<int> read([&] { return read_into(config, data); });
    ASSERT_TRUE(read.asleep());
    hdmi_sim::receiver_connect(numbered_signal());
    EXPECT_EQ(read.result(), 1920);
    EXPECT_EQ(number_at(data.data()), 0);
}

// --- Playback -----------------------------------------------------------------------

TEST_F(Sim, PlaybackRecordsWhatWasHeardWithUnderrunsAsSilence)
{
    const TemporaryWav wav("underrun.wav");
    hdmi_sim::playback_configure({wav.path, 0});
    audio_config_t config = opened(playback_config());
    ASSERT_EQ(write_all(config, ramp(960)), 3840);
    ASSERT_TRUE(eventually([] { return hdmi_sim::playback_stats().underruns == 1; }));
    const int64_t ran_empty = hdmi_sim::playback_stats().last_underrun_ns;
    EXPECT_EQ(ran_empty, hdmi_sim::playback_stats().first_write_ns + 20 * kMs);
    ASSERT_EQ(write_all(config, ramp(480, 2000)), 1920);
    play_out(config);
    ASSERT_TRUE(hdmi_sim::playback_finish_recording());
    EXPECT_LE(hdmi_sim::playback_stats().underruns, 2) << "one for each time it ran empty";

    const auto blocks = hdmi_sim::playback_blocks();
    ASSERT_GE(blocks.size(), 4u);
    EXPECT_FALSE(blocks[1].silence);
    ASSERT_TRUE(blocks[2].silence);
    EXPECT_EQ(blocks[2].first_frame, 960);
    EXPECT_EQ(blocks[2].heard_ns, ran_empty);
    std::vector<int16_t> expected(static_cast<size_t>(960 + blocks[2].frames + 480));
    std::iota(expected.begin(), expected.begin() + 960, int16_t{1});
    std::iota(expected.end() - 480, expected.end(), int16_t{2000});
    EXPECT_EQ(wav.left(), expected);

    std::ifstream list(wav.path + ".blocks.csv");
    std::string line;
    std::getline(list, line);
    EXPECT_EQ(line, "first_frame,frames,heard_ns,silence");
    std::getline(list, line);
    EXPECT_EQ(line, "0,480," + std::to_string(blocks[0].heard_ns) + ",0");
}

TEST_F(Sim, WriteBlocksWhileTheBufferIsFull)
{
    audio_config_t config = opened(playback_config());
    const int64_t begin = hdmi_sim::now_ns();
    ASSERT_EQ(write_all(config, ramp(8 * 480 + 2400)), (8 * 480 + 2400) * 4);
    EXPECT_GE(hdmi_sim::now_ns() - begin, 50 * kMs);
    int delay = -1;
    ASSERT_EQ(aio_device_get_write_bytes(&config, &delay), 0);
    EXPECT_LE(delay, 8 * 480);
    EXPECT_EQ(aio_device_write(&config, ramp(3).data(), 11), 8) << "whole frames only";
}

TEST_F(Sim, MatchesRatesOnlyWhereAClockHasAnErrorAndCountsWhatWaits)
{
    constexpr int kFrames = 8 * 480;
    using hdmi_sim::RateMatching;
    const struct {
        double receiver_ppm, playback_ppm;
        RateMatching policy;
        bool matched;
    } cases[] = {{0, 0, RateMatching::automatic, false},
                 {0, 100, RateMatching::automatic, true},
                 {-100, 0, RateMatching::automatic, true},
                 {0, 0, RateMatching::on, true},
                 {100, 100, RateMatching::off, false}};
    for (const auto& c : cases) {
        const TemporaryWav wav("matched.wav");
        hdmi_sim::Signal signal;
        signal.clock_error_ppm = c.receiver_ppm;
        hdmi_sim::receiver_connect(signal);
        hdmi_sim::playback_configure({wav.path, c.playback_ppm, c.policy});
        audio_config_t config = opened(playback_config(48000, 480));
        const int64_t begin = hdmi_sim::now_ns();
        ASSERT_EQ(write_all(config, ramp(kFrames)), kFrames * 4);
        int delay = 0;
        ASSERT_EQ(aio_device_get_write_bytes(&config, &delay), 0);
        const auto passed = static_cast<int>((hdmi_sim::now_ns() - begin) * 48 / kMs);
        EXPECT_LE(delay, kFrames);
        EXPECT_GE(delay, kFrames - passed - 2);
        EXPECT_EQ(hdmi_sim::playback_stats().frames_written, kFrames);
        EXPECT_EQ(hdmi_sim::playback_stats().rate_matching, c.matched);
        // The last frames of a matched block wait for the next one.
        const int waiting = c.matched ? 17 : 0;
        ASSERT_TRUE(eventually([&] { return aio_device_get_write_bytes(&config, &delay) == 0 && delay <= waiting; }));
        EXPECT_EQ(delay, waiting);
        ASSERT_TRUE(hdmi_sim::playback_finish_recording());
        EXPECT_EQ(wav.left().size(), static_cast<size_t>(kFrames - waiting));
        EXPECT_EQ(aio_device_close(&config), 0);
        hdmi_sim::reset();
    }
}

TEST_F(Sim, VolumeAndMuteActOnWhatIsWrittenAndUnityIsBitExact)
{
    const TemporaryWav wav("volume.wav");
    hdmi_sim::playback_configure({wav.path, 0});
    audio_config_t config = opened(playback_config(48000, 4800));
    // One long write keeps the device busy meanwhile: no silence between the frames of interest.
    ASSERT_EQ(write_all(config, ramp(19200)), 19200 * 4);
    const std::vector<std::pair<std::function<int()>, int16_t>> steps = {
        {[] { return 0; }, 10000},
        {[&] { return aio_device_set_volume(&config, 50); }, 316}, // -30 dB
        {[&] { return aio_device_set_mute(&config, true); }, 0},
        {[&] { return aio_device_set_volume(&config, 0) + aio_device_set_mute(&config, false); }, 0},
        {[&] { return aio_device_set_volume_direct(&config, 51); }, 2000}, // a fifth
        {[&] { return aio_device_set_volume(&config, 100); }, 10000},
    };
    std::vector<int16_t> expected;
    for (const auto& [set, heard] : steps) {
        ASSERT_EQ(set(), 0);
        ASSERT_EQ(write_all(config, ramp(1, 10000)), 4);
        expected.push_back(heard);
    }
    EXPECT_NE(aio_device_set_volume(&config, 101), 0);
    EXPECT_EQ(hdmi_sim::playback_stats().volume, 100);

    ASSERT_EQ(aio_device_reselect(&config, E_AUDIO_IO_DEV_HDMI_ARC, E_AUDIO_IO_FORMAT_PCM), 0);
    EXPECT_EQ(hdmi_sim::playback_stats().device_id, E_AUDIO_IO_DEV_HDMI_ARC);
    play_out(config);
    ASSERT_TRUE(hdmi_sim::playback_finish_recording());
    const std::vector<int16_t> left = wav.left();
    ASSERT_EQ(left.size(), 19206u) << "reselect keeps the queue";
    EXPECT_EQ(std::vector<int16_t>(left.end() - 6, left.end()), expected);
}

TEST_F(Sim, RecordingGoesOnAcrossReopensAndAnotherRateBeginsAnotherFile)
{
    const TemporaryWav wav("rates.wav"), second("rates-2.wav");
    hdmi_sim::playback_configure({wav.path, 0});
    const auto play = [](int rate, int frames) {
        audio_config_t config = opened(playback_config(rate));
        ASSERT_EQ(write_all(config, ramp(frames)), frames * 4);
        play_out(config);
        ASSERT_EQ(aio_device_close(&config), 0);
    };
    play(48000, 100); // ends inside a period; the next opening still begins a block
    play(48000, 480);
    const auto blocks = hdmi_sim::playback_blocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[1].first_frame, 100);
    EXPECT_GT(blocks[1].heard_ns, blocks[0].heard_ns + 2 * kMs);
    play(44100, 480);
    ASSERT_TRUE(hdmi_sim::playback_finish_recording());
    EXPECT_EQ(wav.left().size(), 580u);
    EXPECT_EQ(second.left(44100).size(), 480u);

    hdmi_sim::playback_configure({"/nonexistent/directory/x.wav", 0});
    play(48000, 480);
    std::string error;
    EXPECT_FALSE(hdmi_sim::playback_finish_recording(&error));
    EXPECT_NE(error.find("/nonexistent/directory/x.wav"), std::string::npos);
}

// --- Display ------------------------------------------------------------------------

void* buffer(intptr_t number) { return reinterpret_cast<void*>(number); }

struct Screen : Locked {
    std::vector<hdmi_sim::ScanOut> scans;
    std::vector<std::pair<void*, bool>> released;

    ~Screen() { hdmi_sim::display_stop(); }

    int start(double refresh_hz)
    {
        return hdmi_sim::display_start(
            {refresh_hz, 76 * kMs}, [this](const hdmi_sim::ScanOut& scan) { locked([&] { scans.push_back(scan); }); },
            [this](void* buffer, bool superseded) { locked([&] { released.emplace_back(buffer, superseded); }); });
    }
    bool shows(void* buffer)
    {
        return locked([&] { return !scans.empty() && scans.back().buffer == buffer; });
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
        ASSERT_TRUE(eventually([&] { return screen.shows(buffer(i)); }));
    }
    hdmi_sim::display_stop();
    EXPECT_FALSE(hdmi_sim::display_flip(buffer(6)));
    ASSERT_EQ(screen.released.size(), 5u);
    for (intptr_t i = 1; i <= 5; i++)
        EXPECT_EQ(screen.released[static_cast<size_t>(i - 1)], std::pair(buffer(i), false));
    hdmi_sim::ScanOut before = {0, screen.scans[0].vblank_ns - 10 * kMs, 0, nullptr, false};
    for (const hdmi_sim::ScanOut& scan : screen.scans) {
        EXPECT_EQ(scan.vblank, before.vblank + 1);
        EXPECT_EQ(scan.vblank_ns, before.vblank_ns + 10 * kMs);
        EXPECT_EQ(scan.seen_ns, scan.vblank_ns + 76 * kMs);
        EXPECT_EQ(scan.repeated, scan.buffer != nullptr && scan.buffer == before.buffer);
        before = scan;
    }
    EXPECT_EQ(hdmi_sim::display_stats().flips, 5);
    EXPECT_EQ(hdmi_sim::display_stats().vblanks, before.vblank);
}

TEST_F(Sim, DisplayThatTellsNobodyCountsItsVerticalBlanksAllTheSame)
{
    const int64_t begin = hdmi_sim::now_ns();
    const int fd = hdmi_sim::display_start({100, 0}, nullptr, nullptr);
    EXPECT_LT(hdmi_sim::display_start({100, 0}, nullptr, nullptr), 0) << "one at a time";
    drmVBlank blank;
    for (intptr_t i = 1; i <= 4; i++)
        ASSERT_TRUE(hdmi_sim::display_flip(buffer(i)));
    ASSERT_EQ(wait_vblanks(fd, 3, blank), 0);
    const hdmi_sim::DisplayStats stats = hdmi_sim::display_stats();
    EXPECT_TRUE(stats.flips == 4 && stats.superseded >= 2);
    EXPECT_GE(stats.vblanks, blank.reply.sequence);
    EXPECT_LE(stats.vblanks, (hdmi_sim::now_ns() - begin) / (10 * kMs));
    EXPECT_GE(stats.repeated, stats.vblanks - 2);
    hdmi_sim::display_stop();
    EXPECT_FALSE(hdmi_sim::display_flip(buffer(5)));
}

TEST_F(Sim, FlipMayBeCalledFromWithinARelease)
{
    std::atomic<int> released{0};
    const auto flip_again = [&](void* old, bool) { ++released < 5 && hdmi_sim::display_flip(old); };
    ASSERT_GT(hdmi_sim::display_start({200, 0}, nullptr, flip_again), 0);
    hdmi_sim::display_flip(buffer(1));
    hdmi_sim::display_flip(buffer(2));
    EXPECT_TRUE(eventually([&] { return released >= 5; }));
    hdmi_sim::display_stop();
}

TEST_F(Sim, VblankWaitFollowsTheDisplayAndLeavesOtherDescriptorsToLibdrm)
{
    Screen screen;
    const int fd = screen.start(100);
    ASSERT_GT(fd, 0);
    drmVBlank first, third;
    ASSERT_EQ(wait_vblanks(fd, 1, first), 0);
    ASSERT_EQ(wait_vblanks(fd, 2, third), 0);
    EXPECT_GE(third.reply.sequence, first.reply.sequence + 2);
    const auto us = [](const drmVBlank& at) { return at.reply.tval_sec * 1'000'000LL + at.reply.tval_usec; };
    EXPECT_NEAR(us(third) - us(first), 10'000 * (third.reply.sequence - first.reply.sequence), 1);
    EXPECT_GE(hdmi_sim::now_ns() / 1000, us(third));
    drmVBlank absolute = {};
    absolute.request.type = DRM_VBLANK_ABSOLUTE;
    EXPECT_EQ(drmWaitVBlank(fd, &absolute), -1);
    EXPECT_EQ(errno, EINVAL);

    const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
    EXPECT_NE(wait_vblanks(file, 1, first), 0);
    EXPECT_EQ(errno, ENOTTY) << "the kernel's word on a descriptor that is no display";
    close(file);

    BlockedCall<int> blocked([fd] {
        drmVBlank far;
        return wait_vblanks(fd, 100'000, far);
    });
    ASSERT_TRUE(blocked.asleep());
    hdmi_sim::display_stop();
    EXPECT_EQ(blocked.result(), -1);
}

TEST_F(Sim, VblankWaitsThatComeTooLateAreCounted)
{
    Screen screen;
    const int fd = screen.start(100);
    ASSERT_GT(fd, 0);
    drmVBlank first, second;
    const auto wait_after_five = [&](unsigned int count) {
        ASSERT_EQ(wait_vblanks(fd, count, first), 0);
        ASSERT_TRUE(eventually([&] { return hdmi_sim::display_stats().vblanks >= first.reply.sequence + 5; }));
        ASSERT_EQ(wait_vblanks(fd, 1, second), 0);
    };
    wait_after_five(1);
    EXPECT_EQ(hdmi_sim::vblank_waits().waits, 2);
    const int64_t missed = hdmi_sim::vblank_waits().missed;
    EXPECT_EQ(missed, second.reply.sequence - first.reply.sequence - 1);
    EXPECT_GE(missed, 4);
    wait_after_five(0);
    EXPECT_EQ(hdmi_sim::vblank_waits().waits, 3);
    EXPECT_EQ(hdmi_sim::vblank_waits().missed, missed) << "a look between them: not in a row";
}

// --- Announcements --------------------------------------------------------------------

std::set<std::string> entries_of(const char* directory)
{
    std::set<std::string> names;
    std::error_code none; // without the folder: no entries
    for (const auto& entry : std::filesystem::directory_iterator(directory, none))
        names.insert(entry.path().filename());
    return names;
}

std::string state_file()
{
    std::ifstream file("/sys/class/extcon/hdmirx_aud/state");
    return {std::istreambuf_iterator<char>(file), {}};
}

// Listens to uevents as a device manager or a player does.
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

TEST_F(Sim, ASourceByNameThatIsNoneIsRefusedWithTheReasonAndChangesNothing)
{
    const std::pair<const char*, const char*> refused[] = {
        {"", "no such file"},
        {"nothing", "nothing: no such file, nor programme, tone or silence"},
        {"tone,ppm=fast", "tone,ppm=fast: no such file"},
        {"/nowhere.ac3", "/nowhere.ac3: no such file"},
        {"/dev/null", "/dev/null: "},
        {"tone,rate=96000", "tone: 96000 Hz is not one of 32000, 44100, 48000"},
        {"tone,ppm=20000", "tone: no clock is so wrong as"},
    };
    for (const auto& [signal, reason] : refused) {
        char error[256] = "";
        EXPECT_EQ(hdmi_sim_connect(signal, error, sizeof(error)), -1) << signal;
        EXPECT_NE(std::string(error).find(reason), std::string::npos) << error;
        EXPECT_EQ(std::string(error).find('\n'), std::string::npos);
    }
    EXPECT_EQ(hdmi_sim_connect("nothing", nullptr, 0), -1);
}

TEST(Announcements, ReachAListenerOnceAndTheStateFile)
{
    if (!g_machine.entered)
        GTEST_SKIP() << g_machine.error;
    Listener listener;
    ASSERT_TRUE(listener.bound());
    ASSERT_TRUE(hdmi_sim::announce(hdmi_sim::announce_text(false, 44100)));
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

TEST(Announcements, NeedPrivateNamespacesThatHideNothingElseOfTheMachinesClasses)
{
    EXPECT_EQ(g_machine.errno_before, EPERM) << "refused in the machine's own";
    if (!g_machine.entered)
        GTEST_SKIP() << g_machine.error;
    std::set<std::string> expected = g_machine.classes_before;
    expected.insert("extcon");
    EXPECT_EQ(entries_of("/sys/class"), expected);
    EXPECT_EQ(access("/sys/class/net/lo/address", R_OK), expected.count("net") != 0 ? 0 : -1)
        << "a link inside a class";
    std::string error;
    EXPECT_TRUE(hdmi_sim::enter_private_namespaces(&error)) << "again: " << error;
}

// --- Faults and CEC ---------------------------------------------------------------------

TEST_F(Sim, EveryOperationFailsOnDemandAndRecovers)
{
    audio_config_t capture = capture_config(), playback = playback_config();
    hdmi_cec_config_t cec = {};
    uint8_t data[8] = {};
    int delay = 77;
    int32_t status = 0;
    adecoder_handle_t* decoder = nullptr;
    hdmi_sim::receiver_connect(numbered_signal());
    Screen screen;
    const int fd = screen.start(200);
    drmVBlank vblank;
    const auto init_decoder = [&decoder] {
        decoder = adecoder_init(ADECODER_FORMAT_AC3, 1, 0, ADECODER_CHANNEL_STEREO, 0, false);
        return decoder != nullptr ? 0 : -42;
    };
    // In an order in which every call succeeds without a fault.
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
        {Op::decoder_init, init_decoder},
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
        EXPECT_TRUE(op != Op::playback_delay || delay == 77) << "a failed call stores nothing";
        EXPECT_GE(call(), 0) << "one call was to fail";
        hdmi_sim::clear_fault(op);
    }
    EXPECT_EQ(hdmi_sim::cec_calls(),
              (std::vector<std::string>{"init", "init", "open_arc", "open_arc", "deinit", "deinit"}));
}

TEST_F(Sim, BriefTransfersAreHalvesAndWithheldWritesAreNotHeard)
{
    hdmi_sim::receiver_connect(numbered_signal());
    audio_config_t capture = opened(capture_config(480, 64)), playback = opened(playback_config());
    std::vector<uint8_t> data(1920);
    hdmi_sim::set_fault(Op::capture_read, {FaultKind::brief, 0, 1, 2, true});
    std::vector<std::pair<int, int64_t>> reads;
    for (int i = 0; i < 4; i++) {
        const int bytes = aio_device_read(&capture, data.data(), 1920);
        reads.emplace_back(bytes, number_at(data.data()) - (i == 0 ? 0 : reads[0].second));
    }
    const std::vector<std::pair<int, int64_t>> expected = {
        {1920, reads[0].second}, {959, 480}, {959, 720}, {1920, 960}}; // each begins with a whole frame
    EXPECT_EQ(reads, expected);

    const auto write = [&playback](FaultKind kind, bool odd) {
        hdmi_sim::set_fault(Op::playback_write, {kind, 0, 0, 1, odd});
        return write_all(playback, ramp(101));
    };
    EXPECT_EQ(write(FaultKind::brief, false), 200);
    EXPECT_EQ(write(FaultKind::brief, true), 199);
    EXPECT_EQ(write(FaultKind::withhold, false), 404);
    EXPECT_EQ(hdmi_sim::playback_stats().frames_written, 50 + 49);

    adecoder_handle_t* decoder = adecoder_init(ADECODER_FORMAT_AC3, 1, 0, ADECODER_CHANNEL_STEREO, 0, false);
    int32_t status = 0;
    hdmi_sim::set_fault(Op::decoder_write, {FaultKind::brief, 0, 0, 1, false});
    EXPECT_EQ(adecoder_write(decoder, data.data(), 8, 0, -1, &status), 4);
    EXPECT_EQ(adecoder_write(decoder, data.data(), 8, 0, -1, &status), 8);
    adecoder_deinit(decoder);
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    errno = 0;
    g_machine.errno_before = hdmi_sim::announce("HEADDONE_PCM_48=1") ? 0 : errno;
    g_machine.classes_before = entries_of("/sys/class");
    g_machine.entered = hdmi_sim::enter_private_namespaces(&g_machine.error);
    return RUN_ALL_TESTS();
}
