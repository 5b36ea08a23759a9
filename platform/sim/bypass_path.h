// SPDX-License-Identifier: MIT
/**
 * @file
 * What went from the link to the digital outputs past the player. Pure: the
 * time comes in as an argument; kept as spans of the signals, not as data.
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
        int64_t end;   ///< kNever while it goes on
    };

    /// The capture device was opened, as a path past the player or not; @p signal may be null.
    void open(bool active, const LinkSignalPtr& signal, int64_t now)
    {
        active_ = active;
        carry(signal, now);
    }

    /// Another signal, or none, takes the link.
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

    /// With the one that goes on as far as it has come.
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
