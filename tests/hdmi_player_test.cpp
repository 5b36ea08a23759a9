// SPDX-License-Identifier: MIT
// The player's lifecycle, routing and control API: the real modules on the simulated platform.
#include "hdmi_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hdmi_sim.h"
#include "internal/audio_output.h"
#include "internal/routing.h"
#include "support/eventually.h"
#include "support/log_capture.h"

using namespace std::chrono_literals;
using hdmi_sim::Op;

namespace
{

constexpr auto kGenerous = 10s;

// What the host's callbacks saw. The callbacks are plain functions, so this is the program's.
struct Host {
    std::mutex mutex;
    std::vector<hdmi_player_event_e> events;
    std::vector<void*> flipped;
    std::vector<void*> dropped;
    std::function<void()> in_event; // runs inside the event callback

    void clear()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.clear();
        flipped.clear();
        dropped.clear();
        in_event = nullptr;
    }
    size_t count(hdmi_player_event_e event)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return static_cast<size_t>(std::count(events.begin(), events.end(), event));
    }
    size_t returned()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return flipped.size() + dropped.size();
    }
} g_host;

void on_event(hdmi_player_event_e event)
{
    std::function<void()> in_event;
    {
        const std::lock_guard<std::mutex> lock(g_host.mutex);
        g_host.events.push_back(event);
        in_event = g_host.in_event;
    }
    if (in_event)
        in_event();
}

void on_flip(hdmi_player_video_frame_t frame)
{
    const std::lock_guard<std::mutex> lock(g_host.mutex);
    g_host.flipped.push_back(frame.buf_handle);
}

void on_drop(hdmi_player_video_frame_t frame)
{
    const std::lock_guard<std::mutex> lock(g_host.mutex);
    g_host.dropped.push_back(frame.buf_handle);
}

hdmi_player_config_t make_config()
{
    hdmi_player_config_t config = {};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.video_frame_queue_size = 8;
    config.event_cb = on_event;
    config.video_frame_drop_cb = on_drop;
    config.video_frame_flip_cb = on_flip;
    return config;
}

// Counts from 1 in both words, so that no block is all zeros.
void ramp(int64_t first, int16_t* words, int frames)
{
    for (int i = 0; i < frames; ++i)
        words[2 * i] = words[2 * i + 1] = static_cast<int16_t>((first + i) % 30000 + 1);
}

class PlayerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        hdmi_sim::reset();
        g_host.clear();
        ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_PCM_48=1\n"));
        hdmi_player_set_mute(false);
        hdmi_player_set_volume2(-1);
        hdmi_player_set_volume(100);
        hdmi_sim::Signal signal;
        signal.generate = ramp;
        hdmi_sim::receiver_connect(signal);
    }
    void TearDown() override { hdmi_player_close(); }

    void open() { ASSERT_EQ(hdmi_player_open(make_config()), 0); }
    void plug_in() { ASSERT_EQ(hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN), 0); }

    int32_t render(uintptr_t handle)
    {
        hdmi_player_video_frame_t frame = {reinterpret_cast<void*>(handle), 0};
        return hdmi_player_video_render(&frame);
    }

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
};

} // namespace

