// SPDX-License-Identifier: MIT
//
// The module on a hooked capture device, with real uevents and a state file of
// the test's own: main() enters private namespaces before there are threads.
#include "internal/audio_input.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "hdmi_sim.h"
#include "internal/frame_queue.h"
#include "platform_hooks.h"
#include "support/blocked_call.h"
#include "support/log_capture.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using namespace std::string_literals;

namespace
{

constexpr char kStateFile[] = "/sys/class/extcon/hdmirx_aud/state";
const std::string kHeader = "change@/devices/platform/receiver/extcon/extcon0";

std::string g_namespace_error;

// A socket or a state file that is not closed stays among them.
auto open_descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

std::string uevent(const std::vector<std::string>& lines, const std::string& header = kHeader)
{
    std::string message = header + '\0';
    for (const std::string& line : lines)
        message += line + '\0';
    return message;
}

void send_message(const std::string& message) { EXPECT_TRUE(hdmi_sim::send_uevent(message)); }
void announce(const std::string& key) { send_message(uevent({"ACTION=change", "STATE=" + key})); }

// A device under the test's control: a read waits for the test's permit or for the close.
struct Capture {
    std::mutex mutex;
    std::condition_variable changed;
    bool opened = false;
    bool opened_twice = false;
    int opens = 0;
    int closes = 0;
    int reads = 0;
    int waiting = 0;
    int permits = 0;
    int bytes_per_period = 0; ///< 0: by period_frames
    std::deque<int> open_results, close_results, read_results;
    audio_config_t config = {};
    std::function<void()> on_open;
    std::function<void(int read)> on_read; ///< on the read thread, before the read returns

    static int next(std::deque<int>& results, int otherwise)
    {
        if (results.empty())
            return otherwise;
        const int result = results.front();
        results.pop_front();
        return result;
    }

    void attach()
    {
        g_hooks = {};
        g_hooks.open = [this](audio_config_t* cfg) { return open(*cfg); };
        g_hooks.close = [this](audio_config_t*) { return close(); };
        g_hooks.read = [this](audio_config_t*, uint8_t* data, int size) { return read(data, size); };
        g_hooks.frames_to_bytes = [this](audio_config_t* cfg, int) {
            std::lock_guard lock(mutex);
            return bytes_per_period != 0 ? bytes_per_period : cfg->period_frames * 4;
        };
    }
    int open(const audio_config_t& cfg)
    {
        if (on_open)
            on_open();
        std::lock_guard lock(mutex);
        ++opens;
        config = cfg;
        const int result = next(open_results, 0);
        if (result >= 0) {
            opened_twice = opened_twice || opened;
            opened = true;
        }
        return result;
    }
    int close()
    {
        std::lock_guard lock(mutex);
        ++closes;
        const int result = next(close_results, 0);
        opened = opened && result < 0;
        changed.notify_all();
        return result;
    }
    int read(uint8_t* data, int size)
    {
        std::unique_lock lock(mutex);
        const int number = ++reads;
        ++waiting;
        changed.wait(lock, [this] { return permits > 0 || !opened; });
        --waiting;
        if (!opened)
            return -1;
        --permits;
        const int result = next(read_results, size);
        const auto hook = on_read;
        lock.unlock();
        memset(data, number, static_cast<size_t>(size));
        if (hook)
            hook(number);
        return result;
    }
    void permit(int count)
    {
        std::lock_guard lock(mutex);
        permits += count;
        changed.notify_all();
    }
    template <typename T> T get(T Capture::*field)
    {
        std::lock_guard lock(mutex);
        return this->*field;
    }
};

struct Host {
    std::mutex mutex;
    std::vector<hdmi_player_event_e> events;
    std::vector<bool> changes;
    std::function<void()> on_event, on_change;

