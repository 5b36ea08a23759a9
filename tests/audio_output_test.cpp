// SPDX-License-Identifier: MIT
#include "internal/audio_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "internal/frame_queue.h"
#include "platform_hooks.h"

namespace
{

using Calls = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = std::chrono::seconds(20);
constexpr int kBlockBytes = 1920; // 480 frames, 10 ms

struct Tick {
    int64_t time_us;
    int64_t max_time_us;
    int32_t serial;
};

// The playback device: records the calls in order, fails and blocks as told, and notes every
// call that no real device would survive.
struct Device {
    std::mutex mutex;
    std::condition_variable changed;
    Calls calls;
    std::vector<std::string> violations;
    std::vector<std::string> played; // payloads
    std::vector<Tick> ticks;
    audio_config_t opened_with = {};
    bool open = false;
    bool init_done = false; // the close of a failed init comes unconditionally
    bool in_write = false;
    bool block_writes = false;
    std::chrono::milliseconds write_time{0};
    int other_calls = 0; // in progress
    int open_result = 0, close_result = 0, volume_result = 0, direct_result = 0, mute_result = 0, reselect_result = 0;
    int short_by = 0;
    int queued = 0, queued_result = 0;

    int call(const std::string& name, const int& planned_result)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const int result = planned_result;
        calls.push_back(name);
        const bool is_close = name == "close";
        if (other_calls > 0 || (in_write && !is_close))
            violations.push_back(name + " during another call");
        if (name == "open" ? open : !open && init_done)
            violations.push_back(name + (open ? " of an open device" : " of a closed device"));
        if (is_close && result >= 0)
            open = false;
        ++other_calls;
        changed.notify_all();
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
        --other_calls;
        if (name == "open" && result >= 0)
            open = true;
        return result;
    }

    int write(const uint8_t* data, int size)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!open || in_write || other_calls > 0)
            violations.push_back(open ? "write during another call" : "write to a closed device");
        in_write = true;
        changed.notify_all();
        changed.wait_for(lock, write_time, [&] { return !open; });
        changed.wait(lock, [&] { return !block_writes || !open; });
        in_write = false;
        if (!open)
            return -1;
        played.emplace_back(reinterpret_cast<const char*>(data), static_cast<size_t>(size));
        changed.notify_all();
        return size - short_by;
    }

    template <typename Predicate> bool wait(Predicate predicate)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kPatience, predicate);
    }
    template <typename Change> void set(Change change)
    {
        std::lock_guard<std::mutex> lock(mutex);
        change();
        changed.notify_all();
    }
    long count(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count(calls.begin(), calls.end(), name);
    }
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
    EXPECT_FALSE(force_reset);
    EXPECT_FALSE(*restarted);
    g_device->set([] { g_device->calls.push_back("changed"); });
    if (g_on_changed)
        g_on_changed(restarted);
}

class AudioOutput : public testing::Test
{
protected:
    Device device;
    audio_output_config_t config = {};

    void SetUp() override
    {
        g_device = &device;
        g_on_changed = nullptr;
        g_on_clock = nullptr;
        Device& d = device;
        g_hooks = {};
        g_hooks.open = [&d](audio_config_t* cfg) {
            d.set([&] { d.opened_with = *cfg; });
            return d.call("open", d.open_result);
        };
        g_hooks.close = [&d](audio_config_t*) { return d.call("close", d.close_result); };
        g_hooks.write = [&d](audio_config_t*, const uint8_t* data, int size) { return d.write(data, size); };
        g_hooks.get_write_bytes = [&d](audio_config_t*, int* out) {
            std::lock_guard<std::mutex> lock(d.mutex);
            if (!d.open || d.in_write || d.other_calls > 0)
                d.violations.push_back("delay query out of turn");
            *out = d.queued;
            return d.queued_result;
        };
        g_hooks.set_volume = [&d](audio_config_t*, int volume) {
            return d.call("volume " + std::to_string(volume), d.volume_result);
        };
        g_hooks.set_volume_direct = [&d](audio_config_t*, int volume) {
            return d.call("direct " + std::to_string(volume), d.direct_result);
        };
        g_hooks.set_mute = [&d](audio_config_t*, bool mute) { return d.call(mute ? "mute" : "unmute", d.mute_result); };
        g_hooks.reselect = [&d](audio_config_t*, int id, int format) {
            return d.call("reselect " + std::to_string(id) + " " + std::to_string(format), d.reselect_result);
        };
        const auto note = [&d](const char* name) {
            d.set([&] { d.calls.push_back(name); });
            return -1; // a platform without CEC
        };
        g_hooks.cec_init = [note](hdmi_cec_config_t* cec) {
            EXPECT_FALSE(cec->load_edid);
            return note("cec_init");
        };
        g_hooks.cec_open_arc = [note] { return note("cec_open_arc"); };
        g_hooks.cec_deinit = [note] { return note("cec_deinit"); };
        config.volume = -1;
        config.hw_volume = -1;
        config.dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
        config.update_avsync_clock_cb = on_clock;
        config.changed_cb = on_changed;
    }

