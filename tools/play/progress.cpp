// SPDX-License-Identifier: MIT
#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace play
{
namespace
{

constexpr double every_s_terminal = 0.2;
constexpr double every_s_log = 10;

} // namespace

Progress::Progress() : m_terminal(isatty(STDERR_FILENO) != 0)
{
    if (!m_terminal)
        m_last = 0;
}

void Progress::update(double seconds, const std::string& text)
{
    double every = m_terminal ? every_s_terminal : every_s_log;
    if (m_last >= 0 && seconds - m_last < every)
        return;
    m_last = seconds;
    std::fprintf(stderr, m_terminal ? "\r\033[K%6.1f s  %s" : "%6.1f s  %s\n", seconds, text.c_str());
}

void Progress::finish()
{
    if (m_terminal)
        std::fprintf(stderr, "\r\033[K");
}

} // namespace play
