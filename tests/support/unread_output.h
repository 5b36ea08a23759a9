// SPDX-License-Identifier: MIT
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

/// For a scope, standard output is a small pipe or a terminal that nobody reads before read() is called.
class UnreadOutput
{
public:
    enum class Kind { pipe, terminal };

    explicit UnreadOutput(Kind kind = Kind::pipe)
    {
        fflush(stdout);
        if (kind == Kind::pipe) {
            EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
            fcntl(ends_[1], F_SETPIPE_SZ, 4096);
        } else {
            open_terminal();
        }
        dup2(ends_[1], STDOUT_FILENO);
    }
    ~UnreadOutput()
    {
        read([] {});
        close(before_);
    }
    UnreadOutput(const UnreadOutput&) = delete;
    UnreadOutput& operator=(const UnreadOutput&) = delete;

    /// What came to the output, once, up to the end of @p print, which is called while somebody reads.
    template <typename Print> std::string read(Print print)
    {
        std::string text;
        if (ends_[1] < 0)
            return text;
        std::thread reader([&] {
            char part[4096];
            for (ssize_t size; (size = ::read(ends_[0], part, sizeof(part))) > 0;)
                text.append(part, static_cast<size_t>(size));
        });
        print();
        fflush(stdout);
        dup2(before_, STDOUT_FILENO);
        close(ends_[1]);
        ends_[1] = -1;
        reader.join();
        close(ends_[0]);
        return text;
    }

private:
    void open_terminal()
    {
        ends_[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_TRUE(grantpt(ends_[0]) == 0 && unlockpt(ends_[0]) == 0);
        ends_[1] = open(ptsname(ends_[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
        struct termios raw = {};
        EXPECT_EQ(tcgetattr(ends_[1], &raw), 0);
        cfmakeraw(&raw);
        tcsetattr(ends_[1], TCSANOW, &raw);
    }

    int ends_[2] = {-1, -1};
    const int before_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
};
