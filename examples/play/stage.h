// SPDX-License-Identifier: MIT
/**
 * @file
 * Everything around the host, simulated: the source on the HDMI cable, the
 * sound device that records, and the display with its observer.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "flip_gate.h"
#include "frame_pool.h"
#include "hdmi_player.h"
#include "options.h"
#include "recording.h"
#include "screen.h"
#include "source.h"

namespace play
{

/// What happened at the devices.
struct StageStats {
    int chunk_phase = phase_anywhere; ///< bytes from the beginning of the first capture to the next burst
    int64_t captured_end = -1;        ///< number of the link frame after the last one read from the receiver
    int64_t capture_opens = 0;
    int64_t overruns = 0;
    int64_t playback_opens = 0;
    int64_t first_write_ns = 0;
    int64_t playback_frames = 0; ///< written to the sound device
    int64_t vblanks = 0;
    int64_t flips = 0;
    int64_t superseded = 0;
    int64_t repeated = 0;
    int64_t withheld = 0; ///< blocks taken away on demand
};

/// Raw pass-through.
struct RawCheck {
    int64_t frames = 0;    ///< link frames that arrived at the output
    int64_t bursts = 0;    ///< whole ones among them
    int64_t different = 0; ///< frames that are not the source's
    int64_t gaps = 0;      ///< places at which frames are missing
    int64_t began_ns = 0;  ///< when the first frame left the source
    int64_t ended_ns = 0;  ///< when the last one did
};

class Stage
{
public:
    /// Private namespaces for the receiver's announcements. Call while the process has one thread.
    static bool enter_namespaces(std::string* error);

    /// @p source, @p screen and @p gate outlive the stage.
    Stage(const Options& options, Source* source, Screen* screen, FlipGate* gate, const std::string& wav_path);
    ~Stage();

    /// Starts display and sound device. @return what the player is told of the display
    hdmi_player_drm_info_t start();
    /// The source starts to send; its zero lies a moment ahead. @return its clock
    SourceClock connect();
    /// Where the host presents its pictures.
    void present(FrameBuffer* buffer);

    /// The source stops sending.
    void disconnect();
    /// Waits until the sound device has played all that it was given.
    void wait_until_played();
    /// Ends the display and completes the recording. Once, after the player was closed.
    bool finish(Recording* recording, std::string* error);

    /// What went past the player to the digital outputs, against what the source sent.
    RawCheck check_raw() const;
    StageStats stats() const;

private:
    void show_now(FrameBuffer* buffer);

    const Options m_options;
    Source* m_source;
    Screen* m_screen;
    FlipGate* m_gate;
    std::string m_wav_path;
    bool m_display_running = false;
    std::atomic<bool> m_opened{false}; ///< the capture device
    int m_chunk_phase = phase_anywhere;
    std::mutex m_mutex;
    FrameBuffer* m_shown = nullptr; ///< without a display: what is on the imagined one
};

} // namespace play
