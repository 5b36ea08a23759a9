// SPDX-License-Identifier: MIT
//
// The module on a hooked capture device, with real uevents and a state file of
// the test's own: main() enters private namespaces before there are threads.
#include "internal/audio_input.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>

#include "hdmi_sim.h"
#include "internal/frame_queue.h"
#include "platform_hooks.h"
#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/locked.h"
#include "support/log_capture.h"

using std::chrono::steady_clock;
using namespace std::literals;
using Changes = std::vector<bool>;

namespace
{

constexpr char kStateFile[] = "/sys/class/extcon/hdmirx_aud/state";
const std::string kHeader = "change@/devices/platform/receiver/extcon/extcon0";
std::string g_namespace_error; ///< no real file and socket: announcements come inside the process
std::string g_announcement_error;

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
struct Capture : Locked {
    std::condition_variable changed;
    bool opened = false, opened_twice = false;
    int opens = 0, closes = 0, reads = 0, waiting = 0, permits = 0;
    int bytes_per_period = 0; ///< 0: by period_frames
    std::deque<int> open_results, close_results, read_results;
    audio_config_t config = {};
    std::function<void()> on_open = [] {};
    std::function<void(int read)> on_read = [](int) {}; ///< on the read thread, before the read returns

    static int next(std::deque<int>& results, int otherwise)
    {
        const int result = results.empty() ? otherwise : results.front();
        if (!results.empty())
            results.pop_front();
        return result;
    }
    void attach()
    {
        g_hooks = {};
        g_hooks.open = [this](audio_config_t* cfg) {
            on_open();
            std::lock_guard lock(mutex);
            ++opens;
            config = *cfg;
            const int result = next(open_results, 0);
            opened_twice = opened_twice || (opened && result >= 0);
            opened = opened || result >= 0;
            return result;
        };
        g_hooks.close = [this](audio_config_t*) {
            std::lock_guard lock(mutex);
            ++closes;
            const int result = next(close_results, 0);
            opened = opened && result < 0;
            changed.notify_all();
            return result;
        };
        g_hooks.read = [this](audio_config_t*, uint8_t* data, int size) { return read(data, size); };
        g_hooks.frames_to_bytes = [this](audio_config_t* cfg, int) {
            const int fixed = get(&Capture::bytes_per_period);
            return fixed != 0 ? fixed : cfg->period_frames * 4;
        };
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
        return locked([&] { return this->*field; });
    }
};

struct Host : Locked {
    std::atomic<int> events{0};
    Changes changes;
    std::function<void()> on_event = [] {}, on_change = [] {};

    Changes seen()
    {
        return locked([this] { return changes; });
    }
};
Host* g_host;

void host_event(hdmi_player_event_e event)
{
    EXPECT_EQ(event, E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED);
    g_host->on_event();
    ++g_host->events;
}

void host_changed(bool changed, bool*)
{
    g_host->on_change();
    g_host->locked([&] { g_host->changes.push_back(changed); });
}

constexpr audio_input_config_t kConfig = {host_event, host_changed};

// Runs where init has started the detection thread and not yet the read thread.
std::function<bool()> g_before_read_thread;

class AudioInput : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!g_announcement_error.empty())
            GTEST_SKIP() << g_announcement_error;
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
    }
    void start(const std::string& state)
    {
        ASSERT_TRUE(hdmi_sim::write_state_file(state));
        ASSERT_EQ(audio_input_init(kConfig), 0);
    }
    bool changes_become(const Changes& expected)
    {
        eventually([&] { return host.seen().size() >= expected.size(); });
        return host.seen() == expected;
    }
    static std::optional<hdmi_player_audio_frame_t> take(bool pcm, int32_t timeout_ms)
    {
        hdmi_player_audio_frame_t* frame = nullptr;
        if ((pcm ? audio_input_get_pcm_frame : audio_input_get_iec61937_frame)(&frame, timeout_ms) != 0)
            return std::nullopt;
        hdmi_player_audio_frame_t copy = *frame;
        copy.buf_size = frame->data[0]; // which read it is from
        EXPECT_EQ((pcm ? audio_input_put_pcm_frame : audio_input_put_iec61937_frame)(frame), 0);
        return copy;
    }
    static auto take_pcm(int32_t timeout_ms = 20000) { return take(true, timeout_ms); }
    static auto take_iec(int32_t timeout_ms = 20000) { return take(false, timeout_ms); }
    bool reads_become(int count)
    {
        return eventually([&] { return capture.get(&Capture::reads) >= count; });
    }
    // That many chunks were read and the read thread does not come for another one.
    bool all_frames_used(int chunks)
    {
        return reads_become(chunks) && eventually([&] { return capture.get(&Capture::waiting) == 0; });
    }

    Capture capture;
    Host host;
};

} // namespace