    size_t event_count()
    {
        std::lock_guard lock(mutex);
        return events.size();
    }
    std::vector<bool> change_list()
    {
        std::lock_guard lock(mutex);
        return changes;
    }
};
Host* g_host;

void host_event(hdmi_player_event_e event)
{
    if (g_host->on_event)
        g_host->on_event();
    std::lock_guard lock(g_host->mutex);
    g_host->events.push_back(event);
}

void host_changed(bool changed, bool*)
{
    if (g_host->on_change)
        g_host->on_change();
    std::lock_guard lock(g_host->mutex);
    g_host->changes.push_back(changed);
}

constexpr audio_input_config_t kConfig = {host_event, host_changed};

// Runs where init has started the detection thread and not yet the read thread.
std::function<bool()> g_before_read_thread;

class AudioInput : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!g_namespace_error.empty())
            GTEST_SKIP() << g_namespace_error;
        g_host = &host;
        capture.attach();
    }
    void TearDown() override
    {
        if (g_ai_info.initialized) {
            EXPECT_EQ(audio_input_deinit(), 0);
        }
        EXPECT_FALSE(capture.get(&Capture::opened)) << "the device was left open";
        EXPECT_FALSE(capture.get(&Capture::opened_twice));
        g_before_read_thread = nullptr;
        g_hooks = {};
    }
    void start(const std::string& state)
    {
        ASSERT_TRUE(hdmi_sim::write_state_file(state));
        ASSERT_EQ(audio_input_init(kConfig), 0);
    }
    bool changes_become(const std::vector<bool>& expected)
    {
        return eventually([&] { return host.change_list().size() >= expected.size(); }) &&
               host.change_list() == expected;
    }
    static std::optional<hdmi_player_audio_frame_t> take(bool pcm, int32_t timeout_ms = 20000)
    {
        hdmi_player_audio_frame_t* frame = nullptr;
        if ((pcm ? audio_input_get_pcm_frame : audio_input_get_iec61937_frame)(&frame, timeout_ms) != 0)
            return std::nullopt;
        hdmi_player_audio_frame_t copy = *frame;
        copy.buf_size = frame->data[0]; // which read it is from
        EXPECT_EQ((pcm ? audio_input_put_pcm_frame : audio_input_put_iec61937_frame)(frame), 0);
        return copy;
    }
    static std::optional<hdmi_player_audio_frame_t> take_pcm(int32_t timeout_ms = 20000)
    {
        return take(true, timeout_ms);
    }
    static std::optional<hdmi_player_audio_frame_t> take_iec(int32_t timeout_ms = 20000)
    {
        return take(false, timeout_ms);
    }
    bool reads_become(int count)
    {
        return eventually([&] { return capture.get(&Capture::reads) >= count; });
    }
    bool all_frames_used()
    {
        // 128 chunks were read and the read thread does not come for another one.
        return reads_become(128) && eventually([&] { return capture.get(&Capture::waiting) == 0; });
    }

    // Policy and priority of the read thread, which takes one chunk.
    std::pair<int, int> reader_scheduling()
    {
        std::pair<int, int> seen = {-1, -1};
        {
            std::lock_guard lock(capture.mutex);
            capture.on_read = [&seen](int) {
                struct sched_param param = {};
                pthread_getschedparam(pthread_self(), &seen.first, &param);
                seen.second = param.sched_priority;
            };
        }
        capture.permit(1);
        EXPECT_TRUE(take_pcm());
        return seen;
    }

    Capture capture;
    Host host;
};

} // namespace

extern "C" int pthread_attr_setschedparam(pthread_attr_t* attr, const struct sched_param* param) noexcept
{
    using function = int (*)(pthread_attr_t*, const struct sched_param*);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "pthread_attr_setschedparam"));
    // Without its priority the real-time thread cannot be created.
    if (g_before_read_thread && !g_before_read_thread())
        return 0;
    return real(attr, param);
}