    void TearDown() override
    {
        if (audio_output_initialized()) {
            EXPECT_EQ(audio_output_deinit(), 0);
        }
        EXPECT_EQ(device.violations, Calls());
        unsetenv("debug_hdmiplayer_log_level");
        unsetenv("debug_hdmiplayer_log_ao_api");
    }

    void start()
    {
        ASSERT_EQ(audio_output_init(config), 0);
        device.set([&] {
            device.init_done = true;
            device.calls.clear();
        });
    }

    static int32_t play(int64_t pts, int32_t serial, int32_t size = kBlockBytes, char fill = 0)
    {
        std::vector<uint8_t> data(static_cast<size_t>(size), static_cast<uint8_t>(fill));
        hdmi_player_audio_frame_t frame = {};
        frame.data = data.data();
        frame.size = size;
        frame.sample_rate = -7; // the writer's clock is the device's
        frame.pts = pts;
        frame.serial = serial;
        return audio_output_write_pcm_frame(&frame);
    }

    // Plays one block and returns the clock published after it.
    Tick clock_of(int64_t pts, int32_t size = kBlockBytes)
    {
        size_t before = 0;
        device.set([&] { before = device.ticks.size(); });
        EXPECT_EQ(play(pts, 1, size), 0);
        EXPECT_TRUE(device.wait([&] { return device.ticks.size() > before; }));
        std::lock_guard<std::mutex> lock(device.mutex);
        return device.ticks.empty() ? Tick{} : device.ticks.back();
    }

    // Plays a block on a device that takes nothing any more.
    void get_stuck_in_a_write()
    {
        device.set([&] { device.block_writes = true; });
        ASSERT_EQ(play(1, 1), 0);
        ASSERT_TRUE(device.wait([&] { return device.in_write; }));
    }

