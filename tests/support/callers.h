// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <thread>
#include <vector>

/// Threads that make a call again and again until stop() or the end of the scope.
class Callers
{
public:
    ~Callers() { stop(); }
    /// @p call takes the number of the call on its thread, from 0 on.
    template <typename Call> void run(Call call, int threads = 1)
    {
        for (; threads > 0; --threads) {
            threads_.emplace_back([this, call] {
                for (int n = 0; !stop_; ++n, ++calls_)
                    call(n);
            });
        }
    }
    void stop()
    {
        stop_ = true;
        for (std::thread& thread : threads_)
            thread.join();
        threads_.clear();
    }
    int calls() const { return calls_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> calls_{0}; ///< of all threads
    std::vector<std::thread> threads_;
};
