// SPDX-License-Identifier: MIT
#include "edges/disturbances.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int64_t ms = 1'000'000;
constexpr int64_t second_ns = 1000 * ms;
/// A disturbance is noticed some time after the silence that it makes, or before what is queued has run out.
constexpr int64_t reach_ns = 500 * ms;
/// A silence is measured from its beginning, but not further back than this.
constexpr int64_t longest_silence_ns = 10 * second_ns;
/// Shorter silences are the programme's own.
constexpr int64_t shortest_silence_ns = 5 * ms;
constexpr int chunk_frames = 48;

bool is_silent(const std::vector<int16_t>& stereo)
{
    return std::all_of(stereo.begin(), stereo.end(), [](int16_t sample) { return sample == 0; });
}

/// Puts silence together, piece by piece, and keeps the longest of those that end after a given time.
class SilenceFinder
{
public:
    explicit SilenceFinder(int64_t ends_after_ns) : m_ends_after_ns(ends_after_ns) {}

    void take(int64_t at_ns, bool sounds)
    {
        m_end_ns = at_ns;
        if (!sounds) {
            m_since_ns = m_since_ns < 0 ? at_ns : m_since_ns;
            return;
        }
        if (at_ns >= m_ends_after_ns && lasts(shortest_silence_ns) && lasts(m_longest.to_ns - m_longest.from_ns))
            m_longest = {m_since_ns, at_ns};
        m_since_ns = -1;
    }
    bool silent() const { return m_since_ns >= 0; }
    int64_t since_ns() const { return m_since_ns; }
    const Silence& longest() const { return m_longest; }
    /// What is silent now is so for good.
    Silence at_end() const { return lasts(shortest_silence_ns) ? Silence{m_since_ns, -1} : m_longest; }

private:
    bool lasts(int64_t ns) const { return silent() && m_end_ns - m_since_ns >= ns; }

    const int64_t m_ends_after_ns;
    Silence m_longest;
    int64_t m_since_ns = -1; ///< -1: it sounds
    int64_t m_end_ns = 0;
};

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

Silence silence_around(const Recording& heard, int64_t at_ns)
{
    SilenceFinder finder(at_ns - reach_ns);
    std::vector<int16_t> stereo(2 * chunk_frames);
    int64_t end_ns = -1;
    for (const HeardBlock& block : heard.blocks()) {
        // Between two blocks of different runs nothing was heard.
        if (end_ns >= 0 && block.heard_ns - end_ns >= shortest_silence_ns)
            finder.take(end_ns, false);
        end_ns = block.heard_ns + block.frames * second_ns / heard.sample_rate();
        bool long_ago = end_ns < at_ns - longest_silence_ns;
        if (long_ago)
            finder.take(block.heard_ns, true);
        for (int64_t done = 0; done < block.frames && !long_ago; done += chunk_frames) {
            int64_t now_ns = block.heard_ns + done * second_ns / heard.sample_rate();
            heard.read(block.first_frame + done, stereo.data(), chunk_frames);
            finder.take(now_ns, !block.silence && !is_silent(stereo));
            if (now_ns > at_ns + reach_ns && (!finder.silent() || finder.since_ns() > at_ns + reach_ns))
                return finder.longest();
        }
    }
    return finder.at_end();
}

} // namespace play
