// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

/// Stereo frames whose samples count up from @p first.
inline std::vector<uint8_t> ramp(int frames, int16_t first = 1)
{
    std::vector<int16_t> samples(static_cast<size_t>(frames) * 2);
    for (size_t i = 0; i < samples.size(); i++)
        samples[i] = static_cast<int16_t>(first + static_cast<int>(i / 2));
    std::vector<uint8_t> bytes(samples.size() * 2);
    memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}