extern "C" int pthread_attr_setschedparam(pthread_attr_t* attr, const struct sched_param* param) noexcept
{
    using Function = int (*)(pthread_attr_t*, const struct sched_param*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_attr_setschedparam"));
    // Without its priority the real-time thread cannot be created.
    if (g_before_read_thread && !g_before_read_thread())
        return 0;
    return real(attr, param);
}

TEST(AudioInputClosed, CallsFailAtTheLevelOfTheirFrequency)
{
    hdmi_player_audio_frame_t frame = {};
    hdmi_player_audio_frame_t* out = nullptr;
    const std::string log = logged("5", [&] {
        EXPECT_EQ(audio_input_get_pcm_frame(&out, -1) + audio_input_put_iec61937_frame(&frame), -2);
        EXPECT_EQ(audio_input_get_iec61937_frame(&out, -1) + audio_input_put_pcm_frame(&frame), -2);
        EXPECT_EQ(audio_input_get_original_sample_rate(), 48000);
        EXPECT_EQ(audio_input_deinit(), -1);
    });
    for (const auto& [level, count] : {std::pair(" V [", 2), std::pair(" D [", 1), std::pair(" W [", 3)})
        EXPECT_EQ(occurrences(log, level), count) << log;
    EXPECT_EQ(audio_input_init({nullptr, host_changed}) + audio_input_init({host_event, nullptr}), -2);
}

TEST_F(AudioInput, OpensTheReceiverAtTheRateOfTheStateFile)
{
    start("name\nHEADDONE_PCM_44=1\n");
    const audio_config_t cfg = capture.get(&Capture::config);
    EXPECT_TRUE(cfg.stream_type == E_AUDIO_STREAM_CAPTURE && cfg.device_id == 5 && cfg.open_mode == 1);
    EXPECT_TRUE(cfg.sample_rate == 44100 && cfg.period_frames == 896 && cfg.period_count == 4);
    EXPECT_EQ(audio_input_init(kConfig), -1) << "initialised already";
    EXPECT_EQ(audio_input_get_pcm_frame(nullptr, -1) + audio_input_get_iec61937_frame(nullptr, -1), -2);
    EXPECT_EQ(audio_input_put_pcm_frame(nullptr) + audio_input_put_iec61937_frame(nullptr), -2);
}

TEST_F(AudioInput, TheStateFileIsReadAsFarAsItSaysAnything)
{
    if (!g_namespace_error.empty())
        GTEST_SKIP() << g_namespace_error; // there is no file
    const std::string key = "HEADDONE_PCM_32=1";
    using Case = std::tuple<std::optional<std::string>, int32_t, audio_input_format_e, int>;
    const Case cases[] = {
        // The keys have an order of their own.
        {"HEADDONE_PCM_44=1 HEADDONE_PCM_48=1", 48000, AUDIO_INPUT_FORMAT_PCM, 0},
        {"HEADDONE_COMP_48=1\nHEADDONE_PCM_32=1", 32000, AUDIO_INPUT_FORMAT_PCM, 0},
        {"xHEADDONE_COMP_44=1HEADDONE_COMP_48=1x", 48000, AUDIO_INPUT_FORMAT_COMP_IEC61937, 0},
        {std::nullopt, 48000, AUDIO_INPUT_FORMAT_NONE, 1},
        {"", 0, AUDIO_INPUT_FORMAT_NONE, 0},
        {"HEADDONE_PCM_48=", 48000, AUDIO_INPUT_FORMAT_NONE, 1},
        {"\0HEADDONE_PCM_32=1"s, 48000, AUDIO_INPUT_FORMAT_NONE, 1},
        {std::string(511 - key.size(), '.') + key + std::string(5000, '.'), 32000, AUDIO_INPUT_FORMAT_PCM, 0},
        {std::string(512 - key.size(), '.') + key, 48000, AUDIO_INPUT_FORMAT_NONE, 1},
    };
    // The event comes from within init, before the device is opened; its receiver calls back in.
    host.on_event = [this] {
        EXPECT_EQ(audio_input_init(kConfig) + audio_input_deinit(), -2);
        EXPECT_FALSE(capture.get(&Capture::opened));
    };
    for (const auto& [text, rate, format, events] : cases) {
        unlink(kStateFile);
        EXPECT_TRUE(!text || hdmi_sim::write_state_file(*text));
        host.events = 0;
        ASSERT_EQ(audio_input_init(kConfig), 0);
        EXPECT_EQ(host.events, events);
        EXPECT_EQ(audio_input_get_original_sample_rate(), rate);
        EXPECT_EQ(audio_input_get_format(), format);
        ASSERT_EQ(audio_input_deinit(), 0);
    }
}

TEST_F(AudioInput, WhatIsNoFileInTheStateFilesPlaceSaysNothingAndNeverBlocks)
{
    if (!g_namespace_error.empty())
        GTEST_SKIP() << g_namespace_error; // there is no file
    const std::function<int()> others[] = {[] { return mkfifo(kStateFile, 0600); },
                                           [] { return symlink("/dev/zero", kStateFile); },
                                           [] { return mkdir(kStateFile, 0700); }};
    for (const auto& make : others) {
        unlink(kStateFile);
        ASSERT_EQ(make(), 0);
        ASSERT_EQ(audio_input_init(kConfig), 0);
        EXPECT_TRUE(audio_input_get_format() == AUDIO_INPUT_FORMAT_NONE && host.events == 0) << &make - others;
        ASSERT_EQ(audio_input_deinit(), 0);
    }
    rmdir(kStateFile);
}

TEST_F(AudioInput, AFailedInitUndoesWhatItBuiltAndCanBeRepeated)
{
    if (!g_namespace_error.empty())
        GTEST_SKIP() << g_namespace_error; // there is no file, and descriptors of what stands in for it
    unlink(kStateFile);
    const auto before = open_descriptors();
    capture.open_results = {-5};
    EXPECT_EQ(audio_input_init(kConfig), -1);
    EXPECT_TRUE(host.events == 1 && capture.get(&Capture::closes) == 0) << "the state was read, and not supported";
    // The queues of every failed attempt are free again: there are 16 in all.
    g_before_read_thread = [] { return false; };
    for (int attempt = 1; attempt < 10; ++attempt)
        EXPECT_EQ(audio_input_init(kConfig), -1);
    EXPECT_EQ(capture.get(&Capture::closes), 9);
    EXPECT_EQ(open_descriptors(), before);
    g_before_read_thread = nullptr;
    start("HEADDONE_PCM_48=1");
    capture.permit(1);
    EXPECT_TRUE(take_pcm());
}

TEST_F(AudioInput, AnAnnouncementDuringInitIsReportedWhenTheModuleIsOpen)
{
    host.on_change = [] { EXPECT_EQ(audio_input_set_reopen_device(true), 0); };
    bool succeeds = false;
    g_before_read_thread = [&] {
        announce("HEADDONE_PCM_32=1");
        EXPECT_FALSE(eventually([&] { return !host.seen().empty(); }, 100ms));
        return succeeds;
    };
    ASSERT_TRUE(hdmi_sim::write_state_file("HEADDONE_PCM_48=1"));
    EXPECT_EQ(audio_input_init(kConfig), -1);
    EXPECT_EQ(host.seen(), Changes());
    succeeds = true;
    start("HEADDONE_PCM_48=1");
    EXPECT_TRUE(changes_become({true}));
}

TEST_F(AudioInput, ReadsAtRealTimePriorityWhereItMay)
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
    // Policy and priority of the read thread, which takes one chunk.
    int policy = -1;
    struct sched_param param = {};
    const auto look = [&] {
        capture.on_read = [&](int) { pthread_getschedparam(pthread_self(), &policy, &param); };
        capture.permit(1);
        EXPECT_TRUE(take_pcm());
    };
    look();
    const int own_policy = sched_getscheduler(0);
    EXPECT_EQ(policy, own_policy);
    EXPECT_EQ(audio_input_deinit(), 0);
    start("HEADDONE_PCM_48=1");
    look();
    if (policy == own_policy)
        GTEST_SKIP() << "the machine must allow real-time priority";
    EXPECT_TRUE(policy == SCHED_RR && param.sched_priority == 99) << policy << ' ' << param.sched_priority;
}

