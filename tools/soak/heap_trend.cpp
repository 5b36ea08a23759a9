// SPDX-License-Identifier: MIT
#include "heap_trend.h"

#include <algorithm>

namespace soak
{

void HeapTrend::note(double at_s, const std::string& state, int64_t heap_kb)
{
    samples_[state].push_back({at_s, heap_kb});
    end_s_ = std::max(end_s_, at_s);
}

std::optional<int64_t> HeapTrend::least(const Samples& samples, double from_s, double to_s)
{
    std::optional<int64_t> least;
    for (const Sample& sample : samples)
        if (sample.at_s >= from_s && sample.at_s <= to_s)
            least = std::min(least.value_or(sample.heap_kb), sample.heap_kb);
    return least;
}

std::vector<HeapTrend::Growth> HeapTrend::growths() const
{
    std::vector<Growth> growths;
    for (const auto& [state, samples] : samples_) {
        const std::optional<int64_t> before = least(samples, end_s_ / 4, end_s_ / 2);
        const std::optional<int64_t> after = least(samples, end_s_ * 3 / 4, end_s_);
        if (before && after)
            growths.push_back({state, *before, *after});
    }
    return growths;
}

} // namespace soak
