// SPDX-License-Identifier: MIT
#include "measure/punctuality.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "common/clock.h"

namespace play
{
namespace
{

using common::now_ns;
using common::sleep_until_ns;

/// Shorter than half a vertical blank at 60 Hz: a processor that is away for longer than that is noticed.
constexpr int64_t kTickNs = 5'000'000;
constexpr int64_t kStepNs = 100'000;
constexpr size_t kSteps = 1001;
/// Of a machine with very many processors these will do.
constexpr int kMostTimers = 16;

std::vector<int> own_processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> processors;
    if (sched_getaffinity(0, sizeof set, &set) == 0)
        for (int i = 0; i < CPU_SETSIZE && processors.size() < kMostTimers; i++)
            if (CPU_ISSET(i, &set))
                processors.push_back(i);
    // More processors than the set has room for: one timer, wherever it runs.
    return processors.empty() ? std::vector<int>{-1} : processors;
}

} // namespace

TickRecord::TickRecord() : steps_(kSteps) {}

void TickRecord::add(int64_t late_ns, int64_t at_ns)
{
    late_ns = std::max<int64_t>(late_ns, 0);
    steps_[std::min(static_cast<size_t>(late_ns / kStepNs), kSteps - 1)]++;
    ticks_++;
    if (late_ns > worst_ns_)
        worst_at_ns_ = at_ns;
    worst_ns_ = std::max(worst_ns_, late_ns);
}

void TickRecord::add(const TickRecord& other)
{
    std::transform(steps_.begin(), steps_.end(), other.steps_.begin(), steps_.begin(), std::plus<>());
    ticks_ += other.ticks_;
    if (other.worst_ns_ > worst_ns_)
        worst_at_ns_ = other.worst_at_ns_;
    worst_ns_ = std::max(worst_ns_, other.worst_ns_);
}

Punctuality TickRecord::figures(double late_limit_ms) const
{
    constexpr double kStepMs = kStepNs / 1e6;
    Punctuality figures;
    figures.ticks = ticks_;
    figures.late_limit_ms = late_limit_ms;
    figures.worst_ms = static_cast<double>(worst_ns_) / 1e6;
    figures.worst_at_ns = worst_at_ns_;
    figures.p99_ms = figures.worst_ms;
    int64_t from_here = 0; // ticks of this step or a later one
    for (size_t step = kSteps; step-- > 0;) {
        double ms = static_cast<double>(step) * kStepMs;
        from_here += steps_[step];
        figures.late = ms >= late_limit_ms ? from_here : figures.late;
        // One tick in a hundred may be later.
        if (step + 1 < kSteps && (from_here - steps_[step]) * 100 <= ticks_)
            figures.p99_ms = std::min(ms + kStepMs, figures.worst_ms);
    }
    return figures;
}

TickingTimers::TickingTimers()
{
    const std::vector<int> processors = own_processors();
    records_.resize(processors.size());
    for (size_t i = 0; i < processors.size(); i++)
        threads_.emplace_back(tick, processors[i], &stop_, &records_[i]);
}

void TickingTimers::tick(int processor, const std::atomic<bool>* stop, TickRecord* record)
{
    pthread_setname_np(pthread_self(), "ticking_timer");
    cpu_set_t here;
    CPU_ZERO(&here);
    if (processor >= 0)
        CPU_SET(processor, &here);
    // One that cannot be bound ticks wherever it runs.
    (void)sched_setaffinity(0, sizeof here, &here);
    for (int64_t deadline_ns = now_ns() + kTickNs; !*stop; deadline_ns += kTickNs) {
        sleep_until_ns(deadline_ns);
        const int64_t came_ns = now_ns();
        record->add(came_ns - deadline_ns, came_ns);
    }
}

TickRecord TickingTimers::finish()
{
    stop_ = true;
    for (std::thread& thread : threads_)
        thread.join();
    threads_.clear();
    TickRecord all;
    for (const TickRecord& record : records_)
        all.add(record);
    return all;
}

} // namespace play
