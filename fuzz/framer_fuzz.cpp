// SPDX-License-Identifier: MIT
// The framer of AC-3 and E-AC-3, on a stream cut anywhere.
//
// Input: two bytes that set the largest part, then the stream.
#include "ac3_framer.h"
#include "input.h"

namespace
{

// What it gives. @return how many units
int take_units(ac3::Framer* framer)
{
    ac3::Unit unit = {};
    int units = 0;
    for (; framer->next(&unit); ++units) {
        require(unit.bytes >= ac3::kHeaderBytes && unit.bytes <= ac3::kUnitBytesMax);
        require(unit.samples > 0 && unit.samples <= ac3::kFrameSamplesMax);
        ac3::Header header = {};
        require(ac3::parse_header(unit.data, &header) && !header.swapped && header.bytes <= unit.bytes);
        const std::vector<uint8_t> whole(unit.data, unit.data + unit.bytes); // can be read
        require(whole.size() == unit.bytes);
    }
    return units;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const size_t largest = input.word() % 8192 + 1;
    ac3::Framer framer;
    size_t given = 0;
    while (!input.empty()) {
        const std::vector<uint8_t> part = input.take(largest);
        for (size_t at = 0; at < part.size();) {
            const size_t taken = framer.write(part.data() + at, part.size() - at);
            require(taken > 0); // all units were taken
            at += taken;
            given += static_cast<size_t>(take_units(&framer));
        }
    }
    require(given <= size / ac3::kHeaderBytes);
    return 0;
}