TEST_F(AudioInput, DeinitEndsABlockedReadAndConsumersThatComeBackAtOnce)
{
    start("HEADDONE_PCM_48=1");
    ASSERT_TRUE(eventually([&] { return capture.get(&Capture::waiting) == 1; }));
    capture.close_results = {-5, -5}; // leaves the read where it is
    const auto begin = steady_clock::now();
    BlockedCall<bool> waiting([] { return take(true, -1).has_value(); });
    EXPECT_TRUE(waiting.asleep());
    const std::string refused = printed([] { EXPECT_EQ(audio_input_init(kConfig), -1); });
    EXPECT_EQ(occurrences(refused, "module has been initialized"), 1);
    Callers consumers;
    consumers.run([](int) { EXPECT_FALSE(take(true, -1)); }, 2);
    consumers.run([](int) { EXPECT_FALSE(take(false, -1)); }, 2);
    BlockedCall<int32_t> rival(audio_input_deinit);
    EXPECT_EQ(audio_input_deinit() + rival.result(), -1) << "of two concurrent calls one ends the module";
    EXPECT_LT(steady_clock::now() - begin, 8s) << "the consumers starve the stop";
    EXPECT_EQ(capture.get(&Capture::closes), 3);
}

TEST_F(AudioInput, ADeviceThatADeinitCouldNotCloseIsClosedByTheNextInit)
{
    start(""); // no format: nothing is read
    capture.close_results = {-5, -5};
    EXPECT_EQ(audio_input_deinit(), 0);
    EXPECT_TRUE(capture.get(&Capture::opened));
    start("");
}

