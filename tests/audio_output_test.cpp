// SPDX-License-Identifier: MIT
#include "internal/audio_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <sstream>

#include "internal/audio_clock.h"
#include "internal/frame_queue.h"
#include "platform_hooks.h"
#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/failing/failing_threads.h"
#include "support/gate.h"
#include "support/log_capture.h"

namespace
{

using Calls = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kPatience = 20s;
constexpr int kBlockBytes = 1920; // 480 frames, 10 ms
constexpr int kQueueFrames = 128;

struct Tick {
    int64_t time_us, max_time_us;
    int32_t serial;
};

// The playback device: records the calls in order, fails and blocks as told, and notes every
// call that no real device would survive.
struct Device {
    std::mutex mutex;
    std::condition_variable changed;
    Calls calls, violations;
    std::vector<std::string> played; // payloads
    std::vector<Tick> ticks;
    audio_config_t opened_with = {};
    bool open = false;
    bool init_done = false; // the close of a failed init comes unconditionally
    bool in_write = false, block_writes = false, outlive_close = false;
    int other_calls = 0;                // in progress
    std::map<std::string, int> results; // of the calls by their first word, where not 0
    int short_by = 0, queued = 0, queued_result = 0;

    int call(const std::string& name)
    {
        std::unique_lock lock(mutex);
        const auto planned = results.find(name.substr(0, name.find(' ')));
        const int result = planned != results.end() ? planned->second : 0;
        calls.push_back(name);
        if (other_calls > 0 || (in_write && name != "close"))
            violations.push_back(name + " during another call");
        if (name == "open" ? open : !open && init_done)
            violations.push_back(name + (open ? " of an open device" : " of a closed device"));
        open = open && (name != "close" || result < 0);
        ++other_calls;
        changed.notify_all();
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
        --other_calls;
        open = open || (name == "open" && result >= 0);
        return result;
    }

    int write(const uint8_t* data, int size)
    {
        std::unique_lock lock(mutex);
        if (!open || in_write || other_calls > 0)
            violations.push_back(open ? "write during another call" : "write to a closed device");
        in_write = true;
        changed.notify_all();
        changed.wait(lock, [&] { return !block_writes || (!open && !outlive_close); });
        in_write = false;
        if (!open)
            return -1;
        played.emplace_back(reinterpret_cast<const char*>(data), static_cast<size_t>(size));
        changed.notify_all();
        return size - short_by;
    }

    template <typename Predicate> bool wait(Predicate predicate)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kPatience, predicate);
    }
    template <typename Change> void set(Change change)
    {
        std::lock_guard lock(mutex);
        change();
        changed.notify_all();
    }
    bool wait_ticks(size_t number)
    {
        return wait([&] { return ticks.size() >= number; });
    }
    bool wait_calls(const std::string& name, long number)
    {
        return wait([&] { return count(name) >= number; });
    }
    // For while nothing is called.
    long count(const std::string& name) const { return std::count(calls.begin(), calls.end(), name); }
};

Device* g_device = nullptr;
std::function<void(bool*)> g_on_changed;
std::function<void()> g_on_clock;

void on_clock(int64_t time_us, int64_t max_time_us, int32_t serial)
{
    g_device->set([&] { g_device->ticks.push_back({time_us, max_time_us, serial}); });
    if (g_on_clock)
        g_on_clock();
}

void on_changed(bool force_reset, bool* restarted)
{
    EXPECT_FALSE(force_reset || *restarted);
    g_device->set([] { g_device->calls.push_back("changed"); });
    if (g_on_changed)
        g_on_changed(restarted);
}

void close_after_change(bool*) { audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_CLOSE); }

class AudioOutput : public testing::Test
{
protected:
    Device device;
    audio_output_config_t config = {false, -1, -1, E_HDMI_PLAYER_AO_DEV_SPEAKER, {}, {}, on_clock, on_changed};

