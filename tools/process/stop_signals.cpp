// SPDX-License-Identifier: MIT
#include "process/stop_signals.h"

#include <pthread.h>
#include <signal.h>

#include "common/clock.h"

namespace process
{
namespace
{

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int64_t kSameSignalNs = 500'000'000;

// A handler has no arguments of its own.
std::atomic<int> g_number{0};
std::atomic<int64_t> g_first_ns{0};

bool is_ignored(int number)
{
    struct sigaction old = {};
    return sigaction(number, nullptr, &old) == 0 && old.sa_handler == SIG_IGN;
}

/// Those that are not ignored.
sigset_t stop_set()
{
    sigset_t set;
    sigemptyset(&set);
    for (int number : kStopSignals)
        if (!is_ignored(number))
            sigaddset(&set, number);
    return set;
}

void set_action(int number, void (*action)(int))
{
    struct sigaction wanted = {};
    wanted.sa_handler = action;
    wanted.sa_mask = stop_set();
    wanted.sa_flags = SA_RESTART;
    sigaction(number, &wanted, nullptr);
}

/// In a handler too: calls nothing that a handler may not call.
void note(int number)
{
    int64_t now = common::now_ns();
    if (g_first_ns == 0) {
        g_first_ns = now;
        g_number = number;
        return;
    }
    if (now - g_first_ns < kSameSignalNs)
        return;
    set_action(number, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(number);
}

} // namespace

StopSignals::StopSignals()
{
    g_number = 0;
    g_first_ns = 0;
    for (int number : kStopSignals)
        if (!is_ignored(number))
            set_action(number, note);
    set_action(SIGPIPE, SIG_IGN);
}

StopSignals::~StopSignals()
{
    end_ = true;
    if (thread_.joinable())
        thread_.join();
    sigset_t set = stop_set();
    for (int number : kStopSignals)
        if (sigismember(&set, number) == 1)
            set_action(number, SIG_DFL);
    set_action(SIGPIPE, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

int StopSignals::number() const { return g_number; }

void StopSignals::start_thread()
{
    // Threads inherit what is blocked here.
    sigset_t set = stop_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    thread_ = std::thread(&StopSignals::take, this);
}

void StopSignals::take()
{
    pthread_setname_np(pthread_self(), "stop_signals");
    constexpr timespec kLookAgain = {0, 100'000'000}; // at end_
    sigset_t set = stop_set();
    while (!end_) {
        int number = sigtimedwait(&set, nullptr, &kLookAgain);
        if (number > 0)
            note(number);
    }
}

} // namespace process
