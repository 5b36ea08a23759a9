// SPDX-License-Identifier: MIT
#include "display/screen.h"

namespace play
{
namespace
{

/// An hour of them at 60 a second: who shows them may be a real-time thread, and need not allocate.
constexpr size_t sightings_ahead = 3600 * 60;

} // namespace

Screen::Screen() { m_sightings.reserve(sightings_ahead); }

void Screen::refresh(const Picture& picture, int64_t seen_ns)
{
    int64_t number = read_number(picture);
    bool flash = is_flash(picture);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_readable = number >= 0;
    if (!m_readable)
        m_unreadable++;
    else if (!m_sightings.empty() && m_sightings.back().number == number)
        m_sightings.back().vblanks++;
    else
        m_sightings.push_back({number, flash, seen_ns, 1});
}

void Screen::stay(int64_t refreshes)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_readable)
        m_unreadable += refreshes;
    else if (!m_sightings.empty())
        m_sightings.back().vblanks += refreshes;
}

std::vector<Sighting> Screen::sightings() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sightings;
}

int64_t Screen::unreadable() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_unreadable;
}

} // namespace play