    void SetUp() override
    {
        g_device = &device;
        g_on_changed = nullptr;
        g_on_clock = nullptr;
        Device& d = device;
        g_hooks = {};
        g_hooks.open = [&d](audio_config_t* cfg) {
            d.set([&] { d.opened_with = *cfg; });
            return d.call("open");
        };
        g_hooks.close = [&d](audio_config_t*) { return d.call("close"); };
        g_hooks.write = [&d](audio_config_t*, const uint8_t* data, int size) { return d.write(data, size); };
        g_hooks.get_write_bytes = [&d](audio_config_t*, int* out) {
            std::lock_guard lock(d.mutex);
            if (!d.open || d.in_write || d.other_calls > 0)
                d.violations.push_back("delay query out of turn");
            *out = d.queued;
            return d.queued_result;
        };
        g_hooks.set_volume = [&d](audio_config_t*, int level) { return d.call("volume " + std::to_string(level)); };
        g_hooks.set_volume_direct = [&d](audio_config_t*, int v) { return d.call("direct " + std::to_string(v)); };
        g_hooks.set_mute = [&d](audio_config_t*, bool mute) { return d.call(mute ? "mute" : "unmute"); };
        g_hooks.reselect = [&d](audio_config_t*, int id, int format) {
            return d.call("reselect " + std::to_string(id) + " " + std::to_string(format));
        };
        const auto note = [&d](const char* name) { // a platform without CEC
            return d.set([&] { d.calls.push_back(name); }), -1;
        };
        g_hooks.cec_init = [note](hdmi_cec_config_t*) { return note("cec_init"); };
        g_hooks.cec_open_arc = [note] { return note("cec_open_arc"); };
        g_hooks.cec_deinit = [note] { return note("cec_deinit"); };
    }

    void TearDown() override
    {
        if (audio_output_initialized()) {
            EXPECT_EQ(audio_output_deinit(), 0);
        }
        EXPECT_EQ(device.violations, Calls());
    }

    void start()
    {
        ASSERT_EQ(audio_output_init(config), 0);
        device.init_done = true;
        device.calls.clear();
    }

    static int32_t play(int64_t pts, int32_t serial, int32_t size = kBlockBytes, char fill = 0)
    {
        std::vector<uint8_t> data(static_cast<size_t>(size), static_cast<uint8_t>(fill));
        // Of the rates the device's counts.
        hdmi_player_audio_frame_t frame = {data.data(), size, size, -7, 2, pts, serial};
        return audio_output_write_pcm_frame(&frame);
    }

    // Plays one block and returns the clock published after it.
    Tick clock_of(int64_t pts, int32_t size = kBlockBytes)
    {
        const size_t before = device.ticks.size();
        EXPECT_EQ(play(pts, 1, size), 0);
        return device.wait_ticks(before + 1) ? device.ticks.back() : Tick{};
    }

    // Plays a block on a device that takes nothing any more.
    void get_stuck_in_a_write()
    {
        device.set([&] { device.block_writes = true; });
        ASSERT_EQ(play(1, 1), 0);
        ASSERT_TRUE(device.wait([&] { return device.in_write; }));
    }

    // Whether so many calls wait for the end of a write.
    static bool calls_wait(int32_t number)
    {
        return eventually([number] {
            mutex_guard lock(g_ao_info.mutex);
            return g_ao_info.waiting == number;
        });
    }
    static audio_output_dev_op_e pending_operation()
    {
        mutex_guard lock(g_ao_info.mutex);
        return g_ao_info.dev_op;
    }
    static int device_id()
    {
        mutex_guard lock(g_ao_info.mutex);
        return g_ao_info.audio_cfg.device_id;
    }
    static bool queue_drained()
    {
        return eventually([] { return frame_queue_get_done_counts(g_ao_info.frame_queue) == 0; });
    }
};

// The messages since testing::internal::CaptureStdout(), reduced to level and text.
std::string captured()
{
    std::istringstream log(testing::internal::GetCapturedStdout());
    std::string messages;
    for (std::string line; std::getline(log, line);)
        if (const size_t at = line.find(" ["); at != std::string::npos)
            messages += line.substr(at - 1, 2) + line.substr(line.find("] ", at) + 2) + '\n';
    return messages;
}

