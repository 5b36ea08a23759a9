// SPDX-License-Identifier: MIT
#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace play
{
namespace
{

constexpr double kEverySTerminal = 0.2;
constexpr double kEverySLog = 10;

} // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) != 0)
{
    if (!terminal_)
        last_ = 0;
}

void Progress::update(double seconds, const std::string& text)
{
    double every = terminal_ ? kEverySTerminal : kEverySLog;
    if (last_ >= 0 && seconds - last_ < every)
        return;
    last_ = seconds;
    std::fprintf(stderr, terminal_ ? "\r\033[K%6.1f s  %s" : "%6.1f s  %s\n", seconds, text.c_str());
}

void Progress::finish()
{
    if (terminal_)
        std::fprintf(stderr, "\r\033[K");
}

} // namespace play
