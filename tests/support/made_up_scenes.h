// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "measure/measure.h"
#include "screen/screen.h"

namespace play
{

/// Instants with those offsets between sound and picture.
inline std::vector<Offset> offsets(std::initializer_list<double> values_ms)
{
    std::vector<Offset> list;
    for (double value : values_ms)
        list.push_back({0, 100, 100 + value});
    return list;
}

/// Pictures on the screen: number, and vertical blanks for which each stayed.
inline std::vector<Sighting> shown(std::initializer_list<std::pair<int64_t, int64_t>> number_and_vblanks)
{
    std::vector<Sighting> list;
    for (auto [number, vblanks] : number_and_vblanks)
        list.push_back({number, false, 0, vblanks});
    return list;
}

} // namespace play
