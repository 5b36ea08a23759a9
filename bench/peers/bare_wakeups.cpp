// SPDX-License-Identifier: MIT
// The player's wake-ups and nothing else: as many threads as the player, its host and the simulated devices have wake
// each other as often and in the same order, with a mutex, a condition variable and the time-outs of the queues between
// them. What this costs, no player of these threads goes below. With "sound", they also do what has to be done to it: a
// copy from thread to thread, a conversion, a decoder. Takes the arguments of player_load, prints "running", ends with
// its standard input, and then prints the intervals between the flips that it stands for.
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "coded_audio.h"

extern "C" {
#include <libswresample/swresample.h>
}

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr nanoseconds kQueueTimeout = std::chrono::milliseconds(100);
constexpr nanoseconds kSecond = std::chrono::seconds(1);
constexpr size_t kFlipsBeforeSync = 120; // as player_load leaves out

constexpr int kOutputRate = 48000;
constexpr size_t kFrameBytes = 4;

using Block = std::vector<uint8_t>;
/// What a thread does with the block that it was handed, to hand on another.
using Work = std::function<void(const Block& from, Block& to)>;

std::atomic<bool> g_running{true};

/// A thread that wakes others whenever it was woken.
struct Station {
    const char* name = "";
    nanoseconds period{0};                           ///< wakes up by itself so often; 0: only when it is woken
    bool is_source = false;                          ///< by nothing else
    nanoseconds phase{0};                            ///< a source's first wake-up
    bool is_real_time = false;                       ///< where that is permitted
    double share = 1;                                ///< of its own wake-ups, how many wake the next
    std::vector<Station*> next;                      ///< whom it wakes
    bool is_display = false;                         ///< its wake-ups are those that flip
    std::vector<Clock::time_point>* flips = nullptr; ///< when a display woke it

    Work work; ///< none: it only wakes

    std::mutex mutex;
    std::condition_variable woken;
    int news = 0;
    bool flip_due = false; ///< with the news
    Block block;           ///< handed over with the news
    Block in_device;       ///< of the last station

    void wake(const Station& waker)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (waker.work)
                waker.work(waker.block, block);
            flip_due = flip_due || waker.is_display;
            ++news;
        }
        woken.notify_one();
    }

    void pass_on()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (Station* station : next)
            station->wake(*this);
        if (next.empty() && work)
            work(block, in_device);
    }

    bool takes_flip()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(flip_due, false);
    }

    /// @return whether somebody woke it.
    bool sleep(Clock::time_point due)
    {
        if (is_source) {
            std::this_thread::sleep_until(due);
            return true;
        }
        std::unique_lock<std::mutex> lock(mutex);
        woken.wait_until(lock, Clock::now() + (period.count() > 0 ? period : kQueueTimeout),
                         [this] { return news > 0; });
        return std::exchange(news, 0) > 0;
    }

    void run()
    {
        prctl(PR_SET_NAME, name);
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        const sched_param highest = {sched_get_priority_max(SCHED_RR)};
        if (is_real_time)
            pthread_setschedparam(pthread_self(), SCHED_RR, &highest);
        double credit = 0;
        for (auto due = Clock::now() + phase; g_running; due += period) {
            if (!sleep(due))
                continue;
            if (flips != nullptr && takes_flip())
                flips->push_back(Clock::now());
            credit += share;
            while (credit >= 1) {
                credit -= 1;
                pass_on();
            }
        }
    }
};

/// A chain of stations, each woken by the one before.
class Stations
{
public:
    Station& add(const char* name, Station* before, Work work, nanoseconds period = nanoseconds(0))
    {
        Station& station = all_.emplace_back();
        station.name = name;
        station.period = period;
        station.work = std::move(work);
        station.is_source = before == nullptr;
        if (before != nullptr)
            before->next.push_back(&station);
        return station;
    }
    void start()
    {
        for (Station& station : all_)
            threads_.emplace_back([&station] { station.run(); });
    }
    void join()
    {
        for (std::thread& thread : threads_)
            thread.join();
    }

private:
    std::deque<Station> all_;
    std::vector<std::thread> threads_;
};

// --- Sound --------------------------------------------------------------------

void copy(const Block& from, Block& to) { to = from; }

/// Periods of @p bytes: of a second of sound, so that each comes from memory that was not looked at for so long.
Work source(size_t bytes)
{
    return [second = Block(bytes * 50, 1), bytes, at = size_t{0}](const Block&, Block& to) mutable {
        const auto first = second.begin() + static_cast<ptrdiff_t>(at);
        to.assign(first, first + static_cast<ptrdiff_t>(bytes));
        at = (at + bytes) % second.size();
    };
}

/// Lives as long as the process, as the decoder does.
SwrContext* make_converter(AVSampleFormat format, int rate)
{
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, 2);
    SwrContext* converter = nullptr;
    swr_alloc_set_opts2(&converter, &layout, AV_SAMPLE_FMT_S16, kOutputRate, &layout, format, rate, 0, nullptr);
    swr_init(converter);
    return converter;
}

void convert(SwrContext* converter, const uint8_t** from, int frames, int most, Block& to)
{
    to.resize(static_cast<size_t>(most) * kFrameBytes);
    uint8_t* out = to.data();
    const int made = swr_convert(converter, &out, most, from, frames);
    to.resize(static_cast<size_t>(std::max(made, 0)) * kFrameBytes);
}

