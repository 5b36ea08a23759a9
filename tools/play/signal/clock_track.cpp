// SPDX-License-Identifier: MIT
#include "signal/clock_track.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int64_t gather_ns = 500'000'000;
/// A device in software guesses at first: what it says in this time is used until there is better.
constexpr int64_t settling_ns = 250'000'000;
/// Of the words of half a second, so many are earlier than the one that counts: a single one may be wrong.
constexpr size_t early_share = 8;
/// From this length on, the drift is more than what the anchors' own error makes of it.
constexpr double drift_known_ns = 4e9;
/// No device drifts by more than half a per mille: what looks like it is a leap.
constexpr double most_drift = 500e-6;

/// Those of an hour.
constexpr size_t anchors_ahead = 3600 * 2;
/// Of half a second: a device's periods are longer than a millisecond.
constexpr size_t words_ahead = 512;

} // namespace

ClockTrack::ClockTrack(int rate) : m_rate(rate)
{
    m_anchors.reserve(anchors_ahead);
    m_recent.reserve(words_ahead);
    m_sorted.reserve(words_ahead);
}

void ClockTrack::add(int64_t position, int64_t at_ns)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_recent.empty())
        m_recent_since_ns = at_ns;
    if (!m_settled && at_ns - m_recent_since_ns >= settling_ns) {
        m_settled = true;
        m_recent.clear();
        m_recent_since_ns = at_ns;
    }
    auto place = static_cast<double>(position);
    m_recent.push_back({place, static_cast<double>(at_ns) - nominal_ns(place)});
    if (at_ns - m_recent_since_ns < gather_ns)
        return;
    m_anchors.push_back(gathered());
    m_recent.clear();
}

ClockTrack::Anchor ClockTrack::gathered() const
{
    m_sorted = m_recent;
    auto chosen = m_sorted.begin() + static_cast<std::ptrdiff_t>(m_sorted.size() / early_share);
    std::nth_element(m_sorted.begin(), chosen, m_sorted.end(),
                     [](const Anchor& a, const Anchor& b) { return a.late_ns < b.late_ns; });
    return {(m_recent.front().position + m_recent.back().position) / 2, chosen->late_ns};
}

double ClockTrack::slope() const
{
    if (m_anchors.size() < 2)
        return 0;
    double length = m_anchors.back().position - m_anchors.front().position;
    if (nominal_ns(length) < drift_known_ns)
        return 0;
    double slope = (m_anchors.back().late_ns - m_anchors.front().late_ns) / length;
    double most = most_drift * 1e9 / m_rate;
    return std::clamp(slope, -most, most);
}

double ClockTrack::late_ns(double position) const
{
    if (m_anchors.empty())
        return m_recent.empty() ? 0 : gathered().late_ns;
    auto after = std::upper_bound(m_anchors.begin(), m_anchors.end(), position,
                                  [](double p, const Anchor& anchor) { return p < anchor.position; });
    if (after == m_anchors.begin())
        return after->late_ns + slope() * (position - after->position);
    const Anchor& before = *(after - 1);
    if (after == m_anchors.end())
        return before.late_ns + slope() * (position - before.position);
    double share = (position - before.position) / (after->position - before.position);
    return before.late_ns + share * (after->late_ns - before.late_ns);
}

int64_t ClockTrack::time_of(double position) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int64_t>(nominal_ns(position) + late_ns(position));
}

double ClockTrack::position_at(int64_t at_ns) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    double late = m_anchors.empty() ? late_ns(0) : m_anchors.back().late_ns;
    double position = 0;
    // How late a frame is changes by parts per million with its position: the second round is exact to the nanosecond.
    for (int round = 0; round < 3; round++) {
        position = (static_cast<double>(at_ns) - late) * m_rate / 1e9;
        late = late_ns(position);
    }
    return position;
}

double ClockTrack::drift_ppm() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    // A device that is faster is ever less late.
    return -slope() * m_rate / 1e9 * 1e6;
}

bool ClockTrack::empty() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_anchors.empty() && m_recent.empty();
}

} // namespace play
