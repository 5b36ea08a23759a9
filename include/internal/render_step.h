// SPDX-License-Identifier: MIT
/**
 * @file
 * What a render does with its frame where A/V sync is on: a pure decision.
 */
#pragma once

#include <cstdint>

/// What a render knows when it decides.
struct render_state {
    int32_t frame_serial;      ///< of the audio clock
    int32_t last_frame_serial; ///< what the previous render saw of it
    bool resetting;            ///< a reset waits for a new serial
    bool reset_wanted;         ///< one was requested, or the queue is full
    bool wait_audio;           ///< a reset queues its frames until audio runs
    bool sync_changing;        ///< another render is stopping or restarting the synchronizer
    bool on_sync_thread;       ///< inside a flip or drop callback that the pacing makes
};

enum class render_step {
    queue,            ///< stamp the frame and queue it
    queue_new_serial, ///< the same, at a new serial that no reset waited for
    show,             ///< flip it at once, out of a reset that does not wait for audio
    begin_reset,      ///< it is the first of an A/V sync reset
    end_reset,        ///< audio runs again: restart the synchronizer, then queue the frame
};

/// A render that begins or ends a reset is the only one to touch the synchronizer meanwhile. The others go on as if
/// nothing had changed: to wait would be a deadlock where the thread that is being joined renders. For the same reason
/// that thread never begins a reset.
inline render_step next_step(const render_state& state)
{
    if (state.frame_serial != state.last_frame_serial && !state.sync_changing)
        return state.resetting ? render_step::end_reset : render_step::queue_new_serial;
    if (state.resetting)
        return state.wait_audio ? render_step::queue : render_step::show;
    const bool may_reset = !state.sync_changing && !state.on_sync_thread;
    return state.reset_wanted && may_reset ? render_step::begin_reset : render_step::queue;
}
