// SPDX-License-Identifier: MIT
#include "session/frame_log.h"

#include <cinttypes>
#include <cstdio>
#include <map>
#include <utility>
#include <vector>

namespace view
{

void FrameLog::came(const ViewBuffer& frame)
{
    arrivals_.add({run_, frame.number, frame.sequence, frame.written_ns, frame.arrived_ns, moves_});
}

void FrameLog::seen(const ViewBuffer& frame, int64_t seen_ns)
{
    sightings_.add({run_, frame.number, seen_ns, frame.flash});
}

bool FrameLog::write(const std::string& path) const
{
    std::map<std::pair<int64_t, int64_t>, std::vector<Sighting>> seen;
    for (const Sighting& sighting : sightings_.events())
        seen[{sighting.run, sighting.number}].push_back(sighting);
    FILE* file = std::fopen(path.c_str(), "we");
    if (file == nullptr)
        return false;
    std::fputs("run,number,sequence,written_ns,arrived_ns,moves,flash,seen_ns...\n", file);
    for (const Arrival& frame : arrivals_.events()) {
        const std::vector<Sighting>& sightings = seen[{frame.run, frame.number}];
        std::fprintf(file, "%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64 ",%d", frame.run,
                     frame.number, frame.sequence, frame.written_ns, frame.arrived_ns, frame.moves,
                     !sightings.empty() && sightings.front().flash ? 1 : 0);
        for (const Sighting& sighting : sightings)
            std::fprintf(file, ",%" PRId64, sighting.seen_ns);
        std::fputs("\n", file);
    }
    return std::fclose(file) == 0;
}

} // namespace view
