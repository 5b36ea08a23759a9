// SPDX-License-Identifier: MIT
// The player's wake-ups and nothing else: as many threads as the player, its host and the simulated devices have wake
// each other as often and in the same order, with a mutex, a condition variable and the time-outs of the queues between
// them. What this costs, no player of these threads goes below. Takes the arguments of player_load, prints "running",
// ends with its standard input, and then prints the intervals between the flips that it stands for.
#include <pthread.h>
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
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr nanoseconds kQueueTimeout = std::chrono::milliseconds(100);
constexpr nanoseconds kSecond = std::chrono::seconds(1);
constexpr size_t kFlipsBeforeSync = 120; // as player_load leaves out

std::atomic<bool> g_running{true};

/// A thread that wakes others whenever it was woken.
struct Station {
    const char* name = "";
    nanoseconds period{0};                           ///< wakes up by itself so often; 0: only when it is woken
    bool is_source = false;                          ///< by nothing else
    double share = 1;                                ///< of its own wake-ups, how many wake the next
    std::vector<Station*> next;                      ///< whom it wakes
    std::vector<Clock::time_point>* flips = nullptr; ///< when it was woken

    std::mutex mutex;
    std::condition_variable woken;
    int news = 0;

    void wake()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            ++news;
        }
        woken.notify_one();
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
        double credit = 0;
        for (auto due = Clock::now(); g_running; due += period) {
            if (!sleep(due))
                continue;
            if (flips != nullptr)
                flips->push_back(Clock::now());
            credit += share;
            while (credit >= 1) {
                credit -= 1;
                for (Station* station : next)
                    station->wake();
            }
        }
    }
};

/// A chain of stations, each woken by the one before.
class Stations
{
public:
    Station& add(const char* name, Station* before, nanoseconds period = nanoseconds(0))
    {
        Station& station = all_.emplace_back();
        station.name = name;
        station.period = period;
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

// A period of the capture device, through the library and the host to the output.
void add_sound(Stations& stations, const char* signal)
{
    const bool eac3 = strcmp(signal, "eac3") == 0;
    Station* last = &stations.add("audio_read", nullptr, std::chrono::milliseconds(eac3 ? 10 : 20));
    if (eac3 || strcmp(signal, "ac3") == 0) {
        last = &stations.add("dolby_demux", last);
        // A burst is 32 ms of sound. The decoder is asked every 10 ms, whatever has come.
        last->share = eac3 ? 10. / 32 : 20. / 32;
        last = &stations.add("dolby_decode", last, std::chrono::milliseconds(10));
    }
    last = &stations.add("audio_resample", last);
    last = &stations.add("host_sound", last);
    stations.add("audio_write", last);
}

// The host's frames, which wake the pacing, and the vertical blanks at which it flips them.
void add_pictures(Stations& stations, int fps, std::vector<Clock::time_point>* flips)
{
    Station& host = stations.add("host_video", nullptr, kSecond / fps);
    host.share = 0; // a frame waits already
    Station& display = stations.add("av_sync", nullptr, kSecond / fps);
    stations.add("aysync_logic", &display).flips = flips;
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
        fprintf(stderr, "Usage: bare_wakeups pcm|ac3|eac3 FRAMES_PER_SECOND\n");
        return 2;
    }
    const int fps = atoi(argv[2]);
    std::vector<Clock::time_point> flips;
    flips.reserve(1 << 20);
    Stations stations;
    add_sound(stations, argv[1]);
    if (fps > 0)
        add_pictures(stations, fps, &flips);
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
