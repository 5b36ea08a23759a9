// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace play
{

/// Processor time and memory that the process has used so far.
struct Usage {
    double cpu_s = 0;                        ///< all threads, ended ones included
    std::map<std::string, double> by_thread; ///< living threads by name; same names added
    int64_t peak_memory_kb = 0;

    /// Use since @p start, over @p seconds, as CPU seconds per second.
    Usage since(const Usage& start, double seconds) const;
    /// The threads that the player started.
    double player_cpu_s() const;
};

Usage usage_now();

} // namespace play
