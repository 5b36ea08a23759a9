// SPDX-License-Identifier: MIT
// The player's lifecycle, routing and control API: the real modules on the simulated platform.
#include "hdmi_player.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hdmi_sim.h"
#include "internal/audio_output.h"
#include "internal/routing.h"
#include "support/callers.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/player_host.h"
#include "support/unread_output.h"

using namespace std::chrono_literals;
using hdmi_sim::Op;
using hdmi_sim::playback_stats;

namespace
{

// Counts from 1 in both words, so that no block is all zeros.
hdmi_sim::Signal ramp_at(int rate)
{
    hdmi_sim::Signal signal;
    signal.rate = rate;
    signal.generate = [](int64_t first, int16_t* words, int frames) {
        for (int i = 0; i < frames; ++i)
            words[2 * i] = words[2 * i + 1] = static_cast<int16_t>((first + i) % 30000 + 1);
    };
    return signal;
}

// Writes a block of silence; blocks while the queue is full.
void write_silence()
{
    uint8_t sound[3840] = {};
    hdmi_player_audio_frame_t frame = {sound, sizeof(sound), sizeof(sound), 48000, 2, 0, 0};
    hdmi_player_write_pcm(&frame);
}

class PlayerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        hdmi_sim::reset();
        forget_callbacks();
        ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_PCM_48=1\n"));
        hdmi_player_set_mute(false);
        hdmi_player_set_volume2(-1);
        hdmi_player_set_volume(100);
        hdmi_sim::receiver_connect(ramp_at(48000));
    }
    void TearDown() override { hdmi_player_close(); }

    void open() { ASSERT_EQ(hdmi_player_open(player_config()), 0); }
    void plug_in() { ASSERT_EQ(hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN), 0); }

    // Pulls one block and gives it back; its serial and rate by value, or serial -1.
    hdmi_player_audio_frame_t pull()
    {
        hdmi_player_audio_frame_t* block = nullptr;
        hdmi_player_audio_frame_t copy = {};
        copy.serial = -1;
        if (hdmi_player_get_pcm(&block, 100) == 0) {
            copy = *block;
            EXPECT_EQ(hdmi_player_put_pcm(block), 0);
        }
        return copy;
    }
    bool sound_arrives()
    {
        return eventually([this] { return pull().serial >= 0; });
    }
};

// Calls that fail, and what each says.
void expect_refused(const std::vector<std::pair<std::function<int32_t()>, std::string>>& calls)
{
    for (const auto& [call, message] : calls) {
        const std::string log = printed([&call = call] { EXPECT_EQ(call(), -1); });
        EXPECT_NE(log.find(message), std::string::npos) << message << &call - &calls[0].first << log;
    }
}

} // namespace

TEST(Routing, FollowsTheInputFormatAndTheOutputSelection)
{
    constexpr auto kNone = AUDIO_INPUT_FORMAT_NONE;
    constexpr auto kPcm = AUDIO_INPUT_FORMAT_PCM;
    constexpr auto kBursts = AUDIO_INPUT_FORMAT_COMP_IEC61937;
    constexpr auto kRaw = E_HDMI_PLAYER_AO_FORMAT_RAW;
    const struct {
        audio_input_format_e input;
        hdmi_player_ao_dev_e device;
        hdmi_player_ao_format_e format;
        bool decodable, pcm_avsync_off, decoded_avsync_off;
        dolby_strategy_e strategy;
        bool disable_avsync;
    } cases[] = {
        {kBursts, E_HDMI_PLAYER_AO_DEV_SPDIF, kRaw, true, false, false, DOLBY_STRATEGY_HWBYPASS, true},
        {kBursts, E_HDMI_PLAYER_AO_DEV_HDMI_ARC, kRaw, false, false, false, DOLBY_STRATEGY_HWBYPASS, true},
        {kBursts, E_HDMI_PLAYER_AO_DEV_I2S_TXA, kRaw, true, true, false, DOLBY_STRATEGY_DECODE, false},
        {kBursts, E_HDMI_PLAYER_AO_DEV_SPDIF, {}, true, false, true, DOLBY_STRATEGY_DECODE, true},
        {kBursts, E_HDMI_PLAYER_AO_DEV_SPEAKER, {}, false, false, false, DOLBY_STRATEGY_DECODE, true},
        {kPcm, E_HDMI_PLAYER_AO_DEV_SPDIF, kRaw, true, false, true, DOLBY_STRATEGY_PCM, false},
        {kPcm, E_HDMI_PLAYER_AO_DEV_SPEAKER, {}, false, true, false, DOLBY_STRATEGY_PCM, true},
        {kNone, E_HDMI_PLAYER_AO_DEV_HDMI_ARC, kRaw, true, false, false, DOLBY_STRATEGY_UNSUPPORTED, true},
    };
    for (const auto& c : cases) {
        const routing_decision next = decide_routing(
            {c.device, c.format, c.input, {}, {}, {}, c.decodable, c.pcm_avsync_off, c.decoded_avsync_off});
        const bool past = c.strategy == DOLBY_STRATEGY_HWBYPASS;
        EXPECT_TRUE(next.strategy == c.strategy && next.disable_avsync == c.disable_avsync &&
                    next.ai_bypass_mode == (past ? E_AUDIO_IN_BYPASS_MODE_TO_RAW : E_AUDIO_IN_BYPASS_MODE_NONE) &&
                    next.ao_op == (past ? AUDIO_OUTPUT_DEV_OP_CLOSE : AUDIO_OUTPUT_DEV_OP_REOPEN))
            << &c - cases;
    }
}

