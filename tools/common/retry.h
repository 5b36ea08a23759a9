// SPDX-License-Identifier: MIT
// When to try again what did not help.
#pragma once

#include <cstdint>
#include <limits>

namespace common
{

/// A plan that could not be kept, even by resets, is given up. Where only a busy machine was in the way, it can be kept
/// later: so there is one more try after a minute, and then after twice as long each time. Pure: times are arguments,
/// in the unit of @p second.
class Retry
{
public:
    explicit Retry(int64_t second) : first_wait_(60 * second), wait_(first_wait_) {}

    /// The plan is given up, again if it was before.
    void gave_up(int64_t now)
    {
        due_ = now + wait_;
        wait_ *= 2;
    }
    /// It is kept.
    void kept()
    {
        due_ = kNever;
        wait_ = first_wait_;
    }
    /// Whether to try now; once.
    bool is_due(int64_t now)
    {
        if (now < due_)
            return false;
        due_ = kNever;
        return true;
    }

private:
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    const int64_t first_wait_;
    int64_t wait_;
    int64_t due_ = kNever;
};

} // namespace common