TEST(Routing, FollowsTheInputFormatAndTheOutputSelection)
{
    constexpr auto kNone = AUDIO_INPUT_FORMAT_NONE;
    constexpr auto kPcm = AUDIO_INPUT_FORMAT_PCM;
    constexpr auto kBursts = AUDIO_INPUT_FORMAT_COMP_IEC61937;
    constexpr auto kRaw = E_HDMI_PLAYER_AO_FORMAT_RAW;
    struct Case {
        audio_input_format_e input;
        hdmi_player_ao_dev_e device;
        hdmi_player_ao_format_e format;
        bool decodable, pcm_avsync_off, decoded_avsync_off;
        dolby_strategy_e strategy;
        bool disable_avsync;
    };
    const Case cases[] = {
        {kBursts, E_HDMI_PLAYER_AO_DEV_SPDIF, kRaw, true, false, false, DOLBY_STRATEGY_HWBYPASS, true},
        {kBursts, E_HDMI_PLAYER_AO_DEV_HDMI_ARC, kRaw, false, false, false, DOLBY_STRATEGY_HWBYPASS, true},
        {kBursts, E_HDMI_PLAYER_AO_DEV_I2S_TXA, kRaw, true, true, false, DOLBY_STRATEGY_DECODE, false},
        {kBursts, E_HDMI_PLAYER_AO_DEV_SPDIF, {}, true, false, true, DOLBY_STRATEGY_DECODE, true},
        {kBursts, E_HDMI_PLAYER_AO_DEV_SPEAKER, {}, false, false, false, DOLBY_STRATEGY_DECODE, true},
        {kPcm, E_HDMI_PLAYER_AO_DEV_SPDIF, kRaw, true, false, true, DOLBY_STRATEGY_PCM, false},
        {kPcm, E_HDMI_PLAYER_AO_DEV_SPEAKER, {}, false, true, false, DOLBY_STRATEGY_PCM, true},
        {kNone, E_HDMI_PLAYER_AO_DEV_HDMI_ARC, kRaw, true, false, false, DOLBY_STRATEGY_UNSUPPORTED, true},
    };
    for (const Case& c : cases) {
        routing_state state = {};
        state.ao_dev = c.device;
        state.ao_format = c.format;
        state.ai_format = c.input;
        state.decodable = c.decodable;
        state.pcm_avsync_off = c.pcm_avsync_off;
        state.decoded_avsync_off = c.decoded_avsync_off;
        const routing_decision next = decide_routing(state);
        const bool past = c.strategy == DOLBY_STRATEGY_HWBYPASS;
        EXPECT_TRUE(next.strategy == c.strategy && next.disable_avsync == c.disable_avsync &&
                    next.ai_bypass_mode == (past ? E_AUDIO_IN_BYPASS_MODE_TO_RAW : E_AUDIO_IN_BYPASS_MODE_NONE) &&
                    next.ao_op == (past ? AUDIO_OUTPUT_DEV_OP_CLOSE : AUDIO_OUTPUT_DEV_OP_REOPEN))
            << &c - cases;
    }
}

TEST_F(PlayerTest, ClosedPlayerAnswersEveryCall)
{
    hdmi_player_audio_frame_t block = {};
    hdmi_player_audio_frame_t* taken = nullptr;
    hdmi_player_video_frame_t frame = {};
    EXPECT_EQ(hdmi_player_close(), -1);
    EXPECT_EQ(hdmi_player_set_game_mode(true), -1);
    EXPECT_TRUE(hdmi_player_get_game_mode());
    EXPECT_EQ(hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPDIF), -1);
    EXPECT_EQ(hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW), -1);
    EXPECT_EQ(hdmi_player_get_pcm(&taken, 0), -1);
    EXPECT_EQ(hdmi_player_put_pcm(&block), -1);
    EXPECT_EQ(hdmi_player_write_pcm(&block), -1);
    EXPECT_EQ(hdmi_player_video_render(&frame), -1);
    EXPECT_EQ(hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN), -1);
    EXPECT_EQ(hdmi_player_set_volume(101), -1);
    EXPECT_EQ(hdmi_player_set_volume(-1), -1);
    EXPECT_EQ(hdmi_player_set_volume(100), 0);
}

TEST_F(PlayerTest, NullArgumentsAndForeignBlocksAreRefused)
{
    open();
    hdmi_player_audio_frame_t foreign = {};
    EXPECT_EQ(hdmi_player_get_pcm(nullptr, 0), -1);
    EXPECT_EQ(hdmi_player_put_pcm(nullptr), -1);
    EXPECT_EQ(hdmi_player_write_pcm(nullptr), -1);
    EXPECT_EQ(hdmi_player_video_render(nullptr), -1);
    EXPECT_EQ(hdmi_player_put_pcm(&foreign), -1);
    EXPECT_EQ(hdmi_player_write_pcm(&foreign), -1); // no data
    EXPECT_EQ(hdmi_player_select_audio_output_device(static_cast<hdmi_player_ao_dev_e>(17)), -1);
    EXPECT_EQ(hdmi_player_select_audio_output_format(static_cast<hdmi_player_ao_format_e>(17)), -1);
    EXPECT_EQ(hdmi_player_set_game_mode(true), -1);
    EXPECT_FALSE(hdmi_player_get_game_mode());
}