TEST_F(AudioInput, NothingIsOpenAfterADeinitThatMeetsAReopen)
{
    for (int round = 0; round < 20; ++round) {
        capture.permits = 0;
        capture.on_open = [] {};
        start("HEADDONE_PCM_48=1");
        capture.on_open = [] { std::this_thread::sleep_for(1ms); }; // a slow device
        const int closes = capture.closes;
        ASSERT_EQ(audio_input_set_reopen_device(true), 0);
        capture.permit(1);
        EXPECT_TRUE(round % 2 == 0 || eventually([&] { return capture.get(&Capture::closes) > closes; }));
        EXPECT_EQ(audio_input_deinit(), 0);
        ASSERT_FALSE(capture.get(&Capture::opened));
    }
    EXPECT_EQ(capture.get(&Capture::opens), capture.get(&Capture::closes));
}

TEST_F(AudioInput, TimeIsCountedInFramesWithoutDrift)
{
    start("HEADDONE_PCM_44=1");
    for (int64_t i = 0; i < 40; ++i) {
        capture.permit(1);
        const auto chunk = take_pcm();
        ASSERT_TRUE(chunk && chunk->pts == i * 896 * 1000000 / 44100) << i;
        EXPECT_TRUE(chunk->size == 896 * 4 && chunk->sample_rate == 44100 && chunk->channels == 2);
        EXPECT_EQ(audio_input_read_continued(), i > 30) << "reads count as continued once the cable is in";
        audio_input_set_hotplug_status(i < 30 ? E_HDMI_HOTPLUG_STATUS_OUT : E_HDMI_HOTPLUG_STATUS_IN);
    }
}