TEST(AudioInputState, KeysAreTriedInTheirFixedOrderNotInTheTexts)
{
    const struct {
        const char* text;
        audio_input_format_e format;
        int32_t rate;
    } cases[] = {
        {"HEADDONE_PCM_44=1 HEADDONE_PCM_48=1", AUDIO_INPUT_FORMAT_PCM, 48000},
        {"HEADDONE_PCM_48=0\nHEADDONE_PCM_44=1\n", AUDIO_INPUT_FORMAT_PCM, 44100},
        {"HEADDONE_COMP_48=1\nHEADDONE_PCM_32=1", AUDIO_INPUT_FORMAT_PCM, 32000},
        {"HEADDONE_COMP_44=1HEADDONE_COMP_48=1", AUDIO_INPUT_FORMAT_COMP_IEC61937, 48000},
        {"xHEADDONE_COMP_44=1x", AUDIO_INPUT_FORMAT_COMP_IEC61937, 44100},
        {"STATE=HEADDONE_COMP_32=1", AUDIO_INPUT_FORMAT_COMP_IEC61937, 32000},
        {"HEADDONE_PCM_48=", AUDIO_INPUT_FORMAT_NONE, -7},
        {"headdone_pcm_48=1", AUDIO_INPUT_FORMAT_NONE, -7},
    };
    for (const auto& c : cases) {
        audio_input_format_e format = AUDIO_INPUT_FORMAT_NONE;
        int32_t rate = -7;
        // An exact-size copy without a NUL: a read past the end is the sanitizer's.
        const std::vector<char> text(c.text, c.text + strlen(c.text));
        EXPECT_EQ(audio_input_parse_state({text.data(), text.size()}, &format, &rate), c.rate != -7) << c.text;
        EXPECT_EQ(format, c.format) << c.text;
        EXPECT_EQ(rate, c.rate) << c.text;
    }
}

// --- Lifecycle ----------------------------------------------------------------

TEST(AudioInputClosed, EveryCallFailsWithItsDefaultAndItsLevel)
{
    hdmi_player_audio_frame_t frame = {};
    hdmi_player_audio_frame_t* out = nullptr;
    const std::pair<std::function<bool()>, char> calls[] = {
        {[] { return audio_input_deinit() == -1; }, 'W'},
        {[&] { return audio_input_get_pcm_frame(&out, -1) == -1; }, 'V'},
        {[&] { return audio_input_put_pcm_frame(&frame) == -1; }, 'W'},
        {[&] { return audio_input_get_iec61937_frame(&out, -1) == -1; }, 'D'},
        {[&] { return audio_input_put_iec61937_frame(&frame) == -1; }, 'V'},
        {[] { return (audio_input_wakeup_iec61937_queue(), true); }, 'W'},
        {[] { return audio_input_set_game_mode(true) == -1; }, 'W'},
        {[] { return !audio_input_get_game_mode(); }, 'W'},
        {[] { return audio_input_get_original_sample_rate() == 48000; }, 'W'},
        {[] { return !audio_input_read_continued(); }, 'W'},
        {[] { return audio_input_set_read_continued(true) == -1; }, 'W'},
        {[] { return audio_input_avsync_reset(true) == -1; }, 'W'},
        {[] { return audio_input_get_format() == AUDIO_INPUT_FORMAT_NONE; }, 'W'},
        {[] { return audio_input_get_hotplug_status() == E_HDMI_HOTPLUG_STATUS_OUT; }, 'W'},
        {[] { return audio_input_set_hotplug_status(E_HDMI_HOTPLUG_STATUS_IN) == -1; }, 'W'},
        {[] { return audio_input_get_bypass_mode() == E_AUDIO_IN_BYPASS_MODE_NONE; }, 'W'},
        {[] { return audio_input_set_bypass_mode(E_AUDIO_IN_BYPASS_MODE_TO_RAW) == -1; }, 'W'},
        {[] { return audio_input_set_reopen_device(true) == -1; }, 'W'},
    };
    int number = 0;
    for (const auto& [call, level] : calls) {
        const std::string log = logged("5", [&, &call = call] { EXPECT_TRUE(call()) << number; });
        EXPECT_NE(log.find("module not initialized\n"), std::string::npos) << number << log;
        EXPECT_NE(log.find(" "s + level + " [audio_input_"), std::string::npos) << number << log;
        ++number;
    }
    EXPECT_EQ(audio_input_init({nullptr, host_changed}), -1);
    EXPECT_EQ(audio_input_init({host_event, nullptr}), -1);
}