    static bool queue_drained()
    {
        for (const auto end = Clock::now() + kPatience; Clock::now() < end;) {
            if (frame_queue_get_done_counts(g_ao_info.frame_queue) == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
};

std::string captured() { return testing::internal::GetCapturedStdout(); }

testing::AssertionResult says(const std::string& log, const std::string& level, const std::string& text)
{
    const size_t at = log.find(text);
    if (at == std::string::npos)
        return testing::AssertionFailure() << "no \"" << text << "\" in:\n" << log;
    const std::string line = log.substr(log.rfind('\n', at) + 1, at - log.rfind('\n', at));
    if (line.find(" " + level + " [") == std::string::npos)
        return testing::AssertionFailure() << "not at level " << level << ": " << line;
    return testing::AssertionSuccess();
}

// Free slots for queues: what a module leaks is missing here.
size_t free_queues()
{
    std::vector<int32_t> ids;
    for (int32_t id; (id = frame_queue_init(1, "probe")) >= 0;)
        ids.push_back(id);
    for (int32_t id : ids)
        frame_queue_deinit(id);
    return ids.size();
}

// --- Device control -------------------------------------------------------------

TEST_F(AudioOutput, OpensTheDeviceThenMutesThenPreparesTheReturnChannelAndClosesInTheEnd)
{
    testing::internal::CaptureStdout();
    config.mute = true;
    config.hw_volume = 0;
    config.volume = 30;
    ASSERT_EQ(audio_output_init(config), 0);
    EXPECT_EQ(device.calls, (Calls{"open", "direct 0", "mute", "cec_init", "cec_open_arc"}));
    EXPECT_EQ(device.opened_with.stream_type, E_AUDIO_STREAM_PLAYBACK);
    EXPECT_EQ(device.opened_with.device_id, E_AUDIO_IO_DEV_SPEAKER);
    EXPECT_EQ(device.opened_with.output_fmt, E_AUDIO_IO_FORMAT_PCM);
    EXPECT_EQ(device.opened_with.channels, 2);
    EXPECT_EQ(device.opened_with.sample_rate, 48000);
    EXPECT_EQ(device.opened_with.period_frames, 960);
    EXPECT_EQ(device.opened_with.period_count, 8);
    EXPECT_EQ(audio_output_get_alsa_buffer_size(), 7680);
    EXPECT_TRUE(audio_output_mute_status());
    EXPECT_EQ(audio_output_init(config), -1);
    EXPECT_EQ(device.calls.size(), 5u);
    device.calls.clear();
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(device.calls, (Calls{"cec_deinit", "close"}));
    EXPECT_EQ(audio_output_deinit(), -1);
    const std::string log = captured();
    EXPECT_TRUE(says(log, "W", "mute state:1\n"));
    EXPECT_TRUE(says(log, "W", "[audio_output_init "));
    EXPECT_TRUE(says(log, "W", "module has been initialized\n"));
    EXPECT_TRUE(says(log, "W", "module not initialized\n"));
}

TEST_F(AudioOutput, DeviceRateFollowsTheConfiguration)
{
    const struct {
        hdmi_player_aio_sample_rate_e setting;
        int rate, buffer;
    } cases[] = {
        {E_HDMI_PLAYER_AIO_SAMPLE_RATE_ORIGINAL, 48000, 7680}, {E_HDMI_PLAYER_AIO_SAMPLE_RATE_16K, 16000, 7680},
        {E_HDMI_PLAYER_AIO_SAMPLE_RATE_32K, 32000, 7680},      {E_HDMI_PLAYER_AIO_SAMPLE_RATE_44K, 44100, 7168},
        {E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K, 48000, 7680},      {E_HDMI_PLAYER_AIO_SAMPLE_RATE_MAX, 48000, 7680}};
    for (const auto& c : cases) {
        config.sample_rate = c.setting;
        ASSERT_EQ(audio_output_init(config), 0);
        EXPECT_EQ(audio_output_get_sample_rate(), c.rate);
        EXPECT_EQ(audio_output_get_alsa_buffer_size(), c.buffer);
        EXPECT_EQ(audio_output_deinit(), 0);
    }
}

TEST_F(AudioOutput, SoftwareVolumeCountsOnlyWithoutAHardwareVolume)
{
    config.volume = 30;
    ASSERT_EQ(audio_output_init(config), 0);
    EXPECT_EQ(device.count("volume 30"), 1);
    EXPECT_EQ(audio_output_deinit(), 0);
    config.volume = -1;
    device.calls.clear();
    ASSERT_EQ(audio_output_init(config), 0);
    EXPECT_EQ(device.calls, (Calls{"open", "unmute", "cec_init", "cec_open_arc"}));
}

TEST_F(AudioOutput, AFailedInitLeavesNothingBehind)
{
    const size_t slots = free_queues();
    const auto expect_failure = [&](const char* level, const char* message, const Calls& calls) {
        testing::internal::CaptureStdout();
        device.calls.clear();
        EXPECT_EQ(audio_output_init(config), -1);
        EXPECT_TRUE(says(captured(), level, message));
        EXPECT_EQ(device.calls, calls);
        EXPECT_FALSE(audio_output_initialized());
        EXPECT_EQ(free_queues(), slots);
        device.open = false;
        device.open_result = device.volume_result = device.direct_result = device.mute_result = 0;
    };
    config.dev = E_HDMI_PLAYER_AO_DEV_MAX;
    expect_failure("W", "trans_dev_player_to_alsa failed.\n", {"close"});
    config.dev = E_HDMI_PLAYER_AO_DEV_AUTO;
    config.format = E_HDMI_PLAYER_AO_FORMAT_MAX;
    expect_failure("W", "trans_format_player_to_alsa failed.\n", {"close"});
    config.format = E_HDMI_PLAYER_AO_FORMAT_PCM;
    device.open_result = -19;
    expect_failure("E", "aio_device_open failed. err:-19\n", {"open"});
    config.volume = 5;
    device.volume_result = -2;
    expect_failure("E", "aio_device_set_volume failed. err:-2\n", {"open", "volume 5", "close"});
    config.hw_volume = 6;
    device.direct_result = -3;
    expect_failure("E", "aio_device_set_volume_direct failed. err:-3\n", {"open", "direct 6", "close"});
    config.hw_volume = config.volume = -1;
    device.mute_result = -4;
    expect_failure("E", "aio_device_set_mute failed. err:-4\n", {"open", "unmute", "close"});

    // No thread fits into a stack of that size.
    pthread_attr_t normal, huge;
    pthread_getattr_default_np(&normal);
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, size_t{1} << 46);
    if (pthread_setattr_default_np(&huge) == 0) {
        expect_failure("E", "create write_thread failed!\n",
                       {"open", "unmute", "cec_init", "cec_open_arc", "cec_deinit", "close"});
        pthread_setattr_default_np(&normal);
    }

    std::vector<int32_t> ids;
    for (int32_t id; (id = frame_queue_init(1, "other")) >= 0;)
        ids.push_back(id);
    testing::internal::CaptureStdout();
    device.calls.clear();
    EXPECT_EQ(audio_output_init(config), -1);
    EXPECT_TRUE(says(captured(), "E", "frame_queue_init failed.\n"));
    EXPECT_EQ(device.calls, (Calls{"open", "unmute", "close"}));
    for (int32_t id : ids)
        frame_queue_deinit(id);

    config.changed_cb = nullptr;
    device.calls.clear();
    EXPECT_EQ(audio_output_init(config), -1);
    config.changed_cb = on_changed;
    config.update_avsync_clock_cb = nullptr;
    EXPECT_EQ(audio_output_init(config), -1);
    EXPECT_EQ(device.calls, Calls());
    config.update_avsync_clock_cb = on_clock;
    EXPECT_EQ(audio_output_init(config), 0);
}

TEST_F(AudioOutput, WithoutInitCallsFailWithDefaultsAndAWarning)
{
    const auto warns = [](auto call) {
        testing::internal::CaptureStdout();
        const auto result = call();
        EXPECT_TRUE(says(captured(), "W", "module not initialized\n"));
        return result;
    };
    EXPECT_EQ(warns([] { return audio_output_get_sample_rate(); }), 48000);
    EXPECT_EQ(warns([] { return audio_output_get_channels(); }), 2);
    EXPECT_EQ(warns([] { return audio_output_get_device(); }), E_HDMI_PLAYER_AO_DEV_AUTO);
    EXPECT_EQ(warns([] { return audio_output_get_format(); }), E_HDMI_PLAYER_AO_FORMAT_PCM);
    EXPECT_EQ(warns([] { return audio_output_get_alsa_buffer_size(); }), 8192);
    EXPECT_FALSE(warns([] { return audio_output_mute_status(); }));
    EXPECT_EQ(warns([] { return audio_output_set_volume(1); }), -1);
    EXPECT_EQ(warns([] { return audio_output_set_volume_direct(1); }), -1);
    EXPECT_EQ(warns([] { return audio_output_set_mute(true); }), -1);
    EXPECT_EQ(warns([] { return audio_output_set_video_delay(1); }), -1);
    EXPECT_EQ(warns([] { return audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF); }), -1);
    EXPECT_EQ(warns([] { return audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_RAW); }), -1);
    EXPECT_EQ(warns([] { return play(0, 0); }), -1);
    EXPECT_TRUE(warns([] { return audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_CLOSE), true; }));
    EXPECT_TRUE(warns([] { return audio_output_set_write_continued(true), true; }));
    EXPECT_EQ(device.calls, Calls());
}

