// SPDX-License-Identifier: MIT
// vblank_probe DEVICE SECONDS: waits for one vertical blank after the other, as the player does, and tells how well a
// process is woken for them on this machine. One line "NAME VALUE" per figure.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>
#include <xf86drm.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

struct Wake {
    uint32_t sequence;
    int64_t stamp_us;
    int64_t late_us; ///< between the kernel's stamp and the return of the wait
};

int64_t now_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

bool wait_once(int fd, Wake* wake)
{
    drmVBlank request = {};
    request.request.type = DRM_VBLANK_RELATIVE;
    request.request.sequence = 1;
    if (drmWaitVBlank(fd, &request) != 0)
        return false;
    *wake = {request.reply.sequence, int64_t{request.reply.tval_sec} * 1'000'000 + request.reply.tval_usec, 0};
    wake->late_us = now_us() - wake->stamp_us;
    return true;
}

int64_t percentile(std::vector<int64_t> values, int percent)
{
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) * static_cast<size_t>(percent) / 100];
}

void print(const std::vector<Wake>& wakes)
{
    std::vector<int64_t> late;
    std::vector<int64_t> interval_error;
    int64_t passed = wakes.back().sequence - wakes.front().sequence;
    double period_us =
        static_cast<double>(wakes.back().stamp_us - wakes.front().stamp_us) / static_cast<double>(passed);
    for (size_t i = 1; i < wakes.size(); i++) {
        double due = period_us * (wakes[i].sequence - wakes[i - 1].sequence);
        interval_error.push_back(std::llabs(wakes[i].stamp_us - wakes[i - 1].stamp_us - static_cast<int64_t>(due)));
        late.push_back(wakes[i].late_us);
    }
    int64_t missed = passed - static_cast<int64_t>(wakes.size() - 1);
    std::printf("rate_hz %.3f\n", 1e6 / period_us);
    std::printf("periods %lld\n", static_cast<long long>(passed));
    std::printf("missed %lld\n", static_cast<long long>(missed));
    std::printf("missed_percent %.3f\n", 100.0 * static_cast<double>(missed) / static_cast<double>(passed));
    std::printf("stamp_error_us_p99 %lld\n", static_cast<long long>(percentile(interval_error, 99)));
    std::printf("late_us_median %lld\n", static_cast<long long>(percentile(late, 50)));
    std::printf("late_us_p99 %lld\n", static_cast<long long>(percentile(late, 99)));
    std::printf("late_us_most %lld\n", static_cast<long long>(percentile(late, 100)));
}

} // namespace

int main(int argc, char** argv)
{
    int fd = argc == 3 ? open(argv[1], O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) {
        std::fprintf(stderr, "usage: vblank_probe DEVICE SECONDS\n");
        return 2;
    }
    sched_param priority = {};
    priority.sched_priority = 10;
    (void)sched_setscheduler(0, SCHED_FIFO, &priority);
    std::vector<Wake> wakes;
    int64_t end_us = now_us() + std::atoll(argv[2]) * 1'000'000;
    while (now_us() < end_us) {
        Wake wake;
        if (!wait_once(fd, &wake)) {
            std::fprintf(stderr, "drmWaitVBlank: %s\n", std::strerror(errno));
            return 1;
        }
        wakes.push_back(wake);
    }
    if (wakes.size() < 2 || wakes.back().sequence == wakes.front().sequence)
        return 1;
    print(wakes);
    close(fd);
    return 0;
}