TEST_F(AudioInput, OpensTheReceiverAtTheRateOfTheStateFile)
{
    start("name\nHEADDONE_PCM_44=1\n");
    const audio_config_t cfg = capture.get(&Capture::config);
    EXPECT_EQ(cfg.stream_type, E_AUDIO_STREAM_CAPTURE);
    EXPECT_EQ(cfg.device_id, 5);
    EXPECT_EQ(cfg.open_mode, 1);
    EXPECT_EQ(cfg.sample_rate, 44100);
    EXPECT_EQ(cfg.period_frames, 896);
    EXPECT_EQ(cfg.period_count, 4);
    EXPECT_EQ(cfg.in_bypass_mode, E_AUDIO_IN_BYPASS_MODE_NONE);
    EXPECT_EQ(audio_input_init(kConfig), -1) << "initialised already";
    EXPECT_EQ(audio_input_set_game_mode(true), -1);
    EXPECT_FALSE(audio_input_get_game_mode());
    for (const auto get : {audio_input_get_pcm_frame, audio_input_get_iec61937_frame})
        EXPECT_EQ(get(nullptr, -1), -1);
    for (const auto put : {audio_input_put_pcm_frame, audio_input_put_iec61937_frame})
        EXPECT_EQ(put(nullptr), -1);
}

TEST_F(AudioInput, AMissingEmptyUnknownOrOverlongStateFileIsSurvived)
{
    const std::string key = "HEADDONE_PCM_32=1";
    const struct {
        std::optional<std::string> text;
        int32_t rate;
        audio_input_format_e format;
        size_t events;
    } cases[] = {
        {std::nullopt, 48000, AUDIO_INPUT_FORMAT_NONE, 1},
        {"", 0, AUDIO_INPUT_FORMAT_NONE, 0},
        {"HEADDONE_PCM_96=1", 48000, AUDIO_INPUT_FORMAT_NONE, 1},
        {"\0HEADDONE_PCM_32=1"s, 48000, AUDIO_INPUT_FORMAT_NONE, 1},
        {std::string(511 - key.size(), '.') + key + std::string(5000, '.'), 32000, AUDIO_INPUT_FORMAT_PCM, 0},
        {std::string(512 - key.size(), '.') + key, 48000, AUDIO_INPUT_FORMAT_NONE, 1},
    };
    // The event comes from within init; its receiver calls back in.
    host.on_event = [] {
        EXPECT_EQ(audio_input_get_original_sample_rate(), 48000);
        EXPECT_EQ(audio_input_set_hotplug_status(E_HDMI_HOTPLUG_STATUS_IN), 0);
        EXPECT_EQ(audio_input_init(kConfig), -1);
    };
    for (const auto& c : cases) {
        unlink(kStateFile);
        if (c.text) {
            ASSERT_TRUE(hdmi_sim::write_state_file(*c.text));
        }
        host.events.clear();
        ASSERT_EQ(audio_input_init(kConfig), 0);
        EXPECT_EQ(host.event_count(), c.events);
        EXPECT_EQ(audio_input_get_original_sample_rate(), c.rate);
        EXPECT_EQ(audio_input_get_format(), c.format);
        ASSERT_EQ(audio_input_deinit(), 0);
    }
}

TEST_F(AudioInput, AFailedInitUndoesWhatItBuiltAndCanBeRepeated)
{
    unlink(kStateFile);
    const auto before = open_descriptors();
    capture.open_results = {-5};
    EXPECT_EQ(audio_input_init(kConfig), -1);
    EXPECT_EQ(host.event_count(), 1u) << "the state was read, and was not supported";
    EXPECT_EQ(capture.get(&Capture::closes), 0);

    // The queues of every failed attempt are free again: there are 16 in all.
    g_before_read_thread = [] { return false; };
    for (int attempt = 0; attempt < 10; ++attempt)
        EXPECT_EQ(audio_input_init(kConfig), -1);
    EXPECT_EQ(capture.get(&Capture::closes), 10);
    EXPECT_EQ(open_descriptors(), before);

    g_before_read_thread = nullptr;
    start("HEADDONE_PCM_48=1");
    capture.permit(1);
    EXPECT_TRUE(take_pcm());
}