TEST_F(PlayerTest, OpensOnceClosesOnceAndAgain)
{
    for (int i = 0; i < 3; ++i) {
        open();
        EXPECT_EQ(hdmi_player_open(make_config()), -1);
        EXPECT_EQ(hdmi_player_close(), 0);
        EXPECT_EQ(hdmi_player_close(), -1);
    }
    EXPECT_EQ(hdmi_sim::playback_stats().opens, 3);
    EXPECT_EQ(hdmi_sim::receiver_stats().opens, 3);
}

TEST_F(PlayerTest, AFailedOpenLeavesNothingBehind)
{
    hdmi_player_config_t no_flip = make_config();
    no_flip.video_frame_flip_cb = nullptr;
    EXPECT_EQ(hdmi_player_open(no_flip), -1);
    hdmi_player_config_t bad_device = make_config();
    bad_device.ao_dev = E_HDMI_PLAYER_AO_DEV_MAX;
    EXPECT_EQ(hdmi_player_open(bad_device), -1);
    for (const Op op : {Op::playback_open, Op::set_mute, Op::capture_open}) {
        hdmi_sim::set_fault(op, {});
        const std::string log = logged("2", [] { EXPECT_EQ(hdmi_player_open(make_config()), -1); });
        EXPECT_EQ(hdmi_sim::fault_hits(op), 1);
        EXPECT_NE(log.find(op == Op::capture_open ? "] audio_input_init failed\n" : "] audio_output_init failed\n"),
                  std::string::npos)
            << log;
        hdmi_sim::clear_fault(op);
        EXPECT_EQ(hdmi_player_video_render(nullptr), -1);
    }
    open();
    plug_in();
    EXPECT_TRUE(eventually([&] { return pull().serial >= 0; }));
}

TEST_F(PlayerTest, SmallVideoQueuesAreRaisedToFive)
{
    hdmi_player_config_t config = make_config();
    config.video_frame_queue_size = -3;
    testing::internal::CaptureStdout();
    EXPECT_EQ(hdmi_player_open(config), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("video_frame_queue_size:-3 too small!\n"), std::string::npos);
    hdmi_player_close();
    config.video_frame_queue_size = 5;
    testing::internal::CaptureStdout();
    EXPECT_EQ(hdmi_player_open(config), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("too small"), std::string::npos);
}

TEST_F(PlayerTest, RefusalsSayWhy)
{
    const auto expect = [](const char* message, const std::function<void()>& call) {
        testing::internal::CaptureStdout();
        call();
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_NE(log.find(std::string("] ") + message + "\n"), std::string::npos) << message << ":\n" << log;
    };
    const std::string closed = logged("3", [] {
        hdmi_player_close();
        hdmi_player_set_volume(40);
        hdmi_player_set_volume2(30);
        hdmi_player_set_mute(false);
    });
    size_t at = 0;
    for (const char* message : {"[hdmi_player_close ", "] >>>\n", "] hdmi_player is not open\n",
                                "] set user_volume:40\n", "] set hw_volume:30\n", "] set_mute:0\n"}) {
        at = closed.find(message, at);
        ASSERT_NE(at, std::string::npos) << message << ":\n" << closed;
    }
    expect("invalid volume:101", [] { hdmi_player_set_volume(101); });
    expect("frame is null", [] { hdmi_player_write_pcm(nullptr); });

    open();
    expect("hdmi_player has been opened", [] { hdmi_player_open(make_config()); });
    EXPECT_EQ(hdmi_player_set_mute(true), 0);
    expect("mute status does not change", [] { hdmi_player_set_mute(true); });
    expect("cann't setting in mute state!", [] { hdmi_player_set_volume(1); });
    expect("cann't setting in mute state!", [] { hdmi_player_set_volume2(1); });
    hdmi_sim::set_fault(Op::set_mute, {});
    expect("set mute(0) err", [] { hdmi_player_set_mute(false); });
}

TEST_F(PlayerTest, VolumeGivenWhileClosedIsAppliedAtOpen)
{
    EXPECT_EQ(hdmi_player_set_volume(40), 0);
    open();
    EXPECT_EQ(hdmi_sim::playback_stats().volume, 40);
    EXPECT_EQ(hdmi_sim::playback_stats().direct_volume, -1);
    hdmi_player_close();

    hdmi_sim::reset();
    EXPECT_EQ(hdmi_player_set_volume2(30), 0); // hardware units go first
    open();
    EXPECT_EQ(hdmi_sim::playback_stats().volume, -1);
    EXPECT_EQ(hdmi_sim::playback_stats().direct_volume, 30);
}

