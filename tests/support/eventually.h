// SPDX-License-Identifier: MIT
/**
 * @file
 * Waiting for a condition.
 */
#pragma once

#include <chrono>
#include <thread>

/// Polls @p condition for at most @p limit.
template <typename Condition>
bool eventually(Condition condition, std::chrono::nanoseconds limit = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
