// SPDX-License-Identifier: MIT
#include "common/holds.h"

#include <algorithm>
#include <cmath>

namespace common
{

Holds plan_holds(int64_t latency_ns, int64_t offset_ns, double refresh_hz, bool vblanks_known)
{
    const int64_t light_later_ns = kPlannedLatencyNs - kAimNs - latency_ns - offset_ns;
    if (light_later_ns <= 0)
        return {0, 0, -light_later_ns, vblanks_known};
    if (!vblanks_known)
        return {0, light_later_ns, 0, false};
    const double refresh_ns = 1e9 / refresh_hz;
    const auto refreshes = static_cast<int>(std::ceil(static_cast<double>(light_later_ns) / refresh_ns));
    const int64_t flip_ns = std::llround(refreshes * refresh_ns);
    return {refreshes, flip_ns, std::max<int64_t>(flip_ns - light_later_ns, 0), true};
}

} // namespace common