TEST_F(PlayerTest, CallsThatCannotBeServedFailAndSayWhy)
{
    hdmi_player_audio_frame_t block = {}; // foreign, and without data
    hdmi_player_audio_frame_t* taken = nullptr;
    EXPECT_EQ(hdmi_player_set_game_mode(true) + hdmi_player_get_pcm(&taken, 0) + hdmi_player_put_pcm(&block) +
                  hdmi_player_write_pcm(&block) + render_frame() +
                  hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPDIF) +
                  hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW) +
                  hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN),
              -8);
    expect_refused({
        {hdmi_player_close, "] hdmi_player is not open\n"},
        {[] { return hdmi_player_set_volume(101); }, "] invalid volume:101\n"},
        {[] { return hdmi_player_set_volume(-1); }, "] invalid volume:-1\n"},
    });
    EXPECT_TRUE(hdmi_player_get_game_mode());
    const std::string closed = logged("3", [] {
        hdmi_player_close();
        EXPECT_EQ(hdmi_player_set_volume(100), 0);
        hdmi_player_set_volume2(30);
        hdmi_player_set_mute(false);
    });
    size_t at = 0;
    for (const char* message : {"[hdmi_player_close ", "] >>>\n", "] hdmi_player is not open\n",
                                "] set user_volume:100\n", "] set hw_volume:30\n", "] set_mute:0\n"}) {
        at = closed.find(message, at);
        ASSERT_NE(at, std::string::npos) << message << ":\n" << closed;
    }
    open();
    EXPECT_EQ(hdmi_player_set_game_mode(true) + hdmi_player_put_pcm(&block) + hdmi_player_write_pcm(&block) +
                  hdmi_player_select_audio_output_device(static_cast<hdmi_player_ao_dev_e>(17)) +
                  hdmi_player_select_audio_output_format(static_cast<hdmi_player_ao_format_e>(17)),
              -5);
    expect_refused({
        {[] { return hdmi_player_get_pcm(nullptr, 0); }, "] frame is null\n"},
        {[] { return hdmi_player_put_pcm(nullptr); }, "] frame is null\n"},
        {[] { return hdmi_player_write_pcm(nullptr); }, "] frame is null\n"},
        {[] { return hdmi_player_video_render(nullptr); }, "] frame is null\n"},
        {[] { return hdmi_player_open(player_config()); }, "] hdmi_player has been opened\n"},
    });
    EXPECT_FALSE(hdmi_player_get_game_mode());
    EXPECT_EQ(hdmi_player_set_mute(true), 0);
    expect_refused({
        {[] { return hdmi_player_set_mute(true); }, "] mute status does not change\n"},
        {[] { return hdmi_player_set_volume(1); }, "] cann't setting in mute state!\n"},
        {[] { return hdmi_player_set_volume2(1); }, "] cann't setting in mute state!\n"},
    });
    hdmi_sim::set_fault(Op::set_mute, {});
    EXPECT_NE(printed([] { hdmi_player_set_mute(false); }).find("] set mute(0) err\n"), std::string::npos);
}

