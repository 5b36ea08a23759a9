// SPDX-License-Identifier: MIT
#pragma once

namespace process
{

/**
 * Runs the calling thread with round-robin real-time priority, if the machine
 * permits, and with ordinary scheduling when the scope ends.
 *
 * Threads that are started inside inherit it. That matters for the player:
 * threads that it creates without scheduling of their own (those that pace the
 * pictures and feed the sound device) take that of the thread that calls
 * hdmi_player_open(), and later that of the one that calls
 * hdmi_player_video_render(), because an A/V sync reset starts the pacing anew.
 */
class RealtimeScope
{
public:
    explicit RealtimeScope(int priority);
    ~RealtimeScope();
    RealtimeScope(const RealtimeScope&) = delete;
    RealtimeScope& operator=(const RealtimeScope&) = delete;

    bool active() const { return active_; }

private:
    bool active_ = false;
};

/**
 * Keeps what the program uses of its memory, now or later, in the machine's: where the kernel takes back pages of code
 * or files that were not used for a while, a thread of real-time priority would wait for the disk. For an account that
 * may lock any amount of memory. @return false if this one may not: then nothing is changed
 */
bool keep_in_memory();

} // namespace process
