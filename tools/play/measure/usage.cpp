// SPDX-License-Identifier: MIT
#include "measure/usage.h"

#include <dirent.h>
#include <sys/resource.h>

#include <array>
#include <fstream>

namespace play
{
namespace
{

constexpr std::array<const char*, 8> kPlayerThreads = {"aysync_logic",   "av_sync",     "audio_write",
                                                       "audio_resample", "dolby_demux", "dolby_decode",
                                                       "format_detect",  "audio_read"};

double seconds_of(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// schedstat begins with the nanoseconds that the thread ran.
void add_thread(const std::string& task, std::map<std::string, double>* by_thread)
{
    std::ifstream comm(task + "/comm");
    std::ifstream schedstat(task + "/schedstat");
    std::string name;
    int64_t busy_ns = 0;
    if (std::getline(comm, name) && schedstat >> busy_ns)
        (*by_thread)[name] += static_cast<double>(busy_ns) / 1e9;
}

} // namespace

Usage Usage::since(const Usage& start, double seconds) const
{
    Usage used = *this;
    used.cpu_s = (cpu_s - start.cpu_s) / seconds;
    for (auto& [name, cpu] : used.by_thread) {
        auto before = start.by_thread.find(name);
        cpu = (cpu - (before != start.by_thread.end() ? before->second : 0)) / seconds;
    }
    return used;
}

double Usage::player_cpu_s() const
{
    double sum = 0;
    for (const char* name : kPlayerThreads) {
        auto thread = by_thread.find(name);
        sum += thread != by_thread.end() ? thread->second : 0;
    }
    return sum;
}

Usage usage_now()
{
    Usage usage;
    rusage used = {};
    getrusage(RUSAGE_SELF, &used);
    usage.cpu_s = seconds_of(used.ru_utime) + seconds_of(used.ru_stime);
    usage.peak_memory_kb = used.ru_maxrss;
    const std::string tasks = "/proc/self/task";
    if (DIR* directory = opendir(tasks.c_str())) {
        while (const dirent* entry = readdir(directory))
            if (entry->d_name[0] != '.')
                add_thread(tasks + "/" + entry->d_name, &usage.by_thread);
        closedir(directory);
    }
    return usage;
}

} // namespace play