TEST_F(AudioInput, AFailedStartDoesNotWaitForACallbackThatCallsIn)
{
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_PCM_48=1"));
    std::atomic<bool> calling{false};
    host.on_change = [&] {
        calling = true;
        audio_input_get_format(); // waits for init's lock
        audio_input_set_reopen_device(true);
    };
    g_before_read_thread = [&] {
        announce("HEADDONE_PCM_32=1");
        EXPECT_TRUE(eventually([&] { return calling.load(); }));
        return false;
    };
    EXPECT_EQ(audio_input_init(kConfig), -1);
}

TEST_F(AudioInput, ReadsAtRealTimePriorityWhereItMay)
{
    start("HEADDONE_PCM_48=1");
    const auto [policy, priority] = reader_scheduling();
    if (policy == SCHED_OTHER)
        GTEST_SKIP() << "the machine must allow real-time priority";
    EXPECT_EQ(policy, SCHED_RR);
    EXPECT_EQ(priority, 99);
}

TEST_F(AudioInput, ReadsWithoutRealTimePriorityWhereItMayNot)
{
    // Capabilities are a thread's: one without them starts the module.
    std::thread unprivileged([&] {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct caps[2] = {};
        syscall(SYS_capget, &header, caps);
        caps[0].effective &= ~(1u << CAP_SYS_NICE);
        syscall(SYS_capset, &header, caps);
        start("HEADDONE_PCM_48=1");
    });
    unprivileged.join();
    EXPECT_EQ(reader_scheduling().first, SCHED_OTHER);
}

// --- Stopping -----------------------------------------------------------------

TEST_F(AudioInput, DeinitEndsABlockedReadAndConsumersThatComeBackAtOnce)
{
    start("HEADDONE_PCM_48=1");
    ASSERT_TRUE(eventually([&] { return capture.get(&Capture::waiting) == 1; }));
    capture.close_results = {-5, -5}; // leaves the read where it is
    const auto begin = steady_clock::now();
    std::atomic<bool> ended{false};
    std::vector<std::thread> consumers;
    for (int i = 0; i < 4; ++i)
        consumers.emplace_back([&, i] {
            while (!ended && steady_clock::now() - begin < 8s)
                EXPECT_FALSE(take(i % 2 == 0, -1));
        });
    int ends = 0;
    BlockedCall<int32_t> rival(audio_input_deinit);
    ends += audio_input_deinit() == 0;
    ends += rival.result() == 0;
    ended = true;
    EXPECT_LT(steady_clock::now() - begin, 8s) << "the consumers starve the stop";
    for (std::thread& consumer : consumers)
        consumer.join();
    EXPECT_EQ(ends, 1) << "of two concurrent calls one ends the module";
    EXPECT_EQ(capture.get(&Capture::closes), 3);
}

TEST_F(AudioInput, DeinitEndsAReadThreadThatWaitsForAFrame)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(INT_MAX / 2);
    ASSERT_TRUE(all_frames_used());
    EXPECT_EQ(audio_input_deinit(), 0);
}

TEST_F(AudioInput, NothingIsOpenAfterADeinitThatMeetsAReopen)
{
    for (int round = 0; round < 20; ++round) {
        start("HEADDONE_PCM_48=1");
        std::atomic<bool> reopening{false};
        capture.on_open = [&] {
            reopening = true;
            std::this_thread::sleep_for(1ms); // a slow device
        };
        ASSERT_EQ(audio_input_set_reopen_device(true), 0);
        capture.permit(1);
        if (round % 2 == 0) {
            ASSERT_TRUE(eventually([&] { return reopening.load(); }));
        }
        EXPECT_EQ(audio_input_deinit(), 0);
        ASSERT_FALSE(capture.get(&Capture::opened));
        capture.on_open = nullptr;
        capture.permits = 0;
    }
    EXPECT_EQ(capture.get(&Capture::opens), capture.get(&Capture::closes));
}

// --- Capture ------------------------------------------------------------------

TEST_F(AudioInput, DoesNotTouchTheDeviceBeforeAFormatIsKnown)
{
    start("");
    capture.permit(1000);
    announce("HEADDONE_PCM_48=1");
    const auto chunk = take_pcm();
    ASSERT_TRUE(chunk);
    EXPECT_EQ(chunk->buf_size, 1) << "the first read is the one after the announcement";
    EXPECT_EQ(chunk->sample_rate, 48000);
    EXPECT_TRUE(changes_become({true}));
}

