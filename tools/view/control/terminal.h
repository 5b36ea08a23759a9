// SPDX-License-Identifier: MIT
// Keys from the terminal, one at a time and without an echo.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

namespace view
{

/// The terminal is as it was when this ends. Without a terminal, or in the background, there are no keys.
class Terminal
{
public:
    Terminal();
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Keys that were pressed; waits for one for at most @p timeout_ms.
    std::vector<std::string> keys(int timeout_ms);

private:
    bool in_foreground() const;
    void set_raw(bool raw);

    bool is_terminal_ = false;
    bool raw_ = false;
    termios before_ = {};
};

} // namespace view