Work resampler(int rate)
{
    return [converter = make_converter(AV_SAMPLE_FMT_S16, rate), rate](const Block& from, Block& to) {
        const uint8_t* in = from.data();
        const int frames = static_cast<int>(from.size() / kFrameBytes);
        convert(converter, &in, frames, frames * kOutputRate / rate + 64, to);
    };
}

Work decoder(AVCodecID codec)
{
    coded_audio::Format format;
    format.codec = codec;
    std::vector<coded_audio::Bytes> packets = coded_audio::encode(format, 60);
    AVCodecContext* const context = avcodec_alloc_context3(avcodec_find_decoder(codec));
    context->thread_count = 1;
    avcodec_open2(context, nullptr, nullptr);
    return [=, packet = av_packet_alloc(), frame = av_frame_alloc(), at = size_t{0},
            converter = make_converter(AV_SAMPLE_FMT_FLTP, kOutputRate)](const Block&, Block& to) mutable {
        const coded_audio::Bytes& coded = packets[at++ % packets.size()];
        av_new_packet(packet, static_cast<int>(coded.size()));
        std::copy(coded.begin(), coded.end(), packet->data);
        avcodec_send_packet(context, packet);
        av_packet_unref(packet);
        if (avcodec_receive_frame(context, frame) == 0)
            convert(converter, const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples, frame->nb_samples,
                    to);
    };
}

/// Of the threads that sound passes.
struct Works {
    Work read, demux, resample, hand_on;
};

Works make_works(const std::string& signal, int rate)
{
    const bool eac3 = signal == "eac3";
    Works works;
    works.read = source(kFrameBytes * static_cast<size_t>((eac3 ? 4 : 1) * rate / 50));
    if (signal != "pcm")
        works.demux = decoder(eac3 ? AV_CODEC_ID_EAC3 : AV_CODEC_ID_AC3);
    works.resample = rate == kOutputRate ? Work(copy) : resampler(rate);
    works.hand_on = copy;
    return works;
}

// A period of the capture device, through the library and the host to the output.
void add_sound(Stations& stations, const char* signal, const Works& works)
{
    Station* last = &stations.add("audio_read", nullptr, works.read, std::chrono::milliseconds(20));
    last->is_real_time = true;
    if (strcmp(signal, "pcm") != 0) {
        last = &stations.add("dolby_demux", last, works.demux);
        // A burst is 32 ms of sound. The decoder is asked every 10 ms, whatever has come.
        last->share = 20. / 32;
        last = &stations.add("dolby_decode", last, works.hand_on, std::chrono::milliseconds(10));
    }
    last = &stations.add("audio_resample", last, works.resample);
    last = &stations.add("host_sound", last, works.hand_on);
    stations.add("audio_write", last, works.hand_on);
}

// --- Pictures -----------------------------------------------------------------

// The host's frames, and the vertical blanks of a display as fast, which have them flipped. A frame wakes the pacing
// when it comes, unless another one waits already.
void add_pictures(Stations& stations, int fps, bool queued, std::vector<Clock::time_point>* flips)
{
    Station& host = stations.add("host_video", nullptr, {}, kSecond / fps);
    Station& display = stations.add("av_sync", nullptr, {}, kSecond / fps);
    display.phase = kSecond / fps / 2;
    display.is_display = true;
    Station& pacing = stations.add("aysync_logic", &display, {});
    pacing.flips = flips;
    if (!queued)
        host.next.push_back(&pacing);
}

void print_flip_errors(const std::vector<Clock::time_point>& flips, int fps)
{
    std::vector<int64_t> errors;
    for (size_t i = kFlipsBeforeSync; i < flips.size(); ++i)
        errors.push_back(std::abs((flips[i] - flips[i - 1] - kSecond / fps).count()) / 1000);
    std::sort(errors.begin(), errors.end());
    if (!errors.empty())
        printf("flips %zu p50 %lld p99 %lld max %lld\n", errors.size(),
               static_cast<long long>(errors[errors.size() / 2]),
               static_cast<long long>(errors[errors.size() * 99 / 100]), static_cast<long long>(errors.back()));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "Usage: bare_wakeups pcm|ac3|eac3 FRAMES_PER_SECOND [rate=HZ] [sound] [queued]\n");
        return 2;
    }
    const int fps = atoi(argv[2]);
    int rate = kOutputRate;
    bool sound = false;
    bool queued = false;
    for (const std::string& option : std::vector<std::string>(argv + 3, argv + argc)) {
        sound = sound || option == "sound";
        queued = queued || option == "queued";
        if (option.rfind("rate=", 0) == 0)
            rate = atoi(option.c_str() + 5);
    }
    std::vector<Clock::time_point> flips;
    flips.reserve(1 << 20);
    Stations stations;
    add_sound(stations, argv[1], sound ? make_works(argv[1], rate) : Works());
    if (fps > 0)
        add_pictures(stations, fps, queued, &flips);
    stations.start();
    printf("running\n");
    fflush(stdout);
    char ignored = 0;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    g_running = false;
    stations.join();
    if (fps > 0)
        print_flip_errors(flips, fps);
    return 0;
}