template <typename... Arguments> auto in_thread(Arguments... arguments)
{
    return std::async(std::launch::async, arguments...);
}

TEST_F(AudioOutput, OpensTheDeviceThenMutesThenPreparesTheReturnChannelAndClosesInTheEnd)
{
    config.mute = true;
    config.hw_volume = 0;
    config.volume = 30; // counts only without a hardware volume
    testing::internal::CaptureStdout();
    ASSERT_EQ(audio_output_init(config), 0);
    EXPECT_EQ(device.opened_with.device_id, E_AUDIO_IO_DEV_SPEAKER);
    EXPECT_TRUE(audio_output_mute_status());
    EXPECT_EQ(audio_output_init(config), -1);
    EXPECT_EQ(device.calls, (Calls{"open", "direct 0", "mute", "cec_init", "cec_open_arc"}));
    device.calls.clear();
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(audio_output_deinit(), -1);
    EXPECT_EQ(audio_output_set_volume(1) + play(0, 0), -2);
    // A block of the player's, which is freed by the close that ended this module: it is not looked at.
    EXPECT_EQ(audio_output_write_pcm_frame(reinterpret_cast<hdmi_player_audio_frame_t*>(alignof(max_align_t))), -1);
    EXPECT_EQ(audio_output_get_sample_rate(), 48000);
    EXPECT_EQ(audio_output_get_channels(), 2);
    EXPECT_EQ(device.calls, (Calls{"cec_deinit", "close"}));
    const std::string log = captured();
    EXPECT_EQ(occurrences(log, "W mute state:1\nW module has been initialized\n"), 1);
    EXPECT_EQ(occurrences(log, "W module not initialized\n"), 6);
    config.hw_volume = -1;
    for (const auto& [setting, rate, buffer] : {std::tuple(E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K, 16000, 7680),
                                                std::tuple(E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K, 44100, 7168),
                                                std::tuple(E_HDMI_PLAYER_AIO_SAMPLE_RATE_MAX, 48000, 7680)}) {
        config.sample_rate = setting;
        device.calls.clear();
        ASSERT_EQ(audio_output_init(config), 0);
        EXPECT_EQ(device.calls[1], "volume 30");
        EXPECT_TRUE(audio_output_get_sample_rate() == rate && audio_output_get_alsa_buffer_size() == buffer &&
                    audio_output_get_channels() == 2)
            << rate;
        EXPECT_EQ(audio_output_deinit(), 0);
    }
}

TEST_F(AudioOutput, AFailedInitLeavesNothingBehind)
{
    const auto fails = [&](const char* failing, int result, const char* message, const Calls& calls) {
        device.open = false;
        device.calls.clear();
        device.results = {{failing, result}};
        testing::internal::CaptureStdout();
        EXPECT_EQ(audio_output_init(config), -1);
        EXPECT_EQ(occurrences(captured(), message), 1) << message;
        EXPECT_EQ(device.calls, calls);
        EXPECT_FALSE(audio_output_initialized());
    };
    config.changed_cb = nullptr;
    fails("", 0, "E invalid callback function\n", {});
    config.changed_cb = on_changed;
    config.dev = E_HDMI_PLAYER_AO_DEV_MAX;
    fails("", 0, "W trans_dev_player_to_alsa failed.\n", {"close"});
    config.dev = E_HDMI_PLAYER_AO_DEV_AUTO;
    fails("open", -19, "E aio_device_open failed. err:-19\n", {"open"});
    config.volume = 5;
    fails("volume", -2, "E aio_device_set_volume failed. err:-2\n", {"open", "volume 5", "close"});
    config.hw_volume = 6;
    fails("direct", -3, "E aio_device_set_volume_direct failed. err:-3\n", {"open", "direct 6", "close"});
    config.hw_volume = config.volume = -1;
    fails("unmute", -4, "E aio_device_set_mute failed. err:-4\n", {"open", "unmute", "close"});

    g_threads_left = 0;
    fails("", 0, "E create write_thread failed!\n",
          {"open", "unmute", "cec_init", "cec_open_arc", "cec_deinit", "close"});
    g_threads_left = INT_MAX;
    for (int32_t id = 0; id < static_cast<int32_t>(FRAME_QUEUE_MAX); ++id)
        EXPECT_EQ(frame_queue_init(1, "other"), id) << "all of them were free";
    fails("", 0, "E frame_queue_init failed.\n", {"open", "unmute", "close"});
    for (int32_t id = 0; id < static_cast<int32_t>(FRAME_QUEUE_MAX); ++id)
        frame_queue_deinit(id);
    device.open = false;
    EXPECT_EQ(audio_output_init(config), 0);
}

