// SPDX-License-Identifier: MIT
/**
 * @file
 * Whether the allocated memory grows. Pure: times and sizes come in.
 */
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace soak
{

/// Each state with itself: a decoder needs more than PCM, and which formats are drawn in the end is chance.
class HeapTrend
{
public:
    /// @p state: what decides how much memory the player needs.
    void note(double at_s, const std::string& state, int64_t heap_kb);

    struct Growth {
        std::string state;
        int64_t from_kb;
        int64_t to_kb;
        int64_t kb() const { return to_kb - from_kb; }
    };
    /// Of each state that was there in the run's second quarter and in its last: the least of each. Blocks that are on
    /// their way come and go, what is lost does not.
    std::vector<Growth> growths() const;

private:
    struct Sample {
        double at_s;
        int64_t heap_kb;
    };
    using Samples = std::vector<Sample>;
    static std::optional<int64_t> least(const Samples& samples, double from_s, double to_s);

    std::map<std::string, Samples> samples_;
    double end_s_ = 0;
};

} // namespace soak
