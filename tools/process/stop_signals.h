// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <thread>

namespace process
{

/**
 * SIGINT, SIGTERM and SIGHUP end the run early, with everything given back and
 * a report of what was measured. A second signal ends the process at once, as
 * if nobody had caught it.
 *
 * One signal may come twice: a terminal that closes sends SIGHUP, and so does
 * its shell. What comes within half a second of the first is taken for it.
 *
 * A signal that the process was started to ignore stays ignored (nohup). So is
 * SIGPIPE, while this lives: who reads the output may have ended with the same
 * signal. One object at a time.
 */
class StopSignals
{
public:
    /// Catches them. Starts no thread.
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// From now on a thread of its own takes them: calls of others are not interrupted. Before other threads start.
    void start_thread();
    /// The signal that came, 0: none.
    int number() const;

private:
    void take();

    std::atomic<bool> end_{false};
    std::thread thread_;
};

} // namespace process