TEST_F(AudioOutput, SelectionAsksThePlayerFirstAndWhatTheDeviceRefusesIsReportedAndNotKept)
{
    testing::internal::CaptureStdout();
    start();
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPEAKER), 0);
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_MAX), -1);
    EXPECT_EQ(device.calls, Calls());
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_I2S_TXA), 0);
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0);
    EXPECT_EQ(device.calls, (Calls{"changed", "reselect 7 0", "changed", "reselect 7 0"}));
    device.results["reselect"] = -9;
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_HDMI_ARC), -1);
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_PCM), -1);
    EXPECT_EQ(audio_output_get_format(), E_HDMI_PLAYER_AO_FORMAT_RAW);
    EXPECT_TRUE(audio_output_get_device() == E_HDMI_PLAYER_AO_DEV_I2S_TXA && device_id() == E_AUDIO_IO_DEV_I2S_TXA);
    g_on_changed = [](bool* restarted) { *restarted = true; };
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    EXPECT_EQ(device.calls.back(), "changed");
    EXPECT_EQ(audio_output_set_mute(true), 0);
    device.results = {{"volume", 5}, {"direct", -6}, {"unmute", -7}};
    EXPECT_EQ(audio_output_set_volume(41), 5) << "counts as a failure here, though not at init";
    EXPECT_TRUE(audio_output_set_volume_direct(7) == -6 && audio_output_set_mute(false) == -7);
    EXPECT_TRUE(audio_output_mute_status());
    const std::string log = captured();
    expect_once(log,
                {"E aio_device_reselect dev_id:4 output_fmt:0 failed!\n", "E aio_device_set_volume failed. err:5\n"});
}

// The first selection is held between what it stores and what it does to the device.
TEST_F(AudioOutput, OfTwoSelectionsAtOnceTheSecondIsDecidedAfterTheFirst)
{
    const struct {
        hdmi_player_ao_dev_e second;
        bool first_refused; // by the device
        hdmi_player_ao_dev_e selected;
        Calls reselects;
    } cases[] = {
        {E_HDMI_PLAYER_AO_DEV_HDMI_ARC, false, E_HDMI_PLAYER_AO_DEV_HDMI_ARC, {"reselect 3 0", "reselect 4 0"}},
        {E_HDMI_PLAYER_AO_DEV_HDMI_ARC, true, E_HDMI_PLAYER_AO_DEV_HDMI_ARC, {"reselect 3 0", "reselect 4 0"}},
        {E_HDMI_PLAYER_AO_DEV_SPEAKER, false, E_HDMI_PLAYER_AO_DEV_SPEAKER, {"reselect 3 0", "reselect 1 0"}},
        {E_HDMI_PLAYER_AO_DEV_SPDIF, true, E_HDMI_PLAYER_AO_DEV_SPDIF, {"reselect 3 0", "reselect 3 0"}},
    };
    for (const auto& c : cases) {
        device.init_done = false;
        start();
        Gate gate;
        g_on_changed = [&, first = true](bool*) mutable {
            const bool refused = std::exchange(first, false) && c.first_refused;
            gate.pass();
            device.set([&] { device.results["reselect"] = refused ? -1 : 0; });
        };
        auto first = in_thread(audio_output_select_device, E_HDMI_PLAYER_AO_DEV_SPDIF);
        EXPECT_TRUE(gate.reached());
        BlockedCall<int32_t> second([&c] { return audio_output_select_device(c.second); });
        EXPECT_TRUE(second.asleep());
        gate.open();
        EXPECT_EQ(first.get(), c.first_refused ? -1 : 0);
        EXPECT_EQ(second.result(), 0);
        EXPECT_EQ(audio_output_get_device(), c.selected);
        EXPECT_EQ(device_id(), static_cast<int>(c.selected)); // these have the same numbers on both sides
        Calls reselects = device.calls;
        reselects.erase(std::remove(reselects.begin(), reselects.end(), "changed"), reselects.end());
        EXPECT_EQ(reselects, c.reselects);
        EXPECT_EQ(audio_output_deinit(), 0);
    }
}