TEST_F(AudioInput, AnAvsyncResetDiscardsWaitingChunksAndRestartsTheTimeLine)
{
    start("");
    capture.permit(5);
    announce("HEADDONE_PCM_48=1");
    auto chunk = take_pcm();
    EXPECT_TRUE(chunk && chunk->buf_size == 1) << "nothing was read before the announcement";
    ASSERT_TRUE(reads_become(6)); // four are queued, the sixth read waits
    audio_input_avsync_reset(true);
    capture.permit(2);
    ASSERT_TRUE(reads_become(8));
    for (int i = 0; i < 2; ++i) {
        chunk = take_pcm();
        ASSERT_TRUE(chunk && chunk->buf_size == 6 + i && chunk->serial == 1);
        EXPECT_EQ(chunk->pts, int64_t{i} * chunk->size / 4 * 1000000 / 48000);
    }
    EXPECT_TRUE(audio_input_next_serial(INT_MAX - 2) == INT_MAX - 1 && audio_input_next_serial(INT_MAX - 1) == 0);
}

TEST_F(AudioInput, ACompressedStreamHasItsOwnQueueItsSerialAndNoTime)
{
    start("HEADDONE_PCM_48=1");
    capture.on_read = [](int read) {
        if (read != 2)
            return;
        announce("HEADDONE_COMP_48=1");
        EXPECT_TRUE(eventually([] { return g_ai_info.format == AUDIO_INPUT_FORMAT_COMP_IEC61937; }));
    };
    capture.permit(3);
    const auto pcm = take_pcm();
    auto chunk = take_iec();
    ASSERT_TRUE(pcm && chunk);
    EXPECT_EQ(chunk->buf_size - pcm->buf_size, 2) << "the chunk that straddles the change is dropped";
    EXPECT_EQ(chunk->pts, 0);
    capture.permit(3);
    ASSERT_TRUE(reads_become(7));
    audio_input_avsync_reset(true);
    capture.permit(1);
    ASSERT_TRUE(reads_become(8));
    chunk = take_iec();
    EXPECT_TRUE(chunk && chunk->buf_size == 7 && chunk->serial == 1 && chunk->sample_rate == 48000);
    EXPECT_TRUE(chunk && chunk->pts == kStreamBreakPts) << "the three chunks before it were discarded";
    capture.locked([&] { capture.read_results = {-5}; });
    capture.permit(3);
    chunk = take_iec();
    EXPECT_TRUE(chunk && chunk->pts == kStreamBreakPts) << "the read before it failed";
    chunk = take_iec();
    EXPECT_TRUE(chunk && chunk->pts == 0);
    EXPECT_FALSE(take_pcm(0));
    audio_input_wakeup_iec61937_queue();
    EXPECT_FALSE(take_iec(-1)) << "the wake-up ends one wait";
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
    capture.permit(2); // the one under way straddles
    ASSERT_TRUE(reads_become(6));
    const auto chunk = take_pcm();
    EXPECT_EQ(capture.get(&Capture::opens), 2);
    const audio_config_t config = capture.get(&Capture::config);
    EXPECT_TRUE(config.sample_rate == 44100 && config.in_bypass_mode == E_AUDIO_IN_BYPASS_MODE_TO_PCM);
    EXPECT_TRUE(chunk && chunk->buf_size == 5) << "what waited was discarded";
    EXPECT_TRUE(chunk && chunk->size == 896 * 4 && chunk->serial == 0 && chunk->pts == 3 * 960 * 1000000LL / 44100);
}

TEST_F(AudioInput, AReopenIsRepeatedUntilTheDeviceIsBack)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(1);
    ASSERT_TRUE(take_pcm());
    capture.close_results = {-5, -5};
    capture.open_results = {-5, -5, -5};
    audio_input_set_reopen_device(true);
    capture.permit(2);
    ASSERT_TRUE(take_pcm());
    EXPECT_TRUE(capture.closes == 2 + 4 && capture.opens == 1 + 4) << "every try closes first";
    // A device without a read size ends the read thread, and only that.
    capture.bytes_per_period = -22;
    audio_input_set_reopen_device(true);
    capture.permit(10);
    ASSERT_TRUE(eventually([&] { return capture.get(&Capture::opens) == 6; }));
    while (take_pcm(50))
        ;
    EXPECT_LE(capture.get(&Capture::reads), 4);
}