TEST_F(AudioInput, TimeIsCountedInFramesWithoutDrift)
{
    start("HEADDONE_PCM_44=1");
    for (int64_t i = 0; i < 40; ++i) {
        capture.permit(1);
        const auto chunk = take_pcm();
        ASSERT_TRUE(chunk);
        EXPECT_EQ(chunk->pts, i * 896 * 1000000 / 44100);
        EXPECT_EQ(chunk->size, 896 * 4);
        EXPECT_EQ(chunk->sample_rate, 44100);
        EXPECT_EQ(chunk->channels, 2);
        EXPECT_EQ(chunk->serial, 0);
    }
}

TEST_F(AudioInput, AnAvsyncResetDiscardsWaitingChunksAndRestartsTheTimeLine)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(5);
    ASSERT_TRUE(reads_become(6)); // five are queued, the sixth read waits
    audio_input_avsync_reset(true);
    capture.permit(2);
    ASSERT_TRUE(reads_become(8));
    for (int i = 0; i < 2; ++i) {
        const auto chunk = take_pcm();
        ASSERT_TRUE(chunk);
        EXPECT_EQ(chunk->buf_size, 6 + i);
        EXPECT_EQ(chunk->pts, i * 20000);
        EXPECT_EQ(chunk->serial, 1);
    }
    EXPECT_EQ(audio_input_next_serial(INT_MAX - 2), INT_MAX - 1);
    EXPECT_EQ(audio_input_next_serial(INT_MAX - 1), 0);
}

TEST_F(AudioInput, ACompressedStreamHasItsOwnQueueItsSerialAndNoTime)
{
    start("HEADDONE_COMP_48=1");
    capture.permit(3);
    ASSERT_TRUE(reads_become(4));
    audio_input_avsync_reset(true);
    capture.permit(1);
    ASSERT_TRUE(reads_become(5));
    const auto chunk = take_iec();
    ASSERT_TRUE(chunk);
    EXPECT_EQ(chunk->buf_size, 4);
    EXPECT_EQ(chunk->serial, 1);
    EXPECT_EQ(chunk->pts, kStreamBreakPts) << "the three chunks before it were discarded";
    EXPECT_EQ(chunk->sample_rate, 48000);
    EXPECT_FALSE(take_pcm(0));
    audio_input_wakeup_iec61937_queue();
    EXPECT_FALSE(take_iec(-1)) << "the wake-up ends one wait";
}

TEST_F(AudioInput, AChunkThatStraddlesAFormatChangeIsDropped)
{
    start("HEADDONE_PCM_48=1");
    capture.on_read = [](int read) {
        if (read != 2)
            return;
        announce("HEADDONE_COMP_48=1");
        EXPECT_TRUE(eventually([] { return g_ai_info.format == AUDIO_INPUT_FORMAT_COMP_IEC61937; }));
    };
    capture.permit(3);
    const auto first = take_pcm();
    const auto next = take_iec();
    ASSERT_TRUE(first && next);
    EXPECT_EQ(first->buf_size, 1);
    EXPECT_EQ(next->buf_size, 3);
    EXPECT_FALSE(take_pcm(0));
    EXPECT_TRUE(changes_become({true}));
}

