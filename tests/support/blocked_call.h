// SPDX-License-Identifier: MIT
/**
 * @file
 * A call that is expected to block, on a thread of its own.
 */
#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <string>

#include "eventually.h"

/// Runs a call on a thread and tells when it sleeps and what it returned.
template <typename Result> class BlockedCall
{
public:
    template <typename Call>
    explicit BlockedCall(Call call)
        : result_(std::async(std::launch::async, [this, call] {
              thread_id_ = static_cast<long>(syscall(SYS_gettid));
              return call();
          }))
    {
    }

    /// Whether the call sleeps, as a wait for a condition does; waits until it does.
    bool asleep() const
    {
        return eventually([this] { return thread_id_ != 0 && state() == 'S'; });
    }
    bool returned() const { return result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    /// The result, waited for with a generous limit.
    Result result()
    {
        if (result_.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
            ADD_FAILURE() << "the call does not return";
        return result_.get();
    }

private:
    char state() const
    {
        std::ifstream file("/proc/self/task/" + std::to_string(thread_id_) + "/stat");
        std::string line;
        std::getline(file, line);
        const size_t name_end = line.rfind(") ");
        return name_end != std::string::npos ? line[name_end + 2] : '?';
    }

    std::atomic<long> thread_id_{0};
    std::future<Result> result_;
};