TEST_F(AudioInput, AReopenOrADeinitWakesAReadThreadThatWaitsForAFrame)
{
    start("HEADDONE_PCM_48=1");
    capture.permit(INT_MAX / 2);
    ASSERT_TRUE(all_frames_used(128));
    // Nobody takes PCM any more: the other format goes on all the same.
    host.on_change = [] { audio_input_set_reopen_device(true); };
    announce("HEADDONE_COMP_44=1");
    const auto chunk = take_iec();
    EXPECT_TRUE(chunk && chunk->sample_rate == 44100 && capture.get(&Capture::config).sample_rate == 44100);
    EXPECT_FALSE(take_pcm(0));
    EXPECT_TRUE(all_frames_used(128 + 129)); // and so it is when the test ends
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
        EXPECT_TRUE(chunk && chunk->size == size && chunk->pts == frames * 1000000 / 48000) << size;
        frames += size / 4;
    }
    EXPECT_GE(steady_clock::now() - begin, kFailures * 10ms);
    EXPECT_EQ(occurrences(testing::internal::GetCapturedStdout(), "aio_device_read failed"), 2) << "one for each run";
}

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
    announce("HEADDONE");
    announce("HEADDONE_PCM_44=1");
    ASSERT_TRUE(changes_become({false, true, false, true, true})) << "no report of what does not last";
    EXPECT_EQ(host.events, 0);
    const auto begin = steady_clock::now();
    announce("HEADDONE_PCM_96=1");
    ASSERT_TRUE(changes_become({false, true, false, true, true, false}));
    EXPECT_GE(steady_clock::now() - begin, 1s);
    EXPECT_EQ(audio_input_get_original_sample_rate(), 44100) << "the rate stays";
    announce("HEADDONE_PCM_44=1");
    ASSERT_TRUE(changes_become({false, true, false, true, true, false, true}));
    EXPECT_EQ(host.events, 1);
}

// Bytes that wait in the uevent sockets of this namespace.
size_t waiting_bytes()
{
    std::ifstream table("/proc/self/net/netlink");
    std::string line;
    std::getline(table, line); // sk Eth Pid Groups Rmem ...
    size_t sum = 0;
    while (std::getline(table, line)) {
        std::istringstream row(line);
        std::string skip;
        size_t family = 0, waiting = 0;
        row >> skip >> family >> skip >> skip >> waiting;
        sum += family == NETLINK_KOBJECT_UEVENT ? waiting : 0;
    }
    return sum;
}

TEST_F(AudioInput, AStateWhoseAnnouncementWasLostIsTakenFromTheStateFile)
{
    if (!g_namespace_error.empty())
        GTEST_SKIP() << "only the kernel's socket loses messages: " << g_namespace_error;
    start("HEADDONE_PCM_48=1");
    std::mutex gate;
    host.on_change = [&] { std::lock_guard wait(gate); };
    // While the detection thread is held up, @p first waits in the socket and @p last finds no room.
    const auto overrun = [&](const std::string& first, const std::string& last) {
        std::lock_guard hold(gate);
        announce("HEADDONE_PCM_48=1");
        EXPECT_TRUE(eventually([] { return waiting_bytes() == 0; }));
        announce(first);
        for (int i = 0; i < 1500; ++i)
            send_message(uevent({"ACTION=add", std::string(300, 'x')}));
        EXPECT_TRUE(hdmi_sim::write_state_file(last));
        announce(last);
    };
    overrun("HEADDONE_PCM_48=1", "HEADDONE_PCM_48=1");
    EXPECT_TRUE(changes_become({false, false})) << "nothing is reported for a state that is known";
    EXPECT_TRUE(eventually([] { return waiting_bytes() == 0; }));
    overrun("HEADDONE_PCM_44=1", "HEADDONE_COMP_32=1");
    EXPECT_TRUE(changes_become({false, false, false, true, true})) << "the oldest first, the file behind them";
    EXPECT_EQ(audio_input_get_format(), AUDIO_INPUT_FORMAT_COMP_IEC61937);
    EXPECT_EQ(audio_input_get_original_sample_rate(), 32000);
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
    EXPECT_TRUE(g_ai_info.format == AUDIO_INPUT_FORMAT_COMP_IEC61937 && g_ai_info.original_sample_rate == 32000);
}

int main(int argc, char** argv)
{
    if (!hdmi_sim::enter_private_namespaces(&g_namespace_error))
        hdmi_sim::prepare_announcements(&g_announcement_error);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
