// SPDX-License-Identifier: MIT
#include "control/terminal.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>

#include "control/commands.h"

namespace view
{

Terminal::Terminal()
{
    is_terminal_ = isatty(STDIN_FILENO) != 0 && tcgetattr(STDIN_FILENO, &before_) == 0;
    // A job in the background that sets the terminal would be stopped.
    if (is_terminal_)
        signal(SIGTTOU, SIG_IGN);
}

Terminal::~Terminal()
{
    if (is_terminal_ && in_foreground())
        set_raw(false);
}

bool Terminal::in_foreground() const { return tcgetpgrp(STDIN_FILENO) == getpgrp(); }

void Terminal::set_raw(bool raw)
{
    termios wanted = before_;
    if (raw)
        wanted.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // signals stay
    tcsetattr(STDIN_FILENO, TCSANOW, &wanted);
    raw_ = raw;
}

std::vector<std::string> Terminal::keys(int timeout_ms)
{
    const bool listens = is_terminal_ && in_foreground();
    if (listens && !raw_)
        set_raw(true);
    if (!listens)
        raw_ = false; // the shell has set it for others
    pollfd ready = {listens ? STDIN_FILENO : -1, POLLIN, 0};
    if (poll(&ready, 1, timeout_ms) <= 0)
        return {};
    char bytes[64];
    const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
    if (size <= 0)
        is_terminal_ = false; // hung up
    return size > 0 ? keys_in(std::string(bytes, static_cast<size_t>(size))) : std::vector<std::string>();
}

} // namespace view
