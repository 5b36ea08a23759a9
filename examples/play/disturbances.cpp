// SPDX-License-Identifier: MIT
#include "disturbances.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int64_t ms = 1'000'000;
/// A disturbance is noticed some time after the silence that it makes began, or before what is queued has run out.
constexpr int64_t noticed_late_ns = 500 * ms;
constexpr int64_t noticed_early_ns = 500 * ms;
/// Shorter silences are the programme's own.
constexpr int64_t shortest_silence_ns = 5 * ms;
constexpr int chunk_frames = 48;

bool silent(const std::vector<int16_t>& stereo)
{
    return std::all_of(stereo.begin(), stereo.end(), [](int16_t sample) { return sample == 0; });
}

} // namespace

void DisturbanceLog::note(Disturbance::Kind kind, int64_t now_ns) { m_all.push_back({kind, now_ns, -1}); }

void DisturbanceLog::look(const DeviceCounts& counts, int64_t now_ns)
{
    // Counters go on across openings: what they began with was another run's.
    if (m_known) {
        bool passes = counts.works && counts.frames > m_last.frames;
        if (counts.losses > m_last.losses)
            note(Disturbance::Kind::loss, now_ns);
        else if (counts.suspends > m_last.suspends)
            note(Disturbance::Kind::suspend, now_ns);
        else if (counts.xruns > m_last.xruns)
            note(Disturbance::Kind::xrun, now_ns);
        else if (passes)
            for (Disturbance& disturbance : m_all)
                if (disturbance.back_ns < 0)
                    disturbance.back_ns = now_ns;
    }
    m_last = counts;
    m_known = true;
}

int64_t DisturbanceLog::count(int64_t from_ns, int64_t to_ns) const
{
    return std::count_if(m_all.begin(), m_all.end(), [from_ns, to_ns](const Disturbance& disturbance) {
        return disturbance.at_ns >= from_ns && disturbance.at_ns < to_ns;
    });
}

int64_t sound_back_ns(const Recording& heard, int64_t at_ns)
{
    const std::vector<HeardBlock>& blocks = heard.blocks();
    if (blocks.empty())
        return -1;
    int64_t rate = heard.sample_rate();
    int64_t end_ns = blocks.front().heard_ns;
    int64_t silent_since_ns = -1;
    std::vector<int16_t> stereo(2 * chunk_frames);
    for (const HeardBlock& block : blocks) {
        // Between two blocks of different runs nothing was heard.
        bool pause = block.heard_ns - end_ns >= shortest_silence_ns;
        if (pause && silent_since_ns < 0)
            silent_since_ns = end_ns;
        end_ns = block.heard_ns + block.frames * 1'000'000'000 / rate;
        if (end_ns < at_ns - noticed_late_ns)
            continue;
        for (int64_t done = 0; done < block.frames; done += chunk_frames) {
            int64_t now_ns = block.heard_ns + done * 1'000'000'000 / rate;
            bool nothing = block.silence || heard.read(block.first_frame + done, stereo.data(), chunk_frames) == 0 ||
                           silent(stereo);
            if (nothing) {
                silent_since_ns = silent_since_ns < 0 ? now_ns : silent_since_ns;
                continue;
            }
            bool disturbed = silent_since_ns >= 0 && now_ns - silent_since_ns >= shortest_silence_ns;
            silent_since_ns = -1;
            if (disturbed && now_ns > at_ns - noticed_late_ns)
                return std::max(now_ns, at_ns);
            if (now_ns > at_ns + noticed_early_ns)
                return at_ns;
        }
    }
    return silent_since_ns >= 0 ? -1 : at_ns;
}

} // namespace play
