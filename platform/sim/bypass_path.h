// SPDX-License-Identifier: MIT
/**
 * @file
 * What went from the link to the digital outputs without the player. Pure: the
 * time is an argument. Spans of the signals are stored, not their data.
 */
#pragma once

#include <vector>

#include "capture_ring.h"

namespace sim
{

class BypassPath
{
public:
    struct Span {
        LinkSignalPtr signal;
        int64_t first; ///< link frame
        int64_t end;   ///< kNever for the present one
    };

    /// The capture device was opened, with pass-through if @p active; @p signal may be null.
    void open(bool active, const LinkSignalPtr& signal, int64_t now)
    {
        active_ = active;
        carry(signal, now);
    }

    /// The link now carries @p signal, or none.
    void carry(const LinkSignalPtr& signal, int64_t now)
    {
        end_span(now);
        if (active_ && signal != nullptr)
            spans_.push_back({signal, signal->passed(now), kNever});
    }

    void close(int64_t now)
    {
        end_span(now);
        active_ = false;
    }

    /// All spans; the present one ends at @p now.
    std::vector<Span> spans(int64_t now) const
    {
        std::vector<Span> result = spans_;
        if (!result.empty() && result.back().end == kNever)
            result.back().end = result.back().signal->passed(now);
        return result;
    }

private:
    void end_span(int64_t now)
    {
        if (!spans_.empty() && spans_.back().end == kNever)
            spans_.back().end = spans_.back().signal->passed(now);
    }

    bool active_ = false;
    std::vector<Span> spans_;
};

} // namespace sim
