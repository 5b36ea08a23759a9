// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace play
{

/**
 * Where @p needle lies in @p haystack (both mono, same rate, the needle not
 * longer), by correlation of their phases: every frequency that the needle
 * has counts alike, so that music with one strong note is found as surely as noise.
 * @return the index in the haystack of the needle's first sample; nothing for
 * silence and for what fits at several places, such as a steady tone.
 */
std::optional<int64_t> find_in(const std::vector<float>& haystack, const std::vector<float>& needle);

} // namespace play