TEST_F(AudioOutput, VolumeAndMuteReportTheDevicesErrors)
{
    setenv("debug_hdmiplayer_log_ao_api", "1", 1);
    setenv("debug_hdmiplayer_log_level", "3", 1);
    testing::internal::CaptureStdout();
    start();
    EXPECT_EQ(audio_output_set_volume(40), 0);
    device.volume_result = 5; // counts as a failure here, though not at init
    EXPECT_EQ(audio_output_set_volume(41), 5);
    device.direct_result = -6;
    EXPECT_EQ(audio_output_set_volume_direct(7), -6);
    EXPECT_EQ(audio_output_set_mute(true), 0);
    EXPECT_TRUE(audio_output_mute_status());
    device.mute_result = -7;
    EXPECT_EQ(audio_output_set_mute(false), -7);
    EXPECT_TRUE(audio_output_mute_status());
    const std::string log = captured();
    EXPECT_TRUE(says(log, "E", "aio_device_set_volume failed. err:5\n"));
    EXPECT_TRUE(says(log, "E", "aio_device_set_volume_direct failed. err:-6\n"));
    EXPECT_TRUE(says(log, "E", "aio_device_set_mute failed. err:-7\n"));
    EXPECT_TRUE(says(log, "I", "[audio_output_set_volume_direct "));
}

TEST_F(AudioOutput, SelectionAsksThePlayerFirstAndThenMovesTheDevice)
{
    start();
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPEAKER), 0);
    EXPECT_EQ(device.calls, Calls());
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_I2S_TXA), 0);
    EXPECT_EQ(audio_output_get_device(), E_HDMI_PLAYER_AO_DEV_I2S_TXA);
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0);
    EXPECT_EQ(audio_output_get_format(), E_HDMI_PLAYER_AO_FORMAT_RAW);
    EXPECT_EQ(device.calls, (Calls{"changed", "reselect 7 0", "changed", "reselect 7 0"}));
    EXPECT_EQ(g_ao_info.audio_cfg.device_id, E_AUDIO_IO_DEV_I2S_TXA);
    g_on_changed = [](bool* restarted) { *restarted = true; };
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    EXPECT_EQ(device.calls.back(), "changed");
}

