// SPDX-License-Identifier: MIT
#pragma once

#include <mutex>

/// State that several threads see.
struct Locked {
    std::mutex mutex;

    template <typename Action> auto locked(Action action)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return action();
    }
};