TEST_F(AudioOutput, ASelectionThatClosesTheDeviceSilencesItUntilAReopenAtANewSerial)
{
    start();
    clock_of(10000);
    g_on_changed = close_after_change;
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    EXPECT_EQ(pending_operation(), AUDIO_OUTPUT_DEV_OP_NONE);
    EXPECT_EQ(audio_output_set_mute(true), 0);
    EXPECT_EQ(audio_output_set_volume(50), 0);
    EXPECT_FALSE(audio_output_mute_status());
    EXPECT_EQ(play(20000, 1), 0);
    EXPECT_TRUE(queue_drained());
    // The reopen waits for a new serial, and gives the device the selection of now.
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    EXPECT_EQ(play(30000, 1), 0);
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(device.calls, (Calls{"changed", "close"}));
    EXPECT_EQ(play(0, 2), 0);
    ASSERT_TRUE(device.wait_ticks(2));
    EXPECT_EQ(device.calls, (Calls{"changed", "close", "open"}));
    EXPECT_EQ(device.opened_with.device_id, E_AUDIO_IO_DEV_SPDIF);
}

TEST_F(AudioOutput, AReopenThatFailsStaysPendingAndIsTriedAgain)
{
    start();
    clock_of(10000);
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    device.set([&] { device.results = {{"close", -1}}; });
    EXPECT_EQ(play(0, 2), 0); // goes to the device that would not close
    ASSERT_TRUE(device.wait_ticks(2));
    device.set([&] { device.results = {{"open", -1}}; });
    for (int i : {1, 2}) { // lost
        EXPECT_EQ(play(0, 3), 0);
        ASSERT_TRUE(device.wait_calls("open", i));
    }
    EXPECT_EQ(pending_operation(), AUDIO_OUTPUT_DEV_OP_REOPEN);
    device.set([&] { device.results.clear(); });
    EXPECT_EQ(play(20000, 3), 0);
    ASSERT_TRUE(device.wait_ticks(3));
    EXPECT_EQ(device.ticks.back().max_time_us, 30000);
    EXPECT_EQ(pending_operation(), AUDIO_OUTPUT_DEV_OP_NONE);
    EXPECT_EQ(device.calls, (Calls{"close", "close", "open", "open", "open"}));
}

TEST_F(AudioOutput, AReopenDiscardsWhatIsQueuedBehindTheNewSerial)
{
    start();
    get_stuck_in_a_write();
    for (char fill : {'a', 'b', 'c'})
        EXPECT_EQ(play(10000, 2, kBlockBytes, fill), 0);
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    device.set([&] { device.block_writes = false; });
    ASSERT_TRUE(device.wait_ticks(2));
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(play(20000, 2, kBlockBytes, 'd'), 0);
    ASSERT_TRUE(device.wait_ticks(3));
    EXPECT_EQ(device.played[1], std::string(kBlockBytes, 'a'));
    EXPECT_EQ(device.played[2], std::string(kBlockBytes, 'd'));
}

