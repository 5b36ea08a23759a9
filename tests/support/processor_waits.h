// SPDX-License-Identifier: MIT
// Whether the machine let the program keep time.
#pragma once

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <utility>

/**
 * Watches, on a thread of its own, for how long threads of this program wait
 * for a processor, at most within 20 ms. The kernel accounts for it in
 * /proc/self/task/TID/schedstat; a machine that stands still as a whole makes
 * the watching thread late.
 */
class ProcessorWaits
{
public:
    ~ProcessorWaits()
    {
        stop_ = true;
        thread_.join();
    }
    std::chrono::nanoseconds longest() const { return std::chrono::nanoseconds(longest_ns_); }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kLook{20};

    void note(int64_t ns) { longest_ns_ = std::max<int64_t>(longest_ns_, ns); }

    void look()
    {
        DIR* threads = opendir("/proc/self/task");
        if (threads == nullptr)
            return;
        while (const dirent* entry = readdir(threads)) {
            std::ifstream account("/proc/self/task/" + std::string(entry->d_name) + "/schedstat");
            int64_t ran_ns = 0, waited_ns = 0;
            if (!(account >> ran_ns >> waited_ns))
                continue;
            const auto [known, is_new] = waited_ns_.try_emplace(entry->d_name, waited_ns);
            if (!is_new)
                note(waited_ns - std::exchange(known->second, waited_ns));
        }
        closedir(threads);
    }
    void run()
    {
        for (auto due = Clock::now(); !stop_; due = Clock::now() + kLook) {
            std::this_thread::sleep_until(due);
            note(std::chrono::nanoseconds(Clock::now() - due).count());
            look();
        }
    }

    std::map<std::string, int64_t> waited_ns_; ///< by thread
    std::atomic<int64_t> longest_ns_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_{[this] { run(); }};
};