TEST_F(PlayerTest, MuteHoldsBackVolumeButRemembersIt)
{
    open();
    EXPECT_EQ(hdmi_player_set_mute(true), 0);
    EXPECT_EQ(hdmi_player_set_mute(true), -1);
    EXPECT_TRUE(hdmi_sim::playback_stats().muted);
    EXPECT_EQ(hdmi_player_set_volume(25), -1);
    EXPECT_EQ(hdmi_player_set_volume2(7), -1);
    EXPECT_EQ(hdmi_sim::playback_stats().volume, 100);
    hdmi_player_close();

    hdmi_sim::reset();
    open(); // starts muted, with the volume given while muted; the hardware volume was not kept
    EXPECT_TRUE(hdmi_sim::playback_stats().muted);
    EXPECT_EQ(hdmi_sim::playback_stats().volume, 25);
    EXPECT_EQ(hdmi_sim::playback_stats().direct_volume, -1);
    EXPECT_EQ(hdmi_player_set_mute(false), 0);
}

TEST_F(PlayerTest, ARefusedVolumeOrMuteIsReportedAndNotKept)
{
    open();
    hdmi_sim::set_fault(Op::set_volume_direct, {});
    EXPECT_LT(hdmi_player_set_volume2(12), 0);
    hdmi_sim::set_fault(Op::set_mute, {});
    EXPECT_LT(hdmi_player_set_mute(true), 0);
    hdmi_player_close();
    hdmi_sim::reset();
    open();
    EXPECT_EQ(hdmi_sim::playback_stats().direct_volume, -1);
    EXPECT_FALSE(hdmi_sim::playback_stats().muted);
}

TEST_F(PlayerTest, NoFrameIsTakenWhileTheCableIsOut)
{
    open();
    EXPECT_EQ(render(1), -1);
    plug_in();
    EXPECT_TRUE(eventually([&] { return render(2) != -1 || g_host.count(E_HDMI_PLAYER_EVENT_AVSYNC_RESET) > 0; }));
    EXPECT_EQ(hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_OUT), 0);
    const size_t before = g_host.returned();
    EXPECT_EQ(render(3), -1);
    EXPECT_EQ(g_host.returned(), before);
}

TEST_F(PlayerTest, SoundArrivesAtTheOutputRateWithTheSerialOfTheReset)
{
    hdmi_sim::Signal signal;
    signal.rate = 44100;
    signal.generate = ramp;
    hdmi_sim::receiver_connect(signal);
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_PCM_44=1\n"));
    open();
    plug_in();
    hdmi_player_audio_frame_t block = {};
    ASSERT_TRUE(eventually([&] { return (block = pull()).serial == 0; }));
    EXPECT_EQ(block.sample_rate, 48000);
    EXPECT_EQ(block.channels, 2);
    // The first frame that meets running capture starts the reset: a new serial from pts 0 on.
    ASSERT_TRUE(eventually([&] {
        render(1);
        return g_host.count(E_HDMI_PLAYER_EVENT_AVSYNC_RESET) == 1;
    }));
    ASSERT_TRUE(eventually([&] { return (block = pull()).serial == 1; }));
    EXPECT_EQ(block.pts, 0);
}

TEST_F(PlayerTest, CompressedInputOnARawDigitalOutputGoesPastThePlayer)
{
    open();
    ASSERT_TRUE(eventually([&] { return pull().serial >= 0; }));
    EXPECT_EQ(hdmi_sim::receiver_stats().bypass_mode, -1);
    EXPECT_EQ(hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_HDMI_ARC), 0);
    EXPECT_EQ(hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0);
    EXPECT_EQ(hdmi_sim::playback_stats().device_id, 4);
    EXPECT_EQ(hdmi_sim::playback_stats().output_fmt, 0); // RAW is opened as PCM

    testing::internal::CaptureStdout();
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_COMP_48=1"));
    EXPECT_TRUE(eventually([] { return hdmi_sim::receiver_stats().bypass_mode == 1; }));
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("ai[IEC-61937] ao[hdmi-arc][raw]\nai_bypass_mode: -1 -> 1\nao operation: 2\n"
                       "avsync: 1 -> 0\ndolby_strategy: unknown -> hwbypass\n\n"),
              std::string::npos)
        << log;

    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_48=1"));
    EXPECT_TRUE(eventually([] { return hdmi_sim::receiver_stats().bypass_mode == -1; }));
    EXPECT_TRUE(eventually([&] { return pull().serial >= 0; }));
}