TEST_F(AudioOutput, AFailedSelectionRestoresTheOneBefore)
{
    start();
    device.reselect_result = -9;
    testing::internal::CaptureStdout();
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_HDMI_ARC), -1);
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_RAW), -1);
    const std::string log = captured();
    EXPECT_TRUE(says(log, "E", "aio_device_reselect dev_id:4 output_fmt:0 failed!\n"));
    EXPECT_TRUE(says(log, "E", "audio_output_select failed. err:-1\n"));
    EXPECT_EQ(audio_output_get_device(), E_HDMI_PLAYER_AO_DEV_SPEAKER);
    EXPECT_EQ(audio_output_get_format(), E_HDMI_PLAYER_AO_FORMAT_PCM);
    EXPECT_EQ(g_ao_info.audio_cfg.device_id, E_AUDIO_IO_DEV_SPEAKER);
    device.calls.clear();
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_MAX), -1);
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_MAX), -1);
    EXPECT_EQ(device.calls, Calls());
    EXPECT_FALSE(trans_dev_player_to_alsa(E_HDMI_PLAYER_AO_DEV_AUTO, nullptr));
    EXPECT_FALSE(trans_format_player_to_alsa(E_HDMI_PLAYER_AO_FORMAT_PCM, nullptr));
}

TEST_F(AudioOutput, ASelectionThatClosesTheDeviceSilencesItUntilAReopenAtANewSerial)
{
    start();
    clock_of(10000);
    g_on_changed = [](bool*) { audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_CLOSE); };
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    EXPECT_EQ(device.calls, (Calls{"changed", "close"}));
    EXPECT_EQ(g_ao_info.dev_op, AUDIO_OUTPUT_DEV_OP_NONE);

    EXPECT_EQ(audio_output_set_mute(true), 0);
    EXPECT_EQ(audio_output_set_volume(50), 0);
    EXPECT_EQ(audio_output_set_volume_direct(50), 0);
    EXPECT_FALSE(audio_output_mute_status());
    EXPECT_EQ(play(20000, 1), 0);
    EXPECT_TRUE(queue_drained());

    // The reopen waits for a new serial, and gives the device the selection of now.
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    EXPECT_EQ(play(30000, 1), 0);
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(device.calls, (Calls{"changed", "close"}));
    EXPECT_EQ(play(0, 2), 0);
    ASSERT_TRUE(device.wait([&] { return device.ticks.size() == 2; }));
    EXPECT_EQ(device.ticks.back().serial, 2);
    EXPECT_EQ(device.calls, (Calls{"changed", "close", "open"}));
    EXPECT_EQ(device.opened_with.device_id, E_AUDIO_IO_DEV_SPDIF);
}

TEST_F(AudioOutput, AReopenThatFailsStaysPendingAndIsTriedAgain)
{
    start();
    clock_of(10000);
    audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_REOPEN);
    device.set([&] { device.close_result = -1; });
    EXPECT_EQ(play(0, 2), 0); // goes to the device that would not close
    ASSERT_TRUE(device.wait([&] { return device.ticks.size() == 2; }));
    EXPECT_EQ(g_ao_info.dev_op, AUDIO_OUTPUT_DEV_OP_REOPEN);
    device.set([&] {
        device.close_result = 0;
        device.open_result = -1;
    });
    EXPECT_EQ(play(0, 3), 0); // lost
    ASSERT_TRUE(device.wait([&] { return !device.calls.empty() && device.calls.back() == "open"; }));
    EXPECT_EQ(play(10000, 3), 0); // lost
    ASSERT_TRUE(device.wait([&] { return std::count(device.calls.begin(), device.calls.end(), "open") == 2; }));
    EXPECT_EQ(g_ao_info.dev_op, AUDIO_OUTPUT_DEV_OP_REOPEN);
    device.set([&] { device.open_result = 0; });
    EXPECT_EQ(play(20000, 3), 0);
    ASSERT_TRUE(device.wait([&] { return device.ticks.size() == 3; }));
    EXPECT_EQ(device.ticks.back().max_time_us, 30000);
    EXPECT_EQ(g_ao_info.dev_op, AUDIO_OUTPUT_DEV_OP_NONE);
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
    ASSERT_TRUE(device.wait([&] { return device.ticks.size() == 2; }));
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(play(20000, 2, kBlockBytes, 'd'), 0);
    ASSERT_TRUE(device.wait([&] { return device.ticks.size() == 3; }));
    EXPECT_EQ(device.played[1], std::string(kBlockBytes, 'a'));
    EXPECT_EQ(device.played[2], std::string(kBlockBytes, 'd'));
}

