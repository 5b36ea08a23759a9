// SPDX-License-Identifier: MIT
// How old frames or sound are when they come, by what the device says.
#pragma once

#include <algorithm>
#include <optional>

namespace view
{

/**
 * The least age in the latest two windows: a machine that is late now and then
 * makes single frames older than the device does. Stamps from the future count
 * as an age of 0.
 */
class LeastAge
{
public:
    /// @return the age in ms
    double add(double age_ms)
    {
        least_ms_ = count_ == 0 ? age_ms : std::min(least_ms_, age_ms);
        const double least_ms = before_ms_ ? std::min(least_ms_, *before_ms_) : least_ms_;
        if (++count_ == kWindow) {
            before_ms_ = least_ms_;
            count_ = 0;
        }
        return std::max(least_ms, 0.0);
    }

private:
    static constexpr int kWindow = 120;
    int count_ = 0; ///< in this window
    double least_ms_ = 0;
    std::optional<double> before_ms_; ///< the least of the window before
};

} // namespace view