TEST_F(PlayerTest, CompressedInputOnASpeakerIsDecodedInSyncUnlessSwitchedOff)
{
    for (const bool switched_off : {false, true}) {
        if (switched_off)
            setenv("debug_hdmiplayer_dolby_disable_avsync", "1", 1); // no thread of the player runs
        hdmi_player_config_t config = make_config();
        config.ao_format = E_HDMI_PLAYER_AO_FORMAT_RAW; // matters on digital outputs only
        ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_COMP_48=1\n"));
        testing::internal::CaptureStdout();
        EXPECT_EQ(hdmi_player_open(config), 0);
        const std::string log = testing::internal::GetCapturedStdout();
        const std::string avsync = switched_off ? "avsync: 1 -> 0\n" : "avsync: 1\n";
        EXPECT_NE(log.find("ai[IEC-61937] ao[speaker][raw]\nai_bypass_mode: -1\n" + avsync +
                           "dolby_strategy: unknown -> decode\n\n"),
                  std::string::npos)
            << log;
        hdmi_player_close();
    }
    unsetenv("debug_hdmiplayer_dolby_disable_avsync");
}

TEST_F(PlayerTest, AnUnknownInputRunsThePictureFreeAndTellsTheHost)
{
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_NOTHING=1\n"));
    // The host calls back in from the event, during open as well.
    g_host.in_event = [] { hdmi_player_get_game_mode(); };
    open();
    EXPECT_EQ(g_host.count(E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED), 1U);
    EXPECT_EQ(render(1), 0); // no cable needed: there is no sync
    EXPECT_EQ(g_host.flipped, std::vector<void*>{reinterpret_cast<void*>(1)});
    // A format turns up: sync is on again, and frames need the cable.
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_48=1"));
    EXPECT_TRUE(eventually([&] { return render(2) == -1; }));
}

TEST_F(PlayerTest, AnAnnouncementOfTheSameStateChangesNothing)
{
    open();
    ASSERT_TRUE(eventually([&] { return pull().serial >= 0; }));
    const int64_t opens = hdmi_sim::receiver_stats().opens;
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_48=1"));
    // A different rate follows and reopens the capture once: the first one did not.
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_32=1"));
    EXPECT_TRUE(eventually([&] { return hdmi_sim::receiver_stats().opens > opens; }));
    EXPECT_EQ(hdmi_sim::receiver_stats().opens, opens + 1);
}