TEST_F(PlayerTest, OpensOnceClosesOnceAndAgain)
{
    for (int i = 0; i < 3; ++i) {
        open();
        EXPECT_EQ(hdmi_player_close() + hdmi_player_close(), -1);
    }
    EXPECT_TRUE(playback_stats().opens == 3 && hdmi_sim::receiver_stats().opens == 3);
    // Small video queues are raised to five.
    hdmi_player_config_t config = player_config();
    for (const int size : {-3, 5}) {
        config.video_frame_queue_size = size;
        const std::string log = printed([&] { EXPECT_EQ(hdmi_player_open(config), 0); });
        EXPECT_EQ(occurrences(log, "video_frame_queue_size:-3 too small!\n"), size < 0);
        EXPECT_EQ(occurrences(log, "too small"), size < 0);
        hdmi_player_close();
    }
}

TEST_F(PlayerTest, NoProgramThatTheHostStartsGetsADescriptorOfThePlayer)
{
    constexpr int kMost = 1024;
    std::set<int> before;
    for (int descriptor = 0; descriptor < kMost; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) >= 0)
            before.insert(descriptor);
    }
    open();
    plug_in();
    ASSERT_TRUE(sound_arrives());
    int of_the_player = 0;
    for (int descriptor = 0; descriptor < kMost; ++descriptor) {
        const int flags = fcntl(descriptor, F_GETFD);
        if (before.count(descriptor) > 0 || flags < 0)
            continue;
        of_the_player++;
        EXPECT_TRUE(flags & FD_CLOEXEC) << std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
    }
    EXPECT_GE(of_the_player, 2); // for announcements, and to stop waiting for them
}

TEST_F(PlayerTest, AFailedOpenLeavesNothingBehind)
{
    hdmi_player_config_t wrong = player_config();
    wrong.video_frame_flip_cb = nullptr;
    EXPECT_EQ(hdmi_player_open(wrong), -1);
    wrong = player_config();
    wrong.ao_dev = E_HDMI_PLAYER_AO_DEV_MAX;
    EXPECT_EQ(hdmi_player_open(wrong), -1);
    for (const Op op : {Op::playback_open, Op::set_mute, Op::capture_open}) {
        hdmi_sim::set_fault(op, {});
        const std::string log = logged("2", [] { EXPECT_EQ(hdmi_player_open(player_config()), -1); });
        EXPECT_EQ(hdmi_sim::fault_hits(op), 1);
        const char* message = op == Op::capture_open ? "] audio_input_init failed\n" : "] audio_output_init failed\n";
        EXPECT_EQ(occurrences(log, message), 1) << log;
        hdmi_sim::clear_fault(op);
        EXPECT_EQ(hdmi_player_video_render(nullptr), -1);
    }
    open();
    plug_in();
    EXPECT_TRUE(sound_arrives());
}

TEST_F(PlayerTest, VolumeAndMuteLastOverACloseUnlessTheDeviceRefusedThem)
{
    const auto open_again = [this] {
        hdmi_player_close();
        hdmi_sim::reset();
        open();
    };
    const auto expect_output = [](int volume, int direct_volume, bool muted) {
        const auto out = playback_stats();
        EXPECT_EQ(std::tuple(out.volume, out.direct_volume, out.muted), std::tuple(volume, direct_volume, muted));
    };
    EXPECT_EQ(hdmi_player_set_volume(40), 0);
    open();
    expect_output(40, -1, false);
    hdmi_sim::set_fault(Op::set_volume_direct, {});
    EXPECT_LT(hdmi_player_set_volume2(12), 0);
    hdmi_sim::set_fault(Op::set_mute, {});
    EXPECT_LT(hdmi_player_set_mute(true), 0);
    open_again();
    expect_output(40, -1, false);
    // While it is muted, the volume is kept for later and the hardware volume is not.
    EXPECT_EQ(hdmi_player_set_mute(true), 0);
    EXPECT_EQ(hdmi_player_set_volume(25) + hdmi_player_set_volume2(7), -2);
    expect_output(40, -1, true);
    open_again();
    expect_output(25, -1, true);
    EXPECT_EQ(hdmi_player_set_mute(false), 0);
    hdmi_player_close();
    EXPECT_EQ(hdmi_player_set_volume2(30), 0); // hardware units go first
    open_again();
    expect_output(-1, 30, false);
}

