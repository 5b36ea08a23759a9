// SPDX-License-Identifier: MIT
/**
 * @file
 * Which payload of compressed bursts reaches the decoder when the link is
 * captured in chunks: from byte positions alone.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

namespace burst_geometry
{

constexpr size_t kPreambleBytes = 8;

struct Burst {
    size_t start, payload_end; ///< byte positions: of the preamble; behind the payload
};

struct Span {
    size_t begin, end;
};

/// Byte positions, ascending: where a chunk ends, the next one begins. The last one ends behind the last burst.
using Cuts = std::vector<size_t>;

/**
 * Of each burst those payload bytes arrive that lie in the chunk that completes
 * its preamble, and those in the chunk that its payload ends in; what lies
 * between is dropped. The decoder is there from the first span sent with the
 * data type of its own burst, which is the one behind a preamble.
 */
inline std::vector<Span> arriving(const std::vector<Burst>& bursts, const Cuts& cuts)
{
    std::vector<Span> spans;
    for (const Burst& burst : bursts) {
        const size_t head = burst.start + kPreambleBytes;
        const size_t head_end = std::min(*std::upper_bound(cuts.begin(), cuts.end(), head - 1), burst.payload_end);
        if (spans.empty() && head_end == head)
            continue;
        const auto last = std::upper_bound(cuts.begin(), cuts.end(), burst.payload_end - 1);
        const size_t last_start = last == cuts.begin() ? 0 : *std::prev(last);
        for (const Span& span : {Span{head, head_end}, {std::max(head_end, last_start), burst.payload_end}}) {
            if (span.begin < span.end)
                spans.push_back(span);
        }
    }
    return spans;
}

} // namespace burst_geometry