TEST(AudioClock, IsTheEndOfTheBlockLessWhatIsStillQueued)
{
    struct Case {
        int64_t pts;
        int32_t frames, remaining, rate;
        int64_t time_us, max_time_us;
    };
    for (const Case& c : {Case{5000000, 480, 960, 48000, 4990000, 5010000},
                          Case{5000000, 480, 1, 48000, 5009980, 5010000}, // 20.83 us, truncated
                          Case{0, 480, 960, 48000, 0, 10000}, Case{-500000, 480, 0, 48000, 0, -490000},
                          Case{0, 441, 4410, 44100, 0, 10000}, Case{INT64_MAX, 480, 0, 48000, INT64_MAX, INT64_MAX},
                          Case{INT64_MIN, 480, INT32_MAX, 48000, 0, INT64_MIN + 10000}}) {
        const clock_values clock = clock_after_write(c.pts, c.frames, c.remaining, c.rate);
        EXPECT_TRUE(clock.time_us == c.time_us && clock.max_time_us == c.max_time_us) << c.pts << ' ' << c.remaining;
    }
}

TEST_F(AudioOutput, PublishesTheClockByWhatTheDeviceSaysIsQueued)
{
    config.sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    start();
    for (const auto& [queued, result, time_us] :
         {std::tuple(960, 0, 4990000), {-960, 0, 5010000}, {960, -5, 5010000}}) {
        device.set([&, queued = queued, result = result] { device.queued = queued, device.queued_result = result; });
        EXPECT_EQ(clock_of(5000000).time_us, time_us);
    }
    EXPECT_EQ(clock_of(0, 7).max_time_us, 20) << "one frame and a half, and a byte";
}

TEST_F(AudioOutput, FirstBlockOfASerialIsHeldBackAndLaterOnesAreNot)
{
    start();
    EXPECT_EQ(audio_output_set_video_delay(300), 0);
    const auto played_after = [&](int64_t pts, int32_t serial) {
        const size_t before = device.played.size();
        const auto start = Clock::now();
        EXPECT_EQ(play(pts, serial), 0);
        EXPECT_TRUE(device.wait([&] { return device.played.size() > before; }));
        return Clock::now() - start;
    };
    EXPECT_GE(played_after(1, 1), 300ms);
    EXPECT_GE(played_after(1, 2), 300ms);
    EXPECT_EQ(audio_output_set_video_delay(INT32_MAX), 0);
    EXPECT_LT(played_after(2, 2), kPatience);
    EXPECT_EQ(play(0, 4), 0);
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(audio_output_deinit(), 0) << "a stop ends the hold";
    EXPECT_EQ(device.played.size(), 3u);
}

TEST_F(AudioOutput, FaultyFramesAreRefusedAndAShortWriteIsReported)
{
    const std::string log = logged("3", [&] {
        start();
        uint8_t byte = 0;
        EXPECT_EQ(audio_output_write_pcm_frame(nullptr), -1);
        for (const auto& [data, size] : {std::pair<uint8_t*, int32_t>(nullptr, 1), {&byte, 0}, {&byte, INT32_MIN}}) {
            hdmi_player_audio_frame_t frame = {data, size, 1, 48000, 2, 0, 1};
            EXPECT_EQ(audio_output_write_pcm_frame(&frame), -1);
        }
        device.short_by = 20;
        device.queued = 480;
        EXPECT_EQ(clock_of(0).time_us, 0);
        device.short_by = 0;
        EXPECT_EQ(clock_of(10000).time_us, 10000) << "the next block plays";
        EXPECT_EQ(audio_output_deinit(), 0);
    });
    expect_once(
        log, {"alsa_pcm_write failed. write:1920 written:1900\n", "remain last sequence frames:480 time:10000 us\n"});
}