TEST_F(PlayerTest, NoFrameIsTakenWhileTheCableIsOut)
{
    open();
    EXPECT_EQ(render_frame(), -1);
    plug_in();
    EXPECT_TRUE(eventually([] { return render_frame() != -1 || g_resets > 0; }));
    EXPECT_EQ(hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_OUT), 0);
    const int before = g_flipped + g_dropped;
    EXPECT_EQ(render_frame(), -1);
    EXPECT_EQ(g_flipped + g_dropped, before);
}

TEST_F(PlayerTest, SoundArrivesAtTheOutputRateWithTheSerialOfTheReset)
{
    hdmi_sim::receiver_connect(ramp_at(44100));
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_PCM_44=1\n"));
    open();
    plug_in();
    hdmi_player_audio_frame_t block = {};
    ASSERT_TRUE(eventually([&] { return (block = pull()).serial == 0; }));
    EXPECT_TRUE(block.sample_rate == 48000 && block.channels == 2);
    // The first frame that meets running capture starts the reset: a new serial from pts 0 on.
    ASSERT_TRUE(eventually([] { return render_frame() == -1 && g_resets == 1; }));
    ASSERT_TRUE(eventually([&] { return (block = pull()).serial == 1; }));
    EXPECT_EQ(block.pts, 0);
}

TEST_F(PlayerTest, CompressedInputOnARawDigitalOutputGoesPastThePlayer)
{
    open();
    ASSERT_TRUE(sound_arrives());
    EXPECT_EQ(hdmi_sim::receiver_stats().bypass_mode, -1);
    EXPECT_EQ(hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_HDMI_ARC), 0);
    EXPECT_EQ(hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0);
    EXPECT_TRUE(playback_stats().device_id == 4 && playback_stats().output_fmt == 0) << "RAW is opened as PCM";
    const std::string log = printed([] {
        EXPECT_TRUE(hdmi_sim::announce("HEADDONE_COMP_48=1"));
        EXPECT_TRUE(eventually([] { return hdmi_sim::receiver_stats().bypass_mode == 1; }));
    });
    EXPECT_EQ(occurrences(log, "ai[IEC-61937] ao[hdmi-arc][raw]\nai_bypass_mode: -1 -> 1\nao operation: 2\n"
                               "avsync: 1 -> 0\ndolby_strategy: unknown -> hwbypass\n\n"),
              1)
        << log;
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_48=1"));
    EXPECT_TRUE(eventually([] { return hdmi_sim::receiver_stats().bypass_mode == -1; }));
    EXPECT_TRUE(sound_arrives());
}

TEST_F(PlayerTest, CompressedInputOnASpeakerIsDecodedInSyncUnlessSwitchedOff)
{
    hdmi_player_config_t config = player_config();
    config.ao_format = E_HDMI_PLAYER_AO_FORMAT_RAW; // matters on digital outputs only
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_COMP_48=1\n"));
    for (const std::string avsync : {"1", "1 -> 0"}) {
        setenv("debug_hdmiplayer_dolby_disable_avsync", avsync == "1" ? "0" : "1", 1); // no thread of the player runs
        const std::string log = printed([&] { EXPECT_EQ(hdmi_player_open(config), 0); });
        EXPECT_EQ(occurrences(log, "ai[IEC-61937] ao[speaker][raw]\nai_bypass_mode: -1\navsync: " + avsync +
                                       "\ndolby_strategy: unknown -> decode\n\n"),
                  1)
            << log;
        hdmi_player_close();
    }
    unsetenv("debug_hdmiplayer_dolby_disable_avsync");
}