TEST_F(AudioInput, AReopenTakesTheNewRateAndBypassModeAndKeepsTheTimeLine)
{
    start("HEADDONE_PCM_48=1");
    host.on_change = [] {
        audio_input_set_bypass_mode(E_AUDIO_IN_BYPASS_MODE_TO_PCM);
        audio_input_set_reopen_device(true);
    };
    capture.permit(3);
    ASSERT_TRUE(reads_become(4));
    announce("HEADDONE_PCM_44=1");
    ASSERT_TRUE(changes_become({true}));
    EXPECT_EQ(audio_input_get_bypass_mode(), E_AUDIO_IN_BYPASS_MODE_TO_PCM);
    capture.permit(2); // the one under way straddles
    ASSERT_TRUE(reads_become(6));
    const auto chunk = take_pcm();
    ASSERT_TRUE(chunk);
    EXPECT_EQ(capture.get(&Capture::opens), 2);
    EXPECT_EQ(capture.get(&Capture::config).sample_rate, 44100);
    EXPECT_EQ(capture.get(&Capture::config).period_frames, 896);
    EXPECT_EQ(capture.get(&Capture::config).in_bypass_mode, E_AUDIO_IN_BYPASS_MODE_TO_PCM);
    EXPECT_EQ(chunk->buf_size, 5) << "what waited was discarded";
    EXPECT_EQ(chunk->size, 896 * 4);
    EXPECT_EQ(chunk->serial, 0);
    EXPECT_EQ(chunk->pts, int64_t{3} * 960 * 1000000 / 44100);
}

TEST_F(AudioInput, AReopenIsRepeatedUntilTheDeviceIsBack)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(1);
    ASSERT_TRUE(take_pcm());
    {
        std::lock_guard lock(capture.mutex);
        capture.close_results = {-5, -5};
        capture.open_results = {-5, -5, -5};
    }
    audio_input_set_reopen_device(true);
    capture.permit(2);
    const auto chunk = take_pcm();
    ASSERT_TRUE(chunk);
    EXPECT_EQ(capture.get(&Capture::closes), 3) << "a closed device is not closed again";
    EXPECT_EQ(capture.get(&Capture::opens), 1 + 4);
}

TEST_F(AudioInput, AReopenWakesAReadThreadThatWaitsForAFrame)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(INT_MAX / 2);
    ASSERT_TRUE(all_frames_used());
    // Nobody takes PCM any more: the other format goes on all the same.
    host.on_change = [] { audio_input_set_reopen_device(true); };
    announce("HEADDONE_COMP_44=1");
    const auto chunk = take_iec();
    ASSERT_TRUE(chunk);
    EXPECT_EQ(chunk->sample_rate, 44100);
    EXPECT_EQ(capture.get(&Capture::config).sample_rate, 44100);
    EXPECT_FALSE(take_pcm(0));
}

TEST_F(AudioInput, ADeviceWithoutAReadSizeEndsTheReadThreadOnly)
{
    start("HEADDONE_PCM_48=1");
    ASSERT_TRUE(reads_become(1));
    {
        std::lock_guard lock(capture.mutex);
        capture.bytes_per_period = -22;
    }
    audio_input_set_reopen_device(true);
    capture.permit(10);
    ASSERT_TRUE(eventually([&] { return capture.get(&Capture::opens) == 2; }));
    EXPECT_FALSE(take_pcm(50));
    EXPECT_EQ(capture.get(&Capture::reads), 1);
    EXPECT_EQ(audio_input_deinit(), 0);
}

TEST_F(AudioInput, FailingReadsBackOffAndGoodOnesAreTakenAsTheyCome)
{
    constexpr int kFailures = 9;
    capture.read_results = {-5, 0, 3841, INT_MAX, INT_MIN, -5, 1001, 1, -5, 0, -5, 4};
    start("HEADDONE_PCM_48=1");
    const auto begin = steady_clock::now();
    testing::internal::CaptureStdout();
    capture.permit(kFailures + 4);
    int64_t frames = 0;
    for (const int size : {1001, 1, 4, 3840}) {
        const auto chunk = take_pcm();
        ASSERT_TRUE(chunk);
        EXPECT_EQ(chunk->size, size);
        EXPECT_EQ(chunk->pts, frames * 1000000 / 48000);
        frames += size / 4;
    }
    EXPECT_GE(steady_clock::now() - begin, kFailures * 10ms);
    EXPECT_EQ(occurrences(testing::internal::GetCapturedStdout(), "aio_device_read failed"), 2) << "one for each run";
}

TEST_F(AudioInput, ReadsCountAsContinuedOnceTheCableIsIn)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(1);
    ASSERT_TRUE(take_pcm());
    EXPECT_FALSE(audio_input_read_continued());
    audio_input_set_hotplug_status(E_HDMI_HOTPLUG_STATUS_IN);
    EXPECT_FALSE(audio_input_read_continued());
    capture.permit(1);
    ASSERT_TRUE(take_pcm());
    EXPECT_TRUE(audio_input_read_continued());
    audio_input_set_hotplug_status(static_cast<hdmi_hotplug_status_e>(77));
    EXPECT_EQ(static_cast<int>(audio_input_get_hotplug_status()), 77) << "stored as given";
}