TEST_F(AudioOutput, CallsThatMeetAWriteGoBeforeTheNextOne)
{
    constexpr int kCallers = 6;
    std::vector<size_t> blocks_before; // what had been played when a call reached the device
    g_hooks.set_volume = [&](audio_config_t*, int) {
        device.set([&] { blocks_before.push_back(device.played.size()); });
        std::this_thread::sleep_for(2ms); // time for the writer to push in
        return 0;
    };
    start();
    get_stuck_in_a_write();
    std::vector<std::future<int32_t>> callers;
    for (int i = 0; i < kCallers; ++i) {
        ASSERT_EQ(play(1, 1, 64), 0);
        callers.push_back(in_thread(audio_output_set_volume, 1));
    }
    EXPECT_TRUE(calls_wait(kCallers));
    device.set([&] { device.block_writes = false; });
    for (auto& caller : callers)
        EXPECT_EQ(caller.get(), 0);
    EXPECT_EQ(blocks_before, std::vector<size_t>(kCallers, 1));
}

TEST_F(AudioOutput, CallsOnADeviceThatTakesNothingGiveUpButForOneThatClosesIt)
{
    testing::internal::CaptureStdout();
    start();
    get_stuck_in_a_write();
    auto volume = in_thread(audio_output_set_volume, 1);
    auto mute = in_thread(audio_output_set_mute, true);
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), -1);
    EXPECT_TRUE(volume.get() == -ETIMEDOUT && mute.get() == -ETIMEDOUT);
    EXPECT_FALSE(audio_output_mute_status());
    EXPECT_EQ(audio_output_get_device(), E_HDMI_PLAYER_AO_DEV_SPEAKER);
    device.set([&] { device.block_writes = false; });
    EXPECT_EQ(audio_output_set_volume(2), 0);
    EXPECT_EQ(occurrences(captured(), "E aio_device_set_volume failed. err:-110\n"), 1);

    get_stuck_in_a_write();
    device.set([&] { device.outlive_close = true; });
    g_on_changed = close_after_change;
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0) << "a close ends the write";
    EXPECT_EQ(audio_output_set_volume(3), 0) << "without effect on a closed device, though its write is under way";
    device.set([&] { device.outlive_close = false; });
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(device.count("close"), 1);
}

TEST_F(AudioOutput, StopEndsAStuckWriteAndEverybodyWhoWaitsForIt)
{
    start();
    testing::internal::CaptureStdout();
    get_stuck_in_a_write();
    device.set([&] { device.results["close"] = -1; }); // fails at first: the write would stay stuck
    auto producer = in_thread([] {
        while (play(2, 1, 64) == 0) {
        }
    });
    auto volume = in_thread(audio_output_set_volume, 1);
    auto select = in_thread(audio_output_select_device, E_HDMI_PLAYER_AO_DEV_AUTO);
    EXPECT_TRUE(calls_wait(2));
    EXPECT_TRUE(eventually([] { return frame_queue_get_done_counts(g_ao_info.frame_queue) == kQueueFrames - 1; }));
    auto recovery = in_thread([&] {
        EXPECT_TRUE(device.wait_calls("close", 1));
        device.set([&] { device.results["close"] = 0; });
    });
    auto second = in_thread(audio_output_deinit);
    EXPECT_EQ(audio_output_deinit() + second.get(), -1) << "one of the two finds the work done";
    EXPECT_TRUE(volume.get() == 0 && select.get() == 0);
    producer.get();
    recovery.get();
    EXPECT_GE(occurrences(captured(), "E aio_device_close failed.\n"), 1);
    EXPECT_TRUE(device.count("volume 1") == 0 && device.count("cec_deinit") == 1);
}

TEST_F(AudioOutput, ACloseThatFailsIsRepeatedIfNeedBeByTheNextInit)
{
    std::atomic<int> left{0}; // of the failures: the next init closes too
    for (const int failures : {1, 2}) {
        start();
        left = failures;
        g_hooks.close = [&](audio_config_t*) {
            device.results["close"] = left-- > 0 ? -1 : 0;
            return device.call("close");
        };
        EXPECT_EQ(audio_output_deinit(), 0);
        EXPECT_EQ(device.count("close"), 2);
        EXPECT_EQ(device.open, failures == 2);
    }
    start(); // an open of an open device is a violation
    g_hooks.close = nullptr;
}

