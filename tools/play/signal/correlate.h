// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace play
{

/**
 * Where @p needle lies in @p haystack (both mono, same rate, the needle not
 * longer): the place at which the waveforms agree best, looked for where their
 * correlation peaks, as they are and with all frequencies made equally strong.
 * @return the index in the haystack of the needle's first sample; nothing for
 * silence and for what fits at several places, such as a steady tone.
 */
std::optional<int64_t> find_in(const std::vector<float>& haystack, const std::vector<float>& needle);

} // namespace play
