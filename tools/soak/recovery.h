// SPDX-License-Identifier: MIT
/**
 * @file
 * When sound and picture were in sync again. Pure: what was met comes in, with
 * its times.
 */
#pragma once

#include <cstdint>
#include <optional>

#include "observers.h"

namespace soak
{

/// From the end of a trouble on.
class Recovery
{
public:
    explicit Recovery(int64_t from_ns) : from_ns_(from_ns) {}

    /// Where sound belongs to the pictures.
    void met(const Meeting& meeting);
    /// Where there is none: pictures alone.
    void seen(const Sight& sight);

    /// The first of those that were good without a break; nothing: not yet.
    std::optional<int64_t> back_ns() const { return back_ns_; }
    /// From the end of the trouble.
    std::optional<double> seconds() const;

private:
    void count(int64_t at_ns, bool good, int64_t longest_gap_ns, int wanted);

    int64_t from_ns_;
    int run_ = 0;
    int64_t began_ns_ = 0;
    int64_t last_ns_ = 0;
    std::optional<int64_t> back_ns_;
};

} // namespace soak
