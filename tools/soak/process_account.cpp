// SPDX-License-Identifier: MIT
#include "process_account.h"

#include <dirent.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace soak
{
namespace
{

constexpr size_t kSmallStackBytes = 512 * 1024;

/// But "." and "..".
int entries(const char* path)
{
    int count = 0;
    if (DIR* folder = opendir(path)) {
        while (const dirent* entry = readdir(folder))
            count += entry->d_name[0] != '.' ? 1 : 0;
        closedir(folder);
    }
    return count;
}

} // namespace

ProcessAccount process_account()
{
    ProcessAccount account;
    int64_t total = 0;
    int64_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    account.resident_kb = resident * sysconf(_SC_PAGESIZE) / 1024;
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
    const struct mallinfo2 heap = mallinfo2();
    account.heap_kb = static_cast<int64_t>((heap.uordblks + heap.hblkhd) / 1024);
#endif
    // Without the one by which they are counted.
    account.descriptors = entries("/proc/self/fd") - 1;
    account.threads = entries("/proc/self/task");
    rusage used = {};
    getrusage(RUSAGE_SELF, &used);
    account.cpu_s = static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
                    static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
    return account;
}

void use_small_stacks()
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kSmallStackBytes);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

void limit_memory(int more_mb)
{
    std::FILE* status = std::fopen("/proc/self/status", "re");
    long data_kb = 0;
    for (char line[128]; status != nullptr && std::fgets(line, sizeof line, status) != nullptr;)
        if (std::sscanf(line, "VmData: %ld", &data_kb) == 1)
            break;
    if (status != nullptr)
        std::fclose(status);
    const auto bytes = static_cast<rlim_t>(data_kb) * 1024 + (static_cast<rlim_t>(more_mb) << 20);
    const rlimit limit = {bytes, bytes};
    setrlimit(RLIMIT_DATA, &limit);
}

} // namespace soak