// --- Writer ---------------------------------------------------------------------

TEST_F(AudioOutput, ClockIsTheEndOfTheBlockLessWhatIsStillQueued)
{
    config.sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    start();
    const auto expect_clock = [&](int64_t pts, int queued, int64_t time_us, int64_t max_time_us) {
        device.set([&] { device.queued = queued; });
        const Tick tick = clock_of(pts);
        EXPECT_EQ(tick.time_us, time_us);
        EXPECT_EQ(tick.max_time_us, max_time_us);
        EXPECT_EQ(tick.serial, 1);
    };
    expect_clock(5000000, 960, 4990000, 5010000);
    expect_clock(5000000, 1, 5009980, 5010000); // 20.83 us, truncated
    expect_clock(0, 960, 0, 10000);
    expect_clock(-500000, 0, 0, -490000);
    expect_clock(5000000, -960, 5010000, 5010000);
    expect_clock(INT64_MAX, 0, INT64_MAX, INT64_MAX);
    expect_clock(INT64_MIN, INT32_MAX, 0, INT64_MIN + 10000);
    device.set([&] { device.queued_result = -5; });
    expect_clock(5000000, 960, 5010000, 5010000);
    EXPECT_EQ(clock_of(0, 7).max_time_us, 20); // one frame and a half, and a byte
}

TEST_F(AudioOutput, FirstBlockOfASerialIsHeldBackAndLaterOnesAreNot)
{
    constexpr auto kDelay = std::chrono::milliseconds(300);
    start();
    EXPECT_EQ(audio_output_set_video_delay(300), 0);
    const auto played_after = [&](int64_t pts, int32_t serial) {
        const size_t before = device.played.size();
        const auto start = Clock::now();
        EXPECT_EQ(play(pts, serial), 0);
        EXPECT_TRUE(device.wait([&] { return device.played.size() > before; }));
        return Clock::now() - start;
    };
    EXPECT_GE(played_after(1, 1), kDelay);
    EXPECT_GE(played_after(1, 2), kDelay);
    EXPECT_EQ(audio_output_set_video_delay(3600000), 0);
    EXPECT_LT(played_after(2, 2), kPatience);
    EXPECT_EQ(audio_output_set_video_delay(-1), 0);
    EXPECT_LT(played_after(1, 3), kPatience);
}

TEST_F(AudioOutput, AShortWriteIsReportedAndTheNextBlockPlays)
{
    setenv("debug_hdmiplayer_log_level", "3", 1);
    start();
    testing::internal::CaptureStdout();
    device.set([&] {
        device.short_by = 20;
        device.queued = 480;
    });
    EXPECT_EQ(clock_of(0).time_us, 0);
    device.set([&] { device.short_by = 0; });
    EXPECT_EQ(clock_of(10000).time_us, 10000);
    const std::string log = captured();
    EXPECT_TRUE(says(log, "E", "alsa_pcm_write failed. write:1920 written:1900\n"));
    EXPECT_TRUE(says(log, "I", "remain last sequence frames:480 time:10000 us\n"));
    EXPECT_TRUE(says(log, "I", "frame_serial:-1 -> 1\n"));
    EXPECT_TRUE(says(log, "I", "[audio_output_write_thread "));
}

TEST_F(AudioOutput, RefusesFramesWithoutContent)
{
    start();
    uint8_t byte = 0;
    hdmi_player_audio_frame_t frame = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(audio_output_write_pcm_frame(nullptr), -1);
    frame.size = 1;
    EXPECT_EQ(audio_output_write_pcm_frame(&frame), -1);
    frame.data = &byte;
    frame.size = 0;
    EXPECT_EQ(audio_output_write_pcm_frame(&frame), -1);
    frame.size = INT32_MIN;
    EXPECT_EQ(audio_output_write_pcm_frame(&frame), -1);
    const std::string log = captured();
    EXPECT_TRUE(says(log, "E", "frame is null.\n"));
    EXPECT_TRUE(says(log, "E", "size:0 invalid.\n"));
}