TEST_F(PlayerTest, CloseIsPromptWhateverIsBlocked)
{
    hdmi_sim::receiver_disconnect(); // capture blocks in its read
    hdmi_sim::Fault block;
    block.kind = hdmi_sim::FaultKind::block;
    hdmi_sim::set_fault(Op::playback_write, block);
    open();
    plug_in();
    std::atomic<bool> done{false};
    std::vector<uint8_t> sound(3840);
    std::thread writer([&] {
        while (!done) {
            hdmi_player_audio_frame_t frame = {};
            frame.data = sound.data();
            frame.size = static_cast<int32_t>(sound.size());
            frame.channels = 2;
            frame.sample_rate = 48000;
            hdmi_player_write_pcm(&frame); // blocks once the queue is full
        }
    });
    std::thread reader([&] {
        hdmi_player_audio_frame_t* frame = nullptr;
        while (!done)
            hdmi_player_get_pcm(&frame, -1);
    });
    ASSERT_TRUE(eventually([] { return hdmi_sim::fault_hits(Op::playback_write) > 0; }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(hdmi_player_close(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    done = true;
    writer.join();
    reader.join();
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
    hdmi_sim::Signal signal;
    signal.rate = 44100;
    signal.generate = ramp;
    hdmi_sim::receiver_connect(signal);
    ASSERT_TRUE(hdmi_sim::announce("HEADDONE_PCM_44=1"));
    ASSERT_TRUE(eventually([&] { return pull().serial >= 0; }));

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
    const auto clock_relay = g_ao_info.update_avsync_clock_cb;
    const auto change_handler = g_ao_info.changed_cb;
    hdmi_player_close();
    const std::string log = logged("2", [&] {
        clock_relay(0, 0, 1);
        change_handler(true, nullptr);
    });
    EXPECT_EQ(occurrences(log, "[hdmi_player_ao_update_avsync_clock_cb "), 1) << log;
    EXPECT_EQ(occurrences(log, "[hdmi_player_audio_io_changed_cb "), 1) << log;
    EXPECT_EQ(occurrences(log, "] hdmi_player is not open\n"), 2) << log;
}

// Calls that fail at once overlap each other: the player's lock is never free of them.
TEST_F(PlayerTest, CallersInALoopDoNotHoldUpOpenOrClose)
{
    constexpr int kCallers = 16;
    const std::function<void()> calls[] = {
        [] { hdmi_player_get_game_mode(); },
        [] {
            hdmi_player_audio_frame_t* frame = nullptr;
            if (hdmi_player_get_pcm(&frame, -1) == 0)
                hdmi_player_put_pcm(frame);
        },
        [] {
            uint8_t sound[3840] = {};
            hdmi_player_audio_frame_t frame = {};
            frame.data = sound;
            frame.size = sizeof(sound);
            hdmi_player_write_pcm(&frame);
        },
        [] { hdmi_player_set_volume(50); },
        [] { hdmi_player_set_mute(false); },
    };
    const LogLevel quiet("0"); // every failed call prints a line, and the console is a lock as well
    std::atomic<bool> done{false};
    const auto give_up = std::chrono::steady_clock::now() + 3 * kGenerous;
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.emplace_back([&, i] {
            while (!done && std::chrono::steady_clock::now() < give_up)
                calls[static_cast<size_t>(i) % std::size(calls)]();
        });
    }
    std::chrono::steady_clock::duration opening_and_closing{};
    for (int i = 0; i < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(hdmi_player_open(make_config()), 0);
        EXPECT_EQ(hdmi_player_close(), 0);
        opening_and_closing += std::chrono::steady_clock::now() - start;
    }
    done = true;
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_LT(opening_and_closing, 2 * kGenerous);
}

TEST_F(PlayerTest, EveryCallFromEveryThreadWhileOpeningAndClosing)
{
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    const auto run = [&](const std::function<void(int)>& call) {
        threads.emplace_back([&done, call] {
            for (int i = 0; !done; ++i) {
                call(i);
                std::this_thread::sleep_for(1ms);
            }
        });
    };
    run([](int) {
        hdmi_player_audio_frame_t* frame = nullptr;
        if (hdmi_player_get_pcm(&frame, 5) == 0 && frame == nullptr)
            ADD_FAILURE();
    });
    run([](int i) {
        hdmi_player_video_frame_t frame = {reinterpret_cast<void*>(uintptr_t{1}), i};
        hdmi_player_video_render(&frame);
    });
    run([](int i) {
        hdmi_player_set_mute(i % 2 == 0);
        hdmi_player_set_volume(i % 101);
        hdmi_player_set_volume2(i % 11 - 1);
        hdmi_player_get_game_mode();
        hdmi_player_hotplug_status_changed(static_cast<hdmi_hotplug_status_e>(i % 5 != 0));
    });
    run([](int i) {
        hdmi_player_select_audio_output_device(static_cast<hdmi_player_ao_dev_e>(i % 7));
        hdmi_player_select_audio_output_format(static_cast<hdmi_player_ao_format_e>(i % 3));
        if (i % 10 == 0)
            hdmi_sim::announce(i % 20 == 0 ? "HEADDONE_COMP_48=1" : "HEADDONE_PCM_48=1");
    });
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(hdmi_player_open(make_config()), 0);
        std::this_thread::sleep_for(200ms); // lets the threads work on the open player; nothing depends on its length
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(hdmi_player_close(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
}

int main(int argc, char** argv)
{
    setenv("debug_hdmiplayer_log_level", "2", 0);
    testing::InitGoogleTest(&argc, argv);
    std::string error;
    if (!hdmi_sim::enter_private_namespaces(&error)) {
        printf("SKIPPED: %s\n", error.c_str());
        return 77;
    }
    return RUN_ALL_TESTS();
}