TEST_F(PlayerTest, AnUnknownInputRunsThePictureFreeAndTellsTheHost)
{
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_NOTHING=1\n"));
    // The host calls back in from its callbacks, during open as well.
    g_in_event = [] {
        EXPECT_FALSE(hdmi_player_get_game_mode());
        EXPECT_EQ(hdmi_player_close() + hdmi_player_open(player_config()), -2);
    };
    hdmi_player_config_t config = player_config();
    config.video_frame_flip_cb = [](hdmi_player_video_frame_t) { g_in_event(), ++g_flipped; };
    ASSERT_EQ(hdmi_player_open(config), 0);
    EXPECT_EQ(g_unsupported, 1);
    EXPECT_EQ(render_frame(), 0); // no cable needed: there is no sync
    EXPECT_EQ(g_flipped, 1);
    // A format turns up: sync is on again, and frames need the cable.
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_48=1"));
    EXPECT_TRUE(eventually([] { return render_frame() == -1; }));
}

TEST_F(PlayerTest, AnAnnouncementOfTheSameStateChangesNothing)
{
    open();
    ASSERT_TRUE(sound_arrives());
    const int64_t opens = hdmi_sim::receiver_stats().opens;
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_48=1"));
    // A different rate follows and reopens the capture once: the first one did not.
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_32=1"));
    EXPECT_TRUE(eventually([&] { return hdmi_sim::receiver_stats().opens > opens; }));
    EXPECT_EQ(hdmi_sim::receiver_stats().opens, opens + 1);
}

TEST_F(PlayerTest, AStormOfAnnouncementsSilencesTheSoundNoLongerThanItLasts)
{
    open();
    ASSERT_TRUE(sound_arrives());
    printed([] {
        for (int i = 0; i < 2000; ++i) { // as fast as they can be sent
            hdmi_sim::announce("HEADDONE_COMP_44=1");
            hdmi_sim::announce("HEADDONE_PCM_48=1");
        }
    });
    const auto start = std::chrono::steady_clock::now();
    // More than can have waited from before.
    for (int block = 0; block < 128; ++block)
        pull();
    EXPECT_TRUE(sound_arrives());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
}

