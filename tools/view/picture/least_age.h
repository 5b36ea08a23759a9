// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>

namespace view
{

/**
 * How old frames or sound are when they come, by what the device says. A machine
 * that is late now and then makes single ones older: the least age counts, of the
 * latest two windows. Stamps from the future are as good as none.
 */
class LeastAge
{
public:
    /// @return the age in ms
    double add(double age_ms)
    {
        least_ms_ = frames_ == 0 ? age_ms : std::min(least_ms_, age_ms);
        if (++frames_ == kWindow) {
            before_ms_ = least_ms_;
            frames_ = 0;
            known_ = true;
        }
        const double least_ms = !known_ ? least_ms_ : frames_ == 0 ? before_ms_ : std::min(least_ms_, before_ms_);
        return std::max(least_ms, 0.0);
    }

private:
    static constexpr int kWindow = 120;
    int frames_ = 0; ///< of the window
    bool known_ = false;
    double least_ms_ = 0;
    double before_ms_ = 0; ///< of the window before
};

} // namespace view