// --- Detection ----------------------------------------------------------------

TEST_F(AudioInput, AnnouncementsAreReportedWithWhetherTheyChangeAnything)
{
    // From the moment init reads the state on: this one comes while the device opens.
    capture.on_open = [] { announce("HEADDONE_PCM_48=1"); };
    start("HEADDONE_PCM_48=1");
    ASSERT_TRUE(changes_become({false}));
    announce("HEADDONE_COMP_48=1");
    ASSERT_TRUE(changes_become({false, true}));
    announce("HEADDONE_COMP_48=1");
    ASSERT_TRUE(changes_become({false, true, false}));
    send_message(uevent({"STATE=HEADDONE_PCM_44=1 HEADDONE_PCM_32=1", "STATE=HEADDONE_PCM_32=1"}));
    ASSERT_TRUE(changes_become({false, true, false, true})) << "one report for one message";
    EXPECT_EQ(audio_input_get_original_sample_rate(), 32000);
    std::this_thread::sleep_for(150ms); // three polls, none of which has anything to report
    EXPECT_TRUE(changes_become({false, true, false, true}));
    EXPECT_EQ(host.event_count(), 0u);
}

TEST_F(AudioInput, AnUnsupportedStateIsReportedOnceAndOnlyWhenItLasts)
{
    start("HEADDONE_PCM_48=1");
    announce("HEADDONE");
    announce("HEADDONE_PCM_44=1");
    ASSERT_TRUE(changes_become({true}));
    const auto begin = steady_clock::now();
    announce("HEADDONE_PCM_96=1");
    ASSERT_TRUE(changes_become({true, false}));
    EXPECT_GE(steady_clock::now() - begin, 1s);
    EXPECT_EQ(audio_input_get_format(), AUDIO_INPUT_FORMAT_NONE);
    EXPECT_EQ(audio_input_get_original_sample_rate(), 44100) << "the rate stays";
    announce("HEADDONE_PCM_44=1");
    ASSERT_TRUE(changes_become({true, false, true}));
    EXPECT_EQ(host.event_count(), 1u);
}

TEST_F(AudioInput, ForeignHostileAndTruncatedMessagesChangeNothing)
{
    start("HEADDONE_PCM_48=1");
    const std::string line = "STATE=HEADDONE_PCM_44=1";
    const size_t room = 511 - (kHeader.size() + 1);
    const std::string hostile[] = {
        uevent({line}, "change@/devices/virtual/korin/hdmirx_aud/extcon1"),
        uevent({line}, "CHANGE@/devices/virtual/KORIN/hdmirx_aud/extcon1"),
        uevent({"XSTATE=HEADDONE_PCM_44=1", "NAME=HEADDONE_PCM_44=1", "state=headdone_pcm_44=1", "STATE=HEADDON"}),
        uevent({"", line}),
        '\0' + line,
        "\0"s,
        "%s%n%s%n"s,
        std::string(511, 'a'),
        std::string(8000, 'a'),
        std::string(4000, '\0'),
        kHeader + '\0' + std::string(room, 'b') + '\0' + line,
    };
    for (const std::string& message : hostile)
        send_message(message);
    // Taken after them, so that nothing of theirs is still to come; up to its last byte that fits, without a NUL.
    const std::string key = "STATE=HEADDONE_COMP_32=1";
    send_message(kHeader + '\0' + std::string(room - 1 - key.size(), 'c') + '\0' + key + "garbage");
    ASSERT_TRUE(changes_become({true}));
    EXPECT_EQ(audio_input_get_format(), AUDIO_INPUT_FORMAT_COMP_IEC61937);
    EXPECT_EQ(audio_input_get_original_sample_rate(), 32000);
}

int main(int argc, char** argv)
{
    hdmi_sim::enter_private_namespaces(&g_namespace_error);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
