// SPDX-License-Identifier: MIT
// Once its queues are full-grown the player allocates nothing, touches no new page and holds no mutex for long,
// whatever it plays.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "coded_audio.h"
#include "hdmi_player.h"
#include "hdmi_sim.h"
#include "support/eventually.h"
#include "support/player_host.h"

extern "C" {
void* __libc_malloc(size_t bytes);
void* __libc_calloc(size_t count, size_t bytes);
void* __libc_realloc(void* memory, size_t bytes);
extern char __executable_start, etext; // NOLINT(readability-identifier-naming): the linker's
}

namespace
{

std::atomic<int64_t> g_allocations{0};
std::atomic<int64_t> g_long_holds{0};
std::atomic<int64_t> g_long_samples{0}; ///< the same of the sample's thread
thread_local bool t_host = false;       ///< a thread of the test's own
thread_local bool t_sample = false;

// The library is part of this program; what the platform's and FFmpeg's libraries do is not counted.
bool is_ours(const void* caller) { return caller >= &__executable_start && caller < &etext; }

void note(const void* caller)
{
    if (!t_host && is_ours(caller))
        ++g_allocations;
}

// --- Mutexes ----------------------------------------------------------------------

constexpr int64_t kLongestHoldNs = 50'000;

int64_t clock_ns(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

int64_t waits_of_this_thread()
{
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

/// A mutex that this thread holds, with the thread's clocks when it took it.
struct Hold {
    const pthread_mutex_t* mutex;
    int64_t cpu_ns, ns, waits;
};
thread_local Hold t_holds[16];
thread_local size_t t_held = 0;

void begin_hold(const pthread_mutex_t* mutex, const void* caller)
{
    if (is_ours(caller) && t_held < std::size(t_holds))
        t_holds[t_held++] = {mutex, clock_ns(CLOCK_THREAD_CPUTIME_ID), clock_ns(CLOCK_MONOTONIC),
                             waits_of_this_thread()};
}

// A thread that the machine has no processor for holds its mutexes for as long: what counts is how long it computes, or
// waits of its own accord.
void end_hold(const pthread_mutex_t* mutex)
{
    for (size_t i = t_held; i-- > 0;) {
        const Hold hold = t_holds[i];
        if (hold.mutex != mutex)
            continue;
        t_holds[i] = t_holds[--t_held];
        const bool waited = waits_of_this_thread() != hold.waits;
        if (clock_ns(CLOCK_THREAD_CPUTIME_ID) - hold.cpu_ns > kLongestHoldNs ||
            (waited && clock_ns(CLOCK_MONOTONIC) - hold.ns > kLongestHoldNs))
            ++(t_sample ? g_long_samples : g_long_holds);
        return;
    }
}

template <typename Function> Function* next(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {
int pthread_mutex_lock(pthread_mutex_t* mutex)
{
    static auto* const real = next(pthread_mutex_lock, "pthread_mutex_lock");
    const int result = real(mutex);
    begin_hold(mutex, __builtin_return_address(0));
    return result;
}
int pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    static auto* const real = next(pthread_mutex_unlock, "pthread_mutex_unlock");
    end_hold(mutex);
    return real(mutex);
}
int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex)
{
    static auto* const real = next(pthread_cond_wait, "pthread_cond_wait");
    end_hold(mutex);
    const int result = real(cond, mutex);
    begin_hold(mutex, __builtin_return_address(0));
    return result;
}
int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline)
{
    static auto* const real = next(pthread_cond_timedwait, "pthread_cond_timedwait");
    end_hold(mutex);
    const int result = real(cond, mutex, deadline);
    begin_hold(mutex, __builtin_return_address(0));
    return result;
}
}

extern "C" {
void* malloc(size_t bytes)
{
    note(__builtin_return_address(0));
    return __libc_malloc(bytes);
}
void* calloc(size_t count, size_t bytes)
{
    note(__builtin_return_address(0));
    return __libc_calloc(count, bytes);
}
void* realloc(void* memory, size_t bytes)
{
    note(__builtin_return_address(0));
    return __libc_realloc(memory, bytes);
}
}

namespace
{

void* allocate(size_t bytes, const void* caller)
{
    note(caller);
    if (void* const memory = __libc_malloc(bytes != 0 ? bytes : 1))
        return memory;
    throw std::bad_alloc();
}

} // namespace

void* operator new(size_t bytes) { return allocate(bytes, __builtin_return_address(0)); }
void* operator new[](size_t bytes) { return allocate(bytes, __builtin_return_address(0)); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

namespace
{

using namespace std::chrono_literals;

struct Work {
    const char* name;
    int rate; ///< of PCM; 0: a compressed stream
    AVCodecID codec;
    bool raw; ///< passed on as it is
};

hdmi_sim::Signal signal_of(const Work& work)
{
    hdmi_sim::Signal signal;
    signal.rate = work.rate;
    signal.generate = [](int64_t first, int16_t* words, int frames) {
        for (int i = 0; i < frames; ++i)
            words[2 * i] = words[2 * i + 1] = static_cast<int16_t>((first + i) % 30000 + 1);
    };
    if (work.rate != 0)
        return signal;
    coded_audio::Format format;
    format.codec = work.codec;
    const coded_audio::Bytes stream = coded_audio::join(coded_audio::encode(format, 60));
    hdmi_sim::Bitstream bursts;
    const auto coding = work.codec == AV_CODEC_ID_AC3 ? hdmi_sim::Coding::ac3 : hdmi_sim::Coding::eac3;
    EXPECT_TRUE(hdmi_sim::pack_bitstream(coding, stream.data(), stream.size(), &bursts));
    hdmi_sim::BurstOptions options;
    options.repeat = true;
    return hdmi_sim::bitstream_signal(bursts, options);
}

/// Of the player's threads so far.
int64_t page_faults()
{
    static const std::set<std::string> names = {"audio_read", "audio_resample", "audio_write",  "aysync_logic",
                                                "av_sync",    "dolby_demux",    "dolby_decode", "format_detect"};
    int64_t sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream stat(task.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        const size_t begin = text.find('('), end = text.rfind(')');
        if (end == std::string::npos || names.count(text.substr(begin + 1, end - begin - 1)) == 0)
            continue;
        std::istringstream fields(text.substr(end + 1));
        std::string skipped, minor;
        for (int i = 0; i < 7; ++i)
            fields >> skipped;
        fields >> minor;
        sum += std::stoll(minor);
    }
    return sum;
}

/// A thread that holds a mutex for a third of the limit, 200 times a second. Where that is long, the machine takes its
/// processors away from those that compute: the player may hold its mutexes for long as often.
class Sample
{
public:
    Sample() : thread_([this] { run(); }) {}
    ~Sample()
    {
        running_ = false;
        thread_.join();
    }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;

private:
    static void compute(int64_t rounds)
    {
        for (volatile int64_t i = 0; i < rounds;)
            i = i + 1;
    }
    static int64_t rounds_of(int64_t ns)
    {
        constexpr int64_t kRounds = 100'000;
        int64_t shortest_ns = INT64_MAX;
        for (int i = 0; i < 10; ++i) {
            const int64_t begin_ns = clock_ns(CLOCK_THREAD_CPUTIME_ID);
            compute(kRounds);
            shortest_ns = std::min(shortest_ns, clock_ns(CLOCK_THREAD_CPUTIME_ID) - begin_ns);
        }
        return kRounds * ns / shortest_ns;
    }
    void run()
    {
        t_host = t_sample = true;
        const int64_t rounds = rounds_of(kLongestHoldNs / 3);
        while (running_) {
            pthread_mutex_lock(&mutex_);
            compute(rounds);
            pthread_mutex_unlock(&mutex_);
            std::this_thread::sleep_for(5ms);
        }
    }

    std::atomic<bool> running_{true};
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::thread thread_;
};

class Steady : public testing::TestWithParam<Work>
{
};

TEST_P(Steady, AllocatesNothingTouchesNoNewPageAndHoldsNoMutexForLong)
{
    const Work& work = GetParam();
    t_host = true;
    hdmi_sim::reset();
    forget_callbacks();
    ASSERT_TRUE(
        hdmi_sim::write_state_file(hdmi_sim::announce_text(work.rate == 0, work.rate != 0 ? work.rate : 48000) + "\n"));
    hdmi_sim::receiver_connect(signal_of(work));
    hdmi_player_config_t config = player_config();
    if (work.raw) {
        config.ao_dev = E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
        config.ao_format = E_HDMI_PLAYER_AO_FORMAT_RAW;
    }
    ASSERT_EQ(hdmi_player_open(config), 0);
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    std::atomic<bool> running{true};
    std::atomic<int> blocks{0};
    std::thread sound([&] {
        t_host = true;
        while (running) {
            hdmi_player_audio_frame_t* block = nullptr;
            if (hdmi_player_get_pcm(&block, 100) != 0)
                continue;
            hdmi_player_write_pcm(block);
            hdmi_player_put_pcm(block);
            ++blocks;
        }
    });
    std::thread video([&] {
        t_host = true;
        while (running) {
            render_frame();
            std::this_thread::sleep_for(16ms);
        }
    });
    // A machine that is busy makes a queue grow late. A player that does such a thing for each block has no such
    // second.
    {
        const Sample sample;
        EXPECT_TRUE(eventually(
            [&] {
                const int64_t allocations = g_allocations;
                const int64_t faults = page_faults();
                const int64_t holds = g_long_holds, samples = g_long_samples;
                const int before = blocks, flipped = g_flipped;
                std::this_thread::sleep_for(1s);
                return g_allocations == allocations && page_faults() == faults &&
                       g_long_holds - holds <= g_long_samples - samples && g_flipped > flipped + 10 &&
                       (work.raw || blocks > before + 10);
            },
            60s))
            << g_allocations << " allocations, " << page_faults() << " page faults, " << g_long_holds
            << " long holds; of the sample " << g_long_samples;
    }
    running = false;
    sound.join();
    video.join();
    hdmi_player_close();
}

INSTANTIATE_TEST_SUITE_P(Everything, Steady,
                         testing::Values(Work{"pcm", 48000, {}, false}, Work{"resampled", 44100, {}, false},
                                         Work{"ac3", 0, AV_CODEC_ID_AC3, false},
                                         Work{"eac3", 0, AV_CODEC_ID_EAC3, false},
                                         Work{"raw", 0, AV_CODEC_ID_AC3, true}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace

int main(int argc, char** argv)
{
    setenv("debug_hdmiplayer_log_level", "1", 0);
    return run_in_namespaces(argc, argv);
}
