// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "eventually.h"

/// Holds the threads that pass until it is opened.
class Gate
{
public:
    void pass()
    {
        reached_ = true;
        while (!open_)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    bool reached() const
    {
        return eventually([this] { return reached_.load(); });
    }
    void open() { open_ = true; }

private:
    std::atomic<bool> reached_{false};
    std::atomic<bool> open_{false};
};
