// SPDX-License-Identifier: MIT
#include "raw_check.h"

#include <algorithm>
#include <vector>

#include "recording.h"
#include "source.h"

namespace play
{
namespace
{

using Words = std::vector<int16_t>;

/// IEC 61937-1: Pa and Pb begin a burst, Pc says its type, Pd the length of its payload.
constexpr auto preamble_pa = static_cast<int16_t>(0xF872);
constexpr auto preamble_pb = static_cast<int16_t>(0x4E1F);
constexpr int64_t preamble_frames = 2;
constexpr int64_t window_frames = 48000;

bool begins_at(const Words& words, int64_t frame)
{
    auto at = static_cast<size_t>(2 * frame);
    return words[at] == preamble_pa && words[at + 1] == preamble_pb;
}

/// The first frame from @p from on that begins a burst; -1: none.
int64_t find_burst(const Recording& heard, int64_t from)
{
    Words words(2 * window_frames);
    for (; from < heard.frames(); from += window_frames) {
        int64_t got = heard.read(from, words.data(), window_frames);
        for (int64_t i = 0; i < got; i++)
            if (begins_at(words, i))
                return from + i;
    }
    return -1;
}

/// Frames of a burst up to the end of its payload: Pd counts bits, for E-AC-3 bytes.
int64_t used_frames(const int16_t* burst, Coding coding)
{
    constexpr int bits_of_frame = 32;
    int64_t length = static_cast<uint16_t>(burst[3]);
    int64_t bits = coding == Coding::eac3 ? 8 * length : length;
    return std::min(preamble_frames + (bits + bits_of_frame - 1) / bits_of_frame, burst_link_frames(coding));
}

/**
 * Which of the source's bursts may be the one that came: several, as long as only bursts came that are equal, as those
 * of silence are.
 */
class Place
{
public:
    explicit Place(const Source& source)
        : m_source(source), m_sent(static_cast<size_t>(2 * burst_link_frames(source.coding())))
    {
    }

    bool known() const { return !m_candidates.empty(); }

    /// @return whether @p burst, @p used frames long, follows what came before
    bool goes_on(const Words& burst, int64_t used)
    {
        std::vector<int64_t> next;
        for (int64_t number : m_candidates)
            if (is_burst(number + 1, burst, used))
                next.push_back(number + 1);
        if (next.empty())
            return false;
        m_candidates = std::move(next);
        return true;
    }

    /// Anywhere in the source. @return false: it is not the source's
    bool find(const Words& burst, int64_t used)
    {
        m_candidates.clear();
        int64_t bursts = m_source.coded_end() / burst_samples;
        for (int64_t number = 0; number < bursts; number++)
            if (is_burst(number, burst, used))
                m_candidates.push_back(number);
        return known();
    }

private:
    bool is_burst(int64_t number, const Words& burst, int64_t used)
    {
        m_source.link(number * burst_link_frames(m_source.coding()), m_sent.data(), static_cast<int>(used));
        return std::equal(burst.begin(), burst.begin() + 2 * used, m_sent.begin());
    }

    const Source& m_source;
    Words m_sent;
    std::vector<int64_t> m_candidates;
};

} // namespace

RawCheck check_bursts(const Recording& heard, const Source& source)
{
    RawCheck check;
    Place place(source);
    int64_t period = burst_link_frames(source.coding());
    Words burst(static_cast<size_t>(2 * period));
    int64_t first = find_burst(heard, 0);
    for (int64_t at = first, next = 0; at >= 0; at = next) {
        int64_t got = heard.read(at, burst.data(), period);
        int64_t used = used_frames(burst.data(), source.coding());
        if (got < used)
            break;
        bool lost_its_place = place.known() && !place.goes_on(burst, used);
        bool found = (place.known() && !lost_its_place) || place.find(burst, used);
        check.gaps += lost_its_place && found ? 1 : 0;
        check.different += found ? 0 : used;
        check.bursts++;
        check.ended_ns = heard.heard_ns(at + used - 1);
        next = find_burst(heard, at + used);
        check.frames = (next >= 0 ? next : at + used) - first;
    }
    check.began_ns = first >= 0 ? heard.heard_ns(first) : 0;
    return check;
}

} // namespace play