TEST_F(AudioOutput, CallsThatMeetAWriteGoBeforeTheNextOne)
{
    constexpr int kCallers = 6;
    std::vector<size_t> blocks_before; // what had been played when a call reached the device
    g_hooks.set_volume = [&](audio_config_t*, int) {
        device.set([&] { blocks_before.push_back(device.played.size()); });
        std::this_thread::sleep_for(std::chrono::milliseconds(2)); // time for the writer to push in
        return 0;
    };
    start();
    get_stuck_in_a_write();
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(play(1, 1, 64), 0);
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i)
        callers.emplace_back([] { EXPECT_EQ(audio_output_set_volume(1), 0); });
    for (bool all_wait = false; !all_wait; std::this_thread::yield()) {
        mutex_guard lock(g_ao_info.mutex);
        all_wait = g_ao_info.waiting == kCallers;
    }
    device.set([&] { device.block_writes = false; });
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(blocks_before, std::vector<size_t>(kCallers, 1));
}

TEST_F(AudioOutput, CallsOnADeviceThatTakesNothingGiveUp)
{
    testing::internal::CaptureStdout();
    start();
    get_stuck_in_a_write();
    std::vector<std::thread> threads;
    threads.emplace_back([] { EXPECT_EQ(audio_output_set_volume(1), -ETIMEDOUT); });
    threads.emplace_back([] { EXPECT_EQ(audio_output_set_mute(true), -ETIMEDOUT); });
    threads.emplace_back([] { EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), -1); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(device.calls, Calls{"changed"});
    EXPECT_FALSE(audio_output_mute_status());
    EXPECT_EQ(audio_output_get_device(), E_HDMI_PLAYER_AO_DEV_SPEAKER);
    device.set([&] { device.block_writes = false; });
    EXPECT_EQ(audio_output_set_volume(2), 0);
    EXPECT_EQ(device.count("volume 2"), 1);
    const std::string log = captured();
    EXPECT_TRUE(says(log, "E", "aio_device_set_volume failed. err:-110\n"));
    EXPECT_TRUE(says(log, "E", "aio_device_reselect dev_id:3 output_fmt:0 failed!\n"));
}

// --- Stop -----------------------------------------------------------------------

TEST_F(AudioOutput, StopEndsTheHoldOfAFirstBlock)
{
    start();
    EXPECT_EQ(audio_output_set_video_delay(INT32_MAX), 0);
    EXPECT_EQ(play(0, 1), 0);
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(device.played.size(), 0u);
}

TEST_F(AudioOutput, StopEndsAStuckWriteAndEverybodyWhoWaitsForIt)
{
    start();
    testing::internal::CaptureStdout();
    get_stuck_in_a_write();
    device.set([&] { device.close_result = -1; }); // fails at first: the write would stay stuck
    std::thread producer([] {
        while (play(2, 1, 64) == 0) {
        }
    });
    std::thread volume([] { EXPECT_EQ(audio_output_set_volume(1), 0); });
    std::thread select([] { EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_AUTO), 0); });
    ASSERT_TRUE(device.wait([&] { return std::count(device.calls.begin(), device.calls.end(), "changed") == 1; }));
    for (bool full = false; !full;)
        full = frame_queue_get_done_counts(g_ao_info.frame_queue) == FRAME_QUEUE_POOL_MAX - 1;
    std::thread recovery([&] {
        EXPECT_TRUE(device.wait([&] { return std::count(device.calls.begin(), device.calls.end(), "close") == 1; }));
        device.set([&] { device.close_result = 0; });
    });
    std::thread second([] { audio_output_deinit(); }); // one of the two finds the work done
    audio_output_deinit();
    second.join();
    for (std::thread* thread : {&producer, &volume, &select, &recovery})
        thread->join();
    const std::string log = captured();
    EXPECT_FALSE(audio_output_initialized());
    EXPECT_EQ(device.count("volume 1"), 0);
    EXPECT_EQ(device.count("cec_deinit"), 1);
    EXPECT_GE(device.count("close"), 2);
    EXPECT_TRUE(says(log, "E", "aio_device_close failed.\n"));
    EXPECT_TRUE(says(log, "E", "alsa_pcm_write failed. write:1920 written:-1\n"));
    EXPECT_TRUE(says(log, "E", "frame_queue_pool_acquire(size:64) failed.\n"));
}

TEST_F(AudioOutput, CallersInALoopDoNotKeepAStopFromEnding)
{
    start();
    testing::internal::CaptureStdout();
    constexpr auto kLimit = std::chrono::seconds(5);
    const auto end = Clock::now() + kLimit;
    std::atomic<bool> done{false};
    std::vector<std::thread> hosts;
    for (int i = 0; i < 8; ++i)
        hosts.emplace_back([&] {
            while (!done && Clock::now() < end)
                play(1, 1, 64);
        });
    ASSERT_TRUE(device.wait([&] { return device.played.size() > 10; }));
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_LT(Clock::now(), end);
    done = true;
    for (std::thread& host : hosts)
        host.join();
    const std::string log = captured();
    EXPECT_NE(log.find("[audio_output_write_pcm_frame "), std::string::npos);
}

