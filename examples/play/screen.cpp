// SPDX-License-Identifier: MIT
#include "screen.h"

namespace play
{

void Screen::refresh(const Picture& picture, int64_t seen_ns)
{
    int64_t number = read_number(picture);
    bool flash = is_flash(picture);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (number < 0)
        m_unreadable++;
    else if (!m_sightings.empty() && m_sightings.back().number == number)
        m_sightings.back().vblanks++;
    else
        m_sightings.push_back({number, flash, seen_ns, 1});
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