TEST_F(PlayerTest, CloseIsPromptWhateverIsBlocked)
{
    hdmi_sim::receiver_disconnect(); // capture blocks in its read
    hdmi_sim::Fault block;
    block.kind = hdmi_sim::FaultKind::block;
    hdmi_sim::set_fault(Op::playback_write, block);
    open();
    plug_in();
    Callers callers;
    callers.run([](int) { write_silence(); });
    callers.run([](int) {
        hdmi_player_audio_frame_t* frame = nullptr;
        hdmi_player_get_pcm(&frame, -1);
    });
    ASSERT_TRUE(eventually([] { return hdmi_sim::fault_hits(Op::playback_write) > 0; }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(hdmi_player_close(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
}

TEST_F(PlayerTest, AnOutputThatNobodyReadsHoldsUpNeitherSoundNorClose)
{
    bool played = false;
    int32_t closed = -1;
    std::chrono::steady_clock::duration took = {};
    {
        const LogLevel everything("5");
        const UnreadOutput output; // a failed expectation would have to wait for it as well
        hdmi_player_open(player_config());
        Callers callers;
        callers.run([](int) { write_silence(); });
        played = eventually([] { return playback_stats().frames_written > 48000; });
        const auto start = std::chrono::steady_clock::now();
        closed = hdmi_player_close();
        took = std::chrono::steady_clock::now() - start;
    }
    EXPECT_TRUE(played);
    EXPECT_EQ(closed, 0);
    EXPECT_LT(took, 3s);
}

// Held where the resampler has ended, while the capture, at another rate than the output, goes on.
TEST_F(PlayerTest, NoCapturedBlockIsHandedOutWhileThePlayerCloses)
{
    hdmi_sim::Bitstream noise; // has the decoder built, whose end can be held
    noise.sample_rate = 48000;
    noise.bursts = {hdmi_sim::Burst{static_cast<uint16_t>(noise.coding), 8 * 1792, std::vector<uint8_t>(1792, 0x55)}};
    hdmi_sim::BurstOptions repeated;
    repeated.repeat = true;
    hdmi_sim::receiver_connect(hdmi_sim::bitstream_signal(noise, repeated));
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_COMP_48=1\n"));
    hdmi_sim::Fault fault;
    fault.kind = hdmi_sim::FaultKind::withhold;
    hdmi_sim::set_fault(Op::decoder_write, fault);
    open();
    ASSERT_TRUE(eventually([] { return hdmi_sim::fault_hits(Op::decoder_write) > 0; }));
    hdmi_sim::receiver_connect(ramp_at(44100));
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_44=1"));
    ASSERT_TRUE(sound_arrives());

    fault.kind = hdmi_sim::FaultKind::block;
    hdmi_sim::set_fault(Op::decoder_deinit, fault);
    std::thread close([] { EXPECT_EQ(hdmi_player_close(), 0); });
    EXPECT_TRUE(eventually([] { return hdmi_sim::fault_hits(Op::decoder_deinit) > 0; }));
    hdmi_player_audio_frame_t* block = nullptr;
    EXPECT_EQ(hdmi_player_get_pcm(&block, 1000), -1);
    hdmi_sim::clear_fault(Op::decoder_deinit);
    close.join();
}

// What a module calls late, as after a failed open.
TEST_F(PlayerTest, RelaysOfAClosedPlayerSaySoAndDoNothing)
{
    open();
    const auto relays = [] {
        const read_guard api(g_ao_info.api_rwlock);
        return std::pair(g_ao_info.update_avsync_clock_cb, g_ao_info.changed_cb);
    }();
    hdmi_player_close();
    const std::string log = logged("2", [&] {
        relays.first(0, 0, 1);
        relays.second(true, nullptr);
    });
    expect_once(log, {"[hdmi_player_ao_update_avsync_clock_cb ", "[hdmi_player_audio_io_changed_cb "});
    EXPECT_EQ(occurrences(log, "] hdmi_player is not open\n"), 2) << log;
}

// Calls that fail at once overlap each other: the player's lock is never free of them.
TEST_F(PlayerTest, EveryCallFromEveryThreadWhileOpeningAndClosingWhichTheyDoNotHoldUp)
{
    // Every failed call prints a line. Nobody reads them: nothing is expected before the output is back.
    const LogLevel warnings("2");
    std::optional<UnreadOutput> output(std::in_place);
    int failures = 0;
    std::chrono::steady_clock::duration longest = {};
    Callers callers;
    callers.run([](int n) { hdmi_player_set_volume(n % 101); }, 4);
    callers.run([](int) { hdmi_player_get_game_mode(); }, 4);
    callers.run([](int) { write_silence(); }, 3);
    callers.run(
        [](int n) {
            hdmi_player_audio_frame_t* frame = nullptr;
            if (hdmi_player_get_pcm(&frame, n % 2 == 0 ? 5 : -1) == 0)
                hdmi_player_put_pcm(frame);
        },
        3);
    callers.run([](int) {
        render_frame();
        std::this_thread::sleep_for(1ms);
    });
    callers.run([](int n) {
        hdmi_player_set_mute(n % 2 == 0);
        hdmi_player_set_volume2(n % 11 - 1);
        hdmi_player_hotplug_status_changed(static_cast<hdmi_hotplug_status_e>(n % 5 != 0));
    });
    callers.run([](int n) {
        hdmi_player_select_audio_output_device(static_cast<hdmi_player_ao_dev_e>(n % 7));
        hdmi_player_select_audio_output_format(static_cast<hdmi_player_ao_format_e>(n % 3));
        if (n % 10 == 0)
            hdmi_sim::announce(n % 20 == 0 ? "HEADDONE_COMP_48=1" : "HEADDONE_PCM_48=1");
        std::this_thread::sleep_for(1ms);
    });
    for (int i = 0; i < 5; ++i) {
        const auto start = std::chrono::steady_clock::now();
        failures += hdmi_player_open(player_config()) != 0;
        const auto opened = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(200ms); // lets the threads work on the open player; nothing depends on its length
        const auto close = std::chrono::steady_clock::now();
        failures += hdmi_player_close() != 0;
        longest = std::max(longest, (opened - start) + (std::chrono::steady_clock::now() - close));
    }
    callers.stop();
    output.reset();
    EXPECT_EQ(failures, 0);
    EXPECT_LT(longest, 10s);
}

int main(int argc, char** argv)
{
    setenv("debug_hdmiplayer_log_level", "2", 0);
    return run_in_namespaces(argc, argv);
}