TEST_F(AudioOutput, AStopKeepsAReopenThatIsUnderWayFromOpeningTheDevice)
{
    std::atomic<bool> hold{true};
    std::atomic<bool> held{false};
    g_hooks.set_volume = [&](audio_config_t*, int) {
        held = true;
        while (hold)
            std::this_thread::yield();
        return 0;
    };
    start();
    std::thread volume([] { EXPECT_EQ(audio_output_set_volume(1), 0); });
    while (!held)
        std::this_thread::yield();
    g_ao_info.dev_op = AUDIO_OUTPUT_DEV_OP_REOPEN; // the call would wait for the volume's
    EXPECT_EQ(play(0, 1), 0);
    EXPECT_TRUE(queue_drained()); // the writer is on its way to the device
    std::thread stop([] { EXPECT_EQ(audio_output_deinit(), 0); });
    while (!g_ao_info.abort_request)
        std::this_thread::yield();
    hold = false;
    stop.join();
    volume.join();
    EXPECT_EQ(device.calls, (Calls{"cec_deinit", "close"}));
}

TEST_F(AudioOutput, ASelectionThatClosesTheDeviceEndsAStuckWrite)
{
    start();
    get_stuck_in_a_write();
    EXPECT_EQ(play(2, 1), 0);
    g_on_changed = [](bool* restarted) {
        audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_CLOSE);
        *restarted = true;
    };
    EXPECT_EQ(audio_output_select_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0);
    EXPECT_EQ(device.calls, (Calls{"changed", "close"}));
    EXPECT_TRUE(queue_drained());
    EXPECT_EQ(audio_output_deinit(), 0);
    EXPECT_EQ(device.count("close"), 1);
}

TEST_F(AudioOutput, ASelectionThatDiscardsAFullQueueLetsItsProducerGoOn)
{
    // The writer is between two blocks, so that none of the 128 will be given back by it.
    bool writer_goes_on = false;
    g_on_clock = [&] { device.wait([&] { return writer_goes_on; }); };
    g_on_changed = [](bool*) { audio_output_set_dev_operation(AUDIO_OUTPUT_DEV_OP_CLOSE); };
    start();
    for (int i = 0; i < FRAME_QUEUE_POOL_MAX + 1; ++i)
        ASSERT_EQ(play(i, 1, 64), 0);
    std::atomic<bool> played{false};
    std::thread producer([&] {
        EXPECT_EQ(play(1, 1, 64), 0);
        played = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // let it block, most of the time
    EXPECT_EQ(audio_output_select_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    for (const auto end = Clock::now() + kPatience; !played && Clock::now() < end;)
        std::this_thread::yield();
    EXPECT_TRUE(played);
    device.set([&] { writer_goes_on = true; });
    EXPECT_EQ(audio_output_deinit(), 0);
    producer.join();
}

TEST_F(AudioOutput, CallsFromEverywhereDuringReopensAndAStopNeverMeetInTheDevice)
{
    setenv("debug_hdmiplayer_log_level", "0", 1);
    for (int round = 0; round < 3; ++round) {
        device.init_done = false;
        start();
        std::atomic<bool> done{false};
        std::vector<std::thread> threads;
        const auto repeat = [&](auto call) {
            threads.emplace_back([&done, call] {
                for (int i = 0; !done; ++i) {
                    call(i);
                    std::this_thread::yield();
                }
            });
        };
        repeat([](int i) { play(i, i / 4, 64); });
        repeat([](int i) {
            audio_output_set_dev_operation(i % 3 == 0 ? AUDIO_OUTPUT_DEV_OP_CLOSE : AUDIO_OUTPUT_DEV_OP_REOPEN);
            audio_output_set_mute(i % 2 != 0);
        });
        repeat([](int i) {
            audio_output_select_device(static_cast<hdmi_player_ao_dev_e>(i % E_HDMI_PLAYER_AO_DEV_MAX));
            audio_output_get_channels();
            audio_output_get_device();
        });
        ASSERT_TRUE(device.wait([&] { return std::count(device.calls.begin(), device.calls.end(), "open") > 50; }));
        EXPECT_EQ(audio_output_deinit(), 0);
        device.set([&] { EXPECT_FALSE(device.open); });
        done = true;
        for (std::thread& thread : threads)
            thread.join();
    }
}

} // namespace