TEST_F(AudioOutput, AnInitDuringAStopIsRefused)
{
    Gate gate;
    g_hooks.cec_deinit = [&] { return gate.pass(), 0; };
    start();
    auto stop = in_thread(audio_output_deinit);
    EXPECT_TRUE(gate.reached());
    EXPECT_EQ(audio_output_init(config), -1);
    gate.open();
    EXPECT_EQ(stop.get(), 0);
    EXPECT_EQ(device.calls, (Calls{"close"}));
}

TEST_F(AudioOutput, AStopKeepsAReopenThatIsUnderWayFromOpeningTheDevice)
{
    Gate gate;
    g_hooks.set_volume = [&](audio_config_t*, int) { return gate.pass(), 0; };
    start();
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    auto volume = in_thread(audio_output_set_volume, 1);
    EXPECT_TRUE(gate.reached());
    EXPECT_EQ(play(0, 1), 0);
    EXPECT_TRUE(queue_drained()); // the writer is on its way to the device
    auto stop = in_thread(audio_output_deinit);
    EXPECT_TRUE(eventually([] { return g_ao_info.abort_request.load(); }));
    gate.open();
    EXPECT_TRUE(stop.get() == 0 && volume.get() == 0);
    EXPECT_EQ(device.calls, (Calls{"cec_deinit", "close"}));
}

TEST_F(AudioOutput, AMuteDuringAReopenReachesTheDeviceThatIsOpenAgain)
{
    Gate gate;
    start();
    const auto open = g_hooks.open;
    g_hooks.open = [&](audio_config_t* cfg) { return gate.pass(), open(cfg); };
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    EXPECT_EQ(play(0, 1), 0);
    EXPECT_TRUE(gate.reached()); // closed, and on its way to be open again
    BlockedCall<int32_t> mute([] { return audio_output_set_mute(true); });
    EXPECT_TRUE(mute.asleep());
    gate.open();
    EXPECT_TRUE(eventually([&] { return mute.returned(); }));
    EXPECT_TRUE(mute.result() == 0 && audio_output_mute_status());
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(std::count(device.calls.begin(), device.calls.end(), "mute"), 1);
}

TEST_F(AudioOutput, ASelectionThatDiscardsAFullQueueLetsItsProducerGoOn)
{
    // The writer is between two blocks, so that none of the 128 will be given back by it.
    Gate gate;
    g_on_clock = [&] { gate.pass(); };
    g_on_changed = close_after_change;
    start();
    for (int i = 0; i < kQueueFrames + 1; ++i)
        ASSERT_EQ(play(i, 1, 64), 0);
    BlockedCall<int32_t> producer([] { return play(1, 1, 64); });
    EXPECT_TRUE(producer.asleep());
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    EXPECT_TRUE(eventually([&] { return producer.returned(); }));
    gate.open();
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(producer.result(), 0);
}

TEST_F(AudioOutput, CallsFromEverywhereDuringReopensAndAStopNeverMeetInTheDevice)
{
    const LogLevel quiet("0");
    for (int round = 0; round < 3; ++round) {
        device.init_done = false;
        start();
        Callers callers;
        callers.run([](int n) { play(n, n / 4, 64); });
        callers.run([](int n) {
            audio_output_set_dev_operation(n % 3 == 0 ? AUDIO_OUTPUT_DEV_OP_CLOSE : AUDIO_OUTPUT_DEV_OP_REOPEN);
            audio_output_set_mute(n % 2 != 0);
            std::this_thread::yield(); // the writer's turn: it opens the device
        });
        callers.run(
            [](int n) { audio_output_select_device(static_cast<hdmi_player_ao_dev_e>(n % E_HDMI_PLAYER_AO_DEV_MAX)); });
        EXPECT_TRUE(device.wait_calls("open", 50));
        EXPECT_EQ(audio_output_deinit(), 0);
        device.set([&] { EXPECT_FALSE(device.open); });
    }
}

} // namespace
